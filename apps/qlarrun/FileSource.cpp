#include "FileSource.h"

#include <CxImageData.h>
#include <CxPicBufAPI.h>

#include <QtCore/QFileInfo>

#include <limits>

CxFileSource::CxFileSource(const QStringList& files, const SxReadOptions& options, bool numbersFromNames,
                           qint64 frameLimit, SxInputRequest::ExLiveness liveness)
    : CxImageSource(FlagProducesPictures),
      m_files(files),
      m_options(options),
      m_numbersFromNames(numbersFromNames),
      m_limit(frameLimit),
      m_liveness(liveness)
{
}

CxFileSource::~CxFileSource()
{
    CxPicBufAPI::FreePicBuf(m_pending, true);
}

bool CxFileSource::scan(QString* error)
{
    m_scanned.clear();
    m_total = 0;
    // Files past the limit are never read, so they need no scan; two frames
    // are enough to tell a recording from a single picture.
    const qint64 enough = m_limit > 0 ? qMax<qint64>(m_limit, 2) : std::numeric_limits<qint64>::max();
    for (const QString& path : std::as_const(m_files)) {
        if (m_total >= enough)
            break;
        SxFile file;
        if ((m_numbersFromNames && !CxImageFileReader::frameNumberFromName(path, file.firstNumber, error))
            || !CxImageFileReader::scan(path, m_options, file.frames, error)) {
            m_scanned.clear();
            m_failed = true;
            return false;
        }
        m_total += file.frames.count;
        m_scanned.push_back(std::move(file));
    }
    m_live = m_liveness == SxInputRequest::LivenessLive || (m_liveness == SxInputRequest::LivenessAuto && m_total > 1);
    return true;
}

qint64 CxFileSource::frameCount() const
{
    return m_limit > 0 ? qMin(m_limit, m_total) : m_total;
}

void CxFileSource::rewind()
{
    m_next = 0;
    m_file = 0;
    m_inFile = 0;
    m_hasPending = false;
    m_failed = false;
}

bool CxFileSource::prepareNext(QString* error)
{
    if (m_hasPending || m_failed || m_next >= frameCount())
        return !m_failed;
    while (m_file < m_scanned.size() && m_inFile >= m_scanned[m_file].frames.count) {
        ++m_file;
        m_inFile = 0;
    }
    if (m_file >= m_scanned.size())
        return true;
    const SxFile& file = m_scanned[m_file];
    const QString name = CxImageFileReader::frameName(file.frames, m_inFile);
    const qint64 number = m_numbersFromNames ? qint64(file.firstNumber) + m_inFile : m_next;
    if (number > std::numeric_limits<qint32>::max()) {
        *error = tr("%1: the frame number %2 does not fit 32 bits").arg(name).arg(number);
        m_failed = true;
        return false;
    }
    if (!CxImageFileReader::readFrame(file.frames, m_inFile, m_options, m_pending, m_pendingMeta, error)) {
        m_failed = true;
        return false;
    }
    m_pendingNumber = qint32(number);
    m_pendingName = name;
    m_hasPending = true;
    ++m_inFile;
    ++m_next;
    return true;
}

bool CxFileSource::sourceFormat(SxPicBufInfo& info, CxImageMetadata* meta)
{
    if (!m_hasPending) {
        setErrorMessage(tr("no picture file has been read"));
        return false;
    }
    info = m_pending.picFormat();
    if (meta)
        *meta = m_pendingMeta;
    return true;
}

IxChainData* CxFileSource::grabFrame()
{
    if (!m_hasPending)
        return nullptr;
    SxPicBuf pic;
    if (!CxPicBufAPI::AllocPicBufFromPool(memoryPool(), this, pic, m_pending.picFormat(), false))
        return nullptr;
    if (!CxPicBufAPI::CopyPicBuf(pic, m_pending, false)) {
        CxPicBufAPI::FreePicBuf(pic, false);
        return nullptr;
    }
    pic.frameNumber = m_pendingNumber;
    m_hasPending = false;
    auto* packet = new CxImageData;
    packet->setPicBuf(pic);
    packet->setMetadata(&m_pendingMeta);
    packet->setLiveData(m_live);
    return packet;
}

bool CxFileSource::atEnd() const
{
    return !m_hasPending && (m_failed || m_next >= frameCount());
}

QString CxFileSource::title() const
{
    if (m_files.size() == 1)
        return QFileInfo(m_files.first()).fileName();
    return tr("%n picture files", nullptr, int(m_files.size()));
}
