#include "ProcessMemory.h"

#include <array>
#include <cstdio>
#include <cstdlib>

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

namespace {

/// The n-th number in the process's page counts (proc(5), "statm"), in bytes; 0 when unknown.
qint64 statmBytes(int n)
{
    const int fd = ::open("/proc/self/statm", O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return 0;
    std::array<char, 128> text{};
    const ssize_t size = ::read(fd, text.data(), text.size() - 1);
    ::close(fd);
    if (size <= 0)
        return 0;
    char *next = text.data();
    long long pages = 0;
    for (int i = 0; i <= n; ++i)
        pages = std::strtoll(next, &next, 10);
    return pages * ::sysconf(_SC_PAGESIZE);
}

constexpr int residentField = 1;
constexpr int dataField = 5;

} // namespace

qint64 ProcessMemory::residentBytes()
{
    return statmBytes(residentField);
}

void ProcessMemory::limitGrowth(qint64 bytes)
{
#ifdef CLIPWEIR_SANITIZED
    Q_UNUSED(bytes)
    Q_UNUSED(dataField)
#else
    rlimit limit{};
    if (::getrlimit(RLIMIT_DATA, &limit) != 0)
        return;
    static rlim_t own = RLIM_INFINITY;
    const auto wanted = static_cast<rlim_t>(statmBytes(dataField) + bytes);
    if (limit.rlim_cur == RLIM_INFINITY || limit.rlim_cur == own || limit.rlim_cur > wanted) {
        limit.rlim_cur = qMin(wanted, limit.rlim_max);
        if (::setrlimit(RLIMIT_DATA, &limit) == 0)
            own = limit.rlim_cur;
    }
#endif
}
