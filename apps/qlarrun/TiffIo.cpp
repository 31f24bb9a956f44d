#include "TiffIo.h"

#include "PictureFile.h"

#include <CxAtomicFile.h>
#include <CxXmlReader.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QFile>
#include <QtCore/QFileInfo>
#include <QtXml/QDomDocument>

#include <tiffio.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <memory>
#include <vector>

namespace {

QString tr(const char* text)
{
    return QCoreApplication::translate("TiffIo", text);
}

const char* const DescriptionElement = "QlarPicture";
const char* const BitsAttribute = "bitsPerSample";
const char* const CfaAttribute = "colorFilterArray";
const char* const StorageAttribute = "storageFormat";

// libtiff reports through callbacks; keep the first complaint for the one
// line the user sees and let nothing reach stderr on its own.
int keepFirstError(TIFF*, void* user, const char* module, const char* fmt, va_list ap)
{
    auto* first = static_cast<QString*>(user);
    if (first->isEmpty()) {
        char text[512];
        std::vsnprintf(text, sizeof text, fmt, ap);
        *first = QString::fromLocal8Bit(text);
    }
    return 1;
}

// Warnings stay silent unless they mean part of the file was lost (a tag
// whose data lies past the end, a count cut short): those count as errors,
// so that a frame is never read with part of its meaning dropped.
int keepDataLoss(TIFF* tif, void* user, const char* module, const char* fmt, va_list ap)
{
    char text[512];
    std::vsnprintf(text, sizeof text, fmt, ap);
    const QString warning = QString::fromLocal8Bit(text);
    if (warning.contains(QLatin1String("IO error")) || warning.contains(QLatin1String("tag ignored"))
        || warning.contains(QLatin1String("Incorrect count"))) {
        auto* first = static_cast<QString*>(user);
        if (first->isEmpty())
            *first = warning;
    }
    Q_UNUSED(tif);
    Q_UNUSED(module);
    return 1;
}

struct SxTiffCloser
{
    void operator()(TIFF* tif) const { TIFFClose(tif); }
};
using TiffPtr = std::unique_ptr<TIFF, SxTiffCloser>;

TiffPtr openTiff(const QString& path, const char* mode, QString* firstError)
{
    TIFFOpenOptions* opts = TIFFOpenOptionsAlloc();
    TIFFOpenOptionsSetErrorHandlerExtR(opts, keepFirstError, firstError);
    TIFFOpenOptionsSetWarningHandlerExtR(opts, keepDataLoss, firstError);
    // A corrupt header must not make libtiff ask for absurd amounts.
    TIFFOpenOptionsSetMaxSingleMemAlloc(opts, tmsize_t(PictureFile::MaxBytes));
    TiffPtr tif(TIFFOpenExt(QFile::encodeName(path).constData(), mode, opts));
    TIFFOpenOptionsFree(opts);
    return tif;
}

// 0 for types TIFF does not carry here.
uint16_t sampleFormatOf(ExImageDataType type)
{
    switch (type) {
    case IDT_INT8: case IDT_INT16: case IDT_INT32: return SAMPLEFORMAT_INT;
    case IDT_UINT8: case IDT_UINT16: case IDT_UINT32: return SAMPLEFORMAT_UINT;
    case IDT_FLOAT: return SAMPLEFORMAT_IEEEFP;
    default: return 0;
    }
}

ExImageDataType typeOf(uint16_t sampleFormat, uint16_t bits)
{
    if (sampleFormat == SAMPLEFORMAT_UINT)
        return bits == 8 ? IDT_UINT8 : bits == 16 ? IDT_UINT16 : bits == 32 ? IDT_UINT32 : IDT_UNKNOWN;
    if (sampleFormat == SAMPLEFORMAT_INT)
        return bits == 8 ? IDT_INT8 : bits == 16 ? IDT_INT16 : bits == 32 ? IDT_INT32 : IDT_UNKNOWN;
    if (sampleFormat == SAMPLEFORMAT_IEEEFP)
        return bits == 32 ? IDT_FLOAT : IDT_UNKNOWN;
    return IDT_UNKNOWN;
}

QString describeTiffSamples(uint16_t sampleFormat, uint16_t bits)
{
    const char* kind = sampleFormat == SAMPLEFORMAT_UINT     ? "unsigned"
                       : sampleFormat == SAMPLEFORMAT_INT    ? "signed"
                       : sampleFormat == SAMPLEFORMAT_IEEEFP ? "float"
                                                             : "untyped";
    return QStringLiteral("%1-bit %2").arg(bits).arg(QLatin1String(kind));
}

QByteArray pictureDescription(const SxPicBufInfo& format, const CxImageMetadata* meta)
{
    QDomDocument doc;
    QDomElement root = doc.createElement(QString::fromLatin1(DescriptionElement));
    doc.appendChild(root);
    root.setAttribute(QString::fromLatin1(BitsAttribute), format.bitsPerSample);
    root.setAttribute(QString::fromLatin1(CfaAttribute), quint32(format.colorFilterArray));
    root.setAttribute(QString::fromLatin1(StorageAttribute), quint32(format.storageFormat));
    if (meta && !meta->hsiCameraParams().isEmpty())
        meta->hsiCameraParams().saveToXml(doc, root);
    return doc.toByteArray(-1);
}

// Our own element in ImageDescription; other descriptions are left alone.
bool applyPictureDescription(const QByteArray& text, SxPicBufInfo& format, CxImageMetadata& meta, QString* error)
{
    if (!text.trimmed().startsWith('<'))
        return true;
    QDomDocument doc;
    QString why;
    if (!CxXmlReader::parse(text, doc, &why)) {
        // Someone else's markup is left alone; ours must read whole.
        if (!text.contains(DescriptionElement))
            return true;
        *error = tr("its description cannot be read (%1)").arg(why);
        return false;
    }
    const QDomElement root = doc.documentElement();
    if (root.tagName() != QLatin1String(DescriptionElement))
        return true;
    const auto number = [&](const char* name, quint32 fallback, bool* ok) {
        if (!root.hasAttribute(QString::fromLatin1(name)))
            return fallback;
        return root.attribute(QString::fromLatin1(name)).toUInt(ok);
    };
    bool ok = true;
    const quint32 typeBits = format.bytesPerSample() * 8;
    const quint32 bits = number(BitsAttribute, typeBits, &ok);
    const quint32 cfa = number(CfaAttribute, 0, &ok);
    const quint32 storage = number(StorageAttribute, DSF_PACKED, &ok);
    if (!ok || bits == 0 || bits > typeBits || cfa > CFA_HSI_MOSAIC || storage == DSF_UNKNOWN
        || storage > DSF_NOT_RAW) {
        *error = tr("the picture description in ImageDescription does not fit the samples");
        return false;
    }
    CxHsiCameraParams hsi;
    QString hsiError;
    if (!hsi.loadFromXml(root, &hsiError)) {
        *error = tr("picture description: %1").arg(hsiError);
        return false;
    }
    format.bitsPerSample = bits;
    format.colorFilterArray = ExColorFilterArray(cfa);
    format.storageFormat = ExDataStorageFormat(storage);
    meta.setHsiCameraParams(hsi);
    return true;
}

// Copies a decoded block (strip or tile) of blockRows rows of blockRowBytes
// into the picture at (x0 pixels, y0), clipped to the picture, turning colour
// pixels blue first while the rows are in cache.
void copyBlock(SxPicBuf& pic, const uchar* block, quint64 blockRowBytes, quint32 x0, quint32 y0, quint32 blockWidth,
               quint32 blockRows)
{
    const quint64 pixelBytes = pic.bytesPerPixel();
    const quint32 columns = qMin(blockWidth, pic.width - x0);
    const quint32 rows = qMin(blockRows, pic.height - y0);
    const bool swap = pic.isBlueFirstColour();
    for (quint32 r = 0; r < rows; ++r) {
        uchar* dst = pic.rowPtr(y0 + r) + x0 * pixelBytes;
        std::memcpy(dst, block + r * blockRowBytes, size_t(columns * pixelBytes));
        if (swap)
            PictureFile::swapRedBlue(dst, columns, pic.channels, pic.bytesPerSample());
    }
}

bool readStrips(TIFF* tif, SxPicBuf& pic)
{
    const quint64 rowBytes = pic.packedLineBytes();
    uint32_t rowsPerStrip = 0;
    TIFFGetFieldDefaulted(tif, TIFFTAG_ROWSPERSTRIP, &rowsPerStrip);
    rowsPerStrip = qBound<uint32_t>(1, rowsPerStrip, pic.height);
    if (quint64(TIFFScanlineSize64(tif)) != rowBytes)
        return false;
    std::vector<uchar> strip(static_cast<size_t>(rowBytes * rowsPerStrip));
    for (quint32 y = 0; y < pic.height; y += rowsPerStrip) {
        const quint32 rows = qMin(rowsPerStrip, pic.height - y);
        const tmsize_t want = tmsize_t(rows * rowBytes);
        if (TIFFReadEncodedStrip(tif, TIFFComputeStrip(tif, y, 0), strip.data(), want) < want)
            return false;
        copyBlock(pic, strip.data(), rowBytes, 0, y, pic.width, rows);
    }
    return true;
}

bool readTiles(TIFF* tif, SxPicBuf& pic)
{
    uint32_t tileWidth = 0, tileHeight = 0;
    if (!TIFFGetField(tif, TIFFTAG_TILEWIDTH, &tileWidth) || !TIFFGetField(tif, TIFFTAG_TILELENGTH, &tileHeight)
        || tileWidth == 0 || tileHeight == 0)
        return false;
    const quint64 tileRowBytes = quint64(tileWidth) * pic.bytesPerPixel();
    const quint64 tileBytes = tileRowBytes * tileHeight;
    // A tile may overhang the picture, but not by more than a small multiple
    // of it: a small file must not cost a huge buffer.
    const quint64 pictureBytes = pic.packedLineBytes() * pic.height;
    if (quint64(TIFFTileSize64(tif)) != tileBytes || tileBytes > PictureFile::MaxBytes
        || tileBytes > qMax<quint64>(4 * pictureBytes, quint64(1) << 20))
        return false;
    std::vector<uchar> tile(static_cast<size_t>(tileBytes));
    for (quint32 y = 0; y < pic.height; y += tileHeight) {
        for (quint32 x = 0; x < pic.width; x += tileWidth) {
            if (TIFFReadEncodedTile(tif, TIFFComputeTile(tif, x, y, 0, 0), tile.data(), tmsize_t(tileBytes))
                < tmsize_t(tileBytes))
                return false;
            copyBlock(pic, tile.data(), tileRowBytes, x, y, tileWidth, tileHeight);
        }
    }
    return true;
}

// Every strip or tile of the current directory must lie in the file behind
// its header: libtiff reads an offset of 0 as the header's own bytes, and a
// block past the end as a short read it may fill in.
bool blocksInFile(TIFF* t, quint64 fileSize, QString* why)
{
    const bool tiled = TIFFIsTiled(t);
    uint64_t* offsets = nullptr;
    uint64_t* counts = nullptr;
    const uint32_t blocks = tiled ? TIFFNumberOfTiles(t) : TIFFNumberOfStrips(t);
    if (!TIFFGetField(t, tiled ? TIFFTAG_TILEOFFSETS : TIFFTAG_STRIPOFFSETS, &offsets)
        || !TIFFGetField(t, tiled ? TIFFTAG_TILEBYTECOUNTS : TIFFTAG_STRIPBYTECOUNTS, &counts) || !offsets || !counts) {
        *why = tr("the TIFF does not say where its pixels are");
        return false;
    }
    const quint64 header = TIFFIsBigTIFF(t) ? 16 : 8;
    const QString kind = tiled ? tr("tile") : tr("strip");
    // Uncompressed blocks hold exactly their rows' bytes: a header that
    // claims more rows than the file has bytes for is cut short.
    uint16_t compression = COMPRESSION_NONE;
    TIFFGetFieldDefaulted(t, TIFFTAG_COMPRESSION, &compression);
    uint32_t height = 0, rowsPerStrip = 0;
    TIFFGetField(t, TIFFTAG_IMAGELENGTH, &height);
    TIFFGetFieldDefaulted(t, TIFFTAG_ROWSPERSTRIP, &rowsPerStrip);
    rowsPerStrip = qBound<uint32_t>(1, rowsPerStrip, qMax<uint32_t>(height, 1));
    const auto needed = [&](uint32_t i) -> quint64 {
        if (compression != COMPRESSION_NONE)
            return 0;
        if (tiled)
            return quint64(TIFFTileSize64(t));
        const quint64 first = quint64(i) * rowsPerStrip;
        const quint64 rows = first < height ? qMin<quint64>(rowsPerStrip, height - first) : 0;
        return rows * quint64(TIFFScanlineSize64(t));
    };
    for (uint32_t i = 0; i < blocks; ++i) {
        if (offsets[i] < header) {
            *why = tr("the TIFF is corrupt: %1 %2 starts at offset %3, inside the file's header").arg(kind).arg(i).arg(offsets[i]);
            return false;
        }
        if (counts[i] < needed(i)) {
            *why = tr("the TIFF is truncated: %1 %2 holds %3 bytes of the %4 its pixels need")
                       .arg(kind)
                       .arg(i)
                       .arg(counts[i])
                       .arg(needed(i));
            return false;
        }
        if (counts[i] > fileSize || offsets[i] > fileSize - counts[i]) {
            *why = tr("the TIFF is truncated: %1 %2 of %3 bytes at offset %4 runs past the end of the file (%5 bytes)")
                       .arg(kind)
                       .arg(i)
                       .arg(counts[i])
                       .arg(offsets[i])
                       .arg(fileSize);
            return false;
        }
    }
    return true;
}

// The format of the current directory, with what our own ImageDescription
// adds; false with the reason when this program does not read such pages.
bool pageFormat(TIFF* t, SxPicBufInfo& format, CxImageMetadata& meta, QString* why)
{
    const auto fail = [&](const QString& what) {
        *why = what;
        return false;
    };
    uint32_t width = 0, height = 0;
    uint16_t channels = 1, bits = 1, sampleFormat = SAMPLEFORMAT_UINT, planar = PLANARCONFIG_CONTIG, photometric = 0;
    if (!TIFFGetField(t, TIFFTAG_IMAGEWIDTH, &width) || !TIFFGetField(t, TIFFTAG_IMAGELENGTH, &height))
        return fail(tr("the TIFF has no picture size"));
    TIFFGetFieldDefaulted(t, TIFFTAG_SAMPLESPERPIXEL, &channels);
    TIFFGetFieldDefaulted(t, TIFFTAG_BITSPERSAMPLE, &bits);
    TIFFGetFieldDefaulted(t, TIFFTAG_SAMPLEFORMAT, &sampleFormat);
    TIFFGetFieldDefaulted(t, TIFFTAG_PLANARCONFIG, &planar);
    if (!TIFFGetField(t, TIFFTAG_PHOTOMETRIC, &photometric))
        photometric = channels >= 3 ? PHOTOMETRIC_RGB : PHOTOMETRIC_MINISBLACK;

    const ExImageDataType type = typeOf(sampleFormat, bits);
    if (type == IDT_UNKNOWN)
        return fail(tr("TIFF samples of %1 are not supported (8, 16 or 32-bit integers, 32-bit float)")
                        .arg(describeTiffSamples(sampleFormat, bits)));
    if (photometric != PHOTOMETRIC_MINISBLACK && photometric != PHOTOMETRIC_RGB)
        return fail(tr("TIFF photometric interpretation %1 is not supported (min-is-black or RGB)").arg(photometric));
    if (photometric == PHOTOMETRIC_RGB && channels < 3)
        return fail(tr("an RGB TIFF with %1 samples per pixel").arg(channels));
    if (channels > 1 && planar != PLANARCONFIG_CONTIG)
        return fail(tr("TIFF with separate colour planes is not supported (only interleaved samples)"));
    if (channels == 0)
        return fail(tr("the TIFF has no samples per pixel"));

    format = SxPicBufInfo();
    format.width = width;
    format.height = height;
    format.channels = channels;
    format.dataType = type;
    format.bitsPerSample = bits;
    // Beyond red, green, blue and alpha the samples have no colour order to
    // keep, so they stay numbered channels in the file's order.
    format.isColor = photometric == PHOTOMETRIC_RGB && channels <= 4;
    meta = CxImageMetadata();
    char* description = nullptr;
    if (TIFFGetField(t, TIFFTAG_IMAGEDESCRIPTION, &description) && description
        && !applyPictureDescription(QByteArray(description), format, meta, why))
        return false;
    return true;
}

const char ImageJMark[] = "ImageJ=";

// images=N of an ImageJ description; 0 when the description is not
// ImageJ's or says nothing of images, -1 when the number is not one.
qint64 imageJImages(TIFF* t)
{
    char* description = nullptr;
    if (!TIFFGetField(t, TIFFTAG_IMAGEDESCRIPTION, &description) || !description
        || std::strncmp(description, ImageJMark, sizeof ImageJMark - 1) != 0)
        return 0;
    for (const QByteArray& line : QByteArray(description).split('\n')) {
        if (line.startsWith("images=")) {
            bool ok = false;
            const qint64 n = line.mid(7).trimmed().toLongLong(&ok);
            return ok && n > 0 ? n : -1;
        }
    }
    return 0;
}

// A stack ImageJ wrote with one directory: the first page's format must be
// read as it is stored, and the file must hold every frame.
bool checkImageJStack(TIFF* t, const QString& path, qint64 images, QString* why)
{
    SxPicBufInfo format;
    CxImageMetadata meta;
    if (!pageFormat(t, format, meta, why))
        return false;
    uint16_t compression = COMPRESSION_NONE;
    TIFFGetFieldDefaulted(t, TIFFTAG_COMPRESSION, &compression);
    uint64_t* offsets = nullptr;
    if (compression != COMPRESSION_NONE || TIFFIsTiled(t) || !TIFFGetField(t, TIFFTAG_STRIPOFFSETS, &offsets)
        || !offsets) {
        *why = tr("ImageJ stack of %1 images with a compressed or tiled first page: its frames cannot be found")
                   .arg(images);
        return false;
    }
    if (format.width == 0 || format.height == 0 || format.width > PictureFile::MaxSide
        || format.height > PictureFile::MaxSide) {
        *why = tr("a picture of %1 is beyond what this program reads").arg(format.describe());
        return false;
    }
    const quint64 frameBytes = format.packedLineBytes() * format.height;
    const quint64 size = quint64(QFileInfo(path).size());
    const quint64 start = offsets[0];
    if (start > size || quint64(images) > (size - start) / frameBytes) {
        *why = tr("ImageJ stack of %1 images of %2 bytes from offset %3, but the file ends after %4 bytes")
                   .arg(images).arg(frameBytes).arg(start).arg(size);
        return false;
    }
    return true;
}

// Frame page of an ImageJ stack from its place behind the first strip, in
// the file's byte order.
bool readImageJFrame(TIFF* t, const QString& path, qint64 page, SxPicBuf& pic)
{
    uint64_t* offsets = nullptr;
    if (!TIFFGetField(t, TIFFTAG_STRIPOFFSETS, &offsets) || !offsets)
        return false;
    const quint64 frameBytes = pic.packedLineBytes() * pic.height;
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly) || !file.seek(qint64(offsets[0] + quint64(page) * frameBytes))
        || file.read(reinterpret_cast<char*>(pic.data), qint64(frameBytes)) != qint64(frameBytes))
        return false;
    const tmsize_t samples = tmsize_t(frameBytes / pic.bytesPerSample());
    if (TIFFIsByteSwapped(t) && pic.bytesPerSample() == 2)
        TIFFSwabArrayOfShort(reinterpret_cast<uint16_t*>(pic.data), samples);
    else if (TIFFIsByteSwapped(t) && pic.bytesPerSample() == 4)
        TIFFSwabArrayOfLong(reinterpret_cast<uint32_t*>(pic.data), samples);
    if (pic.isBlueFirstColour()) {
        for (quint32 y = 0; y < pic.height; ++y)
            PictureFile::swapRedBlue(pic.rowPtr(y), pic.width, pic.channels, pic.bytesPerSample());
    }
    return true;
}

