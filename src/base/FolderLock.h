#ifndef FOLDERLOCK_H
#define FOLDERLOCK_H

#include <QString>

/// Keeps other runs out of a section while it lives. The lock is on the folder itself, so that
/// nothing has to be made for it and nothing stays of it.
class FolderLock final
{
public:
    /// Waits a few seconds at most; whoever holds it longer does not hold up the run.
    explicit FolderLock(const QString &folder);
    ~FolderLock();
    Q_DISABLE_COPY(FolderLock)

    /// Takes such a lock on an open file or folder, which keeps it until it is closed. Returns
    /// false when it is not to be had in so many milliseconds.
    [[nodiscard]] static bool take(int fd, int patienceMs);

    /// False when the folder cannot be opened or somebody keeps it.
    [[nodiscard]] bool isHeld() const { return m_isHeld; }

private:
    const int m_fd;
    const bool m_isHeld;
};

#endif
