#include "StopSignals.h"

#include <atomic>
#include <csignal>

namespace {

std::atomic_bool received{false};
static_assert(std::atomic_bool::is_always_lock_free,
              "only lock-free atomics may be used in a signal handler");

void noteSignal(int)
{
    received = true;
    StopSignals::uninstall();
}

} // namespace

void StopSignals::install()
{
    std::signal(SIGINT, noteSignal);
    std::signal(SIGTERM, noteSignal);
}

void StopSignals::uninstall()
{
    std::signal(SIGINT, SIG_DFL);
    std::signal(SIGTERM, SIG_DFL);
}

bool StopSignals::areReceived()
{
    return received;
}
