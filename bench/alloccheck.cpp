// Checks that a running chain allocates no picture memory per frame: every
// node of the plug-in, with its default settings, runs behind the synthetic
// camera for a warm-up and then for N frames, while every heap allocation of
// at least the threshold is counted, on all threads. Pictures come from pools
// set up when the chain starts and working pictures from setupStart, so the
// expected count is 0 for every node.
//
//   alloccheck [frames=1000] [thresholdBytes=32768]
//
// Exit status 0 when every count is 0, 1 otherwise. The count is taken by
// replacing the C allocation functions of this program (glibc's own entry
// points do the work), which is why this is not part of the sanitizer suite.
#include "ProcessingPlugin.h"

#include <CxChain.h>
#include <CxChainable.h>
#include <IxChainData.h>
#include <CxRTTI.h>
#include <CxSyntheticCamera.h>

#include <QtWidgets/QApplication>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>

extern "C" {
void* __libc_malloc(size_t);
void* __libc_calloc(size_t, size_t);
void* __libc_realloc(void*, size_t);
void* __libc_memalign(size_t, size_t);
}

namespace {

std::atomic<bool> g_counting{false};
std::atomic<long> g_count{0};
size_t g_threshold = 32 * 1024;

inline void note(size_t bytes)
{
    if (bytes >= g_threshold && g_counting.load(std::memory_order_relaxed))
        g_count.fetch_add(1, std::memory_order_relaxed);
}

} // namespace

extern "C" {
void* malloc(size_t n)
{
    note(n);
    return __libc_malloc(n);
}
void* calloc(size_t a, size_t b)
{
    note(a * b);
    return __libc_calloc(a, b);
}
void* realloc(void* p, size_t n)
{
    note(n);
    return __libc_realloc(p, n);
}
void* memalign(size_t align, size_t n)
{
    note(n);
    return __libc_memalign(align, n);
}
void* aligned_alloc(size_t align, size_t n)
{
    note(n);
    return __libc_memalign(align, n);
}
int posix_memalign(void** out, size_t align, size_t n)
{
    note(n);
    void* p = __libc_memalign(align, n);
    if (!p)
        return ENOMEM;
    *out = p;
    return 0;
}
}

namespace {

struct SxResult
{
    bool ran = false;
    long frames = 0;
    long allocations = 0;
    QString message;
};

SxResult measure(const QMetaObject* mo, CxSyntheticCamera::ExLayout layout, int frames)
{
    SxResult r;
    auto* node = qobject_cast<CxChainable*>(mo->newInstance());
    if (!node) {
        r.message = QStringLiteral("cannot be created");
        return r;
    }
    CxSyntheticCamera::SxConfig cfg;
    cfg.layout = layout;
    cfg.width = 640;
    cfg.height = 480;
    CxChain chain;
    chain.setRunMode(CxChain::RunSynchronous);
    chain.setSource(new CxSyntheticCamera(cfg));
    chain.appendNode(node);
    if (!chain.start()) {
        r.message = chain.lastError();
        return r;
    }
    const int warmUp = 10;
    for (int i = 0; i < warmUp; ++i)
        delete chain.step();
    if (!node->errorMessage().isEmpty()) {
        r.message = node->errorMessage();
        chain.stop();
        return r;
    }
    g_count = 0;
    g_counting = true;
    for (int i = 0; i < frames; ++i)
        delete chain.step();
    g_counting = false;
    chain.stop();
    r.ran = true;
    r.frames = frames;
    r.allocations = g_count.load();
    return r;
}

const char* layoutName(CxSyntheticCamera::ExLayout l)
{
    switch (l) {
    case CxSyntheticCamera::LayoutBayer: return "bayer8 640x480";
    case CxSyntheticCamera::LayoutRgbNir: return "rgbnir8 640x480";
    case CxSyntheticCamera::LayoutMono: return "mono8 640x480";
    default: return "other";
    }
}

} // namespace

int main(int argc, char** argv)
{
    const int frames = argc > 1 ? std::atoi(argv[1]) : 1000;
    if (argc > 2)
        g_threshold = size_t(std::atol(argv[2]));
    qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication app(argc, argv);
    CxProcessingPlugin plugin;
    plugin.init();

    std::printf("Heap allocations of at least %zu bytes per node over %d frames (after %d warm-up frames):\n",
                g_threshold, frames, 10);
    std::printf("%-28s %-18s %8s %12s\n", "node", "input", "frames", "allocations");
    bool clean = true;
    for (const CxRTTI::SxClassEntry& e : CxRTTI::instance()->classes(QStringLiteral("CxChainable"))) {
        // The RGB-NIR node passes other mosaics on untouched, which would
        // measure nothing; a node that refuses a Bayer frame is tried on the
        // next layout it may want.
        SxResult r;
        CxSyntheticCamera::ExLayout used = CxSyntheticCamera::LayoutBayer;
        QList<CxSyntheticCamera::ExLayout> layouts{CxSyntheticCamera::LayoutBayer, CxSyntheticCamera::LayoutRgbNir,
                                                   CxSyntheticCamera::LayoutMono};
        if (e.className == QLatin1String("CxRgbNirDemosaicCnbl"))
            layouts.move(1, 0);
        for (auto layout : layouts) {
            used = layout;
            r = measure(e.metaObject, layout, frames);
            if (r.ran)
                break;
        }
        const QByteArray name = e.customName.toUtf8();
        if (!r.ran) {
            std::printf("%-28s %-18s %8s %12s  (%s)\n", name.constData(), "-", "-", "-",
                        r.message.toUtf8().constData());
            continue;
        }
        std::printf("%-28s %-18s %8ld %12ld\n", name.constData(), layoutName(used), r.frames, r.allocations);
        clean = clean && r.allocations == 0;
    }
    std::printf(clean ? "No picture memory allocated per frame.\n"
                      : "Some node allocates picture memory per frame.\n");
    return clean ? 0 : 1;
}
