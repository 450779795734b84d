#ifndef PAGELINE_H
#define PAGELINE_H

#include "PageTask.h"

/// The line of a page that is at work, for a terminal of so many columns: what it is called, a bar,
/// how much has come, how fast, and how long it will take. What has no room is left out.
[[nodiscard]] QString pageLine(const PageFacts &facts, const PageProgress &progress, int columns);

#endif
