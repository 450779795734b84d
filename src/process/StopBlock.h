#ifndef STOPBLOCK_H
#define STOPBLOCK_H

#include "KeyFile.h"

#include <QSharedMemory>

#include <memory>

/// A block of shared memory that any program made with the toolkit reaches by its key, and that no
/// other key leads to. Not for several threads at once.
class StopBlock final
{
public:
    /// Neither makes nor attaches anything.
    explicit StopBlock(const QString &key);
    ~StopBlock() = default;
    Q_DISABLE_COPY(StopBlock)

    [[nodiscard]] bool isAttached() const { return m_memory->isAttached(); }

    /// Returns whether the block is attached, now or already. One that turns out to be somebody
    /// else's is left alone.
    bool attach();

    /// Makes and attaches the block. Returns false when that fails or when there is one already.
    bool create(int sizeBytes);

    /// Leaves the block, which goes with the last to leave. Returns false when it is not attached.
    bool detach();

    /// Clears the block, leaves it and takes its lock out of the system. What a killed process
    /// left behind is taken away with it. Returns whether there was a block.
    bool remove();

    /// The toolkit's access to the block; valid until the next remove().
    [[nodiscard]] QSharedMemory &memory() { return *m_memory; }

private:
    [[nodiscard]] bool settleLock() const;
    bool tryCreate(int sizeBytes, bool &isTaken);
    void leaveWithoutLock();

    const QString m_key;
    const KeyFile m_blockFile;
    const KeyFile m_lockFile;
    std::unique_ptr<QSharedMemory> m_memory; // never null
};

#endif
