// qlarview: a live viewer for processing chains. It loads the plug-in folder
// as qlarrun does, builds the chain from the same documents and options,
// and shows any stage's pictures while frames flow from the built-in
// camera, picture files or a GenICam camera.
//
// Exit status: 0 after the window closed, 1 for a usage error, 2 for an
// input (file, chain document, camera) that cannot be opened, 3 when the
// plug-in folder cannot be loaded.
#include "MainWindow.h"
#include "SourcePanel.h"
#include "ViewerCommandLine.h"
#include "ViewerSession.h"

#include <ChainBuilder.h>
#include <CxPluginManager.h>
#include <Runner.h>
#include <SxCameraDescription.h>

#include <QtCore/QFileInfo>
#include <QtCore/QHashFunctions>
#include <QtCore/QTextStream>
#include <QtGui/QScreen>
#include <QtWidgets/QApplication>

int main(int argc, char* argv[])
{
    // Chain documents saved here compare byte for byte with qlarrun's.
    QHashSeed::setDeterministicGlobalSeed();
    QApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("qlarview"));
    SxViewerOptions options;
    QString text;
    const ExExitCode parsed = CxViewerCommandLine::parse(QCoreApplication::arguments(), options, &text);
    int exitCode = ExitOk;
    if (!CxCommandLine::settle("qlarview", parsed, options.run.action, text, exitCode))
        return exitCode;
    QTextStream err(stderr);

    const QString folder = CxRunner::pluginFolder(options.run.pluginDir);
    if (folder.isEmpty() || !QFileInfo(folder).isDir()) {
        err << "qlarview: " << folder << ": no such plug-in folder\n";
        return ExitChain;
    }
    CxPluginManager::instance()->loadFolder(folder);
    for (const QString& error : CxPluginManager::instance()->errors())
        err << "qlarview: " << error << '\n';

    QList<CxChainable*> nodes;
    SxCameraDescription documentInput;
    const ExExitCode built = CxChainBuilder::build(options.run.chainFile, options.run.nodes, nodes, documentInput, &text);
    if (built != ExitOk) {
        err << "qlarview: " << text << '\n';
        return built;
    }
    CxViewerSession session;
    for (CxChainable* node : nodes)
        session.insertNode(node, -1);
    ExExitCode status = ExitOk;
    CxImageSource* source = CxSourcePanel::makeSource(options, &documentInput, &text, &status);
    if (!source) {
        err << "qlarview: " << text << '\n';
        return status;
    }
    session.setSource(source);
    if (QScreen* screen = QGuiApplication::primaryScreen())
        session.setDisplayRate(screen->refreshRate());

    CxMainWindow window(&session);
    window.sourcePanel()->showOptions(options);
    window.showStage(options.stage == -2 ? int(nodes.size()) - 1 : options.stage);
    window.show();
    if (!options.paused)
        session.start();
    const int code = app.exec();
    session.stop();
    return code;
}
