// Preloaded into a run: the first bytes that go to a file whose name ends in ".mp4" take as many
// seconds to be written as the environment says.

#include <array>
#include <atomic>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <dlfcn.h>
#include <unistd.h>

namespace {

bool isVideo(int fd)
{
    std::array<char, 64> link{};
    std::snprintf(link.data(), link.size(), "/proc/self/fd/%d", fd);
    std::array<char, PATH_MAX> path{};
    const ssize_t length = ::readlink(link.data(), path.data(), path.size());
    static const char ending[] = ".mp4";
    const auto endingLength = static_cast<ssize_t>(sizeof ending - 1);
    return length >= endingLength
        && std::memcmp(path.data() + length - endingLength, ending, sizeof ending - 1) == 0;
}

} // namespace

extern "C" __attribute__((visibility("default"))) ssize_t write(int fd, const void *data,
                                                                size_t size)
{
    using Write = ssize_t (*)(int, const void *, size_t);
    static const auto next = reinterpret_cast<Write>(dlsym(RTLD_NEXT, "write"));
    static std::atomic_bool isWritten{false};
    const char *const seconds = std::getenv("SLOW_DISK_SECONDS");
    if (seconds && !isWritten && isVideo(fd) && !isWritten.exchange(true))
        ::sleep(static_cast<unsigned>(std::atoi(seconds)));
    return next(fd, data, size);
}
