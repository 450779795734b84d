#include "WebkitEngineFactory.h"

#include "WebkitEngine.h"

#include <QByteArray>

#include <cstddef>

namespace {

/// By what name and rank the engine's media framework chooses its elements.
constexpr char elementRanks[] = "GST_PLUGIN_FEATURE_RANK";

/// They fetch what a playlist names by themselves, past the page's network and its limits, and run
/// an event loop for it on threads of their own, which stops the main thread's.
constexpr const char *playlistReaders[] = {"hlsdemux",  "dashdemux",  "mssdemux",
                                           "hlsdemux2", "dashdemux2", "mssdemux2"};

constexpr const char *soundSinks[] = {"pulsesink", "pipewiresink", "jackaudiosink", "alsasink",
                                      "oss4sink",  "osssink",      "openalsink"};

/// Has the media framework choose none of the elements, whatever the environment says.
template <std::size_t count> void leaveOut(const char *const (&elements)[count])
{
    QByteArray ranks = qgetenv(elementRanks);
    for (const char *const element : elements)
        ranks += QByteArray(ranks.isEmpty() ? "" : ",") + element + ":NONE";
    qputenv(elementRanks, ranks);
}

} // namespace

void WebkitEngineFactory::prepare(const RunOptions &options)
{
    leaveOut(playlistReaders);
    // Nobody hears a page that is not shown, and looking for somewhere to play its sound leaves
    // folders and shared memory of the sound servers behind.
    if (!options.isShown)
        leaveOut(soundSinks);
}

std::unique_ptr<PageEngine> WebkitEngineFactory::make(const RunOptions &options)
{
    return std::make_unique<WebkitEngine>(options);
}
