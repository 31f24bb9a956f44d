#include "CxChain.h"
#include "CxChainable.h"
#include "CxImageProvider.h"
#include "CxImageSource.h"
#include "CxPicBufAPI.h"
#include "IxChainData.h"

#include <QtCore/QLoggingCategory>
#include <QtCore/QMutex>
#include <QtCore/QPointer>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <exception>
#include <mutex>
#include <thread>
#include <vector>

namespace {

Q_LOGGING_CATEGORY(lcChain, "qlar.chain")

struct Item
{
    IxChainData* packet = nullptr;
    bool endOfStream = false;
};

// Bounded FIFO between two stages. Closing wakes every waiter; after that
// push and pop fail and what is left is drained by the chain.
class PacketQueue
{
public:
    explicit PacketQueue(size_t capacity) : m_capacity(capacity) {}

    // False when closed, or when full and wait is false.
    bool push(const Item& item, bool wait)
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        if (wait)
            m_notFull.wait(lock, [&] { return m_closed || m_items.size() < m_capacity; });
        if (m_closed || m_items.size() >= m_capacity)
            return false;
        m_items.push_back(item);
        m_notEmpty.notify_one();
        return true;
    }
    // A special item (end of stream) must never be lost to a full queue.
    bool pushAlways(const Item& item)
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        if (m_closed)
            return false;
        m_items.push_back(item);
        m_notEmpty.notify_one();
        return true;
    }
    bool pop(Item& out)
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_notEmpty.wait(lock, [&] { return m_closed || !m_items.empty(); });
        if (m_closed)
            return false;
        out = m_items.front();
        m_items.pop_front();
        m_notFull.notify_one();
        return true;
    }
    void close()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_closed = true;
        m_notEmpty.notify_all();
        m_notFull.notify_all();
    }
    size_t size()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_items.size();
    }
    std::deque<Item> drain()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        std::deque<Item> rest;
        rest.swap(m_items);
        return rest;
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_notEmpty, m_notFull;
    std::deque<Item> m_items;
    size_t m_capacity;
    bool m_closed = false;
};

} // namespace

struct CxChain::Private
{
    // Per node, across restarts; read from any thread while frames flow.
    struct NodeCounters
    {
        std::atomic<qint64> frames{0}, outputs{0}, passedOn{0}, withoutOutput{0}, busyNs{0};
    };

    struct Stage
    {
        CxChainable* node = nullptr;
        NodeCounters* counters = nullptr;
        CxImageProvider* provider = nullptr;
        void* pool = nullptr;
        SxPicBufInfo in, out;
        CxImageMetadata inMeta, outMeta;
        std::unique_ptr<PacketQueue> queue;  // input queue of a live run
        std::thread thread;
        std::chrono::steady_clock::time_point lastOutput{};
    };

    CxChain* q = nullptr;
    QList<CxChainable*> nodes;
    std::vector<std::unique_ptr<NodeCounters>> counters;  // parallel to nodes
    CxImageSource* source = nullptr;
    bool hasInputFormat = false;
    SxPicBufInfo inputFormat;
    CxImageMetadata inputMeta;
    ExRunMode mode = RunLive;
    int queueDepth = 2;
    std::function<void(IxChainData*)> handler;
    Observer observer;

    QMutex control;  // serialises start and stop
    std::atomic<bool> running{false};
    std::atomic<bool> stopRequested{false};
    std::vector<Stage> stages;
    void* sourcePool = nullptr;
    std::thread sourceThread;
    bool negotiated = false;
    SxPicBufInfo sourceFormat;
    CxImageMetadata sourceMeta;

    mutable QMutex errorLock;
    QString lastError;

    std::mutex finishMutex;
    std::condition_variable finishCv;
    bool finished = false;

    std::atomic<qint64> grabbed{0}, droppedAtSource{0}, pushed{0}, delivered{0}, swallowed{0},
        discardedOnStop{0}, throttled{0};

