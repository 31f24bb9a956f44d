#include "ViewerSession.h"

#include "AravisCamera.h"
#include "Recorder.h"

#include <ChainBuilder.h>
#include <CxChain.h>
#include <CxChainDocument.h>
#include <CxChainable.h>
#include <CxImageSource.h>
#include <CxRTTI.h>
#include <IxChainData.h>
#include <Runner.h>

#include <QtCore/QMutexLocker>

#include <memory>

namespace {

const char* const NodeBaseClass = "CxChainable";

} // namespace

CxViewerSession::CxViewerSession(QObject* parent)
    : QObject(parent), m_chain(new CxChain(this)), m_recorder(std::make_unique<CxRecorder>())
{
    m_viewClock.start();
    m_chain->setRunMode(CxChain::RunLive);
    // The viewer consumes every output; kept in the last node they would
    // hold its pool pictures.
    m_chain->setOutputHandler([](IxChainData* packet) { delete packet; });
    m_chain->setObserver([this](int stage, const IxChainData* packet) { observe(stage, packet); });
    // Queued: start() may be called by a node's widget slot, and what the
    // session does about new formats (recreating that very panel) must wait
    // until the slot has returned.
    connect(m_chain, &CxChain::started, this, &CxViewerSession::formatsChanged, Qt::QueuedConnection);
    connect(m_chain, &CxChain::finished, this, &CxViewerSession::onChainFinished, Qt::QueuedConnection);
    // A node that threw has stopped the chain's work; the viewer stays up.
    connect(m_chain, &CxChain::failed, this, &CxViewerSession::onSourceFailed, Qt::QueuedConnection);
    connect(m_recorder.get(), &CxRecorder::finished, this, &CxViewerSession::onRecorderFinished, Qt::QueuedConnection);
    connect(m_recorder.get(), &CxRecorder::failed, this, &CxViewerSession::onRecorderFailed, Qt::QueuedConnection);
}

CxViewerSession::~CxViewerSession()
{
    m_chain->stop();
    m_recorder->stop();
    for (CxChainable* node : m_chain->nodes())
        emit nodeAboutToBeRemoved(node);
}

QList<CxViewerSession::SxNodeKind> CxViewerSession::nodeKinds()
{
    QList<SxNodeKind> kinds;
    CxRTTI* rtti = CxRTTI::instance();
    for (const CxRTTI::SxClassEntry& entry : rtti->classes(QString::fromLatin1(NodeBaseClass))) {
        SxNodeKind kind{entry.customName, entry.uniqueId, QString()};
        const std::unique_ptr<QObject> object(rtti->createInstance(*entry.metaObject));
        if (auto* node = qobject_cast<CxChainable*>(object.get()); node && node->hasHelp()) {
            QString anchor;
            kind.help = CxRunner::plainHelp(node->help(anchor), false);
        }
        kinds.append(kind);
    }
    return kinds;
}

template <class F> void CxViewerSession::withChainStopped(F&& change)
{
    const bool wasRunning = !m_chain->stopped();
    m_chain->stop();
    change();
    m_nodeCount = int(m_chain->nodes().size());
    if (wasRunning)
        start();
}

void CxViewerSession::setSource(CxImageSource* source)
{
    withChainStopped([&] {
        if (CxImageSource* old = m_chain->source())
            disconnect(old, nullptr, this, nullptr);
        m_chain->setSource(source);
        watchSource();
    });
}

CxImageSource* CxViewerSession::source() const { return m_chain->source(); }

// The sources' own signals, found by name so that any source that has them
// is watched: cameras that go away, players that change format or fail.
void CxViewerSession::watchSource()
{
    CxImageSource* source = m_chain->source();
    if (!source)
        return;
    const QMetaObject* meta = source->metaObject();
    auto watch = [&](const char* signal, const char* slot) {
        if (meta->indexOfSignal(QMetaObject::normalizedSignature(signal + 1)) >= 0)
            connect(source, signal, this, slot, Qt::QueuedConnection);
    };
    watch(SIGNAL(cameraLost(QString)), SLOT(onCameraLost(QString)));
    watch(SIGNAL(formatChanged()), SLOT(onSourceFormatChanged()));
    watch(SIGNAL(failed(QString)), SLOT(onSourceFailed(QString)));
}

SxCameraDescription CxViewerSession::inputDescription() const
{
    SxPicBufInfo format;
    CxImageMetadata meta;
    if (!m_chain->negotiatedFormat(-1, format, &meta))
        return SxCameraDescription();
    return SxCameraDescription::fromFormat(format, meta);
}

CxChainable* CxViewerSession::addNode(const QString& name, int index, QString* error)
{
    CxChainable* node = CxChainBuilder::createNode(name, error);
    if (node)
        insertNode(node, index);
    return node;
}

void CxViewerSession::insertNode(CxChainable* node, int index)
{
    withChainStopped([&] { m_chain->insertNode(index < 0 ? int(m_chain->nodes().size()) : index, node); });
    emit nodesChanged();
}

void CxViewerSession::removeNode(int index)
{
    const QList<CxChainable*> nodes = m_chain->nodes();
    if (index < 0 || index >= nodes.size())
        return;
    emit nodeAboutToBeRemoved(nodes[index]);
    withChainStopped([&] { delete m_chain->takeNode(index); });
    emit nodesChanged();
}

void CxViewerSession::moveNode(int from, int to)
{
    withChainStopped([&] { m_chain->moveNode(from, to); });
    emit nodesChanged();
}

