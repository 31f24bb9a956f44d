#include "DeinterlaceCnbl.h"
#include "NodeTestKit.h"

#include <CxSyntheticCamera.h>

#include <QtCore/QElapsedTimer>
#include <QtCore/QPointer>
#include <QtCore/QScopedPointer>
#include <QtTest/QtTest>

#include <atomic>
#include <mutex>
#include <thread>

using namespace nodetest;

namespace {

using Transform = CxDeinterlaceCnbl::ExTransformType;

// Rows differ at every byte, so an output row names the input row it came from.
uchar patternByte(quint64 y, quint64 i)
{
    return uchar(y * 41 + i * 7 + 3);
}

// Pool memory the node must not write to.
constexpr uchar kUntouched = 0xEE;

// Built the plain way, independently of the node: collect indices by parity.
QList<int> expectedRows(int transform, int height)
{
    QList<int> even, odd, all;
    for (int y = 0; y < height; ++y) {
        (y % 2 ? odd : even).append(y);
        all.append(y);
    }
    const QList<int> byTransform[] = {even, odd, even + odd, odd + even};
    return transform >= 0 && transform < 4 ? byTransform[transform] : all;
}

// Every byte patterned, row padding too, up to the exact end of the picture.
CxPicture patterned(const SxPicBufInfo& f)
{
    CxImageMetadata meta;
    meta.setCameraName(QStringLiteral("bench camera"));
    meta.setChannelNames({QStringLiteral("a"), QStringLiteral("b")});
    CxPicture input(f, {}, meta);
    for (quint64 y = 0; y < f.height; ++y)
        for (quint64 i = 0; i < (y + 1 == f.height ? f.packedLineBytes() : f.linePitch); ++i)
            input.pic().data[y * f.linePitch + i] = patternByte(y, i);
    return input;
}

// A host whose pool pads rows differently from the camera hands the node
// pictures of another pitch; a careless subclass may ask for too many rows.
class CxPitchedDeinterlace : public CxDeinterlaceCnbl
{
public:
    quint32 outPitch = 0;
    quint32 outHeight = 0; // 0: the transform's

    bool queryOutputImageInfo(const SxPicBufInfo& in, SxPicBufInfo& out, const CxImageMetadata* inMeta,
                              CxImageMetadata* outMeta) override
    {
        const bool ok = CxDeinterlaceCnbl::queryOutputImageInfo(in, out, inMeta, outMeta);
        out.linePitch = outPitch;
        if (outHeight)
            out.height = outHeight;
        return ok;
    }
};

// One node over a pool of one picture filled with kUntouched, so that a test
// sees which bytes the node wrote.
struct SxOneFrame
{
    void* pool;
    CxPitchedDeinterlace node;
    QScopedPointer<IxChainData> result;

    SxOneFrame(const SxPicBufInfo& poolFormat, int transform)
        : pool(CxPicBufAPI::CreateMemoryPool(poolFormat, 1, QStringLiteral("test pool")))
    {
        SxPicBuf pic;
        if (CxPicBufAPI::AllocPicBufFromPool(pool, nullptr, pic, poolFormat, false)) {
            std::memset(pic.data, kUntouched, size_t(pic.memCapacity));
            CxPicBufAPI::FreePicBuf(pic, false);
        }
        node.outPitch = poolFormat.linePitch;
        node.setTransform(Transform(transform), false);
        node.setMemoryPool(pool);
    }
    ~SxOneFrame()
    {
        result.reset();
        CxPicBufAPI::ReleaseMemoryPool(pool);
    }
    const SxPicBuf* run(IxChainData* in)
    {
        result.reset(node.processData(in));
        auto* image = qobject_cast<CxImageData*>(result.data());
        return image ? image->picBuf() : nullptr;
    }
    const CxImageMetadata* meta() const { return qobject_cast<CxImageData*>(result.data())->metadata(); }
};

} // namespace

