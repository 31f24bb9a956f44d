#include "ViewFrame.h"

#include <CxFFTImageData.h>
#include <CxImageData.h>
#include <CxPicBufAPI.h>

SxViewFrame::~SxViewFrame()
{
    CxPicBufAPI::FreePicBuf(pic, false);
    CxPicBufAPI::FreePicBuf(im, false);
}

std::shared_ptr<SxViewFrame> SxViewFrame::copyOf(const IxChainData* packet, int stage)
{
    const auto* image = qobject_cast<const CxImageData*>(packet);
    if (!image || !image->picBuf())
        return nullptr;
    auto frame = std::make_shared<SxViewFrame>();
    frame->stage = stage;
    frame->live = packet->isLiveData();
    if (image->metadata())
        frame->meta = *image->metadata();
    if (!CxPicBufAPI::CopyPicBuf(frame->pic, *image->picBuf(), true))
        return nullptr;
    frame->pic.frameNumber = image->picBuf()->frameNumber;
    if (const auto* fft = qobject_cast<const CxFFTImageData*>(packet)) {
        frame->spectrum = true;
        if (!CxPicBufAPI::CopyPicBuf(frame->im, *fft->picBufIm(), true))
            return nullptr;
    }
    return frame;
}
