#pragma once
#include <CxImageMetadata.h>
#include <CxImageSource.h>
#include <ExitCodes.h>
#include <InputSource.h>

#include <QtCore/QElapsedTimer>
#include <QtCore/QString>

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>

class CxFileSource;
struct SxCameraDescription;

// Plays picture files into a live chain: whatever qlarrun reads (files,
// folders, patterns, multi-page TIFFs, raw frames with their format), with
// the same frame numbers and the same live/static rule, read by qlarrun's own
// file source. Like qlarrun, it never drops a frame: the chain waits for it.
//
// Controls (play, pause, step, loop, frame rate, rewind) may be called from
// the GUI thread while the chain runs; they only set what the chain's source
// thread does at its next grabFrame. A new player plays; frame rate 0 hands
// frames on as fast as the chain takes them. A paused player makes the
// source thread wait on a condition for at most IdleWaitMs per call and
// answer null, so it neither spins nor holds up a chain that stops.
//
// A frame whose format (or sensor description) differs from the one the
// chain was started with is held back, and formatChanged() is emitted once:
// the owner restarts the chain, whose start then negotiates the held frame's
// format (sourceFormat), and playing goes on with that frame. A frame that
// cannot be read ends playing there: failed() names it and atEnd() turns
// true. At the last frame the player starts again from the first when it
// loops, and otherwise emits finished() and ends; play() or rewind() and a
// new start of the chain play the files again.
//
// Signals are emitted on the chain's source thread (and on the thread that
// starts the chain); receivers connect queued, or automatically from
// objects of the GUI thread.
class CxFilePlayer : public CxImageSource
{
    Q_OBJECT
public:
    static constexpr int IdleWaitMs = 20;
    static constexpr int PositionIntervalMs = 100;

    // Null with a message and the exit status (as CxInputFactory::create
    // gives them) when the request names no picture files or they cannot be
    // opened. input is a chain document's description of its input, or null.
    static CxFilePlayer* create(const SxInputRequest& request, const SxCameraDescription* input, QString* error,
                                ExExitCode* status = nullptr);
    ~CxFilePlayer() override;

    // After the end: from the first frame again.
    void play();
    void pause();
    bool isPlaying() const;
    // One frame more; a playing player pauses first.
    void step();
    void setLoop(bool loop);
    bool loops() const { return m_loop.load(); }
    // Frames a second; 0 or less: as fast as the chain takes them.
    void setFrameRate(double fps);
    double frameRate() const { return m_fps.load(); }
    // From the first frame again, at the next frame the chain asks for.
    void rewind();

    // The index of the frame handed on last in this pass through the files
    // (-1 before the first), and the frames of one pass.
    qint64 position() const { return m_position.load() - 1; }
    qint64 frameCount() const { return m_count; }
    bool isLive() const;

    bool sourceFormat(SxPicBufInfo& info, CxImageMetadata* meta) override;
    IxChainData* grabFrame() override;
    bool atEnd() const override;
    bool isLiveSource() const override { return false; }
    QString title() const override;
    // The chain's source thread paces frames by maxFps: the frame rate.
    void setMaxFps(double fps) override { setFrameRate(fps); }
    double maxFps() const override { return frameRate(); }
    void setupStart() override;

signals:
    // At most every PositionIntervalMs while playing, and whenever playing
    // stops moving (pause, step, end, a held frame).
    void positionChanged(qint64 index, qint64 count);
    void formatChanged();
    void failed(const QString& message);
    void finished();

private:
    explicit CxFilePlayer(std::unique_ptr<CxFileSource> files);

    // The next frame decoded and waiting, starting again at the end when
    // looping. False at the end or after a failure, each told once.
    bool prepare();
    void rewindFiles();
    void tellPosition(bool now);
    // Waits on the controls for at most IdleWaitMs; true when a frame may go.
    bool mayDeliver(bool& stepping);

    std::unique_ptr<CxFileSource> m_files;
    const qint64 m_count;

    mutable std::mutex m_control;  // the three below; never held while a file is read
    std::condition_variable m_wake;
    bool m_playing = true;
    qint64 m_steps = 0;

    std::atomic<bool> m_rewind{false};
    std::atomic<bool> m_loop{false};
    std::atomic<double> m_fps{0.0};
    std::atomic<bool> m_ended{false};
    std::atomic<bool> m_failed{false};
    std::atomic<qint64> m_position{0};  // frames handed on in this pass

    // The file source and what follows are used by one thread at a time:
    // the chain's source thread, or the thread that starts the chain.
    std::mutex m_reading;
    SxPicBufInfo m_runFormat;
    CxImageMetadata m_runMeta;
    bool m_hasRunFormat = false;
    bool m_formatTold = false;
    QElapsedTimer m_positionClock;
    qint64 m_toldPosition = -2;  // nothing told yet
};
