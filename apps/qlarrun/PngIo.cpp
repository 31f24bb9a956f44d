#include "PngIo.h"

#include "PictureFile.h"

#include <CxAtomicFile.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QBuffer>
#include <QtCore/QFile>
#include <QtGui/QImageReader>

#include <array>

#include <cstring>

namespace {

QString tr(const char* text)
{
    return QCoreApplication::translate("PngIo", text);
}

template <class T>
void copyRows(const SxPicBuf& pic, QImage& image, quint32 imageChannels, bool swapRedBlue, T fill)
{
    const quint32 ch = pic.channels;
    for (quint32 y = 0; y < pic.height; ++y) {
        const T* src = pic.row<T>(y);
        T* dst = reinterpret_cast<T*>(image.scanLine(int(y)));
        if (imageChannels == ch) {
            std::memcpy(dst, src, size_t(pic.packedLineBytes()));
        } else {
            for (quint32 x = 0; x < pic.width; ++x) {
                for (quint32 c = 0; c < ch; ++c)
                    dst[x * imageChannels + c] = src[x * ch + c];
                for (quint32 c = ch; c < imageChannels; ++c)
                    dst[x * imageChannels + c] = fill;
            }
        }
        if (swapRedBlue)
            PictureFile::swapRedBlue(reinterpret_cast<uchar*>(dst), pic.width, imageChannels, sizeof(T));
    }
}

quint32 crc32(const uchar* data, quint64 size, quint32 crc)
{
    static const auto table = [] {
        std::array<quint32, 256> t{};
        for (quint32 n = 0; n < 256; ++n) {
            quint32 c = n;
            for (int k = 0; k < 8; ++k)
                c = (c & 1) ? 0xedb88320U ^ (c >> 1) : c >> 1;
            t[n] = c;
        }
        return t;
    }();
    crc = ~crc;
    for (quint64 i = 0; i < size; ++i)
        crc = table[(crc ^ data[i]) & 0xff] ^ (crc >> 8);
    return ~crc;
}

quint32 bigEndian32(const uchar* p)
{
    return (quint32(p[0]) << 24) | (quint32(p[1]) << 16) | (quint32(p[2]) << 8) | p[3];
}

// Walks the chunks before the decoder sees the file: libpng reports a cut or
// damaged file on stderr by itself and cannot be stopped from doing so, so
// such files are turned away here, with a message of our own.
bool checkChunks(const QByteArray& bytes, QString* why)
{
    static const char signature[] = "\x89PNG\r\n\x1a\n";
    if (bytes.size() < 8 || std::memcmp(bytes.constData(), signature, 8) != 0) {
        *why = tr("not a PNG file");
        return false;
    }
    const uchar* data = reinterpret_cast<const uchar*>(bytes.constData());
    const quint64 size = quint64(bytes.size());
    quint64 pos = 8;
    bool first = true;
    while (true) {
        if (size - pos < 12) {
            *why = tr("the PNG is truncated: it ends after %1 bytes, inside a chunk or before its end").arg(size);
            return false;
        }
        const quint64 length = bigEndian32(data + pos);
        const uchar* type = data + pos + 4;
        if (length > size - pos - 12) {
            *why = tr("the PNG is truncated: a chunk of %1 bytes at offset %2 runs past the end of the file (%3 bytes)")
                       .arg(length).arg(pos).arg(size);
            return false;
        }
        if (bigEndian32(type + 4 + length) != crc32(type, 4 + length, 0)) {
            *why = tr("the PNG is corrupt: the chunk at offset %1 fails its checksum").arg(pos);
            return false;
        }
        if (first && std::memcmp(type, "IHDR", 4) != 0) {
            *why = tr("the PNG is corrupt: it does not start with a header chunk");
            return false;
        }
        first = false;
        pos += 12 + length;
        if (std::memcmp(type, "IEND", 4) == 0)
            return true;
    }
}

} // namespace

