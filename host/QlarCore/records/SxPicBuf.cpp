#include "SxPicBuf.h"

void SxPicBuf::copyPicAdditionalData(const SxPicBuf& src)
{
    if (&src == this)
        return;
    frameNumber = src.frameNumber;
    attachments = src.attachments;
}

void SxPicBuf::setPicFormat(const SxPicBufInfo& info)
{
    static_cast<SxPicBufInfo&>(*this) = info;
}
