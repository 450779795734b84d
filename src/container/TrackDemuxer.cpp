#include "TrackDemuxer.h"

#include "AdtsHeader.h"
#include "MemoryInput.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace {

constexpr int64_t wrapTicks = int64_t(1) << 33;
constexpr AVRational mpegUnit{1, 90000};
constexpr char maxStreams[] = "64"; // of a segment; what is beyond is no presentation
constexpr qint64 maxProbeBytes = 5 * 1024 * 1024;
constexpr int maxHeadBytes = 4096; // in which a segment that has a beginning describes itself

const char *demuxerOf(SegmentBytes::Kind kind)
{
    switch (kind) {
    case SegmentBytes::Kind::TransportStream:
        return "mpegts";
    case SegmentBytes::Kind::Mp4:
        return "mov";
    case SegmentBytes::Kind::WebM:
        return "matroska";
    case SegmentBytes::Kind::Adts:
        return "aac";
    case SegmentBytes::Kind::Mp3:
        return "mp3";
    case SegmentBytes::Kind::Ac3:
        return "ac3";
    case SegmentBytes::Kind::Eac3:
        return "eac3";
    case SegmentBytes::Kind::Unknown:
        break;
    }
    return nullptr;
}

/// Whatever a segment names, nothing is opened for it.
int refuseToOpen(AVFormatContext *, AVIOContext **context, const char *, int, AVDictionary **)
{
    *context = nullptr;
    return AVERROR(EACCES);
}

/// The time that the clock of 33 bits shows, as near to the last one as it can be meant.
int64_t nearestTo(int64_t last, int64_t time)
{
    int64_t step = (time - last) % wrapTicks;
    if (step >= wrapTicks / 2)
        step -= wrapTicks;
    else if (step < -wrapTicks / 2)
        step += wrapTicks;
    return last + step;
}

bool isSame(const AVCodecParameters &one, const AVCodecParameters &other)
{
    return one.codec_id == other.codec_id && one.width == other.width && one.height == other.height
        && one.sample_rate == other.sample_rate
        && one.ch_layout.nb_channels == other.ch_layout.nb_channels
        && one.extradata_size == other.extradata_size
        && (one.extradata_size == 0
            || std::memcmp(one.extradata, other.extradata,
                           static_cast<std::size_t>(one.extradata_size))
                == 0);
}

/// Whether an initialisation section describes encrypted samples: their entries have names of their
/// own and say in a box within what they are.
bool isOfProtected(const QByteArray &section)
{
    return (section.contains("encv") || section.contains("enca")) && section.contains("sinf")
        && section.contains("schm");
}

/// Whether the beginning of a stream describes a picture of VP9. When the library writes such a
/// description it asks for the kind of samples, which it does not tell when it has read one.
bool isOfVp9(const QByteArray &section)
{
    return section.contains("vp09") || section.contains("V_VP9");
}

bool setExtradata(AVCodecParameters &format, const QByteArray &bytes)
{
    const auto size = static_cast<std::size_t>(bytes.size());
    auto *const data = static_cast<uint8_t *>(av_mallocz(size + AV_INPUT_BUFFER_PADDING_SIZE));
    if (!data)
        return false;
    std::memcpy(data, bytes.constData(), size);
    av_freep(&format.extradata);
    format.extradata = data;
    format.extradata_size = bytes.size();
    return true;
}

} // namespace

/// One use of the library's reader.
struct TrackDemuxer::Context
{
    explicit Context(MemoryInput::Kind kind)
        : input(kind)
        , format(avformat_alloc_context())
    {
    }

    ~Context() { avformat_close_input(&format); }
    Q_DISABLE_COPY(Context)

    MemoryInput input; // outlives its reader
    AVFormatContext *format;
};

TrackDemuxer::TrackDemuxer(const Take &take)
    : m_take(take)
{
}

TrackDemuxer::~TrackDemuxer() = default;

void TrackDemuxer::setInitialisation(const QByteArray &section)
{
    if (m_streamed && section != m_initialisation)
        flush();
    m_initialisation = section;
    m_isProtected = m_isProtected || isOfProtected(section);
    if (m_streamed)
        m_streamed->input.append(section);
}

bool TrackDemuxer::take(const QByteArray &segment)
{
    SegmentBytes::Kind kind = SegmentBytes::kindOf(segment);
    if (kind == SegmentBytes::Kind::Unknown)
        kind = SegmentBytes::kindOf(m_initialisation);
    if (kind == SegmentBytes::Kind::Unknown && m_streamed)
        kind = m_streamedKind;
    if (kind == SegmentBytes::Kind::Unknown) {
        m_error = QStringLiteral("it is of no kind that is known");
        return false;
    }
    if (kind == SegmentBytes::Kind::Mp4 || kind == SegmentBytes::Kind::WebM)
        return takeBoxes(segment, kind);
    return takeStreamed(segment, kind);
}

