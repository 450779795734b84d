#ifndef SEGMENT_H
#define SEGMENT_H

#include "StopFlag.h"

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <functional>

/// One segment of a stream: where it comes from, where it is kept, and what it must be. A value, so
/// that a worker needs nothing of the source, which may change meanwhile.
struct Segment
{
    qint64 number = 0; ///< a stream's segments are numbered without gaps, from anywhere
    QString address; ///< empty for one that is not to be had any more
    qint64 firstByte = 0; ///< of what is at the address
    qint64 byteCount = 0; ///< from there on; 0 for all
    QStringList otherAddresses; ///< where the same bytes are to be had, if there are any
    bool mayBeAbsent = false; ///< a server that has no such thing is believed at once
    QString cacheFile; ///< its path; empty for a segment that is not to be kept

    /// Whether a body whose length the server did not tell is whole. Called on a worker's thread;
    /// without it that cannot be told.
    std::function<bool(const QByteArray &body)> isWhole;

    /// Turns the body that has come into what the cache keeps and the sink takes, such as by
    /// decrypting it; false when that cannot be done: the segment is then given up. Called on a
    /// worker's thread, where it may wait for what it needs until it is asked to stop; without it
    /// they are the same.
    std::function<bool(QByteArray &body, const StopFlag &stop)> decode;
};

#endif
