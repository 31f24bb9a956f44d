#include "CxImageSource.h"

CxImageSource::CxImageSource(ExChainableFlags flags) : CxImageProvider(flags) {}

bool CxImageSource::queryOutputImageInfo(const SxPicBufInfo& in, SxPicBufInfo& out,
                                         const CxImageMetadata* inMeta, CxImageMetadata* outMeta)
{
    Q_UNUSED(in);
    Q_UNUSED(inMeta);
    return sourceFormat(out, outMeta);
}
