#include "DeinterlaceCnbl.h"

#include <CxChain.h>
#include <CxImageData.h>
#include <CxPicBufAPI.h>
#include <CxSyntheticCamera.h>

#include <QtCore/QElapsedTimer>
#include <QtTest/QtTest>

#include <atomic>
#include <chrono>
#include <cstring>
#include <mutex>
#include <set>
#include <thread>

namespace {

using Transform = CxDeinterlaceCnbl::ExTransformType;

constexpr int kToggles = 300;
// Odd, so that the two single-field transforms give different heights.
constexpr quint32 kWidth = 24;
constexpr quint32 kHeight = 37;

// What the chain's output thread saw.
struct SxTally
{
    std::mutex lock;
    std::set<quint32> heights;
    qint64 wrongHeight = 0;
    qint64 wrongPixels = 0;
    QString firstProblem;
    std::atomic<qint64> outputs{0};
};

bool rowsMatch(const SxPicBuf& out, const SxPicBuf& frame, int transform)
{
    const quint32 h = frame.height;
    const quint32 firstBlock = transform == 2 ? (h + 1) / 2 : h / 2;
    for (quint32 r = 0; r < out.height; ++r) {
        quint32 s = 0;
        switch (transform) {
        case 0: s = 2 * r; break;
        case 1: s = 2 * r + 1; break;
        case 2: s = r < firstBlock ? 2 * r : 2 * (r - firstBlock) + 1; break;
        default: s = r < firstBlock ? 2 * r + 1 : 2 * (r - firstBlock); break;
        }
        if (std::memcmp(out.rowPtr(r), frame.rowPtr(s), size_t(frame.packedLineBytes())) != 0)
            return false;
    }
    return true;
}

// Checks one output against the camera frame it was made from: it must be
// that frame under one of the transforms, whichever was set at the time.
void checkOutput(const CxSyntheticCamera::SxConfig& config, const SxPicBufInfo& frameFormat,
             IxChainData* packet, SxTally& tally)
{
    auto* image = qobject_cast<CxImageData*>(packet);
    const SxPicBuf* out = image ? image->picBuf() : nullptr;
    QString problem;
    bool heightOk = false;
    bool pixelsOk = false;
    if (out && out->data) {
        const quint32 h = out->height;
        heightOk = h == (kHeight + 1) / 2 || h == kHeight / 2 || h == kHeight;
        SxPicBuf frame;
        if (heightOk && CxPicBufAPI::AllocPicBufFromHeap(frame, frameFormat, true, 0)) {
            CxSyntheticCamera::renderFrame(config, out->frameNumber, frame);
            if (h == (kHeight + 1) / 2)
                pixelsOk = rowsMatch(*out, frame, 0);
            else if (h == kHeight / 2)
                pixelsOk = rowsMatch(*out, frame, 1);
            else
                pixelsOk = rowsMatch(*out, frame, 2) || rowsMatch(*out, frame, 3);
            CxPicBufAPI::FreePicBuf(frame, true);
        }
        if (!pixelsOk)
            problem = QStringLiteral("frame %1 (height %2) is no deinterlaced camera frame")
                          .arg(out->frameNumber).arg(h);
    } else {
        problem = QStringLiteral("output without a picture");
    }

    std::lock_guard<std::mutex> locker(tally.lock);
    if (out)
        tally.heights.insert(out->height);
    tally.wrongHeight += heightOk ? 0 : 1;
    tally.wrongPixels += pixelsOk ? 0 : 1;
    if (!problem.isEmpty() && tally.firstProblem.isEmpty())
        tally.firstProblem = problem;
    ++tally.outputs;
}

} // namespace

class TestDeinterlaceStress : public QObject
{
    Q_OBJECT

private slots:
    void toggleWhileFramesFlow();
};

// The quick buttons and the panel change the transform from the GUI thread
// while a live chain runs; each change restarts the chain. Nothing may leak,
// get lost from the accounting, or come out with a height or content of no
// transform.
void TestDeinterlaceStress::toggleWhileFramesFlow()
{
    const qint64 poolsBefore = CxPicBufAPI::LivePoolCount();

    CxSyntheticCamera::SxConfig config;
    config.layout = CxSyntheticCamera::LayoutMono;
    config.dataType = IDT_UINT8;
    config.bitsPerSample = 8;
    config.colorFilterArray = CFA_NONE;
    config.width = kWidth;
    config.height = kHeight;
    config.frameLimit = 0;
    config.fps = 0.0;

    SxTally tally;
    SxPicBufInfo frameFormat;
    {
        CxChain chain;
        auto* camera = new CxSyntheticCamera(config);
        QVERIFY(camera->sourceFormat(frameFormat, nullptr));
        QCOMPARE(frameFormat.height, kHeight);
        chain.setSource(camera);
        auto* node = new CxDeinterlaceCnbl;
        chain.appendNode(node);
        chain.setRunMode(CxChain::RunLive);
        chain.setOutputHandler([&](IxChainData* out) {
            checkOutput(config, frameFormat, out, tally);
            delete out;
        });
        QVERIFY2(chain.start(), qPrintable(chain.lastError()));

        int starved = 0;
        for (int i = 0; i < kToggles; ++i) {
            node->setTransform(Transform(i % 4), true);
            QVERIFY(!chain.stopped());
            // Let the new setting carry at least one frame before the next change.
            const qint64 seen = tally.outputs.load();
            QElapsedTimer wait;
            wait.start();
            while (tally.outputs.load() == seen && wait.elapsed() < 200)
                std::this_thread::sleep_for(std::chrono::microseconds(200));
            starved += tally.outputs.load() == seen ? 1 : 0;
        }
        chain.stop();
        QVERIFY(chain.stopped());
        QCOMPARE(starved, 0);
        // Every output was freed by the handler, so no pool picture is out.
        QCOMPARE(CxPicBufAPI::OutstandingPoolPictures(), qint64(0));

        const CxChain::SxStats st = chain.stats();
        QCOMPARE(st.grabbed, st.delivered + st.droppedAtSource + st.swallowed + st.discardedOnStop
                                 + st.throttled);
        QCOMPARE(st.delivered, tally.outputs.load());
        QVERIFY(st.delivered >= kToggles);
    }

    QVERIFY2(tally.firstProblem.isEmpty(), qPrintable(tally.firstProblem));
    QCOMPARE(tally.wrongHeight, 0);
    QCOMPARE(tally.wrongPixels, 0);
    const std::set<quint32> allHeights{kHeight / 2, (kHeight + 1) / 2, kHeight};
    QVERIFY(tally.heights == allHeights);
    QCOMPARE(CxPicBufAPI::LivePoolCount(), poolsBefore);
}

QTEST_GUILESS_MAIN(TestDeinterlaceStress)
#include "tst_deinterlace_stress.moc"
