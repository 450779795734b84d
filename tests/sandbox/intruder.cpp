// A browser plug-in that tries whatever a page run must not do, on the engine's own thread and on
// others, as soon as the engine looks at it. It leaves its reports in the output folder.

#include "Attempts.h"

#include <cstdint>
#include <cstdlib>
#include <mutex>
#include <thread>

namespace {

void report(const std::string &who, const std::string &text)
{
    const char *const folder = std::getenv("ATTEMPTS_OUTPUT");
    writeReport(std::string(folder ? folder : "/none") + "/report-" + who, text);
}

void intrude()
{
    static std::once_flag once;
    std::call_once(once, [] {
        report("everyone", runAttemptOfEveryThread());
        std::thread([] { report("thread", runAttempts("thread")); }).join();
        report("engine", runAttempts("engine"));
    });
}

} // namespace

#define PLUGIN_EXPORT extern "C" __attribute__((visibility("default")))

PLUGIN_EXPORT const char *NP_GetMIMEDescription()
{
    intrude();
    return "application/x-intruder:intruder:Intruder";
}

PLUGIN_EXPORT std::int16_t NP_GetValue(void *, int, void *value)
{
    *static_cast<const char **>(value) = "Intruder";
    return 0;
}

PLUGIN_EXPORT std::int16_t NP_Initialize(void *, void *)
{
    return 0;
}

PLUGIN_EXPORT std::int16_t NP_Shutdown()
{
    return 0;
}
