// The viewer's picture part: the display mapper, measurements against plain
// references, cell names, and the view and panel while frames change. Frames
// end with their last row's samples, so the sanitizer catches reads past it.
#include <PictureKit.h>

#include <CxSyntheticCamera.h>
#include <DisplayMapper.h>
#include <MeasurePanel.h>
#include <PictureMeasure.h>
#include <PictureView.h>

#include <QtTest/QtTest>
#include <QtWidgets/QApplication>

#include <cmath>
#include <limits>
#include <vector>

namespace {

using Mode = CxDisplayMapper::ExStretchMode;
const double NaN = std::numeric_limits<double>::quiet_NaN();

struct SxFormat
{
    ExImageDataType type = IDT_UINT8;
    quint32 channels = 1, bits = 0;
    bool colour = false;
    ExColorFilterArray cfa = CFA_NONE;
};

// The frame owns its pictures through its deleter; their memory ends with
// the last row's samples, rows padded by padding bytes.
ViewFramePtr makeFrame(const SxFormat& f, quint32 w, quint32 h,
                       const std::function<double(quint32, quint32, quint32)>& value, quint32 padding = 3,
                       const std::function<double(quint32, quint32, quint32)>& imaginary = nullptr)
{
    auto pictures = std::make_shared<std::vector<kit::CxPicture>>();
    pictures->reserve(2);
    auto* frame = new SxViewFrame;
    for (const auto* fill : {&value, &imaginary}) {
        if (!*fill)
            continue;
        const SxPicBufInfo info = kit::format(w, h, f.channels, f.type, 0, f.cfa, DSF_PACKED, f.colour, f.bits);
        kit::CxPicture& pic = pictures->emplace_back(kit::padded(info, padding));
        pic.refill(*fill);
        (fill == &value ? frame->pic : frame->im) = pic.pic();
    }
    frame->spectrum = bool(imaginary);
    return ViewFramePtr(frame, [pictures](const SxViewFrame* p) { delete p; });
}

// Samples listed pixel after pixel along one row.
ViewFramePtr rowFrame(const SxFormat& f, const QList<double>& samples, const QList<double>& im = {})
{
    const auto at = [f](const QList<double>& s) {
        return [f, s](quint32 x, quint32, quint32 c) { return s.value(int(x * f.channels + c)); };
    };
    return makeFrame(f, quint32(samples.size()) / f.channels, 1, at(samples), 3,
                     im.isEmpty() ? nullptr : std::function<double(quint32, quint32, quint32)>(at(im)));
}

struct SxShown
{
    ExImageDataType type;
    quint32 channels, bits;
    bool colour;
    Mode mode;
    int channel;
    QList<double> samples, imaginary;
    int probe;  // the pixel looked at
    QRgb expected;
};

quint32 noise(quint32 x, quint32 y, quint32 c)
{
    quint32 h = x * 73856093u ^ y * 19349663u ^ c * 83492791u;
    h ^= h >> 13;
    return h * 0x5bd1e995u;
}

} // namespace

Q_DECLARE_METATYPE(SxShown)
Q_DECLARE_METATYPE(SxFormat)

