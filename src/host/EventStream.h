#ifndef EVENTSTREAM_H
#define EVENTSTREAM_H

#include "HostEvent.h"

/// Host events on standard output, as one JSON object a line, for callers that want them. Lines on
/// standard error are nothing to it.
class EventStream final
{
public:
    EventStream() = delete;

    /// Begins to write events if the argument list wants them. From then on standard output is
    /// theirs alone: whatever else the process writes there, libraries and programs that it starts
    /// included, is lost. For the start of the program, once, before other threads begin.
    static void openIfWanted(int argc, char *argv[]);

    [[nodiscard]] static bool isOpen();

    /// Writes an event, unless the stream is closed or the event is progress that comes too soon
    /// after other progress, or comes after a run's result. Returns when it is written, which a
    /// host that does not read delays. One thread at a time, which HostEvents sees to.
    static void write(const HostEvent &event);
};

#endif
