#include "Presentation.h"

#include "MediaSink.h"

std::unique_ptr<TrackSink> Presentation::makeSink(const MergedSource &source,
                                                  const TrackSink::Target &target) const
{
    return std::make_unique<MediaSink>(source, chosen(), target);
}
