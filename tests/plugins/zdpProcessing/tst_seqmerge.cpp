#include "NodeTestKit.h"
#include "SeqMergeCnbl.h"

#include <QtCore/QScopedPointer>
#include <QtTest/QtTest>

using namespace nodetest;
using Mode = CxSeqMergeCnbl::ExMode;

namespace {

// Every sample of frame n holds n + 10, so a place names the frame in it; an
// unfilled place holds 1.
double frameValue(int frameNumber)
{
    return frameNumber + 10;
}

// The frame in place (tx, ty) of an output made of w x h tiles: its number,
// -1 for an unfilled place, or -2 when the place is not uniform.
int frameInPlace(const SxPicBuf& out, quint32 tx, quint32 ty, quint32 w, quint32 h)
{
    const double first = sampleValue(out, tx * w, ty * h);
    for (quint32 y = 0; y < h; ++y)
        for (quint32 x = 0; x < w; ++x)
            for (quint32 c = 0; c < out.channels; ++c)
                if (sampleValue(out, tx * w + x, ty * h + y, c) != first)
                    return -2;
    return first == 1 ? -1 : int(first) - 10;
}

} // namespace

struct SxFormatCase { int mode; int count; SxPicBufInfo in; quint32 width; quint32 height; quint32 pitch; };
Q_DECLARE_METATYPE(SxFormatCase)

struct SxSequence { int mode; int count; bool completeOnly; QList<int> frames; QStringList outputs; };
Q_DECLARE_METATYPE(SxSequence)

class TestSeqMerge : public QObject
{
    Q_OBJECT

private slots:
    void sequences_data()
    {
        QTest::addColumn<SxSequence>("row");
        // Per output: "<index of the frame that made it>:<frame per place>#<its
        // frame number>", "-" for an unfilled place. An output carries the
        // number of the first frame stored since the output before.

        QTest::newRow("tiles 2, numbers 10 11") << SxSequence{0, 2, true, {10, 11}, {"1:10 11#10"}};
        QTest::newRow("tiles 4, dropped, complete only")
            << SxSequence{0, 4, true, {0, 1, 3, 4, 5, 6, 7}, {"6:4 5 6 7#0"}};
        QTest::newRow("tiles 4, dropped, any") << SxSequence{0, 4, false, {0, 1, 3}, {"2:0 1 - 3#0"}};
        // The place of frame 2 must not show frame 2 of the sequence before.
        QTest::newRow("tiles 4, drop after a full picture")
            << SxSequence{0, 4, false, {0, 1, 2, 3, 4, 5, 7}, {"3:0 1 2 3#0", "6:4 5 - 7#4"}};
        QTest::newRow("rows 3, early flush") << SxSequence{1, 3, false, {0, 1, 0, 1, 2}, {"2:0 1 -#0", "4:0 1 2#0"}};
        QTest::newRow("rows 3, gap waits for a full pass") << SxSequence{1, 3, true, {0, 2, 3, 4, 5}, {"4:3 4 5#0"}};
        QTest::newRow("rows 3, restart in the middle") << SxSequence{1, 3, true, {1, 2, 3, 4, 5}, {"4:3 4 5#1"}};
        QTest::newRow("rows 1") << SxSequence{1, 1, true, {5, 6}, {"0:5#5", "1:6#6"}};
        // A frame of the same place again overwrites it.
        QTest::newRow("tiles 2, repeated place") << SxSequence{0, 2, true, {0, 0, 2, 3}, {"3:2 3#0"}};
    }

    void sequences()
    {
        QFETCH(SxSequence, row);
        const auto& [mode, count, completeOnly, frames, outputs] = row;

        const quint32 w = 3, h = 2;
        CxPicture input(format(w, h, 3, IDT_UINT16, 6));
        SxNodeRun<CxSeqMergeCnbl> run(input.pic());
        run.node->setCount(Mode(mode), count, false);
        run.node->setPassCompleteOnly(completeOnly, false);
        QVERIFY(run.chain.start());

        const quint32 cols = mode == CxSeqMergeCnbl::ModeTiles ? 2 : 1;
        QStringList seen;
        for (int k = 0; k < frames.size(); ++k) {
            input.pic().frameNumber = frames[k];
            input.refill([v = frameValue(frames[k])](quint32, quint32, quint32) { return v; });
            QScopedPointer<CxImageData> out(run.process(input));
            if (!out)
                continue;
            const SxPicBuf& pic = *out->picBuf();
            QStringList places;
            for (int i = 0; i < count; ++i) {
                const int f = frameInPlace(pic, quint32(i) % cols, quint32(i) / cols, w, h);
                places << (f == -1 ? QStringLiteral("-") : QString::number(f));
            }
            seen << QStringLiteral("%1:%2#%3").arg(k).arg(places.join(' ')).arg(pic.frameNumber);
            QCOMPARE(pic.timestampMs, input.pic().timestampMs);
        }
        QCOMPARE(seen, outputs);
    }

