#include "Recorder.h"

#include <CxAtomicFile.h>
#include <CxChain.h>
#include <CxChainDocument.h>
#include <CxChainable.h>
#include <CxFFTImageData.h>
#include <CxImageData.h>
#include <OutputWriter.h>
#include <PictureFile.h>
#include <PngIo.h>
#include <SxCameraDescription.h>
#include <TiffIo.h>

#include <QtCore/QDir>
#include <QtCore/QFileInfo>

#include <algorithm>

namespace {

const char* const ChainFile = "chain.xml";
const char* const ReadmeFile = "README.txt";
const char* const InputFolder = "input";

qint64 pictureBytes(const SxPicBuf& pic) { return qint64(pic.requiredBytes()); }

qint64 packetBytes(const IxChainData* packet)
{
    const auto* image = qobject_cast<const CxImageData*>(packet);
    if (!image || !image->picBuf())
        return 0;
    qint64 bytes = pictureBytes(*image->picBuf());
    if (const auto* spectrum = qobject_cast<const CxFFTImageData*>(packet))
        bytes += pictureBytes(*spectrum->picBufIm());
    return bytes;
}

QString writeFailure(const QString& path, const QString& reason)
{
    return PictureFile::fileError(path, CxRecorder::tr("cannot write the file (%1)").arg(reason));
}

// Every file shows under its name only once complete (TiffIo, PngIo and
// CxAtomicFile write beside it and rename).
bool writeTiff(const QString& path, const SxPicBuf& pic, const CxImageMetadata* meta, qint64* bytes, QString* error)
{
    if (!TiffIo::write(path, pic, meta, false, error))
        return false;
    if (bytes)
        *bytes += QFileInfo(path).size();
    return true;
}

bool writeFile(const QString& path, const QByteArray& content, const QImage* image, QString* error)
{
    if (image)
        return PngIo::writeImage(path, *image, error);
    QString reason;
    if (CxAtomicFile::write(path, content, &reason))
        return true;
    *error = writeFailure(path, reason);
    return false;
}

// The TIFFs of one frame under base (a path without suffix); a frame is
// written whole or not at all.
bool writeFrameFiles(const SxViewFrame& frame, const QString& base, QStringList* files, qint64* bytes,
                     QString* error)
{
    QStringList done;
    const auto write = [&](const QString& path, const SxPicBuf& pic) {
        if (!writeTiff(path, pic, &frame.meta, bytes, error))
            return false;
        done << path;
        return true;
    };
    const bool ok = frame.spectrum ? write(base + QStringLiteral("_re.tif"), frame.pic)
                                         && write(base + QStringLiteral("_im.tif"), frame.im)
                                   : write(base + QStringLiteral(".tif"), frame.pic);
    if (!ok) {
        for (const QString& path : std::as_const(done))
            QFile::remove(path);
        return false;
    }
    if (files)
        *files << done;
    return true;
}

bool holdsFrames(const QDir& dir)
{
    return !dir.entryList({QStringLiteral("frame_*")}, QDir::Files).isEmpty();
}

} // namespace

CxRecorder::CxRecorder(QObject* parent) : QObject(parent) {}

CxRecorder::~CxRecorder() { stop(); }

void CxRecorder::setQueueLimit(qint64 bytes)
{
    if (!m_active.load())
        m_queueLimit = qMax<qint64>(1, bytes);
}

qint64 CxRecorder::queuedBytes() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_queued;
}

