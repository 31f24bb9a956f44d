#pragma once
#include <CxImageMetadata.h>
#include <SxPicBuf.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QDir>
#include <QtCore/QSet>
#include <QtCore/QString>
#include <QtCore/QStringList>
#include <QtGui/QImage>

class IxChainData;

// What becomes of the chain's outputs: files in a folder, summary lines, or
// both.
//
// Files are named by the picture's frame number, so that a node that drops
// or merges frames leaves gaps rather than renumbering:
//  * an image packet: frame_NNNNNN.tif with the exact sample type and
//    values, and frame_NNNNNN.png beside it when PNG is asked for and the
//    picture has a PNG form (unsigned 8/16-bit, 1, 3 or 4 channels);
//  * a spectrum packet: frame_NNNNNN_re.tif and frame_NNNNNN_im.tif (float)
//    and frame_NNNNNN_logmag.png, ln(1 + |re + i im|) scaled so that the
//    largest magnitude of the frame is 255, with the spectrum as the packet
//    holds it (zero frequency in the centre).
// Pictures that have no file form, and packets of other classes, are
// skipped with one message per kind. An empty picture (no rows or no
// columns, as Deinterlace makes of a one-row frame) is a legal output with
// nothing to write: it is counted, told once, and the run goes on.
//
// A summary line per written picture: "frame N: 320x240 u8 x1 min 3 max 251
// mean 97.420" ("frame N re:", "frame N im:" for spectra); min, max and mean
// over all samples of all channels.
class CxOutputWriter
{
    Q_DECLARE_TR_FUNCTIONS(CxOutputWriter)
public:
    enum ExResult { Written, Skipped, Empty, Failed };

    struct SxOptions
    {
        QString folder;        // empty: no files
        bool png = false;      // a PNG beside each TIFF where it can be one
        bool deflate = false;  // compressed TIFFs
        bool summary = false;
    };

    // Creates the folder when it is missing.
    bool open(const SxOptions& options, QString* error);
    QString folder() const { return m_dir.absolutePath(); }
    bool writesFiles() const { return !m_options.folder.isEmpty(); }

    // Failed: message names the file that could not be written. Otherwise
    // message holds a note for the user (a kind of output skipped, the first
    // time only), or is empty. Summary lines are appended to summary.
    ExResult handle(const IxChainData* packet, QString* message, QStringList* summary);

    static QString baseName(qint32 frameNumber);
    // The log-magnitude view of a spectrum (8-bit grey); null when the two
    // parts are not float pictures of equal size.
    static QImage logMagnitude(const SxPicBuf& re, const SxPicBuf& im);

    int written() const { return m_written; }
    int skipped() const { return m_skipped; }
    int empty() const { return m_empty; }

private:
    ExResult writePicture(const SxPicBuf& pic, const CxImageMetadata* meta, const QString& base, bool png,
                          QString* message);
    void note(const QString& kind, QString* message);

    SxOptions m_options;
    QDir m_dir;
    QSet<QString> m_reported;
    int m_written = 0;
    int m_skipped = 0;
    int m_empty = 0;
};
