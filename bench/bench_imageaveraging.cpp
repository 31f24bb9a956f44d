// Image Averaging on the 16-bit 4096 x 3000 frame: the node per mode (pool and
// packet path included, series of 3), and the per-frame passes one by one
// next to memcpy of the same traffic (bytes read + written) and OpenCV's
// nearest equivalent. The frame part of a name says which traffic its memcpy
// row copies: "mono16" the frame, "mono16_acc" sum and sum of squares,
// "mono16_sd" the deviation pass, "mono16_minmax" a running extreme,
// "mono16_touch" the min-touches pass.
#include "BenchNode.h"

#include "ImageAveragingCnbl.h"
#include "ImageAveragingKernels.h"

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include <string>

namespace {

using bench::H;
using bench::Pic;
using bench::W;

constexpr int64_t Pixels = int64_t(W) * H;
constexpr int SeriesFrames = 16;

cv::Mat matOf(SxPicBuf& p, int cvType)
{
    return cv::Mat(int(p.height), int(p.width), cvType, p.data, p.linePitch);
}

SxPicBufInfo mono(ExImageDataType t)
{
    return bench::format(W, H, t);
}

void perFrame(benchmark::State& state, int64_t bytesPerPixel)
{
    state.SetBytesProcessed(int64_t(state.iterations()) * bytesPerPixel * Pixels);
}

// memcpy moves each byte twice (read and write), so it copies half the traffic.
void BM_Memcpy(benchmark::State& state, int64_t trafficPerPixel)
{
    bench::memcpyBaseline(state, size_t(trafficPerPixel * Pixels / 2));
}

void BM_Node(benchmark::State& state, int mode)
{
    auto* node = new CxImageAveragingCnbl;
    node->setMode(CxImageAveragingCnbl::ExMode(mode));
    node->setCountToAverage(3);
    bench::NodeRun run(node, mono(IDT_UINT16));
    run.run(state);
}

// Mode 1 per frame: sum and sum of squares (reads 2 + 4 + 8, writes 4 + 8).
void BM_Accumulate(benchmark::State& state)
{
    Pic f(mono(IDT_UINT16)), sum(mono(IDT_UINT32)), sq(mono(IDT_UINT64));
    bench::fillCamera(*f);
    bench::pairWithPeer(state, "opencv_accumulate/mono16_acc", "memcpy<=1.5,peer<=1");
    for (auto _ : state) {
        if (!AddSumAndSquares(*sum, *sq, *f))
            state.SkipWithError("no kernel");
        benchmark::ClobberMemory();
    }
    perFrame(state, 2);
}

// The same as two passes of the host's operations (spread over the cores).
void BM_AccumulateHost(benchmark::State& state)
{
    Pic f(mono(IDT_UINT16)), sum(mono(IDT_UINT32)), sq(mono(IDT_UINT64));
    bench::fillCamera(*f);
    for (auto _ : state) {
        CxPicBufAPI::Add(*sum, *f);
        CxPicBufAPI::AddSquares(*sq, *f);
        benchmark::ClobberMemory();
    }
    perFrame(state, 2);
}

void BM_OpenCvAccumulate(benchmark::State& state)
{
    Pic f(mono(IDT_UINT16)), sum(mono(IDT_FLOAT)), sq(mono(IDT_DOUBLE));
    bench::fillCamera(*f);
    cv::Mat src = matOf(*f, CV_16U), s = matOf(*sum, CV_32F), q = matOf(*sq, CV_64F);
    for (auto _ : state) {
        cv::accumulate(src, s);
        cv::accumulateSquare(src, q);
        benchmark::ClobberMemory();
    }
    perFrame(state, 2);
}

// Sums of a series of 16-bit frames, with the spread of camera noise.
void fillSums(SxPicBuf& sum, SxPicBuf& sq)
{
    for (quint32 y = 0; y < H; ++y) {
        quint32* s = sum.row<quint32>(y);
        quint64* q = sq.row<quint64>(y);
        for (quint32 x = 0; x < W; ++x) {
            const quint64 v = 1000 + ((x * 7 + y * 13) & 1023);
            s[x] = quint32(v * SeriesFrames + (x & 15));
            q[x] = v * v * SeriesFrames + 40 * v * (x & 15);
        }
    }
}

void BM_StDev(benchmark::State& state)
{
    Pic sum(mono(IDT_UINT32)), sq(mono(IDT_UINT64)), out(mono(IDT_UINT16));
    fillSums(*sum, *sq);
    bench::pairWithPeer(state, "opencv_stdev/mono16_sd", "memcpy<=1.5,peer<=0.5");
    for (auto _ : state) {
        if (!StDevFromSums(*sum, *sq, SeriesFrames, *out, 10))
            state.SkipWithError("no kernel");
        benchmark::ClobberMemory();
    }
    perFrame(state, 2);
}

// The same from OpenCV's own accumulators (float sum, double squares).
void BM_OpenCvStDev(benchmark::State& state)
{
    Pic sum(mono(IDT_FLOAT)), sq(mono(IDT_DOUBLE)), out(mono(IDT_UINT16)), t(mono(IDT_DOUBLE));
    cv::Mat s = matOf(*sum, CV_32F), q = matOf(*sq, CV_64F), o = matOf(*out, CV_16U), tmp = matOf(*t, CV_64F);
    s.setTo(1000.0 * SeriesFrames);
    q.setTo(1000.0 * 1000.0 * SeriesFrames + 4000.0);
    for (auto _ : state) {
        cv::multiply(s, s, tmp, 1.0 / SeriesFrames, CV_64F);
        cv::subtract(q, tmp, tmp);
        tmp.convertTo(tmp, CV_64F, 1.0 / (SeriesFrames - 1));
        cv::sqrt(tmp, tmp);
        tmp.convertTo(o, CV_16U, 10.0);
        benchmark::ClobberMemory();
    }
    perFrame(state, 2);
}

void BM_MinMax(benchmark::State& state, bool isMin)
{
    Pic f(mono(IDT_UINT16)), acc(mono(IDT_UINT16));
    bench::fillCamera(*f);
    bench::pairWithPeer(state, "opencv_min/mono16_minmax", "memcpy<=1");
    for (auto _ : state) {
        isMin ? CxPicBufAPI::Min(*acc, *f) : CxPicBufAPI::Max(*acc, *f);
        benchmark::ClobberMemory();
    }
    perFrame(state, 2);
}

void BM_OpenCvMin(benchmark::State& state)
{
    Pic f(mono(IDT_UINT16)), acc(mono(IDT_UINT16));
    bench::fillCamera(*f);
    cv::Mat src = matOf(*f, CV_16U), a = matOf(*acc, CV_16U);
    for (auto _ : state) {
        cv::min(a, src, a);
        benchmark::ClobberMemory();
    }
    perFrame(state, 2);
}

void BM_MinTouches(benchmark::State& state)
{
    Pic f(mono(IDT_UINT16)), mn(mono(IDT_UINT16)), touches(mono(IDT_UINT16));
    bench::fillCamera(*f);
    CxPicBufAPI::CopyPicBuf(*mn, *f, false);
    bench::setTarget(state, "memcpy<=1");
    for (auto _ : state) {
        if (!MinTouches(*mn, *touches, *f))
            state.SkipWithError("no kernel");
        benchmark::ClobberMemory();
    }
    perFrame(state, 2);
}

void BM_LineAverage(benchmark::State& state, int mode)
{
    Pic f(mono(IDT_UINT16));
    bench::fillCamera(*f);
    bench::pairWithPeer(state, mode == 1 ? "opencv_reduce_rows/mono16" : "opencv_reduce_cols/mono16", "peer<=1");
    for (auto _ : state) {
        LineAveraging(*f, mode);
        benchmark::ClobberMemory();
    }
    perFrame(state, 2);
}

// The profile only (no write back into the picture).
void BM_OpenCvReduce(benchmark::State& state, int dim)
{
    Pic f(mono(IDT_UINT16));
    bench::fillCamera(*f);
    cv::Mat src = matOf(*f, CV_16U), profile;
    for (auto _ : state) {
        cv::reduce(src, profile, dim, cv::REDUCE_AVG, CV_32F);
        benchmark::ClobberMemory();
    }
    perFrame(state, 2);
}

void registerAll()
{
    auto ms = [](benchmark::internal::Benchmark* b) { b->Unit(benchmark::kMillisecond)->UseRealTime(); };
    ms(benchmark::RegisterBenchmark("memcpy/mono16", BM_Memcpy, 4));
    const char* modes[] = {"avg", "stdev", "min", "max", "touches", "subavg"};
    for (int m = 0; m < 6; ++m)
        ms(benchmark::RegisterBenchmark((std::string("ImageAveraging_") + modes[m] + "/mono16").c_str(), BM_Node, m));

    ms(benchmark::RegisterBenchmark("memcpy/mono16_acc", BM_Memcpy, 26));
    ms(benchmark::RegisterBenchmark("Accumulate_mode1/mono16_acc", BM_Accumulate));
    ms(benchmark::RegisterBenchmark("opencv_accumulate/mono16_acc", BM_OpenCvAccumulate));
    ms(benchmark::RegisterBenchmark("AccumulateHostOps/mono16_acc", BM_AccumulateHost));

    ms(benchmark::RegisterBenchmark("memcpy/mono16_sd", BM_Memcpy, 14));
    ms(benchmark::RegisterBenchmark("StDev/mono16_sd", BM_StDev));
    ms(benchmark::RegisterBenchmark("opencv_stdev/mono16_sd", BM_OpenCvStDev));

    ms(benchmark::RegisterBenchmark("memcpy/mono16_minmax", BM_Memcpy, 6));
    ms(benchmark::RegisterBenchmark("Min/mono16_minmax", BM_MinMax, true));
    ms(benchmark::RegisterBenchmark("Max/mono16_minmax", BM_MinMax, false));
    ms(benchmark::RegisterBenchmark("opencv_min/mono16_minmax", BM_OpenCvMin));

    ms(benchmark::RegisterBenchmark("memcpy/mono16_touch", BM_Memcpy, 10));
    ms(benchmark::RegisterBenchmark("MinTouches/mono16_touch", BM_MinTouches));

    ms(benchmark::RegisterBenchmark("LineAverageRows/mono16", BM_LineAverage, 1));
    ms(benchmark::RegisterBenchmark("LineAverageColumns/mono16", BM_LineAverage, 2));
    ms(benchmark::RegisterBenchmark("opencv_reduce_rows/mono16", BM_OpenCvReduce, 1));
    ms(benchmark::RegisterBenchmark("opencv_reduce_cols/mono16", BM_OpenCvReduce, 0));
}

const int registered = (registerAll(), 0);

} // namespace
