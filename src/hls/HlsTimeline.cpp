#include "HlsTimeline.h"

#include "HlsLimits.h"

#include <algorithm>

namespace {

constexpr qint64 microseconds = 1000 * 1000;

/// What a segment is called, without what a server may sign it with anew each time.
QString nameOf(const HlsSegment &segment)
{
    return segment.uri.section(QLatin1Char('?'), 0, 0);
}

bool isSameKey(const HlsKey *one, const QUrl &oneBase, const HlsKey *other, const QUrl &otherBase)
{
    if (!one || !other)
        return one == other;
    return one->iv == other->iv && one->protection == other->protection
        && HlsPlaylist::resolve(oneBase, one->uri) == HlsPlaylist::resolve(otherBase, other->uri);
}

bool isSameMap(const HlsMap &one, const QUrl &oneBase, const HlsMap &other, const QUrl &otherBase)
{
    return one.firstByte == other.firstByte && one.byteCount == other.byteCount
        && HlsPlaylist::resolve(oneBase, one.uri) == HlsPlaylist::resolve(otherBase, other.uri)
        && isSameKey(one.key.get(), oneBase, other.key.get(), otherBase);
}

} // namespace

bool HlsTimeline::take(const HlsPlaylist &playlist)
{
    if (playlist.segments.empty())
        return false;
    const std::size_t before = m_entries.size();
    if (m_entries.empty()) {
        m_next = playlist.segments.front().sequence;
        m_run = playlist.segments.front().discontinuity;
    } else if (playlist.segments.back().sequence < m_next) {
        if (!isRestart(playlist))
            return false;
        restart(playlist);
    }
    if (playlist.segments.front().sequence > m_next)
        addWithdrawn(playlist.segments.front().sequence - m_next, playlist);
    // They are numbered one after the other: those that are known already come first.
    const qint64 known = m_next - playlist.segments.front().sequence;
    for (std::size_t i = static_cast<std::size_t>(known); i < playlist.segments.size(); ++i)
        add(playlist.segments[i], playlist.address);
    return m_entries.size() > before;
}

/// Whether the numbers of a playlist that ends before what is known have begun anew. A playlist
/// that is only old, out of some server's cache, calls its last segment what it was called.
bool HlsTimeline::isRestart(const HlsPlaylist &playlist) const
{
    const HlsSegment &last = playlist.segments.back();
    for (auto entry = m_entries.crbegin(); entry != m_entries.crend(); ++entry) {
        const HlsSegment &segment = entry->segment;
        if (entry->kind == Kind::Media && segment.sequence == last.sequence)
            return nameOf(segment) != nameOf(last) || segment.firstByte != last.firstByte;
        if (segment.sequence < last.sequence)
            return false; // it was withdrawn unseen
    }
    return true;
}

void HlsTimeline::restart(const HlsPlaylist &playlist)
{
    m_next = playlist.segments.front().sequence;
    m_runShift = m_run + 1 - playlist.segments.front().discontinuity;
    m_map.reset();
}

/// Very many of them are no window that has moved on, and are told by some.
void HlsTimeline::addWithdrawn(qint64 count, const HlsPlaylist &playlist)
{
    HlsSegment segment;
    segment.durationUs = qMin(playlist.targetDurationS, HlsLimits::segmentSeconds) * microseconds;
    segment.isGap = true;
    const qint64 told = qMin(count, HlsLimits::withdrawnSegments);
    for (qint64 i = 0; i < told; ++i) {
        segment.sequence = playlist.segments.front().sequence - told + i;
        append(Kind::Withdrawn, segment, QUrl());
        m_endUs += segment.durationUs;
    }
    m_next = playlist.segments.front().sequence;
}

void HlsTimeline::add(const HlsSegment &segment, const QUrl &base)
{
    m_run = qMax(m_run, segment.discontinuity + m_runShift);
    addMap(segment, base);
    append(Kind::Media, segment, base);
    m_endUs += segment.durationUs;
    m_next = segment.sequence + 1;
}

void HlsTimeline::addMap(const HlsSegment &segment, const QUrl &base)
{
    if (segment.map == m_map)
        return;
    const bool isNew = segment.map && !(m_map && isSameMap(*m_map, m_mapBase, *segment.map, base));
    m_map = segment.map;
    m_mapBase = base;
    if (isNew)
        append(Kind::Map, segment, base);
}

void HlsTimeline::append(Kind kind, const HlsSegment &segment, const QUrl &base)
{
    if (m_entries.size() < HlsLimits::streamSegments)
        m_entries.push_back({kind, segment, base, m_endUs, m_run});
    else
        m_isFull = true;
}
