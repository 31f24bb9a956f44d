#pragma once
#include <SxPicBuf.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QDir>
#include <QtCore/QSet>
#include <QtCore/QString>
#include <QtGui/QImage>

// Writes output pictures into a folder as frame_NNNNNN.png, named by the
// picture's frame number so that a node that drops or merges frames leaves
// gaps rather than renumbering.
class CxPngWriter
{
    Q_DECLARE_TR_FUNCTIONS(CxPngWriter)
public:
    enum ExResult { Written, Skipped, Failed };

    // A deep copy of the pixels in the matching QImage format, or a null
    // image and the reason the picture has no PNG form.
    static QImage toImage(const SxPicBuf& pic, QString* reason);
    static QString fileName(qint32 frameNumber);

    // Creates the folder when it is missing.
    bool open(const QString& folder, QString* error);
    QString folder() const { return m_dir.absolutePath(); }

    // Skipped: the picture cannot be a PNG; message holds why, but only the
    // first time for each kind of picture. Failed: the file could not be
    // written; message names it.
    ExResult write(const SxPicBuf& pic, QString* message);
    // For outputs that are not pictures at all (packets of another class).
    ExResult skip(const QString& what, QString* message);

    int written() const { return m_written; }
    int skipped() const { return m_skipped; }

private:
    QDir m_dir;
    QSet<QString> m_reported;
    int m_written = 0;
    int m_skipped = 0;
};
