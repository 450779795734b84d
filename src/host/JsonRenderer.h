#ifndef JSONRENDERER_H
#define JSONRENDERER_H

#include "HostEvent.h"

#include <QJsonObject>

/// Host events as JSON objects, as docs/events.schema.json has them.
class JsonRenderer final
{
public:
    JsonRenderer() = delete;

    /// What all events of one version have in common may grow; it is raised when what there is
    /// changes its meaning.
    static constexpr int version = 1;

    /// The event: its name as "event", and what there is to know of it. Safe on any thread.
    [[nodiscard]] static QJsonObject objectOf(const HostEvent &event);
};

#endif
