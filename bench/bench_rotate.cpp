// Quarter turns of the standard mono and colour frames, through the node (pool
// and packet path included) and as the bare kernel, next to OpenCV's rotation
// and memcpy of the same frame. Frame thinning runs on the 8-bit frame to show
// that passing a packet on costs nothing measurable. Times are wall-clock: the
// kernel runs on every core.
#include "BenchNode.h"

#include "FilterImagesCnbl.h"
#include "RotateImageCnbl.h"

#include <opencv2/core.hpp>

#include <string>

namespace {

cv::Mat matOf(SxPicBuf& p)
{
    const int depth = p.dataType == IDT_UINT16 ? CV_16U : CV_8U;
    return cv::Mat(int(p.height), int(p.width), CV_MAKETYPE(depth, int(p.channels)), p.data, p.linePitch);
}

SxPicBufInfo turned(const SxPicBufInfo& f)
{
    SxPicBufInfo t = f;
    t.width = f.height;
    t.height = f.width;
    t.linePitch = 0;
    return t;
}

void BM_RotateNode(benchmark::State& state, const bench::StdFrame& frame, bool clockwise)
{
    auto* node = new CxRotateImageCnbl;
    node->setRotation(clockwise, false);
    bench::NodeRun run(node, frame.format, frame.meta, frame.layout);
    bench::pairWithPeer(state, "opencv_rotate/" + frame.name, "peer<=0.5");
    run.run(state);
}

void BM_RotateKernel(benchmark::State& state, const bench::StdFrame& frame)
{
    bench::Pic in(frame.format), out(turned(frame.format));
    frame.fill(*in);
    bench::pairWithPeer(state, "opencv_rotate/" + frame.name);
    for (auto _ : state) {
        if (!CxRotateImageCnbl::rotatePicture(*in, *out, true))
            state.SkipWithError("no kernel for the frame");
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(in->dataSize()));
}

void BM_OpenCvRotate(benchmark::State& state, const bench::StdFrame& frame)
{
    bench::Pic in(frame.format), out(turned(frame.format));
    frame.fill(*in);
    cv::Mat src = matOf(*in), dst = matOf(*out);
    for (auto _ : state) {
        cv::rotate(src, dst, cv::ROTATE_90_CLOCKWISE);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(in->dataSize()));
}

void BM_FilterImagesNode(benchmark::State& state, const bench::StdFrame& frame)
{
    bench::NodeRun run(new CxFilterImagesCnbl, frame.format, frame.meta, frame.layout);
    run.run(state);
}

void registerAll()
{
    auto ms = [](benchmark::internal::Benchmark* b) { b->Unit(benchmark::kMillisecond)->UseRealTime(); };
    for (const bench::StdFrame& frame : bench::standardFrames()) {
        if (frame.name != "mono8" && frame.name != "mono16" && frame.name != "rgba8")
            continue;
        const std::string& n = frame.name;
        const size_t bytes = size_t(frame.format.packedLineBytes() * frame.format.height);
        ms(benchmark::RegisterBenchmark(("memcpy/" + n).c_str(), bench::memcpyBaseline, bytes));
        ms(benchmark::RegisterBenchmark(("opencv_rotate/" + n).c_str(), BM_OpenCvRotate, frame));
        ms(benchmark::RegisterBenchmark(("Rotate/" + n).c_str(), BM_RotateNode, frame, true));
        ms(benchmark::RegisterBenchmark(("RotateCcw/" + n).c_str(), BM_RotateNode, frame, false));
        ms(benchmark::RegisterBenchmark(("RotateKernel/" + n).c_str(), BM_RotateKernel, frame));
        if (n == "mono8")
            ms(benchmark::RegisterBenchmark(("FilterImages/" + n).c_str(), BM_FilterImagesNode, frame));
    }
}

const int registered = (registerAll(), 0);

} // namespace
