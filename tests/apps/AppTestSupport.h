#pragma once
// Shared by the command-line host's tests: running the built binary, making
// pictures whose samples tell their position, and comparing pictures exactly.
#include <CxPicBufAPI.h>
#include <ImageFileReader.h>

#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QProcess>
#include <QtCore/QStringList>

#include <cmath>
#include <csignal>
#include <cstring>
#include <limits>

#include <sys/resource.h>

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

// A heap picture that is freed with its holder.
struct SxHeapPicture
{
    SxPicBuf pic;
    SxHeapPicture() = default;
    SxHeapPicture(const SxHeapPicture&) = delete;
    ~SxHeapPicture() { CxPicBufAPI::FreePicBuf(pic, true); }
};

inline quint64 mixBits(quint64 h)
{
    h ^= h >> 33;
    h *= 0xff51afd7ed558ccdULL;
    h ^= h >> 33;
    h *= 0xc4ceb3f9fe1a85ecULL;
    return h ^ (h >> 33);
}

// Samples over the whole range of the type: negative values of signed types,
// values above 2^31 in u32, fractions and a -0, an infinity and a NaN among
// the floats. Every byte of a sample depends on its position and the seed.
inline void fillPattern(SxPicBuf& pic, quint32 seed = 0)
{
    const quint32 bytes = pic.bytesPerSample();
    const quint64 rowSamples = quint64(pic.width) * pic.channels;
    for (quint32 y = 0; y < pic.height; ++y) {
        uchar* row = pic.rowPtr(y);
        for (quint64 i = 0; i < rowSamples; ++i) {
            const quint64 h = mixBits((quint64(seed) << 40) ^ (quint64(y) << 20) ^ i);
            if (pic.dataType == IDT_FLOAT) {
                const quint64 index = y * rowSamples + i;
                const float v = index == 1   ? -0.f
                                : index == 2 ? std::numeric_limits<float>::infinity()
                                : index == 3 ? std::numeric_limits<float>::quiet_NaN()
                                             : float(qint32(h)) / 4096.f;
                std::memcpy(row + i * 4, &v, 4);
            } else {
                std::memcpy(row + i * bytes, &h, bytes);
            }
        }
    }
}

// A picture of the format with the pattern above; padding bytes after every
// row hold 0xA5, which no comparison may look at.
inline bool makePicture(SxHeapPicture& p, ExImageDataType type, quint32 w, quint32 h, quint32 channels,
                        quint32 padding = 0, quint32 seed = 0)
{
    const quint32 pitch = w * channels * bytesPerSampleOf(type) + padding;
    if (!CxPicBufAPI::AllocPicBufFromHeap(p.pic, w, h, channels, type, 0, pitch, 0, DSF_PACKED, CFA_NONE,
                                          channels >= 3, false, 0))
        return false;
    std::memset(p.pic.data, 0xA5, size_t(p.pic.dataSize()));
    fillPattern(p.pic, seed);
    return true;
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

// Same geometry and sample type and the same bytes in every row (pitches may
// differ); why tells the first difference.
inline bool samePixels(const SxPicBuf& a, const SxPicBuf& b, QString* why)
{
    if (a.width != b.width || a.height != b.height || a.channels != b.channels || a.dataType != b.dataType) {
        *why = QString("format %1 against %2").arg(a.describe(), b.describe());
        return false;
    }
    if (!a.data || !b.data)
        return *why = "no pixels", false;
    for (quint32 y = 0; y < a.height; ++y)
        if (std::memcmp(a.rowPtr(y), b.rowPtr(y), size_t(a.packedLineBytes())) != 0)
            return *why = QString("row %1 differs").arg(y), false;
    return true;
}

// Through the program's own reader, as a run would read the file.
inline bool readPicture(const QString& path, SxHeapPicture& p, CxImageMetadata* meta = nullptr,
                        QString* error = nullptr)
{
    CxImageMetadata scratch;
    QString scratchError;
    return CxImageFileReader::read(path, SxReadOptions(), p.pic, meta ? *meta : scratch,
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
