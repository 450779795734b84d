#include "EndTimer.h"

#include "HostPipe.h"

#include <algorithm>
#include <atomic>
#include <csignal>
#include <mutex>

#include <sys/time.h>
#include <unistd.h>

using std::chrono::microseconds;

namespace {

#ifdef CLIPWEIR_SANITIZED
constexpr auto cleanUpTime = std::chrono::seconds(6); // the sanitizer takes a last look
#else
constexpr auto cleanUpTime = std::chrono::milliseconds(300);
#endif
constexpr microseconds shortest{1}; // none at all would stop the timer
constexpr std::chrono::milliseconds longest = std::chrono::hours(24 * 365);

constexpr int lastWordsS = 2; // for a process that was stopped when its time was over
constexpr int mostWaits = 10; // of a busy machine for its host's lines

std::atomic_int code{0};
std::atomic_int sparesLeft{0};
std::atomic_bool isForHost{false};
static_assert(std::atomic_int::is_always_lock_free,
              "only lock-free atomics may be used in a signal handler");

void endProcess(int)
{
    if (sparesLeft-- <= 0 || (isForHost && HostPipe::isHeldUp()))
        ::_exit(code);
}

microseconds timeOf(const timeval &value)
{
    return std::chrono::seconds(value.tv_sec) + microseconds(value.tv_usec);
}

timeval valueOf(microseconds time)
{
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(time);
    timeval value{};
    value.tv_sec = static_cast<decltype(value.tv_sec)>(seconds.count());
    value.tv_usec = static_cast<decltype(value.tv_usec)>((time - seconds).count());
    return value;
}

} // namespace

void EndTimer::endWithin(std::chrono::milliseconds time, int exitCode, AtTheEnd atTheEnd)
{
    static std::mutex mutex;
    const std::lock_guard locker(mutex);
    itimerval timer{};
    ::getitimer(ITIMER_REAL, &timer);
    const microseconds left = timeOf(timer.it_value);
    const microseconds wanted = std::max<microseconds>(std::min(time, longest), shortest);
    if (left > microseconds::zero() && left <= wanted)
        return;
    code = exitCode;
    isForHost = atTheEnd == AtTheEnd::WaitUnlessHeldUp;
    sparesLeft = isForHost ? mostWaits : atTheEnd == AtTheEnd::WaitOnce ? 1 : 0;
    std::signal(SIGALRM, endProcess);
    timer.it_value = valueOf(wanted);
    timer.it_interval = isForHost ? timer.it_value : timeval{lastWordsS, 0};
    ::setitimer(ITIMER_REAL, &timer, nullptr);
}

void EndTimer::endSoon(int exitCode)
{
    endWithin(cleanUpTime, exitCode);
}
