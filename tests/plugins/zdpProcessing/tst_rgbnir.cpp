#include "NodeTestKit.h"
#include "RgbNirDemosaicCnbl.h"

#include <CxHsiCameraParams.h>

#include <QtCore/QScopedPointer>
#include <QtTest/QtTest>

using namespace nodetest;
using Node = CxRgbNirDemosaicCnbl;

namespace {

// A camera whose cell is G, R / NIR, B: every component sits elsewhere than
// in the layout assumed without description.
CxImageMetadata describedCamera()
{
    CxHsiCameraParams::CxFilterZone z = filterZone(QRect(), 2, 2);
    for (int b = 0; b < 4; ++b)
        z.bands[b] = CxHsiCameraParams::CxBand(QStringList{"G", "R", "NIR", "B"}[b], 500);
    return mosaicMeta(CFA_HSI_MOSAIC, {z});
}

// Samples spread over the significant bits, different at every position.
double pattern(quint32 x, quint32 y, quint32 bits)
{
    const quint64 h = (quint64(x) * 2654435761u) ^ (quint64(y) * 40503u + 977u);
    return double(h % ((quint64(1) << qMin(bits, 32u)) - 1));
}

// The interpolation written out case by case: the wanted neighbours that lie
// inside the picture, averaged with truncation.
quint64 reference(const SxPicBuf& in, qint64 x, qint64 y, unsigned k)
{
    const qint64 w = in.width, h = in.height;
    const bool rowDiffers = (y & 1) != (k >= 2 ? 1 : 0);
    const bool colDiffers = (x & 1) != (k & 1);
    const int dx = colDiffers ? 1 : 0, dy = rowDiffers ? 1 : 0;
    quint64 sum = 0, n = 0;
    for (int sy = -dy; sy <= dy; sy += 2 * qMax(dy, 1)) {
        for (int sx = -dx; sx <= dx; sx += 2 * qMax(dx, 1)) {
            const qint64 nx = x + sx, ny = y + sy;
            if (nx >= 0 && nx < w && ny >= 0 && ny < h) {
                sum += quint64(sampleValue(in, quint64(nx), quint64(ny)));
                ++n;
            }
        }
    }
    return sum / n;
}

} // namespace

struct SxInterpolation { QString layout; int channel; int type; int bits; QSize size; int padding; };
Q_DECLARE_METATYPE(SxInterpolation)

class TestRgbNir : public QObject
{
    Q_OBJECT

private slots:
    void interpolation_data()
    {
        QTest::addColumn<SxInterpolation>("row");

        for (const char* layout : {"fixed", "described"}) {
            auto row = [&](const char* what, int channel, ExImageDataType t, int bits, QSize size, int padding) {
                QTest::newRow(qPrintable(QStringLiteral("%1 %2").arg(QLatin1String(layout), QLatin1String(what))))
                    << SxInterpolation{QString::fromLatin1(layout), channel, int(t), bits, size, padding};
            };
            row("rgb u8 odd", Node::RGB, IDT_UINT8, 8, QSize(9, 7), 0);
            row("rgb u8 padded", Node::RGB, IDT_UINT8, 8, QSize(100, 6), 3);
            row("rgb u16 12 bits", Node::RGB, IDT_UINT16, 12, QSize(221, 5), 0);
            row("rgb u32 20 bits", Node::RGB, IDT_UINT32, 20, QSize(6, 3), 0);
            // Wide enough for the vector steps of each sample width, and a tail.
            row("rgb u16 vectors", Node::RGB, IDT_UINT16, 16, QSize(141, 6), 1);
            row("nir u16 vectors padded", Node::NIR, IDT_UINT16, 14, QSize(37, 5), 2);
            row("rgb u32 vectors", Node::RGB, IDT_UINT32, 24, QSize(35, 4), 0);
            row("nir u16 odd pitch", Node::NIR, IDT_UINT16, 16, QSize(7, 5), 1);
            row("nir u32 full range", Node::NIR, IDT_UINT32, 32, QSize(5, 6), 0);
            row("rgb 2x2", Node::RGB, IDT_UINT8, 8, QSize(2, 2), 0);
            row("nir 2 wide", Node::NIR, IDT_UINT16, 10, QSize(2, 5), 0);
            row("rgb 640x480", Node::RGB, IDT_UINT8, 8, QSize(640, 480), 0);
            row("nir 640x480", Node::NIR, IDT_UINT8, 8, QSize(640, 480), 0);
            row("rgb frame larger than the caches", Node::RGB, IDT_UINT8, 8, QSize(2048, 2056), 0);
            row("nir frame larger than the caches", Node::NIR, IDT_UINT16, 16, QSize(2048, 4098), 0);
            row("nir signed", Node::NIR, IDT_INT16, 16, QSize(6, 4), 0);
            row("rgb signed", Node::RGB, IDT_INT16, 16, QSize(6, 4), 0);
        }
    }

