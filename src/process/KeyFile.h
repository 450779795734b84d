#ifndef KEYFILE_H
#define KEYFILE_H

#include <QSet>
#include <QString>

#include <optional>

#include <sys/types.h>

/// A file by which the system finds a block of the toolkit's shared memory, or the lock of such a
/// block. The toolkit makes the number of the block from the number of the file (ftok()), of which
/// it takes 16 bits: files of two names may stand for one and the same block. This class gives the
/// file a number that nobody else has.
///
/// What stands under the number once it has been made is noted in the file, which the toolkit
/// leaves empty, so that it can be told from what somebody else made later.
///
/// Two that look for a number at the same time may find the same one, so whoever changes something
/// holds a FolderLock of folder(). Within the sandbox of a page run nothing can be made, read or
/// listed there; files are then taken as they are.
class KeyFile final
{
public:
    enum class Kind { Block, Lock };

    /// @param key the name by which the block is known to the toolkit
    KeyFile(const QString &key, Kind kind);

    /// The folder of all such files.
    [[nodiscard]] static QString folder();

    [[nodiscard]] QString path() const { return m_path; }
    [[nodiscard]] bool exists() const;

    /// Whether the number is this file's alone: no other file has it, and no other block or lock
    /// stands under it. False when there is no file.
    [[nodiscard]] bool isAlone() const;

    /// Makes the file if it is missing and puts another in its place if it is not alone. Returns
    /// false when that cannot be done.
    [[nodiscard]] bool settle() const;

    /// As settle(), though the file may be alone for all that can be seen.
    [[nodiscard]] bool replace() const;

    /// Notes in the file what stands under its number now.
    void claim() const;

    /// Whether something stands under the number.
    [[nodiscard]] bool isUsed() const;

    /// Takes a lock of this file's own out of the system, then the file.
    void removeLock() const;

    /// Takes the file away unless something stands under its number.
    void removeIfUnused() const;

private:
    [[nodiscard]] std::optional<int> idUnder(key_t number) const;
    [[nodiscard]] bool isOwn(int id) const;
    [[nodiscard]] QSet<key_t> numbersOfOthers() const;
    [[nodiscard]] bool publish(const QString &candidate, bool hadFile) const;
    [[nodiscard]] bool isFree(const QString &candidate, const QSet<key_t> &taken) const;

    const Kind m_kind;
    const QString m_path;
};

#endif
