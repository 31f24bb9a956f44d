#include "NodeTestKit.h"

#include <ExtractChannelCnbl.h>
#include <FFT2DCnbl.h>

#include <CxFFTImageData.h>
#include <CxHsiCameraParams.h>

#include <opencv2/core.hpp>

#include <QtTest/QtTest>

#include <memory>

using namespace nodetest;

namespace {

// One zone of a 2 x 2 pattern over columns 0..5 and rows 0..3.
CxHsiCameraParams camera2x2()
{
    CxHsiCameraParams hsi;
    hsi.addFilterZone(filterZone(QRect(0, 0, 6, 4), 2, 2, 1, "B"));
    return hsi;
}

// Spectrum bin of an uncentred transform, read where the node's centred
// output keeps it.
float centredAt(const SxPicBuf& part, int fx, int fy)
{
    const int w = int(part.width), h = int(part.height);
    return part.row<float>(quint32((fy + h / 2) % h))[(fx + w / 2) % w];
}

} // namespace

class TestFFT2D : public QObject
{
    Q_OBJECT

private slots:
    void channelNames_data()
    {
        QTest::addColumn<SxPicBufInfo>("info");
        QTest::addColumn<int>("index");
        QTest::addColumn<QString>("name");

        const SxPicBufInfo rgb = format(4, 4, 3, IDT_UINT8, 0, CFA_NONE, DSF_PACKED, true);
        QTest::newRow("colour 0") << rgb << 0 << "Red";
        QTest::newRow("colour 1") << rgb << 1 << "Green";
        QTest::newRow("colour 2") << rgb << 2 << "Blue";
        QTest::newRow("colour 3 is red") << rgb << 3 << "Red";
        QTest::newRow("colour -1 is red") << rgb << -1 << "Red";
        QTest::newRow("plain channels") << format(4, 4, 2, IDT_UINT16) << 1 << "Channel 1";
        QTest::newRow("mono") << format(4, 4, 1, IDT_UINT8) << 3 << "Mono";
        QTest::newRow("not raw bayer") << format(4, 4, 1, IDT_UINT8, 0, CFA_BAYER_RGGB, DSF_NOT_RAW) << 0 << "Mono";

        const char* const cells[6][4] = {
            {"Red", "Green 1", "Green 2", "Blue"},  {"Green 1", "Red", "Blue", "Green 2"},
            {"Green 1", "Blue", "Red", "Green 2"},  {"Blue", "Green 1", "Green 2", "Red"},
            {"Cyan", "Magenta", "Yellow", "Green"}, {"Red 1", "Green", "Blue", "Red 2"},
        };
        for (int cfa = 1; cfa <= 6; ++cfa) {
            const SxPicBufInfo f = format(4, 4, 1, IDT_UINT8, 0, ExColorFilterArray(cfa));
            for (int i = -1; i <= 4; ++i) {
                const QString expected = i >= 0 && i < 4 ? QString::fromLatin1(cells[cfa - 1][i]) : QStringLiteral("Whole image");
                QTest::addRow("cfa %d cell %d", cfa, i) << f << i << expected;
            }
        }
        const SxPicBufInfo hsi = format(8, 8, 1, IDT_UINT16, 0, CFA_HSI_MOSAIC);
        QTest::newRow("hsi band 2") << hsi << 2 << "B2";
        QTest::newRow("hsi beyond bands") << hsi << 4 << "Mono";
        QTest::newRow("hsi negative") << hsi << -1 << "Mono";
        QTest::newRow("unknown mosaic") << format(4, 4, 1, IDT_UINT8, 0, ExColorFilterArray(9)) << 0 << "";
    }

    void channelNames()
    {
        QFETCH(SxPicBufInfo, info);
        QFETCH(int, index);
        QFETCH(QString, name);
        const CxHsiCameraParams hsi = camera2x2();
        QCOMPARE(CxFFT2DCnbl::channelNameForIndex(index, info, &hsi), name);
    }

