// The viewer's session and panels without a window: chain editing while
// frames flow, documents that qlarrun reads and writes, quick buttons, and
// node panels that never outlive their node or their input format.
#include "AppTestSupport.h"
#include "ChainPanel.h"
#include "NodePanelHost.h"
#include "ViewerSession.h"

#include <CxChain.h>
#include <CxChainDocument.h>
#include <CxChainable.h>
#include <CxPicBufAPI.h>
#include <CxPluginManager.h>
#include <CxSyntheticCamera.h>

#include <QtCore/QPointer>
#include <QtCore/QTemporaryDir>
#include <QtTest/QtTest>
#include <QtWidgets/QListWidget>
#include <QtWidgets/QToolButton>

namespace {

CxSyntheticCamera* camera(CxSyntheticCamera::ExLayout layout, quint32 width = 64, quint32 height = 48)
{
    CxSyntheticCamera::SxConfig config;
    config.layout = layout;
    config.width = width;
    config.height = height;
    config.fps = 200.0;
    return new CxSyntheticCamera(config);
}

QStringList titles(const CxViewerSession& session)
{
    QStringList list;
    for (CxChainable* node : session.nodes())
        list << node->metaObject()->className();
    return list;
}

// Frames still reach the view after an edit: the chain runs again.
bool framesFlow(CxViewerSession& session)
{
    const qint64 before = session.chain()->stats().delivered;
    QElapsedTimer clock;
    clock.start();
    while (clock.elapsed() < 5000) {
        QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
        if (session.chain()->stats().delivered > before + 2)
            return true;
    }
    return false;
}

} // namespace

