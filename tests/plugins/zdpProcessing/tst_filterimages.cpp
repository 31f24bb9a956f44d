#include "FilterImagesCnbl.h"
#include "NodeTestKit.h"

#include <QtCore/QScopedPointer>
#include <QtTest/QSignalSpy>
#include <QtTest/QtTest>

using namespace nodetest;

class TestFilterImages : public QObject
{
    Q_OBJECT

private slots:
    void frames_data()
    {
        QTest::addColumn<int>("modulo");
        QTest::addColumn<int>("remainder");
        QTest::addColumn<QList<int>>("passing");  // of the frames -6..6

        QTest::newRow("2 rem 0") << 2 << 0 << QList<int>{-6, -4, -2, 0, 2, 4, 6};
        QTest::newRow("3 rem 1") << 3 << 1 << QList<int>{1, 4};
        QTest::newRow("3 rem -1 loaded") << 3 << -1 << QList<int>{-4, -1};
        const QList<int> all{-6, -5, -4, -3, -2, -1, 0, 1, 2, 3, 4, 5, 6};
        QTest::newRow("1") << 1 << 0 << all;
        QTest::newRow("0 loaded") << 0 << 3 << all;
        QTest::newRow("negative loaded") << -3 << 1 << all;
    }

    // Passing frames come back as the very packet the chain pushed (the node
    // needs no pool picture); the others give nothing.
    void frames()
    {
        QFETCH(int, modulo);
        QFETCH(int, remainder);
        QFETCH(QList<int>, passing);

        CxPicture input(format(4, 3, 1, IDT_UINT8));
        SxNodeRun<CxFilterImagesCnbl> run(input.pic());
        // As a chain document sets them: unchecked.
        QVERIFY(run.node->loadSettings(
            SxDocument().element({{"filterModulo", QString::number(modulo)}, {"filterRemainder", QString::number(remainder)}})));
        QVERIFY(run.chain.start());
        for (int frame = -6; frame <= 6; ++frame) {
            input.pic().frameNumber = frame;
            CxImageData* packet = input.packet();
            QScopedPointer<IxChainData> out(run.chain.push(packet));
            QVERIFY(!out || out.data() == packet);
            QCOMPARE(!out.isNull(), passing.contains(frame));
        }
        QCOMPARE(run.node->processData(nullptr), nullptr);
    }

    // Only a positive modulo and a remainder of 0 or more are taken; a restart
    // happens only when asked for, the title is announced either way.
    void setter()
    {
        CxPicture input(format(4, 3, 1, IDT_UINT8));
        SxNodeRun<CxFilterImagesCnbl> run(input.pic());
        QVERIFY(run.startCounted());
        QSignalSpy spy(run.node, &CxChainable::titleChanged);
        run.node->setFilterModulo(5, 4, true);
        QCOMPARE(run.node->title(), QStringLiteral("Filter Images n%5=4"));
        QCOMPARE(run.stops + run.starts, 2);
        run.node->setFilterModulo(0, -1, false);
        run.node->setFilterModulo(-1, 2, false);
        QCOMPARE(run.node->title(), QStringLiteral("Filter Images n%5=2"));
        QCOMPARE(run.stops + run.starts, 2);
        QCOMPARE(spy.size(), 3);
    }
};

QTEST_MAIN(TestFilterImages)
#include "tst_filterimages.moc"
