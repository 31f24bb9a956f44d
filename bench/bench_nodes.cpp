// Every node of the plug-in, with its default settings, on every standard
// frame: processData per frame through a real chain, pool and packet path,
// beside a memcpy of the same frame. The node list comes from the plug-in's
// own registration, so a new node is measured without touching this file.
// A node that refuses a frame shows its message instead of a time.
#include "BenchMain.h"
#include "BenchNode.h"
#include "ProcessingPlugin.h"

#include <CxRTTI.h>

#include <QtCore/QMap>
#include <QtWidgets/QApplication>

#include <map>
#include <memory>

namespace {

struct SxPrepared
{
    bench::StdFrame frame;
    bench::Pic pic;
    explicit SxPrepared(const bench::StdFrame& f) : frame(f), pic(f.format) { f.fill(*pic); }
};

// Frames are rendered once and shared by every node measured on them.
SxPrepared& prepared(const bench::StdFrame& f)
{
    static std::map<std::string, std::unique_ptr<SxPrepared>> cache;
    auto& slot = cache[f.name];
    if (!slot)
        slot = std::make_unique<SxPrepared>(f);
    return *slot;
}

void BM_Node(benchmark::State& state, const QMetaObject* mo, const bench::StdFrame& f, const std::string& target,
             const std::string& peer)
{
    if (!peer.empty())
        bench::pairWithPeer(state, peer, target);
    else if (!target.empty())
        bench::setTarget(state, target);
    SxPrepared& in = prepared(f);
    auto* node = qobject_cast<CxChainable*>(mo->newInstance());
    if (!node) {
        state.SkipWithError("the node class cannot be created");
        return;
    }
    bench::NodeRun run(node, *in.pic, f.meta);
    if (run.ok()) {
        run.frame();
        if (!node->errorMessage().isEmpty()) {
            state.SkipWithError(("refused: " + node->errorMessage().toStdString()).c_str());
            return;
        }
    }
    run.run(state);
}

// The speed a node is held to on every frame, by display name; the FFT
// nodes are held to their peers in bench_fftnodes.
std::string targetOf(const QString& node, const std::string& frame)
{
    static const QMap<QString, std::string> targets = {
        {QStringLiteral("LUT Mapping"), "memcpy<=4"},
        {QStringLiteral("RGB-NIR Processing"), "memcpy<=4"},
        {QStringLiteral("Rotate"), "memcpy<=4"},
        {QStringLiteral("Median Filter"), "memcpy<=4"},
        {QStringLiteral("Mosaic Filter"), "memcpy<=4"},
        {QStringLiteral("Image Averaging"), "peer<=1.5"},
    };
    if (node == QStringLiteral("Mosaic Filter") && frame == "hsi5x5")
        return "memcpy<=2";
    return targets.value(node);
}

// The baseline a node is measured against instead of the frame's memcpy.
std::string peerOf(const QString& node, const std::string& frame)
{
    return node == QStringLiteral("Image Averaging") ? "averaging_memcpy/" + frame : std::string();
}

void BM_Memcpy(benchmark::State& state, const bench::StdFrame& f)
{
    bench::memcpyBaseline(state, size_t(f.format.requiredBytes()));
}

// Image Averaging must read the frame and read and write its 32-bit sums
// (three channels for a colour picture with alpha); a memcpy of half that
// traffic moves as many bytes.
size_t averagingTraffic(const bench::StdFrame& f)
{
    const quint64 pixels = quint64(f.format.width) * f.format.height;
    const quint64 sumChannels = f.format.channels == 4 && f.format.isColor ? 3 : f.format.channels;
    return size_t(f.format.requiredBytes() + 2 * pixels * sumChannels * 4);
}

} // namespace

int main(int argc, char** argv)
{
    // Some nodes build widgets-based helpers (the spectrum plot) in their
    // constructors; off-screen is enough for that.
    qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication app(argc, argv);
    CxProcessingPlugin plugin;
    plugin.init();

    const std::vector<bench::StdFrame> frames = bench::standardFrames();
    for (const bench::StdFrame& f : frames)
        benchmark::RegisterBenchmark(("memcpy/" + f.name).c_str(), BM_Memcpy, f)
            ->Unit(benchmark::kMillisecond)->UseRealTime();
    for (const bench::StdFrame& f : frames)
        benchmark::RegisterBenchmark(("averaging_memcpy/" + f.name).c_str(),
                                     [&f](benchmark::State& s) { bench::memcpyBaseline(s, averagingTraffic(f) / 2); })
            ->Unit(benchmark::kMillisecond)->UseRealTime();
    for (const CxRTTI::SxClassEntry& e : CxRTTI::instance()->classes(QStringLiteral("CxChainable"))) {
        const QMetaObject* mo = e.metaObject;
        const std::string name = e.customName.toStdString();
        std::string op;
        for (char c : name)
            op += c == ' ' ? '_' : c;
        for (const bench::StdFrame& f : frames)
            benchmark::RegisterBenchmark(("node_" + op + "/" + f.name).c_str(), BM_Node, mo, f,
                                         targetOf(e.customName, f.name), peerOf(e.customName, f.name))
                ->Unit(benchmark::kMillisecond)->UseRealTime();
    }
    return bench::runBenchmarks(argc, argv);
}