    static thread_local Private* currentChain;

    void setError(const QString& e)
    {
        QMutexLocker l(&errorLock);
        lastError = e;
    }

    // Runs a node's call; false with the exception's text when the node let
    // one out, which the contract forbids but a chain must survive.
    template <class Fn> static bool caught(Fn&& fn, QString* what)
    {
        try {
            fn();
            return true;
        } catch (const std::exception& e) {
            *what = QString::fromLocal8Bit(e.what());
        } catch (...) {
            *what = tr("unknown error");
        }
        return false;
    }
    static QString failureText(CxChainable* node, const char* where, const QString& what)
    {
        return tr("\"%1\" failed in %2: %3").arg(node->title(), QLatin1String(where), what);
    }

    // A node let an exception out while frames flow: the chain stops taking
    // frames, keeps the first report and tells its owner once (queued; the
    // owner stops it from its own thread). The program goes on.
    std::atomic<bool> faulted{false};
    void fault(CxChainable* node, const char* where, const QString& what)
    {
        const QString text = failureText(node, where, what);
        qCCritical(lcChain).noquote() << text;
        if (faulted.exchange(true))
            return;
        setError(text);
        {
            std::lock_guard<std::mutex> lock(finishMutex);
            stopRequested = true;
        }
        finishCv.notify_all();
        QMetaObject::invokeMethod(q, "failed", Qt::QueuedConnection, Q_ARG(QString, text));
    }

    IxChainData* processOne(Stage& s, IxChainData* packet);
    void deliver(IxChainData* out);
    void forward(size_t stageIndex, const Item& item);
    void workerLoop(size_t index);
    void sourceLoop();
    void markFinished();
    IxChainData* runSynchronously(IxChainData* packet);
    void releasePools();
    void relink();
    // The three jobs of start(), in order; each false with the error set and
    // nothing of its own left behind.
    bool negotiate(std::vector<Stage>& stages);
    bool fillPools();
    bool launch();
    void stopNode(CxChainable* node)
    {
        QString what;
        if (!caught([&] { node->setupStop(); }, &what))
            qCCritical(lcChain).noquote() << failureText(node, "setupStop", what);
        node->onChainStopped(q);
    }
    void observe(int stage, const IxChainData* packet)
    {
        if (observer)
            observer(stage, packet);
    }
};

thread_local CxChain::Private* CxChain::Private::currentChain = nullptr;

IxChainData* CxChain::Private::processOne(Stage& s, IxChainData* packet)
{
    const double fps = s.node->maxFps();
    const auto now = std::chrono::steady_clock::now();
    if (fps > 0.0 && s.lastOutput.time_since_epoch().count() != 0
        && now - s.lastOutput < std::chrono::duration<double>(1.0 / fps)) {
        delete packet;
        ++throttled;
        return nullptr;
    }
    QPointer<IxChainData> guard(packet);
    IxChainData* out = nullptr;
    const auto began = std::chrono::steady_clock::now();
    QString what;
    if (faulted.load()) {
        out = nullptr;
    } else if (!caught([&] { out = s.node->processData(packet); }, &what)) {
        out = nullptr;
        fault(s.node, "processData", what);
    }
    NodeCounters& c = *s.counters;
    c.busyNs += std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now() - began).count();
    ++c.frames;
    // A freed input's address may come back for the new packet, so only a
    // live input counts as passed on.
    if (!out)
        ++c.withoutOutput;
    else if (guard && guard.data() == out)
        ++c.passedOn;
    else
        ++c.outputs;
    // A node that made nothing, or made something new without freeing its
    // input, leaves the input to us.
    if (guard && guard.data() != out)
        delete guard.data();
    if (out)
        s.lastOutput = now;
    else
        ++swallowed;
    return out;
}

