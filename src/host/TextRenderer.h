#ifndef TEXTRENDERER_H
#define TEXTRENDERER_H

#include "HostEvent.h"

#include <optional>

/// Host events as the lines that hosts know, which compare them byte for byte.
class TextRenderer final
{
public:
    TextRenderer() = delete;

    /// The event's line without its line end; none for what hosts of lines are not told. Safe on
    /// any thread.
    [[nodiscard]] static std::optional<QString> lineOf(const HostEvent &event);
};

#endif
