#include "FolderLock.h"

#include <QElapsedTimer>
#include <QFile>

#include <cerrno>

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

namespace {

constexpr int folderPatienceMs = 3000;
constexpr useconds_t pauseUs = 2000;

} // namespace

FolderLock::FolderLock(const QString &folder)
    : m_fd(::open(QFile::encodeName(folder).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC))
    , m_isHeld(m_fd >= 0 && take(m_fd, folderPatienceMs))
{
}

FolderLock::~FolderLock()
{
    if (m_fd >= 0)
        ::close(m_fd); // and with it the lock
}

bool FolderLock::take(int fd, int patienceMs)
{
    QElapsedTimer timer;
    timer.start();
    while (::flock(fd, LOCK_EX | LOCK_NB) != 0) {
        if ((errno != EWOULDBLOCK && errno != EINTR) || timer.hasExpired(patienceMs))
            return false;
        ::usleep(pauseUs);
    }
    return true;
}
