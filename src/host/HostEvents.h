#ifndef HOSTEVENTS_H
#define HOSTEVENTS_H

#include "HostEvent.h"

/// The way to the host: whatever it is told passes here, as one line each. From any thread.
class HostEvents final
{
public:
    HostEvents() = delete;

    /// Makes an event's line, without its line end. Called on any thread.
    using Renderer = QString (*)(const HostEvent &event);

    /// Has the lines of all later events made by this renderer instead of TextRenderer::lineOf().
    /// For the start of the program: the guard speaks for a run that hangs, in the same manner.
    static void setRenderer(Renderer renderer);

    /// Tells the host; returns when the line is written, which a host that does not read delays.
    static void send(const HostEvent &event);

    /// Tells the host the last thing of a run. Until another run begins nothing follows it, whoever
    /// has it to say, but that the memory is detached; of two last things the first one counts.
    static void sendLast(const HostEvent &event);
};

#endif
