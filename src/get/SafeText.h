#ifndef SAFETEXT_H
#define SAFETEXT_H

#include <QString>

/// Makes texts of strangers fit to be shown and to name files.
namespace SafeText {

/// One line of what can be seen: control characters, line ends, marks that turn the direction of
/// writing and what is no character are left out or become a space; white space is drawn together.
/// No longer than so many UTF-16 units.
[[nodiscard]] QString line(const QString &text, int most = 500);

/// A text as a part of a file's name: line() without what file systems and shells do not like, and
/// without a dot at its beginning. May be empty.
[[nodiscard]] QString namePart(const QString &text);

/// A file's name of no more than so many bytes in UTF-8, without spaces and dots at its end. Never
/// cut within what is read as one character.
[[nodiscard]] QString cut(const QString &name, int bytes);

} // namespace SafeText

#endif
