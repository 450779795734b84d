#ifndef SEGMENTSOURCE_H
#define SEGMENTSOURCE_H

#include "Segment.h"

#include <QObject>

/// What segments a stream has. Only the main thread asks, and asks again for every segment, so that
/// a stream may grow while it is fetched.
class SegmentSource : public QObject
{
    Q_OBJECT

public:
    using QObject::QObject;

    /// The number of the segment that the file begins with. It stays what it was at the start.
    [[nodiscard]] virtual qint64 first() const = 0;

    /// The number of the last segment that is known, below first() when there is none; never falls.
    [[nodiscard]] virtual qint64 last() const = 0;

    /// Whether no segment will follow the last one.
    [[nodiscard]] virtual bool isEnded() const { return true; }

    /// The segment of a number from first() to last().
    [[nodiscard]] virtual Segment segment(qint64 number) const = 0;

signals:
    /// There are more segments, or the last one is known to be the last.
    void changed();
};

#endif
