#ifndef TRACKSOURCE_H
#define TRACKSOURCE_H

#include "SegmentSource.h"

#include <QByteArray>
#include <QtGlobal>

/// A segment of a rendition, with what the file that it goes to must know of it. A value.
///
/// An initialisation section (EXT-X-MAP, an initialization segment) is a segment of its own, which
/// stands before the first media segment that needs it: before the first one of all, and wherever
/// it changes. It stays in force until the next one, of whatever is lost in between.
struct TrackSegment
{
    enum class Role { Media, Initialisation };

    static constexpr qint64 unknown = -1;

    /// What is to be fetched; its number is the track's own. The cache file is left empty: whoever
    /// fetches names it by address, range and cacheKey.
    Segment segment;

    Role role = Role::Media;

    /// Told to be missing (EXT-X-GAP): it counts as a segment, but nothing is asked for.
    bool isHole = false;

    /// Lies behind the end that the manifest tells: the rest of a track that is a little longer
    /// than that, if it is much shorter than the other segments; else it is left out.
    bool isBeyondEnd = false;

    /// Counts up where timestamps may begin anew: with every discontinuity, with every period. The
    /// tracks of a presentation count alike.
    int run = 0;

    /// Another run follows, as far as that is known.
    bool hasLaterRun = false;

    /// Where it begins and how long it lasts, in microseconds on the presentation's clock, which
    /// begins at 0 with the first segment that there is or was; unknown where the manifest does not
    /// say. Tracks are fetched and written side by side by it, so it should rise.
    qint64 startUs = unknown;
    qint64 durationUs = unknown;

    /// The timestamp in the media, in microseconds, that stands for 0 on the presentation's clock,
    /// if isClockKnown: where the manifest tells it (DASH). Else the first timestamp of a run does
    /// for its startUs (HLS).
    qint64 clockZeroUs = 0;
    bool isClockKnown = false;

    /// What else decides the bytes, such as a key and its IV: segments of one address that differ
    /// in it are not taken for each other by the cache.
    QByteArray cacheKey;
};

/// The segments of one rendition that is fetched. As of every source only the main thread asks;
/// segments are numbered without gaps, from first() on, as they become known, and keep what they
/// are. One that a live presentation has withdrawn before it was ever known is no segment: it is
/// told as a hole, by a segment without an address, where its number in the playlist gives it away.
class TrackSource : public SegmentSource
{
    Q_OBJECT

public:
    using SegmentSource::SegmentSource;

    [[nodiscard]] virtual TrackSegment trackSegment(qint64 number) const = 0;

    [[nodiscard]] Segment segment(qint64 number) const final
    {
        return trackSegment(number).segment;
    }
};

#endif
