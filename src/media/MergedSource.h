#ifndef MERGEDSOURCE_H
#define MERGEDSOURCE_H

#include "TrackSource.h"

#include <QString>
#include <QVector>

#include <vector>

/// The segments of several tracks as those of one stream, in the order of their times, so that
/// tracks are fetched and written side by side and none runs ahead of another one.
class MergedSource final : public SegmentSource
{
    Q_OBJECT

public:
    /// Where a segment of the merged stream comes from.
    struct Place
    {
        int track = 0; ///< index into the list of tracks
        TrackSegment segment;
        bool isLast = false; ///< of its track, as far as is known now
    };

    /// @param tracks outlive this object
    /// @param cacheFolder where segments are kept; empty for nowhere
    /// @param binding what the cached segments belong to, such as the manifest's address: those of
    ///                another one are not taken for them
    MergedSource(const QVector<TrackSource *> &tracks, const QString &cacheFolder,
                 const QByteArray &binding, QObject *parent = nullptr);

    [[nodiscard]] qint64 first() const override { return 0; }
    [[nodiscard]] qint64 last() const override { return static_cast<qint64>(m_order.size()) - 1; }
    [[nodiscard]] bool isEnded() const override;
    [[nodiscard]] Segment segment(qint64 number) const override;

    [[nodiscard]] Place place(qint64 number) const;

private:
    struct Track
    {
        TrackSource *source = nullptr;
        qint64 next = 0; ///< the number that is merged next
        qint64 startUs = 0; ///< of that one, as well as it is known
        bool isStartKnown = false; ///< whether that has been looked up
    };

    struct Entry
    {
        quint32 offset; ///< from the track's first number
        quint32 track;
    };

    void grow();
    void lookUp(Track &track) const;
    [[nodiscard]] QString cacheFileOf(const TrackSegment &segment) const;

    const QString m_cacheFolder;
    const QByteArray m_binding;
    std::vector<Track> m_tracks;
    std::vector<Entry> m_order;
};

#endif