IxChainData* CxChain::Private::runSynchronously(IxChainData* packet)
{
    IxChainData* p = packet;
    observe(-1, p);
    for (size_t i = 0; i < stages.size(); ++i) {
        p = processOne(stages[i], p);
        if (!p || faulted.load()) {
            delete p;
            return nullptr;
        }
        observe(int(i), p);
    }
    ++delivered;
    return p;
}

void CxChain::Private::deliver(IxChainData* out)
{
    ++delivered;
    if (handler)
        handler(out);
    else if (!nodes.isEmpty())
        nodes.last()->addToOutputData(out);
    else if (source)
        source->addToOutputData(out);
    else
        delete out;
}

void CxChain::Private::markFinished()
{
    {
        std::lock_guard<std::mutex> lock(finishMutex);
        finished = true;
    }
    finishCv.notify_all();
    QMetaObject::invokeMethod(q, "finished", Qt::QueuedConnection);
}

// Hands an item to stage stageIndex (or to the output past the last stage).
void CxChain::Private::forward(size_t stageIndex, const Item& item)
{
    if (stageIndex >= stages.size()) {
        if (item.endOfStream)
            markFinished();
        else
            deliver(item.packet);
        return;
    }
    PacketQueue& queue = *stages[stageIndex].queue;
    const bool ok = item.endOfStream ? queue.pushAlways(item) : queue.push(item, true);
    if (!ok && item.packet) {
        delete item.packet;
        ++discardedOnStop;
    }
}

void CxChain::Private::workerLoop(size_t index)
{
    currentChain = this;
    Stage& s = stages[index];
    Item item;
    while (s.queue->pop(item)) {
        if (item.endOfStream) {
            forward(index + 1, item);
            continue;
        }
        if (index == 0)
            observe(-1, item.packet);
        IxChainData* out = processOne(s, item.packet);
        if (out) {
            observe(int(index), out);
            forward(index + 1, Item{out, false});
        }
    }
    currentChain = nullptr;
}

void CxChain::Private::sourceLoop()
{
    currentChain = this;
    const bool live = source->isLiveSource();
    auto nextDue = std::chrono::steady_clock::now();
    while (!stopRequested.load()) {
        if (source->atEnd()) {
            forward(0, Item{nullptr, true});
            break;
        }
        const double fps = source->maxFps();
        if (fps > 0.0) {
            std::unique_lock<std::mutex> lock(finishMutex);
            finishCv.wait_until(lock, nextDue, [&] { return stopRequested.load(); });
            if (stopRequested.load())
                break;
            nextDue += std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                std::chrono::duration<double>(1.0 / fps));
            const auto now = std::chrono::steady_clock::now();
            if (nextDue < now)
                nextDue = now;  // never try to catch up with a burst
        }
        IxChainData* frame = source->grabFrame();
        if (!frame) {
            // Every source picture is still in the chain; wait for one to return.
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
            continue;
        }
        ++grabbed;
        if (stages.empty()) {
            observe(-1, frame);
            deliver(frame);
            continue;
        }
        if (stages[0].queue->push(Item{frame, false}, !live))
            continue;
        delete frame;
        if (stopRequested.load())
            ++discardedOnStop;
        else
            ++droppedAtSource;
    }
    currentChain = nullptr;
}

void CxChain::Private::releasePools()
{
    for (Stage& s : stages) {
        if (s.provider) {
            s.provider->setMemoryPool(nullptr);
            s.provider->onFreePoolBuffers(s.pool);
        }
        CxPicBufAPI::ReleaseMemoryPool(s.pool);
        s.pool = nullptr;
    }
    if (source) {
        source->setMemoryPool(nullptr);
        source->onFreePoolBuffers(sourcePool);
    }
    CxPicBufAPI::ReleaseMemoryPool(sourcePool);
    sourcePool = nullptr;
}

