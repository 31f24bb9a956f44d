#include "LutInmapCnbl.h"
#include "NodeTestKit.h"

#include <CxHistoData.h>
#include <CxLut.h>

#include <QtCore/QElapsedTimer>
#include <QtCore/QScopedPointer>
#include <QtTest/QtTest>
#include <QtWidgets/QDoubleSpinBox>
#include <QtWidgets/QSpinBox>

#include <cmath>
#include <cstring>

using namespace nodetest;
using Bins = QList<qulonglong>;  // bin, count, bin, count, ...

namespace {

SxPicBufInfo withBits(SxPicBufInfo f, quint32 bits)
{
    f.bitsPerSample = bits;
    return f;
}

// The window, gamma and output range written out the slow way.
double windowed(double v, double lo, double hi, double gamma)
{
    double t = hi > lo ? (v - lo) / (hi - lo) : (v > lo ? 1.0 : 0.0);
    t = qBound(0.0, t, 1.0);
    return std::pow(t, 1.0 / gamma);
}

struct SxAutoCase { int binCount, binShift, tolerance; QList<Bins> channels; qlonglong srcMin, srcMax; };
// Samples are lo plus a position code modulo span.
struct SxMapCase { SxPicBufInfo in; bool rgb; int pseudo; qlonglong srcMin, srcMax; double gamma; int lo, span; };

} // namespace

Q_DECLARE_METATYPE(SxAutoCase)
Q_DECLARE_METATYPE(SxMapCase)

struct SxWidgetCase { int min; int max; double tolerance; qlonglong srcMin; int autoTolerance; };
Q_DECLARE_METATYPE(SxWidgetCase)

class TestLutInmap : public QObject
{
    Q_OBJECT

private slots:
    void autoWindow_data()
    {
        QTest::addColumn<SxAutoCase>("c");

        // 1,000,000 pixels at 2 per mille: threshold 2000, which a running sum
        // must exceed, not merely reach.
        QTest::newRow("12 bit, 2 per mille of a million")
            << SxAutoCase{4096, 0, 2, {{10, 2000, 50, 100, 2000, 995895, 3000, 5, 3500, 2000}}, 50, 3000};
        QTest::newRow("tolerance 0, shifted bins") << SxAutoCase{65536, 16, 0, {{3, 1, 9, 1}}, 3LL << 16, 9LL << 16};
        // Threshold 10 from the first channel's 1000 samples, not from the others.
        QTest::newRow("channels share the first channel's threshold")
            << SxAutoCase{256, 0, 10, {{20, 11, 100, 978, 120, 11}, {5, 10, 8, 1, 60, 99978, 90, 11}, {30, 11, 150, 11}}, 8, 150};
        QTest::newRow("tolerance swallowing everything") << SxAutoCase{256, 0, 1000, {{40, 7, 90, 3}}, 0, 0};
        QTest::newRow("no channels") << SxAutoCase{0, 0, 2, {}, -7, -7};
        QTest::newRow("channels without bins") << SxAutoCase{0, 4, 2, {{}, {}}, 0, 0};
    }

    void autoWindow()
    {
        QFETCH(SxAutoCase, c);
        const auto& [binCount, binShift, tolerance, channels, srcMin, srcMax] = c;

        CxHistoData histo;
        if (!channels.isEmpty())
            histo.reset(int(channels.size()), binCount, binShift, CxHistoData::HDF_All);
        for (int k = 0; k < channels.size(); ++k)
            for (int i = 0; i + 1 < channels[k].size(); i += 2)
                histo.binsForWrite(k)[channels[k][i]] = channels[k][i + 1];

        CxLutInmapCnbl node;
        node.setAutoTolerance(tolerance);
        node.setSrcMin(-7);
        node.setSrcMax(-7);
        QCOMPARE(node.maximizeContrastForHisto(&histo), !channels.isEmpty());
        QCOMPARE(node.srcMin(), srcMin);
        QCOMPARE(node.srcMax(), srcMax);
    }

