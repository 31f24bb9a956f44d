#include "MedianCnbl.h"
#include "MedianWidget.h"
#include "NodeTestKit.h"

#include <CxHsiCameraParams.h>

#include <QtCore/QScopedPointer>
#include <QtTest/QtTest>
#include <QtWidgets/QLabel>
#include <QtWidgets/QSpinBox>
#include <QtXml/QDomDocument>

#include <algorithm>
#include <vector>

Q_DECLARE_METATYPE(SxPicBufInfo)
Q_DECLARE_METATYPE(CxImageMetadata)

using namespace nodetest;

namespace {

// A hyperspectral description of pw x ph single-pixel bands over the whole
// sensor; wider cells make it a mosaic the node does not split.
CxImageMetadata hsiMeta(int pw, int ph, int cell = 1)
{
    CxHsiCameraParams::CxFilterZone zone;
    zone.patternWidth = pw;
    zone.patternHeight = ph;
    zone.cellWidth = cell;
    for (int b = 0; b < pw * ph; ++b)
        zone.bands.append(CxHsiCameraParams::CxBand(QStringLiteral("B%1").arg(b), 500 + 10 * b));
    CxHsiCameraParams params;
    params.addFilterZone(zone);
    CxImageMetadata meta;
    meta.setHsiCameraParams(params);
    meta.setColorFilterArray(CFA_HSI_MOSAIC);
    return meta;
}

double scrambled(quint32 x, quint32 y, quint32 c, ExImageDataType t)
{
    const quint32 h = (x * 73856093u) ^ (y * 19349663u) ^ (c * 83492791u);
    return t == IDT_UINT16 ? (h * 2654435761u) >> 16 : (h * 2654435761u) >> 24;
}

// The median the node must give, computed the plain way: the (2r + 1)^2
// samples of the sample's own plane, the plane's edges repeated.
double referenceMedian(const SxPicBuf& in, quint32 x, quint32 y, quint32 c, int pw, int ph, int r)
{
    const int ox = int(x) % pw, oy = int(y) % ph;
    const int planeW = (int(in.width) - ox + pw - 1) / pw, planeH = (int(in.height) - oy + ph - 1) / ph;
    std::vector<double> window;
    for (int dy = -r; dy <= r; ++dy)
        for (int dx = -r; dx <= r; ++dx) {
            const int qx = std::clamp(int(x) / pw + dx, 0, planeW - 1);
            const int qy = std::clamp(int(y) / ph + dy, 0, planeH - 1);
            window.push_back(sampleValue(in, quint64(qx * pw + ox), quint64(qy * ph + oy), c));
        }
    std::nth_element(window.begin(), window.begin() + window.size() / 2, window.end());
    return window[window.size() / 2];
}

} // namespace

class TestMedian : public QObject
{
    Q_OBJECT

private slots:
    void identity();
    void loadSettings_data();
    void loadSettings();
    void filtersEachPlane_data();
    void filtersEachPlane();
    void brightRedJudgedAgainstRed();
    void bandsMeetSeamlessly_data();
    void bandsMeetSeamlessly();
    void unsupportedPassesUnchanged_data();
    void unsupportedPassesUnchanged();
    void widgetKernelRange_data();
    void widgetKernelRange();
    void widgetRestartsChain();
};

void TestMedian::identity()
{
    CxMedianCnbl node;
    QCOMPARE(node.title(), QStringLiteral("Median (3x3)"));
    QString anchor;
    QCOMPARE(node.help(anchor), QStringLiteral("Performs the median filtering with given kernel size."));
    QDomDocument doc;
    QDomElement saved = doc.createElement(QStringLiteral("Chainable"));
    QVERIFY(node.saveSettings(doc, saved));
    QCOMPARE(saved.attribute(QStringLiteral("kernelSize")), QStringLiteral("3"));

    QSignalSpy titles(&node, &CxChainable::titleChanged);
    node.setKernelRadius(4);
    QCOMPARE(titles.size(), 1);
    QCOMPARE(node.title(), QStringLiteral("Median (9x9)"));
    QScopedPointer<CxChainable> copy(node.clone());
    QCOMPARE(qobject_cast<CxMedianCnbl*>(copy.data())->kernelRadius(), 4);
}

void TestMedian::loadSettings_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<bool>("result");
    QTest::addColumn<int>("radius");

    // The node holds radius 5 before loading; a null text is no attribute.
    QTest::newRow("missing") << QString() << false << 5;
    QTest::newRow("1") << "1" << true << 1;
    QTest::newRow("0") << "0" << true << 1;
    QTest::newRow("negative") << "-7" << true << 1;
    QTest::newRow("abc") << "abc" << true << 1;
    QTest::newRow("beyond 32 bits") << "99999999999" << true << 1;
    QTest::newRow("7") << "7" << true << 3;
    QTest::newRow("8") << "8" << true << 3;
}

