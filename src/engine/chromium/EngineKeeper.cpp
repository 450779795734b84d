#include "EngineKeeper.h"

#include "EngineCage.h"
#include "ProcessTree.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>

namespace {

using End = EngineKeeper::End;

constexpr int lookIntervalMs = 100;
constexpr int longestEndMs = 1000;
constexpr int engineReadsFrom = 3;
constexpr int engineWritesTo = 4;
constexpr int cannotRun = 127; // as a shell says it

struct Pipe
{
    UniqueFd readEnd;
    UniqueFd writeEnd;
};

bool make(Pipe &pipe)
{
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0)
        return false;
    pipe = {UniqueFd(ends[0]), UniqueFd(ends[1])};
    return true;
}

/// What leads out of the keeper.
struct Ends
{
    UniqueFd lifeline;
    UniqueFd sign;
    UniqueFd toEngine;
    UniqueFd fromEngine;
};

/// A process that has let go of everything that it shared with the run: its lines to the host, its
/// files and locks, its terminal.
/// Closes all files but the standard streams and these.
void closeAllBut(std::array<int, 4> kept)
{
    std::sort(kept.begin(), kept.end());
    auto first = static_cast<unsigned>(STDERR_FILENO) + 1;
    for (const int fd : kept) {
        const auto end = static_cast<unsigned>(fd);
        if (end > first)
            ::close_range(first, end - 1, 0);
        first = end + 1;
    }
    ::close_range(first, ~0U, 0);
}

void standAlone(const Ends &ends)
{
    ::setsid();
    ::prctl(PR_SET_NAME, "engine keeper");
    const UniqueFd nothing(::open("/dev/null", O_RDWR | O_CLOEXEC));
    for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
        ::dup2(nothing.get(), stream);
    closeAllBut({ends.lifeline.get(), ends.sign.get(), ends.toEngine.get(), ends.fromEngine.get()});
    const rlimit none{0, 0};
    ::setrlimit(RLIMIT_CORE, &none);
    // It has nothing to tidy up that the end of the run would not bring about.
    for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGQUIT})
        ::signal(signal, SIG_IGN);
}

/// Waits for the word to start. Returns whether it came before the end.
bool isWanted(int lifeline)
{
    char word = 0;
    ssize_t count = 0;
    do
        count = ::read(lifeline, &word, 1);
    while (count < 0 && errno == EINTR);
    return count == 1;
}

/// The descriptor at another number, where there is nothing that is still needed.
int movedUp(int fd)
{
    constexpr int outOfTheWay = 100;
    return ::fcntl(fd, F_DUPFD_CLOEXEC, outOfTheWay);
}

[[noreturn]] void becomeEngine(const EngineKeeper::Setup &setup, const EngineCage &cage,
                               const Ends &ends, int program)
{
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGQUIT})
        ::signal(signal, SIG_DFL);
    const int in = movedUp(ends.toEngine.get());
    const int out = movedUp(ends.fromEngine.get());
    const int file = movedUp(program);
    ::dup2(in, engineReadsFrom);
    ::dup2(out, engineWritesTo);

    QVector<QByteArray> words = QVector<QByteArray>{setup.program} + cage.switches();
    words += setup.arguments;
    std::vector<char *> arguments;
    for (QByteArray &word : words)
        arguments.push_back(word.data());
    arguments.push_back(nullptr);
    QVector<QByteArray> settings = cage.environment();
    std::vector<char *> environment;
    for (QByteArray &setting : settings)
        environment.push_back(setting.data());
    environment.push_back(nullptr);
    if (cage.close())
        ::syscall(SYS_execveat, file, "", arguments.data(), environment.data(), AT_EMPTY_PATH);
    ::_exit(cannotRun);
}

/// Waits for the end of a child. Returns why it came.
End endOf(pid_t engine, int lifeline, qint64 memoryBytes)
{
    for (;;) {
        pollfd line{lifeline, 0, 0};
        const bool isAsked = ::poll(&line, 1, lookIntervalMs) > 0;
        int status = 0;
        pid_t ended = 0;
        while ((ended = ::waitpid(-1, &status, WNOHANG)) > 0) {
            if (ended == engine)
                return WIFEXITED(status) && WEXITSTATUS(status) == cannotRun ? End::NotStarted
                                                                             : End::OfItself;
        }
        if (isAsked)
            return End::Asked;
        if (memoryBytes > 0 && ProcessTree::ofThis().privateBytes() > memoryBytes)
            return End::OverMemory;
    }
}

