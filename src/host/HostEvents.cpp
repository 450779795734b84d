#include "HostEvents.h"

#include "EventStream.h"
#include "HostLine.h"
#include "TextRenderer.h"

#include <atomic>
#include <mutex>

namespace {

std::atomic<HostEvents::Renderer> currentRenderer{TextRenderer::lineOf};

std::mutex endMutex; // standard, so that thread analysers see it
bool isEnded = false; // guarded by endMutex

bool mayFollowTheEnd(const HostEvent &event)
{
    return std::holds_alternative<event::MemoryDetached>(event)
        || std::holds_alternative<event::ParsingBegun>(event)
        || std::holds_alternative<event::RunEnded>(event);
}

void sendUnlessEnded(const HostEvent &event, bool isLast)
{
    const std::optional<QString> line = currentRenderer.load()(event);
    const std::lock_guard locker(endMutex);
    if (isEnded && !mayFollowTheEnd(event))
        return;
    if (isLast || std::holds_alternative<event::ParsingBegun>(event))
        isEnded = isLast;
    if (line)
        HostLine::sendPlain(*line);
    EventStream::write(event);
}

} // namespace

void HostEvents::setRenderer(Renderer renderer)
{
    currentRenderer = renderer;
}

void HostEvents::send(const HostEvent &event)
{
    sendUnlessEnded(event, false);
}

void HostEvents::sendLast(const HostEvent &event)
{
    sendUnlessEnded(event, true);
}
