#include "ShareMemoryManager.h"

#include "HostEvents.h"
#include "RunLimits.h"
#include "StopSignals.h"
#include "VideoPreference.h"

#include <QBuffer>
#include <QDataStream>
#include <QMutexLocker>

#include <cstring>

namespace {

constexpr int maxAttempts = 5; // to set the flag

} // namespace

ShareMemoryManager *ShareMemoryManager::GetInstance()
{
    static ShareMemoryManager manager;
    return &manager;
}

ShareMemoryManager::ShareMemoryManager()
    : m_block(QStringLiteral("SM_%1").arg(CVideoPreference::instance()->GetPageUrlMD5()))
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
        HostEvents::send(event::MemoryDetached{});
}

bool ShareMemoryManager::RemoveShareMemData()
{
    const QMutexLocker locker(&m_mutex);
    return m_block.remove();
}

bool ShareMemoryManager::attach()
{
    const QMutexLocker locker(&m_mutex);
    return m_block.attach();
}

bool ShareMemoryManager::detach()
{
    const QMutexLocker locker(&m_mutex);
    return m_block.detach();
}

bool ShareMemoryManager::writeShareMemData()
{
    const QMutexLocker locker(&m_mutex);
    QBuffer buffer;
    buffer.open(QIODevice::ReadWrite);
    QDataStream stream(&buffer);
    stream << m_exitFlag;

    if (!m_block.attach() && !m_block.create(static_cast<int>(buffer.size())))
        return false;
    QSharedMemory &memory = m_block.memory();
    if (!memory.lock())
        return false;
    std::memcpy(memory.data(), buffer.data().constData(),
                static_cast<size_t>(qMin<qint64>(buffer.size(), memory.size())));
    return memory.unlock();
}

bool ShareMemoryManager::readShareMemData()
{
    const QMutexLocker locker(&m_mutex);
    if (!m_block.attach())
        return false;
    QSharedMemory &memory = m_block.memory();
    // The lock goes with the process that made it. The byte can be read without it all the same, so
    // that a run stays within reach.
    const bool isLocked = memory.lock();
    QByteArray content(static_cast<const char *>(memory.constData()), memory.size());
    if (isLocked)
        memory.unlock();

    QBuffer buffer(&content);
    buffer.open(QIODevice::ReadOnly);
    QDataStream stream(&buffer);
    stream >> m_exitFlag;
    return true;
}
