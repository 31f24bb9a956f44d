#include "ImageAveragingCnbl.h"
#include "ImageAveragingKernels.h"
#include "NodeTestKit.h"

#include <CxSegmentedControl.h>

#include <QtCore/QScopedPointer>
#include <QtTest/QtTest>
#include <QtWidgets/QPushButton>
#include <QtWidgets/QSpinBox>

#include <cmath>

using namespace nodetest;
using Mode = CxImageAveragingCnbl::ExMode;

Q_DECLARE_METATYPE(ExImageDataType)

namespace {

// Small values so that no sum saturates; signed types go negative, floats
// take fractions.
double frameValue(ExImageDataType t, quint32 x, quint32 y, quint32 c, int f)
{
    const int base = int((x * 7 + y * 13 + c * 5 + quint32(f) * 29) % 61);
    if (t == IDT_FLOAT)
        return base * 0.25 - 7.0;
    if (t == IDT_INT8 || t == IDT_INT16 || t == IDT_INT32)
        return base - 30;
    return base;
}

// The statistic of one sample over the frames, worked out the plain way.
double expectedStatistic(Mode mode, ExImageDataType t, const std::vector<double>& v, int scale)
{
    const double n = double(v.size());
    double sum = 0, sq = 0, mn = v[0], mx = v[0];
    for (double s : v) {
        sum += s;
        sq += s * s;
        mn = std::min(mn, s);
        mx = std::max(mx, s);
    }
    switch (mode) {
    case CxImageAveragingCnbl::ModeAverage:
        return t == IDT_FLOAT ? sum / n : std::round(sum / n);  // halves away from zero
    case CxImageAveragingCnbl::ModeStDev: {
        if (t == IDT_FLOAT)
            return std::sqrt((sq - (sum / n) * (sum / n) * n) / (n - 1)) * scale;
        const quint64 mean = quint64(sum) / quint64(n);
        const quint64 var = (quint64(sq) - mean * mean * quint64(n)) / quint64(n - 1);
        return std::trunc(std::sqrt(double(var)) * scale);
    }
    case CxImageAveragingCnbl::ModeMin: return mn;
    case CxImageAveragingCnbl::ModeMax: return mx;
    case CxImageAveragingCnbl::ModeMinTouches: return double(std::count(v.begin(), v.end(), mn));
    default: return 0;
    }
}

CxImageData* livePacket(const CxPicture& in)
{
    CxImageData* p = in.packet();
    p->setLiveData(true);
    return p;
}

CxHistoData histogramWithLevels(const std::vector<double>& levels)
{
    CxHistoData h;
    h.reset(int(levels.size()), 0, 0, CxHistoData::HDF_Mean);
    for (int c = 0; c < int(levels.size()); ++c)
        h.statisticsForWrite(c)[CxHistoData::StatMean] = levels[size_t(c)];
    return h;
}

QStringList gLog;
void captureLog(QtMsgType, const QMessageLogContext&, const QString& msg)
{
    gLog << msg;
}

} // namespace

// count: frames to a series; values: one per frame, the last repeating
struct SxWorked { ExImageDataType type; int mode; bool allModes; int scale, count, frames; QList<double> values; double expected; };
Q_DECLARE_METATYPE(SxWorked)
struct SxSubtract { ExImageDataType type; double frame, average, level, expected; };
Q_DECLARE_METATYPE(SxSubtract)

struct SxSeries { ExImageDataType type; int mode; bool rgba; int scale; };
Q_DECLARE_METATYPE(SxSeries)

struct SxPanelCase { QString control; int restarts; QString field; int value; };
Q_DECLARE_METATYPE(SxPanelCase)

struct SxLineCase { ExImageDataType type; int channels; bool isColor; int mode; };
Q_DECLARE_METATYPE(SxLineCase)

