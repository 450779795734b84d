#include "HostEvents.h"

#include "HostLine.h"
#include "TextRenderer.h"

#include <atomic>

namespace {

std::atomic<HostEvents::Renderer> currentRenderer{TextRenderer::lineOf};

} // namespace

void HostEvents::setRenderer(Renderer renderer)
{
    currentRenderer = renderer;
}

void HostEvents::send(const HostEvent &event)
{
    HostLine::sendPlain(currentRenderer.load()(event));
}
