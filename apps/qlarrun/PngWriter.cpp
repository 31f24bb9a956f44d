#include "PngWriter.h"

#include <cstring>

QImage CxPngWriter::toImage(const SxPicBuf& pic, QString* reason)
{
    QImage::Format format = QImage::Format_Invalid;
    if (pic.storageFormat != DSF_PLANAR) {
        if (pic.dataType == IDT_UINT8 && pic.channels == 1)
            format = QImage::Format_Grayscale8;
        else if (pic.dataType == IDT_UINT16 && pic.channels == 1)
            format = QImage::Format_Grayscale16;
        else if (pic.dataType == IDT_UINT8 && pic.channels == 3)
            format = QImage::Format_RGB888;
        else if (pic.dataType == IDT_UINT8 && pic.channels == 4)
            format = QImage::Format_RGBA8888;
    }
    if (format == QImage::Format_Invalid) {
        *reason = tr("pictures of format %1 cannot be written as PNG yet").arg(pic.describe());
        return QImage();
    }
    if (pic.width == 0 || pic.height == 0 || !pic.data) {
        *reason = tr("empty pictures (%1) cannot be written as PNG").arg(pic.describe());
        return QImage();
    }
    const quint64 rowBytes = pic.packedLineBytes();
    const quint64 pitch = pic.effectiveLinePitch();
    if (pitch < rowBytes) {
        *reason = tr("pictures of format %1 have rows shorter than their width").arg(pic.describe());
        return QImage();
    }
    QImage image(int(pic.width), int(pic.height), format);
    if (image.isNull()) {
        *reason = tr("no memory for a picture of format %1").arg(pic.describe());
        return QImage();
    }
    // QImage pads its rows to 4 bytes and ours may be padded differently.
    for (quint32 y = 0; y < pic.height; ++y)
        std::memcpy(image.scanLine(int(y)), pic.data + quint64(y) * pitch, size_t(rowBytes));
    return image;
}

QString CxPngWriter::fileName(qint32 frameNumber)
{
    return QString::asprintf("frame_%06d.png", int(frameNumber));
}

bool CxPngWriter::open(const QString& folder, QString* error)
{
    m_dir = QDir(folder);
    if (!m_dir.mkpath(QStringLiteral("."))) {
        *error = tr("%1: cannot create the output folder").arg(folder);
        return false;
    }
    return true;
}

CxPngWriter::ExResult CxPngWriter::skip(const QString& what, QString* message)
{
    ++m_skipped;
    message->clear();
    if (!m_reported.contains(what)) {
        m_reported.insert(what);
        *message = what;
    }
    return Skipped;
}

CxPngWriter::ExResult CxPngWriter::write(const SxPicBuf& pic, QString* message)
{
    QString reason;
    const QImage image = toImage(pic, &reason);
    if (image.isNull())
        return skip(reason, message);
    const QString path = m_dir.filePath(fileName(pic.frameNumber));
    if (!image.save(path, "PNG")) {
        *message = tr("%1: cannot write the picture").arg(path);
        return Failed;
    }
    ++m_written;
    message->clear();
    return Written;
}
