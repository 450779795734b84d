#include "MediaFile.h"

#include <algorithm>
#include <array>

namespace {

constexpr int bufferBytes = 256 * 1024;
// Of a fragment: what is held in memory before it is written.
constexpr char fragmentBytes[] = "4194304";
constexpr char fragmentUs[] = "10000000";

// Steps from sample to sample have 31 bits in MP4 (ISO/IEC 14496-12, section 8.8.8), and the
// library ends the process over a longer one. By this unit that is more than half an hour.
constexpr int64_t longestStep = std::numeric_limits<int>::max() - 1;
constexpr AVRational finestUnit = libav::microseconds;

bool isOneOf(std::initializer_list<AVCodecID> codecs, const libav::Format &format)
{
    return std::find(codecs.begin(), codecs.end(), format->codec_id) != codecs.end();
}

bool fitsMp4(const libav::Format &format)
{
    return isOneOf({AV_CODEC_ID_H264, AV_CODEC_ID_HEVC, AV_CODEC_ID_AV1, AV_CODEC_ID_VP9,
                    AV_CODEC_ID_MPEG4, AV_CODEC_ID_AAC, AV_CODEC_ID_MP3, AV_CODEC_ID_AC3,
                    AV_CODEC_ID_EAC3, AV_CODEC_ID_OPUS, AV_CODEC_ID_FLAC},
                   format);
}

bool fitsWebM(const libav::Format &format)
{
    return isOneOf(
        {AV_CODEC_ID_VP8, AV_CODEC_ID_VP9, AV_CODEC_ID_AV1, AV_CODEC_ID_VORBIS, AV_CODEC_ID_OPUS},
        format);
}

const char *muxerOf(MediaFile::Container container)
{
    switch (container) {
    case MediaFile::Container::Mp4:
        return "mp4";
    case MediaFile::Container::Matroska:
        return "matroska";
    case MediaFile::Container::WebM:
        break;
    }
    return "webm";
}

QString textOf(int code)
{
    std::array<char, AV_ERROR_MAX_STRING_SIZE> text{};
    av_strerror(code, text.data(), text.size());
    return QString::fromUtf8(text.data());
}

} // namespace

struct MediaFile::Context
{
    explicit Context(const Output &to)
        : output(to)
    {
        auto *const buffer = static_cast<unsigned char *>(av_malloc(bufferBytes));
        if (buffer)
            input = avio_alloc_context(buffer, bufferBytes, 1, this, nullptr, &Context::write,
                                       output.seek ? &Context::seek : nullptr);
        if (!input)
            av_free(buffer);
    }

    ~Context()
    {
        avformat_free_context(format);
        if (input)
            av_freep(&input->buffer);
        avio_context_free(&input);
    }

    Q_DISABLE_COPY(Context)

    static int write(void *opaque, uint8_t *data, int bytes)
    {
        auto *const self = static_cast<Context *>(opaque);
        if (!self->output.write(reinterpret_cast<const char *>(data), bytes)) {
            self->hasFailed = true;
            return AVERROR(EIO);
        }
        self->position += bytes;
        self->size = std::max(self->size, self->position);
        return bytes;
    }

    static int64_t seek(void *opaque, int64_t offset, int whence)
    {
        auto *const self = static_cast<Context *>(opaque);
        constexpr int force = AVSEEK_FORCE;
        switch (whence & ~force) {
        case AVSEEK_SIZE:
            return self->size;
        case SEEK_SET:
            break;
        case SEEK_CUR:
            offset += self->position;
            break;
        default:
            offset += self->size;
            break;
        }
        if (offset < 0 || !self->output.seek(offset))
            return AVERROR(EIO);
        self->position = offset;
        return offset;
    }

    const Output output;
    AVIOContext *input = nullptr;
    AVFormatContext *format = nullptr;
    int64_t position = 0;
    int64_t size = 0;
    bool hasFailed = false; // to write
};

MediaFile::MediaFile() = default;

MediaFile::~MediaFile() = default;

MediaFile::Container MediaFile::containerFor(const QVector<libav::Format> &formats, bool isWebM)
{
    if (isWebM && std::all_of(formats.cbegin(), formats.cend(), fitsWebM))
        return Container::WebM;
    return std::all_of(formats.cbegin(), formats.cend(), fitsMp4) ? Container::Mp4
                                                                  : Container::Matroska;
}

