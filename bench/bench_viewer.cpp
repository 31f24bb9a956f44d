// The live chain end to end, with the viewer showing it: a 4096x3000 8-bit
// Bayer synthetic camera, at its full rate (argument 0) and at 30 frames a
// second, into two chains, the last stage shown in a picture view of
// 1200x900. Each chain runs twice, interleaved: with the view and without it
// (no observer copies, no painting), so the ratio of the two delivered rates
// is the view's cost to the chain. Counters: frames a second the source
// delivered and the chain put out, frames the source dropped, frames shown a
// second, and the viewer's own cost: the GUI thread's CPU time plus the
// copies the chain threads made for it, per shown frame and as a share of
// one core.
#include "BenchMain.h"
#include "PictureView.h"
#include "ViewerSession.h"

#include <ChainBuilder.h>
#include <CxChain.h>
#include <CxPluginManager.h>
#include <CxSyntheticCamera.h>

#include <benchmark/benchmark.h>

#include <QtCore/QElapsedTimer>
#include <QtCore/QEventLoop>
#include <QtCore/QTimer>
#include <QtWidgets/QApplication>

#include <sys/resource.h>

#include <string>

namespace {

const char* const FirstChain[] = {"Extract Channel", "Fast Fourier Transform 1D"};
const char* const SecondChain[] = {"Median Filter:kernelSize=3", "LUT Mapping:MapToRGB=1"};
constexpr int RunSeconds = 6;

qint64 threadCpuNs()
{
    rusage usage{};
    getrusage(RUSAGE_THREAD, &usage);
    return (qint64(usage.ru_utime.tv_sec) + usage.ru_stime.tv_sec) * 1000000000LL
           + (qint64(usage.ru_utime.tv_usec) + usage.ru_stime.tv_usec) * 1000LL;
}

// An event loop as the viewer's own: it sleeps until there is work, where a
// loop of processEvents() calls would spin and bill the spinning to the view.
void runEventLoop(int ms)
{
    QEventLoop loop;
    QTimer::singleShot(ms, &loop, &QEventLoop::quit);
    loop.exec();
}

struct SxOutcome
{
    double sourceFps = 0, outputFps = 0, dropped = 0, shownFps = 0, viewerMsPerFrame = 0, copyMsPerFrame = 0,
           viewerCore = 0;
};

template <size_t N> SxOutcome runChain(const char* const (&names)[N], double fps, bool showing)
{
    CxViewerSession session;
    CxSyntheticCamera::SxConfig config;
    config.layout = CxSyntheticCamera::LayoutBayer;
    config.width = 4096;
    config.height = 3000;
    config.fps = fps;
    session.setSource(new CxSyntheticCamera(config));
    for (const char* text : names) {
        SxNodeRequest request;
        QString error;
        CxChainBuilder::parseNodeRequest(QString::fromLatin1(text), request, &error);
        CxChainable* node = CxChainBuilder::createNode(request.name, &error);
        CxChainBuilder::applySettings(node, request, &error);
        session.insertNode(node, -1);
    }
    CxPictureView view;
    view.resize(1200, 900);
    if (showing) {
        view.show();
        QObject::connect(&session, &CxViewerSession::viewFrameReady, &view,
                         [&] { view.setFrame(session.takeViewFrame()); });
        session.setDisplayRate(60.0);
    }
    session.setViewedStage(showing ? int(N) - 1 : CxViewerSession::NoStage);
    session.start();
    // Let the first frames settle the pools and the FFT plans.
    runEventLoop(1000);
    const CxChain::SxStats before = session.chain()->stats();
    const qint64 copiedBefore = session.viewFramesCopied(), copyNsBefore = session.viewCopyNs();
    const qint64 cpuBefore = threadCpuNs();
    QElapsedTimer clock;
    clock.start();
    runEventLoop(RunSeconds * 1000);
    const double seconds = clock.nsecsElapsed() / 1e9;
    const qint64 cpu = threadCpuNs() - cpuBefore;
    const CxChain::SxStats after = session.chain()->stats();
    session.stop();
    SxOutcome o;
    o.sourceFps = (after.grabbed - before.grabbed) / seconds;
    o.outputFps = (after.delivered - before.delivered) / seconds;
    o.dropped = double(after.droppedAtSource - before.droppedAtSource);
    const qint64 shown = session.viewFramesCopied() - copiedBefore;
    o.shownFps = shown / seconds;
    const double viewerNs = double(cpu + session.viewCopyNs() - copyNsBefore);
    o.viewerMsPerFrame = shown > 0 ? viewerNs / 1e6 / shown : 0.0;
    o.copyMsPerFrame = shown > 0 ? double(session.viewCopyNs() - copyNsBefore) / 1e6 / shown : 0.0;
    o.viewerCore = viewerNs / 1e9 / seconds;
    return o;
}

template <size_t N> void liveChain(benchmark::State& state, const char* const (&names)[N], const char* target = nullptr)
{
    SxOutcome with, without;
    for (auto _ : state) {
        const double fps = double(state.range(0));
        without = runChain(names, fps, false);
        with = runChain(names, fps, true);
        state.SetIterationTime(RunSeconds);
    }
    state.counters["source_fps"] = with.sourceFps;
    state.counters["output_fps"] = with.outputFps;
    state.counters["dropped"] = with.dropped;
    state.counters["shown_fps"] = with.shownFps;
    state.counters["viewer_ms_per_shown"] = with.viewerMsPerFrame;
    state.counters["copy_ms_per_shown"] = with.copyMsPerFrame;
    state.counters["viewer_core_pct"] = 100.0 * with.viewerCore;
    state.counters["output_fps_unviewed"] = without.outputFps;
    state.counters["dropped_unviewed"] = without.dropped;
    state.counters["viewed_vs_unviewed"] = without.outputFps > 0 ? with.outputFps / without.outputFps : 0.0;
    if (target)
        state.SetLabel(std::string("target=") + target);
}

void BM_LiveExtractFft1d(benchmark::State& state)
{
    liveChain(state, FirstChain, "output_fps>=25,dropped<=0,viewer_core_pct<=10");
}
void BM_LiveMedianLutRgb(benchmark::State& state) { liveChain(state, SecondChain); }

BENCHMARK(BM_LiveExtractFft1d)->Arg(0)->Arg(30)->Iterations(1)->UseManualTime()->Unit(benchmark::kSecond);
BENCHMARK(BM_LiveMedianLutRgb)->Arg(0)->Arg(30)->Iterations(1)->UseManualTime()->Unit(benchmark::kSecond);

} // namespace

int main(int argc, char** argv)
{
    QApplication app(argc, argv);
    CxPluginManager::instance()->loadFolder(QString::fromUtf8(QLAR_PLUGIN_DIR));
    return bench::runBenchmarks(argc, argv);
}
