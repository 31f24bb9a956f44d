// The two spectrum nodes on a camera-sized frame (4096 x 3000).
//
// FFT2D: the node per frame on every standard frame (pool, packet, samples
// into the centred complex spectrum) against FFTW executing its own measured
// real-to-complex plan of the frame's size on floats that are already in
// place, with as many threads as the node's transform uses
// (fftw_execute/...) and, for the camera size, with one; the host transform
// alone (FFT2D_calc2d) shows what the node itself adds.
//
// FFT1D: the node per frame, 8- and 16-bit, and its three stages apart:
// profile averaging (against cv::reduce and a memcpy of the frame), the 1D
// transform of the 3000-sample profile, painting the 2048 x 1536 plot of a
// camera frame's spectrum (into the premultiplied form the node uses and into
// plain ARGB32 over the same memory), and profile and plot back to back, which
// the node is held to. The plot needs a QApplication; one is made offscreen.
#include "BenchNode.h"

#include <FFT1DCnbl.h>
#include <FFT1DPlot.h>
#include <FFT2DCnbl.h>

#include <CxAtomicFile.h>
#include <CxFFT.h>

#include <fftw3.h>
#include <opencv2/core.hpp>

#include <QtCore/QByteArray>
#include <QtCore/QFile>
#include <QtWidgets/QApplication>

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

