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
    // A terminal that goes away may say so twice; only a second one of these is impatience.
    std::signal(SIGINT, SIG_DFL);
    std::signal(SIGTERM, SIG_DFL);
}

} // namespace

void StopSignals::install()
{
    std::signal(SIGINT, noteSignal);
    std::signal(SIGTERM, noteSignal);
    // Whoever starts a run that is to outlive the terminal has this one ignored.
    if (std::signal(SIGHUP, noteSignal) == SIG_IGN)
        std::signal(SIGHUP, SIG_IGN);
}

void StopSignals::uninstall()
{
    std::signal(SIGINT, SIG_DFL);
    std::signal(SIGTERM, SIG_DFL);
    if (std::signal(SIGHUP, SIG_DFL) == SIG_IGN)
        std::signal(SIGHUP, SIG_IGN);
}

bool StopSignals::areReceived()
{
    return received;
}
