// Picture operations on a 4096 x 3000 frame, each next to memcpy of the same
// traffic (bytes read + written) and, where one exists, OpenCV's nearest
// equivalent. Compare bytes_per_second, or real time per frame.
#include "BenchCommon.h"

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

namespace {

using bench::H;
using bench::W;
using bench::Pic;
using bench::format;

constexpr int64_t Pixels = int64_t(W) * H;

cv::Mat matOf(SxPicBuf& p, int cvType)
{
    return cv::Mat(int(p.height), int(p.width), cvType, p.data, p.linePitch);
}

void fillPattern(SxPicBuf& p, unsigned seed)
{
    for (quint32 y = 0; y < p.height; ++y) {
        uchar* r = p.rowPtr(y);
        for (quint64 i = 0; i < p.packedLineBytes(); ++i)
            r[i] = uchar((i * 7 + y * 13 + seed) >> 2);
    }
}

// traffic: bytes read + written per pixel.
void finish(benchmark::State& state, int64_t trafficPerPixel)
{
    state.SetBytesProcessed(int64_t(state.iterations()) * trafficPerPixel * Pixels);
}

void memcpySame(benchmark::State& state, int64_t trafficPerPixel)
{
    bench::memcpyBaseline(state, size_t(trafficPerPixel * Pixels / 2));
}

// ------------------------------------------------------------ Add u32 += u8

void Add_u32_u8(benchmark::State& state)
{
    Pic acc(format(W, H, IDT_UINT32)), frame(format(W, H, IDT_UINT8));
    bench::fillCamera(*frame);
    for (auto _ : state)
        benchmark::DoNotOptimize(CxPicBufAPI::Add(*acc, *frame));
    finish(state, 4 + 1 + 4);
}
void Add_u32_u8_memcpy(benchmark::State& state) { memcpySame(state, 9); }
void Add_u32_u8_cvAccumulateF32(benchmark::State& state)
{
    Pic acc(format(W, H, IDT_FLOAT)), frame(format(W, H, IDT_UINT8));
    bench::fillCamera(*frame);
    cv::Mat a = matOf(*acc, CV_32F), f = matOf(*frame, CV_8U);
    for (auto _ : state)
        cv::accumulate(f, a);
    finish(state, 9);
}

// ------------------------------------------------------ AddSquares

void AddSquares_u64_u16(benchmark::State& state)
{
    Pic acc(format(W, H, IDT_UINT64)), frame(format(W, H, IDT_UINT16));
    bench::fillCamera(*frame);
    for (auto _ : state)
        benchmark::DoNotOptimize(CxPicBufAPI::AddSquares(*acc, *frame));
    finish(state, 8 + 2 + 8);
}
void AddSquares_u64_u16_memcpy(benchmark::State& state) { memcpySame(state, 18); }
void AddSquares_u64_u16_cvAccumulateSquareF64(benchmark::State& state)
{
    Pic acc(format(W, H, IDT_DOUBLE)), frame(format(W, H, IDT_UINT16));
    bench::fillCamera(*frame);
    cv::Mat a = matOf(*acc, CV_64F), f = matOf(*frame, CV_16U);
    for (auto _ : state)
        cv::accumulateSquare(f, a);
    finish(state, 18);
}

void AddSquares_u32_u8(benchmark::State& state)
{
    Pic acc(format(W, H, IDT_UINT32)), frame(format(W, H, IDT_UINT8));
    bench::fillCamera(*frame);
    for (auto _ : state)
        benchmark::DoNotOptimize(CxPicBufAPI::AddSquares(*acc, *frame));
    finish(state, 9);
}
void AddSquares_u32_u8_memcpy(benchmark::State& state) { memcpySame(state, 9); }
void AddSquares_u32_u8_cvAccumulateSquareF32(benchmark::State& state)
{
    Pic acc(format(W, H, IDT_FLOAT)), frame(format(W, H, IDT_UINT8));
    bench::fillCamera(*frame);
    cv::Mat a = matOf(*acc, CV_32F), f = matOf(*frame, CV_8U);
    for (auto _ : state)
        cv::accumulateSquare(f, a);
    finish(state, 9);
}

// ---------------------------------------------------------------- Min, Max

void Min_u8(benchmark::State& state)
{
    Pic acc(format(W, H, IDT_UINT8)), frame(format(W, H, IDT_UINT8));
    fillPattern(*acc, 1);
    bench::fillCamera(*frame);
    for (auto _ : state)
        benchmark::DoNotOptimize(CxPicBufAPI::Min(*acc, *frame));
    finish(state, 3);
}
void Min_u8_memcpy(benchmark::State& state) { memcpySame(state, 3); }
void Min_u8_cvMin(benchmark::State& state)
{
    Pic acc(format(W, H, IDT_UINT8)), frame(format(W, H, IDT_UINT8));
    fillPattern(*acc, 1);
    bench::fillCamera(*frame);
    cv::Mat a = matOf(*acc, CV_8U), f = matOf(*frame, CV_8U);
    for (auto _ : state)
        cv::min(a, f, a);
    finish(state, 3);
}

void Max_u16(benchmark::State& state)
{
    Pic acc(format(W, H, IDT_UINT16)), frame(format(W, H, IDT_UINT16));
    fillPattern(*acc, 1);
    bench::fillCamera(*frame);
    for (auto _ : state)
        benchmark::DoNotOptimize(CxPicBufAPI::Max(*acc, *frame));
    finish(state, 6);
}
void Max_u16_memcpy(benchmark::State& state) { memcpySame(state, 6); }
void Max_u16_cvMax(benchmark::State& state)
{
    Pic acc(format(W, H, IDT_UINT16)), frame(format(W, H, IDT_UINT16));
    fillPattern(*acc, 1);
    bench::fillCamera(*frame);
    cv::Mat a = matOf(*acc, CV_16U), f = matOf(*frame, CV_16U);
    for (auto _ : state)
        cv::max(a, f, a);
    finish(state, 6);
}

// ------------------------------------------------------------ DivideByValue

void DivideByValue_u32_u8(benchmark::State& state)
{
    Pic sum(format(W, H, IDT_UINT32)), out(format(W, H, IDT_UINT8));
    fillPattern(*sum, 3);
    for (auto _ : state)
        benchmark::DoNotOptimize(CxPicBufAPI::DivideByValue(*sum, 7, *out));
    finish(state, 4 + 1);
}
void DivideByValue_u32_u8_memcpy(benchmark::State& state) { memcpySame(state, 5); }
// OpenCV has no unsigned 32-bit type; a signed sum scaled into 8 bits is the
// same work.
void DivideByValue_u32_u8_cvConvertTo(benchmark::State& state)
{
    Pic sum(format(W, H, IDT_INT32)), out(format(W, H, IDT_UINT8));
    fillPattern(*sum, 3);
    cv::Mat s = matOf(*sum, CV_32S), o = matOf(*out, CV_8U);
    for (auto _ : state)
        s.convertTo(o, CV_8U, 1.0 / 7);
    finish(state, 5);
}

void DivideByValue_u32_u16(benchmark::State& state)
{
    Pic sum(format(W, H, IDT_UINT32)), out(format(W, H, IDT_UINT16));
    fillPattern(*sum, 3);
    for (auto _ : state)
        benchmark::DoNotOptimize(CxPicBufAPI::DivideByValue(*sum, 7, *out));
    finish(state, 4 + 2);
}
void DivideByValue_u32_u16_memcpy(benchmark::State& state) { memcpySame(state, 6); }

// ------------------------------------------------------------ ExtractChannel

void ExtractChannel_u8x4(benchmark::State& state)
{
    Pic in(format(W, H, IDT_UINT8, 4)), out(format(W, H, IDT_UINT8));
    fillPattern(*in, 5);
    for (auto _ : state)
        benchmark::DoNotOptimize(CxPicBufAPI::ExtractChannel(*in, *out, 2));
    finish(state, 4 + 1);
}
void ExtractChannel_u8x4_memcpy(benchmark::State& state) { memcpySame(state, 5); }
void ExtractChannel_u8x4_cvExtractChannel(benchmark::State& state)
{
    Pic in(format(W, H, IDT_UINT8, 4)), out(format(W, H, IDT_UINT8));
    fillPattern(*in, 5);
    cv::Mat i = matOf(*in, CV_8UC4), o = matOf(*out, CV_8U);
    for (auto _ : state)
        cv::extractChannel(i, o, 2);
    finish(state, 5);
}

void ExtractChannel_u8x3(benchmark::State& state)
{
    Pic in(format(W, H, IDT_UINT8, 3)), out(format(W, H, IDT_UINT8));
    fillPattern(*in, 5);
    for (auto _ : state)
        benchmark::DoNotOptimize(CxPicBufAPI::ExtractChannel(*in, *out, 1));
    finish(state, 3 + 1);
}
void ExtractChannel_u8x3_memcpy(benchmark::State& state) { memcpySame(state, 4); }
void ExtractChannel_u8x3_cvExtractChannel(benchmark::State& state)
{
    Pic in(format(W, H, IDT_UINT8, 3)), out(format(W, H, IDT_UINT8));
    fillPattern(*in, 5);
    cv::Mat i = matOf(*in, CV_8UC3), o = matOf(*out, CV_8U);
    for (auto _ : state)
        cv::extractChannel(i, o, 1);
    finish(state, 4);
}

void ExtractChannel_u16x4(benchmark::State& state)
{
    Pic in(format(W, H, IDT_UINT16, 4)), out(format(W, H, IDT_UINT16));
    fillPattern(*in, 5);
    for (auto _ : state)
        benchmark::DoNotOptimize(CxPicBufAPI::ExtractChannel(*in, *out, 3));
    finish(state, 8 + 2);
}
void ExtractChannel_u16x4_memcpy(benchmark::State& state) { memcpySame(state, 10); }
void ExtractChannel_u16x4_cvExtractChannel(benchmark::State& state)
{
    Pic in(format(W, H, IDT_UINT16, 4)), out(format(W, H, IDT_UINT16));
    fillPattern(*in, 5);
    cv::Mat i = matOf(*in, CV_16UC4), o = matOf(*out, CV_16U);
    for (auto _ : state)
        cv::extractChannel(i, o, 3);
    finish(state, 10);
}

} // namespace

