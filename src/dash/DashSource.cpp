#include "DashSource.h"

#include "DashTemplate.h"

#include <algorithm>
#include <cmath>
#include <iterator>

namespace {

using Addressing = DashManifest::Addressing;

/// Microseconds from the period's start for a time of the media.
qint64 usInPeriod(qint64 time, const Addressing &addressing)
{
    const qint64 units = time - addressing.timeOffset;
    const qint64 us = DashManifest::toUs(qAbs(units), addressing.timescale);
    return units < 0 ? -us : us;
}

/// How many units of the timescale a duration takes.
double unitsOf(qint64 us, const Addressing &addressing)
{
    return static_cast<double>(us) / 1e6 * static_cast<double>(addressing.timescale);
}

/// A count that is beyond any limit where it would be more than that.
qint64 bounded(double count)
{
    constexpr auto most = static_cast<double>(DashManifest::maxSegments + 1);
    return static_cast<qint64>(std::max(0.0, std::min(count, most)));
}

/// Whether so many segments of a duration last no longer than times are counted.
bool fits(qint64 count, qint64 duration)
{
    return duration <= 0 || count <= DashManifest::maxTime / duration;
}

/// How many segments of a duration it takes to cover a time. What is less than a thousandth of one
/// comes from rounding.
qint64 countToCover(double units, qint64 duration)
{
    return bounded(std::ceil(units / static_cast<double>(duration) - 0.001));
}

} // namespace

bool DashSource::extend(const Part &part)
{
    if (m_context && part.run < m_context->run)
        return true; // that period is over
    if (!m_context || part.run > m_context->run)
        beginPart(part);
    switch (part.representation->addressing.kind) {
    case Addressing::Kind::Template:
        return part.representation->addressing.hasTimeline ? addTimeline(part) : addEven(part);
    case Addressing::Kind::List:
        return addList(part);
    case Addressing::Kind::Indexed:
    case Addressing::Kind::Single:
        break;
    }
    return addIndexed();
}

/// Begins a period, with its initialisation section unless that is the one in force.
void DashSource::beginPart(const Part &part)
{
    const std::shared_ptr<const Context> before = m_context;
    auto context = std::make_shared<Context>();
    context->run = part.run;
    context->periodStartUs = part.period->startUs;
    context->representation = *part.representation;
    Addressing &addressing = context->representation.addressing;
    addressing.timeline.clear(); // is looked up in the manifest at hand
    if (part.index) {
        context->index = *part.index;
        qint64 position = addressing.index.firstByte + part.index->firstByte;
        for (const SegmentIndex::Reference &reference : part.index->references) {
            context->indexBytes.push_back(position);
            position += reference.bytes;
        }
        if (!addressing.hasInitialisation && addressing.index.firstByte > 0) {
            addressing.hasInitialisation = true; // what comes before the index
            addressing.initialisationRange = {0, addressing.index.firstByte};
        }
    } else if (addressing.kind == Addressing::Kind::Indexed
               || addressing.kind == Addressing::Kind::Single) {
        addressing.hasInitialisation = false; // the one segment has everything
    }
    m_context = context;
    m_nextTime = 0;
    m_nextNumber = 0;
    m_hasBegun = false;
    if (!addressing.hasInitialisation)
        return;
    Span span;
    span.role = TrackSegment::Role::Initialisation;
    span.time = addressing.timeOffset;
    span.context = context;
    TrackSegment now;
    describe(now, span, 0);
    for (auto old = m_spans.rbegin(); before && old != m_spans.rend(); ++old) {
        if (old->role != TrackSegment::Role::Initialisation)
            continue;
        const TrackSegment last = trackSegment(old->first);
        if (last.segment.address == now.segment.address
            && last.segment.firstByte == now.segment.firstByte
            && last.segment.byteCount == now.segment.byteCount)
            return;
        break;
    }
    (void)add(span); // one is never too many: the limit is far below what can be counted
}

bool DashSource::add(Span span)
{
    if (span.count <= 0)
        return true;
    if (span.count > DashManifest::maxSegments - std::min(m_count, DashManifest::maxSegments))
        return false;
    span.first = m_count;
    m_count += span.count;
    m_spans.push_back(std::move(span));
    return true;
}

/// Notes that segments have gone that were never seen. @param time where the first that is there
/// begins    @param duration how long each is, about
bool DashSource::addHole(qint64 time, qint64 duration)
{
    if (!m_hasBegun || duration <= 0 || time - m_nextTime < duration / 2)
        return true;
    Span hole;
    hole.isHole = true;
    hole.count = std::max<qint64>(1, (time - m_nextTime) / duration);
    hole.time = m_nextTime;
    hole.duration = duration;
    hole.context = m_context;
    return add(hole);
}

