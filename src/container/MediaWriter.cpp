#include "MediaWriter.h"

#include "ParameterSets.h"

#include <algorithm>
#include <utility>

namespace {

// Beyond that, a run begins without the tracks that have brought nothing of it yet.
constexpr qint64 maxHeldBytes = 64 * 1024 * 1024;
// Of one piece of memory that the library takes, for example for as many samples as a segment says
// that it has. No sample is that large.
constexpr std::size_t maxAllocBytes = 64 * 1024 * 1024;
// How far a clock may be from where the manifest has it, for example because durations are rounded.
// One that is farther off is another clock.
constexpr qint64 toleranceUs = 10 * 1000 * 1000;
constexpr qint64 usPerSecond = 1000 * 1000;
// What lies farther from where clocks begin is no time; some begin in 1970.
constexpr qint64 farthestUs = 100 * 1000 * 1000 * (1000 * 1000 * 1000LL);
constexpr qint64 longestPacketUs = 24 * 3600 * usPerSecond;
constexpr qint64 mpegWrapUs = (qint64(1) << 33) * 100 / 9; // 2^33 units of 1/90000 s

qint64 usOf(int64_t time, AVRational unit)
{
    return av_rescale_q(time, unit, libav::microseconds);
}

/// When a packet is shown; its decoding time where that is not told.
std::optional<qint64> beginOf(const MediaPacket &packet)
{
    const int64_t time =
        packet.packet->pts != libav::noTime ? packet.packet->pts : packet.packet->dts;
    if (time == libav::noTime)
        return std::nullopt;
    const qint64 begin = usOf(time, packet.unit);
    return begin >= -farthestUs && begin <= farthestUs ? std::optional(begin) : std::nullopt;
}

qint64 firstTimeOf(const std::deque<MediaPacket> &packets)
{
    std::optional<qint64> first;
    for (const MediaPacket &packet : packets) {
        const std::optional<qint64> begin = beginOf(packet);
        if (begin && (!first || *begin < *first))
            first = begin;
    }
    return first.value_or(0);
}

bool isNear(qint64 one, qint64 other)
{
    return qAbs(one - other) <= toleranceUs;
}

/// Whether the format is told in the packets themselves, so that it may change from one to another.
bool tellsItself(const AVCodecParameters &format)
{
    switch (format.codec_id) {
    case AV_CODEC_ID_H264:
    case AV_CODEC_ID_HEVC: // a configuration record begins with its version, which is 1
        return format.extradata_size == 0 || format.extradata[0] != 1;
    case AV_CODEC_ID_VP8:
    case AV_CODEC_ID_VP9:
    case AV_CODEC_ID_AV1:
        return true;
    default:
        return false;
    }
}

/// Whether each frame says which channels it has.
bool tellsChannels(const AVCodecParameters &format)
{
    return format.codec_id == AV_CODEC_ID_AC3 || format.codec_id == AV_CODEC_ID_EAC3
        || format.codec_id == AV_CODEC_ID_MP3;
}

bool isSameSound(const AVCodecParameters &one, const AVCodecParameters &other)
{
    return one.sample_rate == other.sample_rate
        && (one.ch_layout.nb_channels == other.ch_layout.nb_channels || tellsChannels(one));
}

bool isSameExtra(const AVCodecParameters &one, const AVCodecParameters &other)
{
    return one.extradata_size == other.extradata_size
        && std::equal(one.extradata, one.extradata + one.extradata_size, other.extradata);
}

QByteArray extraOf(const AVCodecParameters &format)
{
    return {reinterpret_cast<const char *>(format.extradata), format.extradata_size};
}

/// Puts bytes before those of a packet. Returns false without memory.
bool prepend(AVPacket &packet, const QByteArray &bytes)
{
    const int size = packet.size;
    if (av_packet_make_writable(&packet) < 0 || av_grow_packet(&packet, bytes.size()) < 0)
        return false;
    std::copy_backward(packet.data, packet.data + size, packet.data + packet.size);
    std::copy(bytes.cbegin(), bytes.cend(), packet.data);
    return true;
}

} // namespace

