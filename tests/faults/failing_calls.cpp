// Preloaded into runs of the program: makes one of its system calls fail, or that one and all that
// follow. The environment says which:
//   CLIPWEIR_FAIL        "<call>:<n>:<errno>", and "+" at the end for all from the n-th on
//   CLIPWEIR_FAIL_UNDER  the folder whose files count; others are the engine's own business
//   CLIPWEIR_FAIL_COUNT  a file that gets a line "<call> <count>" for each call when the program
//   ends
//
// The calls go to the system directly, so that it does not matter what else stands between the
// program and its C library, a sanitizer for one.

#include <array>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <dlfcn.h>
#include <execinfo.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

enum Call {
    Write,
    Read,
    Open,
    Rename,
    Mkdir,
    Fsync,
    Ftruncate,
    Socket,
    Connect,
    Send,
    Receive,
    Thread,
    Shmget,
    Shmat,
    Semget,
    Semop,
    CallCount
};

constexpr std::array<const char *, CallCount> names{
    "write",   "read", "open", "rename", "mkdir",  "fsync", "ftruncate", "socket",
    "connect", "send", "recv", "thread", "shmget", "shmat", "semget",    "semop"};

/// What the environment says; read once, before the program's own code runs.
struct Plan
{
    int call = -1;
    long number = 0;
    int error = 0;
    bool isLasting = false;
    const char *folder = nullptr;
    const char *countFile = nullptr;

    Plan()
        : folder(std::getenv("CLIPWEIR_FAIL_UNDER"))
        , countFile(std::getenv("CLIPWEIR_FAIL_COUNT"))
    {
        const char *text = std::getenv("CLIPWEIR_FAIL");
        const char *colon = text ? std::strchr(text, ':') : nullptr;
        if (!colon)
            return;
        const auto length = static_cast<size_t>(colon - text);
        for (int i = 0; i < CallCount; ++i) {
            const char *name = names.at(static_cast<size_t>(i));
            if (std::strlen(name) == length && std::strncmp(name, text, length) == 0)
                call = i;
        }
        char *end = nullptr;
        number = std::strtol(colon + 1, &end, 10);
        error = *end == ':' ? static_cast<int>(std::strtol(end + 1, &end, 10)) : EIO;
        isLasting = *end == '+';
    }
};

std::array<std::atomic_long, CallCount> counts;

const Plan &plan()
{
    static const Plan thePlan;
    return thePlan;
}

/// Counts a call and says whether it is to fail; errno is set then.
bool fails(Call call)
{
    const long number = ++counts.at(call);
    const Plan &wanted = plan();
    if (call != wanted.call || number < wanted.number
        || (number > wanted.number && !wanted.isLasting))
        return false;
    errno = wanted.error;
    return true;
}

bool isUnder(const char *path)
{
    const char *folder = plan().folder;
    return folder && path && std::strncmp(path, folder, std::strlen(folder)) == 0;
}

bool isFileUnder(int fd)
{
    std::array<char, 64> link{};
    std::snprintf(link.data(), link.size(), "/proc/self/fd/%d", fd);
    std::array<char, PATH_MAX> path{};
    const int before = errno;
    const bool isRead = ::readlink(link.data(), path.data(), path.size() - 1) > 0;
    errno = before;
    return isRead && isUnder(path.data());
}

bool isInternet(const sockaddr *address)
{
    return address && (address->sa_family == AF_INET || address->sa_family == AF_INET6);
}

bool isInternetSocket(int fd)
{
    int domain = 0;
    socklen_t size = sizeof domain;
    const int before = errno;
    const bool isSocket = ::getsockopt(fd, SOL_SOCKET, SO_DOMAIN, &domain, &size) == 0;
    errno = before;
    return isSocket && (domain == AF_INET || domain == AF_INET6);
}

