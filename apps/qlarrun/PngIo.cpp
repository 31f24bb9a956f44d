#include "PngIo.h"

#include "PictureFile.h"

#include <CxAtomicFile.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QBuffer>
#include <QtCore/QFile>
#include <QtCore/QSysInfo>

#include <png.h>

#include <array>
#include <cstdio>
#include <memory>
#include <vector>

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

// Walks the chunks before the decoder sees the file, so that a cut or
// damaged file is named with where it breaks.
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

// libpng decodes with our own handlers: its errors become the reason in our
// one line (its default prints them on stderr), its warnings say nothing
// that costs samples and stay silent.
struct SxPngInput
{
    const uchar* data = nullptr;
    size_t size = 0;
    size_t pos = 0;
    char message[256] = {};
};

void pngError(png_structp png, png_const_charp message)
{
    auto* in = static_cast<SxPngInput*>(png_get_error_ptr(png));
    std::snprintf(in->message, sizeof in->message, "%s", message);
    png_longjmp(png, 1);
}

void pngWarning(png_structp, png_const_charp) {}

void pngRead(png_structp png, png_bytep out, size_t count)
{
    auto* in = static_cast<SxPngInput*>(png_get_io_ptr(png));
    if (count > in->size - in->pos)
        png_error(png, "the file ends inside the picture");
    std::memcpy(out, in->data + in->pos, count);
    in->pos += count;
}

// What libpng leaves: 1 (grey), 3 (RGB) or 4 (RGBA) channels of 8 or 16 bits,
// red first, in host byte order.
struct SxDecoded
{
    std::vector<uchar> pixels;
    std::vector<png_bytep> rows;
    quint32 width = 0, height = 0, channels = 0, bytesPerSample = 0;
    size_t rowBytes = 0;
    bool fromColour = false;  // RGB or palette in the file: grey pixels make it grey
    SxPngInput input;
    char refusal[200] = {};
};

// A header that claims more than this program reads is refused before the
// pixels are allocated.
bool withinLimits(SxDecoded& d)
{
    SxPicBufInfo claimed;
    claimed.width = d.width;
    claimed.height = d.height;
    claimed.channels = d.channels;
    claimed.dataType = d.bytesPerSample == 2 ? IDT_UINT16 : IDT_UINT8;
    QString beyond = PictureFile::beyondLimits(claimed);
    if (beyond.isEmpty() && quint64(d.rowBytes) * d.height > PictureFile::MaxBytes)
        beyond = tr("the picture is larger than any this program reads");
    std::snprintf(d.refusal, sizeof d.refusal, "%s", beyond.toLocal8Bit().constData());
    return beyond.isEmpty();
}

bool decodePng(const QByteArray& bytes, SxDecoded& out, QString* why)
{
    SxPngInput& in = out.input;
    in.data = reinterpret_cast<const uchar*>(bytes.constData());
    in.size = size_t(bytes.size());
    png_structp png = png_create_read_struct(PNG_LIBPNG_VER_STRING, &in, pngError, pngWarning);
    png_infop info = png ? png_create_info_struct(png) : nullptr;
    if (!info) {
        png_destroy_read_struct(&png, nullptr, nullptr);
        *why = tr("no memory to decode the PNG");
        return false;
    }
    // Nothing below changes a local object that the jump back needs: what the
    // decoder fills lives in out, which the caller holds.
    if (setjmp(png_jmpbuf(png))) {
        png_destroy_read_struct(&png, &info, nullptr);
        *why = tr("not a readable PNG (%1)").arg(QString::fromLatin1(in.message));
        return false;
    }
    png_set_read_fn(png, &in, pngRead);
    png_read_info(png, info);
    const int type = png_get_color_type(png, info);
    const int depth = png_get_bit_depth(png, info);
    out.fromColour = (type & PNG_COLOR_MASK_COLOR) != 0;
    if (type == PNG_COLOR_TYPE_PALETTE)
        png_set_palette_to_rgb(png);
    if (type == PNG_COLOR_TYPE_GRAY && depth < 8)
        png_set_expand_gray_1_2_4_to_8(png);
    if (png_get_valid(png, info, PNG_INFO_tRNS))
        png_set_tRNS_to_alpha(png);
    // Grey with alpha has no picture form of its own here: it becomes RGBA.
    if (!(type & PNG_COLOR_MASK_COLOR) && ((type & PNG_COLOR_MASK_ALPHA) || png_get_valid(png, info, PNG_INFO_tRNS)))
        png_set_gray_to_rgb(png);
    if (depth == 16 && QSysInfo::ByteOrder == QSysInfo::LittleEndian)
        png_set_swap(png);
    png_set_interlace_handling(png);
    png_read_update_info(png, info);
    out.width = png_get_image_width(png, info);
    out.height = png_get_image_height(png, info);
    out.channels = png_get_channels(png, info);
    out.bytesPerSample = png_get_bit_depth(png, info) / 8;
    out.rowBytes = png_get_rowbytes(png, info);
    // No C++ object may be alive when png_error jumps: the check leaves its
    // words in a buffer.
    if (!withinLimits(out))
        png_error(png, out.refusal);
    out.pixels.resize(out.rowBytes * out.height);
    out.rows.resize(out.height);
    for (quint32 y = 0; y < out.height; ++y)
        out.rows[y] = out.pixels.data() + y * out.rowBytes;
    png_read_image(png, out.rows.data());
    png_read_end(png, nullptr);
    png_destroy_read_struct(&png, &info, nullptr);
    return true;
}

bool allGrey8(const SxDecoded& d)
{
    for (quint32 y = 0; y < d.height; ++y) {
        const uchar* p = d.rows[y];
        for (quint32 x = 0; x < d.width; ++x, p += 3)
            if (p[0] != p[1] || p[1] != p[2])
                return false;
    }
    return true;
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
    auto decoded = std::make_unique<SxDecoded>();
    if (!decodePng(bytes, *decoded, &why))
        return fail(why);
    const SxDecoded& d = *decoded;
    // An 8-bit colour file whose pixels are all grey is a grey picture.
    const bool grey = d.channels == 1 || (d.channels == 3 && d.bytesPerSample == 1 && d.fromColour && allGrey8(d));
    SxPicBufInfo format;
    format.width = d.width;
    format.height = d.height;
    format.channels = grey ? 1 : d.channels;
    format.dataType = d.bytesPerSample == 2 ? IDT_UINT16 : IDT_UINT8;
    format.bitsPerSample = format.bytesPerSample() * 8;
    format.isColor = format.channels > 1;
    if (!PictureFile::preparePicture(pic, format, &why))
        return fail(why);
    for (quint32 y = 0; y < format.height; ++y) {
        uchar* dst = pic.rowPtr(y);
        if (format.channels == d.channels) {
            std::memcpy(dst, d.rows[y], size_t(pic.packedLineBytes()));
        } else {
            for (quint32 x = 0; x < format.width; ++x)
                dst[x] = d.rows[y][3 * x];
        }
        if (format.isColor)
            PictureFile::swapRedBlue(dst, format.width, format.channels, format.bytesPerSample());
    }
    meta = CxImageMetadata();
    meta.updateFromPicBufInfo(&pic);
    return true;
}

} // namespace PngIo