QString MediaFile::extensionOf(Container container)
{
    switch (container) {
    case Container::Mp4:
        return QStringLiteral("mp4");
    case Container::Matroska:
        return QStringLiteral("mkv");
    case Container::WebM:
        break;
    }
    return QStringLiteral("webm");
}

bool MediaFile::fail(const char *what, int code)
{
    m_error = QStringLiteral("%1: %2").arg(QLatin1String(what), textOf(code));
    return false;
}

bool MediaFile::begin(Container container, const QVector<Stream> &streams, const Output &output)
{
    m_context = std::make_unique<Context>(output);
    if (!m_context->input
        || avformat_alloc_output_context2(&m_context->format, nullptr, muxerOf(container), nullptr)
            < 0)
        return fail("the file cannot be begun", AVERROR(ENOMEM));
    AVFormatContext &format = *m_context->format;
    format.pb = m_context->input;
    format.flags |= AVFMT_FLAG_CUSTOM_IO | AVFMT_FLAG_BITEXACT;
    format.flags &= ~AVFMT_FLAG_AUTO_BSF; // packets come as they are to be stored
    format.avoid_negative_ts = AVFMT_AVOID_NEG_TS_DISABLED;
    // Versions of the library that know FLAC in MP4 as an experiment write it as players read it.
    format.strict_std_compliance = FF_COMPLIANCE_EXPERIMENTAL;
    for (const Stream &stream : streams) {
        if (!addStream(stream))
            return fail("a stream has no place in the file", AVERROR(ENOMEM));
    }
    AVDictionary *options = nullptr;
    if (container == Container::Mp4) {
        av_dict_set(&options, "movflags", "frag_keyframe+delay_moov+default_base_moof", 0);
        av_dict_set(&options, "frag_size", fragmentBytes, 0);
        av_dict_set(&options, "frag_duration", fragmentUs, 0);
    }
    const int code = avformat_write_header(&format, &options);
    av_dict_free(&options);
    m_lastDts.fill(libav::noTime, streams.size());
    m_isBegun = code >= 0; // a file without a head has no end either
    return m_isBegun || fail("the file's head cannot be written", code);
}

bool MediaFile::addStream(const Stream &stream)
{
    AVStream *const added = avformat_new_stream(m_context->format, nullptr);
    if (!added || avcodec_parameters_copy(added->codecpar, stream.format.get()) < 0)
        return false;
    added->codecpar->codec_tag = 0; // each container has its own
    added->time_base = av_cmp_q(stream.unit, finestUnit) < 0 ? finestUnit : stream.unit;
    if (!stream.language.isEmpty())
        av_dict_set(&added->metadata, "language", stream.language.toUtf8().constData(), 0);
    return true;
}

bool MediaFile::write(int stream, MediaPacket &&packet, qint64 offsetUs)
{
    setTimes(stream, packet, offsetUs);
    const int code = av_interleaved_write_frame(m_context->format, packet.packet.get());
    if (m_context->hasFailed)
        return fail("the file cannot be written", AVERROR(EIO));
    return code >= 0 || fail("a packet cannot be stored", code);
}

void MediaFile::setTimes(int stream, MediaPacket &packet, qint64 offsetUs)
{
    AVPacket &raw = *packet.packet;
    const AVRational unit = m_context->format->streams[stream]->time_base;
    const int64_t offset = av_rescale_q(offsetUs, libav::microseconds, unit);
    int64_t &last = m_lastDts[stream];
    av_packet_rescale_ts(&raw, packet.unit, unit);
    raw.pts = libav::movedBy(raw.pts, offset);
    raw.dts = libav::movedBy(raw.dts, offset);
    if (raw.dts == libav::noTime)
        raw.dts = raw.pts != libav::noTime && (last == libav::noTime || raw.pts > last) ? raw.pts
            : last != libav::noTime                                                     ? last + 1
                                                                                        : 0;
    if (last != libav::noTime && (raw.dts <= last || raw.dts - last > longestStep))
        raw.dts = last + 1;
    if (raw.pts == libav::noTime || raw.pts < raw.dts || raw.pts - raw.dts > longestStep)
        raw.pts = raw.dts;
    if (raw.duration < 0 || raw.duration > longestStep)
        raw.duration = 0;
    last = raw.dts;
    raw.stream_index = stream;
    raw.pos = -1;
}

bool MediaFile::end()
{
    if (!m_isBegun)
        return false;
    const int code = av_write_trailer(m_context->format);
    if (m_context->hasFailed)
        return fail("the file cannot be written", AVERROR(EIO));
    return code >= 0 || fail("the file's end cannot be written", code);
}
