#include "DeinterlaceCnbl.h"
#include "DeinterlaceWidget.h"
#include "NodeTestKit.h"

#include <QtCore/QPointer>
#include <QtCore/QScopedPointer>
#include <QtTest/QtTest>
#include <QtWidgets/QRadioButton>
#include <QtXml/QDomDocument>

Q_DECLARE_METATYPE(SxPicBufInfo)

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
CxTestInput patterned(const SxPicBufInfo& f)
{
    CxImageMetadata meta;
    meta.setCameraName(QStringLiteral("bench camera"));
    meta.setChannelNames({QStringLiteral("a"), QStringLiteral("b")});
    CxTestInput input(f, {}, meta);
    for (quint64 y = 0; y < f.height; ++y)
        for (quint64 i = 0; i < (y + 1 == f.height ? f.packedLineBytes() : f.linePitch); ++i)
            input.pic().data[y * f.linePitch + i] = patternByte(y, i);
    input.pic().attachments.insert(QStringLiteral("gain"), 3);
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

class CxForeignData : public IxChainData
{
};

} // namespace

class TestDeinterlace : public QObject
{
    Q_OBJECT

private slots:
    void standalone();
    void rows_data();
    void rows();
    void refusals_data();
    void refusals();
    void settings_data();
    void settings();
    void quickButtonRestartsChain_data();
    void quickButtonRestartsChain();
    void widgetRadios_data();
    void widgetRadios();
};

void TestDeinterlace::standalone()
{
    CxDeinterlaceCnbl node, provider;
    CxChainable plain;
    QVERIFY(node.acceptsDataFrom(&provider));
    QVERIFY(!node.acceptsDataFrom(&plain));
    QVERIFY(!node.acceptsDataFrom(nullptr));
    QCOMPARE(node.transform(), CxDeinterlaceCnbl::TransformOddRows);
    node.setTransform(CxDeinterlaceCnbl::TransformOddFirst, true);  // no chain to restart
    QCOMPARE(node.transform(), CxDeinterlaceCnbl::TransformOddFirst);
}

void TestDeinterlace::rows_data()
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

// Beyond the rows: the format, frame attributes and metadata travel
// unchanged apart from height and pitch.
void TestDeinterlace::rows()
{
    QFETCH(SxPicBufInfo, in);
    QFETCH(int, transform);
    QFETCH(quint32, outPitch);
    QFETCH(quint32, outHeight);

    CxTestInput input = patterned(in);
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

    QCOMPARE(out->frameNumber, 77);
    QCOMPARE(out->exposureTimeUs, 12.5f);
    QCOMPARE(out->timestampMs, 4242u);
    QCOMPARE(out->attachments.value(QStringLiteral("gain")).toInt(), 3);
    QCOMPARE(frame.meta()->cameraName(), QStringLiteral("bench camera"));
    QCOMPARE(frame.meta()->channelNames(), QStringList({"a", "b"}));
}

void TestDeinterlace::refusals_data()
{
    QTest::addColumn<QString>("packetCase");
    for (const char* c : {"null", "foreign", "no data", "stopping", "exhausted", "no pool"})
        QTest::newRow(c) << QString::fromLatin1(c);
}

// Every refusal answers null and leaves the packet to the caller.
void TestDeinterlace::refusals()
{
    QFETCH(QString, packetCase);

    const SxPicBufInfo f = format(4, 6, 1, IDT_UINT8);
    CxTestInput input = patterned(f);
    SxOneFrame frame(f, 2);
    const qint64 outstanding = CxPicBufAPI::OutstandingPoolPictures();

    IxChainData* packet = nullptr;
    SxPicBuf held;
    if (packetCase == QLatin1String("foreign")) {
        packet = new CxForeignData;
    } else if (packetCase != QLatin1String("null")) {
        auto* image = input.packet();
        packet = image;
        if (packetCase == QLatin1String("no data")) {
            image->setPicBuf(SxPicBuf());
            image->picBuf()->setPicFormat(f);
        } else if (packetCase == QLatin1String("stopping")) {
            frame.node.setState(CxChainable::StateStopping);
        } else if (packetCase == QLatin1String("exhausted")) {
            QVERIFY(CxPicBufAPI::AllocPicBufFromPool(frame.pool, nullptr, held, f, false));
        } else {
            frame.node.setMemoryPool(nullptr);
        }
    }

    QPointer<IxChainData> guard(packet);
    QCOMPARE(frame.node.processData(packet), nullptr);
    QCOMPARE(guard.data(), packet);
    delete packet;
    CxPicBufAPI::FreePicBuf(held, false);
    QCOMPARE(CxPicBufAPI::OutstandingPoolPictures(), outstanding);
}

void TestDeinterlace::settings_data()
{
    QTest::addColumn<bool>("present");
    QTest::addColumn<QString>("text");
    QTest::addColumn<int>("expected");

    // The node holds transform 2 before loading.
    QTest::newRow("missing keeps value") << false << QString() << 2;
    QTest::newRow("zero") << true << "0" << 0;
    QTest::newRow("not a number") << true << "abc" << 0;
    QTest::newRow("fraction") << true << "1.5" << 0;
    QTest::newRow("out of range kept") << true << "7" << 7;
    QTest::newRow("negative kept") << true << "-1" << -1;
    QTest::newRow("beyond 32 bits") << true << "4294967296" << 0;
}

