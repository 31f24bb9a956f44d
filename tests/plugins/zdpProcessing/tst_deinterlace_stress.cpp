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
    qint64 wrong = 0;
    QString firstProblem;
    std::atomic<qint64> outputs{0};
};

// Whether out is the frame under any of the four transforms.
bool isDeinterlaced(const SxPicBuf& out, const SxPicBuf& frame)
{
    QList<quint32> even, odd;
    for (quint32 y = 0; y < frame.height; ++y)
        (y % 2 ? odd : even).append(y);
    for (const QList<quint32>& rows : {even, odd, even + odd, odd + even}) {
        bool same = quint32(rows.size()) == out.height;
        for (quint32 r = 0; same && r < out.height; ++r)
            same = std::memcmp(out.rowPtr(r), frame.rowPtr(rows[int(r)]), size_t(frame.packedLineBytes())) == 0;
        if (same)
            return true;
    }
    return false;
}

// Checks one output against the camera frame it was made from, whichever
// transform was set at the time.
void checkOutput(const CxSyntheticCamera::SxConfig& config, const SxPicBufInfo& frameFormat,
                 IxChainData* packet, SxTally& tally)
{
    auto* image = qobject_cast<CxImageData*>(packet);
    const SxPicBuf* out = image ? image->picBuf() : nullptr;
    bool ok = false;
    SxPicBuf frame;
    if (out && out->data && CxPicBufAPI::AllocPicBufFromHeap(frame, frameFormat, true, 0)) {
        CxSyntheticCamera::renderFrame(config, out->frameNumber, frame);
        ok = isDeinterlaced(*out, frame);
        CxPicBufAPI::FreePicBuf(frame, true);
    }

    std::lock_guard<std::mutex> locker(tally.lock);
    if (out)
        tally.heights.insert(out->height);
    tally.wrong += ok ? 0 : 1;
    if (!ok && tally.firstProblem.isEmpty())
        tally.firstProblem = out ? QStringLiteral("frame %1 (height %2) is no deinterlaced camera frame")
                                       .arg(out->frameNumber).arg(out->height)
                                 : QStringLiteral("output without a picture");
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
    CxSyntheticCamera::SxConfig config;  // 8-bit, endless, as fast as taken
    config.layout = CxSyntheticCamera::LayoutMono;
    config.width = kWidth;
    config.height = kHeight;

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
    QCOMPARE(tally.wrong, 0);
    QVERIFY((tally.heights == std::set<quint32>{kHeight / 2, (kHeight + 1) / 2, kHeight}));
    QCOMPARE(CxPicBufAPI::LivePoolCount(), poolsBefore);
}

QTEST_GUILESS_MAIN(TestDeinterlaceStress)
#include "tst_deinterlace_stress.moc"
