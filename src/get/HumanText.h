#ifndef HUMANTEXT_H
#define HUMANTEXT_H

#include "PageFacts.h"

/// Numbers and outcomes as people read them.
namespace HumanText {

/// Such as "8.3 MB"; powers of ten.
[[nodiscard]] QString bytes(qint64 count);

/// Such as "0:07" or "1:02:03".
[[nodiscard]] QString duration(qint64 ms);

/// What a page is called: its title, else its address. Fit for a terminal.
[[nodiscard]] QString nameOf(const PageFacts &page);

/// Why a page did not arrive. Fit for a terminal.
[[nodiscard]] QString reasonOf(const PageFacts &page);

} // namespace HumanText

#endif
