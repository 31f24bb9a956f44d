#include "MosaicStatFilterChnbl.h"
#include "NodeTestKit.h"

#include <CxHsiCameraParams.h>

#include <QtCore/QScopedPointer>
#include <QtTest/QtTest>

using namespace nodetest;
using Node = CxMosaicStatFilterChnbl;

namespace {

CxImageMetadata hsiMeta(const QRect& rect, int pattern, int cell = 1, int zones = 1)
{
    return mosaicMeta(CFA_HSI_MOSAIC, QList<CxHsiCameraParams::CxFilterZone>(zones, filterZone(rect, pattern, pattern, cell)));
}

double pattern(quint32 x, quint32 y)
{
    return double((x * 37u + y * 101u + (x * y) % 13u) % 251u);
}

// Statistic of the px x py cell at (ax, ay), averages rounded half up.
double cellStat(const SxPicBuf& in, int ax, int ay, int px, int py, Node::ExMosaicFilter filter)
{
    double lo = 1e300, hi = -1e300, sum = 0;
    for (int j = 0; j < py; ++j)
        for (int i = 0; i < px; ++i) {
            const double v = sampleValue(in, quint64(ax + i), quint64(ay + j));
            lo = qMin(lo, v);
            hi = qMax(hi, v);
            sum += v;
        }
    if (filter == Node::Minimum)
        return lo;
    if (filter == Node::Maximum)
        return hi;
    return std::floor(sum / (px * py) + 0.5);
}

} // namespace

// cells: the zone; clipped to the picture when interpolating
struct SxGeometry { SxPicBufInfo in; CxImageMetadata meta; int filter; bool interpolation; QRect cells; QSize period; QSize size; uint pitch; };
Q_DECLARE_METATYPE(SxGeometry)

class TestMosaicFilter : public QObject
{
    Q_OBJECT

private slots:
    void geometry_data()
    {
        QTest::addColumn<SxGeometry>("row");
        auto row = [](const char* name, const SxPicBufInfo& in, const CxImageMetadata& meta, Node::ExMosaicFilter filter,
                      bool interpolation, QRect cells, int period, QSize size, uint pitch) {
            QTest::newRow(name)
                << SxGeometry{in, meta, int(filter), interpolation, cells, QSize(period, period), size, pitch};
        };

        const SxPicBufInfo bayer = format(1000, 800, 1, IDT_UINT8, 0, CFA_BAYER_RGGB);
        const QRect all(0, 0, 1000, 800);
        row("bayer avg", bayer, mosaicMeta(CFA_BAYER_RGGB), Node::Average, false, all, 2, QSize(500, 400), 512);
        row("bayer avg interpolated", bayer, mosaicMeta(CFA_BAYER_RGGB), Node::Average, true, all, 2, QSize(1000, 800), 1024);
        row("bayer u16 min odd", format(11, 7, 1, IDT_UINT16, 4, CFA_BAYER_GBRG), mosaicMeta(CFA_BAYER_RGGB), Node::Minimum, false,
            QRect(0, 0, 11, 7), 2, QSize(5, 3), 256);
        row("bayer u16 max interpolated odd", format(9, 7, 1, IDT_UINT16, 0, CFA_CMYG), mosaicMeta(CFA_BAYER_RGGB), Node::Maximum,
            true, QRect(0, 0, 9, 7), 2, QSize(9, 7), 256);
        row("bayer u32 without metadata", format(130, 4, 1, IDT_UINT32, 0, CFA_RGBR), CxImageMetadata(),
            Node::Average, false, QRect(0, 0, 130, 4), 2, QSize(65, 2), 512);

        const SxPicBufInfo hsi = format(103, 57, 1, IDT_UINT8, 0, CFA_HSI_MOSAIC);
        const QRect whole(0, 0, 103, 57);
        row("hsi 5x5 whole sensor", hsi, hsiMeta(QRect(), 5), Node::Average, false, whole, 5, QSize(20, 11), 256);
        row("hsi 5x5 interpolated", hsi, hsiMeta(QRect(), 5), Node::Maximum, true, whole, 5, QSize(103, 57), 256);
        row("hsi zone inside", hsi, hsiMeta(QRect(0, 0, 40, 20), 4), Node::Minimum, false, QRect(0, 0, 40, 20), 4,
            QSize(10, 5), 256);
        // A zone past the picture keeps its size; hyperpixels the picture does
        // not hold whole are 0.
        row("hsi zone beyond the picture", hsi, hsiMeta(QRect(0, 0, 300, 300), 3), Node::Average, false,
            QRect(0, 0, 300, 300), 3, QSize(100, 100), 256);
        row("hsi zone far past a 1x1 picture", format(1, 1, 1, IDT_UINT8, 0, CFA_HSI_MOSAIC), hsiMeta(QRect(0, 0, 80, 60), 2),
            Node::Maximum, false, QRect(0, 0, 80, 60), 2, QSize(40, 30), 256);
    }

