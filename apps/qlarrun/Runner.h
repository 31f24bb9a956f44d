#pragma once
#include "CommandLine.h"
#include "ExitCodes.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QHash>
#include <QtCore/QList>
#include <QtCore/QString>

#include <CxChain.h>

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
//
// Every frame is accounted for. The chain counts, per node, the packets it
// made something new of, passed on unchanged and gave nothing for. At the
// end of the run a node is reported when it
//  * passed frames on unprocessed: returned its input itself although its
//    work is making pictures (a node that asks for no pool pictures, as
//    Filter Images, passes packets on by design), or
//  * dropped frames: gave no output at all for the frames of one input
//    format (a stretch of the run between restarts). Collecting nodes
//    (averaging, merging, filtering) that give some outputs are not counted.
// Empty outputs are counted too. With --strict any of these, or an output
// without a file form, makes the exit status 5.
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
    // One run's parts, made by assemble() and used by flow() and account().
    struct SxRun;
    ExExitCode assemble(const SxRunOptions& options, SxRun& run);
    ExExitCode flow(SxRun& run);
    ExExitCode account(const SxRunOptions& options, SxRun& run, ExExitCode status);
    ExExitCode handleOutput(IxChainData* packet, CxOutputWriter& writer);
    void reportNodeErrors(const QList<CxChainable*>& nodes);

    // What a node did over the run, beyond its ordinary work.
    struct SxNodeAccount
    {
        qint64 frames = 0;
        qint64 unprocessed = 0;  // passed on unchanged by a node that makes pictures
        qint64 dropped = 0;      // frames of formats it gave no output for at all
        QString message;         // its message, when it had one
        QStringList droppedFormats;
    };
    // A segment is the stretch of a run between a start and a stop of the
    // chain: one input format.
    void beginSegment(const CxChain& chain);
    void endSegment(const CxChain& chain);
    // One warning per node that passed on or dropped frames; true when any did.
    bool reportAccounts(const QList<CxChainable*>& nodes);

    void info(const QString& text);
    void warn(const QString& text);
    ExExitCode fail(ExExitCode code, const QString& text);

    QTextStream& m_out;
    QTextStream& m_err;
    bool m_quiet = false;
    CxProgressBar* m_progress = nullptr;  // the current run's, while it runs
    QHash<const CxChainable*, QString> m_shownErrors;
    QList<CxChain::SxNodeStats> m_segmentStart;
    QList<SxNodeAccount> m_accounts;
};
