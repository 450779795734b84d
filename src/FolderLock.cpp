#include "FolderLock.h"

#include <QElapsedTimer>
#include <QFile>

#include <cerrno>

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

namespace {

constexpr int patienceMs = 3000;
constexpr useconds_t pauseUs = 2000;

} // namespace

FolderLock::FolderLock(const QString &folder)
    : m_fd(::open(QFile::encodeName(folder).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC))
{
    if (m_fd < 0)
        return;
    QElapsedTimer timer;
    timer.start();
    m_isHeld = ::flock(m_fd, LOCK_EX | LOCK_NB) == 0;
    while (!m_isHeld && (errno == EWOULDBLOCK || errno == EINTR) && !timer.hasExpired(patienceMs)) {
        ::usleep(pauseUs);
        m_isHeld = ::flock(m_fd, LOCK_EX | LOCK_NB) == 0;
    }
}

FolderLock::~FolderLock()
{
    if (m_fd >= 0)
        ::close(m_fd); // and with it the lock
}
