#include "DeinterlaceCnbl.h"
#include "DeinterlaceWidget.h"

#include <CxChain.h>
#include <CxImageData.h>
#include <CxPicBufAPI.h>

#include <QtCore/QPointer>
#include <QtCore/QScopedPointer>
#include <QtTest/QtTest>
#include <QtWidgets/QRadioButton>
#include <QtXml/QDomDocument>

#include <vector>

namespace {

using Transform = CxDeinterlaceCnbl::ExTransformType;

// Byte i of input row y. Rows differ from each other at every byte, so an
// output row names the input row it came from.
uchar patternByte(quint64 y, quint64 i)
{
    return uchar(y * 41 + i * 7 + 3);
}

// Pool memory the node must not write to.
constexpr uchar kUntouched = 0xEE;

// Input rows of a transform, built the plain way: collect the indices by
// parity and concatenate.
QList<int> expectedRows(int transform, int height)
{
    QList<int> even, odd, all;  // by 0-based index
    for (int y = 0; y < height; ++y) {
        (y % 2 ? odd : even).append(y);
        all.append(y);
    }
    switch (transform) {
    case 0: return even;
    case 1: return odd;
    case 2: return even + odd;
    case 3: return odd + even;
    default: return all;
    }
}

QString rowList(const QList<int>& rows)
{
    QStringList parts;
    for (int r : rows)
        parts << QString::number(r);
    return parts.join(QLatin1Char(','));
}

SxPicBufInfo format(quint32 width, quint32 height, quint32 channels, ExImageDataType type,
                    quint32 padding)
{
    SxPicBufInfo f;
    f.width = width;
    f.height = height;
    f.channels = channels;
    f.dataType = type;
    f.bitsPerSample = bytesPerSampleOf(type) * 8;
    f.linePitch = quint32(f.packedLineBytes()) + padding;
    return f;
}

// An input picture over memory of exactly the bytes its format needs (no
// padding after the last row), so that a read past the picture is caught by
// AddressSanitizer. The packet only borrows the memory.
class CxTestInput
{
public:
    explicit CxTestInput(const SxPicBufInfo& f)
        : m_bytes(size_t(qMax<quint64>(f.requiredBytes(), 1)), 0)
    {
        for (quint64 y = 0; y < f.height; ++y) {
            const quint64 rowBytes = y + 1 == f.height ? f.packedLineBytes() : f.linePitch;
            for (quint64 i = 0; i < rowBytes; ++i)
                m_bytes[size_t(y * f.linePitch + i)] = patternByte(y, i);
        }
        const bool wrapped = CxPicBufAPI::WrapPicBuf(m_pic, f, m_bytes.data(), m_bytes.size());
        Q_ASSERT(wrapped);
        Q_UNUSED(wrapped);
        m_pic.frameNumber = 4711;
        m_pic.exposureTimeUs = 1234.5f;
        m_pic.timestampMs = 987654u;
        m_pic.attachments.insert(QStringLiteral("gain"), 3);
    }

    CxImageData* packet() const
    {
        auto* p = new CxImageData;
        p->setPicBuf(m_pic);
        CxImageMetadata meta;
        meta.setCameraName(QStringLiteral("bench camera"));
        meta.setChannelNames({QStringLiteral("a"), QStringLiteral("b")});
        p->setMetadata(&meta);
        return p;
    }
    const SxPicBuf& pic() const { return m_pic; }

private:
    std::vector<uchar> m_bytes;
    SxPicBuf m_pic;
};

// A memory pool of one picture whose bytes are all kUntouched, so that a test
// can see which bytes the node wrote.
class CxTestPool
{
public:
    CxTestPool(const SxPicBufInfo& f, int count = 1)
    {
        m_pool = CxPicBufAPI::CreateMemoryPool(f, count, QStringLiteral("test pool"));
        QList<SxPicBuf> taken;
        SxPicBuf pic;
        while (CxPicBufAPI::AllocPicBufFromPool(m_pool, nullptr, pic, f, false)) {
            std::memset(pic.data, kUntouched, size_t(pic.memCapacity));
            taken.append(pic);
        }
        for (SxPicBuf& p : taken)
            CxPicBufAPI::FreePicBuf(p, false);
    }
    ~CxTestPool() { CxPicBufAPI::ReleaseMemoryPool(m_pool); }
    void* handle() const { return m_pool; }

private:
    void* m_pool = nullptr;
};

// Asks for output rows of its own pitch: a host whose pool pads rows
// differently from the camera hands the node such pictures. It can also ask
// for more rows than the transform yields, as a careless subclass might.
class CxPitchedDeinterlace : public CxDeinterlaceCnbl
{
public:
    quint32 outPitch = 0;  // 0: the input's
    quint32 outHeight = 0; // 0: the transform's

