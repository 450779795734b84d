#ifndef SEGMENTCACHE_H
#define SEGMENTCACHE_H

#include <QByteArray>
#include <QString>

/// The files that segments are kept in, for a later run or to save memory in this one. Safe on any
/// thread; two threads do not write the same file.
class SegmentCache final
{
public:
    SegmentCache() = delete;

    /// The content of a regular file, if it is of that size and can be read whole; else empty.
    /// Never waits, as opening a pipe may.
    [[nodiscard]] static QByteArray read(const QString &path, qint64 bytes);

    /// As read(), for a file of any size up to that one.
    [[nodiscard]] static QByteArray readUpTo(const QString &path, qint64 maxBytes);

    /// Writes a file under a temporary name and renames it, so that a run that is killed leaves no
    /// part of it behind under its own name. Returns whether it is there.
    static bool write(const QString &path, const QByteArray &data);
};

#endif
