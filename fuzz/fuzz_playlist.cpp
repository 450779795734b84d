// The playlists of an HLS stream, each of which goes on where the one before ended. The word "NEXT"
// keeps them apart.
#include "FuzzSupport.h"
#include "HlsLimits.h"
#include "HlsPlaylist.h"
#include "HlsTimeline.h"
#include "ManifestAddress.h"
#include "WebAddress.h"

namespace {

constexpr int ivBytes = 16;
const char *const address = "http://h.test/dir/main.m3u8?a=b&c=%2F";

bool isRange(qint64 firstByte, qint64 byteCount)
{
    return firstByte >= 0 && byteCount >= 0 && firstByte + byteCount >= firstByte;
}

void checkAddress(const HlsPlaylist &playlist, const QString &uri)
{
    const QUrl url = playlist.resolve(uri);
    FUZZ_CHECK(url.isEmpty() || WebAddress::isWeb(url));
}

void checkKey(const HlsPlaylist &playlist, const HlsKey *key)
{
    if (!key)
        return;
    FUZZ_CHECK(key->iv.isEmpty() || key->iv.size() == ivBytes);
    checkAddress(playlist, key->uri);
}

void checkMedia(const HlsPlaylist &playlist)
{
    FUZZ_CHECK(playlist.variants.empty() && playlist.renditions.empty());
    FUZZ_CHECK(playlist.segments.size() <= HlsLimits::segments);
    qint64 sequence = playlist.mediaSequence;
    qint64 discontinuity = 0;
    for (const HlsSegment &segment : playlist.segments) {
        FUZZ_CHECK(segment.sequence == sequence++ && segment.discontinuity >= discontinuity);
        discontinuity = segment.discontinuity;
        FUZZ_CHECK(segment.durationUs >= 0);
        FUZZ_CHECK(isRange(segment.firstByte, segment.byteCount));
        checkAddress(playlist, segment.uri);
        checkKey(playlist, segment.key.get());
        if (!segment.map)
            continue;
        FUZZ_CHECK(isRange(segment.map->firstByte, segment.map->byteCount));
        FUZZ_CHECK(segment.map->sequence <= segment.sequence && !segment.map->uri.isEmpty());
        checkKey(playlist, segment.map->key.get());
    }
    FUZZ_CHECK(playlist.durationUs() >= 0);
}

void checkMaster(const HlsPlaylist &playlist)
{
    FUZZ_CHECK(playlist.segments.empty());
    FUZZ_CHECK(playlist.variants.size() <= HlsLimits::variants);
    for (const HlsVariant &variant : playlist.variants) {
        FUZZ_CHECK(variant.bandwidth >= 0 && variant.width >= 0 && variant.height >= 0);
        FUZZ_CHECK(!variant.isAudioOnly() || !variant.codecs.isEmpty());
        checkAddress(playlist, variant.uri);
    }
}

void checkTimeline(const HlsTimeline &timeline)
{
    qint64 startUs = 0;
    qint64 run = 0;
    for (const HlsTimeline::Entry &entry : timeline.entries()) {
        FUZZ_CHECK(entry.startUs >= startUs && entry.run >= run);
        startUs = entry.startUs;
        run = entry.run;
        FUZZ_CHECK(entry.kind != HlsTimeline::Kind::Map || entry.segment.map);
    }
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz::prepare();
    HlsTimeline timeline;
    HlsVariables variables;
    for (const QByteArray &text : fuzz::split(fuzz::bytes(data, size), QByteArrayLiteral("NEXT"))) {
        const HlsPlaylist playlist =
            HlsPlaylist::parse(text, QUrl(QString::fromLatin1(address)), variables);
        const bool isNone = playlist.kind == HlsPlaylist::Kind::None;
        FUZZ_CHECK(isNone == !playlist.error.isEmpty());
        FUZZ_CHECK(isNone || text.size() > ManifestAddress::sniffBytes
                   || ManifestAddress::kindOfBytes(text) == ManifestAddress::Kind::Hls);
        if (playlist.kind == HlsPlaylist::Kind::Master) {
            checkMaster(playlist);
            variables = playlist.variables;
        } else {
            checkMedia(playlist);
            const std::size_t before = timeline.entries().size();
            const bool hasGrown = timeline.take(playlist);
            FUZZ_CHECK(hasGrown == (timeline.entries().size() > before));
        }
    }
    checkTimeline(timeline);
    return 0;
}
