#include <CxHistoData.h>
#include <CxImageData.h>
#include <CxImageMetadata.h>
#include <CxLut.h>
#include <CxPicBufMeas.h>

#include <PictureKit.h>

#include <QtGui/QImage>
#include <QtTest/QtTest>

namespace {
using H = CxHistoData;

// Tight pictures: any read past the last row's samples is a sanitizer
// report. pad counts samples.
kit::CxPicture picture(ExImageDataType t, quint32 w, quint32 h, quint32 ch, quint32 pad = 0, quint32 bits = 0,
                       bool colour = false)
{
    return kit::CxPicture(kit::format(w, h, ch, t, pad * bytesPerSampleOf(t), CFA_NONE, DSF_PACKED, colour, bits));
}

struct RefHisto
{
    std::vector<std::vector<double>> values;  // per record
    std::vector<std::vector<quint64>> bins;
};

// Deliberately plain: one pass collecting values per record as documented.
RefHisto reference(const SxPicBuf& p, QRect roi, bool perCell, const CxHsiCameraParams& hsi)
{
    RefHisto ref;
    const bool colour = p.channels == 3 || (p.channels == 4 && p.isColor && p.bytesPerSample() <= 2);
    const CxHsiCameraParams::CxFilterZone* z = hsi.filterZone(0);
    int records = colour ? 3 : int(p.channels);
    if (perCell)
        records = p.colorFilterArray == CFA_HSI_MOSAIC ? z->patternWidth * z->patternHeight : 4;
    ref.values.resize(size_t(records));
    for (int y = roi.top(); y <= roi.bottom(); ++y)
        for (int x = roi.left(); x <= roi.right(); ++x)
            for (int c = 0; c < int(p.channels); ++c) {
                int rec = colour ? 2 - c : c;
                if (perCell && p.colorFilterArray == CFA_HSI_MOSAIC) {
                    const QRect zr = z->sensorRect(int(p.width), int(p.height));
                    if (!zr.contains(x, y))
                        continue;
                    rec = ((y - zr.top()) / z->cellHeight % z->patternHeight) * z->patternWidth
                          + (x - zr.left()) / z->cellWidth % z->patternWidth;
                } else if (perCell) {
                    rec = (y % 2) * 2 + x % 2;
                }
                const double v = kit::sampleValue(p, x, y, c);
                if (rec >= 0 && rec < records && std::isfinite(v))
                    ref.values[size_t(rec)].push_back(v);
            }
    return ref;
}
struct HistoCase { int type; uint channels; bool colour; QSize size; uint pad, bits; QRect roi; int cfa; };
struct CompatCase { bool rgb; int inType; uint inChannels, inBits; int outType; uint outChannels; QSize outSize; bool compatible; };
} // namespace

Q_DECLARE_METATYPE(HistoCase)
Q_DECLARE_METATYPE(CompatCase)

