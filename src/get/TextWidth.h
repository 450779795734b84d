#ifndef TEXTWIDTH_H
#define TEXTWIDTH_H

#include <QString>

/// How many columns of a terminal a text takes: wide characters take two, marks on others none.
namespace TextWidth {

[[nodiscard]] int of(const QString &text);

/// The text in exactly so many columns: filled with spaces, or cut with an ellipsis at its end.
[[nodiscard]] QString fitted(const QString &text, int columns);

/// The text in so many columns at the most.
[[nodiscard]] QString elided(const QString &text, int columns);

} // namespace TextWidth

#endif
