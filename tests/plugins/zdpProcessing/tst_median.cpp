#include "MedianCnbl.h"
#include "NodeTestKit.h"

#include <CxHsiCameraParams.h>

#include <QtCore/QScopedPointer>
#include <QtTest/QtTest>

#include <algorithm>
#include <vector>

using namespace nodetest;

namespace {

// A hyperspectral description of pw x ph single-pixel bands over the whole
// sensor; wider cells make it a mosaic the node does not split.
CxImageMetadata hsiMeta(int pw, int ph, int cell = 1)
{
    return mosaicMeta(CFA_HSI_MOSAIC, {filterZone(QRect(), pw, ph, cell)});
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

struct SxPlaneCase { SxPicBufInfo in; CxImageMetadata meta; int radius; int pw; int ph; };
Q_DECLARE_METATYPE(SxPlaneCase)

class TestMedian : public QObject
{
    Q_OBJECT

private slots:
    void filtersEachPlane_data()
    {
        QTest::addColumn<SxPlaneCase>("row");

        const CxImageMetadata none;
        QTest::newRow("mono u8") << SxPlaneCase{format(9, 7, 1, IDT_UINT8), none, 1, 1, 1};
        QTest::newRow("mono u16 padded r2") << SxPlaneCase{format(9, 7, 1, IDT_UINT16, 6), none, 2, 1, 1};
        QTest::newRow("rgb u8")
            << SxPlaneCase{format(6, 5, 3, IDT_UINT8, 0, CFA_NONE, DSF_PACKED, true), none, 1, 1, 1};
        QTest::newRow("rgba u16")
            << SxPlaneCase{format(13, 4, 4, IDT_UINT16, 0, CFA_NONE, DSF_PACKED, true), none, 1, 1, 1};
        QTest::newRow("bayer u8 odd") << SxPlaneCase{format(7, 5, 1, IDT_UINT8, 0, CFA_BAYER_RGGB), none, 1, 2, 2};
        QTest::newRow("cmyg u16 even") << SxPlaneCase{format(8, 6, 1, IDT_UINT16, 0, CFA_CMYG), none, 1, 2, 2};
        // Rows long enough for the vector loops, with an odd last column.
        QTest::newRow("bayer u8 wide r2") << SxPlaneCase{format(41, 9, 1, IDT_UINT8, 3, CFA_BAYER_GBRG), none, 2, 2, 2};
        QTest::newRow("bayer u16 wide") << SxPlaneCase{format(35, 4, 1, IDT_UINT16, 0, CFA_BAYER_BGGR), none, 1, 2, 2};
        QTest::newRow("bayer u16 odd pitch")
            << SxPlaneCase{format(9, 5, 1, IDT_UINT16, 1, CFA_BAYER_GRBG), none, 1, 2, 2};
        QTest::newRow("bayer one row") << SxPlaneCase{format(9, 1, 1, IDT_UINT8, 0, CFA_BAYER_RGGB), none, 1, 2, 2};
        QTest::newRow("bayer one column") << SxPlaneCase{format(1, 6, 1, IDT_UINT16, 0, CFA_BAYER_RGGB), none, 1, 2, 2};
        QTest::newRow("bayer not raw is plain")
            << SxPlaneCase{format(7, 5, 1, IDT_UINT8, 0, CFA_BAYER_RGGB, DSF_NOT_RAW), none, 1, 1, 1};
        // Wide enough that the planes are filtered a band of rows at a time:
        // every band must see its neighbours' rows.
        QTest::newRow("bayer u8 in bands")
            << SxPlaneCase{format(65536, 70, 1, IDT_UINT8, 0, CFA_BAYER_BGGR), none, 1, 2, 2};
        // The host refuses the second pattern row's view (its rows start
        // between two samples): the node splits the planes itself.
        QTest::newRow("bayer u16 odd pitch in bands r2")
            << SxPlaneCase{format(32768, 69, 1, IDT_UINT16, 1, CFA_BAYER_RGGB), none, 2, 2, 2};
        QTest::newRow("bayer u8 odd in bands r2")
            << SxPlaneCase{format(4095, 521, 1, IDT_UINT8, 0, CFA_BAYER_GBRG), none, 2, 2, 2};
        QTest::newRow("hsi 3x2 u8")
            << SxPlaneCase{format(11, 7, 1, IDT_UINT8, 0, CFA_HSI_MOSAIC), hsiMeta(3, 2), 1, 3, 2};
        // Planes that hold a sample more than the views: their last outputs
        // are filtered again on strips, within a plane (r3) or all of it (r4).
        QTest::newRow("bayer u16 odd r3") << SxPlaneCase{format(41, 9, 1, IDT_UINT16, 0, CFA_BAYER_RGGB), none, 3, 2, 2};
        QTest::newRow("hsi 3x2 u8 r4")
            << SxPlaneCase{format(11, 9, 1, IDT_UINT8, 0, CFA_HSI_MOSAIC), hsiMeta(3, 2), 4, 3, 2};
        QTest::newRow("rgb u16 r3")
            << SxPlaneCase{format(30, 8, 3, IDT_UINT16, 2, CFA_NONE, DSF_PACKED, true), none, 3, 1, 1};
        QTest::newRow("hsi 4x4 u16 r2")
            << SxPlaneCase{format(18, 9, 1, IDT_UINT16, 2, CFA_HSI_MOSAIC), hsiMeta(4, 4), 2, 4, 4};
        // Rows of several whole vector blocks and a part of one.
        QTest::newRow("rgba u8 wide")
            << SxPlaneCase{format(141, 3, 4, IDT_UINT8, 0, CFA_NONE, DSF_PACKED, true), none, 1, 1, 1};
        QTest::newRow("hsi 5x5 u8 wide")
            << SxPlaneCase{format(683, 11, 1, IDT_UINT8, 1, CFA_HSI_MOSAIC), hsiMeta(5, 5), 1, 5, 5};
        QTest::newRow("hsi 3x3 u16 wide")
            << SxPlaneCase{format(211, 7, 1, IDT_UINT16, 0, CFA_HSI_MOSAIC), hsiMeta(3, 3), 1, 3, 3};
        QTest::newRow("hsi 5x5 u8 in bands")
            << SxPlaneCase{format(27000, 203, 1, IDT_UINT8, 0, CFA_HSI_MOSAIC), hsiMeta(5, 5), 1, 5, 5};
    }

    void filtersEachPlane()
    {
        QFETCH(SxPlaneCase, row);
        const auto& [in, meta, radius, pw, ph] = row;

        const ExImageDataType type = in.dataType;
        CxPicture input(in, [type](quint32 x, quint32 y, quint32 c) { return scrambled(x, y, c, type); }, meta);
        SxNodeRun<CxMedianCnbl> run(in, meta);
        run.node->setKernelRadius(radius);
        QScopedPointer<CxImageData> out(run.process(input));
        QVERIFY(out);
        const SxPicBuf& pic = *out->picBuf();
        QVERIFY(pic.sameFormat(in));
        // Wide pictures: every row, a prime stride through the columns.
        for (quint32 y = 0; y < in.height; ++y)
            for (quint32 x = 0; x < in.width; x += in.width > 4096 && x > 4 ? 61 : 1)
                for (quint32 c = 0; c < in.channels; ++c)
                    if (sampleValue(pic, x, y, c) != referenceMedian(input.pic(), x, y, c, pw, ph, radius))
                        QFAIL(qPrintable(QStringLiteral("wrong median at (%1, %2, %3)").arg(x).arg(y).arg(c)));
        QCOMPARE(out->metadata()->colorFilterArray(), meta.colorFilterArray());
        QVERIFY(run.node->errorMessage().isEmpty());
    }
};

QTEST_MAIN(TestMedian)
#include "tst_median.moc"
