#include "ProcessTree.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include <dirent.h>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using Text = std::array<char, 512>;

/// The beginning of a file below /proc, ended by a zero; empty when the process has gone.
Text contentOf(pid_t process, const char *name)
{
    Text text{};
    const std::string path = "/proc/" + std::to_string(process) + '/' + name;
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd >= 0) {
        if (::read(fd, text.data(), text.size() - 1) < 0)
            text[0] = 0;
        ::close(fd);
    }
    return text;
}

/// Field 4 of proc(5), "stat". The name before it may hold anything.
pid_t parentOf(pid_t process)
{
    const Text text = contentOf(process, "stat");
    const char *const nameEnd = std::strrchr(text.data(), ')');
    if (nameEnd == nullptr || std::strlen(nameEnd) < 4)
        return 0;
    return static_cast<pid_t>(std::strtol(nameEnd + 3, nullptr, 10)); // after a state's letter
}

struct Relation
{
    pid_t process;
    pid_t parent;
};

std::vector<Relation> allProcesses()
{
    std::vector<Relation> all;
    const std::unique_ptr<DIR, int (*)(DIR *)> folder(::opendir("/proc"), ::closedir);
    while (const dirent *const entry = folder ? ::readdir(folder.get()) : nullptr) {
        const auto process = static_cast<pid_t>(std::strtol(entry->d_name, nullptr, 10));
        if (process > 0)
            all.push_back({process, parentOf(process)});
    }
    return all;
}

} // namespace

ProcessTree ProcessTree::ofThis()
{
    const std::vector<Relation> all = allProcesses();
    ProcessTree tree;
    std::vector<pid_t> parents{::getpid()};
    while (!parents.empty()) {
        const pid_t parent = parents.back();
        parents.pop_back();
        for (const Relation &relation : all) {
            if (relation.parent != parent)
                continue;
            tree.m_processes.push_back(relation.process);
            parents.push_back(relation.process);
        }
    }
    return tree;
}

qint64 ProcessTree::privateBytes() const
{
    static const qint64 pageBytes = ::sysconf(_SC_PAGESIZE);
    qint64 bytes = 0;
    for (const pid_t process : m_processes) {
        const Text text = contentOf(process, "statm");
        long long size = 0;
        long long resident = 0;
        long long shared = 0;
        if (std::sscanf(text.data(), "%lld %lld %lld", &size, &resident, &shared) == 3)
            bytes += qMax(0LL, resident - shared) * pageBytes;
    }
    return bytes;
}

void ProcessTree::killBelowThis()
{
    // What was started meanwhile comes with the next round.
    for (;;) {
        const std::vector<pid_t> processes = ofThis().m_processes;
        for (const pid_t process : processes)
            ::kill(process, SIGKILL);
        pid_t ended = 0;
        do
            ended = ::waitpid(-1, nullptr, processes.empty() ? WNOHANG : 0);
        while (ended < 0 && errno == EINTR);
        if (ended <= 0)
            return;
    }
}