// Source and nodes linked one after another, as the chain runs them.
void CxChain::Private::relink()
{
    if (source)
        source->clearSuccesors();
    for (CxChainable* n : nodes) {
        n->clearSuccesors();
        n->clearPrecedessors();
    }
    CxChainable* prev = source;
    for (CxChainable* n : nodes) {
        if (prev) {
            prev->addSuccessor(n);
            n->addPrecedessor(prev);
        }
        prev = n;
    }
}

CxChain::CxChain(QObject* parent) : QObject(parent), d(new Private)
{
    d->q = this;
}

CxChain::~CxChain()
{
    stop();
    for (CxChainable* n : d->nodes)
        n->setChain(nullptr);
    qDeleteAll(d->nodes);
    delete d->source;
}

void CxChain::setSource(CxImageSource* source)
{
    if (!stopped()) {
        qCWarning(lcChain) << "setSource ignored while the chain runs";
        return;
    }
    if (d->source == source)
        return;
    delete d->source;
    d->source = source;
    if (source) {
        source->setChain(this);
        if (!d->nodes.isEmpty()) {
            source->addSuccessor(d->nodes.first());
            d->nodes.first()->addPrecedessor(source);
        }
    }
}

CxImageSource* CxChain::source() const { return d->source; }

void CxChain::appendNode(CxChainable* node)
{
    if (!node)
        return;
    if (!stopped()) {
        qCWarning(lcChain) << "appendNode ignored while the chain runs";
        return;
    }
    CxChainable* prev = d->nodes.isEmpty() ? static_cast<CxChainable*>(d->source) : d->nodes.last();
    if (prev) {
        prev->addSuccessor(node);
        node->addPrecedessor(prev);
    }
    node->setChain(this);
    d->nodes.append(node);
    d->counters.push_back(std::make_unique<Private::NodeCounters>());
}

QList<CxChainable*> CxChain::nodes() const { return d->nodes; }

void CxChain::clearNodes()
{
    stop();
    if (d->source)
        d->source->clearSuccesors();
    for (CxChainable* n : d->nodes)
        n->setChain(nullptr);
    qDeleteAll(d->nodes);
    d->nodes.clear();
    d->stages.clear();
    d->counters.clear();
    d->negotiated = false;
}

void CxChain::insertNode(int index, CxChainable* node)
{
    if (!node)
        return;
    if (!stopped()) {
        qCWarning(lcChain) << "insertNode ignored while the chain runs";
        return;
    }
    index = qBound(0, index, int(d->nodes.size()));
    node->setChain(this);
    d->nodes.insert(index, node);
    d->counters.insert(d->counters.begin() + index, std::make_unique<Private::NodeCounters>());
    d->stages.clear();
    d->negotiated = false;
    d->relink();
}

CxChainable* CxChain::takeNode(int index)
{
    if (!stopped()) {
        qCWarning(lcChain) << "takeNode ignored while the chain runs";
        return nullptr;
    }
    if (index < 0 || index >= d->nodes.size())
        return nullptr;
    CxChainable* node = d->nodes.takeAt(index);
    d->counters.erase(d->counters.begin() + index);
    d->stages.clear();
    d->negotiated = false;
    d->relink();
    node->clearSuccesors();
    node->clearPrecedessors();
    node->setChain(nullptr);
    return node;
}

void CxChain::moveNode(int from, int to)
{
    if (!stopped()) {
        qCWarning(lcChain) << "moveNode ignored while the chain runs";
        return;
    }
    const int n = int(d->nodes.size());
    if (from < 0 || from >= n || to < 0 || to >= n || from == to)
        return;
    d->nodes.move(from, to);
    auto counter = std::move(d->counters[size_t(from)]);
    d->counters.erase(d->counters.begin() + from);
    d->counters.insert(d->counters.begin() + to, std::move(counter));
    d->stages.clear();
    d->negotiated = false;
    d->relink();
}

void CxChain::setInputFormat(const SxPicBufInfo& info, const CxImageMetadata& meta)
{
    d->inputFormat = info;
    d->inputMeta = meta;
    d->hasInputFormat = true;
}

