// A rendition's bootstrap: box headers, segment and fragment run tables, and what follows from
// them.
#include "AdobeData.h"
#include "AdobeParser.h"
#include "AdobePreference.h"
#include "FuzzSupport.h"
#include "HdsFixtures.h"

namespace {

constexpr int segmentEntryBytes = 8;
constexpr int fragmentEntryBytes = 16;
constexpr int shortTable = 64;

struct Stream
{
    bool isReadable = false;
    bool isLive = false;
    int fragmentCount = 0;
    int startSegment = 0;
    int startFragment = 0;
    QVariantList segments;
    QVariantList fragments;
};

qint64 number(const QVariant &entry, const char *key)
{
    return entry.toMap().value(QLatin1String(key)).toLongLong();
}

Stream read(const QByteArray &bootstrap)
{
    auto *const preference = CAdobePreference::GetInstance();
    auto *const data = CAdobeData::GetInstance();
    preference->Reset();
    data->Reset();
    data->SetMedia({{QStringLiteral("bootstrap"), bootstrap}});

    CAdobeParser parser;
    Stream stream;
    stream.isReadable = parser.ParseBootstrap();
    stream.isLive = preference->GetOption(QStringLiteral("bLive")).toBool();
    stream.fragmentCount = data->GetFragCount();
    stream.startSegment = parser.StartSegment();
    stream.startFragment = parser.StartFragment();
    stream.segments = data->GetSegmentTable().toList();
    stream.fragments = data->GetFragmentTable().toList();
    return stream;
}

/// The rule of GetSegmentFromFragment() word for word, round after round.
qint64 segmentOf(const Stream &stream, int fragment)
{
    const qint64 last = number(stream.segments.constLast(), "firstSegment");
    const qint64 first = number(stream.segments.constFirst(), "firstSegment");
    qint64 start =
        stream.fragments.isEmpty() ? 1 : number(stream.fragments.constFirst(), "firstFragment");
    QVariant entry = stream.segments.constFirst();
    qint64 i = first;
    for (; i <= last; ++i) {
        if (i >= 0 && i < stream.segments.size())
            entry = stream.segments.at(static_cast<int>(i));
        const qint64 end = start + number(entry, "fragmentsPerSegment");
        if (start <= fragment && fragment < end)
            return i;
        start = end;
    }
    return qMax(first, last);
}

void checkSegments(const Stream &stream)
{
    const CAdobeData *const data = CAdobeData::GetInstance();
    const int middle = stream.fragmentCount / 2;
    for (const int fragment : {0, 1, 2, middle, stream.fragmentCount}) {
        const QVariant segment = data->GetSegmentFromFragment(fragment);
        FUZZ_CHECK(segment.isValid() == !stream.segments.isEmpty());
        if (stream.segments.size() < 2)
            continue;
        const qint64 first = number(stream.segments.constFirst(), "firstSegment");
        const qint64 last = number(stream.segments.constLast(), "firstSegment");
        if (last - first < shortTable)
            FUZZ_CHECK(segment.toLongLong() == segmentOf(stream, fragment));
    }
}

/// A bootstrap that holds the same tables and nothing around them.
QByteArray plainBootstrap(const Stream &stream)
{
    hds::Bootstrap bootstrap;
    bootstrap.isLive = stream.isLive;
    for (const QVariant &entry : stream.segments) {
        bootstrap.segments += {static_cast<quint32>(number(entry, "firstSegment")),
                               static_cast<quint32>(number(entry, "fragmentsPerSegment"))};
    }
    for (const QVariant &entry : stream.fragments) {
        const qint64 duration = number(entry, "fragmentDuration");
        bootstrap.fragments +=
            {static_cast<quint32>(number(entry, "firstFragment")),
             static_cast<quint64>(number(entry, "firstFragmentTimestamp")),
             static_cast<quint32>(duration),
             duration == 0 ? static_cast<int>(number(entry, "discontinuityIndicator")) : -1};
    }
    return bootstrap.abst();
}

/// Reading makes the last entry go when it marks the end; what is left may end in such an entry too
/// and would lose it when it is read again.
bool endsWithEndMark(const Stream &stream)
{
    return stream.fragments.isEmpty()
        || (number(stream.fragments.constLast(), "fragmentDuration") == 0
            && number(stream.fragments.constLast(), "discontinuityIndicator") == 0);
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz::prepare();
    const QByteArray input = fuzz::bytes(data, size);
    const Stream stream = read(input);
    FUZZ_CHECK(fuzz::takeLines().size() <= 2);
    FUZZ_CHECK(stream.isReadable == (stream.fragmentCount > 0));
    FUZZ_CHECK(stream.fragmentCount >= 0 && stream.startSegment >= 1 && stream.startFragment >= 0);
    FUZZ_CHECK(stream.segments.size() <= input.size() / segmentEntryBytes);
    FUZZ_CHECK(stream.fragments.size() <= input.size() / fragmentEntryBytes);
    checkSegments(stream);

    if (!stream.isReadable || endsWithEndMark(stream))
        return 0;
    const Stream again = read(plainBootstrap(stream));
    FUZZ_CHECK(again.isReadable);
    FUZZ_CHECK(again.segments == stream.segments && again.fragments == stream.fragments);
    FUZZ_CHECK(again.fragmentCount == stream.fragmentCount && again.isLive == stream.isLive);
    FUZZ_CHECK(again.startSegment == stream.startSegment
               && again.startFragment == stream.startFragment);
    return 0;
}
