#include "Runner.h"

#include "ChainBuilder.h"
#include "FileSource.h"
#include "InputSource.h"
#include "OutputWriter.h"
#include "ProgressBar.h"

#include <CxChain.h>
#include <CxChainDocument.h>
#include <CxChainable.h>
#include <CxImageSource.h>
#include <IxChainData.h>
#include <CxPicBufAPI.h>
#include <CxPluginManager.h>
#include <CxRTTI.h>
#include <SxCameraDescription.h>

#include <QtCore/QFileInfo>
#include <QtCore/QRegularExpression>
#include <QtCore/QTextStream>
#include <QtXml/QDomDocument>

#include <memory>

#ifndef QLAR_PLUGIN_DIR
#define QLAR_PLUGIN_DIR ""
#endif

namespace {
const char* const Program = "qlarrun: ";
const char* const NodeBaseClass = "CxChainable";

bool sameInput(const SxPicBufInfo& a, const CxImageMetadata& aMeta, const SxPicBufInfo& b,
               const CxImageMetadata& bMeta)
{
    return a.sameFormat(b) && aMeta.hsiCameraParams() == bMeta.hsiCameraParams();
}

} // namespace

CxRunner::CxRunner(QTextStream& out, QTextStream& err) : m_out(out), m_err(err) {}

CxRunner::~CxRunner() = default;

void CxRunner::info(const QString& text)
{
    if (m_quiet)
        return;
    if (m_progress)
        m_progress->clear();
    m_out << Program << text << '\n';
    m_out.flush();
}

void CxRunner::warn(const QString& text)
{
    if (m_progress)
        m_progress->clear();
    m_err << Program << text << '\n';
    m_err.flush();
}

ExExitCode CxRunner::fail(ExExitCode code, const QString& text)
{
    warn(text);
    return code;
}

QString CxRunner::pluginFolder(const QString& option)
{
    if (!option.isEmpty())
        return option;
    const QString fromEnv = qEnvironmentVariable("QLAR_PLUGIN_DIR");
    if (!fromEnv.isEmpty())
        return fromEnv;
    return QString::fromUtf8(QLAR_PLUGIN_DIR);
}

QString CxRunner::plainHelp(const QString& richText, bool compact)
{
    static const QRegularExpression lineBreak(QStringLiteral("<br\\s*/?>"), QRegularExpression::CaseInsensitiveOption);
    static const QRegularExpression tag(QStringLiteral("<[^>]*>"));
    QString text = richText;
    text.replace(lineBreak, QStringLiteral("\n"));
    text.remove(tag);
    text.replace(QLatin1String("&lt;"), QLatin1String("<"))
        .replace(QLatin1String("&gt;"), QLatin1String(">"))
        .replace(QLatin1String("&quot;"), QLatin1String("\""))
        .replace(QLatin1String("&#39;"), QLatin1String("'"))
        .replace(QLatin1String("&nbsp;"), QLatin1String(" "))
        .replace(QLatin1String("&amp;"), QLatin1String("&"));
    QStringList lines;
    for (const QString& line : text.split(QLatin1Char('\n'))) {
        const QString trimmed = line.simplified();
        if (!trimmed.isEmpty())
            lines << trimmed;
    }
    return lines.join(compact ? QStringLiteral(" / ") : QStringLiteral("\n"));
}

ExExitCode CxRunner::exec(const SxRunOptions& options)
{
    m_quiet = options.quiet;
    const ExExitCode loaded = loadPlugins(pluginFolder(options.pluginDir));
    if (loaded != ExitOk)
        return loaded;
    if (options.action == SxRunOptions::ActionList)
        return listNodes();
    if (options.action == SxRunOptions::ActionDescribe)
        return describeNode(options.describeNode);
    if (!options.defaultRun)
        return run(options);
    for (const SxRunOptions& defaultRun : CxCommandLine::defaultRuns()) {
        const ExExitCode status = run(defaultRun);
        if (status != ExitOk)
            return status;
    }
    return ExitOk;
}

