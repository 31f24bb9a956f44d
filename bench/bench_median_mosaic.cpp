// Median filter and mosaic statistics on a 4096 x 3000 frame, each next to
// the OpenCV operation that does the same work (or, for the median's larger
// kernels, to its own earlier code) and to memcpy of the frame.
// Times are wall-clock (our operations run on several threads).
#include "BenchCommon.h"
#include "MedianBefore.h"

#include <QtCore/QRect>

#include <opencv2/imgproc.hpp>

namespace {

cv::Mat matOf(SxPicBuf& p)
{
    return cv::Mat(int(p.height), int(p.width), p.dataType == IDT_UINT16 ? CV_16U : CV_8U, p.data, p.linePitch);
}

// The operation as it is and as it was before its larger kernels were
// rewritten (MedianBefore.cpp), so every size is measured against its old
// time in the same run.
struct MedianApi
{
    bool (*alloc)(const SxPicBufInfo&, int, void**);
    bool (*run)(const SxPicBuf&, SxPicBuf&, int, void*);
    void (*release)(void*);
};
const MedianApi current{CxPicBufAPI::MedianAllocBuffer, CxPicBufAPI::Median, CxPicBufAPI::MedianFreeBuffer};
const MedianApi before{MedianBefore::allocBuffer, MedianBefore::median, MedianBefore::freeBuffer};

void BM_Median(benchmark::State& state, const MedianApi* api, ExImageDataType type, int ksize, quint32 w,
               quint32 h, const std::string& label)
{
    if (!label.empty())
        state.SetLabel(label);
    bench::Pic in(bench::format(w, h, type)), out(bench::format(w, h, type));
    bench::fillCamera(*in);
    void* work = nullptr;
    if (!api->alloc(*in, ksize / 2, &work)) {
        state.SkipWithError("no work buffer");
        return;
    }
    for (auto _ : state) {
        if (!api->run(*in, *out, ksize / 2, work))
            state.SkipWithError("Median refused the frame");
        benchmark::ClobberMemory();
    }
    api->release(work);
}

void BM_MedianOpenCv(benchmark::State& state, ExImageDataType type, int ksize)
{
    bench::Pic in(bench::format(bench::W, bench::H, type)), out(bench::format(bench::W, bench::H, type));
    bench::fillCamera(*in);
    cv::Mat src = matOf(*in), dst = matOf(*out);
    for (auto _ : state) {
        cv::medianBlur(src, dst, ksize);
        benchmark::ClobberMemory();
    }
}

void BM_MosaicAvgBayer(benchmark::State& state)
{
    bench::pairWithPeer(state, "opencv_resize_area/bayer8", "peer<=1");
    bench::Pic in(bench::format(bench::W, bench::H, IDT_UINT8, 1, CFA_BAYER_RGGB));
    bench::Pic out(bench::format(bench::W / 2, bench::H / 2, IDT_UINT8));
    bench::fillCamera(*in, CxSyntheticCamera::LayoutBayer);
    const QRect all(0, 0, int(bench::W), int(bench::H));
    for (auto _ : state) {
        if (!CxPicBufAPI::FilterAvgOnMosaicPicBuf(*in, all, 2, 2, *out))
            state.SkipWithError("filter refused the frame");
        benchmark::ClobberMemory();
    }
}

void BM_MosaicAvgBayerOpenCvAreaResize(benchmark::State& state)
{
    bench::Pic in(bench::format(bench::W, bench::H, IDT_UINT8, 1, CFA_BAYER_RGGB));
    bench::Pic out(bench::format(bench::W / 2, bench::H / 2, IDT_UINT8));
    bench::fillCamera(*in, CxSyntheticCamera::LayoutBayer);
    cv::Mat src = matOf(*in), dst = matOf(*out);
    for (auto _ : state) {
        cv::resize(src, dst, dst.size(), 0, 0, cv::INTER_AREA);
        benchmark::ClobberMemory();
    }
}

void BM_MosaicAvgSliding(benchmark::State& state)
{
    bench::Pic in(bench::format(bench::W, bench::H, IDT_UINT8, 1, CFA_BAYER_RGGB));
    bench::Pic out(bench::format(bench::W, bench::H, IDT_UINT8));
    bench::fillCamera(*in, CxSyntheticCamera::LayoutBayer);
    const QRect all(0, 0, int(bench::W), int(bench::H));
    for (auto _ : state) {
        if (!CxPicBufAPI::FilterAvgOnMosaicPicBuf(*in, all, 2, 2, *out))
            state.SkipWithError("filter refused the frame");
        benchmark::ClobberMemory();
    }
}

// Sliding 5 x 5 hyperpixels of the standard hyperspectral frame: the Mosaic
// Filter node's default on it.
void BM_MosaicAvgSlidingHsi(benchmark::State& state)
{
    bench::setTarget(state, "memcpy<=2");
    const bench::StdFrame f = bench::standardFrames().back();
    bench::Pic in(f.format), out(bench::format(f.format.width, f.format.height, IDT_UINT8));
    f.fill(*in);
    const QRect zone = f.meta.hsiCameraParams().filterZone(0)->rect;
    for (auto _ : state) {
        if (!CxPicBufAPI::FilterAvgOnMosaicPicBuf(*in, zone, 5, 5, *out))
            state.SkipWithError("filter refused the frame");
        benchmark::ClobberMemory();
    }
}

void BM_Memcpy(benchmark::State& state, unsigned bytesPerSample)
{
    bench::memcpyBaseline(state, size_t(bench::W) * bench::H * bytesPerSample);
}

void registerAll()
{
    auto ms = [](benchmark::internal::Benchmark* b) {
        return b->Unit(benchmark::kMillisecond)->UseRealTime()->Repetitions(5)->ReportAggregatesOnly(true);
    };
    for (ExImageDataType t : {IDT_UINT8, IDT_UINT16}) {
        const std::string frame = t == IDT_UINT8 ? "/mono8" : "/mono16";
        ms(benchmark::RegisterBenchmark(("memcpy" + frame).c_str(), BM_Memcpy, bytesPerSampleOf(t)));
        auto peerCv = [&](int k) { return "peer=opencv_medianBlur_k" + std::to_string(k) + frame; };
        auto peerBefore = [&](int k, const std::string& f, const char* target) {
            return "peer=before_median_k" + std::to_string(k) + f + ";target=peer<=" + target;
        };
        // Kernels 3 and 5 against OpenCV; 7 to 25 against their old time
        // (kernel 7 also against OpenCV, 8-bit; OpenCV has no 16-bit kernel 7).
        for (int k = 3; k <= 25; k += 2) {
            const std::string kn = "_k" + std::to_string(k);
            std::string label = k <= 5 ? peerCv(k) : peerBefore(k, frame, k == 7 ? "0.1" : "0.25");
            if (k == 7 && t == IDT_UINT8)
                label += "|" + peerCv(k) + ";target=peer<=0.1";
            ms(benchmark::RegisterBenchmark(("median" + kn + frame).c_str(), BM_Median, &current, t, k, bench::W,
                                            bench::H, label));
            if (k >= 7)
                ms(benchmark::RegisterBenchmark(("before_median" + kn + frame).c_str(), BM_Median, &before, t, k,
                                                bench::W, bench::H, std::string()))
                    ->Repetitions(3);
            // OpenCV filters 16-bit samples with kernels 3 and 5 only.
            if (k <= 5 || (k == 7 && t == IDT_UINT8)) {
                auto* b = benchmark::RegisterBenchmark(("opencv_medianBlur" + kn + frame).c_str(), BM_MedianOpenCv, t, k);
                ms(b);
                if (k > 5)
                    b->Repetitions(3)->Iterations(2);  // about half a second per frame
            }
        }
        // Larger kernels, up to the largest the panel offers, on smaller
        // frames: their old times grow with the radius. None may be slower.
        // Kernel 41 also on the full frame, whose bars and noise move the
        // 16-bit median's high byte often.
        for (int k : {41, 31, 63, 127, 255, 511, 1023, 2047}) {
            const bool full = k == 41;
            const quint32 w = full ? bench::W : k <= 255 ? 1024 : 256, h = full ? bench::H : k <= 255 ? 768 : 192;
            const std::string f = full ? frame : frame + "_" + std::to_string(w) + "x" + std::to_string(h);
            const std::string kn = "_k" + std::to_string(k);
            ms(benchmark::RegisterBenchmark(("median" + kn + f).c_str(), BM_Median, &current, t, k, w, h,
                                            peerBefore(k, f, "1")))
                ->Repetitions(3);
            ms(benchmark::RegisterBenchmark(("before_median" + kn + f).c_str(), BM_Median, &before, t, k, w, h,
                                            std::string()))
                ->Repetitions(3);
        }
    }
    ms(benchmark::RegisterBenchmark("memcpy/bayer8", BM_Memcpy, 1u));
    ms(benchmark::RegisterBenchmark("mosaic_avg/bayer8", BM_MosaicAvgBayer));
    ms(benchmark::RegisterBenchmark("opencv_resize_area/bayer8", BM_MosaicAvgBayerOpenCvAreaResize));
    ms(benchmark::RegisterBenchmark("mosaic_avg_sliding/bayer8", BM_MosaicAvgSliding));
    ms(benchmark::RegisterBenchmark("memcpy/hsi5x5", [](benchmark::State& s) {
        bench::memcpyBaseline(s, size_t(bench::standardFrames().back().format.requiredBytes()));
    }));
    ms(benchmark::RegisterBenchmark("mosaic_avg_sliding/hsi5x5", BM_MosaicAvgSlidingHsi));
}

const int registered = (registerAll(), 0);

} // namespace
