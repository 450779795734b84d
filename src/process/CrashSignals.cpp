#include "CrashSignals.h"

#include <array>
#include <atomic>
#include <csignal>
#include <ctime>

#include <unistd.h>

namespace {

constexpr int crashes[] = {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGABRT, SIGTRAP, SIGSYS};

// For the tidying, which may wait for a lock that the crashed thread holds.
constexpr int patienceMs = 3000;
constexpr int lookIntervalMs = 50;
constexpr long nsPerMs = 1000000;

constexpr std::size_t stackBytes = 64 * 1024;

std::atomic_int crash{0};
static_assert(std::atomic_int::is_always_lock_free,
              "only lock-free atomics may be used in a signal handler");

void holdThread(int signalNumber)
{
    int none = 0;
    crash.compare_exchange_strong(none, signalNumber);
    const timespec interval{0, lookIntervalMs * nsPerMs};
    for (int waited = 0; waited < patienceMs; waited += lookIntervalMs)
        ::nanosleep(&interval, nullptr);
    std::signal(signalNumber, SIG_DFL);
    std::raise(signalNumber); // takes effect when this returns
}

} // namespace

void CrashSignals::install()
{
#ifndef CLIPWEIR_SANITIZED
    alignas(16) static std::array<char, stackBytes> stack;
    stack_t alternate{};
    alternate.ss_sp = stack.data();
    alternate.ss_size = stack.size();
    ::sigaltstack(&alternate, nullptr);

    struct sigaction action = {};
    action.sa_handler = holdThread;
    action.sa_flags = SA_ONSTACK;
    for (const int number : crashes)
        ::sigaction(number, &action, nullptr);
#endif
}

void CrashSignals::uninstall()
{
#ifndef CLIPWEIR_SANITIZED
    for (const int number : crashes)
        std::signal(number, SIG_DFL);
#endif
}

int CrashSignals::received()
{
    return crash;
}

void CrashSignals::endProcess()
{
    const int number = crash;
    std::signal(number, SIG_DFL);
    ::kill(::getpid(), number);
    for (;;) // until it arrives
        ::pause();
}
