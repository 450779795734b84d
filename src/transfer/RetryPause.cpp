#include "RetryPause.h"

#include "HttpDate.h"
#include "RunTimes.h"

#include <algorithm>

using std::chrono::milliseconds;

namespace {

constexpr int maxDoublings = 6;
constexpr milliseconds longestPause = std::chrono::minutes(1);
constexpr milliseconds longestAskedPause = std::chrono::minutes(2); // whatever a server asks for

} // namespace

bool RetryPause::isPassing(int status)
{
    constexpr int passing[] = {408, 425, 429, 500, 502, 503, 504};
    return std::find(std::begin(passing), std::end(passing), status) != std::end(passing);
}

milliseconds RetryPause::of(int attempts, const QByteArray &retryAfter)
{
    const milliseconds usual = runTimes().retryPause * (1 << std::min(attempts, maxDoublings));
    const milliseconds pause = std::min(usual, longestPause);
    const auto asked = HttpDate::pauseOf(retryAfter, QDateTime::currentDateTimeUtc());
    return asked ? std::max(pause, std::min<milliseconds>(*asked, longestAskedPause)) : pause;
}
