#include "OutputPipe.h"

#include <cerrno>

#include <poll.h>
#include <unistd.h>

bool OutputPipe::write(int fd, const QByteArray &bytes)
{
    qint64 done = 0;
    while (done < bytes.size()) {
        const ssize_t count =
            ::write(fd, bytes.constData() + done, static_cast<size_t>(bytes.size() - done));
        if (count >= 0) {
            done += count;
        } else if (errno == EAGAIN) { // somebody else has made it so
            struct pollfd waiting = {fd, POLLOUT, 0};
            ::poll(&waiting, 1, -1);
        } else if (errno != EINTR) {
            return false;
        }
    }
    return true;
}
