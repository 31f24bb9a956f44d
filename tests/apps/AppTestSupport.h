#pragma once
// Shared by the command-line host's tests: running the built binary, making
// pictures over the whole range of their type, comparing pictures exactly, and
// writing TIFFs with libtiff itself, as another program would.
#include <PictureKit.h>

#include <ImageFileReader.h>

#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QProcess>
#include <QtCore/QStringList>

#include <csignal>

#include <sys/resource.h>
#include <tiffio.h>

#include <vector>

struct SxRun
{
    int status = -1;
    QString out, err;
    QStringList errLines() const { return err.split('\n', Qt::SkipEmptyParts); }
};

// QLAR_PLUGIN_DIR is removed unless given, so the compiled-in folder is used.
// A fileSizeLimit above 0 caps every file the run writes (RLIMIT_FSIZE, with
// SIGXFSZ ignored so that writes fail with EFBIG), as a full disk would.
inline SxRun runQlarrun(const QStringList& args, const QString& workDir = QString(),
                        const QString& pluginEnv = QString(), rlim_t fileSizeLimit = 0)
{
    QProcess process;
    if (fileSizeLimit > 0)
        process.setChildProcessModifier([fileSizeLimit] {
            ::signal(SIGXFSZ, SIG_IGN);
            const rlimit limit{fileSizeLimit, fileSizeLimit};
            ::setrlimit(RLIMIT_FSIZE, &limit);
        });
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.remove("QLAR_PLUGIN_DIR");
    if (!pluginEnv.isEmpty())
        env.insert("QLAR_PLUGIN_DIR", pluginEnv);
    process.setProcessEnvironment(env);
    process.setWorkingDirectory(workDir);
    process.start(QLAR_BIN_DIR "/qlarrun", args);
    SxRun run;
    if (process.waitForFinished(120000) && process.exitStatus() == QProcess::NormalExit) {
        run.status = process.exitCode();
        run.out = QString::fromUtf8(process.readAllStandardOutput());
        run.err = QString::fromUtf8(process.readAllStandardError());
    }
    return run;
}

// A picture of the format over the whole range of the type, a -0, an
// infinity and a NaN among the floats; rows padded by padding bytes.
inline kit::CxPicture makePicture(ExImageDataType type, quint32 w, quint32 h, quint32 channels, quint32 padding = 0,
                                  quint32 seed = 0)
{
    const SxPicBufInfo f = kit::format(w, h, channels, type, 0, CFA_NONE, DSF_PACKED, channels >= 3);
    kit::CxPicture p(padding ? kit::padded(f, padding) : f);
    kit::fillRandom(p.pic(), seed);
    const long double special[] = {-0.L, INFINITY, NAN};
    for (quint32 i = 1; type == IDT_FLOAT && i < 4 && i < w * h * channels; ++i)
        kit::setSample(p.pic(), i / channels % w, i / channels / w, i % channels, special[i - 1]);
    return p;
}

// Keeps only the low bits of every integer sample, for formats whose
// significant bits are fewer than the type's.
inline void maskToBits(SxPicBuf& pic, quint32 bits)
{
    const quint32 bytes = pic.bytesPerSample();
    const quint64 mask = bits >= 64 ? ~0ULL : (1ULL << bits) - 1;
    for (quint32 y = 0; y < pic.height; ++y)
        for (quint64 i = 0, v = 0; i < quint64(pic.width) * pic.channels; ++i) {
            std::memcpy(&v, pic.rowPtr(y) + i * bytes, bytes);
            v &= mask;
            std::memcpy(pic.rowPtr(y) + i * bytes, &v, bytes);
        }
}

// Through the program's own reader, as a run would read the file.
inline bool readPicture(const QString& path, kit::CxPicture& p, CxImageMetadata* meta = nullptr,
                        QString* error = nullptr)
{
    CxImageMetadata scratch;
    QString scratchError;
    return CxImageFileReader::read(path, SxReadOptions(), p.pic(), meta ? *meta : scratch,
                                   error ? error : &scratchError);
}

inline bool writeFile(const QString& path, const QByteArray& bytes)
{
    QFile f(path);
    return f.open(QIODevice::WriteOnly) && f.write(bytes) == bytes.size();
}

inline QByteArray fileBytes(const QString& path)
{
    QFile f(path);
    return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
}

// The packed sample bytes of a picture, row after row.
inline QByteArray packedBytes(const SxPicBuf& pic)
{
    QByteArray bytes;
    for (quint32 y = 0; y < pic.height; ++y)
        bytes.append(reinterpret_cast<const char*>(pic.rowPtr(y)), qsizetype(pic.packedLineBytes()));
    return bytes;
}

struct SxTiffLayout
{
    bool bigEndian = false;
    quint32 tile = 0;  // 0: strips
    bool separate = false;
    int compression = COMPRESSION_NONE;
    quint32 rowsPerStrip = 0;  // 0: one strip
    int photometric = -1;      // -1: RGB for 3 and 4 channels, else min-is-black
    int bits = 0;              // 0: the sample type's
    bool append = false, thumbnail = false;

