#ifndef FILEKIND_H
#define FILEKIND_H

#include <QString>

/// What a file is, by its first bytes.
namespace FileKind {

/// The extension that fits, without a dot; the other one when the bytes do not tell.
/// @param path of a file; a link is not followed
[[nodiscard]] QString extensionOf(const QString &path, const QString &other);

/// Whether there is a plain file under the name itself, and no link.
[[nodiscard]] bool isPlainFile(const QString &path);

} // namespace FileKind

#endif
