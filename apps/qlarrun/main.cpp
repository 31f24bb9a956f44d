// qlarrun: runs a processing chain of plug-in nodes over frames of the
// built-in camera, without a viewer, and writes the outputs as PNG files.
//
// Exit status (scripts test these; a value never changes its meaning):
//   0  every frame ran and every picture was written
//   1  usage: unknown option, bad number or size, a --node setting that is
//      not key=value or that the node does not have
//   2  input: the chain document is missing, unreadable or malformed, or
//      names a node no plug-in provides; a --node name is unknown
//   3  plug-ins or chain: the plug-in folder cannot be loaded, or a node
//      refuses the format it is given
//   4  output: the output folder, a picture or the saved chain document
//      cannot be written
// Every failure prints one line on stderr naming the file or node at fault.
#include "CommandLine.h"
#include "Runner.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QTextStream>

#include <cstdio>

int main(int argc, char* argv[])
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("qlarrun"));

    QTextStream out(stdout);
    QTextStream err(stderr);

    SxRunOptions options;
    QString text;
    const ExExitCode parsed = CxCommandLine::parse(QCoreApplication::arguments(), options, &text);
    if (parsed != ExitOk) {
        err << "qlarrun: " << text << QCoreApplication::translate("qlarrun", " (qlarrun --help shows the options)")
            << '\n';
        return parsed;
    }
    if (options.action == SxRunOptions::ActionHelp || options.action == SxRunOptions::ActionVersion) {
        out << text << '\n';
        return ExitOk;
    }
    CxRunner runner(out, err);
    return runner.exec(options);
}