bool CxRecorder::start(const QString& folder, int stage, const QList<CxChainable*>& nodesUpToStage,
                       const SxCameraDescription& input, qint64 frameLimit, QString* error)
{
    if (m_active.load()) {
        *error = tr("a recording is running already");
        return false;
    }
    stop();
    if (stage < -1 || nodesUpToStage.size() != stage + 1) {
        *error = tr("the recorded stage %1 does not match the %2 nodes given").arg(stage).arg(nodesUpToStage.size());
        return false;
    }
    const QDir dir(folder);
    if (QFileInfo(folder).exists() && !QFileInfo(folder).isDir()) {
        *error = PictureFile::fileError(folder, tr("is not a folder"));
        return false;
    }
    if (!dir.mkpath(QStringLiteral(".")) || (stage >= 0 && !dir.mkpath(QString::fromLatin1(InputFolder)))) {
        *error = PictureFile::fileError(folder, tr("cannot create the folder"));
        return false;
    }
    if (holdsFrames(dir) || holdsFrames(QDir(dir.filePath(QString::fromLatin1(InputFolder))))) {
        *error = PictureFile::fileError(folder, tr("holds recorded frames already; record into a new folder"));
        return false;
    }

    m_folder = dir.absolutePath();
    m_stage = stage;
    m_limit = qMax<qint64>(0, frameLimit);
    m_stageTitle = stage < 0 ? tr("the chain's input")
                             : tr("the output of node %1 \"%2\"").arg(stage + 1).arg(nodesUpToStage.last()->title());
    m_chain = nodesUpToStage.isEmpty() ? nullptr : nodesUpToStage.first()->chain();
    m_nodeIndex.clear();
    for (CxChainable* node : nodesUpToStage) {
        const int index = m_chain ? int(m_chain->nodes().indexOf(node)) : -1;
        if (index < 0)
            m_chain = nullptr;
        m_nodeIndex.push_back(index);
    }
    m_handledBase.clear();
    m_seen.assign(size_t(qMax(0, stage)), {});
    m_items.clear();
    m_queued = 0;
    m_copying = 0;
    m_inputsSeen = 0;
    m_inputLimit = NoCut;
    m_taken = 0;
    m_lastNeeded = -1;
    m_cut = NoCut;
    m_numbers.clear();
    m_inputNumbers.clear();
    m_inputLive = -1;
    m_failure.clear();
    m_writtenInputs.clear();
    m_frames = m_inputFrames = m_bytes = m_failures = 0;

    if (!CxChainDocument::saveToFile(nodesUpToStage, dir.filePath(QString::fromLatin1(ChainFile)), error,
                                     input.isEmpty() ? nullptr : &input)
        || !writeReadme(error))
        return false;
    m_active = true;
    m_taking = true;
    m_writer = std::thread([this] { writerLoop(); });
    return true;
}

// Which of the inputs seen so far the packet node `stage` hands on now could
// have needed: node i has been given `used` packets since the recording
// began, the packets stage i - 1 handed on (or the inputs) in that order.
// Without the counts, every input seen so far.
qint64 CxRecorder::inputNeeded(int stage, qint64 handled)
{
    if (handled < 0 || m_handledBase.empty())
        return m_inputsSeen - 1;
    const qint64 used = handled - m_handledBase[size_t(stage)];
    if (used <= 0)
        return -1;
    if (stage == 0)
        return qMin(used, m_inputsSeen) - 1;
    const std::vector<qint64>& before = m_seen[size_t(stage - 1)];
    return used <= qint64(before.size()) ? before[size_t(used - 1)] : m_inputsSeen - 1;
}

void CxRecorder::endTaking(const QString& failure)
{
    if (m_taking.exchange(false) && m_stage >= 0)
        m_cut = m_lastNeeded;
    if (!failure.isEmpty() && m_failure.isEmpty()) {
        m_failure = failure;
        ++m_failures;
    }
    m_room.notify_all();
    m_work.notify_all();
}