MediaWriter::MediaWriter(const QVector<Rendition> &tracks, const Open &open)
    : m_open(open)
    , m_tracks(static_cast<std::size_t>(tracks.size()))
{
    av_log_set_level(AV_LOG_QUIET); // standard error is the host's
    av_max_alloc(maxAllocBytes);
    const bool hasSound = std::any_of(tracks.cbegin(), tracks.cend(), [](const Rendition &one) {
        return one.kind == Rendition::Kind::Sound;
    });
    for (int i = 0; i < tracks.size(); ++i) {
        Track &track = m_tracks.at(static_cast<std::size_t>(i));
        track.rendition = tracks.at(i);
        track.takesSound = !hasSound || tracks.at(i).kind == Rendition::Kind::Sound;
        track.demuxer = std::make_unique<TrackDemuxer>(
            [this, &track](MediaPacket &&packet) { packetCame(track, std::move(packet)); });
    }
}

MediaWriter::~MediaWriter() = default;

std::unique_ptr<MediaJoiner> MediaWriter::make(const QVector<Rendition> &tracks, const Open &open)
{
    return std::make_unique<MediaWriter>(tracks, open);
}

bool MediaWriter::fail(const QString &error)
{
    if (!m_hasFailed)
        m_error = error;
    m_hasFailed = true;
    return false;
}

qint64 MediaWriter::damagedPackets() const
{
    qint64 count = m_homeless;
    for (const Track &track : m_tracks)
        count += track.demuxer->damagedPackets();
    return count;
}

bool MediaWriter::hasContent() const
{
    return std::any_of(m_tracks.cbegin(), m_tracks.cend(),
                       [](const Track &track) { return track.entered >= 0; });
}

bool MediaWriter::take(int index, const TrackSegment &segment, const QByteArray &content)
{
    Track &track = m_tracks.at(static_cast<std::size_t>(index));
    if (m_hasFailed)
        return false;
    if (segment.role == TrackSegment::Role::Initialisation) {
        track.demuxer->setInitialisation(content);
        return !m_hasFailed;
    }
    track.reachedUs = std::max(track.reachedUs, segment.startUs);
    track.hasLaterRun = segment.hasLaterRun;
    if (content.isEmpty()) {
        ++m_missing;
        track.demuxer->flush();
        return settle();
    }
    m_isWebM = m_isWebM || SegmentBytes::kindOf(content) == SegmentBytes::Kind::WebM;
    if (segment.run != track.entered) {
        track.demuxer->beginRun();
        track.entered = segment.run;
        Waiting begin;
        begin.run = segment.run;
        begin.first = segment;
        track.waiting.push_back(std::move(begin));
    }
    const bool isTaken = track.demuxer->take(content);
    if (track.demuxer->isProtected()) {
        m_isProtected = true;
        return fail(QStringLiteral("it is encrypted, though nothing has said so"));
    }
    if (!isTaken) {
        ++m_missing;
        qWarning("segment %lld is of no use: %s", static_cast<long long>(segment.segment.number),
                 qUtf8Printable(track.demuxer->error()));
    }
    return settle();
}

bool MediaWriter::endTrack(int index)
{
    Track &track = m_tracks.at(static_cast<std::size_t>(index));
    track.demuxer->flush();
    track.hasEnded = true;
    return settle();
}

bool MediaWriter::finish()
{
    for (Track &track : m_tracks)
        track.demuxer->flush();
    m_isFinishing = true;
    const bool isStored = settle();
    if (!m_file.isBegun())
        return fail(QStringLiteral("there is no picture and no sound in it"));
    if (!m_file.end())
        return fail(m_file.error());
    return isStored;
}

