// A manifest of DASH and the indexes that its files begin with. The word "NEXT" keeps them apart.
#include "DashManifest.h"
#include "DashSource.h"
#include "FuzzSupport.h"
#include "SegmentIndex.h"

#include <algorithm>
#include <limits>

namespace {

constexpr qint64 looks = 50; // at segments from the beginning and from the end

void checkIndex(const QByteArray &bytes)
{
    const std::optional<SegmentIndex> index = SegmentIndex::parse(bytes);
    if (!index)
        return;
    FUZZ_CHECK(index->timescale > 0 && index->firstTime >= 0 && index->firstByte > 0);
    FUZZ_CHECK(index->references.size() <= SegmentIndex::maxReferences);
    FUZZ_CHECK(index->references.size() * 12 < bytes.size());
    for (const SegmentIndex::Reference &one : index->references)
        FUZZ_CHECK(one.bytes > 0 && one.duration >= 0);
}

void checkSegment(const DashSource &track, qint64 number)
{
    const TrackSegment segment = track.trackSegment(number);
    FUZZ_CHECK(segment.segment.number == number && segment.startUs >= 0 && segment.run >= 0);
    FUZZ_CHECK(segment.durationUs == TrackSegment::unknown || segment.durationUs >= 0);
    FUZZ_CHECK(segment.segment.firstByte >= 0 && segment.segment.byteCount >= 0);
    FUZZ_CHECK(segment.segment.otherAddresses.size() < DashManifest::maxBases);
}

void checkTrack(const DashManifest &manifest, bool isLast, const SegmentIndex *index)
{
    DashSource track;
    bool isWithin = true;
    for (int i = 0; i < manifest.periods.size() && isWithin; ++i) {
        const DashManifest::Period &period = manifest.periods.at(i);
        if (period.representations.isEmpty())
            continue;
        DashSource::Part part;
        part.run = i;
        part.period = &period;
        part.representation =
            isLast ? &period.representations.constLast() : &period.representations.constFirst();
        part.isFinal = !manifest.isDynamic;
        part.untilUs = manifest.isDynamic ? 1000000000 : std::numeric_limits<qint64>::max();
        if (part.representation->addressing.kind == DashManifest::Addressing::Kind::Indexed)
            part.index = index;
        isWithin = track.extend(part);
        if (isWithin && manifest.isDynamic) { // the same again is nothing new
            track.publish(false);
            const qint64 before = track.last();
            isWithin = track.extend(part);
            track.publish(false);
            FUZZ_CHECK(track.last() == before || !isWithin);
        }
    }
    track.publish(true);
    FUZZ_CHECK(track.isEnded()
               && track.last() <= DashManifest::maxSegments + DashManifest::maxPeriods);
    for (qint64 n = 0; n <= std::min(track.last(), looks); ++n)
        checkSegment(track, n);
    for (qint64 n = std::max<qint64>(0, track.last() - looks); n <= track.last(); ++n)
        checkSegment(track, n);
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz::prepare();
    const QList<QByteArray> parts = fuzz::split(fuzz::bytes(data, size), QByteArrayLiteral("NEXT"));
    std::optional<SegmentIndex> index;
    for (const QByteArray &part : parts) {
        checkIndex(part);
        if (!index)
            index = SegmentIndex::parse(part);
    }
    DashManifest::Fault fault;
    const std::optional<DashManifest> manifest = DashManifest::parse(
        parts.constFirst(), QUrl(QStringLiteral("http://h.test/a/m.mpd")), fault);
    FUZZ_CHECK(manifest || !fault.reason.isEmpty());
    if (!manifest)
        return 0;
    FUZZ_CHECK(!manifest->periods.isEmpty()
               && manifest->periods.size() <= DashManifest::maxPeriods);
    for (const bool isLast : {false, true})
        checkTrack(*manifest, isLast, index ? &*index : nullptr);
    return 0;
}