class TestDeinterlace : public QObject
{
    Q_OBJECT

private slots:
    void rows_data()
    {
        QTest::addColumn<SxPicBufInfo>("in");
        QTest::addColumn<int>("transform");
        QTest::addColumn<quint32>("outPitch");
        QTest::addColumn<quint32>("outHeight");  // 0: the transform's

        // Five 8-bit pixels in rows padded to 8 bytes; output rows as padded,
        // wider or narrower, but always wider than the pixels.
        for (quint32 h = 0; h <= 7; ++h)
            for (int t : {0, 1, 2, 3, 7, -1})
                for (quint32 pitch : {8u, 13u, 6u})
                    QTest::addRow("u8 h%u t%d pitch %u", h, t, pitch) << format(5, h, 1, IDT_UINT8, 3) << t << pitch << 0u;
        // Rows the input cannot fill are left alone, not read from beyond the input.
        for (int t : {0, 2, 7})
            QTest::addRow("taller output t%d", t) << format(4, 5, 1, IDT_UINT8) << t << 4u << 8u;

        // Rows move whole whatever a pixel is made of, into packed rows.
        const struct {
            ExImageDataType type;
            quint32 channels, padding;
            int transform;
        } layouts[] = {{IDT_INT8, 1, 5, 1},  {IDT_UINT16, 3, 5, 2}, {IDT_HALF, 4, 5, 3}, {IDT_FLOAT, 3, 5, 1},
                       {IDT_UINT32, 1, 5, 2}, {IDT_DOUBLE, 4, 5, 3}, {IDT_UINT16, 1, 0, 0}};
        for (const auto& l : layouts) {
            SxPicBufInfo f = format(3, 7, l.channels, l.type, l.padding, l.channels == 1 ? CFA_BAYER_GBRG : CFA_NONE,
                                    DSF_NOT_RAW, l.channels > 1);
            f.bitsPerSample = 12;
            f.userFlags = 0x5a;
            QTest::addRow("%s x%u pad %u t%d", qPrintable(dataTypeName(l.type)), l.channels, l.padding, l.transform)
                << f << l.transform << quint32(f.packedLineBytes()) << 0u;
        }
    }

    // Beyond the rows: the format and the metadata travel
    // unchanged apart from height and pitch.
    void rows()
    {
        QFETCH(SxPicBufInfo, in);
        QFETCH(int, transform);
        QFETCH(quint32, outPitch);
        QFETCH(quint32, outHeight);

        CxPicture input = patterned(in);
        SxPicBufInfo wanted = in;
        wanted.height = outHeight ? outHeight : qMax(1u, in.height);
        wanted.linePitch = outPitch;
        SxOneFrame frame(wanted, transform);
        frame.node.outHeight = outHeight;

        QPointer<CxImageData> packet(input.packet());
        const SxPicBuf* out = frame.run(packet);
        QVERIFY(packet.isNull());  // the node frees the packet it turned into output
        QVERIFY(out);

        const QList<int> expected = expectedRows(transform, int(in.height));
        wanted.height = outHeight ? outHeight : quint32(expected.size());
        QVERIFY2(out->sameFormat(wanted), qPrintable(out->describe()));

        for (quint32 r = 0; r < out->height; ++r) {
            const qint64 s = int(r) < expected.size() ? expected.at(int(r)) : -1;
            const bool lastOut = r + 1 == out->height;
            // Neither picture has padding after its last row; elsewhere the
            // shorter pitch is copied and the rest keeps what the pool held.
            const quint64 copied = s < 0 ? 0
                : quint64(s) + 1 == in.height || lastOut ? in.packedLineBytes() : qMin(in.linePitch, outPitch);
            const quint64 rowEnd = lastOut ? out->memCapacity - quint64(r) * outPitch : outPitch;
            for (quint64 i = 0; i < rowEnd; ++i) {
                const uchar want = i < copied ? patternByte(quint64(s), i) : kUntouched;
                if (out->rowPtr(r)[i] != want)
                    QFAIL(qPrintable(QStringLiteral("row %1 byte %2: %3, expected %4")
                                         .arg(r).arg(i).arg(out->rowPtr(r)[i]).arg(want)));
            }
        }

        QCOMPARE(frame.meta()->cameraName(), QStringLiteral("bench camera"));
        QCOMPARE(frame.meta()->channelNames(), QStringList({"a", "b"}));
    }

    void quickButtonRestartsChain_data()
    {
        QTest::addColumn<int>("current");
        QTest::addColumn<int>("id");
        QTest::addColumn<int>("height");
        QTest::addColumn<int>("outHeight");

        QTest::newRow("02 from 1302") << 3 << 0 << 7 << 4;
        QTest::newRow("13 from out of range") << 7 << 1 << 7 << 3;
        QTest::newRow("0213 from 13") << 1 << 2 << 7 << 7;
        QTest::newRow("1302 from 0213") << 2 << 3 << 7 << 7;
        QTest::newRow("13 single row") << 3 << 1 << 1 << 0;
    }

