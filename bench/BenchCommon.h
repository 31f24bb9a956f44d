#pragma once
// Standard frames and the memcpy baseline shared by the benchmarks.
#include <CxHsiCameraParams.h>
#include <CxImageMetadata.h>
#include <CxPicBufAPI.h>
#include <CxSyntheticCamera.h>

#include <benchmark/benchmark.h>

#include <cstring>
#include <string>
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
    // The bytes of one frame, like every operation reports: GB/s columns then
    // compare directly.
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(bytes));
}

// Filling a colour frame's bytes (four per input sample) and nothing else:
// the least any colour output of that frame can cost.
inline void writeColourBaseline(benchmark::State& state, size_t samples)
{
    std::vector<char> out(4 * samples, 1);
    char value = 0;
    for (auto _ : state) {
        std::memset(out.data(), ++value, out.size());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(samples));
}

constexpr quint32 W = 4096;
constexpr quint32 H = 3000;

// bench/run pairs every operation "<op>/<frame>" with the "memcpy/<frame>"
// row of the same program, and with the peer its label names (a benchmark
// name of the same program, e.g. "opencv_rotate/mono8"): it runs the
// operation and these baselines in turn, a short slice each, for several
// rounds in one process, and reports the median of the per-round ratios. A
// target states the speed an issue asks for, as "memcpy<=1.5", "peer<=0.5"
// or "ms<=40" (several joined by ','); the table marks the rows that miss
// it. A label may pair with several peers, "peer=A;target=...|peer=B;...",
// each with a target of its own (pairWithPeers). Baselines carry no label.
inline std::string pairing(const std::string& peer, const std::string& target = {})
{
    return "peer=" + peer + (target.empty() ? std::string() : ";target=" + target);
}
inline void pairWithPeer(benchmark::State& state, const std::string& peer, const std::string& target = {})
{
    state.SetLabel(pairing(peer, target));
}
// Pairings made with pairing(), in the order the table lists them.
inline void pairWithPeers(benchmark::State& state, const std::vector<std::string>& pairings)
{
    std::string label;
    for (const std::string& p : pairings)
        label += (label.empty() ? "" : "|") + p;
    state.SetLabel(label);
}
inline void setTarget(benchmark::State& state, const std::string& target)
{
    state.SetLabel("target=" + target);
}

// The single 5x5 zone of the standard hyperspectral frame: 25 bands of one
// pixel each, the mosaic cut to whole hyperpixels from the sensor's corner.
inline CxHsiCameraParams hsi5x5(quint32 width, quint32 height)
{
    CxHsiCameraParams::CxFilterZone z;
    z.rect = QRect(0, 0, int(width / 5 * 5), int(height / 5 * 5));
    z.patternWidth = z.patternHeight = 5;
    for (int b = 0; b < 25; ++b)
        z.bands.append(CxHsiCameraParams::CxBand(QStringLiteral("b%1").arg(b), 600.0 + 10.0 * ((b * 7) % 25)));
    CxHsiCameraParams hsi;
    hsi.setFilterZones({z});
    return hsi;
}

// The frames every node and operation is measured on; `name` is the frame
// part of a benchmark's name.
struct StdFrame
{
    std::string name;
    SxPicBufInfo format;
    CxImageMetadata meta;
    CxSyntheticCamera::ExLayout layout;

    // A picture of this frame filled with synthetic camera content.
    void fill(SxPicBuf& pic) const
    {
        CxSyntheticCamera::SxConfig c;
        c.layout = layout;
        c.width = pic.width;
        c.height = pic.height;
        c.dataType = pic.dataType == IDT_UINT16 ? IDT_UINT16 : IDT_UINT8;
        c.bitsPerSample = bytesPerSampleOf(c.dataType) * 8;
        c.colorFilterArray = pic.colorFilterArray == CFA_NONE ? CFA_BAYER_RGGB : pic.colorFilterArray;
        c.hsi = meta.hsiCameraParams();
        CxSyntheticCamera::renderFrame(c, 7, pic);
    }
};

inline std::vector<StdFrame> standardFrames()
{
    std::vector<StdFrame> frames;
    const auto add = [&](const char* name, SxPicBufInfo f, CxSyntheticCamera::ExLayout layout,
                         const CxHsiCameraParams& hsi = CxHsiCameraParams()) {
        CxImageMetadata m;
        m.setColorFilterArray(f.colorFilterArray);
        m.setHsiCameraParams(hsi);
        frames.push_back({name, f, m, layout});
    };
    add("mono8", format(W, H, IDT_UINT8), CxSyntheticCamera::LayoutMono);
    add("mono16", format(W, H, IDT_UINT16), CxSyntheticCamera::LayoutMono);
    add("bayer8", format(W, H, IDT_UINT8, 1, CFA_BAYER_RGGB), CxSyntheticCamera::LayoutBayer);
    add("bayer16", format(W, H, IDT_UINT16, 1, CFA_BAYER_RGGB), CxSyntheticCamera::LayoutBayer);
    add("rgba8", format(1920, 1080, IDT_UINT8, 4), CxSyntheticCamera::LayoutRgba);
    add("hsi5x5", format(2048, 1088, IDT_UINT8, 1, CFA_HSI_MOSAIC), CxSyntheticCamera::LayoutHsi,
        hsi5x5(2048, 1088));
    return frames;
}

} // namespace bench