class TestPictureView : public QObject
{
    Q_OBJECT
private slots:
    void shownColour_data()
    {
        QTest::addColumn<SxShown>("c");

        using M = Mode;
        QTest::newRow("bgr u8 stored blue first") << SxShown{IDT_UINT8, 3, 8, true, M::FullRange, 0, {10, 20, 250}, {}, 0, qRgb(250, 20, 10)};
        QTest::newRow("bgra u8 full range, alpha not shown")
            << SxShown{IDT_UINT8, 4, 8, true, M::FullRange, 0, {10, 20, 250, 7}, {}, 0, qRgb(250, 20, 10)};
        QTest::newRow("bgra u16/12 significant bits")
            << SxShown{IDT_UINT16, 4, 12, true, M::SignificantBits, 0, {0, 2048, 4095, 0}, {}, 0, qRgb(255, 128, 0)};
        QTest::newRow("u8 full range") << SxShown{IDT_UINT8, 1, 8, false, M::FullRange, 0, {200}, {}, 0, qRgb(200, 200, 200)};
        QTest::newRow("u16/12 full range") << SxShown{IDT_UINT16, 1, 12, false, M::FullRange, 0, {4095}, {}, 0, qRgb(16, 16, 16)};
        QTest::newRow("u16/12 significant bits")
            << SxShown{IDT_UINT16, 1, 12, false, M::SignificantBits, 0, {0, 2048}, {}, 1, qRgb(128, 128, 128)};
        QTest::newRow("s16 full range: 0 mid grey")
            << SxShown{IDT_INT16, 1, 16, false, M::FullRange, 0, {-32768, 0}, {}, 1, qRgb(128, 128, 128)};
        QTest::newRow("s16/12 significant bits")
            << SxShown{IDT_INT16, 1, 12, false, M::SignificantBits, 0, {-2048, 2047}, {}, 1, qRgb(255, 255, 255)};
        QTest::newRow("float full range: own extent")
            << SxShown{IDT_FLOAT, 1, 32, false, M::FullRange, 0, {-2, 0, 6, NaN}, {}, 1, qRgb(64, 64, 64)};
        QTest::newRow("float NaN black") << SxShown{IDT_FLOAT, 1, 32, false, M::FullRange, 0, {-2, 0, 6, NaN}, {}, 3, qRgb(0, 0, 0)};
        QTest::newRow("float normalised") << SxShown{IDT_FLOAT, 1, 32, false, M::SignificantBits, 0, {0.5}, {}, 0, qRgb(128, 128, 128)};
        QTest::newRow("float 12-bit levels")
            << SxShown{IDT_FLOAT, 1, 12, false, M::SignificantBits, 0, {0, 2048}, {}, 1, qRgb(128, 128, 128)};
        QTest::newRow("second channel of three, not colour")
            << SxShown{IDT_UINT8, 3, 8, false, M::FullRange, 1, {10, 90, 250}, {}, 0, qRgb(90, 90, 90)};
        // Automatic: 0.5 % and 99.5 % of 400 samples leave out the two outliers.
        QList<double> s{0, 255, 115};
        for (int i = 0; i < 397; ++i)
            s.append(i % 2 ? 50 : 180);
        for (const ExImageDataType type : {IDT_UINT8, IDT_UINT16, IDT_FLOAT})
            QTest::addRow("auto type %d", int(type)) << SxShown{type, 1, 0, false, M::Auto, 0, s, {}, 2, qRgb(128, 128, 128)};
        // ln(1 + 5) against ln(1 + (e^2 - 1)) = 2.
        QTest::newRow("spectrum log magnitude")
            << SxShown{IDT_FLOAT, 1, 32, false, M::SignificantBits, 0, {3, 0, std::exp(2.0) - 1}, {4, 0, 0}, 0, qRgb(228, 228, 228)};
    }

    void shownColour()
    {
        QFETCH(SxShown, c);
        const ViewFramePtr frame = rowFrame({c.type, c.channels, c.bits, c.colour}, c.samples, c.imaginary);
        CxDisplayMapper mapper;
        mapper.setStretchMode(c.mode);
        mapper.setChannel(c.channel);
        const QSize size(int(frame->pic.width), 1);
        const QImage image = mapper.render(*frame, QRectF(QPointF(0, 0), size), size);
        QCOMPARE(QColor(image.pixel(c.probe, 0)), QColor(c.expected));
    }

    void sampling_data()
    {
        QTest::addColumn<QRectF>("source");
        QTest::addColumn<QSize>("target");
        QTest::addColumn<QList<QPoint>>("probes");
        QTest::addColumn<QList<QPoint>>("shows");  // (-1, -1): background

        // The picture is 37 x 21.
        QTest::newRow("zoomed out") << QRectF(0, 0, 37, 21) << QSize(10, 6)
                                    << QList<QPoint>{{0, 0}, {9, 5}, {4, 2}} << QList<QPoint>{{1, 1}, {35, 19}, {16, 8}};
        QTest::newRow("zoomed in to the last pixel")
            << QRectF(30.5, 15.25, 6.5, 5.75) << QSize(26, 23) << QList<QPoint>{{0, 0}, {1, 2}, {2, 3}, {25, 22}}
            << QList<QPoint>{{30, 15}, {30, 15}, {31, 16}, {36, 20}};
        QTest::newRow("beyond the picture") << QRectF(-5, -5, 50, 30) << QSize(50, 30)
                                            << QList<QPoint>{{4, 4}, {5, 5}, {41, 25}, {42, 26}}
                                            << QList<QPoint>{{-1, -1}, {0, 0}, {36, 20}, {-1, -1}};
    }