class TstHistoLut : public QObject
{
    Q_OBJECT
private slots:
    void histogramVsLoop_data()
    {
        QTest::addColumn<HistoCase>("c");  // cfa: with per-cell records when not 0
        const QRect all;  // empty: the whole picture
        QTest::newRow("u8 mono 1x1") << HistoCase{int(IDT_UINT8), 1u, false, QSize(1, 1), 0u, 0u, all, 0};
        QTest::newRow("u8 mono one row") << HistoCase{int(IDT_UINT8), 1u, false, QSize(37, 1), 0u, 0u, QRect(0, 0, -1, -1), 0};
        QTest::newRow("u8 mono one column") << HistoCase{int(IDT_UINT8), 1u, false, QSize(1, 29), 3u, 0u, all, 0};
        QTest::newRow("u8 mono odd padded roi") << HistoCase{int(IDT_UINT8), 1u, false, QSize(33, 17), 5u, 0u, QRect(3, 2, 21, 13), 0};
        QTest::newRow("u8 mono parallel") << HistoCase{int(IDT_UINT8), 1u, false, QSize(601, 451), 3u, 0u, all, 0};
        QTest::newRow("s8 mono padded") << HistoCase{int(IDT_INT8), 1u, false, QSize(19, 11), 1u, 0u, all, 0};
        QTest::newRow("u16 12 bits with overrange") << HistoCase{int(IDT_UINT16), 1u, false, QSize(301, 223), 1u, 12u, all, 0};
        QTest::newRow("s16 bgr roi clipped") << HistoCase{int(IDT_INT16), 3u, false, QSize(23, 19), 2u, 0u, QRect(5, 7, 100, 100), 0};
        QTest::newRow("u16 bgra colour") << HistoCase{int(IDT_UINT16), 4u, true, QSize(17, 9), 0u, 16u, all, 0};
        QTest::newRow("u8 bgr parallel") << HistoCase{int(IDT_UINT8), 3u, true, QSize(320, 300), 0u, 0u, all, 0};
        QTest::newRow("u8 four plain channels") << HistoCase{int(IDT_UINT8), 4u, false, QSize(13, 7), 2u, 0u, all, 0};
        QTest::newRow("u8 two channels") << HistoCase{int(IDT_UINT8), 2u, false, QSize(13, 7), 0u, 0u, all, 0};
        QTest::newRow("u32 20 bits") << HistoCase{int(IDT_UINT32), 1u, false, QSize(29, 31), 1u, 20u, all, 0};
        QTest::newRow("s32 mono parallel") << HistoCase{int(IDT_INT32), 1u, false, QSize(300, 250), 0u, 0u, all, 0};
        QTest::newRow("f32 mono with nan and inf, parallel") << HistoCase{int(IDT_FLOAT), 1u, false, QSize(301, 223), 3u, 0u, all, 0};
        QTest::newRow("f32 rgba not colour") << HistoCase{int(IDT_FLOAT), 4u, true, QSize(11, 5), 0u, 0u, QRect(1, 1, 9, 3), 0};
        QTest::newRow("u16 bayer cells odd roi") << HistoCase{int(IDT_UINT16), 1u, false, QSize(37, 21), 2u, 0u, QRect(3, 5, 21, 11), int(CFA_BAYER_GRBG)};
        QTest::newRow("u8 hsi cells of 2x2 in a zone") << HistoCase{int(IDT_UINT8), 1u, false, QSize(41, 33), 1u, 0u, all, int(CFA_HSI_MOSAIC)};
    }
    void histogramVsLoop()
    {
        QFETCH(HistoCase, c);
        const auto [type, channels, colour, size, pad, bits, roi, cfa] = c;
        const auto t = ExImageDataType(type);
        kit::CxPicture p = picture(t, quint32(size.width()), quint32(size.height()), channels, pad, bits, colour);
        p.pic().colorFilterArray = ExColorFilterArray(cfa);
        kit::fillRandom(p.pic(), uint(size.width() * 7919 + size.height() + type));
        if (t == IDT_FLOAT)  // neither counted nor spoiling the bins
            kit::setSample(p.pic(), 0, 0, 0, NAN), kit::setSample(p.pic(), 0, p.pic().height - 1, 0, -INFINITY);
        const CxImageMetadata meta =
            kit::mosaicMeta(CFA_HSI_MOSAIC, {kit::filterZone(QRect(QPoint(3, 2), QPoint(36, 30)), 3, 2, 2)});

        H h;
        H::ExHistoDataFlags flags = H::HDF_All;
        if (cfa)
            flags |= H::HDF_PerMosaicCell;
        QVERIFY(CxPicBufMeas::measureHistogram(h, p.pic(), roi, flags, &meta));
        const QRect clipped = !roi.isValid() ? QRect(0, 0, size.width(), size.height()) : roi.intersected(QRect(QPoint(0, 0), size));
        const RefHisto ref = reference(p.pic(), clipped, cfa != 0, meta.hsiCameraParams());
        QCOMPARE(h.channels(), int(ref.values.size()));

        const int typeBits = int(bytesPerSampleOf(t)) * 8;
        const int b = bits ? int(bits) : typeBits;
        const bool isFloat = t == IDT_FLOAT;
        QCOMPARE(h.binCount(), isFloat ? H::FloatBinCount : 1 << std::min(b, 16));
        QCOMPARE(h.binShift(), isFloat ? 0 : std::max(0, b - 16));
        double low = 0, inv = 0;
        if (isFloat) {
            double lo = INFINITY, hi = -INFINITY;
            for (const auto& v : ref.values)
                for (double s : v)
                    lo = std::min(lo, s), hi = std::max(hi, s);
            low = lo;
            inv = hi > lo ? 1.0 / ((hi - lo) / H::FloatBinCount) : 0.0;
            QCOMPARE(h.binLow(0), lo);
        }
        for (int r = 0; r < h.channels(); ++r) {
            const std::vector<double>& v = ref.values[size_t(r)];
            std::vector<quint64> bins(size_t(h.binCount()), 0);
            double mn = INFINITY, mx = -INFINITY, sum = 0, ss = 0;
            for (double s : v) {
                mn = std::min(mn, s);
                mx = std::max(mx, s);
                sum += s;
                qint64 bin = isFloat ? qint64((s - low) * inv) : (s < 0 ? 0 : qint64(s) >> h.binShift());
                ++bins[size_t(std::clamp<qint64>(bin, 0, h.binCount() - 1))];
            }
            const double mean = v.empty() ? 0 : sum / double(v.size());
            for (double s : v)
                ss += (s - mean) * (s - mean);
            const double sd = v.empty() ? 0 : std::sqrt(ss / double(v.size()));
            QVERIFY2(std::equal(bins.begin(), bins.end(), h.bins(r)), qPrintable(QString("record %1 bins").arg(r)));
            QCOMPARE(h.statistic(r, H::StatCount), double(v.size()));
            if (v.empty())
                continue;
            QCOMPARE(h.statistic(r, H::StatMin), mn);
            QCOMPARE(h.statistic(r, H::StatMax), mx);
            QVERIFY(qAbs(h.level(r) - mean) <= 1e-9 * std::max(1.0, qAbs(mean)));
            QVERIFY(qAbs(h.statistic(r, H::StatStdDev) - sd) <= 1e-9 * std::max(1.0, sd));
        }
    }

