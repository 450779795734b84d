#include "LeftFiles.h"

#include <QDateTime>
#include <QDir>
#include <QStandardPaths>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr qint64 surelyLeftS = 24 * 60 * 60;

/// Whether no process has the file open; nothing else may be told where the file system has no
/// leases.
bool isOpenNowhere(const QByteArray &path)
{
    const int fd = ::open(path.constData(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0)
        return false;
    const bool isAlone = ::fcntl(fd, F_SETLEASE, F_WRLCK) == 0;
    ::close(fd); // and with it the lease
    return isAlone;
}

} // namespace

void LeftFiles::removeAll()
{
    const QString cache = QStandardPaths::writableLocation(QStandardPaths::GenericCacheLocation);
    removeFrom(cache); // of runs without a sandbox
    removeFrom(cache + QLatin1String("/clipweir"));
}

void LeftFiles::removeFrom(const QString &folder)
{
    // The framework's name for them: the program's, and six letters.
    const QFileInfoList files =
        QDir(folder).entryInfoList({QStringLiteral("clipweir-??????")}, QDir::Files);
    const QDateTime now = QDateTime::currentDateTime();
    for (const QFileInfo &file : files) {
        const QByteArray path = QFile::encodeName(file.filePath());
        struct stat info = {};
        if (::lstat(path.constData(), &info) != 0 || !S_ISREG(info.st_mode))
            continue;
        if (isOpenNowhere(path) || file.lastModified().secsTo(now) > surelyLeftS)
            ::unlink(path.constData());
    }
}
