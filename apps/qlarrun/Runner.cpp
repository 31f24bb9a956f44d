#include "Runner.h"

#include "ChainBuilder.h"
#include "InputSource.h"
#include "PngWriter.h"

#include <CxChain.h>
#include <CxChainDocument.h>
#include <CxChainable.h>
#include <CxImageData.h>
#include <CxImageSource.h>
#include <CxPicBufAPI.h>
#include <CxPluginManager.h>
#include <CxRTTI.h>

#include <QtCore/QDir>
#include <QtCore/QFileInfo>
#include <QtCore/QTextStream>

#include <memory>

#ifndef QLAR_PLUGIN_DIR
#define QLAR_PLUGIN_DIR ""
#endif

namespace {
const char* const Program = "qlarrun: ";
const char* const NodeBaseClass = "CxChainable";
} // namespace

CxRunner::CxRunner(QTextStream& out, QTextStream& err) : m_out(out), m_err(err) {}

void CxRunner::info(const QString& text)
{
    if (m_quiet)
        return;
    m_out << Program << text << '\n';
    m_out.flush();
}

void CxRunner::warn(const QString& text)
{
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

ExExitCode CxRunner::exec(const SxRunOptions& options)
{
    m_quiet = options.quiet;
    const ExExitCode loaded = loadPlugins(pluginFolder(options.pluginDir));
    if (loaded != ExitOk)
        return loaded;
    if (options.action == SxRunOptions::ActionList)
        return listNodes();
    return run(options);
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
    for (const CxRTTI::SxClassEntry& entry : CxRTTI::instance()->classes(QString::fromLatin1(NodeBaseClass)))
        m_out << entry.customName << '\t' << entry.uniqueId << '\n';
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

ExExitCode CxRunner::handleOutput(IxChainData* packet, CxPngWriter* writer)
{
    // The packet goes back to its pool however this ends.
    const std::unique_ptr<IxChainData> owned(packet);
    if (!writer)
        return ExitOk;
    QString message;
    CxPngWriter::ExResult result;
    if (const CxImageData* image = qobject_cast<const CxImageData*>(packet)) {
        result = writer->write(*image->picBuf(), &message);
    } else {
        result = writer->skip(tr("outputs of class %1 cannot be written as PNG yet")
                                  .arg(QString::fromLatin1(packet->metaObject()->className())),
                              &message);
    }
    if (result == CxPngWriter::Failed)
        return fail(ExitOutput, message);
    if (!message.isEmpty())
        warn(message);
    return ExitOk;
}

ExExitCode CxRunner::run(const SxRunOptions& options)
{
    QString error;
    QStringList warnings;
    QList<CxChainable*> nodes;
    const ExExitCode built = CxChainBuilder::build(options.chainFile, options.nodes, nodes, &error, &warnings);
    for (const QString& warning : warnings)
        warn(warning);
    if (built != ExitOk)
        return fail(built, error);

    auto chain = std::make_unique<CxChain>();
    chain->setRunMode(CxChain::RunSynchronous);
    for (CxChainable* node : nodes)
        chain->appendNode(node);

    if (!options.saveChainFile.isEmpty()
        && !CxChainDocument::saveToFile(nodes, options.saveChainFile, &error)) {
        return fail(ExitOutput, namingFile(options.saveChainFile, error));
    }

    CxImageSource* source = CxInputFactory::create(options.input, &error);
    if (!source)
        return fail(ExitUsage, error);
    chain->setSource(source);

    std::unique_ptr<CxPngWriter> writer;
    if (!options.outDir.isEmpty()) {
        writer = std::make_unique<CxPngWriter>();
        if (!writer->open(options.outDir, &error))
            return fail(ExitOutput, error);
    }

    if (!chain->start())
        return fail(ExitChain, tr("the chain refuses its input: %1").arg(chain->lastError()));

    if (options.defaultRun) {
        info(tr("default run: synthetic Bayer camera %1x%2, %3 frames, Deinterlace with odd rows first")
                 .arg(options.input.width).arg(options.input.height).arg(options.input.frames));
    } else {
        SxPicBufInfo format;
        source->sourceFormat(format, nullptr);
        QStringList stages{tr("%1 (%2)").arg(source->title(), format.describe())};
        for (const CxChainable* node : nodes)
            stages << node->title();
        info(stages.join(QLatin1String(" -> ")));
    }

    qint64 outputs = 0;
    ExExitCode status = ExitOk;
    while (status == ExitOk && !source->atEnd()) {
        const qint64 grabbedBefore = chain->stats().grabbed;
        IxChainData* output = chain->step();
        reportNodeErrors(nodes);
        if (output) {
            ++outputs;
            status = handleOutput(output, writer.get());
        }
        if (status == ExitOk && chain->stats().grabbed == grabbedBefore)
            status = fail(ExitInput, tr("the camera delivered no frame"));
    }
    chain->stop();
    reportNodeErrors(nodes);
    const qint64 framesIn = chain->stats().grabbed;
    chain.reset();

    // Every packet has been deleted by now; a picture still out means a node
    // kept one it was not meant to keep.
    const qint64 outstanding = CxPicBufAPI::OutstandingPoolPictures();
    if (outstanding != 0)
        warn(tr("%1 pool pictures were not given back").arg(outstanding));
    if (status != ExitOk)
        return status;

    if (writer) {
        QString summary = tr("%1 frames in, %2 outputs written to %3")
                              .arg(framesIn).arg(writer->written()).arg(writer->folder());
        if (writer->skipped() > 0)
            summary += tr(", %1 skipped").arg(writer->skipped());
        info(summary);
    } else {
        info(tr("%1 frames in, %2 outputs (none written: no --out folder)").arg(framesIn).arg(outputs));
    }
    return ExitOk;
}