void CxChain::setRunMode(ExRunMode mode)
{
    if (stopped())
        d->mode = mode;
}

CxChain::ExRunMode CxChain::runMode() const { return d->mode; }

void CxChain::setQueueDepth(int depth)
{
    if (stopped())
        d->queueDepth = qMax(1, depth);
}

int CxChain::queueDepth() const { return d->queueDepth; }

void CxChain::setOutputHandler(std::function<void(IxChainData*)> handler)
{
    if (stopped())
        d->handler = std::move(handler);
}

void CxChain::setObserver(Observer observer)
{
    if (stopped())
        d->observer = std::move(observer);
}

QList<int> CxChain::queueFill() const
{
    QList<int> fill;
    // A start or stop in progress holds the lock for as long as threads take
    // to join; a reader (the GUI) does not wait for that.
    if (!d->running.load() || !d->control.tryLock())
        return fill;
    for (Private::Stage& s : d->stages)
        if (s.queue)
            fill.append(int(s.queue->size()));
    d->control.unlock();
    return fill;
}

bool CxChain::start()
{
    if (Private::currentChain == d.get()) {
        qCWarning(lcChain) << "start() called from a chain thread; ignored";
        return false;
    }
    QMutexLocker locker(&d->control);
    if (d->running.load())
        return true;
    d->setError(QString());
    std::vector<Private::Stage> stages(size_t(d->nodes.size()));
    if (!d->negotiate(stages))
        return false;
    d->stages = std::move(stages);
    if (!d->fillPools())
        return false;
    d->negotiated = true;
    if (!d->launch())
        return false;
    locker.unlock();
    emit started();
    return true;
}

bool CxChain::Private::negotiate(std::vector<Stage>& stages)
{
    SxPicBufInfo fmt;
    CxImageMetadata meta;
    if (source) {
        source->clearErrorMessage();
        if (!source->sourceFormat(fmt, &meta)) {
            const QString why = source->errorMessage();
            setError(tr("The source \"%1\" cannot deliver frames%2")
                         .arg(source->title(), why.isEmpty() ? QString() : QStringLiteral(": ") + why));
            return false;
        }
    } else if (hasInputFormat) {
        fmt = inputFormat;
        meta = inputMeta;
    } else {
        setError(tr("The chain has neither a source nor an input format"));
        return false;
    }
    sourceFormat = fmt;
    sourceMeta = meta;

    CxChainable* prev = source;
    for (int i = 0; i < nodes.size(); ++i) {
        Stage& s = stages[size_t(i)];
        s.node = nodes[i];
        s.counters = counters[size_t(i)].get();
        s.provider = qobject_cast<CxImageProvider*>(s.node);
        s.node->clearErrorMessage();
        if (prev && !s.node->acceptsDataFrom(prev)) {
            setError(tr("\"%1\" does not accept data from \"%2\"").arg(s.node->title(), prev->title()));
            return false;
        }
        s.in = fmt;
        s.inMeta = meta;
        if (s.provider) {
            bool accepted = false;
            QString what;
            if (!caught([&] { accepted = s.provider->queryOutputImageInfo(fmt, s.out, &meta, &s.outMeta); }, &what)) {
                setError(failureText(s.node, "queryOutputImageInfo", what));
                qCCritical(lcChain).noquote() << q->lastError();
                return false;
            }
            if (!accepted) {
                const QString why = s.node->errorMessage();
                setError(tr("\"%1\" refused the input format %2%3")
                             .arg(s.node->title(), fmt.describe(),
                                  why.isEmpty() ? QString() : QStringLiteral(": ") + why));
                return false;
            }
        } else {
            s.out = fmt;
            s.outMeta = meta;
        }
        fmt = s.out;
        meta = s.outMeta;
        prev = s.node;
    }
    return true;
}

