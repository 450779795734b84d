#ifndef SYSCALLFILTER_H
#define SYSCALLFILTER_H

/// Refuses what a page run never asks of the kernel: starting programs, looking into other
/// processes, mounting, namespaces, kernel modules and the like, changing the rights of files, and
/// sockets that are not the network's. Everything else stays allowed.
class SyscallFilter final
{
public:
    SyscallFilter() = delete;

    /// Installs the filter for all threads of the process, for good. The process gives up new
    /// privileges by it. Returns false, and changes nothing, when the kernel does not offer it.
    /// @param mayUseUnixSockets whether the toolkit needs local sockets, to reach a display
    [[nodiscard]] static bool install(bool mayUseUnixSockets);

    /// As install(), for a process that becomes an engine with a sandbox of its own: it may start
    /// programs, make namespaces, local sockets and the rights of its own files.
    [[nodiscard]] static bool installForPrograms();
};

#endif
