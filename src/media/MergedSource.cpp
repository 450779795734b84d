#include "MergedSource.h"

#include "SegmentBytes.h"

#include <QCryptographicHash>

#include <limits>

MergedSource::MergedSource(const QVector<TrackSource *> &tracks, const QString &cacheFolder,
                           const QByteArray &binding, QObject *parent)
    : SegmentSource(parent)
    , m_cacheFolder(cacheFolder)
    , m_binding(binding)
{
    for (TrackSource *const source : tracks) {
        Track track;
        track.source = source;
        track.next = source->first();
        m_tracks.push_back(track);
        connect(source, &SegmentSource::changed, this, [this] {
            grow();
            emit changed();
        });
    }
    grow();
}

/// Takes over what the tracks have got.
void MergedSource::grow()
{
    for (;;) {
        Track *earliest = nullptr;
        for (Track &track : m_tracks) {
            const qint64 offset = track.next - track.source->first();
            if (track.next > track.source->last() || offset > std::numeric_limits<quint32>::max())
                continue;
            if (m_tracks.size() > 1 && !track.isStartKnown)
                lookUp(track);
            if (!earliest || track.startUs < earliest->startUs)
                earliest = &track;
        }
        if (!earliest)
            return;
        m_order.push_back({static_cast<quint32>(earliest->next - earliest->source->first()),
                           static_cast<quint32>(earliest - m_tracks.data())});
        ++earliest->next;
        earliest->isStartKnown = false;
    }
}

/// Finds out where the track's next segment begins; one that does not say begins after the last.
void MergedSource::lookUp(Track &track) const
{
    const TrackSegment segment = track.source->trackSegment(track.next);
    if (segment.startUs >= 0)
        track.startUs = segment.startUs;
    else if (segment.role == TrackSegment::Role::Media)
        track.startUs += qMax<qint64>(1, segment.durationUs);
    track.isStartKnown = true;
}

bool MergedSource::isEnded() const
{
    for (const Track &track : m_tracks) {
        if (!track.source->isEnded() || track.next <= track.source->last())
            return false;
    }
    return true;
}

MergedSource::Place MergedSource::place(qint64 number) const
{
    const Entry &entry = m_order.at(static_cast<std::size_t>(number));
    const TrackSource &source = *m_tracks.at(entry.track).source;
    const qint64 trackNumber = source.first() + entry.offset;
    Place place;
    place.track = static_cast<int>(entry.track);
    place.segment = source.trackSegment(trackNumber);
    place.isLast = source.isEnded() && trackNumber == source.last();
    return place;
}

Segment MergedSource::segment(qint64 number) const
{
    const TrackSegment track = place(number).segment;
    Segment segment = track.segment;
    segment.number = number;
    if (track.isHole)
        segment.address.clear();
    if (!m_cacheFolder.isEmpty() && !segment.address.isEmpty())
        segment.cacheFile = cacheFileOf(track);
    // What is packed once more shows its end only when it is unpacked.
    if (!segment.isWhole && !segment.decode)
        segment.isWhole = &SegmentBytes::isWhole;
    return segment;
}

QString MergedSource::cacheFileOf(const TrackSegment &segment) const
{
    QCryptographicHash hash(QCryptographicHash::Sha256);
    const auto add = [&hash](const QByteArray &part) {
        hash.addData(QByteArray::number(part.size()) + ':'); // no part reads as two others
        hash.addData(part);
    };
    add(m_binding);
    add(segment.segment.address.toUtf8());
    add(QByteArray::number(segment.segment.firstByte));
    add(QByteArray::number(segment.segment.byteCount));
    add(segment.cacheKey);
    return m_cacheFolder + QLatin1Char('/') + QString::fromLatin1(hash.result().toHex());
}
