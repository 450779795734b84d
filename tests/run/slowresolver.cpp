// Preloaded into a run: the name service takes a minute for the names below "test", and a file that
// the environment names tells that it has been asked.

#include <cstdlib>
#include <cstring>

#include <dlfcn.h>
#include <fcntl.h>
#include <netdb.h>
#include <unistd.h>

namespace {

bool isSlow(const char *name)
{
    static const char ending[] = ".test";
    const size_t endingLength = sizeof ending - 1;
    const size_t length = name ? std::strlen(name) : 0;
    return length > endingLength && std::strcmp(name + length - endingLength, ending) == 0;
}

} // namespace

extern "C" __attribute__((visibility("default"))) int
getaddrinfo(const char *name, const char *service, const addrinfo *hints, addrinfo **result)
{
    using Lookup = int (*)(const char *, const char *, const addrinfo *, addrinfo **);
    static const auto next = reinterpret_cast<Lookup>(dlsym(RTLD_NEXT, "getaddrinfo"));
    if (!isSlow(name))
        return next(name, service, hints, result);
    if (const char *const mark = std::getenv("SLOW_RESOLVER_MARK"))
        ::close(::open(mark, O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    ::sleep(60);
    return EAI_AGAIN;
}
