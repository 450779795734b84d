#ifndef HTTPDATE_H
#define HTTPDATE_H

#include <QByteArray>
#include <QDateTime>

#include <chrono>
#include <optional>

/// Times as HTTP headers have them (RFC 9110, 5.6.7), in the one form that is still made.
namespace HttpDate {

/// The time; invalid when the text is none.
[[nodiscard]] QDateTime parse(const QByteArray &text);

/// How long, but for a day at the most, a "Retry-After" header has its client wait, from the given
/// moment on; none when it says nothing of use.
[[nodiscard]] std::optional<std::chrono::seconds> pauseOf(const QByteArray &retryAfter,
                                                          const QDateTime &now);

} // namespace HttpDate

#endif
