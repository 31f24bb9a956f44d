#pragma once
// What the fuzz targets share: one application object (nodes that plot need
// a GUI one, offscreen), the plug-in folder loaded once, and a scratch file
// for readers that take a path.
#include <CxPluginManager.h>

#include <QtCore/QByteArray>
#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtWidgets/QApplication>

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include <unistd.h>

namespace fuzz {

inline void start(int* argc, char*** argv, bool plugins)
{
    qputenv("QT_QPA_PLATFORM", "offscreen");
    // Hostile sizes are refused by the limits, not by running out of memory.
    qputenv("QLAR_MAX_PICTURE_SAMPLES", "1048576");
    qputenv("QLAR_MAX_PICTURE_BYTES", "67108864");
    static QApplication app(*argc, *argv);
    if (plugins)
        CxPluginManager::instance()->loadFolder(QString::fromUtf8(QLAR_PLUGIN_DIR));
    // Qt's own warnings on hostile input are not findings.
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext&, const QString&) {});
}

// The input as a file named like the real thing; rewritten for every input.
inline QString asFile(const uint8_t* data, size_t size, const char* name)
{
    static const QString dir = QDir::tempPath() + QStringLiteral("/qlar-fuzz-%1").arg(::getpid());
    QDir().mkpath(dir);
    const QString path = dir + QLatin1Char('/') + QLatin1String(name);
    QFile file(path);
    if (file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        file.write(reinterpret_cast<const char*>(data), qint64(size));
    return path;
}

// Bytes taken one field at a time from the front of the input.
struct SxBytes
{
    const uint8_t* data;
    size_t size;
    template <class T> T take(T fallback = T())
    {
        if (size < sizeof(T))
            return fallback;
        T v;
        std::memcpy(&v, data, sizeof v);
        data += sizeof v;
        size -= sizeof v;
        return v;
    }
};

} // namespace fuzz
