#pragma once
#include "ChainBuilder.h"
#include "ExitCodes.h"
#include "InputSource.h"
#include "OutputWriter.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QList>
#include <QtCore/QString>
#include <QtCore/QStringList>

struct SxRunOptions
{
    enum ExAction { ActionRun, ActionList, ActionDescribe, ActionHelp, ActionVersion };

    ExAction action = ActionRun;
    bool defaultRun = false;   // no arguments at all: the demonstration runs
    QString label;             // a default run's one-line account of itself
    QString pluginDir;         // empty: $QLAR_PLUGIN_DIR, else the build tree's folder
    QString describeNode;
    QString chainFile;
    QList<SxNodeRequest> nodes;
    QString saveChainFile;
    SxInputRequest input;
    CxOutputWriter::SxOptions output;
    bool quiet = false;
    bool strict = false;       // frames a node passed on unprocessed or dropped, and empty outputs, fail the run
};

class CxCommandLine
{
    Q_DECLARE_TR_FUNCTIONS(CxCommandLine)
public:
    // arguments include the program name first, as QCoreApplication gives
    // them. For ActionHelp and ActionVersion, text holds what to print; on
    // failure it holds the one-line reason.
    static ExExitCode parse(const QStringList& arguments, SxRunOptions& options, QString* text);
    // What a program does with parse()'s answer before anything else: a
    // usage error goes to stderr as "program: reason (program --help shows
    // the options)", help and version text to stdout. False when the program
    // ends here, with exitCode set.
    static bool settle(const char* program, ExExitCode parsed, SxRunOptions::ExAction action, const QString& text,
                       int& exitCode);
    // What running without arguments does: one run per chain, each into its
    // own folder under defaultFolder().
    static QList<SxRunOptions> defaultRuns();
    static QString defaultFolder();
    static QString exitStatusHelp();
    static bool parseSize(const QString& text, quint32& width, quint32& height);
};