    void statisticsAndFlags_data()
    {
        QTest::addColumn<int>("type");
        QTest::addColumn<int>("flags");
        QTest::addColumn<QList<double>>("stats");  // min, max, mean, std dev, count
        QTest::addColumn<int>("binCount");
        const double sd = std::sqrt(125.0);
        // In this order: a pass without bins after one with them once wrote
        // through the earlier pass's tables (32-bit and float samples).
        for (const auto& [name, type] : {std::pair{"u8", IDT_UINT8}, std::pair{"u32", IDT_UINT32}, std::pair{"f32", IDT_FLOAT}}) {
            const int bins = type == IDT_FLOAT ? H::FloatBinCount : 256;
            QTest::addRow("%s all (15)", name) << int(type) << 15 << QList<double>{0, 30, 15, sd, 4} << bins;
            QTest::addRow("%s statistics only (14)", name) << int(type) << 14 << QList<double>{0, 30, 15, sd, 4} << 0;
            QTest::addRow("%s bins only", name) << int(type) << 1 << QList<double>{0, 0, 0, 0, 4} << bins;
            QTest::addRow("%s mean only", name) << int(type) << 4 << QList<double>{0, 0, 15, 0, 4} << 0;
        }
    }
    void statisticsAndFlags()
    {
        QFETCH(int, type);
        QFETCH(int, flags);
        QFETCH(QList<double>, stats);
        QFETCH(int, binCount);
        kit::CxPicture p = picture(ExImageDataType(type), 2, 2, 1, 0, 8);
        for (int i = 0; i < 4; ++i)
            kit::setSample(p.pic(), quint32(i % 2), quint32(i / 2), 0, 10.0 * i);
        CxImageData packet;
        packet.setPicBuf(p.pic());
        H h;
        QVERIFY(CxPicBufMeas::measureHistogram(h, &packet, QRect(0, 0, -1, -1), QFlags<H::ExHistoDataFlag>(flags)));
        QCOMPARE(h.channels(), 1);
        QCOMPARE(h.binCount(), binCount);
        for (int i = 0; i < H::StatisticsPerChannel; ++i)
            QVERIFY2(qAbs(h.statistics(0)[i] - stats[i]) < 1e-12, qPrintable(QString("statistic %1").arg(i)));
        if (binCount && type != IDT_FLOAT)
            QCOMPARE(h.bins(0)[10], quint64(1));
    }

