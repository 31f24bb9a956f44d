#include "ViewFrame.h"

#include <CxFFTImageData.h>
#include <CxImageData.h>
#include <CxPicBufAPI.h>

SxViewFrame::~SxViewFrame()
{
    CxPicBufAPI::FreePicBuf(pic, false);
    CxPicBufAPI::FreePicBuf(im, false);
}

std::shared_ptr<SxViewFrame> SxViewFrame::copyOf(const IxChainData* packet, int stage,
                                                 const std::shared_ptr<CxViewFrameSpares>& spares)
{
    const auto* image = qobject_cast<const CxImageData*>(packet);
    if (!image || !image->picBuf())
        return nullptr;
    std::shared_ptr<SxViewFrame> frame;
    if (spares)
        frame.reset(spares->take(), [spares](SxViewFrame* f) { spares->giveBack(f); });
    else
        frame = std::make_shared<SxViewFrame>();
    frame->stage = stage;
    frame->live = packet->isLiveData();
    frame->meta = image->metadata() ? *image->metadata() : CxImageMetadata();
    // Spectrum parts are copied as the floats they hold, whatever type the
    // node announced.
    const auto* fft = qobject_cast<const CxFFTImageData*>(packet);
    frame->spectrum = fft != nullptr;
    if (!CxPicBufAPI::CopyPicBuf(frame->pic, fft ? CxFFTImageData::floatView(*fft->picBufRe()) : *image->picBuf(),
                                 true))
        return nullptr;
    frame->pic.frameNumber = image->picBuf()->frameNumber;
    if (!fft)
        CxPicBufAPI::FreePicBuf(frame->im, false);
    else if (!CxPicBufAPI::CopyPicBuf(frame->im, CxFFTImageData::floatView(*fft->picBufIm()), true))
        return nullptr;
    return frame;
}

CxViewFrameSpares::~CxViewFrameSpares() { clear(); }

SxViewFrame* CxViewFrameSpares::take()
{
    {
        std::lock_guard<std::mutex> guard(m_lock);
        if (!m_idle.empty()) {
            SxViewFrame* frame = m_idle.back();
            m_idle.pop_back();
            return frame;
        }
    }
    return new SxViewFrame;
}

void CxViewFrameSpares::giveBack(SxViewFrame* frame)
{
    {
        std::lock_guard<std::mutex> guard(m_lock);
        if (m_idle.size() < m_keep) {
            m_idle.push_back(frame);
            return;
        }
    }
    delete frame;
}

void CxViewFrameSpares::clear()
{
    std::vector<SxViewFrame*> idle;
    {
        std::lock_guard<std::mutex> guard(m_lock);
        idle.swap(m_idle);
    }
    for (SxViewFrame* frame : idle)
        delete frame;
}
