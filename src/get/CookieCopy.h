#ifndef COOKIECOPY_H
#define COOKIECOPY_H

#include <QString>
#include <QTemporaryDir>

/// A copy of the user's cookie file (in the Netscape format) for the runs of one command: what
/// sites set meanwhile goes there, and away with it. Readable by nobody else.
class CookieCopy final
{
public:
    /// Makes the copy; false when the file cannot be read or the copy not be written. Cookies of a
    /// session, which the file may have without an end, get one: runs share what has an end alone.
    [[nodiscard]] bool make(const QString &path);

    [[nodiscard]] QString path() const;

    /// The content of the copy.
    /// @param sessionEnd in seconds since 1970
    [[nodiscard]] static QByteArray withSessions(const QByteArray &content, qint64 sessionEnd);

private:
    QTemporaryDir m_folder;
};

#endif