bool CxChain::Private::fillPools()
{
    const int extra = mode == RunLive ? queueDepth + 1 : 1;
    bool poolsOk = true;
    auto makePool = [&](CxImageProvider* p, const SxPicBufInfo& f) -> void* {
        const int wanted = p->queryImagesCountInMemoryPool(f, nullptr);
        if (wanted <= 0)
            return nullptr;
        void* pool = CxPicBufAPI::CreateMemoryPool(f, wanted + extra, p->title());
        if (!pool) {
            setError(tr("Cannot allocate %1 pictures of %2 for \"%3\"").arg(wanted + extra).arg(f.describe(), p->title()));
            poolsOk = false;
        }
        return pool;
    };
    if (source) {
        sourcePool = makePool(source, sourceFormat);
        source->setMemoryPool(sourcePool);
        source->setCurrentImageInfo(sourceFormat, sourceMeta, sourceFormat, sourceMeta);
    }
    for (Stage& s : stages) {
        if (!poolsOk)
            break;
        if (s.provider) {
            s.pool = makePool(s.provider, s.out);
            s.provider->setMemoryPool(s.pool);
            s.provider->setCurrentImageInfo(s.in, s.inMeta, s.out, s.outMeta);
        }
    }
    if (!poolsOk)
        releasePools();
    return poolsOk;
}

bool CxChain::Private::launch()
{
    if (source) {
        source->setState(CxChainable::StateRunning);
        source->setupStart();
        source->onChainStarted(q);
    }
    for (size_t i = 0; i < stages.size(); ++i) {
        Stage& s = stages[i];
        s.node->setState(CxChainable::StateRunning);
        QString what;
        if (!caught([&] { s.node->setupStart(); }, &what)) {
            // Undone as far as it got: each node started, this one included,
            // frees what its setupStart took.
            setError(failureText(s.node, "setupStart", what));
            qCCritical(lcChain).noquote() << q->lastError();
            for (size_t k = 0; k <= i; ++k)
                stopNode(stages[k].node);
            if (source)
                stopNode(source);
            releasePools();
            for (Stage& t : stages)
                t.node->setState(CxChainable::StateIdle);
            if (source)
                source->setState(CxChainable::StateIdle);
            return false;
        }
        s.node->onChainStarted(q);
        s.lastOutput = {};
    }
    {
        std::lock_guard<std::mutex> lock(finishMutex);
        finished = false;
    }
    stopRequested = false;
    faulted = false;
    running = true;
    if (mode == RunLive) {
        for (Stage& s : stages)
            s.queue = std::make_unique<PacketQueue>(size_t(queueDepth));
        for (size_t i = 0; i < stages.size(); ++i)
            stages[i].thread = std::thread([this, i] { workerLoop(i); });
        if (source)
            sourceThread = std::thread([this] { sourceLoop(); });
    }
    return true;
}

void CxChain::stop()
{
    if (Private::currentChain == d.get()) {
        qCWarning(lcChain) << "stop() called from a chain thread; ignored";
        return;
    }
    QMutexLocker locker(&d->control);
    if (!d->running.load())
        return;
    d->running = false;
    if (d->source)
        d->source->setState(CxChainable::StateStopping);
    for (Private::Stage& s : d->stages)
        s.node->setState(CxChainable::StateStopping);

    {
        std::lock_guard<std::mutex> lock(d->finishMutex);
        d->stopRequested = true;
    }
    d->finishCv.notify_all();
    for (Private::Stage& s : d->stages)
        if (s.queue)
            s.queue->close();
    if (d->sourceThread.joinable())
        d->sourceThread.join();
    for (Private::Stage& s : d->stages)
        if (s.thread.joinable())
            s.thread.join();
    for (Private::Stage& s : d->stages) {
        if (!s.queue)
            continue;
        for (const Item& item : s.queue->drain()) {
            if (item.packet) {
                delete item.packet;
                ++d->discardedOnStop;
            }
        }
        s.queue.reset();
    }

    for (Private::Stage& s : d->stages)
        d->stopNode(s.node);
    if (d->source)
        d->stopNode(d->source);
    d->releasePools();
    for (Private::Stage& s : d->stages)
        s.node->setState(CxChainable::StateIdle);
    if (d->source)
        d->source->setState(CxChainable::StateIdle);
    locker.unlock();
    emit stoppedSignal();
}

