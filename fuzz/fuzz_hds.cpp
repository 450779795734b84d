// A manifest of HTTP Dynamic Streaming as packagers write it, and the bootstraps that its stream
// has one after the other. The word "NEXT" keeps them apart.
#include "FuzzSupport.h"
#include "HdsBootstrap.h"
#include "HdsManifest.h"
#include "HdsMetadata.h"
#include "HdsTrack.h"

#include <algorithm>

namespace {

constexpr qint64 looks = 20; // at fragments from the beginning and from the end
constexpr int entryBytes = 8; // the least that a run takes

void checkMetadata(const QByteArray &data)
{
    const HdsMetadata metadata = HdsMetadata::parse(data);
    FUZZ_CHECK(metadata.durationAt < 0 || metadata.durationAt + 8 <= data.size());
    FUZZ_CHECK(metadata.width >= 0 && metadata.height >= 0);
}

void checkMedia(const HdsManifest::Media &media, const QUrl &address)
{
    FUZZ_CHECK(media.manifest.isEmpty() || media.address.isEmpty());
    FUZZ_CHECK(media.bootstrap.isEmpty() || media.bootstrapAddress.isEmpty());
    FUZZ_CHECK(media.rendition.bandwidth >= 0 && media.rendition.durationUs >= 0);
    FUZZ_CHECK(media.rendition.width >= 0 && media.rendition.height >= 0);
    FUZZ_CHECK(media.holder == address);
    checkMetadata(media.metadata);
}

std::optional<HdsBootstrap> checkBootstrap(const QByteArray &answer)
{
    QString reason;
    const std::optional<HdsBootstrap> bootstrap = HdsBootstrap::parse(answer, 0, reason);
    FUZZ_CHECK(bootstrap.has_value() == reason.isEmpty());
    if (!bootstrap)
        return bootstrap;
    FUZZ_CHECK(!bootstrap->spans.isEmpty());
    FUZZ_CHECK(bootstrap->spans.size() <= 1 + answer.size() / entryBytes);
    qint64 next = 0;
    qint64 total = 0;
    for (const HdsBootstrap::Span &span : bootstrap->spans) {
        FUZZ_CHECK(span.fragment >= next && span.count > 0);
        FUZZ_CHECK(span.startUs >= 0 && span.durationUs >= 0 && span.segment >= 0);
        FUZZ_CHECK(span.perSegment > 0 && span.place >= 0 && span.place < span.perSegment);
        FUZZ_CHECK(span.segmentOf(span.count - 1) >= span.segmentOf(0));
        next = span.fragment + span.count;
        total += span.count;
    }
    FUZZ_CHECK(total <= HdsBootstrap::maxFragments && bootstrap->endUs() >= 0);
    return bootstrap;
}

void checkTrack(const QVector<HdsBootstrap> &bootstraps, const QUrl &address)
{
    HdsTrack track(address);
    for (const HdsBootstrap &bootstrap : bootstraps) {
        if (!track.extend(bootstrap))
            break;
        track.publish(false);
        const qint64 before = track.last();
        FUZZ_CHECK(track.extend(bootstrap)); // the same again is nothing new
        track.publish(false);
        FUZZ_CHECK(track.last() == before);
    }
    track.publish(true);
    FUZZ_CHECK(track.isEnded() && track.last() < HdsBootstrap::maxFragments);
    for (qint64 n = 0; n <= track.last();
         n = n == looks ? qMax(n, track.last() - looks) + 1 : n + 1) {
        const TrackSegment segment = track.trackSegment(n);
        FUZZ_CHECK(segment.segment.number == n && segment.startUs >= 0);
        FUZZ_CHECK(segment.durationUs == TrackSegment::unknown || segment.durationUs > 0);
        FUZZ_CHECK(segment.isHole == segment.segment.address.isEmpty());
    }
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz::prepare();
    const QList<QByteArray> parts = fuzz::split(fuzz::bytes(data, size), QByteArrayLiteral("NEXT"));
    const QUrl address(QStringLiteral("http://h.test/a/m.f4m?t=1"));
    QString reason;
    const std::optional<HdsManifest> manifest =
        HdsManifest::parse(parts.constFirst(), address, reason);
    FUZZ_CHECK(manifest.has_value() == reason.isEmpty());
    QVector<HdsBootstrap> bootstraps;
    if (manifest) {
        FUZZ_CHECK(!manifest->media.isEmpty() && manifest->media.size() <= HdsManifest::maxMedia);
        for (const HdsManifest::Media &media : manifest->media)
            checkMedia(media, address);
        if (const auto bootstrap = checkBootstrap(manifest->media.constFirst().bootstrap))
            bootstraps += *bootstrap;
    }
    for (int i = 1; i < parts.size(); ++i) {
        checkMetadata(parts.at(i));
        if (const auto bootstrap = checkBootstrap(parts.at(i)))
            bootstraps += *bootstrap;
    }
    checkTrack(bootstraps, manifest ? manifest->media.constFirst().address : address);
    return 0;
}
