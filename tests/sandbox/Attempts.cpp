#include "Attempts.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <functional>

#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <semaphore.h>
#include <spawn.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

extern char **environ;

namespace {

char truePath[] = "/bin/true";
char *trueArguments[] = {truePath, nullptr};

std::string place(const char *variable, const std::string &sub = std::string())
{
    const char *const value = std::getenv(variable);
    return std::string(value ? value : "/none") + sub;
}

/// The error number of a call that returned that.
int errorOf(long result)
{
    return result < 0 ? errno : 0;
}

int tryOpen(const std::string &path, int flags)
{
    const int file = ::open(path.c_str(), flags | O_CLOEXEC, 0644);
    const int error = errorOf(file);
    if (file >= 0)
        ::close(file);
    return error;
}

int tryList(const std::string &path)
{
    DIR *const folder = ::opendir(path.c_str());
    const int error = folder ? 0 : errno;
    if (folder)
        ::closedir(folder);
    return error;
}

/// The error number with which a child that calls something failed to become another program.
int tryInChild(const std::function<void()> &becomeProgram)
{
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0)
        return errno;
    const pid_t child = ::fork();
    if (child == 0) {
        becomeProgram();
        const int error = errno;
        const ssize_t written = ::write(ends[1], &error, sizeof error);
        ::_exit(written == sizeof error ? 1 : 2);
    }
    ::close(ends[1]);
    int error = 0; // nothing comes from a child that has become another program
    const ssize_t got = child > 0 ? ::read(ends[0], &error, sizeof error) : -1;
    ::close(ends[0]);
    if (child < 0 || got < 0)
        return EIO;
    ::waitpid(child, nullptr, 0);
    return error;
}

int trySpawn()
{
    pid_t child = 0;
    const int error = ::posix_spawn(&child, truePath, nullptr, nullptr, trueArguments, environ);
    if (error == 0)
        ::waitpid(child, nullptr, 0);
    return error;
}

/// The shell's own way to say that a program was not found stands for any error.
int trySystem()
{
    const int status = std::system("true");
    return status == 0 ? 0 : EPERM;
}

int tryProgramInMemory()
{
    return tryInChild([] {
        const int memory = ::memfd_create("program", MFD_CLOEXEC);
        const int program = ::open(truePath, O_RDONLY | O_CLOEXEC);
        char buffer[4096];
        for (ssize_t got; (got = ::read(program, buffer, sizeof buffer)) > 0;) {
            if (::write(memory, buffer, static_cast<size_t>(got)) != got)
                return;
        }
        ::fexecve(memory, trueArguments, environ);
    });
}

int tryServe(bool isBound)
{
    const int server = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const long result = isBound
        ? ::bind(server, reinterpret_cast<sockaddr *>(&address), sizeof address)
        : ::listen(server, 1);
    const int error = errorOf(result);
    ::close(server);
    return error;
}

int trySocket(int family)
{
    const int socket = ::socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int error = errorOf(socket);
    if (socket >= 0)
        ::close(socket);
    return error;
}

/// Nobody listens there, so without a sandbox the error is another one.
int tryConnect()
{
    const int socket = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(attemptedPort);
    const int error =
        errorOf(::connect(socket, reinterpret_cast<sockaddr *>(&address), sizeof address));
    ::close(socket);
    return error == ECONNREFUSED ? 0 : error;
}

/// Not a terminal, so without a filter the error is another one.
int tryTypeIntoTerminal()
{
    char letter = 'x';
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0)
        return errno;
    const int error = errorOf(::ioctl(ends[0], TIOCSTI, &letter));
    ::close(ends[0]);
    ::close(ends[1]);
    return error == ENOTTY ? 0 : error;
}

void line(std::string &report, const char *name, int error)
{
    report += std::string(name) + ' ' + std::to_string(error) + '\n';
}

std::string fileAttempts(const std::string &who)
{
    const std::string outside = place("ATTEMPTS_OUTSIDE");
    const std::string kept = outside + "/kept";
    const std::string secret = place("ATTEMPTS_PRIVATE");
    std::string report;
    line(report, "write-outside", tryOpen(outside + "/new-" + who, O_WRONLY | O_CREAT));
    line(report, "change-outside", tryOpen(kept, O_WRONLY));
    line(report, "truncate-outside", errorOf(::truncate(kept.c_str(), 4)));
    line(report, "folder-outside", errorOf(::mkdir((outside + "/folder-" + who).c_str(), 0755)));
    line(report, "remove-outside", errorOf(::unlink((outside + "/victim-" + who).c_str())));
    line(
        report, "move-outside",
        errorOf(::rename((outside + "/moved-" + who).c_str(), (outside + "/away-" + who).c_str())));
    line(report, "symlink-outside",
         errorOf(::symlink("kept", (outside + "/symlink-" + who).c_str())));
    line(report, "rights-outside", errorOf(::chmod(kept.c_str(), 0644)));
    line(report, "read-private", tryOpen(secret, O_RDONLY));
    line(report, "list-home", tryList(secret.substr(0, secret.rfind('/'))));
    line(report, "link-private",
         errorOf(::link(secret.c_str(), place("ATTEMPTS_OUTPUT", "/hard-" + who).c_str())));
    line(report, "read-shadow", tryOpen("/etc/shadow", O_RDONLY));
    line(report, "read-other-process",
         tryOpen("/proc/" + std::to_string(::getppid()) + "/environ", O_RDONLY));
    return report;
}