/// Whether a thread is started by the program's own code. The engine ends the process when it gets
/// no thread, and the toolkit waits for ever for what the thread was to do.
__attribute__((noinline)) bool isProgramsThread()
{
    constexpr size_t callerFrame = 3; // this, pthread_create(), the C++ library, its caller
    std::array<void *, callerFrame + 1> frames{};
    Dl_info info{};
    return ::backtrace(frames.data(), static_cast<int>(frames.size())) > int(callerFrame)
        && ::dladdr(frames.at(callerFrame), &info) && info.dli_fname
        && std::strstr(info.dli_fname, "/clipweir");
}

long openFile(int folder, const char *path, int flags, mode_t mode)
{
    if (isUnder(path) && fails(Open))
        return -1;
    return ::syscall(SYS_openat, folder, path, flags, mode);
}

mode_t modeOf(int flags, va_list list)
{
    const bool hasMode = (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE;
    return hasMode ? static_cast<mode_t>(va_arg(list, unsigned)) : 0;
}

__attribute__((destructor)) void writeCounts()
{
    if (!plan().countFile)
        return;
    FILE *file = std::fopen(plan().countFile, "w");
    if (!file)
        return;
    for (size_t i = 0; i < names.size(); ++i)
        std::fprintf(file, "%s %ld\n", names.at(i), counts.at(i).load());
    std::fclose(file);
}

} // namespace

#define VISIBLE __attribute__((visibility("default")))

