#include "CxAtomicFile.h"

#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QFileInfo>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

QString systemReason(int error) { return QString::fromLocal8Bit(std::strerror(error)); }

// Creates the temporary file beside path, with the permissions a plain
// create would give (mkstemp makes it private).
int createBeside(const QString& path, QByteArray& temporary, int& error)
{
    const QFileInfo target(path);
    temporary = QFile::encodeName(target.dir().filePath(QLatin1Char('.') + target.fileName() + QLatin1String(".XXXXXX")));
    const int fd = ::mkstemp(temporary.data());
    if (fd < 0) {
        error = errno;
        return -1;
    }
    const mode_t mask = ::umask(0);
    ::umask(mask);
    ::fchmod(fd, 0666 & ~mask);
    return fd;
}

bool fail(const QByteArray& temporary, int error, QString* reason)
{
    if (!temporary.isEmpty())
        ::unlink(temporary.constData());
    if (reason && reason->isEmpty())
        *reason = systemReason(error ? error : EIO);
    return false;
}

bool putInPlace(const QByteArray& temporary, const QString& path, QString* reason)
{
    if (std::rename(temporary.constData(), QFile::encodeName(path).constData()) != 0)
        return fail(temporary, errno, reason);
    return true;
}

} // namespace

bool CxAtomicFile::write(const QString& path, const QByteArray& bytes, QString* reason)
{
    return writeVia(path, [&](const QString& temporary, QString*) {
        const int fd = ::open(QFile::encodeName(temporary).constData(), O_WRONLY | O_TRUNC | O_CLOEXEC);
        if (fd < 0)
            return false;
        const char* at = bytes.constData();
        qint64 left = bytes.size();
        while (left > 0) {
            const ssize_t n = ::write(fd, at, size_t(left));
            if (n < 0 && errno == EINTR)
                continue;
            if (n <= 0) {
                const int error = n < 0 ? errno : EIO;
                ::close(fd);
                errno = error;
                return false;
            }
            at += n;
            left -= n;
        }
        // Network file systems may report a full disk only here.
        return ::close(fd) == 0;
    }, reason);
}

bool CxAtomicFile::writeVia(const QString& path, const PathWriter& writeTo, QString* reason)
{
    if (reason)
        reason->clear();
    QByteArray temporary;
    int error = 0;
    const int fd = createBeside(path, temporary, error);
    if (fd < 0)
        return fail(QByteArray(), error, reason);
    ::close(fd);
    QString own;
    errno = 0;
    if (!writeTo(QFile::decodeName(temporary), &own)) {
        error = errno;
        if (reason)
            *reason = own;
        return fail(temporary, error, reason);
    }
    return putInPlace(temporary, path, reason);
}
