#include "ImageFileReader.h"

#include "PictureFile.h"
#include "PngIo.h"
#include "PnmIo.h"
#include "TiffIo.h"

#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QFileInfo>
#include <QtCore/QSet>

#include <algorithm>
#include <limits>

namespace {

bool hasWildcard(const QString& text)
{
    return text.contains(QLatin1Char('*')) || text.contains(QLatin1Char('?')) || text.contains(QLatin1Char('['));
}

void sortByName(QStringList& paths)
{
    std::stable_sort(paths.begin(), paths.end(), [](const QString& a, const QString& b) {
        return CxImageFileReader::nameLess(QFileInfo(a).fileName(), QFileInfo(b).fileName());
    });
}

} // namespace

QStringList CxImageFileReader::pictureSuffixes()
{
    return {QStringLiteral("tif"), QStringLiteral("tiff"), QStringLiteral("png"), QStringLiteral("pgm"),
            QStringLiteral("ppm"), QStringLiteral("pnm")};
}

CxImageFileReader::ExFormat CxImageFileReader::detect(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return FormatUnknown;
    const QByteArray head = file.read(8);
    if (head.startsWith("II*\0") || head.startsWith(QByteArray("MM\0*", 4)) || head.startsWith("II+\0")
        || head.startsWith(QByteArray("MM\0+", 4)))
        return FormatTiff;
    if (head.startsWith("\x89PNG\r\n\x1a\n"))
        return FormatPng;
    if (head.size() >= 2 && head.at(0) == 'P' && head.at(1) >= '1' && head.at(1) <= '6')
        return FormatPnm;
    return FormatUnknown;
}

namespace {

// The '-' before the digits at begin is their sign: it starts the name or
// follows something that is neither letter nor digit (frame_-3, -3), whereas
// after a letter or digit it only separates (shot-0001).
bool isSigned(const QString& name, qsizetype begin)
{
    return begin > 0 && name.at(begin - 1) == QLatin1Char('-')
        && (begin < 2 || !name.at(begin - 2).isLetterOrNumber());
}

} // namespace

bool CxImageFileReader::nameLess(const QString& a, const QString& b)
{
    qsizetype i = 0, j = 0;
    while (i < a.size() && j < b.size()) {
        if (a.at(i).isDigit() && b.at(j).isDigit()) {
            qsizetype ei = i, ej = j;
            while (ei < a.size() && a.at(ei).isDigit())
                ++ei;
            while (ej < b.size() && b.at(ej).isDigit())
                ++ej;
            // Compare by value: leading zeros out, then length, then digits.
            qsizetype si = i, sj = j;
            while (si + 1 < ei && a.at(si) == QLatin1Char('0'))
                ++si;
            while (sj + 1 < ej && b.at(sj) == QLatin1Char('0'))
                ++sj;
            // Signed numbers (frame_-3) count down: the larger magnitude first.
            const bool negative = isSigned(a, i) && isSigned(b, j);
            if (ei - si != ej - sj)
                return (ei - si < ej - sj) != negative;
            const int c = QStringView(a).mid(si, ei - si).compare(QStringView(b).mid(sj, ej - sj));
            if (c != 0)
                return (c < 0) != negative;
            i = ei;
            j = ej;
            continue;
        }
        if (a.at(i) != b.at(j))
            return a.at(i) < b.at(j);
        ++i;
        ++j;
    }
    if (a.size() - i != b.size() - j)
        return a.size() - i < b.size() - j;
    return a < b;  // equal by value ("7" and "07"): any fixed order
}