class TestViewerSession : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase()
    {
        CxPluginManager::instance()->loadFolder(QString::fromUtf8(QLAR_PLUGIN_DIR));
        QVERIFY(!CxViewerSession::nodeKinds().isEmpty());
    }

    void cleanup()
    {
        QCoreApplication::processEvents();
        QCOMPARE(CxPicBufAPI::OutstandingPoolPictures(), 0);
    }

    void editWhileRunning()
    {
        CxViewerSession session;
        session.setSource(camera(CxSyntheticCamera::LayoutBayer));
        QString error;
        QVERIFY(session.addNode("Extract Channel", -1, &error));
        QVERIFY(session.start());
        QVERIFY(framesFlow(session));
        QVERIFY(session.addNode("Median Filter", -1, &error));
        QVERIFY(session.addNode("Rotate", 0, &error));
        QCOMPARE(titles(session), QStringList({"CxRotateImageCnbl", "CxExtractChannelCnbl", "CxMedianCnbl"}));
        QVERIFY(framesFlow(session));
        session.moveNode(0, 2);
        QCOMPARE(titles(session), QStringList({"CxExtractChannelCnbl", "CxMedianCnbl", "CxRotateImageCnbl"}));
        QVERIFY(framesFlow(session));
        session.removeNode(1);
        QCOMPARE(titles(session), QStringList({"CxExtractChannelCnbl", "CxRotateImageCnbl"}));
        QVERIFY(framesFlow(session));
        // The chain's links follow the edits: each node's predecessor is the one before.
        QCOMPARE(session.nodes()[1]->predecessors(), QList<CxChainable*>{session.nodes()[0]});
        QVERIFY(!session.addNode("No Such Node", -1, &error));
        QVERIFY(error.contains("No Such Node"));
        session.stop();
    }

    void viewedStage_data()
    {
        QTest::addColumn<int>("stage");
        QTest::addColumn<quint32>("width");
        QTest::addColumn<quint32>("cfa");
        QTest::newRow("input") << -1 << 64u << quint32(CFA_BAYER_RGGB);
        QTest::newRow("extract") << 0 << 32u << quint32(CFA_NONE);
        QTest::newRow("rotate") << 1 << 24u << quint32(CFA_NONE);
        QTest::newRow("past the end is the last") << 7 << 24u << quint32(CFA_NONE);
    }

    void viewedStage()
    {
        QFETCH(int, stage);
        QFETCH(quint32, width);
        QFETCH(quint32, cfa);
        CxViewerSession session;
        session.setSource(camera(CxSyntheticCamera::LayoutBayer));
        QString error;
        QVERIFY(session.addNode("Extract Channel", -1, &error));
        QVERIFY(session.addNode("Rotate", -1, &error));
        session.setViewedStage(stage);
        session.setDisplayRate(10.0);
        QSignalSpy ready(&session, &CxViewerSession::viewFrameReady);
        QVERIFY(session.start());
        QTRY_VERIFY(!ready.isEmpty());
        const ViewFramePtr frame = session.takeViewFrame();
        QVERIFY(frame);
        QCOMPARE(frame->pic.width, width);
        QCOMPARE(quint32(frame->pic.colorFilterArray), cfa);
        QVERIFY(!session.takeViewFrame());
        // The view takes at most its display rate; the chain keeps its pace.
        QTest::qWait(1000);
        session.stop();
        QVERIFY2(session.viewFramesCopied() <= 14, qPrintable(QString::number(session.viewFramesCopied())));
        QVERIFY(session.chain()->stats().delivered > 2 * session.viewFramesCopied());
    }

    void documentsWithQlarrun()
    {
        QTemporaryDir dir;
        const QString fromQlarrun = dir.filePath("fromqlarrun.xml");
        SxRun run = runQlarrun({"--camera", "hsi8", "--frames", "1", "--node", "Extract Channel:channelIdx=3",
                                "--node", "Median Filter:kernelSize=5", "--save-chain", fromQlarrun, "--quiet"},
                               dir.path());
        QCOMPARE(run.status, 0);
        CxViewerSession session;
        QString error;
        QVERIFY2(session.loadChain(fromQlarrun, &error), qPrintable(error));
        QCOMPARE(session.nodes().size(), 2);
        QCOMPARE(session.chainInput().colorFilterArray, CFA_HSI_MOSAIC);

        // What the viewer saves, qlarrun runs, and it describes the input.
        CxSyntheticCamera::SxConfig config;
        config.layout = CxSyntheticCamera::LayoutHsi;
        config.width = 96;
        config.height = 48;
        session.setSource(new CxSyntheticCamera(config));
        QVERIFY(session.start());
        session.stop();
        const QString fromViewer = dir.filePath("fromviewer.xml");
        QVERIFY2(session.saveChain(fromViewer, &error), qPrintable(error));
        SxCameraDescription input;
        const QList<CxChainable*> reloaded = CxChainDocument::loadFromFile(fromViewer, &error, &input);
        QCOMPARE(CxChainDocument::saveToString(reloaded), CxChainDocument::saveToString(session.nodes()));
        QCOMPARE(input.hsi.filterZoneCount(), 2);
        qDeleteAll(reloaded);
        run = runQlarrun({"--chain", fromViewer, "--camera", "hsi8", "--size", "96x48", "--frames", "1", "--out", "out"},
                         dir.path());
        QVERIFY2(run.status == 0, qPrintable(run.err));
        QVERIFY(QFileInfo::exists(dir.filePath("out/frame_000000.tif")));
    }

    void quickButtonsFollowTheNode()
    {
        CxViewerSession session;
        session.setSource(camera(CxSyntheticCamera::LayoutMono));
        QString error;
        CxChainable* node = session.addNode("Deinterlace", -1, &error);
        QVERIFY(node);
        CxChainPanel panel(&session);
        QVERIFY(session.start());
        CxChainEntry* entry = panel.entry(0);
        QVERIFY(entry);
        QList<QToolButton*> buttons = entry->quickButtons();
        QCOMPARE(buttons.size(), 4);
        const int before = int(std::find_if(buttons.begin(), buttons.end(), [](QToolButton* b) { return b->isChecked(); })
                               - buttons.begin());
        const int press = (before + 2) % 4;
        buttons[press]->click();
        QTRY_VERIFY(session.isRunning());
        QTRY_VERIFY(entry->quickButtons().size() == 4 && entry->quickButtons()[press]->isChecked());
        buttons = entry->quickButtons();
        QCOMPARE(std::count_if(buttons.begin(), buttons.end(), [](QToolButton* b) { return b->isChecked(); }), 1);
        QVERIFY(framesFlow(session));
        session.stop();
    }

    void panelGoesBeforeItsNode()
    {
        CxViewerSession session;
        session.setSource(camera(CxSyntheticCamera::LayoutBayer));
        QString error;
        QVERIFY(session.addNode("Image Averaging", -1, &error));
        QVERIFY(session.addNode("Extract Channel", -1, &error));
        CxNodePanelHost host(&session);
        QVERIFY(session.start());
        host.showNode(0);
        QPointer<QWidget> panel = host.panel();
        QVERIFY(panel);
        QPointer<CxChainable> node = session.nodes()[0];
        bool panelGoneFirst = false;
        connect(node, &QObject::destroyed, this, [&] { panelGoneFirst = panel.isNull(); });
        session.removeNode(0);
        QVERIFY(node.isNull());
        QVERIFY(panelGoneFirst);
        QVERIFY(!host.node());
        QVERIFY(framesFlow(session));
        session.stop();
    }

    void panelFollowsInputFormat()
    {
        CxViewerSession session;
        session.setSource(camera(CxSyntheticCamera::LayoutBayer));
        QString error;
        QVERIFY(session.addNode("Extract Channel", -1, &error));
        CxNodePanelHost host(&session);
        QVERIFY(session.start());
        QCoreApplication::processEvents();
        host.showNode(0);
        QPointer<QWidget> bayerPanel = host.panel();
        auto* list = bayerPanel ? bayerPanel->findChild<QListWidget*>() : nullptr;
        QVERIFY(list);
        const int bayerChannels = list->count();
        // The same format again keeps the panel; a new one rebuilds it for the new input.
        session.stop();
        QVERIFY(session.start());
        QTest::qWait(50);
        QCOMPARE(host.panel(), bayerPanel.data());
        session.setSource(camera(CxSyntheticCamera::LayoutRgb));
        QTRY_VERIFY(bayerPanel.isNull());
        QVERIFY(host.panel());
        list = host.panel()->findChild<QListWidget*>();
        QVERIFY(list);
        QVERIFY(list->count() != bayerChannels);
        QVERIFY(framesFlow(session));
        session.stop();
    }
};

QTEST_MAIN(TestViewerSession)
#include "tst_viewersession.moc"
