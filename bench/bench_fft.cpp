// 2D transform of one camera-sized channel (4096 x 3000).
//
// Bound: FFTW executing its own best real-to-complex plan of the same size on
// a float buffer that is already filled (FftwR2C, with 1 and 2 threads);
// Calc2D additionally converts the samples and writes the full centred
// spectrum into two float pictures. Peer: cv::dft with complex output.
// Compare medians of one run, e.g.
//   bench_fft --benchmark_repetitions=9 --benchmark_enable_random_interleaving=true
//             --benchmark_report_aggregates_only=true
// The FFTW plans are measured once (seconds) and kept in the same wisdom file
// as CxFFT's, so later runs start at once. FFTW is reached through the
// libraries libQlarCore already loaded (this target does not link them).
#include "BenchCommon.h"

#include <CxAtomicFile.h>
#include <CxFFT.h>

#include <dlfcn.h>
#include <fftw3.h>
#include <opencv2/core.hpp>

#include <QtCore/QByteArray>
#include <QtCore/QFile>

#include <algorithm>

namespace {

using bench::H;
using bench::W;

// The FFTW entry points the baseline uses.
struct Fftw
{
    decltype(&fftwf_init_threads) initThreads = nullptr;
    decltype(&fftwf_plan_with_nthreads) planWithThreads = nullptr;
    decltype(&fftwf_plan_dft_r2c_2d) planR2C2D = nullptr;
    decltype(&fftwf_execute) execute = nullptr;
    decltype(&fftwf_destroy_plan) destroyPlan = nullptr;
    decltype(&fftwf_malloc) alloc = nullptr;
    decltype(&fftwf_free) free = nullptr;
    decltype(&fftwf_import_wisdom_from_string) importWisdom = nullptr;
    decltype(&fftwf_export_wisdom) exportWisdom = nullptr;