ExExitCode CxRunner::loadPlugins(const QString& folder)
{
    if (folder.isEmpty() || !QFileInfo(folder).isDir())
        return fail(ExitChain, tr("%1: no such plug-in folder").arg(folder));
    CxPluginManager* manager = CxPluginManager::instance();
    const qsizetype errorsBefore = manager->errors().size();
    const int loaded = manager->loadFolder(folder);
    // A broken library next to good ones should not stop a run that does
    // not need it, but it must not go unnoticed either.
    const QStringList errors = manager->errors().mid(errorsBefore);
    for (const QString& error : errors)
        warn(error);
    if (loaded == 0 && errors.isEmpty())
        warn(tr("%1: no plug-ins in this folder").arg(folder));
    return ExitOk;
}

ExExitCode CxRunner::listNodes()
{
    CxRTTI* rtti = CxRTTI::instance();
    for (const CxRTTI::SxClassEntry& entry : rtti->classes(QString::fromLatin1(NodeBaseClass))) {
        QString help;
        const std::unique_ptr<QObject> object(rtti->createInstance(*entry.metaObject));
        if (CxChainable* node = qobject_cast<CxChainable*>(object.get())) {
            QString anchor;
            if (node->hasHelp())
                help = plainHelp(node->help(anchor), true);
        }
        m_out << entry.customName << '\t' << entry.uniqueId << '\t' << help << '\n';
    }
    m_out.flush();
    return ExitOk;
}

ExExitCode CxRunner::describeNode(const QString& name)
{
    QString error;
    const std::unique_ptr<CxChainable> node(CxChainBuilder::createNode(name, &error));
    if (!node)
        return fail(ExitInput, error);
    const QMetaObject& meta = *node->metaObject();
    const QString uniqueId = CxRTTI::classInfo(meta, "UniqueID");
    m_out << CxRTTI::classInfo(meta, "CustomName") << " (" << uniqueId << ")\n";
    QString anchor;
    if (node->hasHelp())
        m_out << plainHelp(node->help(anchor), false) << '\n';
    QDomDocument doc;
    QDomElement element = doc.createElement(QString::fromLatin1(CxChainDocument::NodeElement));
    element.setAttribute(QString::fromLatin1(CxChainDocument::UniqueIdAttribute), uniqueId);
    doc.appendChild(element);
    node->saveSettings(doc, element);
    m_out << '\n' << tr("Default settings:") << '\n' << doc.toString(-1) << '\n';
    m_out.flush();
    return ExitOk;
}

void CxRunner::reportNodeErrors(const QList<CxChainable*>& nodes)
{
    for (int i = 0; i < nodes.size(); ++i) {
        const CxChainable* node = nodes.at(i);
        const QString message = node->errorMessage();
        if (message.isEmpty() || m_shownErrors.value(node) == message)
            continue;
        m_shownErrors.insert(node, message);
        warn(tr("node %1 \"%2\": %3").arg(i + 1).arg(node->title(), message));
    }
}

ExExitCode CxRunner::handleOutput(IxChainData* packet, CxOutputWriter& writer)
{
    // The packet goes back to its pool however this ends.
    const std::unique_ptr<IxChainData> owned(packet);
    QString message;
    QStringList summary;
    const CxOutputWriter::ExResult result = writer.handle(packet, &message, &summary);
    if (!summary.isEmpty()) {
        if (m_progress)
            m_progress->clear();
        for (const QString& line : summary)
            m_out << line << '\n';
        m_out.flush();
    }
    if (result == CxOutputWriter::Failed)
        return fail(ExitOutput, message);
    if (!message.isEmpty())
        warn(message);
    return ExitOk;
}

void CxRunner::beginSegment(const CxChain& chain)
{
    m_segmentStart.clear();
    for (int i = 0; i < chain.nodes().size(); ++i)
        m_segmentStart.append(chain.nodeStats(i));
}

