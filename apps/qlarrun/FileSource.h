#pragma once
#include "ImageFileReader.h"
#include "InputSource.h"

#include <CxImageMetadata.h>
#include <CxImageSource.h>
#include <SxPicBuf.h>

#include <QtCore/QStringList>

#include <vector>

// Frames read from picture files: every frame of every file, files in list
// order, the frames of a file in its order. Frame numbers count from 0 over
// all frames, or, with numbers from names, start at the number in each
// file's name and count up over the file's frames.
//
// A sequence of frames (more than one in all, before the frame limit: several
// files, a multi-page TIFF, a raw recording, several PNM images) is a
// recording and its frames are live, so nodes that collect frames emit once a
// series is complete; a single picture is static, and such nodes hand out
// what they have for it. The request's liveness overrides this. Live or not,
// the source never drops frames: the chain waits for it.
//
// scan() finds every file's frames before the run (as far as the limit
// needs), reading no samples. Frames are decoded one ahead of the chain:
// prepareNext() reads the next frame so that its format is known
// (sourceFormat) before it is grabbed, which lets the caller restart the
// chain when the format changes between frames. A frame that cannot be read
// stops the source there; grabFrame then delivers nothing.
class CxFileSource : public CxImageSource
{
    Q_OBJECT
public:
    // frameLimit 0: every frame.
    CxFileSource(const QStringList& files, const SxReadOptions& options, bool numbersFromNames, qint64 frameLimit,
                 SxInputRequest::ExLiveness liveness = SxInputRequest::LivenessAuto);
    ~CxFileSource() override;

    // False with a message that names the file (and page) at fault.
    bool scan(QString* error);
    // Decodes the next frame unless one is waiting; false with a message that
    // names the frame when it cannot be read. True without a frame at the end.
    bool prepareNext(QString* error);
    bool hasPending() const { return m_hasPending; }
    // The waiting frame's source as messages name it: "stack.tif (page 3 of
    // 20)", or the bare path for a file of one frame.
    QString pendingFile() const { return m_hasPending ? m_pendingName : QString(); }
    // Frames this run will read at most.
    qint64 frameCount() const;
    // Back to the first frame, to play the files again: the scan stands, a
    // waiting frame is dropped and a frame that could not be read is tried
    // again when its turn comes.
    void rewind();
    bool isLive() const { return m_live; }

    bool sourceFormat(SxPicBufInfo& info, CxImageMetadata* meta) override;
    IxChainData* grabFrame() override;
    bool atEnd() const override;
    bool isLiveSource() const override { return false; }
    QString title() const override;

private:
    struct SxFile
    {
        CxImageFileReader::SxFrames frames;
        qint32 firstNumber = 0;  // from the name
    };

    QStringList m_files;
    SxReadOptions m_options;
    bool m_numbersFromNames = false;
    qint64 m_limit = 0;
    SxInputRequest::ExLiveness m_liveness = SxInputRequest::LivenessAuto;
    bool m_live = false;
    std::vector<SxFile> m_scanned;
    qint64 m_total = 0;     // frames of the scanned files
    qint64 m_next = 0;      // frame index of the next frame to decode
    size_t m_file = 0;      // the file it is in
    qint64 m_inFile = 0;    // and its index there
    bool m_hasPending = false;
    bool m_failed = false;
    SxPicBuf m_pending;     // decoded, waiting to be grabbed; memory reused
    CxImageMetadata m_pendingMeta;
    qint32 m_pendingNumber = 0;
    QString m_pendingName;
};