class TestImageAveraging : public QObject
{
    Q_OBJECT

private slots:
    void series_data()
    {
        QTest::addColumn<SxSeries>("row");
        const ExImageDataType types[] = {IDT_UINT8, IDT_INT8, IDT_UINT16, IDT_INT16, IDT_UINT32, IDT_INT32, IDT_FLOAT};
        const char* modeNames[] = {"avg", "stdev", "min", "max", "touches"};
        for (ExImageDataType t : types)
            for (int m = 0; m <= 4; ++m)
                QTest::addRow("%s %s", qPrintable(dataTypeName(t)), modeNames[m]) << SxSeries{t, m, false, 10};
        for (ExImageDataType t : {IDT_UINT8, IDT_UINT16})
            for (int m = 0; m <= 4; ++m)
                QTest::addRow("rgba %s %s", qPrintable(dataTypeName(t)), modeNames[m]) << SxSeries{t, m, true, 1};
    }

    // Four frames through a chain: nothing comes out for the first three live
    // frames, the fourth brings the statistic of all four.
    void series()
    {
        QFETCH(SxSeries, row);
        const auto& [type, mode, rgba, scale] = row;
        const int frames = 4;
        const SxPicBufInfo f = format(5, 3, rgba ? 4 : 1, type, 8, CFA_NONE, DSF_PACKED, rgba);
        SxNodeRun<CxImageAveragingCnbl> run(f);
        run.node->setMode(Mode(mode));
        run.node->setCountToAverage(frames);
        run.node->setStDevValuesScaling(scale);
        QVERIFY(run.chain.start());

        CxPicture in(f);
        QScopedPointer<IxChainData> out;
        for (int k = 0; k < frames; ++k) {
            in.refill([t = type, k](quint32 x, quint32 y, quint32 c) { return frameValue(t, x, y, c, k); });
            out.reset(run.chain.push(livePacket(in)));
            if (k < frames - 1)
                QVERIFY(!out);
        }
        // No standard deviation of signed integers.
        const bool produced = mode != CxImageAveragingCnbl::ModeStDev
            || !(type == IDT_INT8 || type == IDT_INT16 || type == IDT_INT32);
        auto* image = qobject_cast<CxImageData*>(out.data());
        QCOMPARE(image != nullptr, produced);
        if (!produced)
            return;
        const SxPicBuf& o = *image->picBuf();
        QCOMPARE(o.dataType, mode == CxImageAveragingCnbl::ModeMinTouches ? IDT_UINT16 : type);
        QCOMPARE(o.frameNumber, in.pic().frameNumber);
        QCOMPARE(run.node->frameCounter(), 0);
        for (quint32 y = 0; y < f.height; ++y)
            for (quint32 x = 0; x < f.width; ++x)
                for (quint32 c = 0; c < (rgba ? 3u : 1u); ++c) {
                    std::vector<double> v;
                    for (int k = 0; k < frames; ++k)
                        v.push_back(frameValue(type, x, y, c, k));
                    const double want = expectedStatistic(Mode(mode), type, v, scale);
                    const double got = sampleValue(o, x, y, c);
                    if (type == IDT_FLOAT)
                        QVERIFY2(std::fabs(got - want) < 1e-3, qPrintable(QString("%1 vs %2").arg(got).arg(want)));
                    else
                        QCOMPARE(got, want);
                }
    }

    void workedNumbers_data()
    {
        QTest::addColumn<SxWorked>("row");
        // mean 127, variance 32767, sqrt 181.0166, 18101 kept to its low 8 bits
        QTest::newRow("stdev 0 and 255 at 100x") << SxWorked{IDT_UINT8, 1, false, 100, 2, 2, {0, 255}, 181.0};
        QTest::newRow("stdev of equal frames") << SxWorked{IDT_UINT8, 1, false, 100, 3, 3, {9}, 0.0};
        // 70000 mod 65536
        QTest::newRow("min touches wrap") << SxWorked{IDT_UINT8, 4, false, 1, 70000, 70000, {17}, 4464.0};
        QTest::newRow("touches alone: a new minimum restarts at 1")
            << SxWorked{IDT_INT16, 4, false, 1, 4, 4, {-5, -5, -7}, 2.0};
        QTest::newRow("touches with all modes: Min lowers first, so it counts on")
            << SxWorked{IDT_INT16, 4, true, 1, 4, 4, {-5, -5, -7}, 4.0};
        // Series of one frame.
        QTest::newRow("avg count 1: copy") << SxWorked{IDT_UINT8, 0, false, 1, 1, 2, {77}, 77.0};
        QTest::newRow("avg count 0: copy") << SxWorked{IDT_UINT8, 0, false, 1, 0, 2, {77}, 77.0};
        QTest::newRow("stdev: zeros") << SxWorked{IDT_UINT8, 1, false, 1, 1, 2, {77}, 0.0};
        QTest::newRow("touches: ones") << SxWorked{IDT_UINT8, 4, false, 1, 1, 2, {77}, 1.0};
        QTest::newRow("subtract: copy") << SxWorked{IDT_UINT8, 5, false, 1, 1, 2, {77}, 77.0};
        QTest::newRow("mode 7 at the end of a series: copy") << SxWorked{IDT_UINT8, 7, false, 1, 2, 2, {77}, 77.0};
    }

