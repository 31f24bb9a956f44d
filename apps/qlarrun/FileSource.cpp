#include "FileSource.h"

#include <CxImageData.h>
#include <CxPicBufAPI.h>

#include <QtCore/QFileInfo>

CxFileSource::CxFileSource(const QStringList& files, const SxReadOptions& options, bool numbersFromNames,
                           qint64 frameLimit)
    : CxImageSource(FlagProducesPictures),
      m_files(files),
      m_options(options),
      m_numbersFromNames(numbersFromNames),
      m_limit(frameLimit)
{
}

CxFileSource::~CxFileSource()
{
    CxPicBufAPI::FreePicBuf(m_pending, true);
}

qint64 CxFileSource::frameCount() const
{
    const qint64 files = m_files.size();
    return m_limit > 0 ? qMin(m_limit, files) : files;
}

QString CxFileSource::pendingFile() const
{
    return m_hasPending ? m_files.at(m_next - 1) : QString();
}

bool CxFileSource::prepareNext(QString* error)
{
    if (m_hasPending || m_failed || m_next >= frameCount())
        return !m_failed;
    const QString& path = m_files.at(m_next);
    qint32 number = qint32(m_next);
    if ((m_numbersFromNames && !CxImageFileReader::frameNumberFromName(path, number, error))
        || !CxImageFileReader::read(path, m_options, m_pending, m_pendingMeta, error)) {
        m_failed = true;
        return false;
    }
    m_pendingNumber = number;
    m_hasPending = true;
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
    packet->setLiveData(false);
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
    return tr("%n picture files", nullptr, int(frameCount()));
}