void TestMedian::loadSettings()
{
    QFETCH(QString, text);
    QFETCH(bool, result);
    QFETCH(int, radius);

    QDomDocument doc;
    QDomElement element = doc.createElement(QStringLiteral("Chainable"));
    if (!text.isNull())
        element.setAttribute(QStringLiteral("kernelSize"), text);
    CxMedianCnbl node;
    node.setKernelRadius(5);
    QCOMPARE(node.loadSettings(element), result);
    QCOMPARE(node.kernelRadius(), radius);
}

void TestMedian::filtersEachPlane_data()
{
    QTest::addColumn<SxPicBufInfo>("in");
    QTest::addColumn<CxImageMetadata>("meta");
    QTest::addColumn<int>("radius");
    QTest::addColumn<int>("pw");
    QTest::addColumn<int>("ph");

    const CxImageMetadata none;
    QTest::newRow("mono u8") << format(9, 7, 1, IDT_UINT8) << none << 1 << 1 << 1;
    QTest::newRow("mono u16 padded r2") << format(9, 7, 1, IDT_UINT16, 6) << none << 2 << 1 << 1;
    QTest::newRow("rgb u8") << format(6, 5, 3, IDT_UINT8, 0, CFA_NONE, DSF_PACKED, true) << none << 1 << 1 << 1;
    QTest::newRow("rgba u16") << format(5, 4, 4, IDT_UINT16, 0, CFA_NONE, DSF_PACKED, true) << none << 1 << 1 << 1;
    QTest::newRow("bayer u8 odd") << format(7, 5, 1, IDT_UINT8, 0, CFA_BAYER_RGGB) << none << 1 << 2 << 2;
    QTest::newRow("cmyg u16 even") << format(8, 6, 1, IDT_UINT16, 0, CFA_CMYG) << none << 1 << 2 << 2;
    // Rows long enough for the vector loops, with an odd last column.
    QTest::newRow("bayer u8 wide r2") << format(41, 9, 1, IDT_UINT8, 3, CFA_BAYER_GBRG) << none << 2 << 2 << 2;
    QTest::newRow("bayer u16 wide") << format(35, 4, 1, IDT_UINT16, 0, CFA_BAYER_BGGR) << none << 1 << 2 << 2;
    QTest::newRow("bayer u16 odd pitch") << format(9, 5, 1, IDT_UINT16, 1, CFA_BAYER_GRBG) << none << 1 << 2 << 2;
    QTest::newRow("bayer one row") << format(9, 1, 1, IDT_UINT8, 0, CFA_BAYER_RGGB) << none << 1 << 2 << 2;
    QTest::newRow("bayer one column") << format(1, 6, 1, IDT_UINT16, 0, CFA_BAYER_RGGB) << none << 1 << 2 << 2;
    QTest::newRow("bayer not raw is plain")
        << format(7, 5, 1, IDT_UINT8, 0, CFA_BAYER_RGGB, DSF_NOT_RAW) << none << 1 << 1 << 1;
    QTest::newRow("hsi 3x2 u8") << format(11, 7, 1, IDT_UINT8, 0, CFA_HSI_MOSAIC) << hsiMeta(3, 2) << 1 << 3 << 2;
    QTest::newRow("hsi 4x4 u16 r2") << format(18, 9, 1, IDT_UINT16, 2, CFA_HSI_MOSAIC) << hsiMeta(4, 4) << 2 << 4 << 4;
}

void TestMedian::filtersEachPlane()
{
    QFETCH(SxPicBufInfo, in);
    QFETCH(CxImageMetadata, meta);
    QFETCH(int, radius);
    QFETCH(int, pw);
    QFETCH(int, ph);

    const ExImageDataType type = in.dataType;
    CxTestInput input(in, [type](quint32 x, quint32 y, quint32 c) { return scrambled(x, y, c, type); }, meta);
    SxNodeRun<CxMedianCnbl> run(in, meta);
    run.node->setKernelRadius(radius);
    QScopedPointer<CxImageData> out(run.process(input));
    QVERIFY(out);
    const SxPicBuf& pic = *out->picBuf();
    QVERIFY(pic.sameFormat(in));
    for (quint32 y = 0; y < in.height; ++y)
        for (quint32 x = 0; x < in.width; ++x)
            for (quint32 c = 0; c < in.channels; ++c)
                if (sampleValue(pic, x, y, c) != referenceMedian(input.pic(), x, y, c, pw, ph, radius))
                    QFAIL(qPrintable(QStringLiteral("wrong median at (%1, %2, %3)").arg(x).arg(y).arg(c)));
    QCOMPARE(pic.frameNumber, 77);
    QCOMPARE(pic.exposureTimeUs, 12.5f);
    QCOMPARE(out->metadata()->colorFilterArray(), meta.colorFilterArray());
    QVERIFY(run.node->errorMessage().isEmpty());
}