    void unusableCountPassesFrames_data()
    {
        QTest::addColumn<int>("mode");
        QTest::addColumn<QString>("countText");
        QTest::newRow("tiles, 0") << 0 << "0";
        QTest::newRow("rows, 0") << 1 << "0";
        QTest::newRow("rows, negative") << 1 << "-3";
        QTest::newRow("rows, too many") << 1 << "65";
    }

    // Only a document can give such a count; the node must neither divide by it
    // nor stack frames it cannot track, and saving writes it back.
    void unusableCountPassesFrames()
    {
        QFETCH(int, mode);
        QFETCH(QString, countText);

        SxDocument doc;
        CxPicture input(format(4, 3, 1, IDT_UINT8), [](quint32 x, quint32 y, quint32) { return x + 4 * y; });
        SxNodeRun<CxSeqMergeCnbl> run(input.pic());
        QVERIFY(run.node->loadSettings(
            doc.element({{"mergeSeqMode", QString::number(mode)}, {"mergeSeqCount", countText}})));
        QCOMPARE(run.node->title(), QStringLiteral("Merge %1 Images").arg(countText));

        for (int frame = 0; frame < 3; ++frame) {
            input.pic().frameNumber = frame;
            QScopedPointer<CxImageData> out(run.process(input));
            QVERIFY(out);
            QCOMPARE(out->picBuf()->width, 4u);
            QCOMPARE(out->picBuf()->height, 3u);
            QCOMPARE(sampleValue(*out->picBuf(), 3, 2), 11.0);
        }
        QCOMPARE(doc.saved(*run.node).value("mergeSeqCount"), countText);
    }

    void outputFormat_data()
    {
        QTest::addColumn<SxFormatCase>("row");

        const SxPicBufInfo rgb16 = format(21, 5, 3, IDT_UINT16, 2);
        QTest::newRow("tiles 2") << SxFormatCase{0, 2, rgb16, 42u, 5u, 256u};
        QTest::newRow("tiles 4") << SxFormatCase{0, 4, rgb16, 42u, 10u, 256u};
        QTest::newRow("tiles 4, wide") << SxFormatCase{0, 4, format(100, 1, 1, IDT_FLOAT), 200u, 2u, 1024u};
        QTest::newRow("tiles 3 keeps size") << SxFormatCase{0, 3, rgb16, 21u, 5u, rgb16.linePitch};
        QTest::newRow("rows 3") << SxFormatCase{1, 3, rgb16, 21u, 15u, rgb16.linePitch};
        QTest::newRow("unknown mode") << SxFormatCase{7, 2, rgb16, 21u, 5u, rgb16.linePitch};
    }

    void outputFormat()
    {
        QFETCH(SxFormatCase, row);
        const auto& [mode, count, in, width, height, pitch] = row;

        CxSeqMergeCnbl node;
        node.setCount(Mode(mode), count, false);
        SxPicBufInfo out;
        QVERIFY(node.queryOutputImageInfo(in, out, nullptr, nullptr));
        QCOMPARE(out.width, width);
        QCOMPARE(out.height, height);
        QCOMPARE(out.linePitch, pitch);
        QCOMPARE(out.channels, in.channels);
        QCOMPARE(out.dataType, in.dataType);
    }

    // Rows have no buttons; a count of 0 is not taken, yet the title is told to
    // refresh.
    void quickButtons()
    {
        CxSeqMergeCnbl node;
        QSignalSpy titles(&node, &CxChainable::titleChanged);
        node.setCount(CxSeqMergeCnbl::ModeRows, 0, false);
        QCOMPARE(node.count(), 2);
        QCOMPARE(titles.size(), 1);
        QList<CxChainable::CxSimpleStateConfigButton> buttons;
        bool hasButtons = false;
        node.simpleStateConfigButtons(buttons, hasButtons);
        QVERIFY(hasButtons);
        QVERIFY(buttons.isEmpty());
    }
};

QTEST_MAIN(TestSeqMerge)
#include "tst_seqmerge.moc"
