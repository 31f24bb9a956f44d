#include "FilePlayer.h"

#include <FileSource.h>

#include <chrono>

namespace {

bool sameInput(const SxPicBufInfo& a, const CxImageMetadata& aMeta, const SxPicBufInfo& b,
               const CxImageMetadata& bMeta)
{
    return a.sameFormat(b) && aMeta.hsiCameraParams() == bMeta.hsiCameraParams();
}

} // namespace

CxFilePlayer* CxFilePlayer::create(const SxInputRequest& request, const SxCameraDescription* input, QString* error,
                                   ExExitCode* status)
{
    ExExitCode scratch = ExitOk;
    ExExitCode& code = status ? *status : scratch;
    if (!request.readsFiles()) {
        *error = tr("no picture files to play");
        code = ExitUsage;
        return nullptr;
    }
    std::unique_ptr<CxImageSource> source(CxInputFactory::create(request, input, error, &code));
    if (!source)
        return nullptr;
    std::unique_ptr<CxFileSource> files(qobject_cast<CxFileSource*>(source.get()));
    if (!files) {
        *error = tr("the inputs are not picture files");
        code = ExitInput;
        return nullptr;
    }
    source.release();
    return new CxFilePlayer(std::move(files));
}

CxFilePlayer::CxFilePlayer(std::unique_ptr<CxFileSource> files)
    : CxImageSource(FlagProducesPictures), m_files(std::move(files)), m_count(m_files->frameCount())
{
    m_positionClock.start();
}

CxFilePlayer::~CxFilePlayer() = default;

void CxFilePlayer::play()
{
    {
        std::lock_guard<std::mutex> lock(m_control);
        m_playing = true;
        m_steps = 0;
    }
    if (m_ended.load())
        m_rewind = true;
    m_wake.notify_all();
}

void CxFilePlayer::pause()
{
    std::lock_guard<std::mutex> lock(m_control);
    m_playing = false;
    m_steps = 0;
}

bool CxFilePlayer::isPlaying() const
{
    std::lock_guard<std::mutex> lock(m_control);
    return m_playing;
}

void CxFilePlayer::step()
{
    {
        std::lock_guard<std::mutex> lock(m_control);
        m_playing = false;
        ++m_steps;
    }
    m_wake.notify_all();
}

void CxFilePlayer::setLoop(bool loop) { m_loop = loop; }

void CxFilePlayer::setFrameRate(double fps) { m_fps = fps > 0.0 ? fps : 0.0; }

void CxFilePlayer::rewind()
{
    m_rewind = true;
    m_wake.notify_all();
}

bool CxFilePlayer::isLive() const { return m_files->isLive(); }

QString CxFilePlayer::title() const { return m_files->title(); }

bool CxFilePlayer::atEnd() const { return (m_ended.load() || m_failed.load()) && !m_rewind.load(); }

void CxFilePlayer::rewindFiles()
{
    m_files->rewind();
    m_position = 0;
    m_ended = false;
    m_failed = false;
    clearErrorMessage();
}

void CxFilePlayer::tellPosition(bool now)
{
    const qint64 position = this->position();
    if (position == m_toldPosition || (!now && m_positionClock.elapsed() < PositionIntervalMs))
        return;
    m_toldPosition = position;
    m_positionClock.restart();
    emit positionChanged(position, m_count);
}

bool CxFilePlayer::prepare()
{
    if (m_ended.load() || m_failed.load())
        return false;
    QString error;
    bool ok = m_files->prepareNext(&error);
    // Looping needs a frame played in this pass, so that a pass that
    // yields nothing cannot loop for ever.
    if (ok && !m_files->hasPending() && m_loop.load() && m_position.load() > 0) {
        rewindFiles();
        ok = m_files->prepareNext(&error);
    }
    if (!ok) {
        m_failed = true;
        setErrorMessage(error);
        tellPosition(true);
        emit failed(error);
        return false;
    }
    if (m_files->hasPending())
        return true;
    m_ended = true;
    tellPosition(true);
    emit finished();
    return false;
}

bool CxFilePlayer::sourceFormat(SxPicBufInfo& info, CxImageMetadata* meta)
{
    std::lock_guard<std::mutex> reading(m_reading);
    if (m_rewind.exchange(false))
        rewindFiles();
    if (!m_files->hasPending() && !prepare()) {
        if (!m_failed.load())
            setErrorMessage(tr("every frame has been played"));
        return false;
    }
    return m_files->sourceFormat(info, meta);
}

void CxFilePlayer::setupStart()
{
    std::lock_guard<std::mutex> reading(m_reading);
    m_hasRunFormat = currentOutputImageInfo(m_runFormat, &m_runMeta);
    m_formatTold = false;
}

bool CxFilePlayer::mayDeliver(bool& stepping)
{
    std::unique_lock<std::mutex> lock(m_control);
    const auto ready = [&] { return m_playing || m_steps > 0 || m_rewind.load(); };
    if (!ready())
        m_wake.wait_for(lock, std::chrono::milliseconds(IdleWaitMs), ready);
    stepping = !m_playing && m_steps > 0;
    return m_playing || m_steps > 0;
}

IxChainData* CxFilePlayer::grabFrame()
{
    bool stepping = false;
    const bool deliver = mayDeliver(stepping);
    std::lock_guard<std::mutex> reading(m_reading);
    if (m_rewind.exchange(false))
        rewindFiles();
    if (!deliver) {
        tellPosition(true);
        return nullptr;
    }
    if (!m_files->hasPending() && !prepare())
        return nullptr;

    SxPicBufInfo next;
    CxImageMetadata nextMeta;
    if (m_hasRunFormat && m_files->sourceFormat(next, &nextMeta)
        && !sameInput(m_runFormat, m_runMeta, next, nextMeta)) {
        tellPosition(true);
        if (!m_formatTold) {
            m_formatTold = true;
            emit formatChanged();
        }
        // Held until the chain restarts; waiting here keeps the source
        // thread from spinning meanwhile.
        std::unique_lock<std::mutex> lock(m_control);
        m_wake.wait_for(lock, std::chrono::milliseconds(IdleWaitMs), [&] { return m_rewind.load(); });
        return nullptr;
    }

    m_files->setMemoryPool(memoryPool());
    IxChainData* packet = m_files->grabFrame();
    if (!packet)
        return nullptr;
    if (stepping) {
        std::lock_guard<std::mutex> lock(m_control);
        if (m_steps > 0)
            --m_steps;
    }
    ++m_position;
    tellPosition(stepping);
    return packet;
}