std::string otherAttempts()
{
    std::string report;
    line(report, "exec", tryInChild([] { ::execve(truePath, trueArguments, environ); }));
    line(report, "spawn", trySpawn());
    line(report, "system", trySystem());
    line(report, "exec-memory", tryProgramInMemory());
    line(report, "bind", tryServe(true));
    line(report, "listen", tryServe(false));
    line(report, "connect", tryConnect());
    line(report, "local-socket", trySocket(AF_UNIX));
    line(report, "signal", errorOf(::kill(::getppid(), 0)));
    line(report, "terminal", tryTypeIntoTerminal());
    return report;
}

/// What a run needs; an attempt that is refused here would show as a fault of the sandbox.
std::string neededAttempts(const std::string &who)
{
    const std::string folder = place("ATTEMPTS_OUTPUT", "/own-" + who);
    std::string report;
    line(report, "needed-folder", errorOf(::mkdir(folder.c_str(), 0755)));
    line(report, "needed-write", tryOpen(folder + "/a", O_RDWR | O_CREAT | O_TRUNC));
    line(report, "needed-move",
         errorOf(::rename((folder + "/a").c_str(), (folder + "/b").c_str())));
    line(report, "needed-read", tryOpen(folder + "/b", O_RDONLY));
    line(report, "needed-list", tryList(folder));
    line(report, "needed-remove", errorOf(::unlink((folder + "/b").c_str())));
    line(report, "needed-null", tryOpen("/dev/null", O_RDWR));
    line(report, "needed-random", tryOpen("/dev/urandom", O_RDONLY));
    line(report, "needed-system", tryOpen("/etc/passwd", O_RDONLY));
    line(report, "needed-own-process", tryOpen("/proc/self/maps", O_RDONLY));
    line(report, "needed-socket", trySocket(AF_INET));
    return report;
}

constexpr int maxThreads = 256;
std::array<std::atomic_int, maxThreads> answers;
std::atomic_int nextAnswer{0};
std::string everyThreadsPath;
sem_t answered;

void answerSignal(int)
{
    const int errorBefore = errno;
    const int slot = nextAnswer++;
    const int file = ::open(everyThreadsPath.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    if (slot < maxThreads)
        answers[static_cast<size_t>(slot)] = errorOf(file);
    if (file >= 0)
        ::close(file);
    ::sem_post(&answered);
    errno = errorBefore;
}

} // namespace

std::string runAttempts(const std::string &who)
{
    return fileAttempts(who) + otherAttempts() + neededAttempts(who);
}

std::string runAttemptOfEveryThread()
{
    constexpr int patienceS = 20;
    everyThreadsPath = place("ATTEMPTS_OUTSIDE", "/every-thread");
    ::sem_init(&answered, 0, 0);
    struct sigaction action
    {
    }, before{};
    action.sa_handler = answerSignal;
    action.sa_flags = SA_RESTART;
    ::sigaction(SIGUSR2, &action, &before);

    int asked = 0;
    DIR *const tasks = ::opendir("/proc/self/task");
    while (const dirent *const task = tasks ? ::readdir(tasks) : nullptr) {
        if (task->d_name[0] != '.'
            && ::syscall(SYS_tgkill, ::getpid(), std::atoi(task->d_name), SIGUSR2) == 0)
            ++asked;
    }
    if (tasks)
        ::closedir(tasks);

    timespec until{};
    ::clock_gettime(CLOCK_REALTIME, &until);
    until.tv_sec += patienceS;
    std::string report;
    for (int i = 0; i < asked; ++i) {
        while (::sem_timedwait(&answered, &until) != 0) {
            if (errno != EINTR)
                return report + "silent\n";
        }
    }
    for (int i = 0; i < asked && i < maxThreads; ++i)
        report += std::to_string(answers[static_cast<size_t>(i)]) + '\n';
    ::sigaction(SIGUSR2, &before, nullptr);
    return report;
}

void writeReport(const std::string &path, const std::string &text)
{
    const std::string partPath = path + ".part";
    const int file = ::open(partPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    const bool isWritten =
        file >= 0 && ::write(file, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    if (file >= 0)
        ::close(file);
    if (isWritten)
        ::rename(partPath.c_str(), path.c_str());
}
