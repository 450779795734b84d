#include "PageFolder.h"

#include "FileKind.h"
#include "NameTemplate.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSaveFile>

#include <cerrno>
#include <cstdio>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

/// Names that many pages have must not make each of them look at all others.
constexpr int mostPlainNumber = 20;
constexpr int mostNumber = 100000;
constexpr int mostNoteBytes = 64 * 1024;

/// As the run names a page's files.
QString hashOf(const QString &address)
{
    const QByteArray sum = QCryptographicHash::hash(address.toUtf8(), QCryptographicHash::Md5);
    return QString::fromLatin1(sum.toHex()).toUpper();
}

/// The name as it is, with a number, or where many have it, with what no other page has.
QString variant(const QString &path, int number, const QString &id)
{
    if (number == 1)
        return path;
    const QString mark = number <= mostPlainNumber
        ? QString::number(number)
        : QStringLiteral("%1-%2").arg(id).arg(number - mostPlainNumber);
    const int dot = path.lastIndexOf(QLatin1Char('.'));
    const int end = dot > path.lastIndexOf(QLatin1Char('/')) + 1 ? dot : path.size();
    return path.left(end) + QStringLiteral(" (%1)").arg(mark) + path.mid(end);
}

/// Moves a file to a name that is free; errno tells why it is not.
bool moveToFree(const QString &from, const QString &to)
{
    const QByteArray source = QFile::encodeName(from);
    const QByteArray target = QFile::encodeName(to);
    if (::renameat2(AT_FDCWD, source.constData(), AT_FDCWD, target.constData(), RENAME_NOREPLACE)
        == 0)
        return true;
    if (errno != EINVAL && errno != ENOSYS)
        return false;
    // A file system that knows no such move: the name is taken first.
    const int fd = ::open(target.constData(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (fd < 0)
        return false;
    ::close(fd);
    return ::rename(source.constData(), target.constData()) == 0;
}

/// Whether something has the name, be it a link that leads nowhere.
bool isTaken(const QString &path)
{
    struct stat status = {};
    return ::lstat(QFile::encodeName(path).constData(), &status) == 0;
}

} // namespace

PageFolder::PageFolder(const QString &folder, const QString &address)
    : m_folder(QDir(folder).absolutePath())
    , m_address(address)
    , m_work(m_folder + QLatin1String("/.clipweir-get"))
    , m_own(m_work + QLatin1Char('/') + hashOf(address))
{
}

bool PageFolder::make() const
{
    return QDir().mkpath(m_own);
}

QString PageFolder::videoPath() const
{
    return m_own + QLatin1String("/video.mp4");
}

QString PageFolder::thumbPath() const
{
    return m_own + QLatin1Char('/') + hashOf(m_address) + QLatin1String(".thumb");
}

QString PageFolder::notePath() const
{
    return m_own + QLatin1String(".name");
}

QString PageFolder::readNote() const
{
    QFile note(notePath());
    if (!FileKind::isPlainFile(notePath()) || !note.open(QIODevice::ReadOnly))
        return {};
    return QString::fromUtf8(note.read(mostNoteBytes));
}

bool PageFolder::writeNote(const QString &name) const
{
    QSaveFile note(notePath());
    const QByteArray text = name.toUtf8();
    return note.open(QIODevice::WriteOnly) && note.write(text) == text.size() && note.commit();
}

QString PageFolder::deliverVideo(const QString &name) const
{
    return deliver(videoPath(), name, true);
}

/// @param name relative to the folder of the files
QString PageFolder::deliver(const QString &from, const QString &name, bool isNoted) const
{
    const QString path = m_folder + QLatin1Char('/') + name;
    if (!FileKind::isPlainFile(from) || !QDir().mkpath(QFileInfo(path).absolutePath()))
        return {};
    const QString id = NameTemplate::idOf(m_address);
    for (int number = 1; number <= mostNumber; ++number) {
        const QString free = variant(name, number, id);
        const QString target = m_folder + QLatin1Char('/') + free;
        if (isTaken(target))
            continue;
        if (isNoted && !writeNote(free))
            return {};
        if (moveToFree(from, target))
            return target;
        if (errno != EEXIST)
            break;
    }
    return {};
}

QString PageFolder::deliverThumb(const QString &video) const
{
    if (!FileKind::isPlainFile(thumbPath()))
        return {};
    const QString extension = FileKind::extensionOf(thumbPath(), QStringLiteral("thumb"));
    const QFileInfo info(QDir(m_folder).relativeFilePath(video));
    const QString stem = info.path() + QLatin1Char('/') + info.completeBaseName();
    return deliver(thumbPath(), QDir::cleanPath(stem) + QLatin1Char('.') + extension, false);
}

QString PageFolder::finishDelivery() const
{
    const QString name = readNote();
    if (name.isEmpty())
        return {};
    // What the run wrote is no longer there: it has got its name.
    if (!isTaken(videoPath()))
        return m_folder + QLatin1Char('/') + name;
    return deliverVideo(name);
}

void PageFolder::remove() const
{
    QDir(m_own).removeRecursively();
    QFile::remove(notePath());
    QDir().rmdir(m_work);
}

void PageFolder::removeIfEmpty() const
{
    if (QDir().rmdir(m_own))
        QDir().rmdir(m_work);
}
