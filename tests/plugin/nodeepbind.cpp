// Preloaded in builds with a sanitizer. The engine opens plug-ins with RTLD_DEEPBIND, for which the
// sanitizers end the process; without the flag they follow the plug-in as any other code.

#include <dlfcn.h>

extern "C" __attribute__((visibility("default"))) void *dlopen(const char *path, int flags) noexcept
{
    using Open = void *(*)(const char *, int);
    static const auto next = reinterpret_cast<Open>(dlsym(RTLD_NEXT, "dlopen"));
    return next(path, flags & ~RTLD_DEEPBIND);
}
