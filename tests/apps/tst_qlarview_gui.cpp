// The viewer in a real window (run under Xvfb): the synthetic Bayer camera,
// three nodes added from the chain panel's menu, each panel opened, ten
// frames recorded. The screenshots it takes are the README's.
#include "ChainPanel.h"
#include "MainWindow.h"
#include "NodePanelHost.h"
#include "Recorder.h"
#include "ViewerSession.h"

#include <CxChainable.h>
#include <CxPicBufAPI.h>
#include <CxPluginManager.h>
#include <CxSyntheticCamera.h>

#include <QtCore/QDir>
#include <QtCore/QTemporaryDir>
#include <QtGui/QScreen>
#include <QtTest/QtTest>
#include <QtWidgets/QMenu>
#include <QtWidgets/QToolButton>

namespace {

// Where the screenshots go: the README's folder when asked, else the test's.
QString shotFolder()
{
    const QString dir = qEnvironmentVariable("QLAR_SCREENSHOT_DIR");
    return dir.isEmpty() ? QDir::currentPath() : dir;
}

void screenshot(QWidget& window, const QString& name)
{
    QCoreApplication::processEvents();
    const QPixmap shot = window.screen()->grabWindow(window.winId());
    QVERIFY(!shot.isNull());
    QVERIFY(shot.save(QDir(shotFolder()).filePath(name)));
}

} // namespace

class TestQlarviewGui : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase()
    {
        if (QGuiApplication::platformName() == QLatin1String("offscreen"))
            QSKIP("needs a real display (run under xvfb-run)");
        CxPluginManager::instance()->loadFolder(QString::fromUtf8(QLAR_PLUGIN_DIR));
    }

    void liveSession()
    {
        CxViewerSession session;
        CxSyntheticCamera::SxConfig config;
        config.layout = CxSyntheticCamera::LayoutBayer;
        config.fps = 30.0;
        session.setSource(new CxSyntheticCamera(config));
        CxMainWindow window(&session);
        window.resize(1500, 950);
        window.show();
        QVERIFY(QTest::qWaitForWindowExposed(&window));
        QVERIFY(session.start());

        // Nodes come from the Add menu, as a user picks them.
        auto* add = window.chainPanel()->findChild<QToolButton*>();
        QVERIFY(add && add->menu());
        for (const char* name : {"Extract Channel", "Fast Fourier Transform 1D", "Image Averaging"}) {
            window.chainPanel()->setCurrentIndex(window.chainPanel()->count() - 1);
            const QList<QAction*> actions = add->menu()->actions();
            auto it = std::find_if(actions.begin(), actions.end(), [&](QAction* a) { return a->text() == name; });
            QVERIFY2(it != actions.end(), name);
            QVERIFY(!(*it)->toolTip().isEmpty());
            (*it)->trigger();
        }
        QCOMPARE(session.nodes().size(), 3);

        // Each panel opens beside the picture, showing that node's output.
        const char* shots[] = {"qlarview-extract.png", "qlarview-fft1d.png", "qlarview-averaging.png"};
        for (int i = 0; i < 3; ++i) {
            window.chainPanel()->setCurrentIndex(i);
            QTRY_VERIFY(window.nodePanel()->panel() && window.nodePanel()->panel()->isVisible());
            QCOMPARE(window.nodePanel()->node(), session.nodes()[i]);
            const qint64 shown = window.framesShown();
            QTRY_VERIFY_WITH_TIMEOUT(window.framesShown() > shown + 30, 20000);
            QCOMPARE(window.shownFrame()->stage, i);
            screenshot(window, shots[i]);
        }

        // Ten frames of the last stage; their replay is the recorder test's.
        QTemporaryDir dir;
        const QString folder = dir.filePath("recording");
        window.showStage(2);
        QString error;
        QVERIFY2(window.record(folder, 10, &error), qPrintable(error));
        QTRY_VERIFY_WITH_TIMEOUT(!session.recorder()->isRecording(), 60000);
        QCOMPARE(session.recorder()->framesRecorded(), qint64(10));
        screenshot(window, "qlarview-window.png");
        session.stop();
    }
};

QTEST_MAIN(TestQlarviewGui)
#include "tst_qlarview_gui.moc"
