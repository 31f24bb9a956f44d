#pragma once
#include "CxHistoData.h"
#include "SxPicBuf.h"

class CxImageData;
class CxImageMetadata;
class QRect;

// Measurements on pictures.
//
// measureHistogram fills histo with the bins and statistics of the samples
// inside rect (CxHistoData tells the channel layout, bins and statistics).
// An empty rectangle (no width or no height: QRect(), and QRect(0, 0, -1, -1)
// too, as callers write it) means the whole picture; a rectangle that reaches
// out of the picture is clipped to it. The answer is false, with histo
// cleared, for a picture without pixels, an invalid format, a sample type
// other than signed/unsigned 8, 16, 32-bit integer or float, a rectangle that
// misses the picture, and rows that are not aligned to the sample size. The metadata is only
// consulted for HDF_PerMosaicCell on hyperspectral mosaics, and may be null.
//
// Rows are measured on all cores (the kit's row scheduler) with a private
// histogram per thread; no picture memory is allocated.
class QLARCORE_EXPORT CxPicBufMeas
{
public:
    static bool measureHistogram(CxHistoData& histo, const CxImageData* image, const QRect& rect,
                                 QFlags<CxHistoData::ExHistoDataFlag> flags);
    static bool measureHistogram(CxHistoData& histo, const SxPicBuf& pic, const QRect& rect,
                                 QFlags<CxHistoData::ExHistoDataFlag> flags, const CxImageMetadata* metadata);
};
