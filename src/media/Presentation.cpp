#include "Presentation.h"

#include "MediaLibrary.h"
#include "MediaSink.h"

std::unique_ptr<TrackSink> Presentation::makeSink(const MergedSource &source,
                                                  const TrackSink::Target &target) const
{
    if (!MediaLibrary::load())
        return nullptr;
    return std::make_unique<MediaSink>(source, chosen(), target);
}
