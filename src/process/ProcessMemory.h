#ifndef PROCESSMEMORY_H
#define PROCESSMEMORY_H

#include <QtGlobal>

/// The memory of this process. Stateless; any thread.
class ProcessMemory final
{
public:
    static constexpr qint64 bytesPerMiB = 1 << 20;

    ProcessMemory() = delete;

    /// What the process has in the machine's memory; 0 where the system does not tell.
    [[nodiscard]] static qint64 residentBytes();

    /// What is left to a process that has used up what its page may take.
    static constexpr qint64 spareBytes = qint64(1) << 30;

    /// Has the system refuse the process more than so many bytes besides those that it has. Code
    /// that does not look for a refusal crashes then. Replaces a limit that this has set before,
    /// but no tighter one of somebody else's. The sanitizers, which reserve more than any
    /// machine has, are left without a limit.
    static void limitGrowth(qint64 bytes);
};

#endif
