#pragma once
#include "CommandLine.h"
#include "ExitCodes.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QHash>
#include <QtCore/QList>
#include <QtCore/QString>

class QTextStream;
class CxChainable;
class CxOutputWriter;
class CxProgressBar;
class IxChainData;

// Carries out parsed options: loads the plug-ins, then lists or describes
// nodes, or builds the chain, runs it synchronously over the input and hands
// its outputs to the writer.
//
// Frames from files are decoded one ahead; when a file's format (or sensor
// description) differs from the frame before, the chain is stopped and
// started again so that every node negotiates the new format. Nodes that
// collect frames start over then.
//
// stdout gets the account of the run and the summary lines; stderr gets
// errors, warnings, node messages (each message of a node once) and, on a
// terminal, the progress bar.
class CxRunner
{
    Q_DECLARE_TR_FUNCTIONS(CxRunner)
public:
    CxRunner(QTextStream& out, QTextStream& err);
    ~CxRunner();

    ExExitCode exec(const SxRunOptions& options);

    // --plugins, else $QLAR_PLUGIN_DIR, else the build tree's folder.
    static QString pluginFolder(const QString& option);
    // A node's rich help text as plain text: line breaks as newlines, or as
    // " / " when compact; tags dropped, entities decoded.
    static QString plainHelp(const QString& richText, bool compact);

private:
    ExExitCode loadPlugins(const QString& folder);
    ExExitCode listNodes();
    ExExitCode describeNode(const QString& name);
    ExExitCode run(const SxRunOptions& options);
    ExExitCode handleOutput(IxChainData* packet, CxOutputWriter& writer);
    void reportNodeErrors(const QList<CxChainable*>& nodes);

    void info(const QString& text);
    void warn(const QString& text);
    ExExitCode fail(ExExitCode code, const QString& text);

    QTextStream& m_out;
    QTextStream& m_err;
    bool m_quiet = false;
    CxProgressBar* m_progress = nullptr;  // the current run's, while it runs
    QHash<const CxChainable*, QString> m_shownErrors;
};
