#ifndef HOSTPIPE_H
#define HOSTPIPE_H

#include <QByteArray>

/// The way of bytes to the host, whichever of its pipes they go through. Safe on any thread.
class HostPipe final
{
public:
    HostPipe() = delete;

    /// Writes all of the bytes, in one call unless the system splits it, and waits for a host that
    /// does not read. One that reads no more gets nothing, which is no error.
    static void write(int fd, const QByteArray &bytes);

    /// Whether some thread is writing, which the host may let wait.
    [[nodiscard]] static bool isWaitedFor();

    /// Whether some thread is writing to a pipe that has no room. Safe in a signal handler.
    [[nodiscard]] static bool isHeldUp();
};

#endif