    bool queryOutputImageInfo(const SxPicBufInfo& in, SxPicBufInfo& out,
                              const CxImageMetadata* inMeta, CxImageMetadata* outMeta) override
    {
        const bool ok = CxDeinterlaceCnbl::queryOutputImageInfo(in, out, inMeta, outMeta);
        if (outPitch)
            out.linePitch = outPitch;
        if (outHeight)
            out.height = outHeight;
        return ok;
    }
};

// A packet type of some other node.
class CxForeignData : public IxChainData
{
};

// A chain the node can restart: a synchronous run needs no threads.
struct SxRunningChain
{
    CxChain chain;
    CxDeinterlaceCnbl* node = new CxDeinterlaceCnbl;
    int starts = 0;
    int stops = 0;

    explicit SxRunningChain(const SxPicBufInfo& input)
    {
        chain.setRunMode(CxChain::RunSynchronous);
        chain.setInputFormat(input);
        chain.appendNode(node);
        QObject::connect(&chain, &CxChain::started, [this] { ++starts; });
        QObject::connect(&chain, &CxChain::stoppedSignal, [this] { ++stops; });
    }
    // The chain stops itself when destroyed; nobody counts that any more.
    ~SxRunningChain() { QObject::disconnect(&chain, nullptr, nullptr, nullptr); }
    quint32 negotiatedHeight() const
    {
        SxPicBufInfo out;
        return chain.negotiatedFormat(0, out) ? out.height : 0xffffffffu;
    }
};

QDomElement nodeElement(QDomDocument& doc)
{
    QDomElement e = doc.createElement(QStringLiteral("Chainable"));
    doc.appendChild(e);
    return e;
}

} // namespace

class TestDeinterlace : public QObject
{
    Q_OBJECT

private slots:
    void identity();
    void rowRules_data();
    void rowRules();
    void sampleLayouts_data();
    void sampleLayouts();
    void tallerOutputStaysInside_data();
    void tallerOutputStaysInside();
    void refusals_data();
    void refusals();
    void settingsTravel_data();
    void settingsTravel();
    void loadSettings_data();
    void loadSettings();
    void quickButtons_data();
    void quickButtons();
    void quickButtonRestartsChain_data();
    void quickButtonRestartsChain();
    void setterOnStoppedChain();
    void widgetRadios_data();
    void widgetRadios();
};

void TestDeinterlace::identity()
{
    CxDeinterlaceCnbl node;
    QCOMPARE(node.title(), QStringLiteral("Deinterlace"));
    QVERIFY(node.hasHelp());
    QString anchor;
    QCOMPARE(node.help(anchor),
             QStringLiteral("Deinterlaces the frame.<br>It can either extract odd/even rows or reoder them."));
    QCOMPARE(int(node.chainableFlags()), 9);
    QCOMPARE(node.buffersCountInMemoryPool(), 1);
    QCOMPARE(node.transform(), CxDeinterlaceCnbl::TransformOddRows);

    CxDeinterlaceCnbl provider;
    CxChainable plain;
    QVERIFY(node.acceptsDataFrom(&provider));
    QVERIFY(!node.acceptsDataFrom(&plain));
    QVERIFY(!node.acceptsDataFrom(nullptr));
}

void TestDeinterlace::rowRules_data()
{
    QTest::addColumn<int>("height");
    QTest::addColumn<int>("transform");
    QTest::addColumn<quint32>("outPitch");

    // Five 8-bit pixels in rows padded to 8 bytes. The output rows are as
    // padded, wider, or narrower than the input's padded rows but wider than
    // the pixels, so part of the input padding is copied.
    const struct {
        const char* name;
        quint32 pitch;
    } pitches[] = {{"same pitch", 8}, {"wider out", 13}, {"narrower out", 6}};
    for (int h = 0; h <= 7; ++h)
        for (int t : {0, 1, 2, 3, 7, -1})
            for (const auto& p : pitches)
                QTest::addRow("h%d t%d %s", h, t, p.name) << h << t << p.pitch;
}

