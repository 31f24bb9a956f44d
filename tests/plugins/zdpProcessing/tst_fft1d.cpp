#include "NodeTestKit.h"

#include <FFT1DCnbl.h>
#include <FFT1DPlot.h>

#include <CxFFT.h>

#include <QtCore/QSemaphore>
#include <QtCore/QThread>
#include <QtTest/QtTest>

#include <cmath>
#include <limits>
#include <memory>

using namespace nodetest;

namespace {

const QString kUnsupported = QStringLiteral("The input image data type is not supported.");

// A 16-bit picture whose profile along the analysed direction is a cosine of
// `cycles` periods over n samples on top of a level, constant across.
CxPicture sinePicture(CxFFT1DCnbl::ExTransformType type, quint32 n, int cycles, quint32 across = 8)
{
    const bool horizontal = type == CxFFT1DCnbl::rows;
    return CxPicture(format(horizontal ? n : across, horizontal ? across : n, 1, IDT_UINT16, 2),
                       [=](quint32 x, quint32 y, quint32) {
                           const double t = horizontal ? x : y;
                           return std::round(100.0 + 500.0 * (1.0 + std::cos(2.0 * M_PI * cycles * t / n)));
                       });
}

} // namespace

struct SxTicks { double lower; double upper; bool logarithmic; QList<double> ticks; QStringList labels; };
Q_DECLARE_METATYPE(SxTicks)

struct SxSineCase { int type; int n; bool dc; int peak; };
Q_DECLARE_METATYPE(SxSineCase)

struct SxBinsCase { int n; bool dc; int length; int start; };
Q_DECLARE_METATYPE(SxBinsCase)

class TestFFT1D : public QObject
{
    Q_OBJECT

private slots:
    void displayedBins_data()
    {
        QTest::addColumn<SxBinsCase>("row");
        QTest::newRow("odd with dc") << SxBinsCase{7, true, 3, 3};
        QTest::newRow("odd without dc") << SxBinsCase{7, false, 3, 4};
        QTest::newRow("even with dc") << SxBinsCase{8, true, 4, 4};
        QTest::newRow("even without dc") << SxBinsCase{8, false, 3, 5};
        QTest::newRow("one sample") << SxBinsCase{1, true, 0, 0};
        QTest::newRow("two samples without dc") << SxBinsCase{2, false, 0, 2};
    }

    // The shown bins never run past the centred spectrum, and nothing shown
    // leaves the amplitude range at its start values.
    void displayedBins()
    {
        QFETCH(SxBinsCase, row);
        const auto& [n, dc, length, start] = row;
        QCOMPARE(calc_disp_fft_len(n, dc), length);
        QCOMPARE(calc_disp_fft_start_idx(n, dc), start);
        QVERIFY(start + length <= n);

        std::vector<float> re(static_cast<size_t>(n), 3.f), im(static_cast<size_t>(n), 4.f);
        QList<double> out(length);
        double max = -1.0, min = -1.0;
        calc_amplitude(re.data(), im.data(), out, start + length, max, min, start);
        QCOMPARE(max, length ? 5.0 : 0.0);
        QCOMPARE(min, length ? 5.0 : std::numeric_limits<double>::max());
    }

    void yTicks_data()
    {
        QTest::addColumn<SxTicks>("row");

        // Exponents in superscript digits, written out here.
        const QString sq = "\u00B2", cube = "\u00B3";
        QTest::newRow("linear 4") << SxTicks{0.0, 4.0, false, {0, 1, 2, 3, 4}, {"0", "1", "2", "3", "4"}};
        QTest::newRow("linear 12") << SxTicks{3.0, 12.0, false, {0, 10}, {"0", "10"}};
        QTest::newRow("linear default max")
            << SxTicks{0.0, 400000.0, false, {0, 100000, 200000, 300000, 400000},
                QStringList{"0", "100000", "200000", "300000", "400000"}};
        QTest::newRow("linear half") << SxTicks{0.0, 0.5, false, {0}, {"0"}};
        QTest::newRow("linear negative") << SxTicks{-9.0, -1.0, false, {}, {}};
        QTest::newRow("log 1 to 1e6")
            << SxTicks{1.0, 1e6, true, {1, 10, 100, 1e3, 1e4, 1e5, 1e6},
                QStringList{"1", "10", "10" + sq, "10" + cube, "10\u2074", "10\u2075", "10\u2076"}};
        QTest::newRow("log 1e12, every other decade")
            << SxTicks{0.0, 1e12, true, {1, 1e2, 1e4, 1e6, 1e8, 1e10, 1e12},
                QStringList{"1", "10" + sq, "10\u2074", "10\u2076", "10\u2078", "10\u00B9\u2070", "10\u00B9\u00B2"}};
        QTest::newRow("log from 0")
            << SxTicks{0.0, 1000.0, true, {1, 10, 100, 1000},
                QStringList{"1", "10", "10" + sq, "10" + cube}};
        QTest::newRow("log negative lower")
            << SxTicks{-2.0, 100.0, true, {0.01, 0.1, 1, 10, 100},
                QStringList{"10-" + sq, "10-\u00B9", "1", "10", "10" + sq}};
    }