    // Live frames of one value each (the last value repeats): a picture comes
    // out when a series ends, every count frames (every frame for counts 0
    // and 1); the last one is checked.
    void workedNumbers()
    {
        QFETCH(SxWorked, row);
        const auto& [type, mode, allModes, scale, count, frames, values, expected] = row;
        const SxPicBufInfo f = format(3, 2, 1, type);
        SxNodeRun<CxImageAveragingCnbl> run(f);
        run.node->setMode(Mode(mode));
        run.node->setCalcAllModesTogether(allModes);
        run.node->setCountToAverage(count);
        run.node->setStDevValuesScaling(scale);
        QVERIFY(run.chain.start());
        CxPicture in(f);
        for (int k = 1; k <= frames; ++k) {
            const double v = values.value(k - 1, values.back());
            in.refill([v](quint32, quint32, quint32) { return v; });
            QScopedPointer<IxChainData> out(run.chain.push(livePacket(in)));
            if (bool(out) != (k % qMax(count, 1) == 0))
                QFAIL(qPrintable(QString("frame %1 of %2: output %3").arg(k).arg(frames).arg(out ? "a picture" : "none")));
            if (k == frames)
                QCOMPARE(sampleValue(*qobject_cast<CxImageData*>(out.data())->picBuf(), 2, 1), expected);
        }
    }

    void subtractKernels_data()
    {
        QTest::addColumn<SxSubtract>("row");
        QTest::newRow("u8 clamped at 0") << SxSubtract{IDT_UINT8, 10.0, 200.0, 127.6, 0.0};  // 10 - 200 + 128
        QTest::newRow("u8 clamped at top") << SxSubtract{IDT_UINT8, 250.0, 10.0, 100.0, 255.0};
        QTest::newRow("u16 in range") << SxSubtract{IDT_UINT16, 1000.0, 900.0, 49.4, 149.0};
        QTest::newRow("i8 negative to 0") << SxSubtract{IDT_INT8, -20.0, 10.0, 5.0, 0.0};
        QTest::newRow("i16 above signed range") << SxSubtract{IDT_INT16, 30000.0, 0.0, 9999.5, -25536.0};
        QTest::newRow("u32 wide") << SxSubtract{IDT_UINT32, 4000000000.0, 1.0, 2.0, 4000000001.0};
        QTest::newRow("float unclamped") << SxSubtract{IDT_FLOAT, 1.0, 3.0, 0.25, -1.25};
    }
    void subtractKernels()
    {
        QFETCH(SxSubtract, row);
        const auto& [type, frame, average, level, expected] = row;
        CxPicture out(format(3, 2, 1, type, 4), [v = frame](quint32, quint32, quint32) { return v; });
        CxPicture avg(format(3, 2, 1, type, 4), [v = average](quint32, quint32, quint32) { return v; });
        QVERIFY(SubtractWithOffset(avg.pic(), out.pic(), histogramWithLevels({level})));
        for (quint32 y = 0; y < 2; ++y)
            for (quint32 x = 0; x < 3; ++x)
                QCOMPARE(sampleValue(out.pic(), x, y), expected);
        if (type == IDT_FLOAT)
            QCOMPARE(out.pic().floatMin, float(expected));
    }

