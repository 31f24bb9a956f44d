// The median node on a raw Bayer frame next to what it is made of (the host
// median on the four half-size colour planes), OpenCV's median over the whole
// frame and memcpy of the frame; and the merge sequence node per frame next
// to the copies it cannot avoid (one rectangle per frame, plus one picture
// per output). Frames are 4096 x 3000.
#include "BenchNode.h"

#include <MedianCnbl.h>
#include <SeqMergeCnbl.h>

#include <opencv2/imgproc.hpp>

#include <string>

namespace {

SxPicBufInfo bayer(ExImageDataType t)
{
    return bench::format(bench::W, bench::H, t, 1, CFA_BAYER_RGGB);
}

void BM_MedianNode(benchmark::State& state, ExImageDataType t)
{
    bench::pairWithPeer(state, t == IDT_UINT8 ? "MedianPlanes/bayer8" : "MedianPlanes/bayer16", "peer<=1.3");
    bench::NodeRun run(new CxMedianCnbl, bayer(t), CxImageMetadata(), CxSyntheticCamera::LayoutBayer);
    run.run(state);
}

// The work the node cannot avoid: the host median on each colour plane.
void BM_MedianPlanes(benchmark::State& state, ExImageDataType t)
{
    bench::Pic frame(bayer(t));
    bench::fillCamera(*frame, CxSyntheticCamera::LayoutBayer);
    const SxPicBufInfo half = bench::format(bench::W / 2, bench::H / 2, t);
    bench::Pic in[4], out[4];
    for (int i = 0; i < 4; ++i) {
        CxPicBufAPI::AllocPicBufFromHeap(*in[i], half, true, 0);
        CxPicBufAPI::AllocPicBufFromHeap(*out[i], half, true, 0);
        CxPicBufAPI::ExtractChannel(*frame, *in[i], unsigned(i));
    }
    void* work = nullptr;
    if (!CxPicBufAPI::MedianAllocBuffer(half, 1, &work)) {
        state.SkipWithError("no work buffer");
        return;
    }
    for (auto _ : state) {
        for (int i = 0; i < 4; ++i)
            CxPicBufAPI::Median(*in[i], *out[i], 1, work);
        benchmark::ClobberMemory();
    }
    CxPicBufAPI::MedianFreeBuffer(work);
}

void BM_MedianOpenCv(benchmark::State& state, ExImageDataType t)
{
    bench::Pic in(bayer(t)), out(bayer(t));
    bench::fillCamera(*in, CxSyntheticCamera::LayoutBayer);
    const int type = t == IDT_UINT16 ? CV_16U : CV_8U;
    cv::Mat src(int(in->height), int(in->width), type, in->data, in->linePitch);
    cv::Mat dst(int(out->height), int(out->width), type, out->data, out->linePitch);
    for (auto _ : state) {
        cv::medianBlur(src, dst, 3);
        benchmark::ClobberMemory();
    }
}

void BM_SeqMergeNode(benchmark::State& state, int count)
{
    bench::pairWithPeer(state, "CopyRectAndOutput/mono8_tiles" + std::to_string(count), "peer<=1");
    auto* node = new CxSeqMergeCnbl;
    node->setCount(CxSeqMergeCnbl::ModeTiles, count, false);
    bench::NodeRun run(node, bench::format(bench::W, bench::H, IDT_UINT8));
    run.run(state);
}

// The budget of the node per frame: its frame into place, and every count-th
// frame the merged picture into an output.
void BM_CopyRect(benchmark::State& state, int count, bool withOutput)
{
    const SxPicBufInfo f = bench::format(bench::W, bench::H, IDT_UINT8);
    bench::Pic frame(f);
    bench::fillCamera(*frame);
    CxSeqMergeCnbl shape;
    shape.setCount(CxSeqMergeCnbl::ModeTiles, count, false);
    SxPicBufInfo merged;
    shape.queryOutputImageInfo(f, merged, nullptr, nullptr);
    bench::Pic working(merged), output(merged);
    int place = 0;
    for (auto _ : state) {
        CxPicBufAPI::CopyRect(*working, (place % 2) * f.width, (place / 2) * f.height, *frame, 0, 0, f.width,
                              f.height);
        if (++place == count) {
            place = 0;
            if (withOutput)
                CxPicBufAPI::CopyPicBuf(*output, *working, false);
        }
        benchmark::ClobberMemory();
    }
}

void registerAll()
{
    auto ms = [](benchmark::internal::Benchmark* b) { b->Unit(benchmark::kMillisecond)->UseRealTime(); };
    for (ExImageDataType t : {IDT_UINT8, IDT_UINT16}) {
        const std::string frame = t == IDT_UINT8 ? "/bayer8" : "/bayer16";
        ms(benchmark::RegisterBenchmark(("Median" + frame).c_str(), BM_MedianNode, t));
        ms(benchmark::RegisterBenchmark(("MedianPlanes" + frame).c_str(), BM_MedianPlanes, t));
        ms(benchmark::RegisterBenchmark(("opencv_medianBlur" + frame).c_str(), BM_MedianOpenCv, t));
        ms(benchmark::RegisterBenchmark(("memcpy" + frame).c_str(), [t](benchmark::State& s) {
            bench::memcpyBaseline(s, size_t(bench::W) * bench::H * bytesPerSampleOf(t));
        }));
    }
    for (int count : {2, 4}) {
        const std::string frame = "/mono8_tiles" + std::to_string(count);
        ms(benchmark::RegisterBenchmark(("SeqMerge" + frame).c_str(), BM_SeqMergeNode, count));
        ms(benchmark::RegisterBenchmark(("CopyRect" + frame).c_str(), BM_CopyRect, count, false));
        ms(benchmark::RegisterBenchmark(("CopyRectAndOutput" + frame).c_str(), BM_CopyRect, count, true));
        ms(benchmark::RegisterBenchmark(("memcpy" + frame).c_str(), [](benchmark::State& s) {
            bench::memcpyBaseline(s, size_t(bench::W) * bench::H);
        }));
    }
}

const int registered = (registerAll(), 0);

} // namespace
