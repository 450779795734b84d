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
    std::signal(SIGINT, SIG_DFL);
    std::signal(SIGTERM, SIG_DFL);
}

} // namespace

void StopSignals::install()
{
    std::signal(SIGINT, noteSignal);
    std::signal(SIGTERM, noteSignal);
}

bool StopSignals::areReceived()
{
    return received;
}
