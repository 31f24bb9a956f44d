#include "NodeTestKit.h"
#include "RotateImageCnbl.h"

#include <QtCore/QPointer>
#include <QtCore/QRandomGenerator>
#include <QtCore/QScopedPointer>
#include <QtTest/QtTest>

using namespace nodetest;

namespace {

// Colour code of a Bayer cell: 0 red, 1 green, 2 blue.
int bayerColour(int cfa, quint32 x, quint32 y)
{
    static const int cells[4][4] = {{0, 1, 1, 2}, {1, 0, 2, 1}, {1, 2, 0, 1}, {2, 1, 1, 0}};
    return cells[cfa - CFA_BAYER_RGGB][(y % 2) * 2 + x % 2];
}

} // namespace

class TestRotate : public QObject
{
    Q_OBJECT

private slots:
    void mapping_data()
    {
        QTest::addColumn<SxPicBufInfo>("in");
        QTest::addColumn<bool>("clockwise");

        for (bool cw : {true, false}) {
            const char* dir = cw ? "cw" : "ccw";
            // The 3x2 picture pins the direction; 37x9 every sample type and
            // channel count through both the register blocks and the edges.
            QTest::addRow("u8 3x2 %s", dir) << format(3, 2, 1, IDT_UINT8) << cw;
            for (ExImageDataType t : {IDT_INT8, IDT_UINT8, IDT_INT16, IDT_UINT16, IDT_INT32, IDT_UINT32, IDT_FLOAT})
                for (quint32 k : {1u, 2u, 3u, 4u})
                    if (t != IDT_INT32 || cw)
                        QTest::addRow("%s x%u %s", qPrintable(dataTypeName(t)), k, dir) << format(37, 9, k, t) << cw;
            // Strips, tile edges, padded rows, and pictures shared among threads.
            const struct { quint32 w, h, k; ExImageDataType t; quint32 pad; } shapes[] = {
                {1, 9, 1, IDT_UINT8, 0},      {9, 1, 3, IDT_UINT16, 0},    {129, 65, 1, IDT_UINT8, 3},
                {301, 263, 1, IDT_UINT8, 0},  {263, 301, 1, IDT_UINT16, 6}, {300, 250, 4, IDT_UINT8, 8},
                {257, 255, 3, IDT_FLOAT, 4},
            };
            for (const auto& s : shapes)
                QTest::addRow("%s x%u %ux%u pad %u %s", qPrintable(dataTypeName(s.t)), s.k, s.w, s.h, s.pad, dir)
                    << format(s.w, s.h, s.k, s.t, s.pad) << cw;
        }
    }

    // Compared byte for byte with the plain pixel-by-pixel turn; random bytes
    // tell every pixel apart and make float NaN patterns travel too.
    void mapping()
    {
        QFETCH(SxPicBufInfo, in);
        QFETCH(bool, clockwise);

        CxImageMetadata meta;
        meta.setCameraName(QStringLiteral("cam"));
        CxPicture input(in, {}, meta);
        SxPicBuf& src = input.pic();
        QRandomGenerator rng(in.width * 31u + in.channels);
        for (quint32 y = 0; y < in.height; ++y)
            for (quint64 i = 0; i < in.packedLineBytes(); ++i)
                src.rowPtr(y)[i] = uchar(rng.bounded(256));
        SxNodeRun<CxRotateImageCnbl> run(in, meta);
        run.node->setRotation(clockwise, false);
        QVERIFY(run.chain.start());
        QPointer<CxImageData> packet(input.packet());
        QScopedPointer<IxChainData> result(run.chain.push(packet));
        QVERIFY(packet.isNull());
        auto* out = qobject_cast<CxImageData*>(result.data());
        QVERIFY(out);
        const SxPicBuf& p = *out->picBuf();

        SxPicBufInfo wanted = in;
        wanted.width = in.height;
        wanted.height = in.width;
        wanted.linePitch = quint32(wanted.packedLineBytes());
        QVERIFY2(p.sameFormat(wanted), qPrintable(p.describe()));
        QCOMPARE(out->metadata()->width(), in.height);
        QCOMPARE(out->metadata()->cameraName(), QStringLiteral("cam"));

        for (quint32 r = 0; r < in.height; ++r)
            for (quint32 x = 0; x < in.width; ++x) {
                const quint32 row = clockwise ? x : in.width - 1 - x;
                const quint32 col = clockwise ? in.height - 1 - r : r;
                if (std::memcmp(sampleAt(p, col, row), sampleAt(src, x, r), in.bytesPerPixel()) != 0)
                    QFAIL(qPrintable(QStringLiteral("input pixel %1,%2 misplaced").arg(x).arg(r)));
            }
    }

    void bayerPhase_data()
    {
        QTest::addColumn<int>("cfa");
        QTest::addColumn<bool>("clockwise");
        QTest::addColumn<int>("expected");

        const int turned[4][2] = {{2, 3}, {4, 1}, {1, 4}, {3, 2}};
        for (int cfa = 0; cfa <= 7; ++cfa)
            for (int d = 0; d < 2; ++d)
                QTest::addRow("cfa %d %s", cfa, d ? "ccw" : "cw")
                    << cfa << (d == 0) << (cfa >= 1 && cfa <= 4 ? turned[cfa - 1][d] : cfa);
    }

    // The new phase names the colours where the turn really put them.
    void bayerPhase()
    {
        QFETCH(int, cfa);
        QFETCH(bool, clockwise);
        QFETCH(int, expected);

        const bool bayer = cfa >= 1 && cfa <= 4;
        CxImageMetadata meta;
        meta.setColorFilterArray(ExColorFilterArray(cfa));
        CxPicture input(format(6, 4, 1, IDT_UINT8, 0, ExColorFilterArray(cfa)),
                          [&](quint32 x, quint32 y, quint32) { return bayer ? bayerColour(cfa, x, y) : 0; }, meta);
        SxNodeRun<CxRotateImageCnbl> run(input.pic(), meta);
        run.node->setRotation(clockwise, false);
        QScopedPointer<CxImageData> out(run.process(input));
        QVERIFY(out);
        const SxPicBuf& p = *out->picBuf();
        QCOMPARE(int(p.colorFilterArray), expected);
        QCOMPARE(int(out->metadata()->colorFilterArray()), expected);
        for (quint32 y = 0; bayer && y < p.height; ++y)
            for (quint32 x = 0; x < p.width; ++x)
                QCOMPARE(int(sampleValue(p, x, y)), bayerColour(expected, x, y));
    }

    // After a button's restart the next frame turns the new way.
    void buttonTurnsTheNextFrame()
    {
        CxPicture input(format(4, 2, 1, IDT_UINT16, 0, CFA_BAYER_RGGB));
        SxNodeRun<CxRotateImageCnbl> run(input.pic());
        QVERIFY(run.startCounted());
        run.node->simpleStateConfigButtonPressed(CxRotateImageCnbl::ButtonCounterClockwise);
        QScopedPointer<CxImageData> out(run.process(input));
        QVERIFY(out);
        QCOMPARE(out->picBuf()->colorFilterArray, CFA_BAYER_GBRG);
    }
};

QTEST_MAIN(TestRotate)
#include "tst_rotate.moc"
