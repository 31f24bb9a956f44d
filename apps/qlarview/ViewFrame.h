#pragma once
#include <CxImageMetadata.h>
#include <SxPicBuf.h>

#include <memory>

class IxChainData;

// A picture the viewer holds for itself: a heap copy of what one stage of
// the chain handed on, so that the chain's pool pictures go back at once and
// the GUI never touches memory a chain thread may reuse. Spectrum packets
// (CxFFTImageData) keep both parts; their samples are 32-bit floats whatever
// the announced format says.
struct SxViewFrame
{
    SxPicBuf pic;          // the picture, or the real part of a spectrum
    SxPicBuf im;           // the imaginary part of a spectrum, else without pixels
    bool spectrum = false;
    CxImageMetadata meta;
    int stage = -1;        // -1: the chain's input, i: the output of node i
    bool live = false;

    SxViewFrame() = default;
    SxViewFrame(const SxViewFrame&) = delete;
    SxViewFrame& operator=(const SxViewFrame&) = delete;
    ~SxViewFrame();

    // Null when the packet is not a picture (or the copy cannot be made).
    static std::shared_ptr<SxViewFrame> copyOf(const IxChainData* packet, int stage);
};

using ViewFramePtr = std::shared_ptr<const SxViewFrame>;
