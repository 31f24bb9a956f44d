#pragma once
#include "QlarCoreExport.h"
#include "CxImageMetadata.h"
#include "SxPicBufInfo.h"

#include <QtCore/QList>
#include <QtCore/QObject>
#include <QtCore/QString>

#include <functional>
#include <memory>

class CxChainable;
class CxImageProvider;
class CxImageSource;
class IxChainData;

// A linear processing chain: an optional source, then nodes one after another.
//
// start() negotiates formats node by node with queryOutputImageInfo (the first
// refusal stops the start; lastError() then holds the node's own message),
// creates each node's memory pool and calls setupStart() in chain order;
// stop() calls setupStop() and releases the pools. Two ways to run:
//
//  * RunLive: the source is read on a thread of its own and every node runs
//    on a worker thread, joined by bounded FIFO queues, so frames are never
//    reordered. A live source drops a frame when the first queue is full;
//    every other stage waits for room. Outputs go to the output handler, on
//    the last stage's thread, or else to the last node's stored outputs.
//  * RunSynchronous: nothing runs by itself; push() (or step(), which grabs
//    one frame from the source) carries one packet through all nodes on the
//    caller's thread and returns the output.
//
// Ownership: the chain owns its source and nodes. After processData, an input
// packet that is still alive and was not returned is deleted by the chain, so
// nodes that produce nothing need not free anything.
//
// Pools: each node gets buffersCountInMemoryPool() + its recommended
// additional pictures, plus what the chain needs so that a picture can sit in
// the next queue and in the next node while the node makes another: queue
// depth + 1 in a live run, 1 in a synchronous run (the output in the caller's
// hand). A node that asks for no pool picture gets none.
//
// stop() and start() may be called from any thread but a chain thread while
// frames flow; stopped() may be read from anywhere.
class QLARCORE_EXPORT CxChain : public QObject
{
    Q_OBJECT
public:
    enum ExRunMode { RunLive, RunSynchronous };

    struct SxStats
    {
        qint64 grabbed = 0;          // frames the source delivered
        qint64 droppedAtSource = 0;  // live frames dropped because the chain was busy
        qint64 pushed = 0;           // packets given by push() or post()
        qint64 delivered = 0;        // packets that left the last node
        qint64 swallowed = 0;        // packets a node turned into no output
        qint64 discardedOnStop = 0;  // packets still queued when the chain stopped
        qint64 throttled = 0;        // packets skipped by a node's maxFps
    };

    // What one node did with the packets it was given. A node that returns
    // its input itself passes it on (Filter Images does nothing else; other
    // nodes do it with a frame they cannot handle); one that returns null
    // gives no output for that packet (collecting nodes do so until a series
    // is complete, others drop what they cannot handle).
    struct SxNodeStats
    {
        qint64 frames = 0;         // packets handed to processData
        qint64 outputs = 0;        // new packets it returned
        qint64 passedOn = 0;       // packets it returned unchanged
        qint64 withoutOutput = 0;  // packets that gave nothing
        qint64 busyNs = 0;         // time spent in processData
    };

    explicit CxChain(QObject* parent = nullptr);
    ~CxChain() override;

    // Building (only while stopped). The chain takes ownership.
    void setSource(CxImageSource* source);
    CxImageSource* source() const;
    void appendNode(CxChainable* node);
    QList<CxChainable*> nodes() const;
    // Removes and deletes every node (not the source).
    void clearNodes();
    // Editing a built chain (only while stopped; ignored otherwise). A node
    // keeps its statistics when it moves. takeNode hands the node back to
    // the caller, unlinked and no longer run by this chain.
    void insertNode(int index, CxChainable* node);
    CxChainable* takeNode(int index);
    void moveNode(int from, int to);
    // Input format for chains without a source (pushed packets).
    void setInputFormat(const SxPicBufInfo& info, const CxImageMetadata& meta = CxImageMetadata());

    void setRunMode(ExRunMode mode);
    ExRunMode runMode() const;
    void setQueueDepth(int depth);  // packets per queue in a live run (default 2)
    int queueDepth() const;
    // Called with every output of a live run, on a chain thread; the handler
    // owns the packet. Set it while stopped.
    void setOutputHandler(std::function<void(IxChainData*)> handler);
    // Sees every packet between stages without owning it, on the thread that
    // holds it: stage -1 for each frame the first node is given (frames a
    // live source dropped never show), stage i for each packet node i hands
    // on. It may copy the packet, never keep or change it, and it delays the
    // chain by what it costs. Set it while stopped.
    using Observer = std::function<void(int stage, const IxChainData* packet)>;
    void setObserver(Observer observer);

    bool start();
    void stop();
    bool stopped() const;
    // A node let an exception out since the last start (see failed()).
    bool hasFailed() const;
    QString lastError() const;

    // Synchronous run: carries one packet through the nodes and returns the
    // output (caller owns it), or null when a node produced nothing.
    IxChainData* push(IxChainData* packet);
    // Synchronous run with a source: grabs one frame and pushes it.
    IxChainData* step();

    // Live run without a live source: queues a packet for the first node,
    // waiting for room. False (and the packet deleted) when not running.
    bool post(IxChainData* packet);
    // Live run: blocks until a finite source has reached its end and every
    // frame has left the chain, or timeoutMs passed (-1: no limit).
    bool waitForFinished(int timeoutMs = -1);

    SxStats stats() const;
    // Packets waiting in each node's input queue of a live run (empty when
    // stopped or synchronous), read without stopping anything.
    QList<int> queueFill() const;
    // index in nodes(); zeros for an index out of range. Kept across
    // restarts; resetStats() clears them with the rest.
    SxNodeStats nodeStats(int index) const;
    void resetStats();

    // The negotiated format after a node (index in nodes()), or the source
    // format for -1; false before the first start.
    bool negotiatedFormat(int index, SxPicBufInfo& info, CxImageMetadata* meta = nullptr) const;

signals:
    void started();
    void stoppedSignal();
    void finished();  // a finite source's frames have all left the chain
    // A node let an exception out while frames flowed: the chain takes no
    // more frames and waits for its owner's stop(); lastError() says which
    // node, where and what.
    void failed(const QString& why);

private:
    struct Private;
    std::unique_ptr<Private> d;
};
