#include "SegmentCache.h"

#include <QFile>
#include <QFileInfo>
#include <QTemporaryFile>

#include <cerrno>
#include <cstring>

#include <sys/stat.h>

namespace {

/// What others may not do with new files. Asked for while the program is loaded: to ask is to
/// change it for a moment, and for all threads.
mode_t processUmask()
{
    const mode_t mask = ::umask(S_IRWXG | S_IRWXO);
    ::umask(mask);
    return mask;
}

const mode_t newFileMask = processUmask();

/// The permissions that a file gets that is created plainly. The toolkit's temporary files have
/// those of a secret.
bool setPlainPermissions(const QTemporaryFile &file)
{
    constexpr mode_t everybody = S_IRUSR | S_IWUSR | S_IRGRP | S_IWGRP | S_IROTH | S_IWOTH;
    return ::fchmod(file.handle(), everybody & ~newFileMask) == 0;
}

} // namespace

QByteArray SegmentCache::read(const QString &path, qint64 bytes)
{
    const QFileInfo info(path);
    QFile file(path);
    if (!info.isFile() || info.size() != bytes || !file.open(QIODevice::ReadOnly))
        return {};
    const QByteArray content = file.readAll();
    return content.size() == bytes ? content : QByteArray(); // a disk may fail midway
}

QByteArray SegmentCache::readUpTo(const QString &path, qint64 maxBytes)
{
    const qint64 bytes = QFileInfo(path).size();
    return bytes <= maxBytes ? read(path, bytes) : QByteArray();
}

bool SegmentCache::write(const QString &path, const QByteArray &data)
{
    QTemporaryFile file(path + QLatin1String(".XXXXXX"));
    if (!file.open() || file.write(data) != data.size() || !file.flush())
        return false;
    if (!setPlainPermissions(file))
        qWarning("%s is for its owner only: %s", qUtf8Printable(path), std::strerror(errno));
    QFile::remove(path); // at most an empty file, for anything else would have been used
    if (!file.rename(path))
        return false;
    file.setAutoRemove(false);
    return true;
}