    // The real measurement on a million 12-bit pixels, 400 of each value from
    // 100 to 2599, and its pace: one histogram per interval at most.
    void autoWindowFromFrames()
    {
        const SxPicBufInfo f = withBits(format(1000, 1000, 1, IDT_UINT16), 12);
        CxPicture ramp(f, [](quint32 x, quint32 y, quint32) { return 100 + (y * 1000 + x) / 400; });
        CxPicture flat(f, [](quint32, quint32, quint32) { return 7; });
        SxNodeRun<CxLutInmapCnbl> run(f);
        QVERIFY(run.chain.start());

        QTest::qWait(int(CxLutInmapCnbl::MeasureIntervalMs) + 10);
        QElapsedTimer sinceMeasured;
        sinceMeasured.start();
        QScopedPointer<CxImageData> out(run.process(ramp));
        QVERIFY(out);
        QCOMPARE(run.node->srcMin(), qint64(105));
        QCOMPARE(run.node->srcMax(), qint64(2594));
        QCOMPARE(sampleValue(*out->picBuf(), 0, 500), std::round(4095 * windowed(1350, 105, 2594, 1)));

        out.reset(run.process(flat));
        QVERIFY(out);
        if (sinceMeasured.elapsed() >= CxLutInmapCnbl::MeasureIntervalMs)
            QSKIP("machine too slow to tell the measurement interval");
        QCOMPARE(run.node->srcMin(), qint64(105));
    }

    void mapping_data()
    {
        QTest::addColumn<SxMapCase>("c");

        const SxPicBufInfo colour = format(5, 3, 3, IDT_UINT8, 1, CFA_NONE, DSF_PACKED, true);
        QTest::newRow("u8 mono, odd width, padded") << SxMapCase{format(7, 5, 1, IDT_UINT8, 3), false, 0, 20, 200, 1.0, 0, 256};
        QTest::newRow("12 bit in u16, saturating") << SxMapCase{withBits(format(9, 4, 1, IDT_UINT16, 2), 12), false, 0, 100, 3000, 2.2, 0, 5000};
        QTest::newRow("u8 colour") << SxMapCase{colour, false, 0, 10, 240, 0.5, 0, 256};
        QTest::newRow("s16 negative window") << SxMapCase{format(6, 4, 1, IDT_INT16), false, 0, -200, 500, 1.0, -300, 1000};
        QTest::newRow("0 bits means the whole type") << SxMapCase{withBits(format(5, 2, 1, IDT_UINT8), 0), false, 0, 0, 255, 1.0, 0, 256};
        QTest::newRow("u16 mono to RGB, hot") << SxMapCase{format(71, 3, 1, IDT_UINT16, 2), true, 2, 1000, 60000, 1.0, 0, 65536};
        QTest::newRow("bayer to RGB, wide, padded") << SxMapCase{format(141, 4, 1, IDT_UINT8, 3, CFA_BAYER_RGGB), true, 3, 0, 255, 1.5, 0, 256};
        QTest::newRow("float copied unmapped") << SxMapCase{format(4, 3, 1, IDT_FLOAT), false, 0, 0, 1, 1.0, -5, 100};
        QTest::newRow("64 bit to RGB passed on") << SxMapCase{format(4, 3, 1, IDT_UINT64), true, 0, 0, 255, 1.0, 0, 100};
    }