void CxRecorder::offer(int stage, const IxChainData* packet)
{
    // Between recordings the rest of the state may be changing.
    if (!packet || !m_taking.load() || stage < -1 || stage > m_stage)
        return;
    const bool recorded = stage == m_stage;
    const bool input = stage == -1 && !recorded;
    // The node's count stands still on its own thread between two packets.
    const qint64 handled =
        stage >= 0 && m_chain ? m_chain->nodeStats(m_nodeIndex[size_t(stage)]).frames : -1;
    const qint64 bytes = recorded || input ? packetBytes(packet) : 0;

    std::unique_lock<std::mutex> lock(m_mutex);
    if (recorded || input)
        m_room.wait(lock, [&] { return !m_taking.load() || m_queued == 0 || m_queued + bytes <= m_queueLimit; });
    if (!m_taking.load())
        return;

    qint64 index = -1, needed = -1;
    if (stage == -1) {
        if (m_inputsSeen == 0 && m_chain) {
            for (int node : m_nodeIndex)
                m_handledBase.push_back(m_chain->nodeStats(node).frames);
        }
        index = needed = m_inputsSeen++;
    } else {
        needed = inputNeeded(stage, handled);
        if (!recorded) {
            m_seen[size_t(stage)].push_back(needed);
            return;
        }
    }
    if (input && index > m_inputLimit)
        return;

    const auto* image = qobject_cast<const CxImageData*>(packet);
    if (!image || !image->picBuf()) {
        endTaking(tr("packets of class %1 cannot be recorded")
                      .arg(QString::fromLatin1(packet->metaObject()->className())));
        return;
    }
    // Files are named by frame number: a number that comes again (a player
    // that loops) closes the inputs, and the recording ends with the first
    // frame that needs one of the inputs left out.
    const qint32 number = image->picBuf()->frameNumber;
    if (input && m_inputNumbers.contains(number)) {
        m_inputLimit = index - 1;
        return;
    }
    if (recorded && (m_numbers.contains(number) || needed > m_inputLimit)) {
        endTaking();
        return;
    }
    (input ? m_inputNumbers : m_numbers).insert(number);
    if (recorded) {
        ++m_taken;
        m_lastNeeded = qMax(m_lastNeeded, needed);
    }
    m_queued += bytes;
    ++m_copying;
    if (recorded && m_limit > 0 && m_taken >= m_limit)
        endTaking();

    // Copied outside the lock: other stages go on meanwhile.
    lock.unlock();
    std::shared_ptr<const SxViewFrame> frame = SxViewFrame::copyOf(packet, stage);
    lock.lock();
    --m_copying;
    if (!frame) {
        m_queued -= bytes;
        endTaking(tr("frame %1: no memory for a copy of %2").arg(number).arg(image->picBuf()->describe()));
        return;
    }
    m_items.push_back(SxItem{std::move(frame), input, index, bytes});
    m_work.notify_one();
}

void CxRecorder::stop()
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        endTaking();
    }
    if (m_writer.joinable())
        m_writer.join();
}

bool CxRecorder::writeItem(const SxItem& item, SxWrittenInput& written, QString* error)
{
    const SxViewFrame& frame = *item.frame;
    // Nothing to write, as qlarrun writes nothing for it.
    if (frame.pic.width == 0 || frame.pic.height == 0)
        return true;
    QDir dir(m_folder);
    if (item.input)
        dir.setPath(dir.filePath(QString::fromLatin1(InputFolder)));
    written.index = item.index;
    return writeFrameFiles(frame, dir.filePath(CxOutputWriter::baseName(frame.pic.frameNumber)), &written.files,
                           &written.bytes, error);
}

void CxRecorder::writerLoop()
{
    while (true) {
        SxItem item;
        {
            std::unique_lock<std::mutex> lock(m_mutex);
            m_work.wait(lock, [&] { return !m_items.empty() || (!m_taking.load() && m_copying == 0); });
            if (m_items.empty() || !m_failure.isEmpty())
                break;
            item = std::move(m_items.front());
            m_items.pop_front();
            if (item.input && item.index > m_cut) {
                m_queued -= item.bytes;
                m_room.notify_all();
                continue;
            }
            if (m_inputLive < 0 && (item.input || m_stage < 0))
                m_inputLive = item.frame->live ? 1 : 0;
        }
        SxWrittenInput written;
        QString error;
        const bool ok = writeItem(item, written, &error);
        std::lock_guard<std::mutex> lock(m_mutex);
        m_queued -= item.bytes;
        m_room.notify_all();
        if (!ok) {
            endTaking(error);
            break;
        }
        m_bytes += written.bytes;
        if (item.input) {
            ++m_inputFrames;
            m_writtenInputs.push_back(std::move(written));
        } else {
            ++m_frames;
        }
    }
    finish();
}