    // "be tile=16 sep comp=5 rps=4 ph=5 bits=12 append thumb", any of them.
    explicit SxTiffLayout(const QString& layoutText)
    {
        for (const QString& token : layoutText.split(' ', Qt::SkipEmptyParts)) {
            const int value = token.section('=', 1).toInt();
            const QString key = token.section('=', 0, 0);
            bigEndian |= key == "be";
            separate |= key == "sep";
            tile = key == "tile" ? quint32(value) : tile;
            compression = key == "comp" ? value : compression;
            rowsPerStrip = key == "rps" ? quint32(value) : rowsPerStrip;
            photometric = key == "ph" ? value : photometric;
            bits = key == "bits" ? value : bits;
            append |= key == "append";
            thumbnail |= key == "thumb";
        }
    }
};

// Written with libtiff directly, not through the program's writer.
inline bool writeWithLibtiff(const QString& path, const SxPicBuf& src, const SxTiffLayout& l)
{
    TIFF* tif = TIFFOpen(QFile::encodeName(path).constData(), l.append ? "a" : l.bigEndian ? "wb" : "wl");
    if (!tif)
        return false;
    const quint32 ch = src.channels;
    const int photometric = l.photometric >= 0 ? l.photometric : ch >= 3 ? PHOTOMETRIC_RGB : PHOTOMETRIC_MINISBLACK;
    const int sampleFormat = src.dataType == IDT_FLOAT ? SAMPLEFORMAT_IEEEFP
                             : (src.dataType == IDT_INT8 || src.dataType == IDT_INT16 || src.dataType == IDT_INT32)
                                 ? SAMPLEFORMAT_INT
                                 : SAMPLEFORMAT_UINT;
    TIFFSetField(tif, TIFFTAG_IMAGEWIDTH, src.width);
    TIFFSetField(tif, TIFFTAG_IMAGELENGTH, src.height);
    TIFFSetField(tif, TIFFTAG_SAMPLESPERPIXEL, uint16_t(ch));
    TIFFSetField(tif, TIFFTAG_BITSPERSAMPLE, uint16_t(l.bits ? l.bits : int(src.bytesPerSample() * 8)));
    TIFFSetField(tif, TIFFTAG_SAMPLEFORMAT, uint16_t(sampleFormat));
    TIFFSetField(tif, TIFFTAG_PHOTOMETRIC, uint16_t(photometric));
    TIFFSetField(tif, TIFFTAG_PLANARCONFIG, uint16_t(l.separate ? PLANARCONFIG_SEPARATE : PLANARCONFIG_CONTIG));
    TIFFSetField(tif, TIFFTAG_COMPRESSION, uint16_t(l.compression));
    TIFFSetField(tif, TIFFTAG_SUBFILETYPE, l.thumbnail ? FILETYPE_REDUCEDIMAGE : 0);
    const quint32 colour = photometric == PHOTOMETRIC_RGB ? 3 : photometric == PHOTOMETRIC_SEPARATED ? 4 : 1;
    if (ch > colour) {
        std::vector<uint16_t> kinds(ch - colour, EXTRASAMPLE_UNSPECIFIED);
        TIFFSetField(tif, TIFFTAG_EXTRASAMPLES, uint16_t(kinds.size()), kinds.data());
    }
    const quint32 pixelBytes = src.bytesPerPixel(), sampleBytes = src.bytesPerSample();
    bool ok = true;
    if (l.tile) {
        TIFFSetField(tif, TIFFTAG_TILEWIDTH, l.tile);
        TIFFSetField(tif, TIFFTAG_TILELENGTH, l.tile);
        std::vector<uchar> tile(size_t(TIFFTileSize(tif)));
        for (quint32 ty = 0; ok && ty < src.height; ty += l.tile) {
            for (quint32 tx = 0; ok && tx < src.width; tx += l.tile) {
                std::fill(tile.begin(), tile.end(), 0);
                for (quint32 r = 0; r < l.tile && ty + r < src.height; ++r)
                    std::memcpy(tile.data() + r * l.tile * pixelBytes, src.rowPtr(ty + r) + tx * pixelBytes,
                                std::min(l.tile, src.width - tx) * pixelBytes);
                ok = TIFFWriteTile(tif, tile.data(), tx, ty, 0, 0) >= 0;
            }
        }
    } else {
        TIFFSetField(tif, TIFFTAG_ROWSPERSTRIP, l.rowsPerStrip ? l.rowsPerStrip : src.height);
        std::vector<uchar> row(std::max<size_t>(size_t(TIFFScanlineSize(tif)), size_t(src.packedLineBytes())));
        const quint32 planes = l.separate ? ch : 1;
        for (quint32 s = 0; ok && s < planes; ++s) {
            for (quint32 y = 0; ok && y < src.height; ++y) {
                if (l.separate) {
                    for (quint32 x = 0; x < src.width; ++x)
                        std::memcpy(row.data() + x * sampleBytes, src.rowPtr(y) + x * pixelBytes + s * sampleBytes,
                                    sampleBytes);
                } else {
                    std::memcpy(row.data(), src.rowPtr(y), size_t(src.packedLineBytes()));
                }
                ok = TIFFWriteScanline(tif, row.data(), y, uint16_t(s)) >= 0;
            }
        }
    }
    TIFFClose(tif);
    return ok;
}