    void badInputAnswersFalse_data()
    {
        QTest::addColumn<int>("type");
        QTest::addColumn<QRect>("roi");
        QTest::addColumn<bool>("noData");
        QTest::newRow("64-bit samples") << int(IDT_UINT64) << QRect() << false;
        QTest::newRow("double samples") << int(IDT_DOUBLE) << QRect() << false;
        QTest::newRow("unknown type") << 77 << QRect() << false;
        QTest::newRow("no pixels") << int(IDT_UINT8) << QRect() << true;
        QTest::newRow("rect outside") << int(IDT_UINT8) << QRect(20, 20, 4, 4) << false;
        QTest::newRow("rect left of picture") << int(IDT_UINT8) << QRect(-10, 0, 5, 5) << false;
    }
    void badInputAnswersFalse()
    {
        QFETCH(int, type);
        QFETCH(QRect, roi);
        QFETCH(bool, noData);
        kit::CxPicture p = picture(ExImageDataType(type), 8, 8, 1);
        if (noData)
            p.pic().data = nullptr;
        H h;
        h.reset(2, 4, 0, H::HDF_All);
        QVERIFY(!CxPicBufMeas::measureHistogram(h, p.pic(), roi, H::HDF_All, nullptr));
        QVERIFY(h.isEmpty());
        QVERIFY(!CxPicBufMeas::measureHistogram(h, static_cast<const CxImageData*>(nullptr), QRect(), H::HDF_All));
    }

    // ---- look-up tables ----

    void lutWindowGamma_data()
    {
        QTest::addColumn<int>("type");
        QTest::addColumn<uint>("bits");
        QTest::addColumn<uint>("outBits");
        QTest::addColumn<QList<double>>("rec");  // srcMin, srcMax, gamma, dstMin, dstMax
        QTest::newRow("u8 identity") << int(IDT_UINT8) << 8u << 8u << QList<double>{0, 255, 1, 0, 255};
        QTest::newRow("u8 window") << int(IDT_UINT8) << 8u << 8u << QList<double>{40, 200, 1, 0, 255};
        QTest::newRow("u8 gamma 2.2") << int(IDT_UINT8) << 8u << 8u << QList<double>{10, 250, 2.2, 0, 255};
        QTest::newRow("u8 gamma 0.4 inverted") << int(IDT_UINT8) << 8u << 8u << QList<double>{0, 255, 0.4, 255, 0};
        QTest::newRow("u8 gamma 0 counts as 1") << int(IDT_UINT8) << 8u << 8u << QList<double>{5, 100, 0, 0, 255};
        QTest::newRow("u8 empty window thresholds") << int(IDT_UINT8) << 8u << 8u << QList<double>{100, 100, 1, 20, 200};
        QTest::newRow("u16 12 bits, overrange saturates") << int(IDT_UINT16) << 12u << 12u << QList<double>{100, 3000, 1.5, 0, 4095};
        QTest::newRow("u16 to 8 bits") << int(IDT_UINT16) << 16u << 8u << QList<double>{1000, 60000, 1, 0, 255};
        QTest::newRow("u8 to 16 bits") << int(IDT_UINT8) << 8u << 16u << QList<double>{0, 255, 1, 0, 65535};
        QTest::newRow("s16 negative samples") << int(IDT_INT16) << 16u << 16u << QList<double>{-1000, 1000, 1, 0, 65535};
        QTest::newRow("s8 dst beyond range clamps") << int(IDT_INT8) << 8u << 8u << QList<double>{-50, 50, 1, -100, 400};
    }
    void lutWindowGamma()
    {
        QFETCH(int, type);
        QFETCH(uint, bits);
        QFETCH(uint, outBits);
        QFETCH(QList<double>, rec);
        const auto t = ExImageDataType(type);
        CxLut lut(bits, 1, false, t);
        lut.setOutputBits(outBits);
        CxLut::CxCompContrast& c = lut.compContrast(0);
        c = CxLut::CxCompContrast{qint64(rec[0]), qint64(rec[1]), rec[2], qint64(rec[3]), qint64(rec[4])};
        QVERIFY(lut.alloc());

        // Every value of the type, in an odd-sized padded picture.
        const bool in16 = bytesPerSampleOf(t) == 2;
        const quint32 n = in16 ? 65536 : 256;
        const quint32 w = in16 ? 509 : 131;  // 8-bit rows span whole 64-sample blocks and a tail
        const quint32 h = (n + w - 1) / w;
        kit::CxPicture in = picture(t, w, h, 1, 3, bits);
        for (quint32 i = 0; i < w * h; ++i) {
            const quint32 k = i % n;
            if (in16)
                in.pic().row<quint16>(int(i / w))[i % w] = quint16(k);
            else
                in.pic().row<quint8>(int(i / w))[i % w] = quint8(k);
        }
        const ExImageDataType outType = outBits > 8 ? IDT_UINT16 : IDT_UINT8;
        kit::CxPicture out = picture(outType, w, h, 1, 5, outBits);
        QVERIFY(lut.isCompatibleWith(&out.pic(), &in.pic()));
        QVERIFY(lut.apply(&out.pic(), &in.pic(), nullptr));

        const double outFull = double((1 << outBits) - 1);
        const double g = rec[2] > 0 ? rec[2] : 1.0;
        for (quint32 i = 0; i < w * h; ++i) {
            const quint32 k = i % n;
            const double v = t == IDT_INT8 ? double(qint8(k)) : t == IDT_INT16 ? double(qint16(k)) : double(k);
            double u = rec[1] > rec[0] ? std::clamp((v - rec[0]) / (rec[1] - rec[0]), 0.0, 1.0) : (v > rec[0] ? 1.0 : 0.0);
            u = std::pow(u, 1.0 / g);
            const double want = std::clamp(std::floor(rec[3] + (rec[4] - rec[3]) * u + 0.5), 0.0, outFull);
            const double got = outType == IDT_UINT16 ? out.pic().row<quint16>(int(i / w))[i % w] : out.pic().row<quint8>(int(i / w))[i % w];
            if (got != want)
                QFAIL(qPrintable(QString("sample %1: got %2, want %3").arg(v).arg(got).arg(want)));
            QCOMPARE(double(lut.map(0, qint64(v))), want);
        }
    }