void TestDeinterlace::rowRules()
{
    QFETCH(int, height);
    QFETCH(int, transform);
    QFETCH(quint32, outPitch);

    const SxPicBufInfo inFormat = format(5, quint32(height), 1, IDT_UINT8, 3);
    CxTestInput input(inFormat);
    SxPicBufInfo poolFormat = inFormat;
    poolFormat.height = qMax(1, height);
    poolFormat.linePitch = outPitch;
    CxTestPool pool(poolFormat);

    CxPitchedDeinterlace node;
    node.outPitch = outPitch;
    node.setTransform(Transform(transform), false);
    node.setMemoryPool(pool.handle());

    QPointer<CxImageData> in(input.packet());
    QScopedPointer<IxChainData> result(node.processData(in));
    QVERIFY(in.isNull());  // the node frees the packet it turned into output
    auto* outData = qobject_cast<CxImageData*>(result.data());
    QVERIFY(outData);
    const SxPicBuf& out = *outData->picBuf();

    const QList<int> expected = expectedRows(transform, height);
    QCOMPARE(int(out.height), int(expected.size()));
    QCOMPARE(out.width, inFormat.width);
    QCOMPARE(out.linePitch, outPitch);

    const quint64 packed = inFormat.packedLineBytes();
    QList<int> got;
    for (quint32 r = 0; r < out.height; ++r) {
        int source = -1;
        for (int s = 0; s < height && source < 0; ++s)
            if (std::memcmp(out.rowPtr(r), input.pic().rowPtr(quint32(s)), size_t(packed)) == 0)
                source = s;
        got << source;
    }
    QCOMPARE(rowList(got), rowList(expected));

    // Past the pixels: the shorter pitch is copied, except that neither
    // picture has padding after its last row; the rest of the output row
    // keeps what the pool held.
    for (quint32 r = 0; r < out.height; ++r) {
        const quint64 s = quint64(expected.at(int(r)));
        const bool lastOut = r + 1 == out.height;
        quint64 copied = qMin(inFormat.linePitch, outPitch);
        if (s + 1 == inFormat.height || lastOut)
            copied = packed;
        // After the last row's pixels the slot must stay as it was up to its end.
        const quint64 rowEnd = lastOut ? out.memCapacity - quint64(r) * outPitch : outPitch;
        for (quint64 i = packed; i < rowEnd; ++i) {
            const uchar want = i < copied ? patternByte(s, i) : kUntouched;
            if (out.rowPtr(r)[i] != want)
                QFAIL(qPrintable(QStringLiteral("row %1 byte %2: %3, expected %4")
                                     .arg(r).arg(i).arg(out.rowPtr(r)[i]).arg(want)));
        }
    }
}

void TestDeinterlace::sampleLayouts_data()
{
    QTest::addColumn<int>("type");
    QTest::addColumn<quint32>("channels");
    QTest::addColumn<quint32>("inPadding");
    QTest::addColumn<int>("transform");

    const struct {
        const char* name;
        ExImageDataType type;
    } types[] = {{"s8", IDT_INT8},    {"u16", IDT_UINT16}, {"half", IDT_HALF},
                 {"float", IDT_FLOAT}, {"u32", IDT_UINT32}, {"double", IDT_DOUBLE}};
    for (const auto& t : types)
        for (quint32 ch : {1u, 3u, 4u})
            for (int transform : {1, 2, 3})
                QTest::addRow("%s x%u t%d", t.name, ch, transform) << int(t.type) << ch << 5u << transform;
    QTest::newRow("u16 x1 packed t0") << int(IDT_UINT16) << 1u << 0u << 0;
}