    bool ok() const
    {
        return initThreads && planWithThreads && planR2C2D && execute && destroyPlan && alloc && free
            && importWisdom && exportWisdom;
    }
};

template <class F>
void resolve(void* lib, const char* name, F& f)
{
    f = lib ? reinterpret_cast<F>(dlsym(lib, name)) : nullptr;
}

// Loaded once, threads initialised, wisdom read; null when FFTW is missing.
const Fftw* fftw()
{
    static const Fftw* loaded = [] () -> const Fftw* {
        static Fftw f;
        void* core = dlopen("libfftw3f.so.3", RTLD_NOW | RTLD_GLOBAL);
        void* threads = dlopen("libfftw3f_threads.so.3", RTLD_NOW | RTLD_GLOBAL);
        resolve(threads, "fftwf_init_threads", f.initThreads);
        resolve(threads, "fftwf_plan_with_nthreads", f.planWithThreads);
        resolve(core, "fftwf_plan_dft_r2c_2d", f.planR2C2D);
        resolve(core, "fftwf_execute", f.execute);
        resolve(core, "fftwf_destroy_plan", f.destroyPlan);
        resolve(core, "fftwf_malloc", f.alloc);
        resolve(core, "fftwf_free", f.free);
        resolve(core, "fftwf_import_wisdom_from_string", f.importWisdom);
        resolve(core, "fftwf_export_wisdom", f.exportWisdom);
        if (!f.ok() || !f.initThreads())
            return nullptr;
        QFile file(CxFFT::wisdomFilePath());
        if (file.open(QIODevice::ReadOnly))
            f.importWisdom(file.readAll().constData());
        return &f;
    }();
    return loaded;
}

void saveWisdom(const Fftw& f)
{
    QByteArray text;
    f.exportWisdom([](char c, void* data) { static_cast<QByteArray*>(data)->append(c); }, &text);
    if (!text.isEmpty())
        CxAtomicFile::write(CxFFT::wisdomFilePath(), text, nullptr);
}

// The camera frame as floats, row after row.
std::vector<float> cameraSamples()
{
    bench::Pic frame(bench::format(W, H, IDT_UINT16));
    bench::fillCamera(*frame);
    std::vector<float> v(size_t(W) * H);
    for (quint32 y = 0; y < H; ++y)
        for (quint32 x = 0; x < W; ++x)
            v[size_t(y) * W + x] = frame->row<quint16>(y)[x];
    return v;
}

void BM_Calc2D(benchmark::State& state, ExImageDataType type)
{
    bench::pairWithPeer(state, "fftw_r2c_2threads/4096x3000", "peer<=1.2");
    bench::Pic in(bench::format(W, H, type));
    if (type == IDT_FLOAT) {
        const std::vector<float> v = cameraSamples();
        for (quint32 y = 0; y < H; ++y)
            std::copy_n(v.data() + size_t(y) * W, W, in->row<float>(y));
    } else {
        bench::fillCamera(*in);
    }
    bench::Pic re(bench::format(W, H, IDT_FLOAT), false), im(bench::format(W, H, IDT_FLOAT), false);
    void *h1 = nullptr, *h2 = nullptr, *h3 = nullptr;
    if (!CxFFT::Alloc2D(*re, h1, h2, h3) || !CxFFT::Calc2D(*in, *re, *im, h1, h2, h3)) {
        state.SkipWithError("Alloc2D/Calc2D refused");
        return;
    }
    for (auto _ : state) {
        CxFFT::Calc2D(*in, *re, *im, h1, h2, h3);
        benchmark::ClobberMemory();
    }
    CxFFT::Free2D(h1, h2, h3);
}

void BM_FftwR2C(benchmark::State& state, int threads)
{
    const Fftw* f = fftw();
    if (!f) {
        state.SkipWithError("FFTW not found");
        return;
    }
    f->planWithThreads(threads);
    auto* in = static_cast<float*>(f->alloc(sizeof(float) * size_t(W) * H));
    auto* out = static_cast<fftwf_complex*>(f->alloc(sizeof(fftwf_complex) * size_t(H) * (W / 2 + 1)));
    fftwf_plan plan = f->planR2C2D(int(H), int(W), in, out, FFTW_MEASURE);
    saveWisdom(*f);
    const std::vector<float> v = cameraSamples();
    std::copy(v.begin(), v.end(), in);
    f->execute(plan);
    for (auto _ : state) {
        f->execute(plan);
        benchmark::ClobberMemory();
    }
    f->destroyPlan(plan);
    f->free(in);
    f->free(out);
}

void BM_CvDft(benchmark::State& state)
{
    const std::vector<float> v = cameraSamples();
    const cv::Mat src(int(H), int(W), CV_32F, const_cast<float*>(v.data()));
    cv::Mat dst;
    cv::dft(src, dst, cv::DFT_COMPLEX_OUTPUT);
    for (auto _ : state) {
        cv::dft(src, dst, cv::DFT_COMPLEX_OUTPUT);
        benchmark::ClobberMemory();
    }
}
void BM_Memcpy(benchmark::State& state)
{
    bench::memcpyBaseline(state, size_t(W) * H * 2);
}

void registerAll()
{
    auto ms = [](benchmark::internal::Benchmark* b) { b->Unit(benchmark::kMillisecond)->UseRealTime(); };
    ms(benchmark::RegisterBenchmark("memcpy/4096x3000", BM_Memcpy));
    ms(benchmark::RegisterBenchmark("fft2d_calc_u16/4096x3000", BM_Calc2D, IDT_UINT16));
    ms(benchmark::RegisterBenchmark("fft2d_calc_float/4096x3000", BM_Calc2D, IDT_FLOAT));
    ms(benchmark::RegisterBenchmark("fftw_r2c_1thread/4096x3000", BM_FftwR2C, 1));
    ms(benchmark::RegisterBenchmark("fftw_r2c_2threads/4096x3000", BM_FftwR2C, 2));
    ms(benchmark::RegisterBenchmark("opencv_dft/4096x3000", BM_CvDft));
}
const int registered = (registerAll(), 0);

} // namespace