/// The process that has the engine as its child, and is the first one of the cage.
[[noreturn]] void watchEngine(const EngineKeeper::Setup &setup, EngineCage &cage, Ends &ends,
                              int program)
{
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    ::prctl(PR_SET_CHILD_SUBREAPER, 1);
    ends.sign.reset();
    cage.furnish();
    const pid_t engine = ::fork();
    if (engine == 0)
        becomeEngine(setup, cage, ends, program);
    ends.toEngine.reset();
    ends.fromEngine.reset();
    const End end =
        engine > 0 ? endOf(engine, ends.lifeline.get(), setup.memoryBytes) : End::NotStarted;
    ProcessTree::killBelowThis();
    cage.tidy();
    ::_exit(static_cast<int>(end));
}

[[noreturn]] void keep(const EngineKeeper::Setup &setup, Ends &ends)
{
    standAlone(ends);
    if (!isWanted(ends.lifeline.get()))
        ::_exit(static_cast<int>(End::Asked));
    const UniqueFd program(::open(setup.program.constData(), O_PATH | O_CLOEXEC));
    EngineCage cage(setup.program, setup.ports);
    cage.enter();
    const pid_t watcher = ::fork();
    if (watcher == 0)
        watchEngine(setup, cage, ends, program.get());
    ends.toEngine.reset();
    ends.fromEngine.reset();
    int status = 0;
    while (watcher > 0 && ::waitpid(watcher, &status, 0) < 0 && errno == EINTR) { }
    ::_exit(watcher > 0 && WIFEXITED(status) ? WEXITSTATUS(status)
                                             : static_cast<int>(End::OfItself));
}

void doNotWait(int fd)
{
    ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) | O_NONBLOCK);
}

} // namespace

std::unique_ptr<EngineKeeper> EngineKeeper::fork(const Setup &setup)
{
    Pipe lifeline;
    Pipe sign;
    Pipe toEngine;
    Pipe fromEngine;
    if (!make(lifeline) || !make(sign) || !make(toEngine) || !make(fromEngine))
        return nullptr;
    const pid_t child = ::fork();
    if (child < 0)
        return nullptr;
    if (child == 0) {
        Ends ends{std::move(lifeline.readEnd), std::move(sign.writeEnd),
                  std::move(toEngine.readEnd), std::move(fromEngine.writeEnd)};
        keep(setup, ends);
    }
    std::unique_ptr<EngineKeeper> keeper(new EngineKeeper);
    keeper->m_keeper = child;
    keeper->m_lifeline = std::move(lifeline.writeEnd);
    keeper->m_sign = std::move(sign.readEnd);
    keeper->m_toEngine = std::move(toEngine.writeEnd);
    keeper->m_fromEngine = std::move(fromEngine.readEnd);
    doNotWait(keeper->writeFd());
    doNotWait(keeper->readFd());
    return keeper;
}

EngineKeeper::~EngineKeeper()
{
    end();
}

void EngineKeeper::begin()
{
    if (std::exchange(m_hasBegun, true))
        return;
    const char word = 'b';
    while (::write(m_lifeline.get(), &word, 1) < 0 && errno == EINTR) { }
}

EngineKeeper::End EngineKeeper::end(std::chrono::milliseconds patience)
{
    if (m_keeper < 0)
        return m_end;
    pollfd sign{m_sign.get(), 0, 0};
    ::poll(&sign, 1, static_cast<int>(patience.count()));
    m_lifeline.reset();
    m_toEngine.reset();
    m_fromEngine.reset();
    const auto lastMoment =
        std::chrono::steady_clock::now() + std::chrono::milliseconds(longestEndMs);
    bool isGone = false;
    while (!isGone && std::chrono::steady_clock::now() < lastMoment)
        isGone = ::poll(&sign, 1, lookIntervalMs) > 0;
    int status = 0;
    pid_t ended = 0;
    do
        ended = ::waitpid(m_keeper, &status, isGone ? 0 : WNOHANG);
    while (ended < 0 && errno == EINTR);
    if (ended == m_keeper && WIFEXITED(status))
        m_end = static_cast<End>(WEXITSTATUS(status));
    m_keeper = -1;
    return m_end;
}