namespace {

using bench::H;
using bench::W;

void ensureApplication()
{
    static int argc = 1;
    static char name[] = "bench_fftnodes";
    static char* argv[] = {name, nullptr};
    static QApplication* app = [] {
        if (!qEnvironmentVariableIsSet("QT_QPA_PLATFORM"))
            qputenv("QT_QPA_PLATFORM", "offscreen");
        return new QApplication(argc, argv);
    }();
    Q_UNUSED(app);
}

SxPicBufInfo frameFormat(ExImageDataType t)
{
    return bench::format(W, H, t);
}

// The node on every standard frame. Its spectrum has the frame's size
// whichever channel it takes (a Bayer cell or a band sits in the corner of a
// zero picture), so its peer is FFTW on that size.
void BM_FFT2DNode(benchmark::State& state, const bench::StdFrame& frame)
{
    bench::pairWithPeer(state,
                        "fftw_execute/" + std::to_string(frame.format.width) + "x"
                            + std::to_string(frame.format.height) + "/threads:2",
                        "peer<=1.2");
    bench::Pic in(frame.format);
    frame.fill(*in);
    bench::NodeRun run(new CxFFT2DCnbl, *in, frame.meta);
    run.run(state);
}

// The host transform alone on the same frame: what the node adds is the
// difference.
void BM_Calc2D(benchmark::State& state)
{
    bench::Pic in(frameFormat(IDT_UINT16));
    bench::fillCamera(*in);
    bench::Pic re(bench::format(W, H, IDT_FLOAT), false), im(bench::format(W, H, IDT_FLOAT), false);
    void *h1 = nullptr, *h2 = nullptr, *h3 = nullptr;
    if (!CxFFT::Alloc2D(*re, h1, h2, h3)) {
        state.SkipWithError("Alloc2D refused");
        return;
    }
    for (auto _ : state) {
        CxFFT::Calc2D(*in, *re, *im, h1, h2, h3);
        benchmark::ClobberMemory();
    }
    CxFFT::Free2D(h1, h2, h3);
}
BENCHMARK(BM_Calc2D)->Name("FFT2D_calc2d/4096x3000_u16")->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_FftwExecute(benchmark::State& state, quint32 w, quint32 h)
{
    const int threads = int(state.range(0));
    fftwf_init_threads();
    fftwf_plan_with_nthreads(threads);
    {
        QFile file(CxFFT::wisdomFilePath());
        if (file.open(QIODevice::ReadOnly))
            fftwf_import_wisdom_from_string(file.readAll().constData());
    }
    auto* in = static_cast<float*>(fftwf_malloc(sizeof(float) * size_t(w) * h));
    auto* out = static_cast<fftwf_complex*>(fftwf_malloc(sizeof(fftwf_complex) * size_t(h) * (w / 2 + 1)));
    fftwf_plan plan = fftwf_plan_dft_r2c_2d(int(h), int(w), in, out, FFTW_MEASURE);
    {
        QByteArray text;
        fftwf_export_wisdom([](char c, void* data) { static_cast<QByteArray*>(data)->append(c); }, &text);
        if (!text.isEmpty())
            CxAtomicFile::write(CxFFT::wisdomFilePath(), text, nullptr);
    }
    bench::Pic frame(bench::format(w, h, IDT_UINT16));
    bench::fillCamera(*frame);
    for (quint32 y = 0; y < h; ++y)
        for (quint32 x = 0; x < w; ++x)
            in[size_t(y) * w + x] = frame->row<quint16>(y)[x];
    for (auto _ : state) {
        fftwf_execute(plan);
        benchmark::ClobberMemory();
    }
    fftwf_destroy_plan(plan);
    fftwf_free(in);
    fftwf_free(out);
}
void registerFFT2D()
{
    std::vector<std::pair<quint32, quint32>> sizes;
    for (const bench::StdFrame& f : bench::standardFrames()) {
        benchmark::RegisterBenchmark(("FFT2D/" + f.name).c_str(), BM_FFT2DNode, f)
            ->Unit(benchmark::kMillisecond)->UseRealTime();
        const std::pair<quint32, quint32> size{f.format.width, f.format.height};
        if (std::find(sizes.begin(), sizes.end(), size) == sizes.end())
            sizes.push_back(size);
    }
    for (const auto& [w, h] : sizes) {
        auto* b = benchmark::RegisterBenchmark(
            ("fftw_execute/" + std::to_string(w) + "x" + std::to_string(h)).c_str(), BM_FftwExecute, w, h);
        b->Arg(2);
        if (w == W && h == H)
            b->Arg(1);
        b->ArgName("threads")->Unit(benchmark::kMillisecond)->UseRealTime();
    }
}
const int fft2dRegistered = (registerFFT2D(), 0);

void BM_FFT1DNode(benchmark::State& state)
{
    // 25 frames per second, and no more than its own stages take.
    bench::pairWithPeer(state, "FFT1D_profile_plot/4096x3000/type:" + std::to_string(state.range(0)),
                        "ms<=40,peer<=1.5");
    ensureApplication();
    bench::NodeRun run(new CxFFT1DCnbl, frameFormat(ExImageDataType(state.range(0))));
    run.run(state);
}
BENCHMARK(BM_FFT1DNode)->Name("FFT1D/4096x3000")->Arg(IDT_UINT8)->Arg(IDT_UINT16)->ArgName("type")
    ->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_Profile(benchmark::State& state)
{
    const auto type = ExImageDataType(state.range(0));
    const auto transform = CxFFT1DCnbl::ExTransformType(state.range(1));
    bench::Pic frame(frameFormat(type));
    bench::fillCamera(*frame);
    std::vector<float> line(std::max(W, H));
    std::vector<quint64> sums(W);
    std::vector<quint32> block(W);
    for (auto _ : state) {
        if (type == IDT_UINT8)
            fft1d_meanProfile_T<quint8>(*frame, transform, line.data(), sums.data(), block.data());
        else
            fft1d_meanProfile_T<quint16>(*frame, transform, line.data(), sums.data(), block.data());
        benchmark::DoNotOptimize(line.data());
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(frame->dataSize()));
}
BENCHMARK(BM_Profile)->Name("FFT1D_profile/4096x3000")->ArgsProduct({{IDT_UINT8, IDT_UINT16}, {1, 0}})
    ->ArgNames({"type", "rows0cols1"})->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_CvReduce(benchmark::State& state)
{
    const auto type = ExImageDataType(state.range(0));
    bench::Pic frame(frameFormat(type));
    bench::fillCamera(*frame);
    const cv::Mat src(int(H), int(W), type == IDT_UINT8 ? CV_8U : CV_16U, frame->data, frame->linePitch);
    cv::Mat dst;
    for (auto _ : state) {
        cv::reduce(src, dst, 1, cv::REDUCE_AVG, CV_32F);
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_CvReduce)->Name("opencv_reduce/4096x3000")->Arg(IDT_UINT8)->Arg(IDT_UINT16)->ArgName("type")
    ->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_Memcpy(benchmark::State& state)
{
    bench::memcpyBaseline(state, size_t(W) * H * size_t(state.range(0)));
}
BENCHMARK(BM_Memcpy)->Name("memcpy/4096x3000")->Arg(1)->Arg(2)->ArgName("bytes")->Unit(benchmark::kMillisecond)
    ->UseRealTime();

void BM_Transform1D(benchmark::State& state)
{
    const int n = int(H);
    const size_t count = size_t(n);
    std::vector<float> in(count), re(count), im(count);
    for (int i = 0; i < n; ++i)
        in[size_t(i)] = float(100.0 + 50.0 * std::sin(0.1 * i));
    void *h1 = nullptr, *h2 = nullptr, *h3 = nullptr;
    if (!CxFFT::Alloc1D(n, h1, h2, h3)) {
        state.SkipWithError("Alloc1D refused");
        return;
    }
    for (auto _ : state) {
        CxFFT::Calc1D(in.data(), re.data(), im.data(), h1, h2, h3);
        benchmark::ClobberMemory();
    }
    CxFFT::Free1D(h1, h2, h3);
}
BENCHMARK(BM_Transform1D)->Name("FFT1D_transform/3000")->Unit(benchmark::kMillisecond)->UseRealTime();

// The spectrum of a camera frame's column profile as the node plots it
// with its default settings (DC included, linear axis scaled to the data):
// 16-bit frames have amplitudes some 256 times those of 8-bit ones, so their
// axis carries many more ticks, labels and dotted grid lines.
struct SxSpectrum
{
    bench::Pic frame;
    QList<double> keys, values;
    QList<double> ticks;
    QList<QString> labels;
    double min = 0.0, max = 0.0;
    std::vector<float> line;
    std::vector<quint64> sums;
    std::vector<quint32> block;

    explicit SxSpectrum(ExImageDataType type)
        : frame(frameFormat(type)), line(std::max(W, H)), sums(W), block(W)
    {
        bench::fillCamera(*frame);
        profile();
        const int n = int(H);
        std::vector<float> re(n), im(n);
        void *h1 = nullptr, *h2 = nullptr, *h3 = nullptr;
        if (!CxFFT::Alloc1D(n, h1, h2, h3))
            return;
        const bool done = CxFFT::Calc1D(line.data(), re.data(), im.data(), h1, h2, h3);
        CxFFT::Free1D(h1, h2, h3);
        if (!done)
            return;
        const int len = calc_disp_fft_len(n, true);
        keys.resize(len);
        values.resize(len);
        for (int i = 0; i < len; ++i)
            keys[i] = double(i) / (2.0 * len);
        const int start = calc_disp_fft_start_idx(n, true);
        calc_amplitude(re.data(), im.data(), values, len + start, max, min, start);
        CxFFT1DCnbl::getYTicksAndLabels(min, max, false, ticks, labels);
    }
    void profile()
    {
        if (frame->dataType == IDT_UINT8)
            fft1d_meanProfile_T<quint8>(*frame, CxFFT1DCnbl::cols, line.data(), sums.data(), block.data());
        else
            fft1d_meanProfile_T<quint16>(*frame, CxFFT1DCnbl::cols, line.data(), sums.data(), block.data());
    }
};

struct SxPlotRun
{
    CxFFT1DSpectrumPlot plot;
    int w = int(CxFFT1DCnbl::OutputWidth), h = int(CxFFT1DCnbl::OutputHeight);
    std::vector<uchar> memory = std::vector<uchar>(size_t(w) * 4 * h);
    SxPlotRun() { plot.scaleTo(w, h); }
    bool render(const SxSpectrum& s, QImage::Format format = QImage::Format_ARGB32_Premultiplied)
    {
        return plot.render(memory.data(), w, h, w * 4, s.keys, s.values, s.min, s.max, s.ticks, s.labels, format);
    }
};

void BM_Plot(benchmark::State& state)
{
    ensureApplication();
    const SxSpectrum spectrum(ExImageDataType(state.range(0)));
    const QImage::Format format = state.range(1) ? QImage::Format_ARGB32_Premultiplied : QImage::Format_ARGB32;
    SxPlotRun run;
    if (!run.render(spectrum, format)) {
        state.SkipWithError("no plot");
        return;
    }
    for (auto _ : state) {
        run.render(spectrum, format);
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_Plot)->Name("FFT1D_plot/2048x1536")->Args({IDT_UINT8, 1})->Args({IDT_UINT16, 1})->Args({IDT_UINT8, 0})
    ->ArgNames({"type", "premultiplied"})->Unit(benchmark::kMillisecond)->UseRealTime();

// The node's two big stages back to back, as a frame runs through them: the
// plot's 12 MB output pushes the frame out of the caches before the next
// profile reads it. The node is held to this.
void BM_ProfilePlot(benchmark::State& state)
{
    ensureApplication();
    SxSpectrum spectrum(ExImageDataType(state.range(0)));
    SxPlotRun run;
    if (!run.render(spectrum)) {
        state.SkipWithError("no plot");
        return;
    }
    for (auto _ : state) {
        spectrum.profile();
        benchmark::DoNotOptimize(spectrum.line.data());
        run.render(spectrum);
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_ProfilePlot)->Name("FFT1D_profile_plot/4096x3000")->Arg(IDT_UINT8)->Arg(IDT_UINT16)->ArgName("type")
    ->Unit(benchmark::kMillisecond)->UseRealTime();

} // namespace
