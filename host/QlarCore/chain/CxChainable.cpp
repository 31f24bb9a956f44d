#include "CxChainable.h"
#include "CxChain.h"
#include "IxChainData.h"

#include <QtXml/QDomDocument>
#include <QtXml/QDomElement>

namespace {
const QString AttrMaxFps = QStringLiteral("maxFps");
}

CxChainable::CxChainable(ExChainableFlags flags) : m_flags(flags) {}

CxChainable::~CxChainable()
{
    qDeleteAll(m_outputs);
}

QString CxChainable::title() const { return QString::fromLatin1(metaObject()->className()); }

bool CxChainable::acceptsDataFrom(CxChainable* predecessor) { return predecessor != nullptr; }

int CxChainable::buffersCountInMemoryPool() const { return 1; }

CxChainable* CxChainable::clone() { return nullptr; }

bool CxChainable::init(QString* errorMessage)
{
    Q_UNUSED(errorMessage);
    return true;
}

bool CxChainable::initialized() { return true; }

bool CxChainable::isDataConsumer() const { return false; }

int CxChainable::state() { return m_state.load(std::memory_order_acquire); }

IxChainData* CxChainable::data(QObject* consumer, int index)
{
    Q_UNUSED(consumer);
    QMutexLocker locker(&m_lock);
    return (index >= 0 && index < m_outputs.size()) ? m_outputs[index] : nullptr;
}

void CxChainable::discardData(QObject* consumer, int index)
{
    Q_UNUSED(consumer);
    IxChainData* gone = nullptr;
    {
        QMutexLocker locker(&m_lock);
        if (index >= 0 && index < m_outputs.size())
            gone = m_outputs.takeAt(index);
    }
    delete gone;
}

IxChainData* CxChainable::latestData(QObject* consumer)
{
    Q_UNUSED(consumer);
    QMutexLocker locker(&m_lock);
    return m_outputs.isEmpty() ? nullptr : m_outputs.last();
}

void CxChainable::discardLatestData(QObject* consumer)
{
    discardData(consumer, int(m_outputs.size()) - 1);
}

QWidget* CxChainable::configurationWidget() { return nullptr; }

bool CxChainable::hasConfigurationWidget() const { return false; }

void CxChainable::simpleStateConfigButtons(QList<CxSimpleStateConfigButton>& buttons, bool& hasButtons)
{
    Q_UNUSED(buttons);
    hasButtons = false;
}

void CxChainable::simpleStateConfigButtonPressed(int id) { Q_UNUSED(id); }

bool CxChainable::saveSettings(QDomDocument& doc, QDomElement& element) const
{
    Q_UNUSED(doc);
    if (element.isNull())
        return false;
    element.setAttribute(AttrMaxFps, m_maxFps);
    return true;
}

bool CxChainable::loadSettings(const QDomElement& element)
{
    if (element.isNull())
        return false;
    if (element.hasAttribute(AttrMaxFps)) {
        bool ok = false;
        const double fps = element.attribute(AttrMaxFps).toDouble(&ok);
        m_maxFps = (ok && fps > 0.0) ? fps : 0.0;
    }
    return true;
}

bool CxChainable::hasHelp() const { return false; }

QString CxChainable::help(QString& anchor)
{
    Q_UNUSED(anchor);
    return QString();
}

void CxChainable::setMaxFps(double fps) { m_maxFps = fps > 0.0 ? fps : 0.0; }

double CxChainable::maxFps() const { return m_maxFps; }

void CxChainable::setupStart() {}

void CxChainable::setupStop() {}

int CxChainable::recommendedAdditionalBuffersInMemoryPool() const { return 0; }

IxChainData* CxChainable::processData(IxChainData* data) { return data; }

void CxChainable::addSuccessor(CxChainable* c)
{
    QMutexLocker locker(&m_lock);
    if (c && !m_successors.contains(c))
        m_successors.append(c);
}

void CxChainable::addPrecedessor(CxChainable* c)
{
    QMutexLocker locker(&m_lock);
    if (c && !m_predecessors.contains(c))
        m_predecessors.append(c);
}

void CxChainable::removeSuccessor(CxChainable* c)
{
    QMutexLocker locker(&m_lock);
    m_successors.removeAll(c);
}

void CxChainable::removePrecedessor(CxChainable* c)
{
    QMutexLocker locker(&m_lock);
    m_predecessors.removeAll(c);
}

void CxChainable::clearSuccesors()
{
    QMutexLocker locker(&m_lock);
    m_successors.clear();
}

void CxChainable::clearPrecedessors()
{
    QMutexLocker locker(&m_lock);
    m_predecessors.clear();
}

void CxChainable::addToOutputData(IxChainData* data)
{
    if (!data)
        return;
    IxChainData* dropped = nullptr;
    int count = 0;
    {
        QMutexLocker locker(&m_lock);
        // A view that reads slower than frames arrive wants the newest ones.
        if (m_outputs.size() >= MaxStoredOutputs)
            dropped = m_outputs.takeFirst();
        m_outputs.append(data);
        count = int(m_outputs.size());
    }
    delete dropped;
    emit dataAvailable(this, count);
}

void CxChainable::onFreePoolBuffers(void* pool) { Q_UNUSED(pool); }

void CxChainable::onDataAvailable(CxChainable* from, int count)
{
    Q_UNUSED(from);
    Q_UNUSED(count);
}

void CxChainable::run() {}

void CxChainable::onChainStarted(CxChain* chain) { Q_UNUSED(chain); }

void CxChainable::onChainStopped(CxChain* chain) { Q_UNUSED(chain); }

QString CxChainable::errorMessage() const
{
    QMutexLocker locker(&m_lock);
    return m_errorMessage;
}

void CxChainable::setErrorMessage(const QString& message)
{
    {
        QMutexLocker locker(&m_lock);
        if (m_errorMessage == message)
            return;
        m_errorMessage = message;
    }
    emit errorMessageChanged(this);
}

QList<CxChainable*> CxChainable::successors() const
{
    QMutexLocker locker(&m_lock);
    return m_successors;
}

QList<CxChainable*> CxChainable::predecessors() const
{
    QMutexLocker locker(&m_lock);
    return m_predecessors;
}

void CxChainable::changeSetting(bool restart, const std::function<void()>& store)
{
    CxChain* c = restart ? chain() : nullptr;
    if (!c || c->stopped()) {
        store();
        return;
    }
    c->stop();
    store();
    c->start();
}
