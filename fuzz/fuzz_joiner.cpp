// Segments of one track, and the file that is made of them. The first byte says what is changed on
// the way; the word "NEXT" keeps the segments apart, and the first part is the initialisation
// section.
#include "FuzzSupport.h"
#include "MediaWriter.h"
#include "SegmentBytes.h"

#include <algorithm>

namespace {

constexpr int maxSegments = 16;

/// What has been written, in memory.
struct Written
{
    QByteArray bytes;
    qint64 position = 0;
    bool isOpen = false;
};

MediaFile::Output outputTo(Written &written)
{
    MediaFile::Output output;
    output.write = [&written](const char *data, qint64 bytes) {
        const auto end = static_cast<int>(written.position + bytes);
        if (end > written.bytes.size())
            written.bytes.resize(end);
        std::copy_n(data, bytes, written.bytes.data() + written.position);
        written.position = end;
        return true;
    };
    output.seek = [&written](qint64 position) {
        FUZZ_CHECK(position >= 0 && position <= written.bytes.size());
        written.position = position;
        return true;
    };
    return output;
}

/// The file that comes of the segments; each begins a run of its own if they are said to.
QByteArray joined(const QList<QByteArray> &parts, bool areRuns)
{
    Written written;
    MediaWriter writer({Rendition()}, [&written](const QString &) {
        FUZZ_CHECK(!written.isOpen);
        written.isOpen = true;
        return outputTo(written);
    });
    TrackSegment segment;
    segment.role = TrackSegment::Role::Initialisation;
    bool goesOn = writer.take(0, segment, parts.constFirst());
    segment.role = TrackSegment::Role::Media;
    const int count = std::min(parts.size(), maxSegments);
    for (int i = 1; i < count && goesOn; ++i) {
        segment.segment.number = i;
        segment.run = areRuns ? i : 0;
        segment.hasLaterRun = areRuns && i + 1 < count;
        segment.startUs = i * 2000000LL;
        goesOn = writer.take(0, segment, parts.at(i));
    }
    FUZZ_CHECK(goesOn || !writer.error().isEmpty());
    const bool isWhole = writer.finish();
    FUZZ_CHECK(isWhole || !writer.error().isEmpty());
    FUZZ_CHECK(!isWhole || (written.isOpen && !written.bytes.isEmpty()));
    FUZZ_CHECK(!writer.isBegun() || written.isOpen);
    return written.bytes;
}

void checkBytes(const QByteArray &part)
{
    const int tags = SegmentBytes::id3Bytes(part);
    FUZZ_CHECK(tags >= 0 && tags <= part.size());
    const std::optional<qint64> time = SegmentBytes::id3Time(part);
    FUZZ_CHECK(!time || (*time >= 0 && *time < (qint64(1) << 33) && tags > 0));
    FUZZ_CHECK(!SegmentBytes::isWhole(part)
               || SegmentBytes::kindOf(part) != SegmentBytes::Kind::Unknown);
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz::prepare();
    if (size == 0)
        return 0;
    const QList<QByteArray> parts =
        fuzz::split(fuzz::bytes(data + 1, size - 1), QByteArrayLiteral("NEXT"));
    std::for_each(parts.cbegin(), parts.cend(), checkBytes);
    const bool areRuns = data[0] % 2 != 0;
    const QByteArray file = joined(parts, areRuns);
    FUZZ_CHECK(file == joined(parts, areRuns)); // the same each time
    return 0;
}