/// Takes a packet from the demuxer, in the middle of its work.
void MediaWriter::packetCame(Track &track, MediaPacket &&packet)
{
    if (m_hasFailed || (packet.stream == MediaPacket::Sound && !track.takesSound)
        || (packet.stream == MediaPacket::Picture
            && track.rendition.kind == Rendition::Kind::Sound))
        return;
    if (track.waiting.empty()) {
        if (!store(track, std::move(packet)))
            m_hasFailed = true;
        return;
    }
    Waiting &waiting = track.waiting.back();
    waiting.clock = track.demuxer->clock();
    m_heldBytes += packet.packet->size;
    waiting.packets.push_back(std::move(packet));
}

/// Writes what waits for as long as nobody else has to be waited for.
bool MediaWriter::settle()
{
    for (int run = nextRun(); run >= 0 && !m_hasFailed; run = nextRun()) {
        const bool mustWait = std::any_of(m_tracks.cbegin(), m_tracks.cend(),
                                          [&](const Track &one) { return isAwaited(one, run); });
        if (mustWait && !m_isFinishing && m_heldBytes <= maxHeldBytes)
            break;
        if (!join(run))
            return fail(m_file.error());
    }
    return !m_hasFailed;
}

/// The earliest run that has packets waiting; -1 when none does.
int MediaWriter::nextRun() const
{
    int next = -1;
    for (const Track &track : m_tracks) {
        for (const Waiting &waiting : track.waiting) {
            if (!waiting.packets.empty() && (next < 0 || waiting.run < next))
                next = waiting.run;
        }
    }
    return next;
}

/// Whether a track has yet to show what it has of a run.
bool MediaWriter::isAwaited(const Track &track, int run) const
{
    if (track.hasEnded || track.run >= run)
        return false;
    if (!m_file.isBegun() && mayBringMore(track, run))
        return true;
    for (const Waiting &waiting : track.waiting) {
        if (waiting.run >= run && !waiting.packets.empty())
            return false;
        if (waiting.run >= run)
            return waiting.run == run || !m_file.isBegun();
    }
    // Without discontinuities of its own it is past the place at some time.
    const bool isPast = m_file.isBegun() && !track.hasLaterRun && track.reachedUs > startOf(run);
    return !isPast;
}

/// Whether a track may have sound or picture in a later run that it lacks in this one, such as
/// behind a silent advertisement: a file that has been begun takes up no other streams.
bool MediaWriter::mayBringMore(const Track &track, int run) const
{
    const bool hasLater = track.hasLaterRun || track.entered > run;
    if (!track.takesSound || track.rendition.kind == Rendition::Kind::Sound || !hasLater)
        return false;
    bool has[2] = {};
    for (const Waiting &waiting : track.waiting) {
        if (waiting.run > run && !waiting.packets.empty())
            return false;
        for (const MediaPacket &packet : waiting.packets)
            has[packet.stream] = true;
    }
    return has[MediaPacket::Picture] != has[MediaPacket::Sound];
}

/// Where a run begins, by the manifest.
qint64 MediaWriter::startOf(int run) const
{
    qint64 start = 0;
    for (const Track &track : m_tracks) {
        for (const Waiting &waiting : track.waiting) {
            if (waiting.run == run)
                start = std::max(start, waiting.first.startUs);
        }
    }
    return start;
}

/// Has all tracks that have something of the run go on with it.
bool MediaWriter::join(int run)
{
    std::vector<Track *> joining;
    for (Track &track : m_tracks) {
        // What has been entered but brought nothing is over if a later run waits behind it.
        while (track.waiting.size() > 1 && track.waiting.front().packets.empty())
            track.waiting.pop_front();
        if (!track.waiting.empty() && track.waiting.front().run == run
            && !track.waiting.front().packets.empty())
            joining.push_back(&track);
    }
    if (!m_file.isBegun() && !beginFile())
        return false;
    if (run > m_run.number)
        beginRun(run, joining);
    for (Track *const track : joining) {
        const Waiting &begin = track->waiting.front();
        const qint64 first = firstTimeOf(begin.packets);
        const qint64 end = std::max(track->outputs[0].endUs, track->outputs[1].endUs);
        const qint64 place = m_run.shiftUs + positionOf(begin);
        track->offsetUs = (run == m_run.number ? std::max(place, end) : end) - first;
        for (Output &output : track->outputs)
            output.offsetUs = track->offsetUs;
        track->run = run;
    }
    return std::all_of(joining.begin(), joining.end(),
                       [this](Track *track) { return writeWaiting(*track); });
}

