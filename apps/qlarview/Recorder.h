#pragma once
#include "ViewFrame.h"

#include <QtCore/QList>
#include <QtCore/QObject>
#include <QtCore/QSet>
#include <QtCore/QString>
#include <QtCore/QStringList>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <limits>
#include <mutex>
#include <thread>
#include <vector>

class CxChain;
class CxChainable;
class IxChainData;
struct SxCameraDescription;

// Records one stage of a running chain into a folder that qlarrun replays:
//
//   chain.xml          the nodes from the chain's start up to the recorded
//                      stage, with their settings and the input's description
//   README.txt         how to replay
//   frame_NNNNNN.tif   the recorded stage's pictures, exactly as qlarrun
//                      writes its outputs (frame_NNNNNN_re.tif and _im.tif
//                      for a spectrum)
//   input/             the chain's input frames, named the same way, when the
//                      recorded stage is a node's output
//
// so that `qlarrun --chain chain.xml --numbers-from-names --out replay input`
// gives the recorded frames sample for sample. The owner restarts the chain
// when a recording starts, so that the nodes meet the first recorded input
// as fresh as a replay does. Input frames that no recorded frame needed
// (those still on their way through the chain when the recording ended) are
// left out, so the replay gives exactly the recorded frames. A frame number
// that comes again (a player that loops) ends the recording, since files
// are named by frame number.
//
// offer() is the chain observer's part, called on the chain threads: it
// copies the packets it wants and queues them for a writer thread of the
// recorder. The queue holds at most queueLimit() bytes; when it is full,
// offer() waits for room, so a recording never loses a frame: the chain
// slows down to the speed of the disk instead.
//
// A file appears under its frame name only when it is complete: it is
// written under a hidden name beside it and renamed. The first write that
// fails (a full disk, a folder that cannot be written) ends the recording
// with failed(), naming the file and the system's reason; files written
// before stay as they are.
class CxRecorder : public QObject
{
    Q_OBJECT
public:
    static constexpr qint64 DefaultQueueBytes = qint64(256) << 20;

    explicit CxRecorder(QObject* parent = nullptr);
    ~CxRecorder() override;

    // Only between recordings.
    void setQueueLimit(qint64 bytes);
    qint64 queueLimit() const { return m_queueLimit; }

    // stage -1 records the chain's input, i the output of node i;
    // nodesUpToStage are the chain's nodes 0 to stage. frameLimit 0: until
    // stop(). Refuses a folder that already holds recorded frames. Call it
    // while the chain is stopped.
    bool start(const QString& folder, int stage, const QList<CxChainable*>& nodesUpToStage,
               const SxCameraDescription& input, qint64 frameLimit, QString* error);
    // Every packet between stages, from the chain's observer.
    void offer(int stage, const IxChainData* packet);
    // Takes no more frames, writes what it took and waits for the writer.
    void stop();
    // From start() until every frame taken is written, or writing failed.
    bool isRecording() const { return m_active.load(); }

    QString folder() const { return m_folder; }
    int stage() const { return m_stage; }
    qint64 framesRecorded() const { return m_frames.load(); }
    qint64 inputFramesRecorded() const { return m_inputFrames.load(); }
    qint64 bytesWritten() const { return m_bytes.load(); }
    qint64 failures() const { return m_failures.load(); }
    qint64 queuedBytes() const;

    // The shown frame as an exact TIFF at path (.tif added unless the name
    // ends in .tif or .tiff), with a PNG beside it when the picture has a
    // PNG form; a spectrum as <name>_re.tif, <name>_im.tif and
    // <name>_logmag.png.
    static bool snapshot(const ViewFramePtr& frame, const QString& path, QString* error);

signals:
    // Emitted on the writer thread, which stop() waits for: receivers
    // connect queued. The recording is complete on disk: its frame limit
    // was reached, a frame number came again, or stop() was called.
    void finished();
    void failed(const QString& message);

private:
    struct SxItem
    {
        std::shared_ptr<const SxViewFrame> frame;
        bool input = false;  // a chain input frame of a node's recording
        qint64 index = 0;    // input frames: their place among the inputs
        qint64 bytes = 0;
    };
    struct SxWrittenInput
    {
        qint64 index = 0;
        QStringList files;
        qint64 bytes = 0;
    };
    static constexpr qint64 NoCut = std::numeric_limits<qint64>::max();

    qint64 inputNeeded(int stage, qint64 handled);
    void endTaking(const QString& failure = QString());
    void writerLoop();
    bool writeItem(const SxItem& item, SxWrittenInput& written, QString* error);
    void finish();
    bool writeReadme(QString* error) const;

    qint64 m_queueLimit = DefaultQueueBytes;
    QString m_folder;
    int m_stage = -1;
    qint64 m_limit = 0;
    QString m_stageTitle;

    // Which input frames a packet needed. Node i's count of packets it was
    // given, read on its own thread when it hands one on, says how many of
    // the packets before it that one could have used.
    CxChain* m_chain = nullptr;
    std::vector<int> m_nodeIndex;             // per stage, in the chain
    std::vector<qint64> m_handledBase;        // per stage, at the first input
    std::vector<std::vector<qint64>> m_seen;  // per stage below the recorded one: inputs each packet needed

    mutable std::mutex m_mutex;  // everything below
    std::condition_variable m_room, m_work;
    std::atomic<bool> m_taking{false};
    std::atomic<bool> m_active{false};
    std::deque<SxItem> m_items;
    qint64 m_queued = 0;
    int m_copying = 0;          // offers copying a packet outside the lock
    qint64 m_inputsSeen = 0;
    qint64 m_inputLimit = NoCut;  // inputs after it are not taken
    qint64 m_taken = 0;         // recorded-stage frames taken
    qint64 m_lastNeeded = -1;   // the last input a taken frame needed
    qint64 m_cut = NoCut;       // inputs after it are left out
    QSet<qint32> m_numbers, m_inputNumbers;  // taken so far
    int m_inputLive = -1;       // -1: no input yet
    QString m_failure;
    std::vector<SxWrittenInput> m_writtenInputs;
    std::thread m_writer;

    std::atomic<qint64> m_frames{0}, m_inputFrames{0}, m_bytes{0}, m_failures{0};
};
