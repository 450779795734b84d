#include "ShareMemoryManager.h"

#include "HostLine.h"
#include "RunLimits.h"
#include "StopSignals.h"
#include "VideoPreference.h"

#include <QBuffer>
#include <QDataStream>
#include <QMutexLocker>
#include <QSystemSemaphore>

#include <cstring>

#include <sys/shm.h>

namespace {

constexpr int maxAttempts = 5; // to set the flag

} // namespace

ShareMemoryManager *ShareMemoryManager::GetInstance()
{
    static ShareMemoryManager manager;
    return &manager;
}

ShareMemoryManager::ShareMemoryManager()
    : m_key(QStringLiteral("SM_%1").arg(CVideoPreference::instance()->GetPageUrlMD5()))
    , m_memory(std::make_unique<QSharedMemory>(m_key))
{
    m_exitFlag = CVideoPreference::instance()->GetExitFlag();
}

bool ShareMemoryManager::GetExitFlag()
{
    if (StopSignals::areReceived() || RunLimits::areReached())
        return true;
    const QMutexLocker locker(&m_mutex);
    return readShareMemData() && m_exitFlag;
}

bool ShareMemoryManager::SetExitFlag(bool exitFlag)
{
    const QMutexLocker locker(&m_mutex);
    m_exitFlag = exitFlag;
    // A run whose lock has vanished cleans up behind it, and may take along the one that is being
    // made here. It does so once; a new attempt makes another.
    for (int attempt = 0; attempt < maxAttempts; ++attempt) {
        if (writeShareMemData())
            return true;
    }
    return false;
}

bool ShareMemoryManager::CreateShareMemData()
{
    DeleteShareMemData();
    return writeShareMemData();
}

void ShareMemoryManager::DeleteShareMemData()
{
    // The line comes outside of the lock: its reader may let it wait.
    if (RemoveShareMemData())
        HostLine::sendText(QStringLiteral("detach sharememory"));
}

bool ShareMemoryManager::RemoveShareMemData()
{
    const QMutexLocker locker(&m_mutex);
    if (!attach())
        return false;
    if (m_memory->lock()) {
        std::memset(m_memory->data(), 0, static_cast<size_t>(m_memory->size()));
        m_memory->unlock();
    }
    if (!detach())
        leaveWithoutLock();
    removeLock();
    return true;
}

/// A lock that somebody has taken out of the system cannot be made anew by a confined run, and the
/// toolkit leaves no block without its lock. This happens: the system's number of a lock comes from
/// that of its key file, which the file system hands on as soon as another run has ended.
void ShareMemoryManager::leaveWithoutLock()
{
    QSharedMemory withoutLock;
    withoutLock.setNativeKey(m_memory->nativeKey());
    ::shmdt(m_memory->data());
    if (withoutLock.attach())
        withoutLock.detach();
}

/// The toolkit leaves the lock to whoever made it, and that may be a run that was killed, or this
/// one on its way out without destructors. Somebody who still uses it makes a new one.
void ShareMemoryManager::removeLock()
{
    m_memory = std::make_unique<QSharedMemory>(m_key);
    const QSystemSemaphore taken(m_key, 1, QSystemSemaphore::Create); // its owner now: gone with it
}

bool ShareMemoryManager::attach()
{
    const QMutexLocker locker(&m_mutex);
    return m_memory->isAttached() || m_memory->attach(QSharedMemory::ReadWrite);
}

bool ShareMemoryManager::detach()
{
    const QMutexLocker locker(&m_mutex);
    return m_memory->isAttached() && m_memory->detach();
}

bool ShareMemoryManager::writeShareMemData()
{
    const QMutexLocker locker(&m_mutex);
    QBuffer buffer;
    buffer.open(QIODevice::ReadWrite);
    QDataStream stream(&buffer);
    stream << m_exitFlag;

    if (!attach() && !m_memory->create(static_cast<int>(buffer.size()), QSharedMemory::ReadWrite))
        return false;
    if (!m_memory->lock())
        return false;
    std::memcpy(m_memory->data(), buffer.data().constData(),
                static_cast<size_t>(qMin<qint64>(buffer.size(), m_memory->size())));
    return m_memory->unlock();
}

bool ShareMemoryManager::readShareMemData()
{
    const QMutexLocker locker(&m_mutex);
    if (!attach())
        return false;
    // The lock goes with the process that made it. The byte can be read without it all the same, so
    // that a run stays within reach.
    const bool isLocked = m_memory->lock();
    QByteArray content(static_cast<const char *>(m_memory->constData()), m_memory->size());
    if (isLocked)
        m_memory->unlock();

    QBuffer buffer(&content);
    buffer.open(QIODevice::ReadOnly);
    QDataStream stream(&buffer);
    stream >> m_exitFlag;
    return true;
}
