#ifndef RETRYPAUSE_H
#define RETRYPAUSE_H

#include <QByteArray>

#include <chrono>

/// How a transfer that was broken off is tried again.
namespace RetryPause {

/// Whether a server that answers with that status may give later what it does not give now.
[[nodiscard]] bool isPassing(int status);

/// How long to wait before the next attempt: longer each time, and as long as the server asks for,
/// but for two minutes at the most.
/// @param attempts made after the first one    @param retryAfter a header; empty for none
[[nodiscard]] std::chrono::milliseconds of(int attempts, const QByteArray &retryAfter);

} // namespace RetryPause

#endif