bool DashSource::addTimeline(const Part &part)
{
    const Addressing &addressing = part.representation->addressing;
    qint64 number = addressing.startNumber;
    for (const DashManifest::TimelineEntry &entry : addressing.timeline) {
        qint64 count = entry.count;
        if (count == DashManifest::unknown) {
            const qint64 endUs = part.period->durationUs >= 0 ? part.period->durationUs
                                                              : part.untilUs - part.period->startUs;
            const double units = unitsOf(endUs, addressing)
                - static_cast<double>(entry.time - addressing.timeOffset);
            count = part.period->durationUs >= 0
                ? countToCover(units, entry.duration)
                : bounded(units / static_cast<double>(entry.duration));
        }
        if (!fits(count, entry.duration))
            return false;
        // Of those that are known already nothing is added again.
        const qint64 known = m_hasBegun && entry.time < m_nextTime
            ? std::min(count, (m_nextTime - entry.time + entry.duration - 1) / entry.duration)
            : 0;
        Span span;
        span.count = count - known;
        span.number = number + known;
        span.time = entry.time + known * entry.duration;
        span.duration = entry.duration;
        span.context = m_context;
        // What has gone before it was seen is missing at the beginning of the window only.
        const bool isWindow = number == addressing.startNumber;
        if ((isWindow && known == 0 && !addHole(span.time, span.duration)) || !add(span))
            return false;
        if (span.count > 0) {
            m_nextTime = span.time + span.count * span.duration;
            m_hasBegun = true;
        }
        number += count;
    }
    return true;
}

/// Segments that are all as long as one another, as many as the period takes.
bool DashSource::addEven(const Part &part)
{
    const Addressing &addressing = part.representation->addressing;
    const qint64 durationUs = part.period->durationUs;
    if (addressing.duration <= 0) { // a single one
        Span span;
        span.number = addressing.startNumber;
        span.time = addressing.timeOffset;
        span.context = m_context;
        const bool isNew = !m_hasBegun;
        m_hasBegun = true;
        return !isNew || add(span);
    }
    qint64 end = durationUs >= 0
        ? countToCover(unitsOf(durationUs, addressing), addressing.duration)
        : DashManifest::maxSegments + 1;
    const auto availableUs = [&](qint64 us) {
        return bounded(unitsOf(us - part.period->startUs, addressing)
                       / static_cast<double>(addressing.duration));
    };
    const bool isCounted = addressing.endNumber >= addressing.startNumber;
    if (isCounted)
        end = std::min(end, addressing.endNumber - addressing.startNumber + 1);
    const qint64 all = end;
    if (!part.isFinal)
        end = std::min(end, availableUs(part.untilUs));
    const qint64 begin = part.isFinal && !m_hasBegun ? 0 : availableUs(part.fromUs);
    const qint64 from = std::max(m_nextNumber, begin);
    if (from >= end)
        return true;
    if (!fits(end + 1, addressing.duration))
        return false;
    Span span;
    span.count = end - from;
    span.number = addressing.startNumber + from;
    span.time = addressing.timeOffset + from * addressing.duration;
    span.duration = addressing.duration;
    span.isLastDoubtful = end == all && !isCounted;
    span.context = m_context;
    if (!addHole(span.time, span.duration) || !add(span))
        return false;
    m_hasBegun = true;
    m_nextNumber = end;
    m_nextTime = span.time + span.count * span.duration;
    return !part.isLast || !span.isLastDoubtful || addRest(part);
}

/// Sound is cut elsewhere than the picture by which the duration goes: where the segments fill
/// that, the rest is in one more.
bool DashSource::addRest(const Part &part)
{
    const Addressing &addressing = part.representation->addressing;
    const double left = static_cast<double>(m_nextNumber * addressing.duration)
        - unitsOf(part.period->durationUs, addressing);
    const bool isFilled = left < static_cast<double>(addressing.duration) / 20;
    if (part.representation->rendition.kind != Rendition::Kind::Sound || !isFilled)
        return true;
    Span rest;
    rest.number = addressing.startNumber + m_nextNumber;
    rest.time = m_nextTime;
    rest.duration = addressing.duration;
    rest.isLastDoubtful = true;
    rest.isBeyondEnd = true;
    rest.context = m_context;
    return add(rest);
}

bool DashSource::addList(const Part &part)
{
    const Addressing &addressing = part.representation->addressing;
    qint64 time = addressing.timeOffset;
    int entry = 0;
    qint64 inEntry = 0;
    // The first of a list that moves on has the start number.
    const qint64 base = addressing.startNumber;
    const qint64 known = m_hasBegun ? m_nextNumber - base : 0;
    if (!fits(addressing.list.size(), addressing.duration))
        return false;
    auto context = std::make_shared<Context>(*m_context);
    context->representation.addressing.list.clear();
    std::vector<Span> fresh;
    for (int i = 0; i < addressing.list.size(); ++i) {
        qint64 duration = addressing.duration;
        if (addressing.hasTimeline && entry < addressing.timeline.size()) {
            const DashManifest::TimelineEntry &step = addressing.timeline.at(entry);
            duration = step.duration;
            time = step.time + inEntry * step.duration;
            if (++inEntry == step.count) {
                ++entry;
                inEntry = 0;
            }
        } else if (!addressing.hasTimeline) {
            time = addressing.timeOffset + i * duration;
        }
        if (i < known)
            continue;
        Span span;
        span.number = context->representation.addressing.list.size();
        span.time = time;
        span.duration = duration;
        context->representation.addressing.list += addressing.list.at(i);
        fresh.push_back(span);
    }
    const std::shared_ptr<const Context> shared = context;
    for (Span &span : fresh) {
        span.context = shared;
        if (!add(span))
            return false;
    }
    m_hasBegun = true;
    m_nextNumber = base + addressing.list.size();
    return true;
}