namespace PngIo {

QImage toImage(const SxPicBuf& pic, QString* reason)
{
    const bool u8 = pic.dataType == IDT_UINT8, u16 = pic.dataType == IDT_UINT16;
    QImage::Format format = QImage::Format_Invalid;
    quint32 imageChannels = pic.channels;
    if (pic.storageFormat != DSF_PLANAR && (u8 || u16)) {
        switch (pic.channels) {
        case 1: format = u8 ? QImage::Format_Grayscale8 : QImage::Format_Grayscale16; break;
        case 3:
            format = u8 ? QImage::Format_RGB888 : QImage::Format_RGBX64;
            imageChannels = u8 ? 3 : 4;
            break;
        case 4: format = u8 ? QImage::Format_RGBA8888 : QImage::Format_RGBA64; break;
        default: break;
        }
    }
    if (format == QImage::Format_Invalid) {
        *reason = tr("pictures of format %1 have no PNG form").arg(pic.describe());
        return QImage();
    }
    if (pic.width == 0 || pic.height == 0 || !pic.data || pic.effectiveLinePitch() < pic.packedLineBytes()) {
        *reason = tr("pictures of format %1 hold no complete rows").arg(pic.describe());
        return QImage();
    }
    QImage image(int(pic.width), int(pic.height), format);
    if (image.isNull()) {
        *reason = tr("no memory for a picture of format %1").arg(pic.describe());
        return QImage();
    }
    const bool swap = pic.isBlueFirstColour();
    if (u8)
        copyRows<quint8>(pic, image, imageChannels, swap, 0xff);
    else
        copyRows<quint16>(pic, image, imageChannels, swap, 0xffff);
    return image;
}

bool writeImage(const QString& path, const QImage& image, QString* error)
{
    // Encoded in memory first: Qt's writer does not notice a short write.
    QByteArray bytes;
    QBuffer buffer(&bytes);
    buffer.open(QIODevice::WriteOnly);
    if (!image.save(&buffer, "PNG")) {
        *error = PictureFile::fileError(path, tr("cannot write the picture"));
        return false;
    }
    QString reason;
    if (!CxAtomicFile::write(path, bytes, &reason)) {
        *error = PictureFile::fileError(path, tr("cannot write the file (%1)").arg(reason));
        return false;
    }
    return true;
}

bool read(const QString& path, SxPicBuf& pic, CxImageMetadata& meta, QString* error)
{
    const auto fail = [&](const QString& what) {
        *error = PictureFile::fileError(path, what);
        return false;
    };
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return fail(tr("cannot open the file (%1)").arg(file.errorString()));
    if (quint64(file.size()) > PictureFile::MaxBytes)
        return fail(tr("the file is larger than any picture this program reads"));
    const QByteArray bytes = file.readAll();
    QString why;
    if (!checkChunks(bytes, &why))
        return fail(why);
    QImage image;
    {
        // Qt passes libpng's warnings on as log messages; they are no reason
        // to refuse a picture that decodes, and no business of the user's.
        const QtMessageHandler previous = qInstallMessageHandler([](QtMsgType, const QMessageLogContext&,
                                                                    const QString&) {});
        QBuffer buffer(const_cast<QByteArray*>(&bytes));
        buffer.open(QIODevice::ReadOnly);
        QImageReader reader(&buffer, "png");
        reader.setAutoTransform(false);
        // A header that claims a huge picture must not make Qt allocate it.
        reader.setAllocationLimit(int(PictureFile::MaxBytes >> 20));
        image = reader.read();
        qInstallMessageHandler(previous);
        if (image.isNull())
            return fail(tr("not a readable PNG (%1)").arg(reader.errorString()));
    }

    const bool alpha = image.hasAlphaChannel();
    SxPicBufInfo format;
    format.width = quint32(image.width());
    format.height = quint32(image.height());
    switch (image.format()) {
    case QImage::Format_Grayscale8: format.channels = 1; format.dataType = IDT_UINT8; break;
    case QImage::Format_Grayscale16: format.channels = 1; format.dataType = IDT_UINT16; break;
    case QImage::Format_RGBX64:
    case QImage::Format_RGBA64:
    case QImage::Format_RGBA64_Premultiplied:
        format.channels = alpha ? 4 : 3;
        format.dataType = IDT_UINT16;
        image.convertTo(alpha ? QImage::Format_RGBA64 : QImage::Format_RGBX64);
        break;
    default:
        if (!alpha && image.allGray()) {
            format.channels = 1;
            image.convertTo(QImage::Format_Grayscale8);
        } else {
            format.channels = alpha ? 4 : 3;
            image.convertTo(alpha ? QImage::Format_RGBA8888 : QImage::Format_RGB888);
        }
        format.dataType = IDT_UINT8;
        break;
    }
    format.bitsPerSample = format.bytesPerSample() * 8;
    format.isColor = format.channels > 1;
    if (!PictureFile::preparePicture(pic, format, &why))
        return fail(why);
    const quint32 imageChannels = image.format() == QImage::Format_RGBX64 ? 4 : format.channels;
    const quint32 sampleBytes = format.bytesPerSample();
    for (quint32 y = 0; y < format.height; ++y) {
        const uchar* src = image.constScanLine(int(y));
        uchar* dst = pic.rowPtr(y);
        if (imageChannels == format.channels) {
            std::memcpy(dst, src, size_t(pic.packedLineBytes()));
        } else {
            for (quint32 x = 0; x < format.width; ++x)
                std::memcpy(dst + x * 3 * sampleBytes, src + x * 4 * sampleBytes, 3 * sampleBytes);
        }
        if (format.isColor)
            PictureFile::swapRedBlue(dst, format.width, format.channels, sampleBytes);
    }
    meta = CxImageMetadata();
    meta.updateFromPicBufInfo(&pic);
    return true;
}

} // namespace PngIo