// Rows move whole, whatever a pixel is made of; the format and the frame's
// description travel unchanged apart from the height.
void TestDeinterlace::sampleLayouts()
{
    QFETCH(int, type);
    QFETCH(quint32, channels);
    QFETCH(quint32, inPadding);
    QFETCH(int, transform);

    SxPicBufInfo inFormat = format(3, 7, channels, ExImageDataType(type), inPadding);
    inFormat.bitsPerSample = 12;
    inFormat.userFlags = 0x5a;
    inFormat.storageFormat = DSF_NOT_RAW;
    inFormat.colorFilterArray = channels == 1 ? CFA_BAYER_GBRG : CFA_NONE;
    inFormat.isColor = channels > 1;
    CxTestInput input(inFormat);

    // The pool hands out tightly packed rows.
    const quint32 outPitch = quint32(inFormat.packedLineBytes());
    SxPicBufInfo poolFormat = inFormat;
    poolFormat.linePitch = outPitch;
    CxTestPool pool(poolFormat);
    CxPitchedDeinterlace node;
    node.outPitch = outPitch;
    node.setTransform(Transform(transform), false);
    node.setMemoryPool(pool.handle());

    QScopedPointer<IxChainData> result(node.processData(input.packet()));
    auto* outData = qobject_cast<CxImageData*>(result.data());
    QVERIFY(outData);
    const SxPicBuf& out = *outData->picBuf();

    const QList<int> rows = expectedRows(transform, 7);
    SxPicBufInfo wanted = inFormat;
    wanted.height = quint32(rows.size());
    wanted.linePitch = outPitch;
    QVERIFY2(out.sameFormat(wanted), qPrintable(out.describe()));
    for (int r = 0; r < rows.size(); ++r)
        QVERIFY2(std::memcmp(out.rowPtr(quint32(r)), input.pic().rowPtr(quint32(rows[r])),
                             size_t(outPitch)) == 0,
                 qPrintable(QStringLiteral("output row %1").arg(r)));

    QCOMPARE(out.frameNumber, 4711);
    QCOMPARE(out.exposureTimeUs, 1234.5f);
    QCOMPARE(out.timestampMs, 987654u);
    QCOMPARE(out.attachments.value(QStringLiteral("gain")).toInt(), 3);
    QCOMPARE(outData->metadata()->cameraName(), QStringLiteral("bench camera"));
    QCOMPARE(outData->metadata()->channelNames(), QStringList({"a", "b"}));
}

void TestDeinterlace::tallerOutputStaysInside_data()
{
    QTest::addColumn<int>("transform");
    for (int t : {0, 1, 2, 3, 7})
        QTest::addRow("t%d", t) << t;
}

// Rows the input cannot fill are left alone instead of being read from
// beyond the input picture.
void TestDeinterlace::tallerOutputStaysInside()
{
    QFETCH(int, transform);

    const SxPicBufInfo inFormat = format(4, 5, 1, IDT_UINT8, 0);
    CxTestInput input(inFormat);
    SxPicBufInfo poolFormat = inFormat;
    poolFormat.height = 8;
    CxTestPool pool(poolFormat);
    CxPitchedDeinterlace node;
    node.outHeight = 8;
    node.setTransform(Transform(transform), false);
    node.setMemoryPool(pool.handle());

    QScopedPointer<IxChainData> result(node.processData(input.packet()));
    auto* outData = qobject_cast<CxImageData*>(result.data());
    QVERIFY(outData);
    const SxPicBuf& out = *outData->picBuf();
    QCOMPARE(out.height, 8u);
    const QList<int> rows = expectedRows(transform, 5);
    for (quint32 r = 0; r < out.height; ++r) {
        for (quint32 i = 0; i < 4; ++i) {
            const uchar want = int(r) < rows.size() ? patternByte(quint64(rows[int(r)]), i) : kUntouched;
            QCOMPARE(out.rowPtr(r)[i], want);
        }
    }
}

void TestDeinterlace::refusals_data()
{
    QTest::addColumn<QString>("packetCase");

    QTest::newRow("null packet") << "null";
    QTest::newRow("foreign packet") << "foreign";
    QTest::newRow("picture without data") << "no data";
    QTest::newRow("chain stopping") << "stopping";
    QTest::newRow("pool exhausted") << "exhausted";
    QTest::newRow("no pool") << "no pool";
}

// Every refusal answers null and leaves the packet to the caller.
void TestDeinterlace::refusals()
{
    QFETCH(QString, packetCase);

    const SxPicBufInfo f = format(4, 6, 1, IDT_UINT8, 0);
    CxTestInput input(f);
    CxTestPool pool(f);
    CxDeinterlaceCnbl node;
    node.setTransform(CxDeinterlaceCnbl::TransformOddFirst, false);
    node.setMemoryPool(pool.handle());
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
            node.setState(CxChainable::StateStopping);
        } else if (packetCase == QLatin1String("exhausted")) {
            QVERIFY(CxPicBufAPI::AllocPicBufFromPool(pool.handle(), nullptr, held, f, false));
        } else if (packetCase == QLatin1String("no pool")) {
            node.setMemoryPool(nullptr);
        }
    }

    QPointer<IxChainData> guard(packet);
    QCOMPARE(node.processData(packet), nullptr);
    QCOMPARE(guard.data(), packet);
    delete packet;
    CxPicBufAPI::FreePicBuf(held, false);
    QCOMPARE(CxPicBufAPI::OutstandingPoolPictures(), outstanding);
}

