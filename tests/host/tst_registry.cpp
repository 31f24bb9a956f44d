#include "TestNodes.h"

#include <CxChainDocument.h>
#include <CxRTTI.h>
#include <SxCameraDescription.h>

#include <QtTest/QtTest>

class TstRegistry : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase()
    {
        CxRTTI* r = CxRTTI::instance();
        QVERIFY(r->registerClass(nullptr, CxTstAddNode::staticMetaObject, "CxChainable"));
        QVERIFY(r->registerClass(nullptr, CxTstBehaviourNode::staticMetaObject, "CxChainable"));
        QVERIFY(r->registerClass(nullptr, CxTstMonoOnlyNode::staticMetaObject, "CxChainable"));
    }

    void refusedRegistrations_data()
    {
        QTest::addColumn<int>("which");
        QTest::newRow("twice") << 0;
        QTest::newRow("no invokable constructor") << 1;
        QTest::newRow("UniqueID taken") << 2;
    }
    void refusedRegistrations()
    {
        QFETCH(int, which);
        const QMetaObject* mos[] = {&CxTstAddNode::staticMetaObject, &CxTstNoConstructorNode::staticMetaObject,
                                    &CxTstClashingNode::staticMetaObject};
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression(".*"));
        QVERIFY(!CxRTTI::instance()->registerClass(nullptr, *mos[which], "CxChainable"));
    }

    void listingAndLookups()
    {
        const QList<CxRTTI::SxClassEntry> entries = CxRTTI::instance()->classes("CxChainable");
        QStringList names;
        for (const auto& e : entries)
            names << e.customName;
        QCOMPARE(names, QStringList({"Test Add", "Test Behaviour", "Test Mono Only"}));
        QVERIFY(CxRTTI::instance()->classes("SomethingElse").isEmpty());

        QCOMPARE(CxRTTI::instance()->findByUniqueId("CxChainable", "test.Qlar.CxTstAddNode"),
                 &CxTstAddNode::staticMetaObject);
        QVERIFY(!CxRTTI::instance()->findByUniqueId("CxChainable", "test.qlar.CxTstAddNode"));
        QVERIFY(!CxRTTI::instance()->findByCustomName("CxChainable", "test add"));

        std::unique_ptr<CxChainable> n(CxRTTI::instance()->createChainableByCustomName("Test Mono Only"));
        QVERIFY(qobject_cast<CxTstMonoOnlyNode*>(n.get()));
        QVERIFY(!CxRTTI::instance()->createChainableByUniqueId("nope"));
    }

    void documentRoundTrip()
    {
        auto* a = new CxTstAddNode;
        a->addend = 5;
        a->setMaxFps(12.5);
        auto* b = new CxTstBehaviourNode;
        SxCameraDescription input;
        input.hasColorFilterArray = true;
        input.colorFilterArray = CFA_HSI_MOSAIC;
        input.hsi = CxHsiCameraParams::standardRgbNir();
        input.bitsPerSample = 12;
        const QString xml = CxChainDocument::saveToString({a, b}, &input);
        delete a;
        delete b;
        QVERIFY(xml.contains("uniqueId=\"test.Qlar.CxTstAddNode\""));
        QString error;
        SxCameraDescription loaded;
        QList<CxChainable*> nodes = CxChainDocument::loadFromString(xml, &error, &loaded);
        QVERIFY2(error.isEmpty(), qPrintable(error));
        QCOMPARE(loaded.colorFilterArray, CFA_HSI_MOSAIC);
        QCOMPARE(loaded.bitsPerSample, 12u);
        QVERIFY(loaded.hsi == input.hsi);
        QCOMPARE(nodes.size(), 2);
        auto* a2 = qobject_cast<CxTstAddNode*>(nodes[0]);
        QVERIFY(a2);
        QCOMPARE(a2->addend, 5);
        QCOMPARE(a2->maxFps(), 12.5);
        QVERIFY(qobject_cast<CxTstBehaviourNode*>(nodes[1]));
        qDeleteAll(nodes);
    }

    void documentErrors_data()
    {
        QTest::addColumn<QString>("xml");
        QTest::addColumn<QString>("message");
        QTest::newRow("malformed") << "<QlarChain><Chainable" << "line 1";
        QTest::newRow("wrong root") << "<Chain/>" << "not a chain document";
        QTest::newRow("unknown node") << "<QlarChain>\n<Chainable uniqueId=\"test.Qlar.CxTstAddNode\"/>\n"
                                         "<Chainable uniqueId=\"test.Qlar.Missing\"/></QlarChain>"
                                      << "line 3: unknown node \"test.Qlar.Missing\"";
        QTest::newRow("no id") << "<QlarChain><Chainable addend=\"3\"/></QlarChain>" << "without a uniqueId";
        QTest::newRow("input after the nodes") << "<QlarChain><Chainable uniqueId=\"test.Qlar.CxTstAddNode\"/>\n"
                                                  "<QlarCamera bitsPerSample=\"8\"/></QlarChain>"
                                               << "line 2: the input description must come once, before the nodes";
        QTest::newRow("bad input") << "<QlarChain><QlarCamera colorFilterArray=\"9\"/></QlarChain>"
                                   << "colorFilterArray must be 0 to 7";
        QTest::newRow("settings rejected")
            << "<QlarChain><Chainable uniqueId=\"test.Qlar.CxTstBehaviourNode\" reject=\"1\"/></QlarChain>"
            << "did not accept its settings";
    }
    void documentErrors()
    {
        QFETCH(QString, xml);
        QFETCH(QString, message);
        QString error;
        QList<CxChainable*> nodes = CxChainDocument::loadFromString(xml, &error);
        QVERIFY(nodes.isEmpty());
        QVERIFY2(error.contains(message), qPrintable(error));
    }

    void badBaseAttributeLoadsAsDefault()
    {
        QString error;
        QList<CxChainable*> nodes = CxChainDocument::loadFromString(
            "<QlarChain><Chainable uniqueId=\"test.Qlar.CxTstAddNode\" maxFps=\"fast\" addend=\"abc\"/></QlarChain>", &error);
        QCOMPARE(nodes.size(), 1);
        QCOMPARE(nodes[0]->maxFps(), 0.0);
        QCOMPARE(static_cast<CxTstAddNode*>(nodes[0])->addend, 0);
        qDeleteAll(nodes);
    }

    void fileErrorsNameTheFile()
    {
        QString error;
        QVERIFY(CxChainDocument::loadFromFile("/nonexistent/chain.xml", &error).isEmpty());
        QVERIFY(error.startsWith("/nonexistent/chain.xml"));
        QVERIFY(!CxChainDocument::saveToFile({}, "/nonexistent/dir/chain.xml", &error));
        QVERIFY(error.contains("/nonexistent/dir/chain.xml"));
    }
};

QTEST_GUILESS_MAIN(TstRegistry)
#include "tst_registry.moc"
