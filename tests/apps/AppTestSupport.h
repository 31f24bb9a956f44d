#pragma once
// Shared by the command-line host's tests: running the built binary, making
// pictures whose samples tell their position, and comparing pictures exactly.
#include "../host/TestPictures.h"

#include <ImageFileReader.h>

#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QProcess>
#include <QtCore/QStringList>

#include <csignal>

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

// A picture of the format over the whole range of the type, a -0, an
// infinity and a NaN among the floats; rows padded by padding bytes.
inline SxTstPic makePicture(ExImageDataType type, quint32 w, quint32 h, quint32 channels, quint32 padding = 0,
                            quint32 seed = 0)
{
    SxTstPic p(tstFormat(w, h, type, channels, channels >= 3), padding);
    tstFillRandom(p.pic, seed);
    const TstNum special[] = {-0.L, INFINITY, NAN};
    for (quint32 i = 1; type == IDT_FLOAT && i < 4 && i < w * h * channels; ++i)
        tstSetSample(p.pic, i / channels % w, i / channels / w, i % channels, special[i - 1]);
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
inline bool readPicture(const QString& path, SxTstPic& p, CxImageMetadata* meta = nullptr,
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
