#pragma once
#include "CommandLine.h"
#include "ExitCodes.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QHash>
#include <QtCore/QList>
#include <QtCore/QString>

class QTextStream;
class CxChainable;
class CxPngWriter;
class IxChainData;

// Carries out parsed options: loads the plug-ins, then lists the nodes or
// builds the chain, runs it synchronously and writes its outputs.
class CxRunner
{
    Q_DECLARE_TR_FUNCTIONS(CxRunner)
public:
    CxRunner(QTextStream& out, QTextStream& err);

    ExExitCode exec(const SxRunOptions& options);

    // --plugins, else $QLAR_PLUGIN_DIR, else the build tree's folder.
    static QString pluginFolder(const QString& option);

private:
    ExExitCode loadPlugins(const QString& folder);
    ExExitCode listNodes();
    ExExitCode run(const SxRunOptions& options);
    ExExitCode handleOutput(IxChainData* packet, CxPngWriter* writer);
    void reportNodeErrors(const QList<CxChainable*>& nodes);

    void info(const QString& text);
    void warn(const QString& text);
    ExExitCode fail(ExExitCode code, const QString& text);

    QTextStream& m_out;
    QTextStream& m_err;
    bool m_quiet = false;
    QHash<const CxChainable*, QString> m_shownErrors;
};
