#include "ExtractChannelCnbl.h"
#include "NodeTestKit.h"

#include <QtCore/QScopedPointer>
#include <QtTest/QtTest>

#include <limits>

using namespace nodetest;
using Run = SxNodeRun<CxExtractChannelCnbl>;

namespace {

// Two-zone camera over a 24 x 16 sensor. Zone 0: columns 0..11, a 4 x 2
// pattern of single pixels (bands 0..7). Zone 1: columns 12..23, a 2 x 2
// pattern of 2 x 2 pixel cells (bands 8..11). Wavelengths are out of pattern
// order so that the listing has something to sort.
CxHsiCameraParams twoZoneCamera()
{
    CxHsiCameraParams hsi;
    hsi.setFilterZones({filterZone(QRect(0, 0, 12, 16), 4, 2, 1, "A", {600, 500, 700, 450, 650, 550, 750, 480}),
                        filterZone(QRect(12, 0, 12, 16), 2, 2, 2, "B", {900, 800, 850, 820})});
    return hsi;
}

CxImageMetadata metaWith(ExColorFilterArray cfa, const QStringList& names = {},
                         const CxHsiCameraParams& hsi = CxHsiCameraParams())
{
    CxImageMetadata m = mosaicMeta(cfa, hsi.filterZones());
    m.setChannelNames(names);
    return m;
}

CxPicture positionCoded(const SxPicBufInfo& f, const CxImageMetadata& meta = CxImageMetadata())
{
    CxPicture input(f, {}, meta);
    input.fillPositions();
    return input;
}

// Compares every output sample with the input sample that ref names; a null
// answer means the sample must be 0. Returns the first mismatch.
using Reference = std::function<const uchar*(quint32 x, quint32 y)>;
QString firstMismatch(const SxPicBuf& out, const Reference& ref)
{
    static const uchar zeros[8] = {};
    for (quint32 y = 0; y < out.height; ++y)
        for (quint32 x = 0; x < out.width; ++x) {
            const uchar* want = ref(x, y);
            if (std::memcmp(sampleAt(out, x, y), want ? want : zeros, out.bytesPerSample()) != 0)
                return QStringLiteral("sample (%1, %2)").arg(x).arg(y);
        }
    return QString();
}

void checkFloatRange(const SxPicBuf& out)
{
    if (out.dataType != IDT_FLOAT || out.width == 0 || out.height == 0)
        return;
    float lo = std::numeric_limits<float>::max(), hi = -lo;
    for (quint32 y = 0; y < out.height; ++y)
        for (quint32 x = 0; x < out.width; ++x) {
            const float v = float(sampleValue(out, x, y));
            lo = qMin(lo, v);
            hi = qMax(hi, v);
        }
    QCOMPARE(out.floatMin, lo);
    QCOMPARE(out.floatMax, hi);
}

} // namespace

struct SxListCase { bool known; SxPicBufInfo in; CxImageMetadata meta; uint channel; QStringList names; QList<int> indices; int current; };
Q_DECLARE_METATYPE(SxListCase)

struct SxFormatCase { SxPicBufInfo in; CxImageMetadata meta; uint channel; uint component; QSize size; uint pitch; };
Q_DECLARE_METATYPE(SxFormatCase)