    void sampling()
    {
        QFETCH(QRectF, source);
        QFETCH(QSize, target);
        QFETCH(QList<QPoint>, probes);
        QFETCH(QList<QPoint>, shows);

        // Blue tells the column, green the row.
        const ViewFramePtr frame = makeFrame({IDT_UINT8, 3, 8, true}, 37, 21, [](quint32 x, quint32 y, quint32 c) {
            return c == 0 ? x : c == 1 ? y : 200;
        });
        CxDisplayMapper mapper;
        mapper.setBackground(Qt::black);
        const QImage image = mapper.render(*frame, source, target);
        QCOMPARE(image.size(), target);
        for (int i = 0; i < probes.size(); ++i) {
            const QRgb px = image.pixel(probes[i]);
            const QPoint got = qRed(px) ? QPoint(qBlue(px), qGreen(px)) : QPoint(-1, -1);
            QVERIFY2(got == shows[i], qPrintable(QString("target %1,%2 shows %3,%4")
                                                    .arg(probes[i].x()).arg(probes[i].y()).arg(got.x()).arg(got.y())));
        }
    }

    // Four-byte colour pixels and one-byte grey samples take vector paths
    // when the view is zoomed out: every target pixel must still show the
    // source pixel under its centre, near the right edge and beside the
    // background too.
    void vectorSampling_data()
    {
        QTest::addColumn<QRectF>("source");
        QTest::addColumn<QSize>("target");
        QTest::addColumn<int>("channels");  // 4: BGRA colour; 1 or 3: grey, the second of three shown
        QTest::addColumn<int>("bits");

        // The picture is 250 x 5.
        for (const int channels : {4, 1, 3}) {
            const auto row = [&](const char* name) -> QTestData& { return QTest::addRow("%s, %d channels", name, channels); };
            row("out 1.7x") << QRectF(0, 0, 250, 5) << QSize(147, 3) << channels << 8;
            row("out 3.4x") << QRectF(0, 0, 250, 5) << QSize(73, 2) << channels << 8;
            row("out 7x") << QRectF(0, 0, 250, 5) << QSize(35, 1) << channels << 8;
            row("in 1.6x") << QRectF(3.3, 0, 100, 5) << QSize(160, 8) << channels << 8;
            row("right edge") << QRectF(190.5, 1, 59.5, 4) << QSize(33, 4) << channels << 8;
            row("beyond both edges") << QRectF(-20.25, -1, 300, 7) << QSize(120, 7) << channels << 8;
        }
        QTest::newRow("grey levels stretched") << QRectF(0, 0, 250, 5) << QSize(147, 3) << 1 << 7;
    }