bool TrackDemuxer::takeBoxes(const QByteArray &segment, SegmentBytes::Kind kind)
{
    flush();
    if (m_isProtected)
        return false;
    Context context(MemoryInput::Kind::Whole);
    context.input.append(m_initialisation);
    context.input.append(segment);
    m_clock = Clock::Boxes;
    const bool isFirst = !m_states[MediaPacket::Picture].format;
    if (!open(context, kind, isFirst && isOfVp9(m_initialisation + segment.left(maxHeadBytes))))
        return false;
    read(context, -1);
    return true;
}

bool TrackDemuxer::takeStreamed(const QByteArray &segment, SegmentBytes::Kind kind)
{
    if (m_streamed && kind != m_streamedKind)
        beginRun();
    const bool isFirst = !m_streamed;
    const bool isPacked = SegmentBytes::isPackedAudio(kind);
    if (isFirst) {
        m_streamed = std::make_unique<Context>(MemoryInput::Kind::Growing);
        m_streamedKind = kind;
        m_streamed->input.append(m_initialisation);
        m_packedTime = isPacked ? SegmentBytes::id3Time(segment) : std::nullopt;
        m_nextPacked.reset();
        m_clock = isPacked && !m_packedTime ? Clock::None : Clock::Mpeg;
    }
    const QByteArray content = isPacked ? segment.mid(SegmentBytes::id3Bytes(segment)) : segment;
    m_streamed->input.append(content);
    const bool isOpen = m_streamed->format && m_streamed->format->iformat;
    if (isFirst) {
        m_lastBytes = content.size();
        return true;
    }
    if (!isOpen && !open(*m_streamed, kind, true)) {
        m_streamed.reset();
        m_lastBytes = 0;
        return false;
    }
    m_lastBytes = content.size();
    read(*m_streamed, m_lastBytes);
    return true;
}

void TrackDemuxer::flush()
{
    if (!m_streamed)
        return;
    const bool isOpen = m_streamed->format && m_streamed->format->iformat;
    if (!isOpen && !open(*m_streamed, m_streamedKind, true)) {
        m_streamed.reset();
        return;
    }
    read(*m_streamed, -1);
    m_streamed->input.goOn();
    m_lastBytes = 0;
    if (SegmentBytes::isPackedAudio(m_streamedKind))
        m_streamed.reset(); // what follows has a time of its own
}

void TrackDemuxer::beginRun()
{
    flush();
    m_streamed.reset();
    m_lastTime.reset();
}

/// Opens the reader of what the context's input has. Returns false when that is nothing of use.
bool TrackDemuxer::open(Context &context, SegmentBytes::Kind kind, bool mustProbe)
{
    const AVInputFormat *const reader = av_find_input_format(demuxerOf(kind));
    if (!context.format || !context.input.context() || !reader) {
        m_error = QStringLiteral("there is no reader for it");
        return false;
    }
    const qint64 probeBytes = std::min(maxProbeBytes, context.input.remaining());
    AVFormatContext &format = *context.format;
    format.pb = context.input.context();
    format.io_open = &refuseToOpen;
    format.flags |= AVFMT_FLAG_CUSTOM_IO;
    format.correct_ts_overflow = 0; // is done here, across all segments
    format.probesize = std::max<qint64>(probeBytes, 4096);
    AVDictionary *options = nullptr;
    av_dict_set(&options, "protocol_whitelist", "", 0);
    av_dict_set(&options, "format_whitelist", reader->name, 0);
    av_dict_set(&options, "max_streams", maxStreams, 0);
    int code = avformat_open_input(&context.format, "", reader, &options);
    av_dict_free(&options);
    if (code >= 0 && mustProbe)
        code = avformat_find_stream_info(context.format, nullptr);
    if (code < 0 || !context.format) {
        m_error = QStringLiteral("it cannot be read as %1").arg(QLatin1String(reader->name));
        return false;
    }
    m_states[MediaPacket::Picture].index = -1;
    m_states[MediaPacket::Sound].index = -1;
    return true;
}

/// Gives away packets while more than so many bytes of the input have not been read; with a
/// negative number to the end.
void TrackDemuxer::read(Context &context, qint64 until)
{
    while (context.input.remaining() > until) {
        libav::Packet packet(av_packet_alloc());
        if (!packet || av_read_frame(context.format, packet.get()) < 0)
            return;
        give(context, std::move(packet));
    }
}