class TestExtractChannel : public QObject
{
    Q_OBJECT

private slots:
    void outputFormat_data()
    {
        QTest::addColumn<SxFormatCase>("row");

        const CxImageMetadata names3 = metaWith(CFA_NONE, {"x", "y", "z"});
        const CxImageMetadata hsi = metaWith(CFA_HSI_MOSAIC, {"raw"}, twoZoneCamera());
        const SxPicBufInfo hsiIn = format(24, 16, 1, IDT_UINT8, 0, CFA_HSI_MOSAIC);

        QTest::newRow("mono u8 321 wide")
            << SxFormatCase{format(321, 5, 1, IDT_UINT8, 7), names3, 4u, 0u, QSize(321, 5), 324u};
        QTest::newRow("rgb channel 7 is plane 2")
            << SxFormatCase{format(10, 4, 3, IDT_UINT16, 2, CFA_NONE, DSF_PACKED, true), names3, 7u, 2u, QSize(10, 4),
                20u};
        QTest::newRow("no channels keeps index")
            << SxFormatCase{format(4, 4, 0, IDT_UINT8), names3, 9u, 9u, QSize(4, 4), 4u};
        QTest::newRow("bayer 640x480 channel 5 is 3")
            << SxFormatCase{format(640, 480, 1, IDT_UINT16, 0, CFA_BAYER_RGGB), metaWith(CFA_BAYER_RGGB, {"raw"}), 5u,
                3u, QSize(320, 240), 640u};
        QTest::newRow("bayer 5x3 u8")
            << SxFormatCase{format(5, 3, 1, IDT_UINT8, 0, CFA_RGBR), metaWith(CFA_RGBR), 1u, 1u, QSize(2, 1), 4u};
        QTest::newRow("bayer not raw stays whole")
            << SxFormatCase{format(7, 5, 1, IDT_UINT8, 0, CFA_BAYER_RGGB, DSF_NOT_RAW),
                metaWith(CFA_BAYER_RGGB, {"raw"}), 3u, 0u, QSize(7, 5), 8u};
        QTest::newRow("unknown filter array is mono")
            << SxFormatCase{format(6, 2, 1, IDT_UINT8, 0, ExColorFilterArray(8)), CxImageMetadata(), 2u, 0u,
                QSize(6, 2), 8u};
        QTest::newRow("hsi 1x1 cells") << SxFormatCase{hsiIn, hsi, 5u, 5u, QSize(3, 8), 4u};
        QTest::newRow("hsi 2x2 cells u16")
            << SxFormatCase{format(24, 16, 1, IDT_UINT16, 0, CFA_HSI_MOSAIC), hsi, 9u, 9u, QSize(6, 8), 12u};
        QTest::newRow("hsi index beyond the bands") << SxFormatCase{hsiIn, hsi, 99u, 11u, QSize(6, 8), 8u};

        CxHsiCameraParams wholeSensor = twoZoneCamera();
        QList<CxHsiCameraParams::CxFilterZone> zones = wholeSensor.filterZones();
        zones[0].rect = QRect();  // inverted: measured on the input
        wholeSensor.setFilterZones(zones);
        QTest::newRow("hsi inverted zone")
            << SxFormatCase{format(30, 9, 1, IDT_UINT8, 0, CFA_HSI_MOSAIC), metaWith(CFA_HSI_MOSAIC, {}, wholeSensor),
                0u, 0u, QSize(7, 4), 8u};
        QTest::newRow("hsi without camera")
            << SxFormatCase{hsiIn, metaWith(CFA_HSI_MOSAIC), 3u, 3u, QSize(24, 16), 24u};
    }

    void outputFormat()
    {
        QFETCH(SxFormatCase, row);
        const auto& [in, meta, channel, component, size, pitch] = row;

        CxExtractChannelCnbl node;
        node.setChannel(channel);
        QCOMPARE(node.extractingComponentIndex(in, &meta), component);
        QCOMPARE(node.channel(), channel);

        SxPicBufInfo out;
        out.userFlags = 0xdead;
        CxImageMetadata outMeta;
        QVERIFY(node.queryOutputImageInfo(in, out, &meta, &outMeta));
        QCOMPARE(QSize(int(out.width), int(out.height)), size);
        QCOMPARE(out.linePitch, pitch);
        QCOMPARE(out.channels, 1u);
        QVERIFY(!out.isColor);
        QCOMPARE(out.dataType, in.dataType);
        QCOMPARE(out.storageFormat, in.storageFormat);
        QCOMPARE(out.bitsPerSample, in.bitsPerSample);
        QCOMPARE(out.userFlags, in.userFlags);
        const bool mosaicIn = in.channels == 1 && in.storageFormat != DSF_NOT_RAW
            && (isTwoByTwoMosaic(in.colorFilterArray) || in.colorFilterArray == CFA_HSI_MOSAIC);
        QCOMPARE(out.colorFilterArray, mosaicIn ? CFA_NONE : in.colorFilterArray);

        QCOMPARE(outMeta.cameraName(), meta.cameraName());
        QCOMPARE(outMeta.colorFilterArray(), mosaicIn ? CFA_NONE : meta.colorFilterArray());
        // A 2x2 mosaic loses its channel names, a band its camera description.
        const bool hsi = mosaicIn && in.colorFilterArray == CFA_HSI_MOSAIC;
        QCOMPARE(outMeta.channelNames(), mosaicIn && !hsi ? QStringList() : meta.channelNames());
        QVERIFY(outMeta.hsiCameraParams() == (hsi ? CxHsiCameraParams() : meta.hsiCameraParams()));
    }