    // The spectrum of the chosen plane, cell or band, compared with an
    // independent transform of that channel placed top-left in a zero picture
    // of the input's size. A band is what Extract Channel cuts for it: it stops
    // at its filter zone, not at the picture's edge.
    void transformsChosenCell_data()
    {
        QTest::addColumn<SxPicBufInfo>("info");
        QTest::addColumn<int>("channel");
        QTest::addColumn<int>("step");   // sampling period of the channel; 0: a band
        QTest::addColumn<int>("first");  // 2x2 position of its first sample, row by row

        QTest::newRow("bayer cell 2, odd size") << format(7, 5, 1, IDT_UINT8, 1, CFA_BAYER_RGGB) << 2 << 2 << 2;
        QTest::newRow("bayer cell 3") << format(8, 6, 1, IDT_UINT16, 0, CFA_BAYER_GBRG) << 3 << 2 << 3;
        QTest::newRow("hsi band 1 inside the picture") << format(8, 6, 1, IDT_UINT16, 0, CFA_HSI_MOSAIC) << 1 << 0 << 0;
        QTest::newRow("hsi band 3, zone past the picture") << format(5, 3, 1, IDT_UINT8, 0, CFA_HSI_MOSAIC) << 3 << 0 << 0;
        QTest::newRow("whole mosaic") << format(6, 4, 1, IDT_UINT8, 0, CFA_BAYER_BGGR) << -1 << 1 << 0;
        QTest::newRow("mono, odd width, padded") << format(9, 6, 1, IDT_UINT8, 3) << 0 << 1 << 0;
        QTest::newRow("plane 2") << format(5, 4, 3, IDT_UINT8, 0, CFA_NONE, DSF_PACKED, true) << 2 << 1 << 0;
    }

    void transformsChosenCell()
    {
        QFETCH(SxPicBufInfo, info);
        QFETCH(int, channel);
        QFETCH(int, step);
        QFETCH(int, first);

        CxImageMetadata meta;
        meta.setHsiCameraParams(camera2x2());
        SxNodeRun<CxFFT2DCnbl> run(info, meta);
        run.node->setChannel(channel);
        const auto value = [](quint32 x, quint32 y, quint32 c) { return double((x * 7 + y * 13 + c * 5) % 50); };
        CxPicture input(info, value, meta);
        std::unique_ptr<CxImageData> out(run.process(input));
        auto* spectrum = qobject_cast<CxFFTImageData*>(out.get());
        QVERIFY(spectrum);
        // Announced as 32-bit integers, holding floats.
        QCOMPARE(spectrum->picBufRe()->dataType, IDT_INT32);

        const int w = int(info.width), h = int(info.height);
        const int ox = step == 2 ? first % 2 : 0, oy = step == 2 ? first / 2 : 0;
        const quint32 plane = info.channels > 1 ? quint32(channel) : 0;
        cv::Mat src = cv::Mat::zeros(h, w, CV_32F);
        for (int y = oy, r = 0; step && y < h; y += step, ++r)
            for (int x = ox, c = 0; x < w; x += step, ++c)
                src.at<float>(r, c) = float(value(quint32(x), quint32(y), plane));
        if (!step) {
            SxNodeRun<CxExtractChannelCnbl> extract(info, meta);
            extract.node->setChannel(uint(channel));
            std::unique_ptr<CxImageData> band(extract.process(input));
            QVERIFY(band);
            for (quint32 y = 0; y < band->picBuf()->height; ++y)
                for (quint32 x = 0; x < band->picBuf()->width; ++x)
                    src.at<float>(int(y), int(x)) = float(sampleValue(*band->picBuf(), x, y));
        }
        cv::Mat dft;
        cv::dft(src, dft, cv::DFT_COMPLEX_OUTPUT);
        for (int fy = 0; fy < h; ++fy) {
            for (int fx = 0; fx < w; ++fx) {
                const cv::Vec2f expected = dft.at<cv::Vec2f>(fy, fx);
                QVERIFY(qAbs(centredAt(*spectrum->picBufRe(), fx, fy) - expected[0]) < 1e-2f);
                QVERIFY(qAbs(centredAt(*spectrum->picBufIm(), fx, fy) - expected[1]) < 1e-2f);
            }
        }
    }
};

QTEST_MAIN(TestFFT2D)
#include "tst_fft2d.moc"