    // Mode 5 on still frames: the frame's own level until an average exists,
    // nothing on the frame that completes it, then frame - average + level.
    void subtractSeries()
    {
        const SxPicBufInfo f = format(4, 2, 1, IDT_UINT8);
        SxNodeRun<CxImageAveragingCnbl> run(f);
        run.node->setMode(CxImageAveragingCnbl::ModeSubtractAverage);
        run.node->setCountToAverage(2);
        QVERIFY(run.chain.start());
        CxPicture in(f);
        in.refill([](quint32 x, quint32, quint32) { return 100.0 + x; });
        QScopedPointer<CxImageData> grey(run.process(in));
        QVERIFY(grey);
        for (quint32 x = 0; x < 4; ++x)
            QCOMPARE(sampleValue(*grey->picBuf(), x, 1), 102.0);  // level 101.5
        in.refill([](quint32 x, quint32, quint32) { return 110.0 + x; });
        QVERIFY(!run.process(in));
        QCOMPARE(run.node->title(), QStringLiteral("Subtract from avg (0/2)"));
        in.refill([](quint32 x, quint32, quint32) { return 50.0 + 2 * x; });
        QScopedPointer<CxImageData> diff(run.process(in));
        QVERIFY(diff);
        for (quint32 x = 0; x < 4; ++x)  // average 105 + x at level 106.5
            QCOMPARE(sampleValue(*diff->picBuf(), x, 0), 52.0 + x);
    }

    void greyImageLevelsReversed()
    {
        const CxHistoData h = histogramWithLevels({10, 20, 30});
        const double want[] = {30, 20, 10, 65535};
        for (quint32 n : {3u, 4u}) {
            CxPicture pic(format(2, 2, n, n == 3 ? IDT_UINT8 : IDT_UINT16, 0, CFA_NONE, DSF_PACKED, true));
            QVERIFY(SetAsSubtractingGreyImage(pic.pic(), h));
            for (quint32 c = 0; c < n; ++c)
                QCOMPARE(sampleValue(pic.pic(), 1, 1, c), want[c]);
            QVERIFY(!SetAsSubtractingGreyImage(pic.pic(), CxHistoData()));
        }
    }

    void lineAveraging_data()
    {
        QTest::addColumn<SxLineCase>("row");
        for (int mode : {1, 2})
            for (ExImageDataType t : {IDT_UINT8, IDT_INT8, IDT_UINT16, IDT_INT16, IDT_UINT32, IDT_INT32, IDT_FLOAT}) {
                QTest::addRow("%s mono mode %d", qPrintable(dataTypeName(t)), mode) << SxLineCase{t, 1, false, mode};
                QTest::addRow("%s rgba mode %d", qPrintable(dataTypeName(t)), mode) << SxLineCase{t, 4, true, mode};
            }
        QTest::newRow("u16 two channels rows") << SxLineCase{IDT_UINT16, 2, false, 1};
        QTest::newRow("mode 3 leaves it") << SxLineCase{IDT_UINT8, 1, false, 3};
        QTest::newRow("double unsupported") << SxLineCase{IDT_DOUBLE, 1, false, 1};
    }

    // Against the rule (sum + n / 2) / n per channel, on an odd size with padding.
    void lineAveraging()
    {
        QFETCH(SxLineCase, row);
        const auto& [type, channels, isColor, mode] = row;
        const quint32 w = 19, h = 5;
        CxPicture pic(format(w, h, quint32(channels), type, 8, CFA_NONE, DSF_PACKED, isColor));
        auto value = [t = type](quint32 x, quint32 y, quint32 c) { return frameValue(t, x * 3, y, c, int(x + c)); };
        pic.refill(value);
        const int result = LineAveraging(pic.pic(), mode);
        QCOMPARE(result, type == IDT_DOUBLE ? 0 : 1);
        // Columns average alpha too: they sum whole rows sample by sample.
        const bool keepsAlpha = mode == 1 && isColor && channels == 4 && bytesPerSampleOf(type) <= 2;
        for (quint32 y = 0; y < h; ++y)
            for (quint32 x = 0; x < w; ++x)
                for (quint32 c = 0; c < quint32(channels); ++c) {
                    double want = value(x, y, c);
                    if ((mode == 1 || mode == 2) && type != IDT_DOUBLE && !(keepsAlpha && c == 3)) {
                        const quint32 n = mode == 1 ? w : h;
                        double sum = 0;
                        for (quint32 i = 0; i < n; ++i)
                            sum += mode == 1 ? value(i, y, c) : value(x, i, c);
                        want = (sum + (n >> 1)) / n;
                        if (type != IDT_FLOAT)
                            want = std::trunc(want);
                    }
                    if (type == IDT_FLOAT)
                        QVERIFY(std::fabs(sampleValue(pic.pic(), x, y, c) - want) < 1e-4);
                    else if (type != IDT_DOUBLE)
                        QCOMPARE(sampleValue(pic.pic(), x, y, c), want);
                }
    }

