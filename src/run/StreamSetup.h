#ifndef STREAMSETUP_H
#define STREAMSETUP_H

#include "ManifestAddress.h"
#include "MediaServers.h"
#include "Presentation.h"
#include "RunOptions.h"

#include <memory>

/// How a run deals with a stream, as its options have it. Pure functions.
class StreamSetup final
{
public:
    StreamSetup() = delete;

    /// How its servers are asked: as the page asks, which they may insist on.
    [[nodiscard]] static MediaServers servers(const RunOptions &options);

    /// What a manifest of that kind presents, with the run's wishes; not opened yet.
    /// @param kind not None
    [[nodiscard]] static std::unique_ptr<Presentation> presentation(ManifestAddress::Kind kind,
                                                                    const QString &address,
                                                                    const MediaServers &servers,
                                                                    const RunOptions &options);
};

#endif