    // Output format, description and every sample against a cell-by-cell
    // reference, so that a wrong rectangle or period shows.
    void geometry()
    {
        QFETCH(SxGeometry, row);
        const auto& [in, meta, filter, interpolation, cells, period, size, pitch] = row;

        CxPicture input(in, [](quint32 x, quint32 y, quint32) { return pattern(x, y); }, meta);
        SxNodeRun<Node> run(in, meta);
        run.node->setStatFilter(Node::ExMosaicFilter(filter));
        run.node->setInterpolation(interpolation);
        QScopedPointer<CxImageData> out(run.process(input));
        QVERIFY(out);
        QVERIFY(run.node->errorMessage().isEmpty());
        const SxPicBuf& o = *out->picBuf();
        QCOMPARE(QSize(int(o.width), int(o.height)), size);
        QCOMPARE(o.linePitch, pitch);
        QVERIFY(o.dataType == in.dataType && o.colorFilterArray == CFA_NONE);
        const CxImageMetadata& outMeta = *out->metadata();
        QVERIFY(outMeta.colorFilterArray() == CFA_NONE && outMeta.hsiCameraParams().isEmpty());
        QCOMPARE(outMeta.cameraName(), meta.cameraName());

        const int px = period.width(), py = period.height();
        const int lastX = cells.left() + cells.width() - px, lastY = cells.top() + cells.height() - py;
        for (quint32 y = 0; y < o.height; ++y)
            for (quint32 x = 0; x < o.width; ++x) {
                const int ax = interpolation ? qBound(cells.left(), int(x), lastX) : cells.left() + int(x) * px;
                const int ay = interpolation ? qBound(cells.top(), int(y), lastY) : cells.top() + int(y) * py;
                const bool held = QRect(0, 0, int(in.width), int(in.height)).contains(QRect(ax, ay, px, py));
                const double want = held ? cellStat(input.pic(), ax, ay, px, py, Node::ExMosaicFilter(filter)) : 0.0;
                QVERIFY2(sampleValue(o, x, y) == want, qPrintable(QStringLiteral("(%1, %2)").arg(x).arg(y)));
            }

        // Normalize keeps the picture's size and mosaic, and its description.
        run.node->setStatFilter(Node::Normalize);
        run.chain.stop();
        out.reset(run.process(input));
        QVERIFY(out);
        const SxPicBuf& n = *out->picBuf();
        QVERIFY(n.width == in.width && n.height == in.height && n.colorFilterArray == in.colorFilterArray);
        QVERIFY(out->metadata()->hsiCameraParams() == meta.hsiCameraParams()
                && out->metadata()->colorFilterArray() == meta.colorFilterArray());
    }

    // Messages go as they came: the next good frame clears one, and the next
    // failure is told again.
    void failures()
    {
        const SxPicBufInfo good = format(16, 8, 1, IDT_UINT8, 0, CFA_BAYER_RGGB);
        SxNodeRun<Node> run(good, mosaicMeta(CFA_BAYER_RGGB));
        CxPicture bad(format(16, 8, 3, IDT_UINT8, 0, CFA_NONE, DSF_PACKED, true));
        CxPicture fine(good, [](quint32 x, quint32 y, quint32) { return pattern(x, y); }, mosaicMeta(CFA_BAYER_RGGB));
        for (int round = 0; round < 2; ++round) {
            QScopedPointer<CxImageData> back(run.process(bad));
            QVERIFY(back && back->picBuf()->data == bad.pic().data);
            QVERIFY(!run.node->errorMessage().isEmpty());
            back.reset(run.process(fine));
            QVERIFY(back && back->picBuf()->data != fine.pic().data);
            QVERIFY(run.node->errorMessage().isEmpty());
        }
    }
};

QTEST_MAIN(TestMosaicFilter)
#include "tst_mosaicfilter.moc"
