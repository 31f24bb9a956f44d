// Median filter and mosaic statistics on a 4096 x 3000 frame, each next to
// the OpenCV operation that does the same work and to memcpy of the frame.
// Times are wall-clock (our operations run on several threads).
#include "BenchCommon.h"

#include <QtCore/QRect>

#include <opencv2/imgproc.hpp>

namespace {

cv::Mat matOf(SxPicBuf& p)
{
    return cv::Mat(int(p.height), int(p.width), p.dataType == IDT_UINT16 ? CV_16U : CV_8U, p.data, p.linePitch);
}

void BM_Median(benchmark::State& state, ExImageDataType type, int ksize)
{
    bench::pairWithPeer(state, "opencv_medianBlur_k" + std::to_string(ksize) + (type == IDT_UINT8 ? "/mono8" : "/mono16"));
    bench::Pic in(bench::format(bench::W, bench::H, type)), out(bench::format(bench::W, bench::H, type));
    bench::fillCamera(*in);
    void* work = nullptr;
    if (!CxPicBufAPI::MedianAllocBuffer(*in, ksize / 2, &work)) {
        state.SkipWithError("no work buffer");
        return;
    }
    for (auto _ : state) {
        if (!CxPicBufAPI::Median(*in, *out, ksize / 2, work))
            state.SkipWithError("Median refused the frame");
        benchmark::ClobberMemory();
    }
    CxPicBufAPI::MedianFreeBuffer(work);
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

void BM_Memcpy(benchmark::State& state, unsigned bytesPerSample)
{
    bench::memcpyBaseline(state, size_t(bench::W) * bench::H * bytesPerSample);
}

void registerAll()
{
    auto ms = [](benchmark::internal::Benchmark* b) {
        b->Unit(benchmark::kMillisecond)->UseRealTime()->Repetitions(5)->ReportAggregatesOnly(true);
    };
    for (ExImageDataType t : {IDT_UINT8, IDT_UINT16}) {
        const std::string frame = t == IDT_UINT8 ? "/mono8" : "/mono16";
        ms(benchmark::RegisterBenchmark(("memcpy" + frame).c_str(), BM_Memcpy, bytesPerSampleOf(t)));
        for (int k : {3, 5, 7}) {
            const std::string kn = "_k" + std::to_string(k);
            ms(benchmark::RegisterBenchmark(("median" + kn + frame).c_str(), BM_Median, t, k));
            // OpenCV filters 16-bit samples with kernels 3 and 5 only.
            if (t == IDT_UINT8 || k <= 5) {
                auto* b = benchmark::RegisterBenchmark(("opencv_medianBlur" + kn + frame).c_str(), BM_MedianOpenCv, t, k);
                ms(b);
                if (k > 5)
                    b->Repetitions(3)->Iterations(2);  // about half a second per frame
            }
        }
    }
    ms(benchmark::RegisterBenchmark("memcpy/bayer8", BM_Memcpy, 1u));
    ms(benchmark::RegisterBenchmark("mosaic_avg/bayer8", BM_MosaicAvgBayer));
    ms(benchmark::RegisterBenchmark("opencv_resize_area/bayer8", BM_MosaicAvgBayerOpenCvAreaResize));
    ms(benchmark::RegisterBenchmark("mosaic_avg_sliding/bayer8", BM_MosaicAvgSliding));
}

const int registered = (registerAll(), 0);

} // namespace
