#include "OutputWriter.h"

#include "PictureStats.h"
#include "PngIo.h"
#include "TiffIo.h"

#include <CxFFTImageData.h>
#include <CxImageData.h>

#include <cmath>

QString CxOutputWriter::baseName(qint32 frameNumber)
{
    return QString::asprintf("frame_%06d", int(frameNumber));
}

bool CxOutputWriter::open(const SxOptions& options, QString* error)
{
    m_options = options;
    if (options.folder.isEmpty())
        return true;
    m_dir = QDir(options.folder);
    if (!m_dir.mkpath(QStringLiteral("."))) {
        *error = tr("%1: cannot create the output folder").arg(options.folder);
        return false;
    }
    return true;
}

void CxOutputWriter::note(const QString& kind, QString* message)
{
    if (!m_reported.contains(kind)) {
        m_reported.insert(kind);
        *message = kind;
    }
}

QImage CxOutputWriter::logMagnitude(const SxPicBuf& re, const SxPicBuf& im)
{
    if (re.dataType != IDT_FLOAT || im.dataType != IDT_FLOAT || re.channels != 1 || im.channels != 1
        || re.width != im.width || re.height != im.height || !re.data || !im.data || re.width == 0
        || re.height == 0)
        return QImage();
    QImage image(int(re.width), int(re.height), QImage::Format_Grayscale8);
    if (image.isNull())
        return QImage();
    // Two passes over the parts rather than a float picture of magnitudes:
    // nothing to allocate but the image itself.
    const auto magnitude = [&](quint32 x, quint32 y) {
        const float a = re.row<float>(y)[x], b = im.row<float>(y)[x];
        const float m = std::log1p(std::sqrt(a * a + b * b));
        return std::isfinite(m) ? m : 0.f;
    };
    float top = 0.f;
    for (quint32 y = 0; y < re.height; ++y)
        for (quint32 x = 0; x < re.width; ++x)
            top = std::max(top, magnitude(x, y));
    const float scale = top > 0.f ? 255.f / top : 0.f;
    for (quint32 y = 0; y < re.height; ++y) {
        uchar* row = image.scanLine(int(y));
        for (quint32 x = 0; x < re.width; ++x)
            row[x] = uchar(std::lround(std::min(255.f, magnitude(x, y) * scale)));
    }
    return image;
}

CxOutputWriter::ExResult CxOutputWriter::writePicture(const SxPicBuf& pic, const CxImageMetadata* meta,
                                                      const QString& base, bool png, QString* message)
{
    QString reason;
    if (!TiffIo::canWrite(pic, &reason) || !pic.data) {
        note(reason.isEmpty() ? tr("pictures without pixels (%1) cannot be written").arg(pic.describe()) : reason,
             message);
        return Skipped;
    }
    if (!TiffIo::write(m_dir.filePath(base + QStringLiteral(".tif")), pic, meta, m_options.deflate, message))
        return Failed;
    if (png) {
        const QImage image = PngIo::toImage(pic, &reason);
        if (image.isNull())
            note(tr("%1; written as TIFF only").arg(reason), message);
        else if (!PngIo::writeImage(m_dir.filePath(base + QStringLiteral(".png")), image, message))
            return Failed;
    }
    return Written;
}

CxOutputWriter::ExResult CxOutputWriter::handle(const IxChainData* packet, QString* message, QStringList* summary)
{
    message->clear();
    const CxImageData* image = qobject_cast<const CxImageData*>(packet);
    if (!image) {
        ++m_skipped;
        note(tr("outputs of class %1 cannot be written").arg(QString::fromLatin1(packet->metaObject()->className())),
             message);
        return Skipped;
    }
    const CxFFTImageData* spectrum = qobject_cast<const CxFFTImageData*>(packet);
    const SxPicBuf& pic = *image->picBuf();
    const QString base = baseName(pic.frameNumber);
    // Spectrum parts are floats, whatever type the node announced.
    const SxPicBuf re = spectrum ? CxFFTImageData::floatView(*spectrum->picBufRe()) : SxPicBuf();
    const SxPicBuf im = spectrum ? CxFFTImageData::floatView(*spectrum->picBufIm()) : SxPicBuf();
    const SxPicBuf& shape = spectrum ? re : pic;
    if (shape.width == 0 || shape.height == 0) {
        // Told once; the end of the run gives the count.
        if (++m_empty == 1)
            *message = tr("frame %1: the output is empty (%2); empty outputs are counted, not written")
                           .arg(pic.frameNumber).arg(shape.describe());
        if (m_options.summary)
            summary->append(tr("frame %1: %2, empty").arg(pic.frameNumber).arg(shape.describe()));
        return Empty;
    }

    if (m_options.summary) {
        const auto add = [&](const SxPicBuf& p, const QString& label) {
            SxPictureStats stats;
            const QString line = SxPictureStats::measure(p, stats) ? SxPictureStats::summaryLine(p, stats)
                                                                    : tr("%1, no statistics").arg(p.describe());
            summary->append(tr("frame %1%2: %3").arg(pic.frameNumber).arg(label, line));
        };
        if (spectrum) {
            add(re, QStringLiteral(" re"));
            add(im, QStringLiteral(" im"));
        } else {
            add(pic, QString());
        }
    }
    if (!writesFiles())
        return Written;

    ExResult result = Written;
    if (spectrum) {
        result = writePicture(re, image->metadata(), base + QStringLiteral("_re"), false, message);
        if (result == Written)
            result = writePicture(im, image->metadata(), base + QStringLiteral("_im"), false, message);
        if (result == Written) {
            const QImage view = logMagnitude(re, im);
            if (view.isNull())
                note(tr("spectra of format %1 have no log-magnitude view").arg(re.describe()), message);
            else if (!PngIo::writeImage(m_dir.filePath(base + QStringLiteral("_logmag.png")), view, message))
                result = Failed;
        }
    } else {
        result = writePicture(pic, image->metadata(), base, m_options.png, message);
    }
    if (result == Written)
        ++m_written;
    else if (result == Skipped)
        ++m_skipped;
    return result;
}
