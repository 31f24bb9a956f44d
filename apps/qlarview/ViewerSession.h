#pragma once
#include "ViewFrame.h"

#include <SxCameraDescription.h>

#include <QtCore/QElapsedTimer>
#include <QtCore/QList>
#include <QtCore/QMutex>
#include <QtCore/QObject>
#include <QtCore/QString>

#include <atomic>
#include <memory>

class CxChain;
class CxChainable;
class CxImageSource;
class CxRecorder;

// What the viewer runs: one live chain (a source and the nodes after it),
// the stage the picture view shows and a recorder, without any widget, so
// that the window and the tests drive the same thing.
//
// Threads. Every member is called on the GUI thread. Editing the chain
// (source, nodes, recording) stops a running chain, changes it and starts it
// again, as the nodes' own setters with restart do; the GUI thread then
// waits only for the frames that are inside a node at that moment, which
// stopping nodes hand back without work. Frames reach the GUI through the
// chain's observer: on the chain thread of the viewed stage a packet is
// copied only when the GUI has taken the previous copy and the display
// interval has passed, so the view drops its own frames at screen rate and
// never holds up a chain frame; viewFrameReady() then tells the GUI to take
// it with takeViewFrame(), which waits for nothing but a pointer swap.
//
// Sources that can fail while running (a GenICam camera that goes away, a
// file player that meets a broken file or a frame of another format) are
// watched through their signals: a lost camera stops the chain and is
// closed, a format change restarts the chain, a broken file stops it; each
// gives a message().
class CxViewerSession : public QObject
{
    Q_OBJECT
public:
    struct SxNodeKind
    {
        QString customName;
        QString uniqueId;
        QString help;  // plain text
    };

    explicit CxViewerSession(QObject* parent = nullptr);
    ~CxViewerSession() override;

    // The registry's nodes, in the order the plug-ins registered them.
    static QList<SxNodeKind> nodeKinds();

    CxChain* chain() const { return m_chain; }

    // Takes ownership; the previous source is deleted. A running chain goes
    // on with the new source when it can.
    void setSource(CxImageSource* source);
    CxImageSource* source() const;
    // What the chain's input says about its sensor (empty before a start).
    SxCameraDescription inputDescription() const;
    // A chain document's description of the files it ran on; file players
    // the window makes afterwards are given it.
    SxCameraDescription chainInput() const { return m_chainInput; }

    // Nodes by CustomName (or UniqueID). index -1 appends.
    CxChainable* addNode(const QString& name, int index, QString* error);
    void insertNode(CxChainable* node, int index);
    void removeNode(int index);
    void moveNode(int from, int to);
    QList<CxChainable*> nodes() const;
    // Replaces every node with the document's; false leaves the chain as it was.
    bool loadChain(const QString& path, QString* error);
    bool saveChain(const QString& path, QString* error) const;

    bool start();
    void stop();
    bool isRunning() const;
    QString lastError() const;

    // -1: the chain's input, i: the output of node i. Past the end shows
    // the last node's output; NoStage shows nothing (nothing is copied).
    static constexpr int NoStage = -2;
    void setViewedStage(int stage);
    int viewedStage() const { return m_viewStage.load(); }
    // At most this many view frames a second (the screen's rate).
    void setDisplayRate(double hz);
    // The newest copy of the viewed stage, or null when none came since the
    // last call.
    ViewFramePtr takeViewFrame();
    // View frames copied so far, and packets of the viewed stage the view let
    // pass; both only ever grow.
    qint64 viewFramesCopied() const { return m_viewCopied.load(); }
    qint64 viewFramesSkipped() const { return m_viewSkipped.load(); }
    // Time the chain threads spent copying view frames: the view's share of
    // the chain's cost.
    qint64 viewCopyNs() const { return m_viewCopyNs.load(); }

    // Records the viewed stage into folder (see CxRecorder), after a restart
    // of the chain so that replaying the recording meets the nodes as fresh
    // as they were. frames 0: until stopRecording().
    bool startRecording(const QString& folder, qint64 frames, QString* error);
    void stopRecording();
    CxRecorder* recorder() const { return m_recorder.get(); }

signals:
    void nodesChanged();
    // Before the node is deleted: whoever shows its panel lets go of it.
    void nodeAboutToBeRemoved(CxChainable* node);
    void runningChanged(bool running);
    // The chain started with formats negotiated anew.
    void formatsChanged();
    void viewFrameReady();
    void message(const QString& text);

private slots:
    void onCameraLost(const QString& why);
    void onSourceFormatChanged();
    void onSourceFailed(const QString& why);
    void onChainFinished();
    void onRecorderFinished();
    void onRecorderFailed(const QString& why);

private:
    template <class F> void withChainStopped(F&& change);
    void observe(int stage, const IxChainData* packet);
    void watchSource();

    CxChain* m_chain = nullptr;
    std::unique_ptr<CxRecorder> m_recorder;
    SxCameraDescription m_chainInput;
    bool m_wantRunning = false;

    std::atomic<int> m_nodeCount{0};  // read by the observer, changed only while stopped
    std::atomic<int> m_viewStage{-1};
    std::atomic<bool> m_viewPending{false};
    std::atomic<qint64> m_viewIntervalNs{1000000000 / 60};
    std::atomic<qint64> m_viewCopied{0}, m_viewSkipped{0}, m_viewCopyNs{0};
    std::shared_ptr<CxViewFrameSpares> m_viewSpares = std::make_shared<CxViewFrameSpares>();
    QMutex m_viewLock;  // guards the two below
    ViewFramePtr m_viewFrame;
    QElapsedTimer m_viewClock;
    qint64 m_lastViewNs = -1;
};