bool CxImageFileReader::frameNumberFromName(const QString& path, qint32& number, QString* error)
{
    const QString base = QFileInfo(path).completeBaseName();
    qsizetype end = base.size();
    while (end > 0 && !base.at(end - 1).isDigit())
        --end;
    qsizetype begin = end;
    while (begin > 0 && base.at(begin - 1).isDigit())
        --begin;
    if (begin == end) {
        *error = PictureFile::fileError(path, tr("the name holds no frame number"));
        return false;
    }
    const bool negative = isSigned(base, begin);
    bool ok = false;
    const qint64 value = base.mid(negative ? begin - 1 : begin, end - begin + (negative ? 1 : 0)).toLongLong(&ok);
    if (!ok || value < std::numeric_limits<qint32>::min() || value > std::numeric_limits<qint32>::max()) {
        *error = PictureFile::fileError(path, tr("the frame number in the name does not fit 32 bits"));
        return false;
    }
    number = qint32(value);
    return true;
}

bool CxImageFileReader::listInputs(const QStringList& inputs, bool raw, QStringList& files, QString* error)
{
    const QStringList suffixes = pictureSuffixes();
    files.clear();
    for (const QString& input : inputs) {
        const QFileInfo info(input);
        QStringList found;
        if (info.isDir()) {
            const QFileInfoList entries = QDir(input).entryInfoList(QDir::Files | QDir::Readable);
            QSet<QString> tiffBases;
            for (const QFileInfo& entry : entries) {
                if (entry.suffix().toLower().startsWith(QLatin1String("tif")))
                    tiffBases.insert(entry.completeBaseName());
            }
            for (const QFileInfo& entry : entries) {
                const QString suffix = entry.suffix().toLower();
                if (!raw && (!suffixes.contains(suffix)
                             || (suffix == QLatin1String("png") && tiffBases.contains(entry.completeBaseName()))))
                    continue;
                found << entry.filePath();
            }
            if (found.isEmpty()) {
                *error = PictureFile::fileError(input, raw ? tr("the folder holds no files")
                                                           : tr("the folder holds no picture files (%1)")
                                                                 .arg(suffixes.join(QLatin1String(", "))));
                return false;
            }
        } else if (hasWildcard(info.fileName()) && !info.exists()) {
            const QString folder = info.path();
            if (hasWildcard(folder)) {
                *error = PictureFile::fileError(input, tr("wildcards are only understood in the file name"));
                return false;
            }
            const QStringList names = QDir(folder).entryList({info.fileName()}, QDir::Files | QDir::Readable);
            for (const QString& name : names)
                found << QDir(folder).filePath(name);
            if (found.isEmpty()) {
                *error = PictureFile::fileError(input, tr("no file matches"));
                return false;
            }
        } else if (info.isFile()) {
            files << input;
            continue;
        } else {
            *error = PictureFile::fileError(input, tr("no such file or folder"));
            return false;
        }
        sortByName(found);
        files << found;
    }
    return true;
}

bool CxImageFileReader::scan(const QString& path, const SxReadOptions& options, SxFrames& frames, QString* error)
{
    frames = SxFrames();
    frames.path = path;
    if (!QFileInfo(path).isReadable()) {
        *error = PictureFile::fileError(path, tr("cannot open the file"));
        return false;
    }
    frames.format = options.raw ? FormatRaw : detect(path);
    bool ok = true;
    switch (frames.format) {
    case FormatRaw: ok = RawIo::frameCount(path, options.rawFormat, frames.count, error); break;
    case FormatTiff:
        ok = TiffIo::scan(path, frames.pages, error);
        frames.count = frames.pages.count();
        break;
    case FormatPng: frames.count = 1; break;
    case FormatPnm:
        ok = PnmIo::scan(path, frames.images, error);
        frames.count = qint64(frames.images.size());
        break;
    case FormatUnknown:
        *error = PictureFile::fileError(path, QFileInfo(path).size() == 0
                                                  ? tr("the file is empty")
                                                  : tr("not a TIFF, PNG, PGM or PPM file (raw frames need --raw)"));
        return false;
    }
    return ok;
}

QString CxImageFileReader::frameName(const SxFrames& frames, qint64 index)
{
    const PictureFile::ExFrameUnit unit = frames.format == FormatTiff  ? PictureFile::UnitPage
                                          : frames.format == FormatPnm ? PictureFile::UnitImage
                                                                       : PictureFile::UnitFrame;
    return PictureFile::frameName(frames.path, unit, index, frames.count);
}