// What loads is what saves and what a clone carries, out-of-range values too.
void TestDeinterlace::settings()
{
    QFETCH(bool, present);
    QFETCH(QString, text);
    QFETCH(int, expected);

    QDomDocument doc;
    QDomElement element = doc.createElement(QStringLiteral("Chainable"));
    doc.appendChild(element);
    if (present)
        element.setAttribute(QStringLiteral("transform"), text);
    CxDeinterlaceCnbl node;
    node.setTransform(CxDeinterlaceCnbl::TransformOddFirst, false);
    QVERIFY(node.loadSettings(element));
    QCOMPARE(int(node.transform()), expected);

    QDomElement saved = doc.createElement(QStringLiteral("Chainable"));
    QVERIFY(node.saveSettings(doc, saved));
    QCOMPARE(saved.attribute(QStringLiteral("transform")), QString::number(expected));
    QVERIFY(saved.childNodes().isEmpty());

    QScopedPointer<CxChainable> copy(node.clone());
    auto* twin = qobject_cast<CxDeinterlaceCnbl*>(copy.data());
    QVERIFY(twin && twin != &node);
    QCOMPARE(int(twin->transform()), expected);
}

void TestDeinterlace::quickButtonRestartsChain_data()
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

void TestDeinterlace::quickButtonRestartsChain()
{
    QFETCH(int, current);
    QFETCH(int, id);
    QFETCH(int, height);
    QFETCH(int, outHeight);

    const SxPicBufInfo f = format(6, quint32(height), 1, IDT_UINT8, 2);
    SxNodeRun<CxDeinterlaceCnbl> run(f);
    run.node->setTransform(Transform(current), true);  // a stopped chain stays stopped
    QVERIFY(run.chain.stopped());
    QCOMPARE(run.starts + run.stops, 0);

    // Appended after what the host already collected.
    QList<CxChainable::CxSimpleStateConfigButton> buttons{{QStringLiteral("host"), 99, false, false}};
    bool hasButtons = false;
    run.node->simpleStateConfigButtons(buttons, hasButtons);
    QVERIFY(hasButtons);
    QCOMPARE(buttons.size(), 5);
    QCOMPARE(buttons.first().id(), 99);
    const QStringList labels{"02", "13", "0213", "1302"};
    for (int i = 0; i < 4; ++i) {
        QCOMPARE(buttons.at(i + 1).label(), labels.at(i));
        QCOMPARE(buttons.at(i + 1).id(), i);
        QVERIFY(buttons.at(i + 1).isCheckable());
        QCOMPARE(buttons.at(i + 1).isChecked(), i == current);
    }

    QVERIFY2(run.chain.start(), qPrintable(run.chain.lastError()));
    run.starts = run.stops = 0;
    run.node->setTransform(Transform((id + 1) % 4), false);  // without restart a running chain is left alone
    QCOMPARE(run.starts + run.stops, 0);
    run.node->simpleStateConfigButtonPressed(id);
    QCOMPARE(int(run.node->transform()), id);
    QCOMPARE(run.stops, 1);
    QCOMPARE(run.starts, 1);
    QVERIFY(!run.chain.stopped());
    SxPicBufInfo negotiated;
    QVERIFY(run.chain.negotiatedFormat(0, negotiated));
    QCOMPARE(int(negotiated.height), outHeight);

    // The restarted chain's pool fits the new height.
    QScopedPointer<CxImageData> out(run.process(CxTestInput(f)));
    QVERIFY2(out, qPrintable(run.chain.lastError()));
    QCOMPARE(int(out->picBuf()->height), outHeight);
}

void TestDeinterlace::widgetRadios_data()
{
    QTest::addColumn<int>("initial");
    QTest::newRow("initial t1") << 1;
    QTest::newRow("initial out of range") << 7;
}

void TestDeinterlace::widgetRadios()
{
    QFETCH(int, initial);

    SxNodeRun<CxDeinterlaceCnbl> run(format(6, 5, 1, IDT_UINT8));
    run.node->setTransform(Transform(initial), false);
    QVERIFY(run.node->hasConfigurationWidget());
    QScopedPointer<QWidget> widget(run.node->configurationWidget());
    QVERIFY(qobject_cast<CxDeinterlaceWidget*>(widget.data()));
    QVERIFY(!widget->parent());

    const QList<QRadioButton*> radios = widget->findChildren<QRadioButton*>();
    QCOMPARE(radios.size(), 4);
    for (int i = 0; i < 4; ++i)
        QCOMPARE(radios[i]->isChecked(), i == initial);

    QVERIFY(run.chain.start());
    for (int step = 1; step <= 4; ++step) {
        const int pick = (initial + step) % 4;
        run.starts = run.stops = 0;
        radios[pick]->click();
        QCOMPARE(int(run.node->transform()), pick);
        QCOMPARE(run.stops, 1);
        QCOMPARE(run.starts, 1);
        for (int i = 0; i < 4; ++i)
            QCOMPARE(radios[i]->isChecked(), i == pick);
    }
}

QTEST_MAIN(TestDeinterlace)
#include "tst_deinterlace.moc"