    void vectorSampling()
    {
        QFETCH(QRectF, source);
        QFETCH(QSize, target);
        QFETCH(int, channels);
        QFETCH(int, bits);
        const bool colour = channels == 4;
        const ViewFramePtr frame = makeFrame({IDT_UINT8, quint32(channels), quint32(bits), colour}, 250, 5,
            [colour](quint32 x, quint32 y, quint32 c) -> double { return colour ? (c == 0 ? x : c == 1 ? y : c == 2 ? 200 : 9) : c <= 1 ? x : 0; });
        CxDisplayMapper mapper;
        mapper.setBackground(Qt::black);
        mapper.setChannel(channels == 3 ? 1 : 0);
        mapper.setStretchMode(bits == 8 ? CxDisplayMapper::FullRange : CxDisplayMapper::SignificantBits);
        const QImage image = mapper.render(*frame, source, target);
        for (int j = 0; j < target.height(); ++j)
            for (int i = 0; i < target.width(); ++i) {
                const double x = source.x() + (i + 0.5) * (source.width() / target.width());
                const double y = source.y() + (j + 0.5) * (source.height() / target.height());
                const int level = std::min(255, int(int(x) * 255.0 / ((1 << bits) - 1) + 0.5));
                const bool inside = x >= 0 && x < 250 && y >= 0 && y < 5;
                const QRgb expected = !inside ? qRgb(0, 0, 0) : colour ? qRgb(200, int(y), int(x)) : qRgb(level, level, level);
                if (image.pixel(i, j) != expected)
                    QFAIL(qPrintable(QString("target %1,%2: %3 instead of %4")
                                         .arg(i).arg(j).arg(image.pixel(i, j), 0, 16).arg(expected, 0, 16)));
            }
    }

    void cellName_data()
    {
        QTest::addColumn<int>("cfa");
        QTest::addColumn<bool>("notRaw");
        QTest::addColumn<QPoint>("pos");
        QTest::addColumn<QString>("name");

        QTest::newRow("RGGB red") << int(CFA_BAYER_RGGB) << false << QPoint(2, 4) << "R";
        QTest::newRow("RGGB green") << int(CFA_BAYER_RGGB) << false << QPoint(3, 4) << "G";
        QTest::newRow("GRBG red") << int(CFA_BAYER_GRBG) << false << QPoint(3, 4) << "R";
        QTest::newRow("GBRG red") << int(CFA_BAYER_GBRG) << false << QPoint(2, 5) << "R";
        QTest::newRow("BGGR red") << int(CFA_BAYER_BGGR) << false << QPoint(3, 5) << "R";
        QTest::newRow("BGGR blue") << int(CFA_BAYER_BGGR) << false << QPoint(2, 4) << "B";
        QTest::newRow("CMYG magenta") << int(CFA_CMYG) << false << QPoint(1, 0) << "M";
        QTest::newRow("CMYG yellow") << int(CFA_CMYG) << false << QPoint(0, 1) << "Y";
        QTest::newRow("RGBR second red") << int(CFA_RGBR) << false << QPoint(1, 1) << "R";
        QTest::newRow("not raw: no cells") << int(CFA_BAYER_RGGB) << true << QPoint(0, 0) << "";
        // Visible zone x 0..31: 4x4, band i at 460 + 15 * (5i mod 16) nm; near
        // infrared x 32..61: 3x3, band i at 650 + 40 * (4i mod 9) nm.
        QTest::newRow("first zone") << int(CFA_HSI_MOSAIC) << false << QPoint(5, 6) << "655 nm";
        QTest::newRow("second zone") << int(CFA_HSI_MOSAIC) << false << QPoint(40, 7) << "730 nm";
        QTest::newRow("outside the zones") << int(CFA_HSI_MOSAIC) << false << QPoint(63, 0) << "outside the zones";
    }

    void cellName()
    {
        QFETCH(int, cfa);
        QFETCH(bool, notRaw);
        QFETCH(QPoint, pos);
        QFETCH(QString, name);

        SxFormat f;
        f.cfa = ExColorFilterArray(cfa);
        auto frame = std::const_pointer_cast<SxViewFrame>(makeFrame(f, 64, 48, noise));
        frame->meta.setHsiCameraParams(CxSyntheticCamera::builtInHsiDescription(64, 48));
        if (notRaw)
            frame->pic.storageFormat = DSF_NOT_RAW;
        QCOMPARE(PictureMeasure::cellName(*frame, pos), name);
        QCOMPARE(PictureMeasure::hoverText(*frame, pos).endsWith(name.isEmpty() ? QString() : " (" + name + ")"), true);
    }

