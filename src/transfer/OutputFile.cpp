#include "OutputFile.h"

#include <QByteArray>
#include <QFileInfo>

#include <array>
#include <cerrno>
#include <climits>
#include <cstring>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr mode_t permissions = 0666; // less what the process masks out
constexpr int maxLinks = 40; // as many as the system follows
constexpr int maxAttempts = 20; // while others make and remove files of the name
constexpr int isTaken = EWOULDBLOCK; // another run holds the lock
constexpr int hasChanged = ESTALE; // the name has become another file's: look again

/// A file descriptor that is closed in the end.
class Descriptor final
{
public:
    explicit Descriptor(int fd = -1)
        : m_fd(fd)
    {
    }

    Descriptor(Descriptor &&other) noexcept
        : m_fd(other.release())
    {
    }

    ~Descriptor()
    {
        if (m_fd >= 0)
            ::close(m_fd);
    }

    Descriptor &operator=(Descriptor &&) = delete;
    Q_DISABLE_COPY(Descriptor)

    [[nodiscard]] int get() const { return m_fd; }
    [[nodiscard]] bool isOpen() const { return m_fd >= 0; }

    int release()
    {
        const int fd = m_fd;
        m_fd = -1;
        return fd;
    }

private:
    int m_fd;
};

/// What came of one try to open: a file, or the number of the error.
struct Attempt
{
    Descriptor file;
    int error = 0;
};

Attempt failure(int error)
{
    return {Descriptor(), error};
}

