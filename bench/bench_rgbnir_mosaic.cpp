// The RGB-NIR node (colour and NIR outputs, 8- and 16-bit) and the Mosaic Filter node's
// per-hyperpixel average, each frame through a real chain, next to the OpenCV
// operation doing comparable work on the same frame, to memcpy of it and, for
// the colour output, to filling that output alone.
// The RGB-NIR node works on the chain's thread, so its OpenCV peer is held to
// one thread too; the mosaic statistics spread rows over the host's helper
// threads, and OpenCV's resize keeps its own default threading.
#include "BenchCommon.h"
#include "BenchNode.h"

#include "MosaicStatFilterChnbl.h"
#include "RgbNirDemosaicCnbl.h"

#include <opencv2/imgproc.hpp>

namespace {

cv::Mat matOf(const SxPicBuf& p, int type)
{
    return cv::Mat(int(p.height), int(p.width), type, p.data, p.effectiveLinePitch());
}

CxImageMetadata rgbNirMeta()
{
    CxImageMetadata m;
    m.setColorFilterArray(CFA_HSI_MOSAIC);
    m.setHsiCameraParams(CxHsiCameraParams::standardRgbNir());
    return m;
}

const SxPicBufInfo kRgbNirFrame = bench::format(bench::W, bench::H, IDT_UINT8, 1, CFA_HSI_MOSAIC);

// The 16-bit frames have as many samples as the 8-bit ones, so their time
// per sample compares directly with the 8-bit row of the same output.
void BM_RgbNir(benchmark::State& state, CxRgbNirDemosaicCnbl::ExChannel channel, ExImageDataType type)
{
    auto* node = new CxRgbNirDemosaicCnbl;
    node->setChannel(channel, false);
    SxPicBufInfo frame = kRgbNirFrame;
    frame.dataType = type;
    frame.bitsPerSample = bytesPerSampleOf(type) * 8;
    bench::NodeRun run(node, frame, rgbNirMeta(), CxSyntheticCamera::LayoutRgbNir);
    const bool rgb = channel == CxRgbNirDemosaicCnbl::RGB;
    if (type != IDT_UINT8)
        bench::pairWithPeer(state, rgb ? "RgbNirRgb/rgbnir8" : "RgbNirNir/rgbnir8", "peer<=1.5");
    else if (rgb)
        bench::pairWithPeer(state, "opencv_demosaic/rgbnir8", "peer<=1.5");
    else
        bench::pairWithPeer(state, "opencv_demosaic/rgbnir8");
    run.run(state);
}

void BM_OpenCvDemosaic(benchmark::State& state)
{
    bench::Pic in(kRgbNirFrame), out(bench::format(bench::W, bench::H, IDT_UINT8, 3));
    bench::fillCamera(*in, CxSyntheticCamera::LayoutRgbNir);
    cv::Mat src = matOf(*in, CV_8UC1), dst = matOf(*out, CV_8UC3);
    const int threads = cv::getNumThreads();
    cv::setNumThreads(1);
    for (auto _ : state) {
        cv::cvtColor(src, dst, cv::COLOR_BayerBG2BGR);
        benchmark::ClobberMemory();
    }
    cv::setNumThreads(threads);
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(in->dataSize()));
}

const bench::StdFrame& frameNamed(const char* name)
{
    static const std::vector<bench::StdFrame> frames = bench::standardFrames();
    for (const bench::StdFrame& f : frames)
        if (f.name == name)
            return f;
    return frames.front();
}

void BM_MosaicAverage(benchmark::State& state, const char* frameName)
{
    const bench::StdFrame& frame = frameNamed(frameName);
    bench::Pic in(frame.format);
    frame.fill(*in);
    auto* node = new CxMosaicStatFilterChnbl;
    node->setStatFilter(CxMosaicStatFilterChnbl::Average);
    node->setInterpolation(false);
    bench::NodeRun run(node, *in, frame.meta);
    if (frame.format.colorFilterArray != CFA_HSI_MOSAIC)
        bench::pairWithPeer(state, "opencv_resize_area/" + frame.name, "peer<=1.0");
    run.run(state);
}

void BM_OpenCvResizeArea(benchmark::State& state)
{
    const bench::StdFrame& frame = frameNamed("bayer8");
    bench::Pic in(frame.format), out(bench::format(bench::W / 2, bench::H / 2, IDT_UINT8));
    frame.fill(*in);
    cv::Mat src = matOf(*in, CV_8UC1), dst = matOf(*out, CV_8UC1);
    for (auto _ : state) {
        cv::resize(src, dst, dst.size(), 0.5, 0.5, cv::INTER_AREA);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(in->dataSize()));
}

void BM_Memcpy(benchmark::State& state, size_t bytes)
{
    bench::memcpyBaseline(state, bytes);
}

void registerAll()
{
    auto ms = [](benchmark::internal::Benchmark* b) { b->Unit(benchmark::kMillisecond)->UseRealTime(); };
    const size_t frame8 = size_t(bench::W) * bench::H;
    ms(benchmark::RegisterBenchmark("RgbNirRgb/rgbnir8", BM_RgbNir, CxRgbNirDemosaicCnbl::RGB, IDT_UINT8));
    ms(benchmark::RegisterBenchmark("RgbNirNir/rgbnir8", BM_RgbNir, CxRgbNirDemosaicCnbl::NIR, IDT_UINT8));
    ms(benchmark::RegisterBenchmark("opencv_demosaic/rgbnir8", BM_OpenCvDemosaic));
    ms(benchmark::RegisterBenchmark("memcpy/rgbnir8", BM_Memcpy, frame8));
    ms(benchmark::RegisterBenchmark("write_colour_output/rgbnir8", bench::writeColourBaseline, frame8));
    ms(benchmark::RegisterBenchmark("RgbNirRgb/rgbnir16", BM_RgbNir, CxRgbNirDemosaicCnbl::RGB, IDT_UINT16));
    ms(benchmark::RegisterBenchmark("RgbNirNir/rgbnir16", BM_RgbNir, CxRgbNirDemosaicCnbl::NIR, IDT_UINT16));
    ms(benchmark::RegisterBenchmark("memcpy/rgbnir16", BM_Memcpy, 2 * frame8));

    ms(benchmark::RegisterBenchmark("MosaicFilterAvg/bayer8", BM_MosaicAverage, "bayer8"));
    ms(benchmark::RegisterBenchmark("opencv_resize_area/bayer8", BM_OpenCvResizeArea));
    ms(benchmark::RegisterBenchmark("memcpy/bayer8", BM_Memcpy, frame8));

    const SxPicBufInfo& hsi = frameNamed("hsi5x5").format;
    ms(benchmark::RegisterBenchmark("MosaicFilterAvg/hsi5x5", BM_MosaicAverage, "hsi5x5"));
    ms(benchmark::RegisterBenchmark("memcpy/hsi5x5", BM_Memcpy, size_t(hsi.width) * hsi.height));
}

const int registered = (registerAll(), 0);

} // namespace