    void lutColourChannels()
    {
        // Independent records per stored channel; alpha of a colour picture
        // passes through.
        CxLut lut(8, 4, true, IDT_UINT8);
        lut.setIndependentChannels(true);
        lut.compContrast(0) = {0, 255, 1, 255, 0};
        lut.compContrast(1) = {0, 127, 1, 0, 255};
        lut.compContrast(2) = {0, 255, 1, 0, 0};
        QVERIFY(lut.alloc());
        kit::CxPicture in = picture(IDT_UINT8, 5, 3, 4, 2, 8, true), out = picture(IDT_UINT8, 5, 3, 4, 1, 8, true);
        for (int y = 0; y < 3; ++y)
            for (int i = 0; i < 20; ++i)
                in.pic().row<quint8>(y)[i] = quint8(y * 20 + i * 3);
        QVERIFY(lut.apply(&out.pic(), &in.pic(), nullptr));
        for (int y = 0; y < 3; ++y)
            for (int x = 0; x < 5; ++x) {
                const quint8* s = in.pic().row<quint8>(y) + 4 * x;
                const quint8* d = out.pic().row<quint8>(y) + 4 * x;
                QCOMPARE(int(d[0]), 255 - s[0]);
                QCOMPARE(int(d[1]), std::min(255, int(std::floor(s[1] * 255.0 / 127.0 + 0.5))));
                QCOMPARE(int(d[2]), 0);
                QCOMPARE(d[3], s[3]);
            }
    }

    // 8-bit pixels of four samples, or grey into colour, go 16 pixels at a
    // time with a tail: every output byte against the table's own map().
    void lutBytesIntoFourTables_data()
    {
        QTest::addColumn<bool>("rgb");
        QTest::addColumn<uint>("channels");
        QTest::newRow("rgba, alpha passes") << false << 4u;
        QTest::newRow("rgba into rgb, alpha opaque") << true << 4u;
        QTest::newRow("grey into pseudo colour") << true << 1u;
    }
    void lutBytesIntoFourTables()
    {
        QFETCH(bool, rgb);
        QFETCH(uint, channels);
        CxLut lut(8, channels, channels == 4, IDT_UINT8);
        lut.setIndependentChannels(true);
        lut.compContrast(0) = {10, 200, 1.7, 0, 255};
        if (channels == 4) {
            lut.compContrast(1) = {0, 255, 1, 255, 0};
            lut.compContrast(2) = {60, 61, 1, 0, 255};
        }
        QVERIFY(rgb ? lut.allocRgb(32) : lut.alloc());
        lut.setPseudoColor(CxLut::PseudoViridis);
        const quint32 w = 37, h = 3;
        kit::CxPicture in = picture(IDT_UINT8, w, h, channels, 3, 8, channels == 4);
        kit::CxPicture out = picture(IDT_UINT8, w, h, 4, 5, 8, true);
        for (quint32 y = 0; y < h; ++y)
            for (quint32 i = 0; i < w * channels; ++i)
                in.pic().row<quint8>(int(y))[i] = quint8(y * 97 + i * 7);
        QVERIFY(lut.apply(&out.pic(), &in.pic(), nullptr));
        for (quint32 y = 0; y < h; ++y)
            for (quint32 x = 0; x < w; ++x) {
                const quint8* s = in.pic().row<quint8>(int(y)) + x * channels;
                const quint8* d = out.pic().row<quint8>(int(y)) + 4 * x;
                for (int c = 0; c < 4; ++c) {
                    const quint32 want = channels == 1 ? quint8(lut.map(0, s[0]) >> (8 * c))
                                         : rgb && c == 3 ? 255u
                                                         : lut.map(c, s[c]);
                    QCOMPARE(quint32(d[c]), want);
                }
            }
    }

