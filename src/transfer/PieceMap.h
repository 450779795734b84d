#ifndef PIECEMAP_H
#define PIECEMAP_H

#include <QtGlobal>

#include <map>

/// Which bytes of a file nobody brings yet. Positions count from 0; ends are one past the last
/// byte.
class PieceMap final
{
public:
    struct Piece
    {
        qint64 first = 0;
        qint64 end = 0;

        [[nodiscard]] qint64 bytes() const { return end - first; }
    };

    /// Of a file of so many bytes, all of them free.
    explicit PieceMap(qint64 length);

    /// These are there, or are being brought. Some of them may be so already.
    void claim(const Piece &piece);

    /// These, which were claimed, are to be brought after all.
    void release(const Piece &piece);

    /// The first bytes that are free, up to so many of them, which have to be more than none; none
    /// when nothing is free.
    [[nodiscard]] Piece firstFree(qint64 maxBytes) const;

    [[nodiscard]] qint64 freeBytes() const { return m_freeBytes; }

private:
    void insert(const Piece &piece);

    std::map<qint64, qint64> m_free; ///< ends by first bytes; none touches another
    qint64 m_freeBytes = 0;
};

#endif