void CxRunner::endSegment(const CxChain& chain)
{
    const QList<CxChainable*> nodes = chain.nodes();
    while (m_accounts.size() < nodes.size())
        m_accounts.append(SxNodeAccount());
    for (int i = 0; i < nodes.size() && i < m_segmentStart.size(); ++i) {
        const CxChain::SxNodeStats now = chain.nodeStats(i);
        const CxChain::SxNodeStats& then = m_segmentStart.at(i);
        const qint64 frames = now.frames - then.frames;
        const qint64 passedOn = now.passedOn - then.passedOn;
        SxNodeAccount& account = m_accounts[i];
        account.frames += frames;
        // Passing packets on is the whole work of a node without pictures.
        if (nodes.at(i)->buffersCountInMemoryPool() > 0)
            account.unprocessed += passedOn;
        if (frames > 0 && now.outputs == then.outputs && passedOn == 0) {
            account.dropped += frames;
            SxPicBufInfo in;
            if (chain.negotiatedFormat(i - 1, in))
                account.droppedFormats.append(in.describe());
        }
        if (!nodes.at(i)->errorMessage().isEmpty())
            account.message = nodes.at(i)->errorMessage();
    }
    m_segmentStart.clear();
}

bool CxRunner::reportAccounts(const QList<CxChainable*>& nodes)
{
    bool any = false;
    for (int i = 0; i < nodes.size() && i < m_accounts.size(); ++i) {
        const SxNodeAccount& a = m_accounts.at(i);
        const QString node = tr("node %1 \"%2\"").arg(i + 1).arg(nodes.at(i)->title());
        if (a.unprocessed > 0)
            warn(tr("%1: passed %2 of %3 frames on unprocessed%4")
                     .arg(node).arg(a.unprocessed).arg(a.frames)
                     .arg(a.message.isEmpty() ? QString() : tr(" (%1)").arg(a.message)));
        if (a.dropped > 0)
            warn(tr("%1: gave no output for %2 of %3 frames (input %4)")
                     .arg(node).arg(a.dropped).arg(a.frames).arg(a.droppedFormats.join(QLatin1String(", "))));
        any = any || a.unprocessed > 0 || a.dropped > 0;
    }
    return any;
}

struct CxRunner::SxRun
{
    QList<CxChainable*> nodes;  // owned by chain once appended
    std::unique_ptr<CxChain> chain;
    CxImageSource* source = nullptr;
    CxFileSource* files = nullptr;  // the source, when it reads picture files
    CxOutputWriter writer;
    SxPicBufInfo format;  // of the current segment
    CxImageMetadata formatMeta;
    qint64 outputs = 0;
    qint64 restarts = 0;
};

ExExitCode CxRunner::run(const SxRunOptions& options)
{
    SxRun r;
    const ExExitCode assembled = assemble(options, r);
    if (assembled != ExitOk)
        return assembled;

    m_accounts.clear();
    if (!r.chain->start()) {
        // Named as at a later format change: the file whose frame was refused.
        if (r.files)
            return fail(ExitChain,
                        tr("%1: the chain refuses this input: %2").arg(r.files->pendingFile(), r.chain->lastError()));
        return fail(ExitChain, tr("the chain refuses its input: %1").arg(r.chain->lastError()));
    }
    beginSegment(*r.chain);
    r.chain->negotiatedFormat(-1, r.format, &r.formatMeta);
    QStringList stages{tr("%1 (%2)").arg(r.source->title(), r.format.describe())};
    for (const CxChainable* node : r.nodes)
        stages << node->title();
    info(options.defaultRun ? tr("default run: %1; %2").arg(options.label, stages.join(QLatin1String(" -> ")))
                            : stages.join(QLatin1String(" -> ")));
    return account(options, r, flow(r));
}

ExExitCode CxRunner::assemble(const SxRunOptions& options, SxRun& r)
{
    QString error;
    SxCameraDescription documentInput;
    const ExExitCode built = CxChainBuilder::build(options.chainFile, options.nodes, r.nodes, documentInput, &error);
    if (built != ExitOk)
        return fail(built, error);

    r.chain = std::make_unique<CxChain>();
    r.chain->setRunMode(CxChain::RunSynchronous);
    for (CxChainable* node : r.nodes)
        r.chain->appendNode(node);

    ExExitCode status = ExitOk;
    r.source = CxInputFactory::create(options.input, &documentInput, &error, &status);
    if (!r.source)
        return fail(status, error);
    r.chain->setSource(r.source);
    r.files = qobject_cast<CxFileSource*>(r.source);
    if (r.files && !r.files->prepareNext(&error))
        return fail(ExitInput, error);

    if (!options.saveChainFile.isEmpty()) {
        // The first frame's description: what the rest of the run was given.
        SxPicBufInfo format;
        CxImageMetadata formatMeta;
        const SxCameraDescription described = r.source->sourceFormat(format, &formatMeta)
                                                  ? SxCameraDescription::fromFormat(format, formatMeta)
                                                  : SxCameraDescription();
        if (!CxChainDocument::saveToFile(r.nodes, options.saveChainFile, &error, &described))
            return fail(ExitOutput, namingFile(options.saveChainFile, error));
    }
    if (!r.writer.open(options.output, &error))
        return fail(ExitOutput, error);
    return ExitOk;
}