#define QLAR_BENCH(fn) BENCHMARK(fn)->UseRealTime()->Unit(benchmark::kMillisecond)

QLAR_BENCH(Add_u32_u8);
QLAR_BENCH(Add_u32_u8_memcpy);
QLAR_BENCH(Add_u32_u8_cvAccumulateF32);
QLAR_BENCH(AddSquares_u64_u16);
QLAR_BENCH(AddSquares_u64_u16_memcpy);
QLAR_BENCH(AddSquares_u64_u16_cvAccumulateSquareF64);
QLAR_BENCH(AddSquares_u32_u8);
QLAR_BENCH(AddSquares_u32_u8_memcpy);
QLAR_BENCH(AddSquares_u32_u8_cvAccumulateSquareF32);
QLAR_BENCH(Min_u8);
QLAR_BENCH(Min_u8_memcpy);
QLAR_BENCH(Min_u8_cvMin);
QLAR_BENCH(Max_u16);
QLAR_BENCH(Max_u16_memcpy);
QLAR_BENCH(Max_u16_cvMax);
QLAR_BENCH(DivideByValue_u32_u8);
QLAR_BENCH(DivideByValue_u32_u8_memcpy);
QLAR_BENCH(DivideByValue_u32_u8_cvConvertTo);
QLAR_BENCH(DivideByValue_u32_u16);
QLAR_BENCH(DivideByValue_u32_u16_memcpy);
QLAR_BENCH(ExtractChannel_u8x4);
QLAR_BENCH(ExtractChannel_u8x4_memcpy);
QLAR_BENCH(ExtractChannel_u8x4_cvExtractChannel);
QLAR_BENCH(ExtractChannel_u8x3);
QLAR_BENCH(ExtractChannel_u8x3_memcpy);
QLAR_BENCH(ExtractChannel_u8x3_cvExtractChannel);
QLAR_BENCH(ExtractChannel_u16x4);
QLAR_BENCH(ExtractChannel_u16x4_memcpy);
QLAR_BENCH(ExtractChannel_u16x4_cvExtractChannel);
