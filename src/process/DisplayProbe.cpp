#include "DisplayProbe.h"

#include <QElapsedTimer>
#include <QGuiApplication>

#include <cerrno>
#include <csignal>
#include <cstdlib>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr int patienceMs = 10000;
constexpr useconds_t pauseUs = 5000;

/// What the toolkit and its libraries have to say about a display is nothing for the host.
[[noreturn]] void startToolkit(int argc, char *argv[])
{
    const rlimit noCore{0, 0};
    ::setrlimit(RLIMIT_CORE, &noCore);
    const int nowhere = ::open("/dev/null", O_RDWR | O_CLOEXEC);
    ::dup2(nowhere, STDOUT_FILENO);
    ::dup2(nowhere, STDERR_FILENO);
    const QGuiApplication application(argc, argv);
    std::_Exit(EXIT_SUCCESS);
}

} // namespace

bool DisplayProbe::isUsable(int argc, char *argv[])
{
    const pid_t child = ::fork();
    if (child < 0)
        return true; // the toolkit itself will tell
    if (child == 0)
        startToolkit(argc, argv);
    QElapsedTimer timer;
    timer.start();
    int status = 0;
    pid_t ended = ::waitpid(child, &status, WNOHANG);
    while ((ended == 0 || (ended < 0 && errno == EINTR)) && !timer.hasExpired(patienceMs)) {
        ::usleep(pauseUs);
        ended = ::waitpid(child, &status, WNOHANG);
    }
    if (ended == child)
        return WIFEXITED(status) && WEXITSTATUS(status) == EXIT_SUCCESS;
    ::kill(child, SIGKILL);
    ::waitpid(child, &status, 0);
    return false;
}