bool CxChain::stopped() const { return !d->running.load(); }

bool CxChain::hasFailed() const { return d->faulted.load(); }

QString CxChain::lastError() const
{
    QMutexLocker l(&d->errorLock);
    return d->lastError;
}

IxChainData* CxChain::push(IxChainData* packet)
{
    if (!packet)
        return nullptr;
    if (!d->running.load() || d->mode != RunSynchronous) {
        d->setError(tr("push() needs a chain started in synchronous mode"));
        delete packet;
        return nullptr;
    }
    ++d->pushed;
    return d->runSynchronously(packet);
}

IxChainData* CxChain::step()
{
    if (!d->source || !d->running.load() || d->mode != RunSynchronous || d->source->atEnd())
        return nullptr;
    IxChainData* frame = d->source->grabFrame();
    if (!frame)
        return nullptr;
    ++d->grabbed;
    return d->runSynchronously(frame);
}

bool CxChain::post(IxChainData* packet)
{
    if (!packet)
        return false;
    if (!d->running.load() || d->mode != RunLive) {
        delete packet;
        return false;
    }
    ++d->pushed;
    if (d->stages.empty()) {
        d->observe(-1, packet);
        d->deliver(packet);
        return true;
    }
    if (!d->stages[0].queue->push(Item{packet, false}, true)) {
        delete packet;
        ++d->discardedOnStop;
        return false;
    }
    return true;
}

bool CxChain::waitForFinished(int timeoutMs)
{
    std::unique_lock<std::mutex> lock(d->finishMutex);
    auto done = [&] { return d->finished || d->stopRequested.load(); };
    if (timeoutMs < 0)
        d->finishCv.wait(lock, done);
    else
        d->finishCv.wait_for(lock, std::chrono::milliseconds(timeoutMs), done);
    return d->finished;
}

CxChain::SxStats CxChain::stats() const
{
    SxStats s;
    s.grabbed = d->grabbed.load();
    s.droppedAtSource = d->droppedAtSource.load();
    s.pushed = d->pushed.load();
    s.delivered = d->delivered.load();
    s.swallowed = d->swallowed.load();
    s.discardedOnStop = d->discardedOnStop.load();
    s.throttled = d->throttled.load();
    return s;
}

CxChain::SxNodeStats CxChain::nodeStats(int index) const
{
    SxNodeStats s;
    if (index < 0 || size_t(index) >= d->counters.size())
        return s;
    const Private::NodeCounters& c = *d->counters[size_t(index)];
    s.frames = c.frames.load();
    s.outputs = c.outputs.load();
    s.passedOn = c.passedOn.load();
    s.withoutOutput = c.withoutOutput.load();
    s.busyNs = c.busyNs.load();
    return s;
}

void CxChain::resetStats()
{
    d->grabbed = d->droppedAtSource = d->pushed = d->delivered = 0;
    d->swallowed = d->discardedOnStop = d->throttled = 0;
    for (const auto& c : d->counters)
        c->frames = c->outputs = c->passedOn = c->withoutOutput = c->busyNs = 0;
}

bool CxChain::negotiatedFormat(int index, SxPicBufInfo& info, CxImageMetadata* meta) const
{
    if (!d->negotiated)
        return false;
    if (index < 0) {
        info = d->sourceFormat;
        if (meta)
            *meta = d->sourceMeta;
        return true;
    }
    if (size_t(index) >= d->stages.size())
        return false;
    info = d->stages[size_t(index)].out;
    if (meta)
        *meta = d->stages[size_t(index)].outMeta;
    return true;
}