    void pixels_data()
    {
        QTest::addColumn<SxPicBufInfo>("in");
        QTest::addColumn<uint>("channel");

        // Planes and plain pictures go through the host's channel extraction.
        QTest::newRow("mono u8 padded") << format(5, 3, 1, IDT_UINT8, 3) << 2u;
        QTest::newRow("rgb u8 channel 7 is plane 2") << format(7, 5, 3, IDT_UINT8, 1, CFA_NONE, DSF_PACKED, true) << 7u;
        QTest::newRow("rgba float plane 0") << format(3, 3, 4, IDT_FLOAT, 4, CFA_NONE, DSF_PACKED, true) << 0u;
        QTest::newRow("two channels s16") << format(5, 5, 2, IDT_INT16, 2) << 1u;
        QTest::newRow("bayer not raw, whole") << format(9, 7, 1, IDT_UINT8, 3, CFA_BAYER_GRBG, DSF_NOT_RAW) << 3u;

        // Every cell of every type the node's own kernel handles, at even and at
        // odd padded sizes.
        const ExImageDataType kernelTypes[] = {IDT_UINT8, IDT_UINT16, IDT_UINT32, IDT_FLOAT};
        for (uint i = 0; i < 4; ++i) {
            const ExImageDataType t = kernelTypes[i];
            QTest::addRow("%s 640x480 cell %u", qPrintable(dataTypeName(t)), i)
                << format(640, 480, 1, t, 0, CFA_BAYER_BGGR) << i;
            QTest::addRow("%s 5x3 padded cell %u", qPrintable(dataTypeName(t)), 3 - i)
                << format(5, 3, 1, t, 3, CFA_CMYG) << 3 - i;
            // One band of each zone.
            QTest::addRow("%s band %u", qPrintable(dataTypeName(t)), 2 * i)
                << format(24, 16, 1, t, 2, CFA_HSI_MOSAIC) << 2 * i;
            QTest::addRow("%s band %u", qPrintable(dataTypeName(t)), 8 + i)
                << format(24, 16, 1, t, 2, CFA_HSI_MOSAIC) << 8 + i;
        }
        QTest::newRow("bayer u8 channel 5 is cell 3") << format(8, 6, 1, IDT_UINT8, 0, CFA_BAYER_RGGB) << 5u;
        QTest::newRow("bayer u16 one row") << format(7, 1, 1, IDT_UINT16, 0, CFA_BAYER_GBRG) << 1u;
        // The host's fallback wants a same-sized output, so no frame comes out.
        QTest::newRow("bayer s16 through the host extraction") << format(6, 4, 1, IDT_INT16, 0, CFA_BAYER_RGGB) << 1u;
        QTest::newRow("bayer double through the host extraction") << format(6, 4, 1, IDT_DOUBLE, 0, CFA_BAYER_RGGB) << 0u;
        // A picture smaller than its zones: what lies outside it reads as 0.
        QTest::newRow("u8 cut picture band 7") << format(11, 15, 1, IDT_UINT8, 1, CFA_HSI_MOSAIC) << 7u;
        QTest::newRow("u16 cut picture band 10") << format(19, 9, 1, IDT_UINT16, 0, CFA_HSI_MOSAIC) << 10u;
        QTest::newRow("band 40 is the last") << format(24, 16, 1, IDT_UINT8, 0, CFA_HSI_MOSAIC) << 40u;
    }