bool CxImageFileReader::readFrame(const SxFrames& frames, qint64 index, const SxReadOptions& options, SxPicBuf& pic,
                                  CxImageMetadata& meta, QString* error)
{
    const QString name = frameName(frames, index);
    if (index < 0 || index >= frames.count) {
        *error = PictureFile::fileError(name, tr("the file holds no such frame"));
        return false;
    }
    bool ok = false;
    switch (frames.format) {
    case FormatRaw: {
        RawIo::SxRawFormat format = options.rawFormat;
        format.colorFilterArray = CFA_NONE;
        format.bitsPerSample = 0;
        ok = RawIo::read(frames.path, format, index, name, pic, meta, error);
        break;
    }
    case FormatTiff: ok = TiffIo::readPage(frames.path, frames.pages, index, name, pic, meta, error); break;
    case FormatPng: ok = PngIo::read(frames.path, pic, meta, error); break;
    case FormatPnm: ok = PnmIo::read(frames.path, frames.images.at(size_t(index)), name, pic, meta, error); break;
    case FormatUnknown: break;
    }
    return ok && describeSensor(name, options, pic, meta, error);
}

bool CxImageFileReader::read(const QString& path, const SxReadOptions& options, SxPicBuf& pic,
                             CxImageMetadata& meta, QString* error)
{
    SxFrames frames;
    return scan(path, options, frames, error) && readFrame(frames, 0, options, pic, meta, error);
}

bool CxImageFileReader::describeSensor(const QString& name, const SxReadOptions& options, SxPicBuf& pic,
                                       CxImageMetadata& meta, QString* error)
{
    const auto fail = [&](const QString& what) {
        *error = PictureFile::fileError(name, what);
        return false;
    };
    const quint32 typeBits = pic.bytesPerSample() * 8;
    const auto setBits = [&](quint32 bits, const QString& origin) {
        if (bits == 0)
            return true;
        if (bits > typeBits || (pic.dataType == IDT_FLOAT && bits != 32))
            return fail(tr("%1 gives %2 significant bits, more than %3 samples hold")
                            .arg(origin).arg(bits).arg(dataTypeName(pic.dataType)));
        pic.bitsPerSample = bits;
        return true;
    };
    const auto setMosaic = [&](ExColorFilterArray cfa, const QString& origin) {
        if (cfa != CFA_NONE && pic.channels != 1)
            return fail(tr("%1 gives filter array %2, but the picture has %3 channels (a mosaic has one)")
                            .arg(origin).arg(quint32(cfa)).arg(pic.channels));
        pic.colorFilterArray = cfa;
        return true;
    };

    const auto describe = [&](const SxCameraDescription& description, const QString& origin) {
        if (description.hasColorFilterArray) {
            if (!setMosaic(description.colorFilterArray, origin))
                return false;
            meta.setHsiCameraParams(description.hsi);
        }
        return setBits(description.bitsPerSample, origin);
    };
    if (options.hasChainInput && !describe(options.chainInput, tr("the chain document")))
        return false;
    if (options.hasCamera && !describe(options.camera, tr("the camera description")))
        return false;
    const QString lineOrigin = tr("the command line");
    if (options.colorFilterArray >= 0 && !setMosaic(ExColorFilterArray(options.colorFilterArray), lineOrigin))
        return false;
    if (!setBits(options.bitsPerSample, lineOrigin))
        return false;

    if (pic.colorFilterArray == CFA_HSI_MOSAIC && !meta.hsiCameraParams().isValid())
        return fail(tr("filter array 7 needs a hyperspectral description (--camera-file)"));
    if (pic.colorFilterArray != CFA_HSI_MOSAIC)
        meta.setHsiCameraParams(CxHsiCameraParams());
    if (pic.colorFilterArray != CFA_NONE)
        meta.setChannelNames({});
    meta.updateFromPicBufInfo(&pic);
    return true;
}