extern "C" {

VISIBLE ssize_t write(int fd, const void *data, size_t size)
{
    if (isFileUnder(fd) && fails(Write))
        return -1;
    return ::syscall(SYS_write, fd, data, size);
}

VISIBLE ssize_t pwrite64(int fd, const void *data, size_t size, off64_t offset)
{
    if (isFileUnder(fd) && fails(Write))
        return -1;
    return ::syscall(SYS_pwrite64, fd, data, size, offset);
}

VISIBLE ssize_t pwrite(int fd, const void *data, size_t size, off_t offset)
{
    return pwrite64(fd, data, size, offset);
}

VISIBLE int open(const char *path, int flags, ...)
{
    va_list list;
    va_start(list, flags);
    const mode_t mode = modeOf(flags, list);
    va_end(list);
    return static_cast<int>(openFile(AT_FDCWD, path, flags, mode));
}

VISIBLE int open64(const char *path, int flags, ...)
{
    va_list list;
    va_start(list, flags);
    const mode_t mode = modeOf(flags, list);
    va_end(list);
    return static_cast<int>(openFile(AT_FDCWD, path, flags | O_LARGEFILE, mode));
}

VISIBLE int openat(int folder, const char *path, int flags, ...)
{
    va_list list;
    va_start(list, flags);
    const mode_t mode = modeOf(flags, list);
    va_end(list);
    return static_cast<int>(openFile(folder, path, flags, mode));
}

VISIBLE int openat64(int folder, const char *path, int flags, ...)
{
    va_list list;
    va_start(list, flags);
    const mode_t mode = modeOf(flags, list);
    va_end(list);
    return static_cast<int>(openFile(folder, path, flags | O_LARGEFILE, mode));
}

VISIBLE int rename(const char *from, const char *to) noexcept
{
    if (isUnder(to) && fails(Rename))
        return -1;
    return static_cast<int>(::syscall(SYS_renameat2, AT_FDCWD, from, AT_FDCWD, to, 0));
}

VISIBLE int renameat2(int fromFolder, const char *from, int toFolder, const char *to,
                      unsigned flags) noexcept
{
    if (isUnder(to) && fails(Rename))
        return -1;
    return static_cast<int>(::syscall(SYS_renameat2, fromFolder, from, toFolder, to, flags));
}

VISIBLE int link(const char *from, const char *to) noexcept
{
    if (isUnder(to) && fails(Rename))
        return -1;
    return static_cast<int>(::syscall(SYS_linkat, AT_FDCWD, from, AT_FDCWD, to, 0));
}

VISIBLE int linkat(int fromFolder, const char *from, int toFolder, const char *to,
                   int flags) noexcept
{
    if (isUnder(to) && fails(Rename))
        return -1;
    return static_cast<int>(::syscall(SYS_linkat, fromFolder, from, toFolder, to, flags));
}

VISIBLE int mkdir(const char *path, mode_t mode) noexcept
{
    if (isUnder(path) && fails(Mkdir))
        return -1;
    return static_cast<int>(::syscall(SYS_mkdirat, AT_FDCWD, path, mode));
}

VISIBLE int fsync(int fd)
{
    if (isFileUnder(fd) && fails(Fsync))
        return -1;
    return static_cast<int>(::syscall(SYS_fsync, fd));
}

VISIBLE int fdatasync(int fd)
{
    if (isFileUnder(fd) && fails(Fsync))
        return -1;
    return static_cast<int>(::syscall(SYS_fdatasync, fd));
}

VISIBLE int ftruncate64(int fd, off64_t size) noexcept
{
    if (isFileUnder(fd) && fails(Ftruncate))
        return -1;
    return static_cast<int>(::syscall(SYS_ftruncate, fd, size));
}

VISIBLE int ftruncate(int fd, off_t size) noexcept
{
    return ftruncate64(fd, size);
}

VISIBLE int socket(int domain, int type, int protocol) noexcept
{
    if ((domain == AF_INET || domain == AF_INET6) && fails(Socket))
        return -1;
    return static_cast<int>(::syscall(SYS_socket, domain, type, protocol));
}

VISIBLE int connect(int fd, const sockaddr *address, socklen_t size)
{
    if (isInternet(address) && fails(Connect))
        return -1;
    return static_cast<int>(::syscall(SYS_connect, fd, address, size));
}

VISIBLE ssize_t send(int fd, const void *data, size_t size, int flags)
{
    if (isInternetSocket(fd) && fails(Send))
        return -1;
    return ::syscall(SYS_sendto, fd, data, size, flags, nullptr, 0);
}

VISIBLE ssize_t sendmsg(int fd, const msghdr *message, int flags)
{
    if (isInternetSocket(fd) && fails(Send))
        return -1;
    return ::syscall(SYS_sendmsg, fd, message, flags);
}

VISIBLE ssize_t read(int fd, void *data, size_t size)
{
    if (isInternetSocket(fd) ? fails(Receive) : isFileUnder(fd) && fails(Read))
        return -1;
    return ::syscall(SYS_read, fd, data, size);
}

VISIBLE int pthread_create(pthread_t *thread, const pthread_attr_t *attributes,
                           void *(*start)(void *), void *argument) noexcept
{
    using Create = int (*)(pthread_t *, const pthread_attr_t *, void *(*)(void *), void *);
    static const auto next = reinterpret_cast<Create>(::dlsym(RTLD_NEXT, "pthread_create"));
    if (isProgramsThread() && fails(Thread))
        return errno;
    return next(thread, attributes, start, argument);
}

VISIBLE int shmget(key_t key, size_t size, int flags) noexcept
{
    if (fails(Shmget))
        return -1;
    return static_cast<int>(::syscall(SYS_shmget, key, size, flags));
}

// NOLINTBEGIN(performance-no-int-to-ptr): addresses are what the system gives as numbers
VISIBLE void *shmat(int id, const void *address, int flags) noexcept
{
    if (fails(Shmat))
        return reinterpret_cast<void *>(-1);
    return reinterpret_cast<void *>(::syscall(SYS_shmat, id, address, flags));
}
// NOLINTEND(performance-no-int-to-ptr)

VISIBLE int semget(key_t key, int count, int flags) noexcept
{
    if (fails(Semget))
        return -1;
    return static_cast<int>(::syscall(SYS_semget, key, count, flags));
}

VISIBLE int semop(int id, sembuf *operations, size_t count) noexcept
{
    // Only what takes something can find too little of it; a release gives back.
    if (count > 0 && operations->sem_op < 0 && fails(Semop))
        return -1;
    return static_cast<int>(::syscall(SYS_semop, id, operations, count));
}

} // extern "C"