void TestDeinterlace::settingsTravel_data()
{
    QTest::addColumn<int>("transform");
    for (int t : {0, 1, 2, 3, 7})
        QTest::addRow("t%d", t) << t;
}

// A transform reaches a saved chain, a loaded node and a clone unchanged,
// an out-of-range one included.
void TestDeinterlace::settingsTravel()
{
    QFETCH(int, transform);

    CxDeinterlaceCnbl node;
    node.setTransform(Transform(transform), false);
    QDomDocument doc;
    QDomElement element = nodeElement(doc);
    QVERIFY(node.saveSettings(doc, element));
    QCOMPARE(element.attribute(QStringLiteral("transform")), QString::number(transform));
    QVERIFY(element.childNodes().isEmpty());

    CxDeinterlaceCnbl loaded;
    loaded.setTransform(Transform((transform + 1) % 4), false);
    QVERIFY(loaded.loadSettings(element));
    QCOMPARE(int(loaded.transform()), transform);

    QScopedPointer<CxChainable> copy(node.clone());
    auto* twin = qobject_cast<CxDeinterlaceCnbl*>(copy.data());
    QVERIFY(twin && twin != &node);
    QCOMPARE(int(twin->transform()), transform);
}

void TestDeinterlace::loadSettings_data()
{
    QTest::addColumn<bool>("present");
    QTest::addColumn<QString>("text");
    QTest::addColumn<int>("expected");

    // The node starts at transform 2 in every row.
    QTest::newRow("missing keeps value") << false << QString() << 2;
    QTest::newRow("zero") << true << "0" << 0;
    QTest::newRow("three") << true << "3" << 3;
    QTest::newRow("not a number") << true << "abc" << 0;
    QTest::newRow("empty") << true << "" << 0;
    QTest::newRow("fraction") << true << "1.5" << 0;
    QTest::newRow("out of range kept") << true << "7" << 7;
    QTest::newRow("negative kept") << true << "-1" << -1;
    QTest::newRow("beyond 32 bits") << true << "4294967296" << 0;
}

void TestDeinterlace::loadSettings()
{
    QFETCH(bool, present);
    QFETCH(QString, text);
    QFETCH(int, expected);

    CxDeinterlaceCnbl node;
    node.setTransform(CxDeinterlaceCnbl::TransformOddFirst, false);
    QDomDocument doc;
    QDomElement element = nodeElement(doc);
    if (present)
        element.setAttribute(QStringLiteral("transform"), text);
    QVERIFY(node.loadSettings(element));
    QCOMPARE(int(node.transform()), expected);
}

void TestDeinterlace::quickButtons_data()
{
    QTest::addColumn<int>("current");
    for (int t : {0, 1, 2, 3, 7})
        QTest::addRow("current t%d", t) << t;
}

void TestDeinterlace::quickButtons()
{
    QFETCH(int, current);

    CxDeinterlaceCnbl node;
    node.setTransform(Transform(current), false);
    // The node appends to what the host already collected.
    QList<CxChainable::CxSimpleStateConfigButton> buttons{{QStringLiteral("host"), 99, false, false}};
    bool hasButtons = false;
    node.simpleStateConfigButtons(buttons, hasButtons);
    QVERIFY(hasButtons);
    QCOMPARE(buttons.size(), 5);
    QCOMPARE(buttons.first().id(), 99);

    const QStringList labels{"02", "13", "0213", "1302"};
    for (int i = 0; i < 4; ++i) {
        const auto& b = buttons.at(i + 1);
        QCOMPARE(b.label(), labels.at(i));
        QCOMPARE(b.id(), i);
        QVERIFY(b.isCheckable());
        QCOMPARE(b.isChecked(), i == current);
    }
}

void TestDeinterlace::quickButtonRestartsChain_data()
{
    QTest::addColumn<int>("id");
    QTest::addColumn<int>("height");   // input rows
    QTest::addColumn<int>("outHeight");

    QTest::newRow("02 from 1302") << 0 << 7 << 4;
    QTest::newRow("13") << 1 << 7 << 3;
    QTest::newRow("0213") << 2 << 7 << 7;
    QTest::newRow("1302") << 3 << 7 << 7;
    QTest::newRow("13 single row") << 1 << 1 << 0;
}

