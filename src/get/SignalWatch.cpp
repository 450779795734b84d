#include "SignalWatch.h"

#include <QSocketNotifier>

#include <array>
#include <cerrno>
#include <csignal>

#include <fcntl.h>
#include <unistd.h>

namespace {

std::array<int, 2> ends{-1, -1}; // read, write; the handler has no other way to know

void noteSignal(int number)
{
    const int before = errno;
    const char byte = static_cast<char>(number);
    // When the pipe is full there is more than enough to be read.
    [[maybe_unused]] const ssize_t count = ::write(ends[1], &byte, 1);
    errno = before;
}

void handle(int number)
{
    struct sigaction action = {};
    if (::sigaction(number, nullptr, &action) != 0 || action.sa_handler == SIG_IGN)
        return;
    action = {};
    action.sa_handler = noteSignal;
    action.sa_flags = SA_RESTART;
    ::sigaction(number, &action, nullptr);
}

} // namespace

SignalWatch::SignalWatch(QObject *parent)
    : QObject(parent)
{
    if (::pipe2(ends.data(), O_NONBLOCK | O_CLOEXEC) != 0)
        return;
    auto *const notifier = new QSocketNotifier(ends[0], QSocketNotifier::Read, this);
    connect(notifier, &QSocketNotifier::activated, this, &SignalWatch::readSignals);
    for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGWINCH})
        handle(number);
    // Whoever reads the output may go: that is told by the write.
    std::signal(SIGPIPE, SIG_IGN);
}

SignalWatch::~SignalWatch()
{
    for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGWINCH})
        std::signal(number, SIG_DFL);
    for (int &end : ends) {
        ::close(end);
        end = -1;
    }
}

void SignalWatch::readSignals()
{
    char number = 0;
    while (::read(ends[0], &number, 1) == 1) {
        if (number == SIGWINCH)
            emit resized();
        else
            emit stopAsked();
    }
}