    void infiniteCountingAndReset()
    {
        const SxPicBufInfo f = format(1, 1, 1, IDT_UINT16);
        SxNodeRun<CxImageAveragingCnbl> run(f);
        run.node->setCountToAverage(3);
        run.node->setCountingToInfinite(true);
        QList<CxChainable::CxSimpleStateConfigButton> buttons;
        bool hasButtons = true;
        run.node->simpleStateConfigButtons(buttons, hasButtons);
        QCOMPARE(buttons.size(), 1);
        QCOMPARE(buttons[0].label(), QStringLiteral("Reset"));
        QCOMPARE(buttons[0].id(), 1);
        QVERIFY(!hasButtons);
        QVERIFY(run.chain.start());

        CxPicture in(f);
        const double values[] = {10, 20, 40, 50, 90};
        const double averages[] = {10, 15, 23, 30, 42};  // running means, rounded
        for (int k = 0; k < 5; ++k) {
            in.refill([&](quint32, quint32, quint32) { return values[k]; });
            QScopedPointer<CxImageData> out(run.process(in));  // still frames: the first passes through
            QVERIFY(out);
            QCOMPARE(sampleValue(*out->picBuf(), 0, 0), averages[k]);
        }
        QCOMPARE(run.node->title(), QStringLiteral("Averaging (5/\u221E)"));
        run.node->simpleStateConfigButtonPressed(1);
        QCOMPARE(run.node->frameCounter(), 0);
        in.refill([](quint32, quint32, quint32) { return 7.0; });
        QVERIFY(!run.chain.push(livePacket(in)));  // a live first frame shows nothing
        in.refill([](quint32, quint32, quint32) { return 9.0; });
        QScopedPointer<IxChainData> out(run.chain.push(livePacket(in)));
        QVERIFY(out);
        QCOMPARE(sampleValue(*qobject_cast<CxImageData*>(out.data())->picBuf(), 0, 0), 8.0);
    }

    void modeSwitchAcrossRestart_data()
    {
        QTest::addColumn<bool>("allModes");
        QTest::addColumn<bool>("outputAfterTwoMore");
        QTest::addColumn<double>("expectedMin");
        QTest::newRow("pictures freed, series restarts") << false << false << 3.0;
        QTest::newRow("all modes: pictures and counter carry on") << true << true << 1.0;
    }

    // Two frames averaged, stop, switch to Min, start, more frames.
    void modeSwitchAcrossRestart()
    {
        QFETCH(bool, allModes);
        QFETCH(bool, outputAfterTwoMore);
        QFETCH(double, expectedMin);
        const SxPicBufInfo f = format(2, 2, 1, IDT_UINT8);
        SxNodeRun<CxImageAveragingCnbl> run(f);
        run.node->setCountToAverage(4);
        run.node->setCalcAllModesTogether(allModes);
        QVERIFY(run.chain.start());
        CxPicture in(f);
        auto push = [&](double v) {
            in.refill([v](quint32, quint32, quint32) { return v; });
            return QSharedPointer<IxChainData>(run.chain.push(livePacket(in)));
        };
        QVERIFY(!push(1));
        QVERIFY(!push(2));
        run.chain.stop();
        run.node->setMode(CxImageAveragingCnbl::ModeMin);
        QVERIFY(run.chain.start());
        QVERIFY(!push(5));
        auto out = push(3);
        QCOMPARE(out != nullptr, outputAfterTwoMore);
        if (!out) {
            QVERIFY(!push(4));
            out = push(6);
        }
        QVERIFY(out);
        QCOMPARE(sampleValue(*qobject_cast<CxImageData*>(out.data())->picBuf(), 1, 1), expectedMin);
    }