void TestDeinterlace::quickButtonRestartsChain()
{
    QFETCH(int, id);
    QFETCH(int, height);
    QFETCH(int, outHeight);

    const SxPicBufInfo f = format(6, quint32(height), 1, IDT_UINT8, 2);
    SxRunningChain run(f);
    run.node->setTransform(Transform((id + 3) % 4), false);
    QVERIFY2(run.chain.start(), qPrintable(run.chain.lastError()));
    run.starts = run.stops = 0;

    run.node->simpleStateConfigButtonPressed(id);
    QCOMPARE(int(run.node->transform()), id);
    QCOMPARE(run.stops, 1);
    QCOMPARE(run.starts, 1);
    QVERIFY(!run.chain.stopped());
    QCOMPARE(int(run.negotiatedHeight()), outHeight);

    // The restarted chain's pool fits the new height.
    CxTestInput input(f);
    QScopedPointer<IxChainData> result(run.chain.push(input.packet()));
    auto* out = qobject_cast<CxImageData*>(result.data());
    QVERIFY2(out, qPrintable(run.chain.lastError()));
    QCOMPARE(int(out->picBuf()->height), outHeight);
}

void TestDeinterlace::setterOnStoppedChain()
{
    SxRunningChain run(format(6, 7, 1, IDT_UINT8, 0));
    run.node->setTransform(CxDeinterlaceCnbl::TransformEvenFirst, true);
    QCOMPARE(run.node->transform(), CxDeinterlaceCnbl::TransformEvenFirst);
    QVERIFY(run.chain.stopped());
    QCOMPARE(run.starts, 0);
    QCOMPARE(run.stops, 0);

    // Without restart a running chain is left alone.
    QVERIFY(run.chain.start());
    run.starts = 0;
    run.node->setTransform(CxDeinterlaceCnbl::TransformEvenRows, false);
    QCOMPARE(run.node->transform(), CxDeinterlaceCnbl::TransformEvenRows);
    QCOMPARE(run.starts, 0);
    QCOMPARE(run.stops, 0);

    // A node outside any chain just stores the value.
    CxDeinterlaceCnbl alone;
    alone.setTransform(CxDeinterlaceCnbl::TransformOddFirst, true);
    QCOMPARE(alone.transform(), CxDeinterlaceCnbl::TransformOddFirst);
}

void TestDeinterlace::widgetRadios_data()
{
    QTest::addColumn<int>("initial");
    for (int t : {0, 1, 2, 3, 7})
        QTest::addRow("initial t%d", t) << t;
}

void TestDeinterlace::widgetRadios()
{
    QFETCH(int, initial);

    SxRunningChain run(format(6, 5, 1, IDT_UINT8, 0));
    run.node->setTransform(Transform(initial), false);
    QVERIFY(run.node->hasConfigurationWidget());
    QScopedPointer<QWidget> widget(run.node->configurationWidget());
    QVERIFY(qobject_cast<CxDeinterlaceWidget*>(widget.data()));
    QVERIFY(!widget->parent());
    QCOMPARE(widget->windowTitle(), QStringLiteral("Deinterlace"));

    const QStringList texts{
        "Odd row indices (0, 2, 4, 6, ...)",
        "Even row indices (1, 3, 5, 7, ...)",
        "Resort, odd rows first (0, 2, 4, 6, ..., 1, 3, 5, 7, ...)",
        "Resort, even rows first (1, 3, 5, 7, ..., 0, 2, 4, 6, ...)",
    };
    const QList<QRadioButton*> radios = widget->findChildren<QRadioButton*>();
    QCOMPARE(radios.size(), 4);
    for (int i = 0; i < 4; ++i) {
        QCOMPARE(radios[i]->text(), texts[i]);
        QCOMPARE(radios[i]->isChecked(), i == initial);
    }

    QVERIFY(run.chain.start());
    const int expectedHeights[] = {3, 2, 5, 5};
    for (int step = 1; step <= 4; ++step) {
        const int pick = (initial + step) % 4;
        run.starts = run.stops = 0;
        radios[pick]->click();
        QCOMPARE(int(run.node->transform()), pick);
        QCOMPARE(run.stops, 1);
        QCOMPARE(run.starts, 1);
        QCOMPARE(int(run.negotiatedHeight()), expectedHeights[pick]);
        for (int i = 0; i < 4; ++i)
            QCOMPARE(radios[i]->isChecked(), i == pick);
    }
}

QTEST_MAIN(TestDeinterlace)
#include "tst_deinterlace.moc"