void CxRecorder::finish()
{
    QString failure;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        for (const SxItem& item : m_items)
            m_queued -= item.bytes;
        m_items.clear();
        failure = m_failure;
        // Inputs that no recorded frame needed would give the replay frames
        // the recording does not have. After a failure nothing is removed.
        if (failure.isEmpty()) {
            for (const SxWrittenInput& input : m_writtenInputs) {
                if (input.index <= m_cut)
                    continue;
                for (const QString& path : input.files)
                    QFile::remove(path);
                --m_inputFrames;
                m_bytes -= input.bytes;
            }
        }
    }
    QString error;
    if (failure.isEmpty() && !writeReadme(&error)) {
        std::lock_guard<std::mutex> lock(m_mutex);
        endTaking(error);
        failure = error;
    }
    m_active = false;
    if (failure.isEmpty())
        emit finished();
    else
        emit failed(failure);
}

bool CxRecorder::writeReadme(QString* error) const
{
    const QString inputs = m_stage < 0 ? QStringLiteral(".") : QString::fromLatin1(InputFolder);
    QString command = QStringLiteral("qlarrun --chain %1 --numbers-from-names").arg(QString::fromLatin1(ChainFile));
    // qlarrun takes several frames for a live recording and one for a static
    // picture; say so when the recorded inputs were otherwise.
    const qint64 inputFrames = m_stage < 0 ? m_frames.load() : m_inputFrames.load();
    if (m_inputLive >= 0 && (m_inputLive == 1) != (inputFrames > 1))
        command += m_inputLive ? QStringLiteral(" --live") : QStringLiteral(" --static");
    command += QStringLiteral(" --out replay ") + inputs;

    QString text = tr("Recorded by qlarview: %1.\n\n").arg(m_stageTitle);
    text += tr("frame_NNNNNN.tif    the recorded frames, named by frame number, with their exact samples\n"
               "                    (a spectrum as frame_NNNNNN_re.tif and frame_NNNNNN_im.tif)\n");
    if (m_stage >= 0)
        text += tr("input/              the frames the chain was given, from the first one of the recording\n"
                   "                    to the last one a recorded frame needed\n");
    text += tr("chain.xml           the nodes up to the recorded one, with their settings and what\n"
               "                    the input said about its sensor\n\n");
    text += tr("Replay:\n\n    %1\n\nwrites the same frames into replay/, sample for sample.\n").arg(command);
    return writeFile(QDir(m_folder).filePath(QString::fromLatin1(ReadmeFile)), text.toUtf8(), nullptr, error);
}

bool CxRecorder::snapshot(const ViewFramePtr& frame, const QString& path, QString* error)
{
    if (!frame) {
        *error = tr("there is no picture to save");
        return false;
    }
    if (frame->pic.width == 0 || frame->pic.height == 0 || !frame->pic.data) {
        *error = PictureFile::fileError(path, tr("the picture is empty (%1)").arg(frame->pic.describe()));
        return false;
    }
    const QFileInfo info(path);
    const QString suffix = info.suffix().toLower();
    const bool tiffName = suffix == QLatin1String("tif") || suffix == QLatin1String("tiff");
    const QString base = tiffName ? info.dir().filePath(info.completeBaseName()) : path;
    if (!frame->spectrum) {
        QString reason;
        const QImage image = PngIo::toImage(frame->pic, &reason);
        return writeTiff(tiffName ? path : path + QStringLiteral(".tif"), frame->pic, &frame->meta, nullptr, error)
            && (image.isNull() || writeFile(base + QStringLiteral(".png"), QByteArray(), &image, error));
    }
    const QImage view = CxOutputWriter::logMagnitude(frame->pic, frame->im);
    return writeFrameFiles(*frame, base, nullptr, nullptr, error)
        && (view.isNull() || writeFile(base + QStringLiteral("_logmag.png"), QByteArray(), &view, error));
}