    void yTicks()
    {
        QFETCH(SxTicks, row);
        const auto& [lower, upper, logarithmic, ticks, labels] = row;
        QList<double> gotTicks{42.0};
        QList<QString> gotLabels{QStringLiteral("stale")};
        CxFFT1DCnbl::getYTicksAndLabels(lower, upper, logarithmic, gotTicks, gotLabels);
        QCOMPARE(QStringList(gotLabels), labels);
        QCOMPARE(gotTicks.size(), ticks.size());
        for (int i = 0; i < ticks.size(); ++i)
            QVERIFY(qAbs(gotTicks[i] - ticks[i]) <= 1e-9 * qAbs(ticks[i]));
    }

    // The host transform and the displayed window together: a cosine of k
    // cycles peaks at shown bin k with the zero frequency, k - 1 without it.
    void sineProfilePeaks_data()
    {
        QTest::addColumn<SxSineCase>("row");
        QTest::newRow("rows even dc") << SxSineCase{int(CxFFT1DCnbl::rows), 64, true, 5};
        QTest::newRow("rows even no dc") << SxSineCase{int(CxFFT1DCnbl::rows), 64, false, 4};
        QTest::newRow("cols odd dc") << SxSineCase{int(CxFFT1DCnbl::cols), 63, true, 5};
        QTest::newRow("cols odd no dc") << SxSineCase{int(CxFFT1DCnbl::cols), 63, false, 4};
    }

    void sineProfilePeaks()
    {
        QFETCH(SxSineCase, row);
        const auto& [type, n, dc, peak] = row;
        const auto t = CxFFT1DCnbl::ExTransformType(type);
        CxPicture input = sinePicture(t, quint32(n), 5);
        const SxPicBuf& pic = input.pic();

        // The profile the plain way: the mean across the analysed direction.
        std::vector<float> line(static_cast<size_t>(n)), re(static_cast<size_t>(n)), im(static_cast<size_t>(n));
        const quint32 across = t == CxFFT1DCnbl::rows ? pic.height : pic.width;
        for (quint32 i = 0; i < quint32(n); ++i)
            for (quint32 j = 0; j < across; ++j)
                line[i] += float(t == CxFFT1DCnbl::rows ? sampleValue(pic, i, j) : sampleValue(pic, j, i)) / float(across);

        void *h1 = nullptr, *h2 = nullptr, *h3 = nullptr;
        QVERIFY(CxFFT::Alloc1D(n, h1, h2, h3));
        QVERIFY(CxFFT::Calc1D(line.data(), re.data(), im.data(), h1, h2, h3));
        CxFFT::Free1D(h1, h2, h3);

        const int length = calc_disp_fft_len(n, dc), start = calc_disp_fft_start_idx(n, dc);
        QList<double> amplitude(length);
        double max = 0, min = 0;
        calc_amplitude(re.data(), im.data(), amplitude, start + length, max, min, start);
        // A profile never below zero has its largest amplitude at zero frequency.
        const int from = dc ? 1 : 0;
        const auto top = std::max_element(amplitude.begin() + from, amplitude.end());
        QCOMPARE(int(top - amplitude.begin()), peak);
        QVERIFY(qAbs(*top - 250.0 * n) < 0.01 * 250.0 * n);
        QCOMPARE(max, dc ? amplitude[0] : *top);
        if (dc)
            QVERIFY(qAbs(amplitude[0] - 600.0 * n) < 1.0);
    }

