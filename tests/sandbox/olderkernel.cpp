// Preloaded into a program to take things away from its kernel. KERNEL_LACKS lists them, with
// spaces: "landlock", "landlock-above-<version>", "seccomp", "no-new-privileges".

#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>

#include <dlfcn.h>
#include <sys/prctl.h>
#include <sys/syscall.h>

namespace {

bool lacks(const char *what)
{
    const char *const list = std::getenv("KERNEL_LACKS");
    const char *const found = list ? std::strstr(list, what) : nullptr;
    const char after = found ? found[std::strlen(what)] : 'x';
    return after == '\0' || after == ' ';
}

long newestLandlock(long version)
{
    static const char mark[] = "landlock-above-";
    const char *const list = std::getenv("KERNEL_LACKS");
    const char *const found = list ? std::strstr(list, mark) : nullptr;
    const long newest = found ? std::atol(found + sizeof mark - 1) : version;
    return version > newest ? newest : version;
}

long refuse(int error)
{
    errno = error;
    return -1;
}

} // namespace

extern "C" __attribute__((visibility("default"))) long syscall(long number, ...) noexcept
{
    using Call = long (*)(long, long, long, long, long, long, long);
    static const auto next = reinterpret_cast<Call>(dlsym(RTLD_NEXT, "syscall"));
    constexpr int argumentCount = 6;
    long argument[argumentCount];
    va_list list;
    va_start(list, number);
    for (long &value : argument)
        value = va_arg(list, long);
    va_end(list);

    if ((number == SYS_landlock_create_ruleset && lacks("landlock"))
        || (number == SYS_seccomp && lacks("seccomp")))
        return refuse(ENOSYS);
    const long result =
        next(number, argument[0], argument[1], argument[2], argument[3], argument[4], argument[5]);
    const bool isVersion = number == SYS_landlock_create_ruleset && argument[0] == 0;
    return isVersion ? newestLandlock(result) : result;
}

extern "C" __attribute__((visibility("default"))) int prctl(int option, ...) noexcept
{
    using Call = int (*)(int, long, long, long, long);
    static const auto next = reinterpret_cast<Call>(dlsym(RTLD_NEXT, "prctl"));
    va_list list;
    va_start(list, option);
    const long a = va_arg(list, long);
    const long b = va_arg(list, long);
    const long c = va_arg(list, long);
    const long d = va_arg(list, long);
    va_end(list);
    if ((option == PR_SET_NO_NEW_PRIVS && lacks("no-new-privileges"))
        || (option == PR_SET_SECCOMP && lacks("seccomp")))
        return static_cast<int>(refuse(EINVAL));
    return next(option, a, b, c, d);
}
