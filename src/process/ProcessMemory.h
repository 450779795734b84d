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

    /// Has the system refuse the process more than so many bytes besides those that it has. Code
    /// that does not look for a refusal crashes then. The sanitizers, which reserve more than any
    /// machine has, are left without a limit.
    static void limitGrowth(qint64 bytes);
};

#endif
