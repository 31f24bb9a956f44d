// Histogram measurement and look-up tables on a 4096 x 3000 frame, each next
// to the baselines that bound it: memcpy of the frame's bytes, cv::calcHist
// and cv::LUT on the same pixels.
#include "BenchCommon.h"

#include <CxHistoData.h>
#include <CxLut.h>
#include <CxPicBufMeas.h>

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include <QtCore/QRect>

namespace {
using namespace bench;

cv::Mat asMat(SxPicBuf& p)
{
    const int type = p.dataType == IDT_UINT16 ? CV_16UC1 : CV_8UC1;
    return cv::Mat(int(p.height), int(p.width), type, p.data, p.linePitch);
}

void histogram(benchmark::State& state, ExImageDataType t)
{
    Pic in(format(W, H, t));
    fillCamera(*in);
    CxHistoData h;
    for (auto _ : state) {
        CxPicBufMeas::measureHistogram(h, *in, QRect(), CxHistoData::HDF_All, nullptr);
        benchmark::DoNotOptimize(h.bins(0));
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(in->requiredBytes()));
}

void cvHistogram(benchmark::State& state, ExImageDataType t)
{
    Pic in(format(W, H, t));
    fillCamera(*in);
    const cv::Mat m = asMat(*in);
    const int bins = t == IDT_UINT16 ? 65536 : 256;
    const float range[] = {0.f, float(bins)};
    const float* ranges[] = {range};
    const int channels[] = {0};
    cv::Mat hist;
    for (auto _ : state) {
        cv::calcHist(&m, 1, channels, cv::Mat(), hist, 1, &bins, ranges);
        benchmark::DoNotOptimize(hist.data);
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(in->requiredBytes()));
}

void BM_Histogram8(benchmark::State& s) { histogram(s, IDT_UINT8); }
void BM_Histogram8_cvCalcHist(benchmark::State& s) { cvHistogram(s, IDT_UINT8); }
void BM_Histogram8_memcpy(benchmark::State& s) { memcpyBaseline(s, size_t(W) * H); }
void BM_Histogram16(benchmark::State& s) { histogram(s, IDT_UINT16); }
void BM_Histogram16_cvCalcHist(benchmark::State& s) { cvHistogram(s, IDT_UINT16); }
void BM_Histogram16_memcpy(benchmark::State& s) { memcpyBaseline(s, size_t(W) * H * 2); }

void lut(benchmark::State& state, ExImageDataType t)
{
    Pic in(format(W, H, t)), out(format(W, H, t));
    fillCamera(*in);
    CxLut table(in->bitsPerSample, 1, false, t);
    table.compContrast(0).srcMin = 20;
    table.compContrast(0).srcMax = qint64(in->fullScale() - 20);
    table.compContrast(0).gamma = 1.8;
    if (!table.alloc()) {
        state.SkipWithError("alloc failed");
        return;
    }
    for (auto _ : state) {
        table.apply(&*out, &*in, nullptr);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(in->requiredBytes()) * 2);
}

void BM_Lut8(benchmark::State& s) { lut(s, IDT_UINT8); }
void BM_Lut16(benchmark::State& s) { lut(s, IDT_UINT16); }
void BM_Lut16_memcpy(benchmark::State& s) { memcpyBaseline(s, size_t(W) * H * 2); }

void BM_Lut8_cvLUT(benchmark::State& state)
{
    Pic in(format(W, H, IDT_UINT8)), out(format(W, H, IDT_UINT8));
    fillCamera(*in);
    cv::Mat table(1, 256, CV_8UC1);
    for (int i = 0; i < 256; ++i)
        table.at<uchar>(i) = uchar(255 - i);
    const cv::Mat src = asMat(*in);
    cv::Mat dst = asMat(*out);
    for (auto _ : state) {
        cv::LUT(src, table, dst);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(in->requiredBytes()) * 2);
}

// Mono 16-bit into RGB32 through a pseudo-colour table: the LUT node's
// "map to RGB" path.
void BM_Lut16ToRgb32(benchmark::State& state)
{
    Pic in(format(W, H, IDT_UINT16)), out(format(W, H, IDT_UINT8, 4));
    fillCamera(*in);
    CxLut table(16, 1, false, IDT_UINT16);
    table.setPseudoColor(CxLut::PseudoViridis);
    table.allocRgb(32);
    for (auto _ : state) {
        table.apply(&*out, &*in, nullptr);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(W) * H * 6);
}
} // namespace

BENCHMARK(BM_Histogram8)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_Histogram8_cvCalcHist)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_Histogram8_memcpy)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_Histogram16)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_Histogram16_cvCalcHist)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_Histogram16_memcpy)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_Lut8)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_Lut8_cvLUT)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_Lut16)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_Lut16_memcpy)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_Lut16ToRgb32)->Unit(benchmark::kMillisecond)->UseRealTime();