bool isSameFile(const struct stat &a, const struct stat &b)
{
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

bool isRegular(int fd)
{
    struct stat status
    {
    };
    return ::fstat(fd, &status) == 0 && S_ISREG(status.st_mode);
}

/// Locks an open file and looks whether the name is still its own: whoever had the lock before may
/// have removed the file. Returns 0, isTaken or hasChanged.
int lock(int fd, const char *name)
{
    // A file system that knows no locks has no second run kept away.
    if (::flock(fd, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK)
        return isTaken;
    struct stat opened
    {
    };
    struct stat named
    {
    };
    return ::fstat(fd, &opened) == 0 && ::stat(name, &named) == 0 && isSameFile(opened, named)
        ? 0
        : hasChanged;
}

/// Opens what the name stands for as it is. Opening a pipe without a reader fails; afterwards,
/// writing waits for the reader as usual.
Attempt openInPlace(const char *name, int flags)
{
    Attempt attempt{
        Descriptor(::open(name, O_NONBLOCK | O_NOCTTY | O_CLOEXEC | flags, permissions)), 0};
    if (!attempt.file.isOpen())
        return failure(errno);
    if (isRegular(attempt.file.get())) // any number of runs may write to a device
        attempt.error = lock(attempt.file.get(), name);
    const int status = ::fcntl(attempt.file.get(), F_GETFL);
    if (status < 0 || ::fcntl(attempt.file.get(), F_SETFL, status & ~O_NONBLOCK) != 0)
        attempt.error = errno;
    return attempt;
}

/// Opens what cannot be removed, and empties it if it is a file.
Attempt empty(const char *name)
{
    Attempt attempt = openInPlace(name, O_WRONLY);
    if (attempt.error == 0 && isRegular(attempt.file.get())
        && ::ftruncate(attempt.file.get(), 0) != 0)
        attempt.error = errno;
    return attempt;
}

Attempt create(const char *name)
{
    Attempt attempt{Descriptor(::open(name, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, permissions)),
                    0};
    if (!attempt.file.isOpen())
        return failure(errno == EEXIST ? hasChanged : errno);
    attempt.error = lock(attempt.file.get(), name);
    return attempt;
}

/// Opens a file for its lock only; some network file systems lock for writers alone.
Attempt openForLock(const char *name)
{
    constexpr int flags = O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    for (const int access : {O_WRONLY, O_RDONLY}) {
        const int fd = ::open(name, access | flags);
        if (fd >= 0)
            return {Descriptor(fd), 0};
    }
    return failure(errno);
}

/// @param name the file itself: its links have been followed
Attempt replace(const char *name)
{
    struct stat status
    {
    };
    if (::lstat(name, &status) != 0)
        return errno == ENOENT ? create(name) : failure(errno);
    if (S_ISDIR(status.st_mode))
        return failure(EISDIR);
    if (S_ISLNK(status.st_mode) || S_ISCHR(status.st_mode) || S_ISBLK(status.st_mode))
        return empty(name);
    {
        // The lock is held until the new file has its own, so that of two runs one comes through.
        // What may be neither read nor written is in nobody's hands.
        Attempt before = openForLock(name);
        if (before.file.isOpen())
            before.error = lock(before.file.get(), name);
        else
            before.error = before.error == ENOENT ? hasChanged : 0;
        if (before.error != 0)
            return before;
        if (::unlink(name) == 0 || errno == ENOENT)
            return create(name);
    }
    return empty(name);
}

/// Where a path's symbolic links lead to, which need not exist. The path itself where only the
/// system can tell, as for the entries of a process's open files.
QByteArray targetOf(const QByteArray &path)
{
    QByteArray target = path;
    std::array<char, PATH_MAX> text{};
    for (int i = 0; i < maxLinks; ++i) {
        const ssize_t size = ::readlink(target.constData(), text.data(), text.size());
        if (size < 0)
            break;
        const QByteArray next(text.data(), static_cast<int>(size));
        target = next.startsWith('/') ? next : target.left(target.lastIndexOf('/') + 1) + next;
    }
    struct stat named
    {
    };
    struct stat found
    {
    };
    const bool isThere = ::stat(path.constData(), &named) == 0;
    const bool isFound = ::lstat(target.constData(), &found) == 0 && isSameFile(named, found);
    return isThere && !isFound ? path : target;
}

Attempt attemptOf(const QByteArray &name, OutputFile::Mode mode)
{
    switch (mode) {
    case OutputFile::Mode::Update:
        return openInPlace(name.constData(), O_RDWR | O_CREAT);
    case OutputFile::Mode::Append:
        return openInPlace(name.constData(), O_WRONLY | O_APPEND | O_CREAT);
    case OutputFile::Mode::Replace:
        break;
    }
    return replace(targetOf(name).constData());
}

bool isOtherRuns(int error)
{
    return error == isTaken || error == hasChanged;
}

QString textOf(int error)
{
    return isOtherRuns(error) ? QStringLiteral("another run is writing it")
                              : QString::fromLocal8Bit(std::strerror(error));
}

} // namespace

bool OutputFile::open(const QString &path, Mode mode)
{
    close();
    m_file.setFileName(path);
    const QByteArray name = QFile::encodeName(path);
    int error = hasChanged;
    for (int i = 0; i < maxAttempts && error == hasChanged; ++i) {
        Attempt attempt = attemptOf(name, mode);
        error = attempt.error;
        if (error == 0) {
            m_isTaken = false;
            m_openError.clear();
            // The system does the appending: told of it, the toolkit seeks, which pipes cannot.
            const auto access = mode == Mode::Update ? QIODevice::ReadWrite : QIODevice::WriteOnly;
            return m_file.open(attempt.file.release(), access | QIODevice::Unbuffered,
                               QFileDevice::AutoCloseHandle);
        }
    }
    m_isTaken = isOtherRuns(error);
    m_openError = textOf(error);
    return false;
}

bool OutputFile::rewind()
{
    const int status = ::fcntl(m_file.handle(), F_GETFL);
    return status >= 0 && ::fcntl(m_file.handle(), F_SETFL, status & ~O_APPEND) == 0
        && m_file.seek(0);
}

QString OutputFile::errorString() const
{
    return m_openError.isEmpty() ? m_file.errorString() : m_openError;
}

bool OutputFile::isBeingWritten(const QString &path)
{
    const QByteArray name = QFile::encodeName(path);
    struct stat status
    {
    };
    if (::stat(name.constData(), &status) != 0 || !S_ISREG(status.st_mode))
        return false;
    const Attempt attempt = openForLock(name.constData());
    // Two that only ask are not in each other's way.
    return attempt.file.isOpen() && ::flock(attempt.file.get(), LOCK_SH | LOCK_NB) != 0
        && errno == EWOULDBLOCK;
}

bool OutputFile::isInPlace(const QString &path, qint64 bytes)
{
    const QFileInfo info(path);
    return info.exists() && !info.isDir() && info.size() >= bytes;
}
