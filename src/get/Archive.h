#ifndef ARCHIVE_H
#define ARCHIVE_H

#include "UniqueFd.h"

#include <QByteArray>
#include <QSet>
#include <QString>

/// A file of the addresses of pages that are done with, one a line, for people to read and to edit.
/// Several commands may keep one at the same time: each sees what the others have added.
class Archive final
{
public:
    /// Opens the file, which is made when it is missing, and reads it. False when that fails.
    [[nodiscard]] bool open(const QString &path);

    [[nodiscard]] bool isOpen() const { return m_fd.get() >= 0; }

    /// Whether the page is in the file.
    [[nodiscard]] bool contains(const QString &address);

    /// Adds a page; on the disk when it returns. False when that fails.
    [[nodiscard]] bool add(const QString &address);

private:
    [[nodiscard]] bool readOn();
    void takeLines();

    UniqueFd m_fd;
    qint64 m_readBytes = 0;
    QByteArray m_rest; ///< the beginning of a line whose end has not been read
    QSet<QByteArray> m_known; ///< sums of addresses, which are shorter
};

#endif