    // The restart is there so that the new height is negotiated and the pool
    // made for it before the next frame.
    void quickButtonRestartsChain()
    {
        QFETCH(int, current);
        QFETCH(int, id);
        QFETCH(int, height);
        QFETCH(int, outHeight);

        const SxPicBufInfo f = format(6, quint32(height), 1, IDT_UINT8, 2);
        SxNodeRun<CxDeinterlaceCnbl> run(f);
        run.node->setTransform(Transform(current), false);
        QVERIFY2(run.startCounted(), qPrintable(run.chain.lastError()));
        run.node->simpleStateConfigButtonPressed(id);
        QCOMPARE(int(run.node->transform()), id);
        SxPicBufInfo negotiated;
        QVERIFY(run.chain.negotiatedFormat(0, negotiated));
        QCOMPARE(int(negotiated.height), outHeight);
        QScopedPointer<CxImageData> out(run.process(CxPicture(f)));
        QVERIFY2(out, qPrintable(run.chain.lastError()));
        QCOMPARE(int(out->picBuf()->height), outHeight);
    }

    // Changes from the GUI thread restart a live chain under the frames' feet:
    // every output must still be one camera frame under one transform, and the
    // accounting and the pools must come out even.
    void togglesWhileLiveFramesFlow()
    {
        const qint64 poolsBefore = CxPicBufAPI::LivePoolCount();
        CxSyntheticCamera::SxConfig config;  // 8-bit, endless, as fast as taken
        config.layout = CxSyntheticCamera::LayoutMono;
        config.width = 24;
        config.height = 37;  // odd: the single-field transforms differ in height
        std::mutex lock;
        QStringList problems;
        QSet<quint32> heights;
        std::atomic<qint64> outputs{0};
        {
            CxChain chain;
            auto* node = new CxDeinterlaceCnbl;
            chain.setSource(new CxSyntheticCamera(config));
            chain.appendNode(node);
            chain.setOutputHandler([&](IxChainData* packet) {
                const SxPicBuf* out = qobject_cast<CxImageData*>(packet)->picBuf();
                CxPicture frame(format(config.width, config.height));
                CxSyntheticCamera::renderFrame(config, out->frameNumber, frame.pic());
                bool ok = false;
                for (int t = 0; t < 4 && !ok; ++t) {
                    const QList<int> rows = expectedRows(t, int(config.height));
                    ok = rows.size() == int(out->height);
                    for (quint32 r = 0; ok && r < out->height; ++r)
                        ok = std::memcmp(out->rowPtr(r), frame.pic().rowPtr(quint32(rows[int(r)])), config.width) == 0;
                }
                std::lock_guard<std::mutex> locker(lock);
                if (!ok)
                    problems << QStringLiteral("frame %1 of height %2").arg(out->frameNumber).arg(out->height);
                heights << out->height;
                ++outputs;
                delete packet;
            });
            QVERIFY2(chain.start(), qPrintable(chain.lastError()));
            for (int i = 0; i < 200; ++i) {
                node->setTransform(Transform(i % 4), true);
                const qint64 seen = outputs.load();
                QElapsedTimer wait;
                wait.start();
                while (outputs.load() == seen && wait.elapsed() < 500)
                    std::this_thread::sleep_for(std::chrono::microseconds(200));
                QVERIFY2(outputs.load() > seen, "no frame after a change");
            }
            chain.stop();
            QCOMPARE(CxPicBufAPI::OutstandingPoolPictures(), qint64(0));
            const CxChain::SxStats st = chain.stats();
            QCOMPARE(st.grabbed, st.delivered + st.droppedAtSource + st.swallowed + st.discardedOnStop + st.throttled);
            QCOMPARE(st.delivered, outputs.load());
        }
        QVERIFY2(problems.isEmpty(), qPrintable(problems.join(", ")));
        QCOMPARE(heights, (QSet<quint32>{18, 19, 37}));  // every change took
        QCOMPARE(CxPicBufAPI::LivePoolCount(), poolsBefore);
    }
};

QTEST_MAIN(TestDeinterlace)
#include "tst_deinterlace.moc"
