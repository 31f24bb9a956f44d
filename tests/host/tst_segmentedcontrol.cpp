#include <CxSegmentedControl.h>

#include <QtTest/QtTest>
#include <QtWidgets/QPushButton>

class TstSegmentedControl : public QObject
{
    Q_OBJECT
private slots:
    void segments()
    {
        CxSegmentedControl c;
        QSignalSpy spy(&c, &CxSegmentedControl::selectedSegmentChanged);
        c.setSegmentCount(3);
        c.setSegmentText(7, "ignored");
        QCOMPARE(c.selectedIndex(), -1);

        c.setSelecedSegment(1);  // programmatic: no signal
        QCOMPARE(c.selectedIndex(), 1);
        QCOMPARE(spy.count(), 0);

        QList<QPushButton*> buttons = c.findChildren<QPushButton*>();
        QCOMPARE(buttons.size(), 3);
        QTest::mouseClick(buttons[2], Qt::LeftButton);
        QCOMPARE(c.selectedIndex(), 2);
        QCOMPARE(spy.count(), 1);

        c.setSelecedSegment(-1);
        QCOMPARE(c.selectedIndex(), -1);
        c.setSegmentCount(1);
        QCOMPARE(c.findChildren<QPushButton*>().size(), 1);
    }
};

QTEST_MAIN(TstSegmentedControl)
#include "tst_segmentedcontrol.moc"
