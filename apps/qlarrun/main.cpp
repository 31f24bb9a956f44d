// qlarrun: runs a processing chain of plug-in nodes, without a viewer, over
// picture files or the built-in camera, and writes every output as a file.
//
// Exit status (scripts test these; a value never changes its meaning):
//   0  every frame ran and every output was written
//   1  usage: unknown option, bad number or size, options that do not go
//      together, a --node setting that is not key=value, that the node does
//      not have, or whose value the node does not take
//   2  input: a picture file, folder or pattern that is missing, unreadable,
//      truncated or of a kind not read here; a raw frame whose file size does
//      not match; a camera description or chain document that is missing or
//      malformed; a node name (document, --node, --describe) no plug-in has
//   3  plug-ins or chain: the plug-in folder cannot be loaded, or a node
//      refuses the format it is given
//   4  output: the output folder, a picture or the saved chain document
//      cannot be written
// Every failure prints one line on stderr naming the file or node at fault.
#include "CommandLine.h"
#include "Runner.h"

#include <QtCore/QHashFunctions>
#include <QtCore/QTextStream>
#include <QtWidgets/QApplication>

#include <cstdio>

namespace {

QtMessageHandler g_qtHandler = nullptr;

// A command-line run has no desktop session; Qt's note that it picked a
// runtime folder of its own is no news to the user and would read as a
// problem on stderr.
void quietHandler(QtMsgType type, const QMessageLogContext& context, const QString& message)
{
    if (type == QtWarningMsg && message.startsWith(QLatin1String("QStandardPaths: XDG_RUNTIME_DIR not set")))
        return;
    if (g_qtHandler)
        g_qtHandler(type, context, message);
    else
        fprintf(stderr, "%s\n", qPrintable(qFormatLogMessage(type, context, message)));
}

} // namespace

int main(int argc, char* argv[])
{
    g_qtHandler = qInstallMessageHandler(quietHandler);
    // XML attributes are kept in hashes; a fixed seed writes them in the same
    // order every run, so that equal pictures make byte-equal files.
    QHashSeed::setDeterministicGlobalSeed();
    // Plotting nodes paint with widget classes, which need a QApplication; a
    // command-line program shows nothing, so it never asks for a display.
    if (!qEnvironmentVariableIsSet("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("qlarrun"));

    SxRunOptions options;
    QString text;
    const ExExitCode parsed = CxCommandLine::parse(QCoreApplication::arguments(), options, &text);
    int exitCode = ExitOk;
    if (!CxCommandLine::settle("qlarrun", parsed, options.action, text, exitCode))
        return exitCode;
    QTextStream out(stdout);
    QTextStream err(stderr);
    CxRunner runner(out, err);
    return runner.exec(options);
}
