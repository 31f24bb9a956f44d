#include "CxImageProvider.h"

CxImageProvider::CxImageProvider(ExChainableFlags flags) : CxChainable(flags) {}

CxImageProvider::~CxImageProvider() = default;

bool CxImageProvider::init(QString* errorMessage) { return CxChainable::init(errorMessage); }

bool CxImageProvider::initialized() { return CxChainable::initialized(); }

bool CxImageProvider::queryOutputImageInfo(const SxPicBufInfo& in, SxPicBufInfo& out,
                                           const CxImageMetadata* inMeta, CxImageMetadata* outMeta)
{
    out = in;
    if (outMeta && inMeta)
        *outMeta = *inMeta;
    return true;
}

bool CxImageProvider::currentOutputImageInfo(SxPicBufInfo& info, CxImageMetadata* meta)
{
    if (!m_hasFormats)
        return false;
    info = m_outInfo;
    if (meta)
        *meta = m_outMeta;
    return true;
}

bool CxImageProvider::currentInputImageInfo(SxPicBufInfo& info, CxImageMetadata* meta)
{
    if (!m_hasFormats)
        return false;
    info = m_inInfo;
    if (meta)
        *meta = m_inMeta;
    return true;
}

int CxImageProvider::queryImagesCountInMemoryPool(const SxPicBufInfo& info, void* reserved)
{
    Q_UNUSED(info);
    Q_UNUSED(reserved);
    return qMax(0, buffersCountInMemoryPool()) + qMax(0, recommendedAdditionalBuffersInMemoryPool());
}

void CxImageProvider::setCurrentImageInfo(const SxPicBufInfo& in, const CxImageMetadata& inMeta,
                                          const SxPicBufInfo& out, const CxImageMetadata& outMeta)
{
    m_inInfo = in;
    m_inMeta = inMeta;
    m_outInfo = out;
    m_outMeta = outMeta;
    m_hasFormats = true;
}