    void pseudoColourEndpoints_data()
    {
        QTest::addColumn<int>("index");
        QTest::addColumn<int>("level");
        QTest::addColumn<QColor>("colour");
        QTest::addColumn<int>("tolerance");
        QTest::newRow("none is grey") << -1 << 200 << QColor(200, 200, 200) << 0;
        QTest::newRow("grey low") << int(CxLut::PseudoGrey) << 0 << QColor(0, 0, 0) << 0;
        QTest::newRow("grey high") << int(CxLut::PseudoGrey) << 255 << QColor(255, 255, 255) << 0;
        QTest::newRow("rainbow low") << int(CxLut::PseudoRainbow) << 0 << QColor(0, 0, 128) << 1;
        QTest::newRow("rainbow middle") << int(CxLut::PseudoRainbow) << 128 << QColor(130, 255, 125) << 3;
        QTest::newRow("rainbow high") << int(CxLut::PseudoRainbow) << 255 << QColor(128, 0, 0) << 1;
        QTest::newRow("hot low") << int(CxLut::PseudoHot) << 0 << QColor(3, 0, 0) << 1;
        QTest::newRow("hot high") << int(CxLut::PseudoHot) << 255 << QColor(255, 255, 255) << 0;
        // Published viridis entries 0, 128 and 255.
        QTest::newRow("viridis low") << int(CxLut::PseudoViridis) << 0 << QColor(68, 1, 84) << 3;
        QTest::newRow("viridis middle") << int(CxLut::PseudoViridis) << 128 << QColor(33, 144, 141) << 3;
        QTest::newRow("viridis high") << int(CxLut::PseudoViridis) << 255 << QColor(253, 231, 37) << 4;
        QTest::newRow("out of range is grey") << 99 << 77 << QColor(77, 77, 77) << 0;
    }
    void pseudoColourEndpoints()
    {
        QFETCH(int, index);
        QFETCH(int, level);
        QFETCH(QColor, colour);
        QFETCH(int, tolerance);
        const QRgb got = CxLut::pseudoColorEntry(index, level);
        QCOMPARE(qAlpha(got), 255);
        const bool close = qAbs(qRed(got) - colour.red()) <= tolerance && qAbs(qGreen(got) - colour.green()) <= tolerance
                           && qAbs(qBlue(got) - colour.blue()) <= tolerance;
        QVERIFY2(close, qPrintable(QString("got %1,%2,%3").arg(qRed(got)).arg(qGreen(got)).arg(qBlue(got))));
        QVERIFY(CxLut::pseudoColorLutCount() >= 4);
    }