    void mapping()
    {
        QFETCH(SxMapCase, c);
        const auto& [in, rgb, pseudo, srcMin, srcMax, gamma, lo, span] = c;

        CxImageMetadata meta;
        meta.setColorFilterArray(in.colorFilterArray);
        meta.setChannelNames({QStringLiteral("a")});
        CxPicture input(in, [&c](quint32 x, quint32 y, quint32 k) { return c.lo + int(x * 37 + y * 101 + k * 53) % c.span; }, meta);
        SxNodeRun<CxLutInmapCnbl> run(in, meta);
        run.node->setAutoMinMax(false);
        run.node->setMapToRgb(rgb);
        run.node->setPseudoColor(pseudo);
        run.node->setSrcMin(srcMin);
        run.node->setSrcMax(srcMax);
        run.node->setGamma(gamma);

        QVERIFY(run.chain.start());
        CxImageData* packet = input.packet();
        QScopedPointer<IxChainData> result(run.chain.push(packet));
        if (in.dataType == IDT_UINT64) {
            QVERIFY(result.data() == packet);
            QVERIFY(!run.node->errorMessage().isEmpty());
            return;
        }
        auto* out = qobject_cast<CxImageData*>(result.data());
        QVERIFY(out);
        const SxPicBuf& o = *out->picBuf();
        SxPicBufInfo want = in;
        if (rgb) {
            want = format(in.width, in.height, 4, IDT_UINT8, 0, CFA_NONE, DSF_PACKED, true);
            QCOMPARE(out->metadata()->colorFilterArray(), CFA_NONE);
            QVERIFY(out->metadata()->channelNames().isEmpty());
        }
        QVERIFY2(o.sameFormat(want), qPrintable(o.describe()));

        // Signed pictures map onto their positive half.
        const bool isSigned = in.dataType == IDT_INT8 || in.dataType == IDT_INT16;
        const quint32 bits = (in.bitsPerSample ? in.bitsPerSample : 8) - (isSigned ? 1 : 0);
        const double full = double((quint64(1) << bits) - 1);
        for (quint32 y = 0; y < in.height; ++y)
            for (quint32 x = 0; x < in.width; ++x)
                for (quint32 k = 0; k < in.channels; ++k) {
                    const double v = sampleValue(input.pic(), x, y, k);
                    const double t = windowed(v, double(srcMin), double(srcMax), gamma);
                    if (rgb) {
                        quint32 bgra;
                        std::memcpy(&bgra, sampleAt(o, x, y), 4);  // little-endian: 0xAARRGGBB
                        QCOMPARE(bgra, CxLut::pseudoColorEntry(pseudo, int(std::lround(255 * t))));
                    } else if (in.dataType == IDT_FLOAT) {
                        QCOMPARE(sampleValue(o, x, y, k), v);
                    } else {
                        QCOMPARE(sampleValue(o, x, y, k), std::round(full * t));
                    }
                }
    }

    void widgetRules_data()
    {
        QTest::addColumn<SxWidgetCase>("row");

        QTest::newRow("max below min") << SxWidgetCase{100, 50, 2.0, 49LL, 2};
        QTest::newRow("max equal to min") << SxWidgetCase{300, 300, 2.0, 299LL, 2};
        QTest::newRow("tolerance decimal dropped") << SxWidgetCase{0, 255, 2.7, 0LL, 2};
    }

    // Each change stops and restarts the running chain once and keeps Min below Max.
    void widgetRules()
    {
        QFETCH(SxWidgetCase, row);
        const auto& [min, max, tolerance, srcMin, autoTolerance] = row;

        const SxPicBufInfo f = withBits(format(8, 4, 1, IDT_UINT16), 12);
        SxNodeRun<CxLutInmapCnbl> run(f);
        QVERIFY(run.startCounted());
        QScopedPointer<QWidget> widget(run.node->configurationWidget());
        auto* spinMin = widget->findChild<QSpinBox*>(QStringLiteral("spinMin"));
        auto* spinMax = widget->findChild<QSpinBox*>(QStringLiteral("spinMax"));
        auto* spinTolerance = widget->findChild<QDoubleSpinBox*>(QStringLiteral("spinTolerance"));
        QVERIFY(spinMin && spinMax && spinTolerance);

        spinMax->setValue(spinMax->maximum());
        spinMin->setValue(min);
        spinMax->setValue(max);
        spinTolerance->setValue(tolerance);
        QCOMPARE(run.node->srcMin(), srcMin);
        QCOMPARE(run.node->srcMax(), qint64(max));
        QCOMPARE(run.node->autoTolerance(), autoTolerance);
        QCOMPARE(qlonglong(spinMin->value()), srcMin);
        QCOMPARE(run.stops, run.starts);
        QVERIFY(run.stops >= 1);
        QVERIFY(!run.chain.stopped());
    }
};

QTEST_MAIN(TestLutInmap)
#include "tst_lutinmap.moc"
