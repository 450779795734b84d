#ifndef HLSTIMELINE_H
#define HLSTIMELINE_H

#include "HlsPlaylist.h"

#include <QUrl>

#include <memory>
#include <vector>

/// All segments of a stream in their order, as one playlist tells them or a growing or moving one
/// by and by. What a window withdrew before it was seen keeps its place.
class HlsTimeline final
{
public:
    enum class Kind {
        Media,
        Map, ///< what comes before the segments that follow
        Withdrawn ///< a segment that nobody knows
    };

    struct Entry
    {
        Kind kind = Kind::Media;
        HlsSegment segment; ///< of a map the one that it comes before
        QUrl base; ///< what its addresses are relative to
        qint64 startUs = 0; ///< where it begins, microseconds from the first segment's start
        qint64 run = 0; ///< the discontinuity sequence number; never falls
    };

    /// Takes what a playlist adds to those before it. One that is older than what is known adds
    /// nothing; one whose numbers have begun anew is a new run. Returns whether anything was added.
    bool take(const HlsPlaylist &playlist);

    [[nodiscard]] const std::vector<Entry> &entries() const { return m_entries; }

    /// Whether there were more segments than a stream may have; those are left out.
    [[nodiscard]] bool isFull() const { return m_isFull; }

private:
    [[nodiscard]] bool isRestart(const HlsPlaylist &playlist) const;
    void restart(const HlsPlaylist &playlist);
    void addWithdrawn(qint64 count, const HlsPlaylist &playlist);
    void add(const HlsSegment &segment, const QUrl &base);
    void addMap(const HlsSegment &segment, const QUrl &base);
    void append(Kind kind, const HlsSegment &segment, const QUrl &base);

    std::vector<Entry> m_entries;
    std::shared_ptr<const HlsMap> m_map; ///< of the last segment
    QUrl m_mapBase;
    qint64 m_next = 0; ///< the sequence number that follows the last one
    qint64 m_endUs = 0;
    qint64 m_run = 0;
    qint64 m_runShift = 0; ///< what is added to a playlist's discontinuity sequence numbers
    bool m_isFull = false;
};

#endif
