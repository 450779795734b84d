// A browser plug-in that says it is a Flash player and does nothing. The engine loads it through
// the plug-in interface that browsers share, of which these are the parts that matter here.

#include <cstdint>
#include <cstring>

namespace {

using PluginError = std::int16_t;
constexpr PluginError noError = 0;
constexpr PluginError invalidParameter = 9;

enum PluginVariable { NameString = 1, DescriptionString = 2 };

using InstanceNew = PluginError (*)(char *mimeType, void *instance, std::uint16_t mode,
                                    std::int16_t argumentCount, char **names, char **values,
                                    void *saved);
using InstanceDestroy = PluginError (*)(void *instance, void **saved);
using InstanceSetWindow = PluginError (*)(void *instance, void *window);
using InstanceGetValue = PluginError (*)(void *instance, int variable, void *value);

/// The table that the plug-in fills in for the engine. Entries that are not used stand as plain
/// pointers, as only their places count.
struct PluginFunctions
{
    std::uint16_t sizeBytes;
    std::uint16_t version;
    InstanceNew newInstance;
    InstanceDestroy destroyInstance;
    InstanceSetWindow setWindow;
    void *newStream;
    void *destroyStream;
    void *streamAsFile;
    void *writeReady;
    void *write;
    void *print;
    void *handleEvent;
    void *urlNotify;
    void *javaClass;
    InstanceGetValue getValue;
    void *setValue;
};

PluginError newInstance(char *, void *, std::uint16_t, std::int16_t, char **, char **, void *)
{
    return noError;
}

PluginError destroyInstance(void *, void **)
{
    return noError;
}

PluginError setWindow(void *, void *)
{
    return noError;
}

PluginError getInstanceValue(void *, int, void *)
{
    return invalidParameter;
}

PluginError setText(void *value, const char *text)
{
    std::memcpy(value, &text, sizeof text);
    return noError;
}

} // namespace

#define PLUGIN_EXPORT extern "C" __attribute__((visibility("default")))

PLUGIN_EXPORT const char *NP_GetMIMEDescription()
{
    return "application/x-shockwave-flash:swf:Shockwave Flash";
}

PLUGIN_EXPORT PluginError NP_GetValue(void *, int variable, void *value)
{
    switch (variable) {
    case NameString:
        return setText(value, "Shockwave Flash");
    case DescriptionString:
        return setText(value, "Shockwave Flash 32.0 r465");
    default:
        return invalidParameter;
    }
}

PLUGIN_EXPORT PluginError NP_Initialize(void *, PluginFunctions *functions)
{
    functions->newInstance = newInstance;
    functions->destroyInstance = destroyInstance;
    functions->setWindow = setWindow;
    functions->getValue = getInstanceValue;
    return noError;
}

PLUGIN_EXPORT PluginError NP_Shutdown()
{
    return noError;
}
