#include "SyscallFilter.h"

#include <cerrno>
#include <functional>
#include <memory>

#include <sched.h>
#include <seccomp.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

namespace {

const char *const refusedCalls[] = {
// other processes; a sanitizer's leak check looks at its own threads through ptrace
#ifndef CLIPWEIR_SANITIZED
    "ptrace",
#endif
    "process_vm_readv", "process_vm_writev", "pidfd_getfd", "kcmp", "process_madvise",
    // the tree of file systems, and files by other ways than their path
    "mount", "umount", "umount2", "mount_setattr", "move_mount", "open_tree", "fsopen", "fsconfig",
    "fsmount", "fspick", "pivot_root", "open_by_handle_at", "quotactl", "quotactl_fd",
    "io_uring_setup", "io_uring_enter", "io_uring_register",
    // the kernel and the machine
    "init_module", "finit_module", "delete_module", "kexec_load", "kexec_file_load", "bpf",
    "perf_event_open", "userfaultfd", "add_key", "request_key", "keyctl", "reboot", "swapon",
    "swapoff", "acct", "syslog", "iopl", "ioperm", "settimeofday", "clock_settime", "clock_adjtime",
    "adjtimex", "sethostname", "setdomainname", "vhangup",
    // servers; the file system's sandbox refuses bind only
    "listen", "accept", "accept4"};

/// What an engine with a sandbox of its own may do, but this process may not.
const char *const ownRefusedCalls[] = {
    // programs
    "execve", "execveat",
    // rights and owners of files, which the sandbox of the file system does not cover
    "chmod", "fchmodat", "fchmodat2", "chown", "lchown", "fchownat", "setxattr", "lsetxattr",
    "removexattr", "lremovexattr", "setxattrat", "removexattrat",
    // namespaces
    "chroot", "unshare", "setns"};

constexpr scmp_datum_t namespaceFlags[] = {CLONE_NEWNS,  CLONE_NEWCGROUP, CLONE_NEWUTS,
                                           CLONE_NEWIPC, CLONE_NEWUSER,   CLONE_NEWPID,
                                           CLONE_NEWNET};

/// They type into the terminal that the run was started from.
constexpr scmp_datum_t refusedTerminalRequests[] = {TIOCSTI, TIOCLINUX};

constexpr scmp_datum_t lowWord = 0xffffffff;
constexpr int lastAllowedFamily = AF_NETLINK;

/// Adds rules to a filter and remembers whether one was not taken.
class Builder final
{
public:
    explicit Builder(scmp_filter_ctx filter)
        : m_filter(filter)
    {
    }

    /// Calls that the machine or the library does not know cannot be made under that name.
    void refuse(const char *name, int error = EPERM)
    {
        const int call = seccomp_syscall_resolve_name(name);
        if (call >= 0)
            note(seccomp_rule_add(m_filter, SCMP_ACT_ERRNO(error), call, 0));
    }

    void refuseIf(int call, const scmp_arg_cmp &condition)
    {
        note(seccomp_rule_add_array(m_filter, SCMP_ACT_ERRNO(EPERM), call, 1, &condition));
    }

    [[nodiscard]] bool isComplete() const { return m_isComplete; }

private:
    void note(int result) { m_isComplete = m_isComplete && result == 0; }

    scmp_filter_ctx m_filter;
    bool m_isComplete = true;
};

scmp_arg_cmp argument(unsigned number, scmp_compare comparison, scmp_datum_t a, scmp_datum_t b = 0)
{
    return scmp_arg_cmp{number, comparison, a, b};
}

void refuseSockets(Builder &builder, bool mayUseUnixSockets)
{
    for (int family = 0; family < lastAllowedFamily; ++family) {
        const bool isNetwork = family == AF_INET || family == AF_INET6;
        if (!isNetwork && !(family == AF_UNIX && mayUseUnixSockets))
            builder.refuseIf(SCMP_SYS(socket),
                             argument(0, SCMP_CMP_EQ, static_cast<scmp_datum_t>(family)));
    }
    builder.refuseIf(SCMP_SYS(socket), argument(0, SCMP_CMP_GT, lastAllowedFamily));
}

void refuseEverywhere(Builder &builder)
{
    for (const char *const name : refusedCalls)
        builder.refuse(name);
    for (const scmp_datum_t request : refusedTerminalRequests)
        builder.refuseIf(SCMP_SYS(ioctl), argument(1, SCMP_CMP_MASKED_EQ, lowWord, request));
}

bool fillForRun(scmp_filter_ctx filter, bool mayUseUnixSockets)
{
    Builder builder(filter);
    refuseEverywhere(builder);
    for (const char *const name : ownRefusedCalls)
        builder.refuse(name);
    for (const scmp_datum_t flag : namespaceFlags)
        builder.refuseIf(SCMP_SYS(clone), argument(0, SCMP_CMP_MASKED_EQ, flag, flag));
    // Its flags lie in memory, where no filter can look. The C library then takes the older call.
    builder.refuse("clone3", ENOSYS);
    refuseSockets(builder, mayUseUnixSockets);
    return builder.isComplete();
}

bool fillForPrograms(scmp_filter_ctx filter)
{
    Builder builder(filter);
    refuseEverywhere(builder);
    refuseSockets(builder, true);
    return builder.isComplete();
}

bool installFilter(const std::function<bool(scmp_filter_ctx)> &fill)
{
    constexpr unsigned asBinaryTree = 2; // a call then costs a few steps instead of a hundred
    const std::unique_ptr<void, void (*)(scmp_filter_ctx)> filter(seccomp_init(SCMP_ACT_ALLOW),
                                                                  seccomp_release);
    return filter && seccomp_attr_set(filter.get(), SCMP_FLTATR_CTL_TSYNC, 1) == 0
        && seccomp_attr_set(filter.get(), SCMP_FLTATR_CTL_OPTIMIZE, asBinaryTree) == 0
        && fill(filter.get()) && seccomp_load(filter.get()) == 0;
}

} // namespace

bool SyscallFilter::install(bool mayUseUnixSockets)
{
    return installFilter(
        [=](scmp_filter_ctx filter) { return fillForRun(filter, mayUseUnixSockets); });
}

bool SyscallFilter::installForPrograms()
{
    return installFilter(fillForPrograms);
}
