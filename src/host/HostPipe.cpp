#include "HostPipe.h"

#include <atomic>
#include <cerrno>

#include <poll.h>
#include <unistd.h>

namespace {

std::atomic_int writers{0};
std::atomic_int lastFd{-1};
static_assert(std::atomic_int::is_always_lock_free,
              "only lock-free atomics may be used in a signal handler");

/// Notes, while it lives, that bytes are on their way.
class Writing final
{
public:
    Writing() { ++writers; }
    ~Writing() { --writers; }
    Q_DISABLE_COPY(Writing)
};

} // namespace

void HostPipe::write(int fd, const QByteArray &bytes)
{
    const Writing writing;
    lastFd = fd;
    const char *data = bytes.constData();
    auto left = static_cast<size_t>(bytes.size());
    while (left > 0) {
        const ssize_t written = ::write(fd, data, left);
        if (written >= 0) {
            data += written;
            left -= static_cast<size_t>(written);
        } else if (errno == EAGAIN) {
            pollfd writable{fd, POLLOUT, 0};
            ::poll(&writable, 1, -1);
        } else if (errno != EINTR) {
            return; // nobody reads any more; the run goes on
        }
    }
}

bool HostPipe::isWaitedFor()
{
    return writers > 0;
}

bool HostPipe::isHeldUp()
{
    pollfd writable{lastFd, POLLOUT, 0};
    return isWaitedFor() && ::poll(&writable, 1, 0) == 0;
}
