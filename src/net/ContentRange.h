#ifndef CONTENTRANGE_H
#define CONTENTRANGE_H

#include <QByteArray>
#include <QtGlobal>

/// What a "Content-Range" header says: positions of bytes, both inclusive, and the size of the
/// whole; -1 for what it does not say or what is no number.
struct ContentRange
{
    qint64 first = -1;
    qint64 last = -1;
    qint64 size = -1;

    [[nodiscard]] static ContentRange of(const QByteArray &header);
};

#endif
