#include "StopBlock.h"

#include "FolderLock.h"

#include <cstring>

#include <sys/shm.h>

namespace {

constexpr int maxAttempts = 5; // to make the block, where others make some elsewhere

} // namespace

StopBlock::StopBlock(const QString &key)
    : m_key(key)
    , m_blockFile(key, KeyFile::Kind::Block)
    , m_lockFile(key, KeyFile::Kind::Lock)
    , m_memory(std::make_unique<QSharedMemory>(key))
{
}

bool StopBlock::attach()
{
    if (isAttached())
        return true;
    // Without this the toolkit would make a lock for a block that is not there.
    if (!m_blockFile.exists())
        return false;
    return settleLock() && m_memory->attach(QSharedMemory::ReadWrite);
}

/// Sees to a lock for a block that is this one's. In the sandbox of a run there is nothing to be
/// done for it. Returns false when the block is somebody else's.
bool StopBlock::settleLock() const
{
    const FolderLock folderLock(KeyFile::folder());
    return m_blockFile.isAlone() && (!folderLock.isHeld() || m_lockFile.settle());
}

bool StopBlock::create(int sizeBytes)
{
    const FolderLock folderLock(KeyFile::folder());
    const bool hadBlockFile = m_blockFile.exists();
    const bool hadLockFile = m_lockFile.exists();
    bool isTaken = true;
    for (int attempt = 0; isTaken && attempt < maxAttempts; ++attempt) {
        isTaken = false;
        if (tryCreate(sizeBytes, isTaken))
            return true;
    }
    if (!hadBlockFile)
        m_blockFile.removeIfUnused();
    if (!hadLockFile)
        m_lockFile.removeIfUnused();
    return false;
}

/// @param isTaken set when another program was faster to use the number
bool StopBlock::tryCreate(int sizeBytes, bool &isTaken)
{
    if (!m_blockFile.settle() || !m_lockFile.settle())
        return false;
    if (m_memory->create(sizeBytes, QSharedMemory::ReadWrite)) {
        m_blockFile.claim();
        m_lockFile.claim();
        return true;
    }
    isTaken = m_memory->error() == QSharedMemory::AlreadyExists && !m_blockFile.isAlone()
        && m_blockFile.replace();
    return false;
}

bool StopBlock::detach()
{
    return isAttached() && m_memory->detach();
}

bool StopBlock::remove()
{
    if (!attach())
        return false;
    if (m_memory->lock()) {
        std::memset(m_memory->data(), 0, static_cast<size_t>(m_memory->size()));
        m_memory->unlock();
    }
    if (!detach())
        leaveWithoutLock();
    // The toolkit leaves the lock to whoever made it, and that may be a process that was killed,
    // or this one on its way out without destructors. Somebody who still uses it makes a new one.
    m_lockFile.removeLock();
    m_memory = std::make_unique<QSharedMemory>(m_key);
    return true;
}

/// A lock that somebody has taken out of the system cannot be made anew in the sandbox of a run,
/// and the toolkit leaves no block without its lock. A host that made the lock takes it along.
void StopBlock::leaveWithoutLock()
{
    QSharedMemory withoutLock;
    withoutLock.setNativeKey(m_memory->nativeKey());
    ::shmdt(m_memory->data());
    if (withoutLock.attach())
        withoutLock.detach();
}
