// The LUT mapping node on full camera frames (mono and colour): a fixed
// window, the automatic window (which re-measures the histogram at most every
// 125 ms) and the map into RGB, next to cv::LUT on the same 8-bit pixels and
// memcpy of the same bytes. The histogram row shows what one automatic measurement costs;
// the colour-output row, what filling the map into RGB's output alone costs.
#include "BenchNode.h"

#include <LutInmapCnbl.h>

#include <CxHistoData.h>
#include <CxLut.h>
#include <CxPicBufMeas.h>

#include <opencv2/core.hpp>

#include <QtCore/QRect>

namespace {
using namespace bench;

enum ExMode { Fixed, Automatic, Rgb };

CxLutInmapCnbl* lutNode(ExMode mode, const SxPicBufInfo& f)
{
    auto* node = new CxLutInmapCnbl;
    node->setAutoMinMax(mode == Automatic);
    node->setMapToRgb(mode == Rgb);
    node->setPseudoColor(CxLut::PseudoViridis);
    node->setSrcMin(20);
    node->setSrcMax(qint64(f.fullScale()) - 20);
    node->setGamma(1.8);
    return node;
}

void BM_LutNode(benchmark::State& state, ExMode mode, const StdFrame& frame)
{
    NodeRun run(lutNode(mode, frame.format), frame.format, frame.meta, frame.layout);
    const bool mono8 = frame.format.dataType == IDT_UINT8 && frame.format.channels == 1;
    if (mode == Fixed && mono8)
        pairWithPeer(state, "opencv_LUT/" + frame.name, "peer<=1.0");
    else if (mode == Fixed && frame.format.dataType == IDT_UINT16)
        setTarget(state, "memcpy<=1.2");
    else if (mode == Automatic)
        pairWithPeer(state, "LutMapping/" + frame.name);
    else
        setTarget(state, "memcpy<=4");
    run.run(state);
}

void BM_OpenCvLut(benchmark::State& state, const StdFrame& frame)
{
    Pic in(frame.format), out(frame.format);
    frame.fill(*in);
    cv::Mat table(1, 256, CV_8UC1);
    for (int i = 0; i < 256; ++i)
        table.at<uchar>(i) = uchar(255 - i);
    const cv::Mat src(int(in->height), int(in->width), CV_8UC1, in->data, in->linePitch);
    cv::Mat dst(int(out->height), int(out->width), CV_8UC1, out->data, out->linePitch);
    for (auto _ : state) {
        cv::LUT(src, table, dst);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(in->dataSize()));
}

void BM_Histogram(benchmark::State& state, const StdFrame& frame)
{
    Pic in(frame.format);
    frame.fill(*in);
    CxHistoData histo;
    for (auto _ : state) {
        CxPicBufMeas::measureHistogram(histo, *in, QRect(), CxHistoData::HDF_All, nullptr);
        benchmark::DoNotOptimize(histo.bins(0));
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(in->dataSize()));
}

void registerAll()
{
    auto ms = [](benchmark::internal::Benchmark* b) { b->Unit(benchmark::kMillisecond)->UseRealTime(); };
    for (const StdFrame& frame : standardFrames()) {
        if (frame.name != "mono8" && frame.name != "mono16" && frame.name != "rgba8")
            continue;
        const std::string& n = frame.name;
        ms(benchmark::RegisterBenchmark(("LutMapping/" + n).c_str(), BM_LutNode, Fixed, frame));
        if (frame.format.channels == 1)
            ms(benchmark::RegisterBenchmark(("LutMappingAuto/" + n).c_str(), BM_LutNode, Automatic, frame));
        ms(benchmark::RegisterBenchmark(("LutMappingRgb/" + n).c_str(), BM_LutNode, Rgb, frame));
        if (frame.name == "mono8")
            ms(benchmark::RegisterBenchmark(("opencv_LUT/" + n).c_str(), BM_OpenCvLut, frame));
        ms(benchmark::RegisterBenchmark(("histogram/" + n).c_str(), BM_Histogram, frame));
        ms(benchmark::RegisterBenchmark(("memcpy/" + n).c_str(), [](benchmark::State& s, size_t bytes) {
            memcpyBaseline(s, bytes);
        }, size_t(frame.format.packedLineBytes()) * frame.format.height));
        // Filling the colour output alone: the least the map into RGB can cost.
        if (frame.name == "mono8")
            ms(benchmark::RegisterBenchmark(("write_colour_output/" + n).c_str(), writeColourBaseline,
                                            size_t(frame.format.width) * frame.format.height));
    }
}

const int registered = (registerAll(), 0);

} // namespace
