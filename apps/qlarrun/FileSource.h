#pragma once
#include "ImageFileReader.h"

#include <CxImageMetadata.h>
#include <CxImageSource.h>
#include <SxPicBuf.h>

#include <QtCore/QStringList>

// Frames read from picture files, one file per frame in list order. Frames
// from files are not live: nodes that collect frames hand out what they have
// for each one. Frame numbers count from 0, or are the last number in each
// file name.
//
// Files are decoded ahead of the chain: prepareNext() reads the next file so
// that its format is known (sourceFormat) before the frame is grabbed, which
// lets the caller restart the chain when the format changes between files. A
// file that cannot be read stops the source there; grabFrame then delivers
// nothing.
class CxFileSource : public CxImageSource
{
    Q_OBJECT
public:
    // frameLimit 0: every file.
    CxFileSource(const QStringList& files, const SxReadOptions& options, bool numbersFromNames, qint64 frameLimit);
    ~CxFileSource() override;

    // Decodes the next file unless one is waiting; false with a message that
    // names the file when it cannot be read. True without a frame at the end.
    bool prepareNext(QString* error);
    bool hasPending() const { return m_hasPending; }
    QString pendingFile() const;
    // Frames this run will read at most.
    qint64 frameCount() const;

    bool sourceFormat(SxPicBufInfo& info, CxImageMetadata* meta) override;
    IxChainData* grabFrame() override;
    bool atEnd() const override;
    bool isLiveSource() const override { return false; }
    QString title() const override;

private:
    QStringList m_files;
    SxReadOptions m_options;
    bool m_numbersFromNames = false;
    qint64 m_limit = 0;
    qint64 m_next = 0;      // index of the next file to decode
    bool m_hasPending = false;
    bool m_failed = false;
    SxPicBuf m_pending;     // decoded, waiting to be grabbed; memory reused
    CxImageMetadata m_pendingMeta;
    qint32 m_pendingNumber = 0;
};