    void rectStatistics_data()
    {
        QTest::addColumn<SxFormat>("format");
        QTest::addColumn<QRect>("rect");

        QTest::newRow("u8 inside") << SxFormat{IDT_UINT8} << QRect(3, 2, 10, 7);
        QTest::newRow("bgr u16 past the bottom right") << SxFormat{IDT_UINT16, 3, 0, true} << QRect(20, 10, 40, 40);
        QTest::newRow("s16 past the top left") << SxFormat{IDT_INT16} << QRect(-4, -9, 9, 12);
        QTest::newRow("s32 two channels") << SxFormat{IDT_INT32, 2} << QRect(0, 0, 31, 17);
        QTest::newRow("float with NaN") << SxFormat{IDT_FLOAT} << QRect(1, 1, 29, 15);
        QTest::newRow("outside") << SxFormat{IDT_UINT8} << QRect(31, 0, 5, 5);
        QTest::newRow("empty") << SxFormat{IDT_UINT8} << QRect(4, 4, 0, 3);
    }

    void rectStatistics()
    {
        QFETCH(SxFormat, format);
        QFETCH(QRect, rect);

        const ExImageDataType t = format.type;  // integers over the whole type
        const int channels = int(format.channels);
        const auto value = [t](quint32 x, quint32 y, quint32 c) -> double {
            const quint32 n = noise(x, y, c);
            if (kit::isFloat(t))
                return x == 7 && y == 3 ? NaN : double(float(1e4 + double(n % 1000) / 7));
            return double(kit::lowest(t) + std::fmod((long double)n, kit::highest(t) - kit::lowest(t) + 1));
        };
        const ViewFramePtr frame = makeFrame(format, 31, 17, value);
        const QList<PictureMeasure::SxChannelStatistics> got = PictureMeasure::rectStatistics(*frame, rect);
        const QRect r = rect & QRect(0, 0, 31, 17);
        if (r.isEmpty()) {
            QVERIFY(got.isEmpty());
            return;
        }
        QCOMPARE(got.size(), channels);
        for (int c = 0; c < channels; ++c) {
            const quint32 stored = format.colour ? quint32(2 - c) : quint32(c);
            std::vector<double> v;
            for (int y = r.top(); y <= r.bottom(); ++y)
                for (int x = r.left(); x <= r.right(); ++x)
                    if (!std::isnan(value(x, y, stored)))
                        v.push_back(value(x, y, stored));
            double mean = 0, var = 0;
            for (double s : v)
                mean += s / v.size();
            for (double s : v)
                var += (s - mean) * (s - mean) / v.size();
            QCOMPARE(got[c].count, quint64(v.size()));
            QCOMPARE(got[c].min, *std::min_element(v.begin(), v.end()));
            QCOMPARE(got[c].max, *std::max_element(v.begin(), v.end()));
            QVERIFY(std::abs(got[c].mean - mean) <= 1e-9 * std::max(1.0, std::abs(mean)));
            QVERIFY(std::abs(got[c].stdDev - std::sqrt(var)) <= 1e-7 * std::max(1.0, std::sqrt(var)));
        }
    }

    void histogramBins_data()
    {
        QTest::addColumn<SxFormat>("format");
        QTest::addColumn<QList<double>>("samples");  // one pixel; the last stored sample is measured
        QTest::addColumn<QList<double>>("bins");     // count, low, width, the bin that holds it

        QTest::newRow("u8") << SxFormat{IDT_UINT8, 1, 8} << QList<double>{200} << QList<double>{256, 0, 1, 200};
        QTest::newRow("s8") << SxFormat{IDT_INT8, 1, 8} << QList<double>{-100} << QList<double>{256, -128, 1, 28};
        QTest::newRow("u16/12") << SxFormat{IDT_UINT16, 1, 12} << QList<double>{4095} << QList<double>{1024, 0, 4, 1023};
        QTest::newRow("u16/8") << SxFormat{IDT_UINT16, 1, 8} << QList<double>{300} << QList<double>{256, 0, 1, 255};
        QTest::newRow("s16/12") << SxFormat{IDT_INT16, 1, 12} << QList<double>{-1} << QList<double>{1024, -2048, 4, 511};
        QTest::newRow("bgr u8: first curve red") << SxFormat{IDT_UINT8, 3, 8, true} << QList<double>{1, 2, 3}
                                                 << QList<double>{256, 0, 1, 3};
    }

