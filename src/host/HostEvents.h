#ifndef HOSTEVENTS_H
#define HOSTEVENTS_H

#include "HostEvent.h"

#include <optional>

/// The way to the host: whatever it is told passes here, as a line on standard error unless it is
/// of a kind without one, and as an event on standard output if the caller wants those. From any
/// thread.
class HostEvents final
{
public:
    HostEvents() = delete;

    /// Makes an event's line, without its line end. Called on any thread.
    using Renderer = std::optional<QString> (*)(const HostEvent &event);

    /// Has the lines of all later events made by this renderer instead of TextRenderer::lineOf().
    /// For the start of the program: the guard speaks for a run that hangs, in the same manner.
    static void setRenderer(Renderer renderer);

    /// Tells the host; returns when it is written, which a host that does not read delays.
    static void send(const HostEvent &event);

    /// Tells the host the last thing of a run. Until another run begins nothing follows it, whoever
    /// has it to say, but that the memory is detached, and what became of the run; of two last
    /// things the first one counts.
    static void sendLast(const HostEvent &event);
};

#endif