    // No picture fits the allocator's limit: all seven are logged and the node
    // still runs (emitting nothing).
    void allocationFailuresAreLogged()
    {
        SxPicBufInfo huge = format(1u << 16, 1u << 15, 3, IDT_UINT8, 0, CFA_NONE, DSF_PACKED, true);
        huge.linePitch = (1u << 18) + 64;
        CxImageAveragingCnbl node;
        node.setCalcAllModesTogether(true);
        node.setCurrentImageInfo(huge, CxImageMetadata(), huge, CxImageMetadata());
        gLog.clear();
        const QtMessageHandler previous = qInstallMessageHandler(captureLog);
        node.setupStart();
        qInstallMessageHandler(previous);
        const char* texts[] = {"Sum", "SumSubtract", "LastAvg", "SumSq", "Min", "Max", "MinTouches"};
        const int lines[] = {495, 510, 519, 538, 553, 568, 583};
        QCOMPARE(gLog.size(), 7);
        for (int i = 0; i < 7; ++i) {
            QVERIFY2(gLog[i].contains(QStringLiteral("plugins/zdpProcessing/ImageAveragingCnbl L %1 :").arg(lines[i])),
                     qPrintable(gLog[i]));
            QVERIFY(gLog[i].endsWith(QStringLiteral("CxImageAveragingCnbl::setupStart(): %1 pic allocation failed.")
                                         .arg(QLatin1String(texts[i]))));
        }
        node.setupStop();
    }

    void panelControls_data()
    {
        QTest::addColumn<SxPanelCase>("row");
        QTest::newRow("touches") << SxPanelCase{"rbModeMinTouches", 1, "mode", 4};
        QTest::newRow("all stats") << SxPanelCase{"chkAllTogether", 1, "all", 1};
        QTest::newRow("infinite") << SxPanelCase{"chkInfinite", 0, "infinite", 1};
        QTest::newRow("count") << SxPanelCase{"spinCount", 0, "count", 7};
        QTest::newRow("scale 10x") << SxPanelCase{"10x", 0, "scaling", 10};
    }

    // Which panel changes restart a running chain: the ones that change what
    // comes out (touches count in 16 bits), and only those.
    void panelControls()
    {
        QFETCH(SxPanelCase, row);
        const auto& [control, restarts, field, value] = row;
        SxNodeRun<CxImageAveragingCnbl> run(format(4, 4, 1, IDT_UINT8));
        CxImageAveragingCnbl* node = run.node;
        node->setStDevValuesScaling(1);
        if (field == "scaling")  // the segments are enabled only in StDev mode
            node->setMode(CxImageAveragingCnbl::ModeStDev);
        QVERIFY(run.startCounted());
        QScopedPointer<QWidget> w(node->configurationWidget());
        if (auto* spin = w->findChild<QSpinBox*>(control))
            spin->setValue(value);
        else if (auto* button = w->findChild<QAbstractButton*>(control))
            button->click();
        for (QPushButton* b : w->findChild<CxSegmentedControl*>("segmScaling")->findChildren<QPushButton*>())
            if (b->text() == control)
                b->click();
        QCOMPARE(run.starts, restarts);
        const QMap<QString, int> got{{"mode", node->mode()}, {"all", node->isCalcAllModesTogether()},
                                     {"infinite", node->isCountingToInfinite()}, {"count", node->countToAverage()},
                                     {"scaling", node->stDevValuesScaling()}};
        QCOMPARE(got.value(field), value);
        SxPicBufInfo out;
        QVERIFY(run.chain.negotiatedFormat(0, out));
        QCOMPARE(out.dataType, field == "mode" ? IDT_UINT16 : IDT_UINT8);
        if (field == "infinite") {  // greys out the count, offers "Reset"
            QVERIFY(w->findChild<QPushButton*>("btnReset")->isEnabled());
            QVERIFY(!w->findChild<QSpinBox*>("spinCount")->isEnabled());
        }
    }
};

QTEST_MAIN(TestImageAveraging)
#include "tst_imageaveraging.moc"