/// Lays the clocks of a run so that it begins where what is written of its tracks ends.
void MediaWriter::beginRun(int run, const std::vector<Track *> &joining)
{
    m_run = Run();
    m_run.number = run;
    const Waiting &leader = joining.front()->waiting.front();
    m_run.clock = leader.clock;
    m_run.originUs = firstTimeOf(leader.packets) - std::max<qint64>(0, leader.first.startUs);
    qint64 end = 0;
    qint64 begin = std::numeric_limits<qint64>::max();
    for (const Track *const track : joining) {
        for (const Output &output : track->outputs)
            end = std::max(end, output.endUs);
        begin = std::min(begin, positionOf(track->waiting.front()));
    }
    m_run.shiftUs = end - begin;
}

/// Where the first packet of a track's run is on the presentation's clock.
qint64 MediaWriter::positionOf(const Waiting &begin) const
{
    const qint64 first = firstTimeOf(begin.packets);
    const qint64 told = std::max<qint64>(0, begin.first.startUs);
    if (begin.first.isClockKnown) {
        const qint64 position = first - begin.first.clockZeroUs;
        if (begin.first.startUs < 0 || isNear(position, told))
            return position;
    }
    if (begin.clock != m_run.clock || begin.clock == TrackDemuxer::Clock::None)
        return told;
    qint64 position = first - m_run.originUs;
    if (begin.clock == TrackDemuxer::Clock::Mpeg) {
        const qint64 wraps = (position - told + (position > told ? 1 : -1) * mpegWrapUs / 2)
            / mpegWrapUs; // one of the two may be past the point where the clock begins again
        position -= wraps * mpegWrapUs;
    }
    return isNear(position, told) ? position : told;
}

/// Begins the file with the streams that there are, in whatever run.
bool MediaWriter::beginFile()
{
    QVector<MediaFile::Stream> streams;
    QVector<libav::Format> formats;
    for (Track &track : m_tracks) {
        for (const Waiting &waiting : track.waiting) {
            for (const MediaPacket &packet : waiting.packets) {
                Output &output = track.outputs[packet.stream];
                if (output.stream >= 0)
                    continue;
                output.stream = streams.size();
                output.format = output.begun = packet.format;
                formats += packet.format;
                const QString language =
                    packet.stream == MediaPacket::Sound ? track.rendition.language : QString();
                streams += {packet.format, packet.unit, language};
            }
        }
    }
    const MediaFile::Container container = MediaFile::containerFor(formats, m_isWebM);
    const std::optional<MediaFile::Output> output = m_open(MediaFile::extensionOf(container));
    if (!output)
        return fail(QStringLiteral("the file cannot be opened"));
    return m_file.begin(container, streams, *output) || fail(m_file.error());
}

bool MediaWriter::writeWaiting(Track &track)
{
    std::deque<MediaPacket> packets = std::move(track.waiting.front().packets);
    track.waiting.pop_front();
    for (MediaPacket &packet : packets) {
        m_heldBytes -= packet.packet->size;
        if (!store(track, std::move(packet)))
            return false;
    }
    return true;
}

bool MediaWriter::store(Track &track, MediaPacket &&packet)
{
    Output &output = track.outputs[packet.stream];
    if (output.stream < 0) {
        ++m_homeless; // it was not there when the file was begun
        return true;
    }
    if (!canGoOnWith(output, packet))
        return false;
    const bool isKey = (packet.packet->flags & AV_PKT_FLAG_KEY) != 0;
    if (packet.stream == MediaPacket::Picture && isKey && !output.parameterSets.isEmpty()
        && !prepend(*packet.packet, output.parameterSets))
        return fail(QStringLiteral("there is no memory left"));
    const std::optional<qint64> begin = beginOf(packet);
    if (begin) {
        const qint64 duration =
            qBound<qint64>(0, usOf(packet.packet->duration, packet.unit), longestPacketUs);
        followJump(track, output, *begin);
        output.endUs = qBound(output.endUs, *begin + output.offsetUs + duration,
                              qMax(output.endUs, farthestUs));
    }
    if (output.isLeftOut) {
        ++m_homeless;
        return true;
    }
    return m_file.write(output.stream, std::move(packet), output.offsetUs) || fail(m_file.error());
}

