#include "ImageAveragingCnbl.h"
#include "ImageAveragingWidget.h"
#include "NodeTestKit.h"

#include <CxSegmentedControl.h>

#include <QtCore/QScopedPointer>
#include <QtTest/QtTest>
#include <QtWidgets/QCheckBox>
#include <QtWidgets/QLabel>
#include <QtWidgets/QPushButton>
#include <QtWidgets/QRadioButton>
#include <QtWidgets/QSpinBox>

using namespace nodetest;

namespace {

QPushButton* segment(CxSegmentedControl* s, const QString& text)
{
    for (QPushButton* b : s->findChildren<QPushButton*>())
        if (b->text() == text)
            return b;
    return nullptr;
}

} // namespace

class TestImageAveragingWidget : public QObject
{
    Q_OBJECT

private slots:
    void controls_data();
    void controls();
};

void TestImageAveragingWidget::controls_data()
{
    QTest::addColumn<QString>("control");
    QTest::addColumn<int>("restarts");
    QTest::addColumn<QString>("field");
    QTest::addColumn<int>("value");
    QTest::newRow("other mode") << "rbModeMax" << 1 << "mode" << 3;
    QTest::newRow("same mode again") << "rbModeAvg" << 1 << "mode" << 0;
    QTest::newRow("touches") << "rbModeMinTouches" << 1 << "mode" << 4;
    QTest::newRow("all stats") << "chkAllTogether" << 1 << "all" << 1;
    QTest::newRow("infinite") << "chkInfinite" << 0 << "infinite" << 1;
    QTest::newRow("count") << "spinCount" << 0 << "count" << 7;
    QTest::newRow("columns") << "rbCols" << 0 << "line" << 2;
    QTest::newRow("scale 100x") << "100x" << 0 << "scaling" << 100;
    QTest::newRow("scale 10x") << "10x" << 0 << "scaling" << 10;
}

// Each control on a running chain: the restarts it causes and what it sets.
void TestImageAveragingWidget::controls()
{
    QFETCH(QString, control);
    QFETCH(int, restarts);
    QFETCH(QString, field);
    QFETCH(int, value);
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
    else
        segment(w->findChild<CxSegmentedControl*>("segmScaling"), control)->click();
    QCOMPARE(run.starts, restarts);
    QCOMPARE(run.stops, restarts);
    QVERIFY(!run.chain.stopped());
    const QMap<QString, int> got{{"mode", node->mode()},
                                 {"all", node->isCalcAllModesTogether()},
                                 {"infinite", node->isCountingToInfinite()},
                                 {"count", node->countToAverage()},
                                 {"line", node->lineAveraging()},
                                 {"scaling", node->stDevValuesScaling()}};
    QCOMPARE(got.value(field), value);
    if (field == "mode") {
        SxPicBufInfo out;
        QVERIFY(run.chain.negotiatedFormat(0, out));
        QCOMPARE(out.dataType, value == 4 ? IDT_UINT16 : IDT_UINT8);
    }
    if (field == "infinite") {  // greys out the count, offers "Reset" here and on the node
        QVERIFY(w->findChild<QPushButton*>("btnReset")->isEnabled());
        QVERIFY(!w->findChild<QSpinBox*>("spinCount")->isEnabled());
        QList<CxChainable::CxSimpleStateConfigButton> buttons;
        bool has = true;
        node->simpleStateConfigButtons(buttons, has);
        QCOMPARE(buttons.size(), 1);
    }
}

QTEST_MAIN(TestImageAveragingWidget)
#include "tst_imageaveraging_widget.moc"
