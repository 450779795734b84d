#ifndef SEGMENTFETCH_H
#define SEGMENTFETCH_H

#include "MediaServers.h"
#include "SegmentWorker.h"

/// How a worker asks for a segment again: three times at once, each time another of its addresses
/// if there are several, then after growing pauses until the servers' patience is over.
class SegmentFetch final
{
public:
    SegmentFetch() = delete;

    /// The asking for one segment, by a worker of its own.
    [[nodiscard]] static SegmentWorker::Fetch forOne(const MediaServers &servers);
};

#endif
