#include "RunLimits.h"

#include "EndTimer.h"
#include "StopSignals.h"
#include "VideoPreference.h"

#include <atomic>
#include <chrono>
#include <cstdlib>

#include <unistd.h>

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

namespace {

constexpr auto lastGrace = 3s; // the main thread or the guard has tidied up long before

Clock::time_point start = Clock::now();
pid_t host = 0;
std::atomic<std::chrono::seconds> deadline{0s}; // from the start; 0 for none
std::atomic_bool endsWithHost{false};

bool isDeadlineOver()
{
    const std::chrono::seconds limit = deadline;
    return limit > 0s && Clock::now() - start >= limit;
}

} // namespace

void RunLimits::noteStart()
{
    start = Clock::now();
    host = ::getppid();
}

void RunLimits::install()
{
    const auto *const preference = CVideoPreference::instance();
    endsWithHost = preference->GetParent();
    deadline = std::chrono::seconds(preference->GetDeadline());
    if (deadline.load() > 0s) {
        const auto left = start + deadline.load() + lastGrace - Clock::now();
        EndTimer::endWithin(std::chrono::duration_cast<std::chrono::milliseconds>(left),
                            preference->GetStrict() ? RunClasses::exitCodeOf(RunClass::Deadline)
                                                    : EXIT_SUCCESS,
                            EndTimer::AtTheEnd::WaitOnce);
    }
}

RunClass RunLimits::stopClass()
{
    return isDeadlineOver() && !StopSignals::areReceived() ? RunClass::Deadline : RunClass::Stopped;
}

bool RunLimits::areReached()
{
    if (isDeadlineOver())
        return true;
    // A process whose parent dies gets another one at once, whichever the system chooses. That
    // also holds for a parent with threads, of which the one that started this may end.
    return endsWithHost && ::getppid() != host;
}
