#ifndef TEXTRENDERER_H
#define TEXTRENDERER_H

#include "HostEvent.h"

/// Host events as the lines that hosts know, which compare them byte for byte.
class TextRenderer final
{
public:
    TextRenderer() = delete;

    /// The event's line without its line end. Safe on any thread.
    [[nodiscard]] static QString lineOf(const HostEvent &event);
};

#endif