    // Each output sample against the input sample a naive reference names.
    void pixels()
    {
        QFETCH(SxPicBufInfo, in);
        QFETCH(uint, channel);

        const bool hsi = in.colorFilterArray == CFA_HSI_MOSAIC;
        const bool cells = !hsi && in.storageFormat != DSF_NOT_RAW && isTwoByTwoMosaic(in.colorFilterArray);
        const CxImageMetadata meta = hsi ? metaWith(CFA_HSI_MOSAIC, {}, twoZoneCamera())
                                         : metaWith(cells ? in.colorFilterArray : CFA_NONE, {"a", "b"});
        const CxPicture input = positionCoded(in, meta);
        Run run(in, meta);
        run.node->setChannel(channel);
        QScopedPointer<CxImageData> out(run.process(input));
        QVERIFY2(out, qPrintable(run.chain.lastError()));
        const SxPicBuf& pic = *out->picBuf();
        QCOMPARE(pic.linePitch % 4, 0u);

        Reference ref;
        if (hsi) {
            // Zone 0 (single pixels, 4 x 2 pattern): every 4th column and 2nd row
            // from the band's pixel. Zone 1 (2 x 2 cells, 2 x 2 pattern, from
            // column 12): pairs of columns 4 apart, pairs of rows 8 apart.
            QCOMPARE(QSize(int(pic.width), int(pic.height)), qMin(channel, 11u) < 8 ? QSize(3, 8) : QSize(6, 8));
            ref = [&, band = qMin(channel, 11u)](quint32 x, quint32 y) -> const uchar* {
                quint64 sx, sy;
                if (band < 8) {
                    sx = band % 4 + 4 * x;
                    sy = band / 4 + 2 * y;
                } else {
                    const quint32 b = band - 8;
                    sx = 12 + (b % 2) * 2 + (x / 2) * 4 + x % 2;
                    sy = (b / 2) * 2 + (y / 2) * 8 + y % 2;
                }
                return sx < in.width && sy < in.height ? sampleAt(input.pic(), sx, sy) : nullptr;
            };
        } else if (cells) {
            QCOMPARE(QSize(int(pic.width), int(pic.height)), QSize(int(in.width / 2), int(in.height / 2)));
            ref = [&, cell = qMin(channel, 3u)](quint32 x, quint32 y) {
                return sampleAt(input.pic(), 2 * x + (cell & 1), 2 * y + cell / 2);
            };
        } else {
            QCOMPARE(QSize(int(pic.width), int(pic.height)), QSize(int(in.width), int(in.height)));
            ref = [&, plane = in.channels ? qMin(channel, in.channels - 1) : 0](quint32 x, quint32 y) {
                return sampleAt(input.pic(), x, y, plane);
            };
        }
        const QString bad = firstMismatch(pic, ref);
        QVERIFY2(bad.isEmpty(), qPrintable(bad));
        if (hsi || cells)  // the node's own kernels, not the host's plane copy
            checkFloatRange(pic);
    }

