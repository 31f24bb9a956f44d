#pragma once
// Standard frames and the memcpy baseline shared by the benchmarks.
#include <CxPicBufAPI.h>
#include <CxSyntheticCamera.h>

#include <benchmark/benchmark.h>

#include <cstring>
#include <vector>

namespace bench {

// A heap picture that frees itself.
struct Pic
{
    SxPicBuf p;
    Pic() = default;
    explicit Pic(const SxPicBufInfo& f, bool clear = true) { CxPicBufAPI::AllocPicBufFromHeap(p, f, clear, 0); }
    Pic(const Pic&) = delete;
    Pic& operator=(const Pic&) = delete;
    ~Pic() { CxPicBufAPI::FreePicBuf(p, true); }
    SxPicBuf& operator*() { return p; }
    SxPicBuf* operator->() { return &p; }
};

inline SxPicBufInfo format(quint32 w, quint32 h, ExImageDataType t, quint32 channels = 1,
                           ExColorFilterArray cfa = CFA_NONE)
{
    SxPicBufInfo f;
    f.width = w;
    f.height = h;
    f.channels = channels;
    f.dataType = t;
    f.bitsPerSample = bytesPerSampleOf(t) * 8;
    f.colorFilterArray = cfa;
    f.isColor = channels >= 3;
    return f;
}

// A frame of the synthetic camera (8- or 16-bit), so that data-dependent
// kernels (median, histograms) see realistic content rather than zeros.
inline void fillCamera(SxPicBuf& pic, CxSyntheticCamera::ExLayout layout = CxSyntheticCamera::LayoutMono)
{
    CxSyntheticCamera::SxConfig c;
    c.layout = layout;
    c.width = pic.width;
    c.height = pic.height;
    c.dataType = pic.dataType == IDT_UINT16 ? IDT_UINT16 : IDT_UINT8;
    c.bitsPerSample = bytesPerSampleOf(c.dataType) * 8;
    c.colorFilterArray = pic.colorFilterArray == CFA_NONE ? CFA_BAYER_RGGB : pic.colorFilterArray;
    CxSyntheticCamera::renderFrame(c, 7, pic);
}

// memcpy of `bytes` bytes: the memory limit every pixel pass is measured against.
inline void memcpyBaseline(benchmark::State& state, size_t bytes)
{
    std::vector<char> a(bytes, 1), b(bytes, 2);
    for (auto _ : state) {
        std::memcpy(b.data(), a.data(), bytes);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(bytes) * 2);  // read + written
}

constexpr quint32 W = 4096;
constexpr quint32 H = 3000;

} // namespace bench
