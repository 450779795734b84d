#ifndef SHAREMEMORYMANAGER_H
#define SHAREMEMORYMANAGER_H

#include "StopBlock.h"

#include <QMutex>

/// The stop flag of a page's run: one byte of shared memory that the host, or a second run of the
/// program, sets to 1. Its key is made from the page address, so every process that was started
/// with the same address reaches the same block. Safe on any thread; every access to the byte
/// happens under the block's lock. Failures are not reported: a run whose block cannot be reached
/// just runs on.
class ShareMemoryManager final
{
public:
    /// The one instance, made for the page address of the command line at the first call.
    static ShareMemoryManager *GetInstance();

    /// Whether the run shall end: the block's byte, read afresh, a stop signal from the system, or
    /// a limit of the run that is reached. Only the first of these may have to wait.
    [[nodiscard]] bool GetExitFlag();

    /// Writes the flag into the block, which is created when missing. Returns false when that
    /// fails.
    bool SetExitFlag(bool exitFlag);

    /// Clears and leaves a block that an earlier run left behind, then writes a fresh one.
    bool CreateShareMemData();

    /// Clears and leaves the block, if there is one, and takes its lock out of the system. What a
    /// run that was killed left behind is taken away with it. Returns whether there was a block.
    bool RemoveShareMemData();

    /// RemoveShareMemData(), of which the host is told.
    void DeleteShareMemData();

    bool attach();
    bool detach();
    bool writeShareMemData();
    bool readShareMemData();

private:
    ShareMemoryManager();
    ~ShareMemoryManager() = default;
    Q_DISABLE_COPY(ShareMemoryManager)

    QMutex m_mutex{QMutex::Recursive}; // guards the members below
    bool m_exitFlag = false;
    StopBlock m_block;
};

#endif
