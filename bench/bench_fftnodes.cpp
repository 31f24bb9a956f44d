// The two spectrum nodes on a camera-sized frame (4096 x 3000).
//
// FFT2D: the node per frame (pool, packet, u16 samples into the centred
// complex spectrum) against FFTW executing its own measured real-to-complex
// plan of the same size on floats that are already in place, with as many
// threads as the node's transform uses (fftw_execute/...) and with one; the
// host transform alone (FFT2D_calc2d) shows what the node itself adds.
//
// FFT1D: the node per frame, 8- and 16-bit, and its three stages apart:
// profile averaging (against cv::reduce and a memcpy of the frame), the 1D
// transform of the 3000-sample profile, and painting the 2048 x 1536 plot,
// into the premultiplied form the node uses and into plain ARGB32 over the
// same memory. The plot needs a QApplication; one is made offscreen.
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

#include <cmath>
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

void BM_FFT2DNode(benchmark::State& state)
{
    bench::pairWithPeer(state, "fftw_execute/4096x3000/threads:2", "peer<=1.2");
    bench::NodeRun run(new CxFFT2DCnbl, frameFormat(IDT_UINT16));
    run.run(state);
}
BENCHMARK(BM_FFT2DNode)->Name("FFT2D/4096x3000_u16")->Unit(benchmark::kMillisecond)->UseRealTime();

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

void BM_FftwExecute(benchmark::State& state)
{
    const int threads = int(state.range(0));
    fftwf_init_threads();
    fftwf_plan_with_nthreads(threads);
    {
        QFile file(CxFFT::wisdomFilePath());
        if (file.open(QIODevice::ReadOnly))
            fftwf_import_wisdom_from_string(file.readAll().constData());
    }
    auto* in = static_cast<float*>(fftwf_malloc(sizeof(float) * size_t(W) * H));
    auto* out = static_cast<fftwf_complex*>(fftwf_malloc(sizeof(fftwf_complex) * size_t(H) * (W / 2 + 1)));
    fftwf_plan plan = fftwf_plan_dft_r2c_2d(int(H), int(W), in, out, FFTW_MEASURE);
    {
        QByteArray text;
        fftwf_export_wisdom([](char c, void* data) { static_cast<QByteArray*>(data)->append(c); }, &text);
        if (!text.isEmpty())
            CxAtomicFile::write(CxFFT::wisdomFilePath(), text, nullptr);
    }
    bench::Pic frame(frameFormat(IDT_UINT16));
    bench::fillCamera(*frame);
    for (quint32 y = 0; y < H; ++y)
        for (quint32 x = 0; x < W; ++x)
            in[size_t(y) * W + x] = frame->row<quint16>(y)[x];
    for (auto _ : state) {
        fftwf_execute(plan);
        benchmark::ClobberMemory();
    }
    fftwf_destroy_plan(plan);
    fftwf_free(in);
    fftwf_free(out);
}
BENCHMARK(BM_FftwExecute)->Name("fftw_execute/4096x3000")->Arg(2)->Arg(1)->ArgName("threads")
    ->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_FFT1DNode(benchmark::State& state)
{
    bench::setTarget(state, "ms<=40");  // 25 frames per second
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

// The amplitudes of a camera column profile, as the node plots them.
void BM_Plot(benchmark::State& state)
{
    ensureApplication();
    const bool premultiplied = state.range(0) != 0;
    CxFFT1DSpectrumPlot plot;
    const int w = int(CxFFT1DCnbl::OutputWidth), h = int(CxFFT1DCnbl::OutputHeight);
    plot.scaleTo(w, h);
    const int len = int(H) / 2;
    QList<double> keys(len), values(len);
    double max = 0.0;
    for (int i = 0; i < len; ++i) {
        keys[i] = double(i) / (2.0 * len);
        values[i] = 1000.0 + 900.0 * std::fabs(std::sin(0.05 * i)) + (i % 7) * 37.0;
        max = std::max(max, values[i]);
    }
    QList<double> ticks;
    QList<QString> labels;
    CxFFT1DCnbl::getYTicksAndLabels(0.0, max, false, ticks, labels);
    std::vector<uchar> memory(size_t(w) * 4 * h);
    const QImage::Format format = premultiplied ? QImage::Format_ARGB32_Premultiplied : QImage::Format_ARGB32;
    if (!plot.render(memory.data(), w, h, w * 4, keys, values, 0.0, max, ticks, labels, format)) {
        state.SkipWithError("no plot");
        return;
    }
    for (auto _ : state) {
        plot.render(memory.data(), w, h, w * 4, keys, values, 0.0, max, ticks, labels, format);
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_Plot)->Name("FFT1D_plot/2048x1536")->Arg(1)->Arg(0)->ArgName("premultiplied")
    ->Unit(benchmark::kMillisecond)->UseRealTime();

} // namespace
