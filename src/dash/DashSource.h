#ifndef DASHSOURCE_H
#define DASHSOURCE_H

#include "DashManifest.h"
#include "SegmentIndex.h"
#include "TrackSource.h"

#include <limits>
#include <memory>
#include <vector>

/// The segments of one track of a DASH presentation, period after period. Segments that follow one
/// another alike are kept as one entry, so that a long presentation takes no more memory than its
/// manifest.
class DashSource final : public TrackSource
{
    Q_OBJECT

public:
    /// What is to be fetched of a period.
    struct Part
    {
        int run = 0; ///< counts the periods
        const DashManifest::Period *period = nullptr;
        const DashManifest::Representation *representation = nullptr;
        const SegmentIndex *index = nullptr; ///< of an indexed one; null when it is of no use
        bool isLast = false; ///< whether no period can follow
        bool isFinal = true; ///< whether the period's end is known as far as it ever will be
        /// Which part of the period is there to be fetched, on the presentation's clock.
        qint64 fromUs = 0;
        qint64 untilUs = std::numeric_limits<qint64>::max();
    };

    using TrackSource::TrackSource;

    /// Takes over what is new in a period; periods come in their order. Returns false when that
    /// would be too many segments.
    [[nodiscard]] bool extend(const Part &part);

    /// Tells what has been added, and whether that was all.
    void publish(bool isEnded);

    [[nodiscard]] qint64 first() const override { return 0; }
    [[nodiscard]] qint64 last() const override { return m_publishedCount - 1; }
    [[nodiscard]] bool isEnded() const override { return m_isEnded; }
    [[nodiscard]] TrackSegment trackSegment(qint64 number) const override;

private:
    /// What segments of a period have in common.
    struct Context
    {
        int run = 0;
        qint64 periodStartUs = 0;
        DashManifest::Representation representation;
        SegmentIndex index;
        std::vector<qint64> indexBytes; ///< where each of the index's segments begins
    };

    /// Segments that follow one another alike.
    struct Span
    {
        qint64 first = 0; ///< the track's number of the first
        qint64 count = 1;
        qint64 number = 0; ///< the first's in its address, or its place in a list or an index
        qint64 time = 0; ///< the first's, in units of the timescale
        qint64 duration = 0; ///< of each, likewise; 0 while unknown
        TrackSegment::Role role = TrackSegment::Role::Media;
        bool isHole = false;
        bool isLastDoubtful = false; ///< there may be one less
        bool isBeyondEnd = false;
        std::shared_ptr<const Context> context;
    };

    void beginPart(const Part &part);
    [[nodiscard]] bool add(Span span);
    [[nodiscard]] bool addTimeline(const Part &part);
    [[nodiscard]] bool addEven(const Part &part);
    [[nodiscard]] bool addRest(const Part &part);
    [[nodiscard]] bool addList(const Part &part);
    [[nodiscard]] bool addIndexed();
    [[nodiscard]] bool addHole(qint64 time, qint64 duration);
    void setAddress(TrackSegment &segment, const Context &context, const QString &relative,
                    const DashManifest::Range &range) const;
    void describe(TrackSegment &segment, const Span &span, qint64 offset) const;

    std::vector<Span> m_spans;
    std::shared_ptr<const Context> m_context; // of the period that is being added
    qint64 m_nextTime = 0; // in that period: where what has been added ends
    qint64 m_nextNumber = 0; // likewise, as an index from its beginning
    bool m_hasBegun = false; // whether anything of that period has been added
    qint64 m_count = 0;
    qint64 m_publishedCount = 0;
    bool m_isEnded = false;
};

#endif