// Across colours a 3 x 3 window around a red sample holds four greens, whose
// median would swallow the red; within the red plane the spike alone goes.
void TestMedian::brightRedJudgedAgainstRed()
{
    const SxPicBufInfo f = format(8, 8, 1, IDT_UINT8, 0, CFA_BAYER_RGGB);
    auto mosaic = [](quint32 x, quint32 y, quint32) -> double {
        if (x == 4 && y == 4)
            return 250;
        return (x % 2 == 0 && y % 2 == 0) ? 100 : (x % 2 && y % 2) ? 50 : 10;
    };
    CxTestInput input(f, mosaic);
    SxNodeRun<CxMedianCnbl> run(f);
    QScopedPointer<CxImageData> out(run.process(input));
    QVERIFY(out);
    for (quint32 y = 0; y < 8; ++y)
        for (quint32 x = 0; x < 8; ++x)
            QCOMPARE(sampleValue(*out->picBuf(), x, y), (x == 4 && y == 4) ? 100.0 : mosaic(x, y, 0));
}

void TestMedian::bandsMeetSeamlessly_data()
{
    QTest::addColumn<SxPicBufInfo>("in");
    QTest::addColumn<int>("radius");
    QTest::addColumn<int>("band");

    for (int band : {1, 2, 3, 5})
        for (int radius : {1, 2}) {
            QTest::addRow("u8 band %d r%d", band, radius) << format(37, 13, 1, IDT_UINT8, 1) << radius << band;
            QTest::addRow("u16 band %d r%d", band, radius) << format(19, 10, 1, IDT_UINT16, 3) << radius << band;
        }
}

// Camera frames are filtered a few rows of the planes at a time; every band
// must see its neighbours' rows.
void TestMedian::bandsMeetSeamlessly()
{
    QFETCH(SxPicBufInfo, in);
    QFETCH(int, radius);
    QFETCH(int, band);

    in.colorFilterArray = CFA_BAYER_BGGR;
    const ExImageDataType type = in.dataType;
    CxTestInput input(in, [type](quint32 x, quint32 y, quint32 c) { return scrambled(x, y, c, type); });
    CxTestInput output(in);
    SxPicBuf planes[8];
    for (int i = 0; i < 8; ++i) {
        const quint32 cx = i % 2, rows = quint32(band + 2 * radius);
        QVERIFY(CxPicBufAPI::AllocPicBufFromHeap(planes[i], format((in.width + 1 - cx) / 2, rows, 1, type), true, 0));
    }
    void* work = nullptr;
    QVERIFY(CxPicBufAPI::MedianAllocBuffer(planes[0], radius, &work));
    const bool done = type == IDT_UINT8
        ? med_filterBayerInBands_T<quint8>(input.pic(), output.pic(), planes, planes + 4, radius, work, band)
        : med_filterBayerInBands_T<quint16>(input.pic(), output.pic(), planes, planes + 4, radius, work, band);
    CxPicBufAPI::MedianFreeBuffer(work);
    for (SxPicBuf& p : planes)
        CxPicBufAPI::FreePicBuf(p, true);
    QVERIFY(done);
    for (quint32 y = 0; y < in.height; ++y)
        for (quint32 x = 0; x < in.width; ++x)
            QCOMPARE(sampleValue(output.pic(), x, y), referenceMedian(input.pic(), x, y, 0, 2, 2, radius));
}

void TestMedian::unsupportedPassesUnchanged_data()
{
    QTest::addColumn<SxPicBufInfo>("in");
    QTest::addColumn<CxImageMetadata>("meta");
    QTest::addColumn<QString>("message");

    const QString type = QStringLiteral("The input image data type is not supported.");
    const QString hsi = QStringLiteral("Only the simple mosaic HSI images are supported.");
    QTest::newRow("s16") << format(4, 4, 1, IDT_INT16) << CxImageMetadata() << type;
    QTest::newRow("float") << format(4, 4, 1, IDT_FLOAT) << CxImageMetadata() << type;
    QTest::newRow("u32 bayer") << format(4, 4, 1, IDT_UINT32, 0, CFA_BAYER_RGGB) << CxImageMetadata() << type;
    QTest::newRow("hsi wide cells") << format(8, 4, 1, IDT_UINT8, 0, CFA_HSI_MOSAIC) << hsiMeta(2, 2, 2) << hsi;
    QTest::newRow("hsi without description")
        << format(8, 4, 1, IDT_UINT16, 0, CFA_HSI_MOSAIC) << CxImageMetadata() << hsi;
}

