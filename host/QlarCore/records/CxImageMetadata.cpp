#include "CxImageMetadata.h"

void CxImageMetadata::updateFromPicBufInfo(const SxPicBufInfo* info)
{
    if (!info)
        return;
    m_width = info->width;
    m_height = info->height;
    m_bitsPerSample = info->bitsPerSample;
    m_colorFilterArray = info->colorFilterArray;
}