/// The segments of the one file that the representation is.
bool DashSource::addIndexed()
{
    if (m_hasBegun)
        return true;
    m_hasBegun = true;
    if (m_context->indexBytes.empty()) {
        Span whole;
        whole.number = DashManifest::unknown;
        whole.time = m_context->representation.addressing.timeOffset;
        whole.context = m_context;
        return add(whole);
    }
    const SegmentIndex &index = m_context->index;
    qint64 time = index.firstTime;
    for (int i = 0; i < index.references.size(); ++i) {
        Span span;
        span.number = i;
        span.time = time;
        span.duration = index.references.at(i).duration;
        span.context = m_context;
        time += span.duration;
        if (!add(span))
            return false;
    }
    return true;
}

void DashSource::publish(bool isEnded)
{
    if (m_isEnded || (m_publishedCount == m_count && !isEnded))
        return;
    m_publishedCount = m_count;
    m_isEnded = isEnded;
    emit changed();
}

TrackSegment DashSource::trackSegment(qint64 number) const
{
    const auto behind =
        std::upper_bound(m_spans.begin(), m_spans.end(), number,
                         [](qint64 wanted, const Span &span) { return wanted < span.first; });
    const Span &span = *std::prev(behind);
    TrackSegment segment;
    segment.segment.number = number;
    describe(segment, span, number - span.first);
    return segment;
}

void DashSource::setAddress(TrackSegment &segment, const Context &context, const QString &relative,
                            const DashManifest::Range &range) const
{
    const QVector<QUrl> &bases = context.representation.bases;
    const QUrl reference(relative);
    for (int i = 0; i < bases.size(); ++i) {
        const QUrl url = relative.isEmpty() ? bases.at(i) : bases.at(i).resolved(reference);
        const QString address = url.toString(QUrl::FullyEncoded);
        if (i == 0)
            segment.segment.address = address;
        else
            segment.segment.otherAddresses += address;
    }
    segment.segment.firstByte = range.firstByte;
    segment.segment.byteCount = range.byteCount;
}

void DashSource::describe(TrackSegment &segment, const Span &span, qint64 offset) const
{
    const Context &context = *span.context;
    const Addressing &addressing = context.representation.addressing;
    const bool isIndexed = !context.indexBytes.empty();
    const qint64 timescale = isIndexed && span.role == TrackSegment::Role::Media
        ? context.index.timescale
        : addressing.timescale;
    Addressing clock;
    clock.timescale = timescale;
    clock.timeOffset = timescale == addressing.timescale ? addressing.timeOffset : 0;
    const qint64 time = span.time + offset * span.duration;
    segment.role = span.role;
    segment.isHole = span.isHole;
    segment.isBeyondEnd = span.isBeyondEnd;
    segment.run = context.run;
    segment.hasLaterRun = m_context->run > context.run;
    segment.startUs = std::max<qint64>(0, context.periodStartUs + usInPeriod(time, clock));
    if (span.duration > 0)
        segment.durationUs = DashManifest::toUs(span.duration, timescale);
    segment.clockZeroUs =
        DashManifest::toUs(addressing.timeOffset, addressing.timescale) - context.periodStartUs;
    segment.isClockKnown = true;
    segment.segment.mayBeAbsent = span.isLastDoubtful && offset + 1 == span.count;
    if (span.isHole)
        return;
    const DashTemplate::Values values{context.representation.rendition.id,
                                      context.representation.rendition.bandwidth,
                                      span.number + offset, time};
    if (span.role == TrackSegment::Role::Initialisation) {
        const bool isTemplate = addressing.kind == Addressing::Kind::Template;
        setAddress(segment, context,
                   isTemplate ? DashTemplate::expand(addressing.initialisation, values)
                              : addressing.initialisation,
                   addressing.initialisationRange);
    } else if (addressing.kind == Addressing::Kind::Template) {
        setAddress(segment, context, DashTemplate::expand(addressing.media, values), {});
    } else if (addressing.kind == Addressing::Kind::List) {
        const DashManifest::ListEntry &entry = addressing.list.at(static_cast<int>(span.number));
        setAddress(segment, context, entry.media, entry.range);
    } else if (isIndexed) {
        const auto at = static_cast<std::size_t>(span.number);
        setAddress(segment, context, QString(),
                   {context.indexBytes.at(at),
                    context.index.references.at(static_cast<int>(span.number)).bytes});
    } else {
        setAddress(segment, context, QString(), {});
    }
}