QList<CxChainable*> CxViewerSession::nodes() const { return m_chain->nodes(); }

bool CxViewerSession::loadChain(const QString& path, QString* error)
{
    SxCameraDescription input;
    const QList<CxChainable*> loaded = CxChainDocument::loadFromFile(path, error, &input);
    if (loaded.isEmpty() && !error->isEmpty())
        return false;
    for (CxChainable* node : m_chain->nodes())
        emit nodeAboutToBeRemoved(node);
    withChainStopped([&] {
        m_chain->clearNodes();
        for (CxChainable* node : loaded)
            m_chain->appendNode(node);
    });
    m_chainInput = input;
    emit nodesChanged();
    return true;
}

bool CxViewerSession::saveChain(const QString& path, QString* error) const
{
    const SxCameraDescription input = inputDescription();
    return CxChainDocument::saveToFile(m_chain->nodes(), path, error, input.isEmpty() ? nullptr : &input);
}

bool CxViewerSession::start()
{
    m_wantRunning = true;
    const bool ok = m_chain->start();
    if (!ok)
        emit message(m_chain->lastError());
    emit runningChanged(ok);
    return ok;
}

void CxViewerSession::stop()
{
    m_wantRunning = false;
    m_chain->stop();
    // A stopped viewer keeps the frame on show, not the room for the next.
    m_viewSpares->clear();
    emit runningChanged(false);
}

bool CxViewerSession::isRunning() const { return !m_chain->stopped(); }

QString CxViewerSession::lastError() const { return m_chain->lastError(); }

void CxViewerSession::setViewedStage(int stage)
{
    m_viewStage = stage < -1 ? NoStage : stage;
    // The next packet of the new stage shows at once.
    QMutexLocker locker(&m_viewLock);
    m_lastViewNs = -1;
}

void CxViewerSession::setDisplayRate(double hz)
{
    m_viewIntervalNs = hz > 0.0 ? qint64(1e9 / hz) : 0;
}

ViewFramePtr CxViewerSession::takeViewFrame()
{
    QMutexLocker locker(&m_viewLock);
    ViewFramePtr frame = std::move(m_viewFrame);
    m_viewFrame.reset();
    m_viewPending = false;
    return frame;
}

// On a chain thread, for every packet between stages.
void CxViewerSession::observe(int stage, const IxChainData* packet)
{
    m_recorder->offer(stage, packet);
    int viewed = m_viewStage.load();
    const int last = m_nodeCount.load() - 1;
    if (viewed == NoStage)
        return;
    if (viewed > last)
        viewed = last;
    if (stage != viewed)
        return;
    if (m_viewPending.load()) {
        ++m_viewSkipped;
        return;
    }
    {
        QMutexLocker locker(&m_viewLock);
        const qint64 now = m_viewClock.nsecsElapsed();
        if (m_lastViewNs >= 0 && now - m_lastViewNs < m_viewIntervalNs.load()) {
            ++m_viewSkipped;
            return;
        }
        m_lastViewNs = now;
    }
    // Copied outside the lock: the GUI may take the previous frame meanwhile.
    const qint64 began = m_viewClock.nsecsElapsed();
    std::shared_ptr<SxViewFrame> copy = SxViewFrame::copyOf(packet, stage, m_viewSpares);
    m_viewCopyNs += m_viewClock.nsecsElapsed() - began;
    if (!copy)
        return;
    {
        QMutexLocker locker(&m_viewLock);
        m_viewFrame = std::move(copy);
        m_viewPending = true;
    }
    ++m_viewCopied;
    QMetaObject::invokeMethod(this, "viewFrameReady", Qt::QueuedConnection);
}

bool CxViewerSession::startRecording(const QString& folder, qint64 frames, QString* error)
{
    const int last = int(m_chain->nodes().size()) - 1;
    const int stage = qBound(-1, m_viewStage.load(), last);
    bool ok = false;
    withChainStopped([&] {
        // The input description comes from a start; a stopped chain that never
        // ran has none yet, so negotiate once.
        SxCameraDescription input = inputDescription();
        if (input.isEmpty() && m_chain->start()) {
            m_chain->stop();
            input = inputDescription();
        }
        ok = m_recorder->start(folder, stage, m_chain->nodes().mid(0, stage + 1), input, frames, error);
    });
    if (ok && !isRunning())
        start();
    return ok;
}

void CxViewerSession::stopRecording() { m_recorder->stop(); }

void CxViewerSession::onCameraLost(const QString& why)
{
    m_chain->stop();
    // Closed at once: a camera that comes back is opened anew.
    if (auto* camera = qobject_cast<CxAravisCamera*>(m_chain->source()))
        camera->close();
    emit runningChanged(false);
    emit message(why);
}

void CxViewerSession::onSourceFormatChanged()
{
    if (!m_wantRunning)
        return;
    m_chain->stop();
    start();
}

void CxViewerSession::onSourceFailed(const QString& why)
{
    stop();
    emit message(why);
}

void CxViewerSession::onChainFinished()
{
    // A finite source has played out: the threads have nothing left to do.
    m_chain->stop();
    emit runningChanged(false);
}

void CxViewerSession::onRecorderFinished()
{
    emit message(tr("Recording finished: %1 frames in %2")
                     .arg(m_recorder->framesRecorded())
                     .arg(m_recorder->folder()));
}

void CxViewerSession::onRecorderFailed(const QString& why)
{
    emit message(tr("Recording stopped: %1").arg(why));
}