void TestMedian::unsupportedPassesUnchanged()
{
    QFETCH(SxPicBufInfo, in);
    QFETCH(CxImageMetadata, meta);
    QFETCH(QString, message);

    CxTestInput input(in, [](quint32 x, quint32 y, quint32) { return x * 7 + y; }, meta);
    SxNodeRun<CxMedianCnbl> run(in, meta);
    QVERIFY(run.chain.start());
    for (int round = 0; round < 2; ++round) {
        CxImageData* packet = input.packet();
        QScopedPointer<IxChainData> out(run.chain.push(packet));
        QCOMPARE(out.data(), packet);
        QCOMPARE(packet->picBuf()->data, input.pic().data);
        QCOMPARE(sampleValue(*packet->picBuf(), 3, 2), 23.0);
        QCOMPARE(run.node->errorMessage(), round == 0 ? message : QStringLiteral("earlier"));
        // A message already shown stays.
        run.node->setErrorMessage(QStringLiteral("earlier"));
    }
}

void TestMedian::widgetKernelRange_data()
{
    QTest::addColumn<quint32>("width");   // 0: the node has seen no format
    QTest::addColumn<quint32>("height");
    QTest::addColumn<int>("radius");
    QTest::addColumn<int>("maximum");
    QTest::addColumn<int>("value");

    QTest::newRow("no format") << 0u << 0u << 1 << 2048 << 3;
    QTest::newRow("height limits") << 640u << 480u << 2 << 480 << 5;
    QTest::newRow("width limits") << 301u << 480u << 3 << 301 << 7;
    QTest::newRow("large picture") << 5000u << 4000u << 1 << 2048 << 3;
    QTest::newRow("radius beyond range") << 20u << 20u << 50 << 20 << 20;
    QTest::newRow("tiny picture") << 2u << 2u << 1 << 3 << 3;
}

void TestMedian::widgetKernelRange()
{
    QFETCH(quint32, width);
    QFETCH(quint32, height);
    QFETCH(int, radius);
    QFETCH(int, maximum);
    QFETCH(int, value);

    const SxPicBufInfo f = format(width, height, 1, IDT_UINT8);
    SxNodeRun<CxMedianCnbl> run(f);
    run.node->setKernelRadius(radius);
    if (width)
        QVERIFY(run.chain.start());
    QScopedPointer<QWidget> panel(run.node->configurationWidget());
    auto* spin = panel->findChild<QSpinBox*>();
    QVERIFY(spin);
    QCOMPARE(panel->windowTitle(), QStringLiteral("Median Filter"));
    QCOMPARE(spin->minimum(), 3);
    QCOMPARE(spin->maximum(), maximum);
    QCOMPARE(spin->singleStep(), 2);
    QCOMPARE(spin->value(), value);
    QCOMPARE(run.node->kernelRadius(), radius);  // opening the panel changes nothing
    const QString shown = QStringLiteral("%1x%1").arg(value % 2 ? value : value - 1);
    const QList<QLabel*> labels = panel->findChildren<QLabel*>();
    QVERIFY(std::any_of(labels.cbegin(), labels.cend(), [&](QLabel* l) { return l->text() == shown; }));
}

void TestMedian::widgetRestartsChain()
{
    const SxPicBufInfo f = format(64, 48, 1, IDT_UINT8, 0, CFA_BAYER_RGGB);
    CxTestInput input(f, [](quint32 x, quint32 y, quint32) { return (x * y) % 251; });
    SxNodeRun<CxMedianCnbl> run(f);
    QVERIFY(run.startCounted());
    QScopedPointer<QWidget> panel(run.node->configurationWidget());
    auto* spin = panel->findChild<QSpinBox*>();

    spin->setValue(7);
    QCOMPARE(run.node->kernelRadius(), 3);
    QCOMPARE(run.starts, 1);
    QCOMPARE(run.stops, 1);
    spin->setValue(8);  // typed in: still 7 x 7, nothing to remake
    QCOMPARE(run.starts, 1);
    // The restarted run filters with the new kernel.
    QScopedPointer<CxImageData> out(run.process(input));
    QVERIFY(out);
    QCOMPARE(sampleValue(*out->picBuf(), 10, 10), referenceMedian(input.pic(), 10, 10, 0, 2, 2, 3));

    run.chain.stop();
    spin->setValue(5);
    QCOMPARE(run.node->kernelRadius(), 2);
    QCOMPARE(run.starts, 1);
}

QTEST_MAIN(TestMedian)
#include "tst_median.moc"