void TrackDemuxer::give(Context &context, libav::Packet packet)
{
    StreamState *const state = stateOf(context, *packet);
    if (!state || packet->size <= 0)
        return;
    if (av_packet_get_side_data(packet.get(), AV_PKT_DATA_ENCRYPTION_INFO, nullptr)) {
        m_isProtected = true;
        return;
    }
    const AVRational unit = context.format->streams[packet->stream_index]->time_base;
    const bool isPacked = m_streamed && SegmentBytes::isPackedAudio(m_streamedKind);
    if (isPacked)
        countTime(*packet, unit);
    else if (m_clock == Clock::Mpeg)
        unwrap(*packet);
    if (state->format->codec_id == AV_CODEC_ID_AAC && m_clock != Clock::Boxes
        && !takeOffHeader(*state, *packet)) {
        ++m_damagedPackets;
        return;
    }
    MediaPacket given;
    given.packet = std::move(packet);
    given.unit = unit;
    given.stream =
        state == &m_states[MediaPacket::Picture] ? MediaPacket::Picture : MediaPacket::Sound;
    given.format = state->format;
    m_take(std::move(given));
}

/// The stream that the packet belongs to; null when it is not taken up.
TrackDemuxer::StreamState *TrackDemuxer::stateOf(Context &context, const AVPacket &packet)
{
    const AVStream &stream = *context.format->streams[packet.stream_index];
    const AVCodecParameters &format = *stream.codecpar;
    const bool isPicture = format.codec_type == AVMEDIA_TYPE_VIDEO
        && (stream.disposition & AV_DISPOSITION_ATTACHED_PIC) == 0;
    if (!isPicture && format.codec_type != AVMEDIA_TYPE_AUDIO)
        return nullptr;
    StreamState &state = m_states[isPicture ? MediaPacket::Picture : MediaPacket::Sound];
    if (state.index < 0) {
        if (format.codec_id == AV_CODEC_ID_NONE)
            return nullptr;
        state.index = packet.stream_index;
        adoptFormat(state, format);
    }
    return state.index == packet.stream_index && state.format ? &state : nullptr;
}

/// Notes the format of a stream that begins, which is often that of the one before.
void TrackDemuxer::adoptFormat(StreamState &state, const AVCodecParameters &format)
{
    const bool hasConfig = !state.config.isEmpty() && format.codec_id == AV_CODEC_ID_AAC
        && m_clock != Clock::Boxes; // is compared by each packet's header
    if (!state.format || (!hasConfig && !isSame(*state.format, format))) {
        state.format = libav::copyOf(format);
        state.config.clear();
    }
}

/// Takes the header off a frame of AAC. Returns false when the frame is not what its header says.
bool TrackDemuxer::takeOffHeader(StreamState &state, AVPacket &packet)
{
    const std::optional<AdtsHeader> header = AdtsHeader::parse(packet.data, packet.size);
    if (!header || header->frameBytes != packet.size)
        return false;
    if (header->config != state.config) {
        const libav::Format changed = libav::copyOf(*state.format);
        if (!changed || !setExtradata(*changed, header->config))
            return false;
        changed->sample_rate = header->sampleRate;
        if (header->channels > 0 && changed->ch_layout.nb_channels != header->channels)
            av_channel_layout_default(&changed->ch_layout, header->channels);
        state.format = changed;
        state.config = header->config;
    }
    packet.data += header->headerBytes;
    packet.size -= header->headerBytes;
    return true;
}

/// Follows the clock of 33 bits where it begins again at 0.
void TrackDemuxer::unwrap(AVPacket &packet)
{
    const auto follow = [this](int64_t time) { return nearestTo(m_lastTime.value_or(time), time); };
    if (packet.dts != libav::noTime)
        packet.dts = follow(packet.dts);
    if (packet.pts != libav::noTime)
        packet.pts = follow(packet.pts);
    const int64_t time = packet.dts != libav::noTime ? packet.dts : packet.pts;
    if (time != libav::noTime)
        m_lastTime = time;
}

/// Packed sound has no times but that of its beginning: the packets follow one another.
void TrackDemuxer::countTime(AVPacket &packet, AVRational unit)
{
    if (!m_nextPacked) {
        int64_t begin = m_packedTime.value_or(0);
        if (m_packedTime && m_lastTime)
            begin = nearestTo(*m_lastTime, begin);
        else if (m_lastTime)
            begin = *m_lastTime;
        m_nextPacked = av_rescale_q(begin, mpegUnit, unit);
    }
    packet.pts = packet.dts = *m_nextPacked;
    *m_nextPacked += std::max<int64_t>(packet.duration, 0);
    m_lastTime = av_rescale_q(*m_nextPacked, unit, mpegUnit);
}
