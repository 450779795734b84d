#ifndef PROCESSTREE_H
#define PROCESSTREE_H

#include <QtGlobal>

#include <vector>

#include <sys/types.h>

/// The processes below a process, at one moment, as /proc has them.
class ProcessTree final
{
public:
    /// Those below the calling one, without itself.
    [[nodiscard]] static ProcessTree ofThis();

    /// The memory that belongs to no other process either, of all together.
    [[nodiscard]] qint64 privateBytes() const;

    [[nodiscard]] const std::vector<pid_t> &processes() const { return m_processes; }

    /// Kills everything below the calling process and waits until it is gone. The calling one must
    /// be the reaper of what is below it.
    static void killBelowThis();

private:
    std::vector<pid_t> m_processes;
};

#endif