ExExitCode CxRunner::flow(SxRun& r)
{
    qint64 total = 0;
    if (r.files)
        total = r.files->frameCount();
    else if (const CxSyntheticCamera* camera = qobject_cast<const CxSyntheticCamera*>(r.source))
        total = camera->config().frameLimit;
    CxProgressBar progress(m_err, total, !m_quiet);
    m_progress = &progress;

    QString error;
    ExExitCode status = ExitOk;
    while (status == ExitOk && !r.source->atEnd()) {
        if (r.files) {
            if (!r.files->prepareNext(&error)) {
                status = fail(ExitInput, error);
                break;
            }
            SxPicBufInfo next;
            CxImageMetadata nextMeta;
            if (r.files->sourceFormat(next, &nextMeta) && !sameInput(r.format, r.formatMeta, next, nextMeta)) {
                info(tr("%1: the format changes to %2; the chain starts again")
                         .arg(r.files->pendingFile(), next.describe()));
                endSegment(*r.chain);
                r.chain->stop();
                ++r.restarts;
                if (!r.chain->start()) {
                    status = fail(ExitChain, tr("%1: the chain refuses this input: %2")
                                                 .arg(r.files->pendingFile(), r.chain->lastError()));
                    break;
                }
                beginSegment(*r.chain);
                r.format = next;
                r.formatMeta = nextMeta;
            }
        }
        const qint64 grabbedBefore = r.chain->stats().grabbed;
        IxChainData* output = r.chain->step();
        reportNodeErrors(r.nodes);
        if (r.chain->hasFailed()) {
            delete output;
            status = fail(ExitChain, r.chain->lastError());
            break;
        }
        if (output) {
            ++r.outputs;
            status = handleOutput(output, r.writer);
        }
        if (status == ExitOk && r.chain->stats().grabbed == grabbedBefore)
            status = fail(ExitInput, tr("the source delivered no frame"));
        progress.update(r.chain->stats().grabbed);
    }
    if (!m_segmentStart.isEmpty())
        endSegment(*r.chain);
    r.chain->stop();
    reportNodeErrors(r.nodes);
    progress.clear();
    m_progress = nullptr;
    return status;
}

ExExitCode CxRunner::account(const SxRunOptions& options, SxRun& r, ExExitCode status)
{
    const qint64 framesIn = r.chain->stats().grabbed;
    const bool unaccounted = reportAccounts(r.nodes);
    r.chain.reset();

    // Every packet has been deleted by now; a picture still out means a node
    // kept one it was not meant to keep.
    const qint64 outstanding = CxPicBufAPI::OutstandingPoolPictures();
    if (outstanding != 0)
        warn(tr("%1 pool pictures were not given back").arg(outstanding));
    if (status != ExitOk)
        return status;

    const CxOutputWriter& writer = r.writer;
    QString text;
    if (writer.writesFiles())
        text = tr("%1 frames in, %2 outputs written to %3").arg(framesIn).arg(writer.written()).arg(writer.folder());
    else
        text = tr("%1 frames in, %2 outputs (none written: no --out folder)").arg(framesIn).arg(r.outputs);
    if (writer.empty() > 0)
        text += tr(", %1 empty (nothing to write)").arg(writer.empty());
    if (writer.skipped() > 0)
        text += tr(", %1 skipped").arg(writer.skipped());
    if (r.restarts > 0)
        text += tr(", %1 restarts on a format change").arg(r.restarts);
    info(text);
    if (options.strict && (unaccounted || writer.empty() > 0 || writer.skipped() > 0))
        return fail(ExitStrict, tr("--strict: not every frame became a written output of every node's work"));
    return ExitOk;
}