    // Format, description and every sample of the output, borders and corners
    // included, against the written-out rule; alpha is 255 and samples shift by
    // the bits beyond 8.
    void interpolation()
    {
        QFETCH(SxInterpolation, row);
        const auto& [layout, channel, type, bits, size, padding] = row;

        SxPicBufInfo f = format(quint32(size.width()), quint32(size.height()), 1, ExImageDataType(type),
                                quint32(padding), CFA_HSI_MOSAIC);
        f.bitsPerSample = quint32(bits);
        const CxImageMetadata meta = layout == QLatin1String("described") ? describedCamera() : CxImageMetadata();
        CxPicture input(f, [b = quint32(bits)](quint32 x, quint32 y, quint32) { return pattern(x, y, b); }, meta);
        SxNodeRun<Node> run(f, meta);
        run.node->setChannel(Node::ExChannel(channel), false);
        QScopedPointer<CxImageData> out(run.process(input));
        QVERIFY(out);
        const SxPicBuf& o = *out->picBuf();
        const bool rgb = channel == Node::RGB;
        QCOMPARE(QSize(int(o.width), int(o.height)), size);
        QCOMPARE(o.channels, rgb ? 4u : 1u);
        QCOMPARE(o.dataType, rgb ? IDT_UINT8 : f.dataType);
        QCOMPARE(o.linePitch, rgb ? f.width * 4 : f.linePitch);
        QCOMPARE(o.colorFilterArray, CFA_NONE);
        QVERIFY(out->metadata()->hsiCameraParams().isEmpty());

        // Positions of B, G, R and NIR. Signed samples have no kernel: zeros,
        // rather than a stale pool picture.
        const bool described = layout == QLatin1String("described");
        const unsigned ks[4] = {described ? 3u : 1u, described ? 0u : 3u, described ? 1u : 2u, described ? 2u : 0u};
        const bool known = f.dataType != IDT_INT16;
        const unsigned shift = rgb && bits > 8 ? unsigned(bits - 8) : 0;
        // Big frames are sampled: every row, a prime stride through the columns.
        const quint32 step = f.width * f.height > (1u << 20) ? 7 : 1;
        for (quint32 y = 0; y < f.height; ++y)
            for (quint32 x = y % step; x < f.width; x += step)
                for (quint32 c = 0; c < o.channels; ++c) {
                    const double want = c == 3 ? 255.0
                        : known ? double(reference(input.pic(), x, y, rgb ? ks[c] : ks[3]) >> shift) : 0.0;
                    const double got = sampleValue(o, x, y, c);
                    if (got != want)
                        QFAIL(qPrintable(QStringLiteral("(%1, %2) channel %3: %4, want %5").arg(x).arg(y).arg(c).arg(got).arg(want)));
                }
    }

    // The literal case: without description red sits at row 1, column 0, so
    // pixel (1, 1) takes the two red samples beside it.
    void redBesideItsCell()
    {
        const SxPicBufInfo f = format(4, 4, 1, IDT_UINT8, 0, CFA_BAYER_RGGB);
        CxPicture input(f, [](quint32 x, quint32 y, quint32) { return 10 * x + 50 * y + 1; });
        SxNodeRun<Node> run(f);
        QScopedPointer<CxImageData> out(run.process(input));
        QVERIFY(out);
        QCOMPARE(sampleValue(*out->picBuf(), 1, 1, 2), double((51 + 71) / 2));
    }
};

QTEST_MAIN(TestRgbNir)
#include "tst_rgbnir.moc"