    void channelList_data()
    {
        QTest::addColumn<SxListCase>("row");

        const CxImageMetadata none;
        const QList<int> four{0, 1, 2, 3};
        auto bayer = [](ExColorFilterArray cfa) { return format(8, 6, 1, IDT_UINT8, 0, cfa); };
        auto rgb = [](quint32 n, bool isColor) { return format(4, 4, n, IDT_UINT8, 0, CFA_NONE, DSF_PACKED, isColor); };

        QTest::newRow("no input yet") << SxListCase{false, SxPicBufInfo(), none, 2u, QStringList(), QList<int>(), 2};
        QTest::newRow("mono") << SxListCase{true, format(4, 4, 1, IDT_UINT8), none, 0u, {"Mono"}, {0}, 0};
        // Colour pictures are stored blue first.
        QTest::newRow("rgb channel 7")
            << SxListCase{true, rgb(3, true), none, 7u, {"Blue", "Green", "Red"}, {0, 1, 2}, 2};
        QTest::newRow("rgba") << SxListCase{true, rgb(4, true), none, 1u, {"Blue", "Green", "Red", "Alpha"}, four, 1};
        QTest::newRow("three numbered")
            << SxListCase{true, rgb(3, false), none, 0u, {"Channel 0", "Channel 1", "Channel 2"},
                QList<int>{0, 1, 2}, 0};
        QTest::newRow("five colour channels numbered")
            << SxListCase{true, rgb(5, true), none, 4u,
                QStringList{"Channel 0", "Channel 1", "Channel 2", "Channel 3", "Channel 4"}, {0, 1, 2, 3, 4},
                4};
        QTest::newRow("metadata names")
            << SxListCase{true, rgb(3, true), metaWith(CFA_NONE, {"x", "y", "z"}), 1u, {"x", "y", "z"},
                QList<int>{0, 1, 2}, 1};
        QTest::newRow("metadata names of another count")
            << SxListCase{true, rgb(2, false), metaWith(CFA_NONE, {"x", "y", "z"}), 1u,
                QStringList{"Channel 0", "Channel 1"}, {0, 1}, 1};
        QTest::newRow("one named channel")
            << SxListCase{true, bayer(CFA_BAYER_RGGB), metaWith(CFA_BAYER_RGGB, {"raw"}), 3u, {"raw"},
                QList<int>{0}, 3};
        const struct {
            ExColorFilterArray cfa;
            QStringList names;
        } cells[] = {
            {CFA_BAYER_RGGB, {"Red", "Green 1", "Green 2", "Blue"}},
            {CFA_BAYER_GRBG, {"Green 1", "Red", "Blue", "Green 2"}},
            {CFA_BAYER_GBRG, {"Green 1", "Blue", "Red", "Green 2"}},
            {CFA_BAYER_BGGR, {"Blue", "Green 1", "Green 2", "Red"}},
            {CFA_CMYG, {"Cyan", "Magenta", "Yellow", "Green"}},
            {CFA_RGBR, {"Red 1", "Green", "Blue", "Red 2"}},
        };
        for (const auto& c : cells)
            QTest::addRow("mosaic %d channel 9", int(c.cfa))
                << SxListCase{true, bayer(c.cfa), none, 9u, c.names, four, 3};
        QTest::newRow("mosaic not raw")
            << SxListCase{true, format(8, 6, 1, IDT_UINT8, 0, CFA_BAYER_RGGB, DSF_NOT_RAW), none, 2u,
                QStringList{"Mono"}, {0}, 0};
        QTest::newRow("unknown filter array")
            << SxListCase{true, bayer(ExColorFilterArray(9)), none, 0u, {"Mono"}, {0}, 0};
        QTest::newRow("hsi by wavelength, zone by zone")
            << SxListCase{true, format(24, 16, 1, IDT_UINT8, 0, CFA_HSI_MOSAIC),
                metaWith(CFA_HSI_MOSAIC, {}, twoZoneCamera()), 2u,
                QStringList{"A3", "A7", "A1", "A5", "A0", "A4", "A2", "A6", "B1", "B3", "B2", "B0"},
                QList<int>{3, 7, 1, 5, 0, 4, 2, 6, 9, 11, 10, 8}, 2};
        QTest::newRow("hsi without camera")
            << SxListCase{true, format(24, 16, 1, IDT_UINT8, 0, CFA_HSI_MOSAIC), metaWith(CFA_HSI_MOSAIC), 2u,
                QStringList{"Mono"}, {0}, 2};
    }

    // The list the widget and the quick buttons offer, and the buttons themselves.
    void channelList()
    {
        QFETCH(SxListCase, row);
        const auto& [known, in, meta, channel, names, indices, current] = row;

        CxExtractChannelCnbl node;
        node.setChannel(channel);
        if (known) {
            SxPicBufInfo out;
            CxImageMetadata outMeta;
            node.queryOutputImageInfo(in, out, &meta, &outMeta);
            node.setCurrentImageInfo(in, meta, out, outMeta);
        }
        QList<QString> gotNames{"stale"};
        QList<int> gotIndices{-7};
        int gotCurrent = -9;
        node.listOfAvailableChannels(gotNames, gotIndices, &gotCurrent);
        QCOMPARE(QStringList(gotNames), names);
        QCOMPARE(gotIndices, indices);
        QCOMPARE(gotCurrent, current);
        node.listOfAvailableChannels(gotNames, gotIndices, nullptr);

        // Buttons only for two to four channels.
        QList<CxChainable::CxSimpleStateConfigButton> buttons;
        bool hasButtons = false;
        node.simpleStateConfigButtons(buttons, hasButtons);
        QCOMPARE(buttons.size(), names.size() >= 2 && names.size() <= 4 ? names.size() : 0);
        for (int i = 0; i < buttons.size(); ++i)
            QCOMPARE(buttons[i].label() + '=' + QString::number(buttons[i].id()), names[i] + '=' + QString::number(indices[i]));
    }
};

QTEST_MAIN(TestExtractChannel)
#include "tst_extractchannel.moc"
