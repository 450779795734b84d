#ifndef WEBKITSNAPSHOT_H
#define WEBKITSNAPSHOT_H

#include "PageSnapshot.h"

class QWebFrame;

/// Reads a snapshot out of the engine's document.
class WebkitSnapshot final
{
public:
    WebkitSnapshot() = delete;

    /// The document of the frame as it is now.
    [[nodiscard]] static PageSnapshot of(const QWebFrame &frame);
};

#endif