    // Painted on the chain's own thread while this (GUI) thread waits without
    // running its event loop: the plot needs nothing from the GUI thread, and the
    // picture is the same as one painted here.
    void drawsSpectrumOnChainThread()
    {
        CxPicture input = sinePicture(CxFFT1DCnbl::rows, 64, 5);
        input.meta().setChannelNames({"level"});
        const SxPicBufInfo f = input.pic().picFormat();

        CxChain live;
        // A fixed range with room below zero keeps the whole graph above the
        // bottom axis; without the zero frequency the peak is the top.
        const auto configure = [](CxFFT1DCnbl* node) {
            node->setTranformType(CxFFT1DCnbl::rows);
            node->setIncludeDC(false);
            node->setAutoScaleY(false);
            node->setMinY(-5000.0);
            node->setMaxY(20000.0);
        };
        auto* node = new CxFFT1DCnbl;
        configure(node);
        live.setRunMode(CxChain::RunLive);
        live.setInputFormat(f);
        live.appendNode(node);
        QSemaphore done;
        std::unique_ptr<IxChainData> fromWorker;
        QThread* painter = nullptr;
        live.setOutputHandler([&](IxChainData* p) {
            fromWorker.reset(p);
            painter = QThread::currentThread();
            done.release();
        });
        QVERIFY(live.start());
        QVERIFY(live.post(input.packet()));
        QVERIFY(done.tryAcquire(1, 20000));
        live.stop();
        QVERIFY(painter && painter != QThread::currentThread());
        QVERIFY(node->errorMessage().isEmpty());

        auto* image = qobject_cast<CxImageData*>(fromWorker.get());
        QVERIFY(image);
        const SxPicBuf& pic = *image->picBuf();
        QCOMPARE(pic.width, CxFFT1DCnbl::OutputWidth);
        QCOMPARE(pic.height, CxFFT1DCnbl::OutputHeight);
        QCOMPARE(pic.channels, 4u);
        // The description is the input's but for the filter array; the plot is
        // blue first because it is a colour picture, not because of names.
        QCOMPARE(image->metadata()->channelNames(), QStringList({"level"}));

        // The graph's highest (yellow) pixel is bin 5, at key 4 of the 30 that
        // span from the fixed left margin of W / 8 to some 97% of W; keys lie
        // 58 pixels apart.
        int peakX = -1;
        for (quint32 y = 0; y < pic.height && peakX < 0; ++y)
            for (quint32 x = 0; x < pic.width && peakX < 0; ++x) {
                const uchar* p = pic.rowPtr(y) + 4 * x;  // B, G, R, A
                peakX = p[2] >= 250 && p[1] >= 250 && p[0] < 200 ? int(x) : -1;
            }
        const double origin = pic.width / 8.0, expected = origin + (pic.width * 0.97 - origin) * 4.0 / 30.0;
        QVERIFY2(qAbs(peakX - expected) < 20, qPrintable(QString("peak at %1, expected %2").arg(peakX).arg(expected)));

        SxNodeRun<CxFFT1DCnbl> here(f);
        configure(here.node);
        std::unique_ptr<CxImageData> local(here.process(input));
        QVERIFY(local);
        for (quint32 y = 0; y < pic.height; ++y)
            QVERIFY(std::memcmp(local->picBuf()->rowPtr(y), pic.rowPtr(y), 4 * pic.width) == 0);
    }

    // The amplitude grid's copied rows against the axis painting every line,
    // byte for byte: many ticks, few, and decades.
    void gridRowsMatchAxisGrid_data()
    {
        QTest::addColumn<bool>("logarithmic");
        QTest::addColumn<double>("upper");
        QTest::newRow("linear, 81 ticks") << false << 8.07e7;
        QTest::newRow("linear, 4 ticks") << false << 3.1e5;
        QTest::newRow("logarithmic") << true << 8.07e7;
    }
    void gridRowsMatchAxisGrid()
    {
        QFETCH(bool, logarithmic);
        QFETCH(double, upper);
        const int w = int(CxFFT1DCnbl::OutputWidth), h = int(CxFFT1DCnbl::OutputHeight);
        QList<double> keys, values;
        for (int i = 0; i < 1500; ++i) {
            keys.append(i / 3000.0);
            values.append(upper * (0.51 + 0.49 * std::sin(i * 0.37)));
        }
        const double lower = upper / 1000.0;
        QList<double> ticks;
        QList<QString> labels;
        CxFFT1DCnbl::getYTicksAndLabels(lower, upper, logarithmic, ticks, labels);
        std::vector<uchar> pictures[2];
        for (bool copied : {false, true}) {
            CxFFT1DSpectrumPlot plot;
            plot.setAxisYLogarithmic(logarithmic);
            plot.scaleTo(w, h);
            plot.setGridRowsCopied(copied);
            pictures[copied].assign(size_t(w) * 4 * h, 0);
            QVERIFY(plot.render(pictures[copied].data(), w, h, w * 4, keys, values, lower, upper, ticks, labels));
        }
        QVERIFY(pictures[0] == pictures[1]);
    }

    // One row analysed per column mean: a single bin, nothing shown, still a picture.
    void singleRowStillDraws()
    {
        SxNodeRun<CxFFT1DCnbl> mono(format(6, 1, 1, IDT_UINT16));
        CxPicture input(format(6, 1, 1, IDT_UINT16), [](quint32 x, quint32, quint32) { return x; });
        std::unique_ptr<CxImageData> out(mono.process(input));
        QVERIFY(out);
        QCOMPARE(out->picBuf()->width, CxFFT1DCnbl::OutputWidth);
    }
};

QTEST_MAIN(TestFFT1D)
#include "tst_fft1d.moc"
