// Stands in for an engine that is a program of its own: reads texts that end with a zero byte from
// descriptor 3 and does what they say.

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

void say(const std::string &text)
{
    const std::string message = text + '\0';
    for (size_t sent = 0; sent < message.size();) {
        const ssize_t count = ::write(4, message.data() + sent, message.size() - sent);
        if (count <= 0)
            return;
        sent += static_cast<size_t>(count);
    }
}

/// Children that heed no wish to end, in a session of their own.
void startChildren()
{
    for (int i = 0; i < 2; ++i) {
        if (::fork() == 0) {
            ::setsid();
            ::signal(SIGTERM, SIG_IGN);
            for (;;)
                ::pause();
        }
    }
}

std::string outcomeOf(int result)
{
    return result >= 0 ? "done" : std::strerror(errno);
}

std::string outcomeOfOpening(const std::string &path, int flags)
{
    const int fd = ::open(path.c_str(), flags | O_CLOEXEC, 0600);
    const std::string outcome = outcomeOf(fd);
    if (fd >= 0)
        ::close(fd);
    return outcome;
}

void takeMemory()
{
    constexpr size_t chunkBytes = 16 << 20;
    std::vector<char *> chunks;
    for (;;) {
        chunks.push_back(static_cast<char *>(std::malloc(chunkBytes)));
        std::memset(chunks.back(), 1, chunkBytes);
        ::usleep(2000);
    }
}

void obey(const std::string &word, const std::string &rest, char *arguments[])
{
    if (word == "echo")
        say(rest);
    else if (word == "long")
        say(std::string(std::stoul(rest), 'x'));
    else if (word == "die")
        ::abort();
    else if (word == "end")
        std::exit(0);
    else if (word == "children")
        startChildren();
    else if (word == "memory")
        takeMemory();
    else if (word == "read")
        say(outcomeOfOpening(rest, O_RDONLY));
    else if (word == "write")
        say(outcomeOfOpening(rest, O_WRONLY | O_CREAT));
    else if (word == "listen")
        say(outcomeOf(::listen(::socket(AF_INET, SOCK_STREAM, 0), 1)));
    else if (word == "home")
        say(std::getenv("HOME"));
    else if (word == "open") {
        std::string fds;
        for (int fd = 0; fd < 1024; ++fd) {
            if (::fcntl(fd, F_GETFD) >= 0)
                fds += std::to_string(fd) + ' ';
        }
        say(fds);
    } else if (word == "arguments") {
        std::string all;
        for (char **argument = arguments + 1; *argument != nullptr; ++argument)
            all += std::string(*argument) + '\n';
        say(all);
    }
}

} // namespace

int main(int, char *argv[])
{
    std::string message;
    char c = 0;
    while (::read(3, &c, 1) == 1) {
        if (c != '\0') {
            message += c;
            continue;
        }
        const size_t blank = message.find(' ');
        obey(message.substr(0, blank),
             blank == std::string::npos ? std::string() : message.substr(blank + 1), argv);
        message.clear();
    }
    return 0;
}
