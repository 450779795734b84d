#include "HdsTrack.h"

#include "AdobeOutputFile.h"

#include <algorithm>

namespace {

constexpr qint64 maxHoles = 1000; // that are told one by one

} // namespace

HdsTrack::HdsTrack(const QUrl &address, QObject *parent)
    : TrackSource(parent)
{
    m_begin =
        address.adjusted(QUrl::RemoveQuery | QUrl::RemoveFragment).toString(QUrl::FullyEncoded);
    const QLatin1String extension(".f4m");
    if (m_begin.endsWith(extension))
        m_begin.chop(extension.size());
    if (address.hasQuery())
        m_end = QLatin1Char('?') + address.query(QUrl::FullyEncoded);
}

bool HdsTrack::extend(const HdsBootstrap &bootstrap)
{
    bool isWithin = true;
    bool isFirst = true; // what lies before it was withdrawn; between others there is nothing
    for (HdsBootstrap::Span span : bootstrap.spans) {
        const qint64 known = std::max<qint64>(0, m_lastFragment + 1 - span.fragment);
        const qint64 gone = span.fragment - (m_lastFragment + 1);
        if (isFirst && gone > 0 && m_count > 0) {
            HdsBootstrap::Span hole = span;
            hole.count = std::min(gone, maxHoles);
            hole.fragment -= hole.count;
            hole.startUs -= hole.count * hole.durationUs;
            isWithin = isWithin && add(hole, true);
        }
        isFirst = false;
        if (known >= span.count)
            continue;
        span.segment = span.segmentOf(known);
        span.place = (span.place + known) % span.perSegment;
        span.fragment += known;
        span.count -= known;
        span.startUs += known * span.durationUs;
        isWithin = isWithin && add(span, false);
    }
    m_isLastDoubtful = bootstrap.isLastDoubtful;
    return isWithin;
}

bool HdsTrack::add(const HdsBootstrap::Span &span, bool isHole)
{
    if (span.count > HdsBootstrap::maxFragments - m_count)
        return false;
    m_entries.push_back({m_count, span, isHole});
    m_count += span.count;
    m_lastFragment = span.fragment + span.count - 1;
    return true;
}

void HdsTrack::publish(bool isEnded)
{
    const bool isNew = m_publishedCount != m_count || m_isEnded != isEnded;
    m_publishedCount = m_count;
    m_isEnded = isEnded;
    if (isNew)
        emit changed();
}

TrackSegment HdsTrack::trackSegment(qint64 number) const
{
    const auto after =
        std::upper_bound(m_entries.cbegin(), m_entries.cend(), number,
                         [](qint64 wanted, const Entry &entry) { return wanted < entry.first; });
    const Entry &entry = *(after - 1);
    const qint64 offset = number - entry.first;
    const HdsBootstrap::Span &span = entry.span;
    TrackSegment segment;
    segment.startUs = std::max<qint64>(
        0, span.startUs + offset * span.durationUs - m_entries.front().span.startUs);
    segment.durationUs = span.durationUs > 0 ? span.durationUs : TrackSegment::unknown;
    segment.isHole = entry.isHole;
    segment.segment.number = number;
    if (entry.isHole)
        return segment;
    segment.segment.address = m_begin + QLatin1String("Seg")
        + QString::number(span.segmentOf(offset)) + QLatin1String("-Frag")
        + QString::number(span.fragment + offset) + m_end;
    segment.segment.isWhole = &CAdobeOutputFile::IsWhole;
    segment.segment.mayBeAbsent = m_isLastDoubtful && m_isEnded && number == m_count - 1;
    return segment;
}
