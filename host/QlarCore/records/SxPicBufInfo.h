#pragma once
#include "QlarCoreExport.h"
#include "ExImageDataType.h"
#include "ExDataStorageFormat.h"
#include "ExColorFilterArray.h"

#include <QtCore/QString>

// Format of a picture. Field order and widths are part of the host contract:
// nodes build this record on the stack and copy it field by field.
//
// Channel order of colour pictures. Every colour picture of the host (isColor
// set, 3 or 4 interleaved channels) is stored blue first: B, G, R, then
// alpha, for every sample type. That is the memory order of Qt's RGB32 and
// ARGB32 pictures on the little-endian machines we build for, in which nodes
// paint their plots and displays draw, so a display picture needs no
// swizzle. A picture whose isColor is clear has numbered channels in its own
// order. Writers and displays tell the two apart by isColor alone: nodes
// empty the channel names of the pictures they make, so names never decide
// it. Red-first data exists only outside the host, in files (TIFF RGB, PNG,
// PPM) and in QImage's RGB888, RGBA8888 and RGBA64 formats; readers and
// writers turn it round at the file boundary and nowhere else.
struct QLARCORE_EXPORT SxPicBufInfo
{
    quint32 width = 0;
    quint32 height = 0;
    quint32 linePitch = 0;      // bytes from one row to the next; 0 = let the allocator compute it
    quint32 channels = 0;
    quint32 bitsPerSample = 0;  // significant bits; full scale is (1 << bitsPerSample) - 1
    quint32 userFlags = 0;      // opaque to the host operations; travels with the format
    ExImageDataType dataType = IDT_UNKNOWN;
    ExDataStorageFormat storageFormat = DSF_PACKED;
    ExColorFilterArray colorFilterArray = CFA_NONE;
    bool isColor = false;

    unsigned bytesPerSample() const { return bytesPerSampleOf(dataType); }
    unsigned bytesPerPixel() const { return bytesPerSample() * channels; }
    // Row length without padding.
    quint64 packedLineBytes() const { return quint64(width) * bytesPerPixel(); }
    // linePitch, or the packed row length when linePitch is 0.
    quint64 effectiveLinePitch() const { return linePitch ? linePitch : packedLineBytes(); }
    // Bytes that hold the pixels: every row's pitch except the last row, which
    // needs only its packed bytes (a picture cut out of a larger one has no
    // padding after its last row).
    quint64 requiredBytes() const;
    // Full scale of a sample: (1 << bitsPerSample) - 1, saturated at 32 bits.
    quint64 fullScale() const;

    // A colour picture in the sense above: stored B, G, R(, A).
    bool isBlueFirstColour() const
    {
        return isColor && (channels == 3 || channels == 4) && storageFormat != DSF_PLANAR;
    }

    bool isValidFormat() const;        // non-empty geometry, a known type, pitch >= packed row
    bool sameFormat(const SxPicBufInfo& o) const;  // every field equal
    QString describe() const;          // "640x480 u8 x1 (bayer RGGB)" for messages and logs
};

QLARCORE_EXPORT QString dataTypeName(ExImageDataType t);