    void histogramBins()
    {
        QFETCH(SxFormat, format);
        QFETCH(QList<double>, samples);
        QFETCH(QList<double>, bins);
        const PictureMeasure::SxHistogram h = PictureMeasure::histogram(*rowFrame(format, samples));
        QCOMPARE((QList<double>{double(h.binCount()), h.low, h.binWidth, h.counts.first().at(int(bins[3]))}),
                 bins.mid(0, 3) << 1.0);
    }

    void viewFollowsFrames()
    {
        CxPictureView view;
        view.resize(300, 200);
        view.show();
        QVERIFY(QTest::qWaitForWindowExposed(&view));
        QSignalSpy rois(&view, &CxPictureView::roiChanged);
        QSignalSpy hovers(&view, &CxPictureView::hoverInfo);

        view.setFrame(makeFrame({IDT_UINT8, 3, 8, true}, 100, 50, [](quint32, quint32, quint32 c) { return c == 2 ? 250 : 10; }));
        QCOMPARE(view.zoom(), 3.0);
        QCOMPARE(QColor(view.grab().toImage().pixel(150, 100)), QColor(250, 10, 10));
        view.setRoi(QRect(80, 40, 30, 20));
        QCOMPARE(view.roi(), QRect(80, 40, 20, 10));

        // The wheel keeps the picture point under the cursor.
        const QPointF cursor(70, 120);
        const QPointF under = view.widgetToPicture(cursor);
        QWheelEvent wheel(cursor, view.mapToGlobal(cursor), QPoint(), QPoint(0, 240), Qt::NoButton, Qt::NoModifier,
                          Qt::NoScrollPhase, false);
        QApplication::sendEvent(&view, &wheel);
        QCOMPARE(view.zoom(), 3.0 * 1.25 * 1.25);
        QVERIFY((view.widgetToPicture(cursor) - under).manhattanLength() < 1e-9);
        QTest::mouseMove(&view, cursor.toPoint());
        QTRY_VERIFY(!hovers.isEmpty());
        QCOMPARE(hovers.last().first().toString(), QString("%1, %2: R 250  G 10  B 10").arg(int(under.x())).arg(int(under.y())));

        // A smaller frame of another type: the rectangle goes, zoom stays.
        view.setFrame(makeFrame({IDT_UINT16, 1, 12}, 40, 30, noise));
        QCOMPARE(view.roi(), QRect());
        QCOMPARE(rois.size(), 2);
        QCOMPARE(view.zoom(), 3.0 * 1.25 * 1.25);
        QVERIFY(!view.grab().isNull());

        // Back to fitting, which follows the next size.
        QTest::keyClick(&view, Qt::Key_0);
        QCOMPARE(view.zoom(), 20.0 / 3);
        view.setFrame(makeFrame({IDT_FLOAT, 1}, 600, 100, noise));
        QCOMPARE(view.zoom(), 0.5);
        QTest::keyClick(&view, Qt::Key_1);
        QCOMPARE(view.zoom(), 1.0);
        QVERIFY(!view.grab().isNull());
    }

    void panelOnlyWorksWhenShown()
    {
        CxMeasurePanel panel;
        panel.show();
        QVERIFY(QTest::qWaitForWindowExposed(&panel));
        panel.setFrame(makeFrame({IDT_UINT8, 4, 8, true}, 20, 10, noise));
        panel.setRoi(QRect(5, 5, 100, 100));
        QTRY_COMPARE(panel.shownHistogram().counts.size(), 3);
        QTRY_COMPARE(panel.shownStatistics().size(), 4);
        QCOMPARE(panel.shownStatistics().first().count, quint64(15 * 5));

        panel.hide();
        panel.setFrame(makeFrame({IDT_UINT16, 1, 12}, 20, 10, noise));
        QTest::qWait(2 * CxMeasurePanel::RefreshMs);
        QCOMPARE(panel.shownHistogram().counts.size(), 3);
        panel.show();
        QTRY_COMPARE(panel.shownHistogram().counts.size(), 1);
    }
};

QTEST_MAIN(TestPictureView)
#include "tst_pictureview.moc"