QString corrupt(const QString& libError)
{
    return libError.isEmpty() ? tr("the TIFF is truncated or corrupt")
                              : tr("the TIFF is truncated or corrupt (%1)").arg(libError);
}

bool writeFile(const QString& path, const SxPicBuf& pic, const CxImageMetadata* meta, bool deflate, QString* why)
{
    QString libError;
    TiffPtr tif = openTiff(path, "w", &libError);
    if (!tif) {
        *why = libError;
        return false;
    }
    const bool rgb = pic.isBlueFirstColour();
    const uint16_t bits = uint16_t(pic.bytesPerSample() * 8);
    const QByteArray description = pictureDescription(pic, meta);
    bool ok = TIFFSetField(tif.get(), TIFFTAG_IMAGEWIDTH, uint32_t(pic.width))
              && TIFFSetField(tif.get(), TIFFTAG_IMAGELENGTH, uint32_t(pic.height))
              && TIFFSetField(tif.get(), TIFFTAG_SAMPLESPERPIXEL, uint16_t(pic.channels))
              && TIFFSetField(tif.get(), TIFFTAG_BITSPERSAMPLE, bits)
              && TIFFSetField(tif.get(), TIFFTAG_SAMPLEFORMAT, sampleFormatOf(pic.dataType))
              && TIFFSetField(tif.get(), TIFFTAG_PHOTOMETRIC, rgb ? PHOTOMETRIC_RGB : PHOTOMETRIC_MINISBLACK)
              && TIFFSetField(tif.get(), TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG)
              && TIFFSetField(tif.get(), TIFFTAG_COMPRESSION, deflate ? COMPRESSION_ADOBE_DEFLATE : COMPRESSION_NONE)
              && TIFFSetField(tif.get(), TIFFTAG_ROWSPERSTRIP, TIFFDefaultStripSize(tif.get(), 0))
              && TIFFSetField(tif.get(), TIFFTAG_IMAGEDESCRIPTION, description.constData())
              && TIFFSetField(tif.get(), TIFFTAG_SOFTWARE, "qlarrun");
    const quint32 extra = pic.channels - (rgb ? 3 : 1);
    if (ok && extra > 0) {
        std::vector<uint16_t> kinds(extra, EXTRASAMPLE_UNSPECIFIED);
        if (rgb)
            kinds[0] = EXTRASAMPLE_UNASSALPHA;
        ok = TIFFSetField(tif.get(), TIFFTAG_EXTRASAMPLES, uint16_t(extra), kinds.data());
    }
    // libtiff may work on the row it is given, so hand it a copy, which is
    // also where colour turns red first as the file wants it.
    std::vector<uchar> row(size_t(pic.packedLineBytes()));
    for (quint32 y = 0; ok && y < pic.height; ++y) {
        std::memcpy(row.data(), pic.rowPtr(y), row.size());
        if (rgb)
            PictureFile::swapRedBlue(row.data(), pic.width, pic.channels, pic.bytesPerSample());
        ok = TIFFWriteScanline(tif.get(), row.data(), y, 0) >= 0;
    }
    ok = ok && TIFFFlush(tif.get());
    tif.reset();
    // The system's reason (errno) says more than libtiff's own words.
    if (!ok && errno == 0)
        *why = libError;
    return ok;
}

} // namespace

