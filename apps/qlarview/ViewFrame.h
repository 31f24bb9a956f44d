#pragma once
#include <CxImageMetadata.h>
#include <SxPicBuf.h>

#include <memory>
#include <mutex>
#include <vector>

class CxViewFrameSpares;
class IxChainData;

// A picture the viewer holds for itself: a heap copy of what one stage of
// the chain handed on, so that the chain's pool pictures go back at once and
// the GUI never touches memory a chain thread may reuse. Spectrum packets
// (CxFFTImageData) keep both parts, described as the 32-bit floats they
// hold whatever the announced format says.
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
    // With spares the copy goes into a frame that an earlier copy left
    // behind, and the frame goes back there when its last holder lets go: a
    // fresh heap block of a large picture costs the kernel about ten times
    // the copy itself in page faults.
    static std::shared_ptr<SxViewFrame> copyOf(const IxChainData* packet, int stage,
                                               const std::shared_ptr<CxViewFrameSpares>& spares = {});
};

// Frames kept for reuse; shared by the frames handed out, so that it lives
// as long as any of them. At most `keep` idle frames are held.
class CxViewFrameSpares
{
public:
    explicit CxViewFrameSpares(size_t keep = 2) : m_keep(keep) {}
    ~CxViewFrameSpares();
    CxViewFrameSpares(const CxViewFrameSpares&) = delete;
    CxViewFrameSpares& operator=(const CxViewFrameSpares&) = delete;

    SxViewFrame* take();
    void giveBack(SxViewFrame* frame);
    void clear();

private:
    std::mutex m_lock;
    std::vector<SxViewFrame*> m_idle;
    size_t m_keep;
};

using ViewFramePtr = std::shared_ptr<const SxViewFrame>;