/// Goes on where the clock jumps back though no discontinuity is told. Each stream of the track
/// does when its own packets do, by the same step.
void MediaWriter::followJump(Track &track, Output &output, qint64 beginUs)
{
    if (beginUs + output.offsetUs >= output.endUs - toleranceUs)
        return;
    if (output.offsetUs == track.offsetUs || !isNear(beginUs + track.offsetUs, output.endUs))
        track.offsetUs = std::max(track.outputs[0].endUs, track.outputs[1].endUs) - beginUs;
    output.offsetUs = track.offsetUs;
}

/// Whether the packet plays in the stream as it was begun. A file has one description of a stream:
/// what does not match it, and does not say itself what it is, would be shown or heard wrong.
bool MediaWriter::canGoOnWith(Output &output, const MediaPacket &packet)
{
    if (output.format == packet.format)
        return true;
    const AVCodecParameters &begun = *output.begun;
    const AVCodecParameters &now = *packet.format;
    const bool isPicture = packet.stream == MediaPacket::Picture;
    const bool isSame = begun.codec_id == now.codec_id
        && (isPicture ? (tellsItself(begun) && tellsItself(now)) || isSameExtra(begun, now)
                      : isSameSound(begun, now) && isSameExtra(begun, now));
    const bool needsSets = isPicture && (!isSame || !output.parameterSets.isEmpty())
        && !(tellsItself(begun) && tellsItself(now));
    if (isPicture && (needsSets ? !takeOverSets(output, packet) : !isSame))
        return fail(QStringLiteral("the picture changes its format in mid-stream"));
    if (!isPicture && !isSame && !output.isLeftOut && !leaveOut(output, packet))
        return false;
    output.isLeftOut = !isPicture && !isSame;
    output.format = packet.format;
    return true;
}

/// Tells that sound is left out from here on. Returns false where nothing else is left of the
/// file.
bool MediaWriter::leaveOut(Output &output, const MediaPacket &packet)
{
    const bool hasPicture = std::any_of(m_tracks.cbegin(), m_tracks.cend(), [](const Track &track) {
        return track.outputs[MediaPacket::Picture].stream >= 0;
    });
    if (!hasPicture)
        return fail(QStringLiteral("the sound changes its format in mid-stream"));
    const AVCodecParameters &now = *packet.format;
    qWarning(
        "the sound changes its format at %lld s (%s, %d Hz, %d channels): it is left out until "
        "it is what it was",
        static_cast<long long>((output.endUs + usPerSecond / 2) / usPerSecond),
        avcodec_get_name(now.codec_id), now.sample_rate, now.ch_layout.nb_channels);
    return true;
}

/// Has the parameter sets of a picture that is described otherwise go along with its packets.
/// Returns false where they cannot.
bool MediaWriter::takeOverSets(Output &output, const MediaPacket &packet)
{
    const AVCodecID codec = output.begun->codec_id;
    if (codec != packet.format->codec_id
        || (codec != AV_CODEC_ID_H264 && codec != AV_CODEC_ID_HEVC))
        return false;
    const auto kind =
        codec == AV_CODEC_ID_H264 ? ParameterSets::Codec::H264 : ParameterSets::Codec::Hevc;
    const int lengthBytes = ParameterSets::lengthBytes(extraOf(*output.begun), kind);
    const std::optional<QByteArray> sets =
        ParameterSets::units(extraOf(*packet.format), kind, lengthBytes);
    output.parameterSets = sets.value_or(QByteArray());
    return sets.has_value();
}