    void allocRgbIsRgb32()
    {
        // The widget's icon: ramp 0, 3, ... 251 over 80 x 16, pseudo colour
        // chosen after allocRgb.
        CxLut lut(8, 1, false, IDT_UINT8);
        QVERIFY(lut.allocRgb(32));
        lut.setPseudoColor(CxLut::PseudoHot);
        kit::CxPicture in = picture(IDT_UINT8, 80, 16, 1), out = picture(IDT_UINT8, 80, 16, 4);
        for (int y = 0; y < 16; ++y)
            for (int x = 0; x < 80; ++x)
                in.pic().row<quint8>(y)[x] = quint8(x * 255 / 80);
        QVERIFY(lut.apply(&out.pic(), &in.pic(), nullptr));
        for (int x : {0, 1, 40, 79})  // stored alpha too, not only what QImage shows
            QCOMPARE(out.pic().row<quint32>(15)[x], CxLut::pseudoColorEntry(CxLut::PseudoHot, x * 255 / 80));

        // Colour input keeps its blue, green, red order; a 16-bit window maps to 8 bits.
        CxLut colour(12, 3, true, IDT_UINT16);
        colour.compContrast(0) = {0, 4095, 1, 0, 4095};
        QVERIFY(colour.allocRgb(32));
        kit::CxPicture cin = picture(IDT_UINT16, 3, 1, 3, 1, 12, true), cout = picture(IDT_UINT8, 3, 1, 4);
        const quint16 bgr[3] = {4095, 2048, 0};
        for (int x = 0; x < 3; ++x)
            std::copy(bgr, bgr + 3, cin.pic().row<quint16>(0) + 3 * x);
        QVERIFY(colour.apply(&cout.pic(), &cin.pic(), nullptr));
        const QImage cimg(cout.pic().data, 3, 1, int(cout.pic().linePitch), QImage::Format_RGB32);
        QCOMPARE(cimg.pixel(2, 0), qRgb(0, 128, 255));

        QVERIFY(!CxLut(8, 1, false, IDT_UINT8).allocRgb(24));
        QVERIFY(!CxLut(8, 2, false, IDT_UINT8).allocRgb(32));
        QVERIFY(!CxLut(32, 1, false, IDT_FLOAT).alloc());
        QVERIFY(!CxLut(32, 1, false, IDT_UINT32).alloc());
    }

    void compatibility_data()
    {
        QTest::addColumn<CompatCase>("c");
        const QSize s(9, 7);
        QTest::newRow("same format") << CompatCase{false, int(IDT_UINT16), 1u, 12u, int(IDT_UINT16), 1u, s, true};
        QTest::newRow("other type in") << CompatCase{false, int(IDT_INT16), 1u, 12u, int(IDT_UINT16), 1u, s, false};
        QTest::newRow("other bits in") << CompatCase{false, int(IDT_UINT16), 1u, 10u, int(IDT_UINT16), 1u, s, false};
        QTest::newRow("other channels in") << CompatCase{false, int(IDT_UINT16), 3u, 12u, int(IDT_UINT16), 3u, s, false};
        QTest::newRow("8-bit out for 16-bit table") << CompatCase{false, int(IDT_UINT16), 1u, 12u, int(IDT_UINT8), 1u, s, false};
        QTest::newRow("other size out") << CompatCase{false, int(IDT_UINT16), 1u, 12u, int(IDT_UINT16), 1u, QSize(9, 6), false};
        QTest::newRow("rgb out") << CompatCase{true, int(IDT_UINT16), 1u, 12u, int(IDT_UINT8), 4u, s, true};
        QTest::newRow("rgb into 16-bit out") << CompatCase{true, int(IDT_UINT16), 1u, 12u, int(IDT_UINT16), 4u, s, false};
        QTest::newRow("rgb into 3 channels") << CompatCase{true, int(IDT_UINT16), 1u, 12u, int(IDT_UINT8), 3u, s, false};
    }
    void compatibility()
    {
        QFETCH(CompatCase, c);
        const auto [rgb, inType, inChannels, inBits, outType, outChannels, outSize, compatible] = c;
        CxLut lut(12, 1, false, IDT_UINT16);
        kit::CxPicture in = picture(ExImageDataType(inType), 9, 7, inChannels, 0, inBits);
        kit::CxPicture out = picture(ExImageDataType(outType), quint32(outSize.width()), quint32(outSize.height()), outChannels);
        QVERIFY(!lut.isCompatibleWith(&out.pic(), &in.pic()));  // nothing built yet
        QVERIFY(rgb ? lut.allocRgb(32) : lut.alloc());
        QCOMPARE(lut.isCompatibleWith(&out.pic(), &in.pic()), compatible);
        const kit::CxPicture before = out;
        QCOMPARE(lut.apply(&out.pic(), &in.pic(), nullptr), compatible);
        if (!compatible)
            QVERIFY(out.memory() == before.memory());
        QVERIFY(!lut.isCompatibleWith(nullptr, &in.pic()));
        QVERIFY(!lut.isCompatibleWith(&out.pic(), nullptr));
    }
};

QTEST_GUILESS_MAIN(TstHistoLut)
#include "tst_histolut.moc"