namespace TiffIo {

bool canWrite(const SxPicBufInfo& format, QString* reason)
{
    if (!sampleFormatOf(format.dataType) || format.channels == 0 || format.storageFormat == DSF_PLANAR) {
        *reason = tr("pictures of format %1 cannot be written as TIFF").arg(format.describe());
        return false;
    }
    return true;
}

bool write(const QString& path, const SxPicBuf& pic, const CxImageMetadata* meta, bool deflate, QString* error)
{
    QString reason;
    if (!canWrite(pic, &reason) || !pic.data || pic.width == 0 || pic.height == 0
        || pic.effectiveLinePitch() < pic.packedLineBytes()) {
        *error = PictureFile::fileError(path, reason.isEmpty() ? tr("the picture holds no pixels") : reason);
        return false;
    }
    // Written beside the target and renamed into place once complete.
    if (!CxAtomicFile::writeVia(path, [&](const QString& temporary, QString* why) {
            return writeFile(temporary, pic, meta, deflate, why);
        }, &reason)) {
        *error = PictureFile::fileError(path, tr("cannot write the picture (%1)").arg(reason));
        return false;
    }
    return true;
}

bool scan(const QString& path, SxPages& pages, QString* error)
{
    pages = SxPages();
    QString libError;
    TiffPtr tif = openTiff(path, "r", &libError);
    if (!tif) {
        *error = PictureFile::fileError(path, libError.isEmpty() ? tr("cannot read the file as TIFF") : corrupt(libError));
        return false;
    }
    TIFF* t = tif.get();
    if (!libError.isEmpty()) {
        *error = PictureFile::fileError(path, corrupt(libError));
        return false;
    }
    const qint64 images = imageJImages(t);
    while (true) {
        uint32_t subfileType = 0;
        uint16_t oldSubfileType = 0;
        TIFFGetField(t, TIFFTAG_SUBFILETYPE, &subfileType);
        TIFFGetField(t, TIFFTAG_OSUBFILETYPE, &oldSubfileType);
        if (!(subfileType & FILETYPE_REDUCEDIMAGE) && oldSubfileType != OFILETYPE_REDUCEDIMAGE)
            pages.directories.push_back(TIFFCurrentDirOffset(t));
        libError.clear();
        const bool more = TIFFReadDirectory(t);
        if (!more && libError.isEmpty())
            break;
        if (!libError.isEmpty()) {
            // Numbered as the frames are, thumbnails not counted.
            const qint64 page = qint64(pages.directories.size());
            *error = PictureFile::fileError(PictureFile::frameName(path, PictureFile::UnitPage, page, 0),
                                            corrupt(libError));
            return false;
        }
    }
    if (pages.directories.empty()) {
        *error = PictureFile::fileError(path, tr("the TIFF holds only reduced-resolution pages"));
        return false;
    }
    if (images < 0) {
        *error = PictureFile::fileError(path, tr("the ImageJ description gives no number of images"));
        return false;
    }
    if (images > 1 && pages.directories.size() == 1) {
        QString why;
        if (!TIFFSetSubDirectory(t, pages.directories.front()) || !checkImageJStack(t, path, images, &why)) {
            *error = PictureFile::fileError(path, why.isEmpty() ? corrupt(libError) : why);
            return false;
        }
        pages.imageJImages = images;
    }
    return true;
}

bool readPage(const QString& path, const SxPages& pages, qint64 page, const QString& name, SxPicBuf& pic,
              CxImageMetadata& meta, QString* error)
{
    const auto fail = [&](const QString& what) {
        *error = PictureFile::fileError(name, what);
        return false;
    };
    if (page < 0 || page >= pages.count())
        return fail(tr("the TIFF has no page %1").arg(page + 1));
    QString libError;
    TiffPtr tif = openTiff(path, "r", &libError);
    if (!tif)
        return fail(libError.isEmpty() ? tr("cannot read the file as TIFF") : corrupt(libError));
    TIFF* t = tif.get();
    const quint64 directory = pages.directories.at(pages.imageJImages > 0 ? 0 : size_t(page));
    if ((TIFFCurrentDirOffset(t) != directory && !TIFFSetSubDirectory(t, directory)) || !libError.isEmpty())
        return fail(corrupt(libError));

    SxPicBufInfo format;
    QString why;
    // Checked before the picture is allocated: what the header claims must
    // fit the limits and the file.
    if (!pageFormat(t, format, meta, &why)
        || (pages.imageJImages == 0 && !blocksInFile(t, quint64(QFileInfo(path).size()), &why))
        || !PictureFile::preparePicture(pic, format, &why))
        return fail(why);
    const bool ok = pages.imageJImages > 0 ? readImageJFrame(t, path, page, pic)
                    : TIFFIsTiled(t)       ? readTiles(t, pic)
                                           : readStrips(t, pic);
    if (!ok)
        return fail(corrupt(libError));
    meta.updateFromPicBufInfo(&pic);
    return true;
}

bool read(const QString& path, SxPicBuf& pic, CxImageMetadata& meta, QString* error)
{
    SxPages pages;
    return scan(path, pages, error) && readPage(path, pages, 0, path, pic, meta, error);
}

} // namespace TiffIo
