// The median node on the 2x2 mosaics, the colour and the hyperspectral
// standard frames next to the host median on the planes alone (the node
// hands the host whole pattern rows, so node over planes is all it adds),
// the split and weave it falls back to when a host refuses those, OpenCV's
// median over the whole frame and memcpy of the frame; and the merge sequence node per frame
// next to the copies it cannot avoid (one rectangle per frame, plus one
// picture per output) on 4096 x 3000 frames.
#include "BenchNode.h"

#include <MedianCnbl.h>
#include <SeqMergeCnbl.h>

#include <opencv2/imgproc.hpp>

#include <string>
#include <vector>

namespace {

// The frames the median is measured on: the 2x2 mosaics, an interleaved
// colour picture and a hyperspectral mosaic, each split into its planes.
const bench::StdFrame& frameNamed(const std::string& name)
{
    static const std::vector<bench::StdFrame> frames = bench::standardFrames();
    for (const bench::StdFrame& f : frames)
        if (f.name == name)
            return f;
    return frames.front();
}

// A frame and the planes the node splits it into, made the node's way: whole
// planes for the medians alone, and the node's stacked bands.
struct SxPlanes
{
    bench::Pic frame, out;
    CxMedianCnbl::SxPlaneLayout layout;
    std::vector<SxPicBuf> in, filtered;
    SxPicBuf inStack, outStack;
    std::vector<uchar*> rows;

    SxPlanes(const bench::StdFrame& f, bool inBands)
        : frame(f.format), out(f.format), layout(CxMedianCnbl::planeLayout(f.format, &f.meta))
    {
        f.fill(*frame);
        rows.resize(size_t(layout.periodX * layout.channels));
        if (inBands) {
            const SxPicBufInfo sf = med_stackFormat(f.format, layout, 1);
            CxPicBufAPI::AllocPicBufFromHeap(inStack, sf, true, 0);
            CxPicBufAPI::AllocPicBufFromHeap(outStack, sf, true, 0);
            return;
        }
        in.resize(size_t(layout.count()));
        filtered.resize(size_t(layout.count()));
        for (int i = 0; i < layout.count(); ++i) {
            SxPicBufInfo pf = med_planeFormat(f.format, layout, i, 1);
            pf.height = (f.format.height - quint32(i / (layout.periodX * layout.channels)) + layout.periodY - 1)
                        / layout.periodY;
            CxPicBufAPI::AllocPicBufFromHeap(in[size_t(i)], pf, true, 0);
            CxPicBufAPI::AllocPicBufFromHeap(filtered[size_t(i)], pf, true, 0);
        }
    }
    ~SxPlanes()
    {
        for (std::vector<SxPicBuf>* v : {&in, &filtered})
            for (SxPicBuf& p : *v)
                CxPicBufAPI::FreePicBuf(p, true);
        CxPicBufAPI::FreePicBuf(inStack, true);
        CxPicBufAPI::FreePicBuf(outStack, true);
    }
};

// The node per frame, beside the plane medians alone (the work it cannot
// avoid).
void BM_MedianNode(benchmark::State& state, const std::string& frame)
{
    const bool bayer = frame.rfind("bayer", 0) == 0;
    bench::pairWithPeer(state, "MedianPlanes/" + frame, bayer ? "peer<=1.3" : "peer<=1.5");
    const bench::StdFrame& f = frameNamed(frame);
    bench::Pic input(f.format);
    f.fill(*input);
    bench::NodeRun run(new CxMedianCnbl, *input, f.meta);
    run.run(state);
}

void BM_MedianPlanes(benchmark::State& state, const std::string& frame)
{
    const bench::StdFrame& f = frameNamed(frame);
    SxPlanes planes(f, false);
    if (planes.layout.count() == 4 && !planes.layout.hsi && planes.layout.channels == 1) {
        for (int i = 0; i < 4; ++i)
            CxPicBufAPI::ExtractChannel(*planes.frame, planes.in[size_t(i)], unsigned(i));
    } else {
        const bool byte = f.format.dataType == IDT_UINT8;
        const quint32 h = planes.frame->height;
        byte ? med_splitPlanes_T<quint8>(*planes.frame, planes.layout, planes.in.data(), planes.rows.data(), 0, h, 0)
             : med_splitPlanes_T<quint16>(*planes.frame, planes.layout, planes.in.data(), planes.rows.data(), 0, h, 0);
    }
    void* work = nullptr;
    if (!CxPicBufAPI::MedianAllocBuffer(planes.in[0], 1, &work)) {
        state.SkipWithError("no work buffer");
        return;
    }
    for (auto _ : state) {
        for (int i = 0; i < planes.layout.count(); ++i)
            CxPicBufAPI::Median(planes.in[size_t(i)], planes.filtered[size_t(i)], 1, work);
        benchmark::ClobberMemory();
    }
    CxPicBufAPI::MedianFreeBuffer(work);
}

bool noFilter(const SxPicBuf&, SxPicBuf&, int, void*)
{
    return true;
}

template <class T>
void splitAndWeave(SxPlanes& p)
{
    med_filterInBands_T<T>(*p.frame, *p.out, p.layout, p.inStack, p.outStack, p.rows.data(), 1, nullptr,
                           med_bandRows(*p.frame, p.layout, 1), noFilter);
}

// No target: on this host the node splits nothing on these frames.
void BM_MedianSplitWeave(benchmark::State& state, const std::string& frame)
{
    const bench::StdFrame& f = frameNamed(frame);
    SxPlanes planes(f, true);
    for (auto _ : state) {
        f.format.dataType == IDT_UINT8 ? splitAndWeave<quint8>(planes) : splitAndWeave<quint16>(planes);
        benchmark::ClobberMemory();
    }
}

void BM_MedianOpenCv(benchmark::State& state, const std::string& frame)
{
    const bench::StdFrame& f = frameNamed(frame);
    bench::Pic in(f.format), out(f.format);
    f.fill(*in);
    const int depth = f.format.dataType == IDT_UINT16 ? CV_16U : CV_8U;
    const int type = CV_MAKETYPE(depth, int(f.format.channels));
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
    for (const std::string name : {"bayer8", "bayer16", "rgba8", "hsi5x5"}) {
        const std::string frame = "/" + name;
        ms(benchmark::RegisterBenchmark(("Median" + frame).c_str(), BM_MedianNode, name));
        ms(benchmark::RegisterBenchmark(("MedianPlanes" + frame).c_str(), BM_MedianPlanes, name));
        ms(benchmark::RegisterBenchmark(("MedianSplitWeave" + frame).c_str(), BM_MedianSplitWeave, name));
        if (name != "hsi5x5")
            ms(benchmark::RegisterBenchmark(("opencv_medianBlur" + frame).c_str(), BM_MedianOpenCv, name));
        ms(benchmark::RegisterBenchmark(("memcpy" + frame).c_str(), [name](benchmark::State& s) {
            bench::memcpyBaseline(s, size_t(frameNamed(name).format.requiredBytes()));
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
