#include "HlsParser.h"

#include "HlsAttributes.h"
#include "HlsLimits.h"

#include <QDateTime>

#include <algorithm>
#include <cmath>
#include <limits>
#include <utility>

namespace {

constexpr int ivBytes = 16;
constexpr int maxPixels = 1 << 20;
constexpr double microseconds = 1e6;
const QByteArray firstLine = "#EXTM3U";
const QLatin1String identityFormat("identity");

QString message(const char *what)
{
    return QString::fromLatin1(what);
}

bool isBlank(char c)
{
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

/// Seconds as a tag has them; infinite when they are very many, below 0 when they are none.
double secondsOf(const QByteArray &value)
{
    constexpr int mostDigits = 15; // of whole seconds; such a number fits its type
    const bool isPlain = std::all_of(value.cbegin(), value.cend(),
                                     [](char c) { return (c >= '0' && c <= '9') || c == '.'; });
    if (!isPlain)
        return -1;
    const int point = value.indexOf('.');
    if ((point < 0 ? value.size() : point) > mostDigits)
        return std::numeric_limits<double>::infinity();
    bool isNumber = false;
    const double seconds = value.left(2 * mostDigits).toDouble(&isNumber);
    return isNumber ? seconds : -1;
}

/// The bytes of a hexadecimal number, with zeros before it; empty when it is none.
QByteArray ivOf(const QByteArray &value)
{
    const QByteArray digits = value.mid(2);
    const bool isHex =
        (value.startsWith("0x") || value.startsWith("0X")) && !digits.isEmpty()
        && digits.size() <= 2 * ivBytes && std::all_of(digits.cbegin(), digits.cend(), [](char c) {
               return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
           });
    return isHex ? QByteArray::fromHex(digits.rightJustified(2 * ivBytes, '0')) : QByteArray();
}

int pixelsOf(const QByteArray &value)
{
    const auto pixels = HlsAttributes::integer(value.trimmed());
    return pixels && *pixels <= maxPixels ? static_cast<int>(*pixels) : 0;
}

std::optional<HlsRendition::Type> typeOf(const QByteArray &value)
{
    using Type = HlsRendition::Type;
    if (value == "AUDIO")
        return Type::Audio;
    if (value == "VIDEO")
        return Type::Video;
    if (value == "SUBTITLES")
        return Type::Subtitles;
    if (value == "CLOSED-CAPTIONS")
        return Type::ClosedCaptions;
    return std::nullopt;
}

} // namespace

struct HlsParser::Tag
{
    const char *name;
    void (HlsParser::*read)(const QByteArray &value);
};

// Those that come with every segment stand first.
const HlsParser::Tag HlsParser::tags[] = {
    {"#EXTINF", &HlsParser::readInf},
    {"#EXT-X-BYTERANGE", &HlsParser::readByteRange},
    {"#EXT-X-PROGRAM-DATE-TIME", &HlsParser::readDate},
    {"#EXT-X-KEY", &HlsParser::readKey},
    {"#EXT-X-MAP", &HlsParser::readMap},
    {"#EXT-X-DISCONTINUITY", &HlsParser::readDiscontinuity},
    {"#EXT-X-GAP", &HlsParser::readGap},
    {"#EXT-X-DEFINE", &HlsParser::readDefine},
    {"#EXT-X-TARGETDURATION", &HlsParser::readTargetDuration},
    {"#EXT-X-MEDIA-SEQUENCE", &HlsParser::readMediaSequence},
    {"#EXT-X-DISCONTINUITY-SEQUENCE", &HlsParser::readDiscontinuitySequence},
    {"#EXT-X-PLAYLIST-TYPE", &HlsParser::readPlaylistType},
    {"#EXT-X-ENDLIST", &HlsParser::readEndList},
    {"#EXT-X-I-FRAMES-ONLY", &HlsParser::readIFramesOnly},
    {"#EXT-X-SKIP", &HlsParser::readSkip},
    {"#EXT-X-STREAM-INF", &HlsParser::readStreamInf},
    {"#EXT-X-I-FRAME-STREAM-INF", &HlsParser::readIFrames},
    {"#EXT-X-MEDIA", &HlsParser::readMedia},
};

HlsParser::HlsParser(const QUrl &address, const HlsVariables &imports)
    : m_imports(imports)
{
    m_playlist.address = address;
}

HlsPlaylist HlsParser::parse(const QByteArray &text)
{
    int from = text.startsWith("\xef\xbb\xbf") ? 3 : 0;
    while (from < text.size() && isBlank(text.at(from)))
        ++from;
    if (text.size() > HlsLimits::playlistBytes)
        fail(message("it is too long"));
    else if (text.mid(from, firstLine.size()) != firstLine)
        fail(message("it does not begin with #EXTM3U"));
    else
        readLines(text, from);
    if (!hasFailed() && m_playlist.kind == Kind::None)
        fail(message("it names neither segments nor variants"));
    if (hasFailed()) {
        HlsPlaylist none;
        none.error = m_playlist.error;
        none.address = m_playlist.address;
        return none;
    }
    return m_playlist;
}

void HlsParser::readLines(const QByteArray &text, int from)
{
    while (from < text.size() && !hasFailed()) {
        int end = text.indexOf('\n', from);
        if (end < 0)
            end = text.size();
        if (end - from > HlsLimits::lineBytes)
            fail(message("a line is too long"));
        else
            readLine(text.mid(from, end - from).trimmed());
        from = end + 1;
    }
}

void HlsParser::readLine(const QByteArray &line)
{
    if (line.startsWith("#EXT"))
        readTag(line);
    else if (!line.isEmpty() && !line.startsWith('#'))
        readUri(line);
}

void HlsParser::readTag(const QByteArray &line)
{
    const int colon = line.indexOf(':');
    const int nameBytes = colon < 0 ? line.size() : colon;
    for (const Tag &tag : tags) {
        if (static_cast<int>(qstrlen(tag.name)) == nameBytes
            && qstrncmp(line.constData(), tag.name, static_cast<uint>(nameBytes)) == 0) {
            (this->*tag.read)(line.mid(nameBytes + 1));
            return;
        }
    }
}

void HlsParser::readUri(const QByteArray &line)
{
    QByteArray uri = line;
    if (!m_playlist.variables.substitute(uri))
        fail(message("a variable is not defined, or too long"));
    else if (m_variant)
        addVariant(QString::fromUtf8(uri));
    else if (m_playlist.kind == Kind::Media)
        addSegment(QString::fromUtf8(uri));
}

void HlsParser::be(Kind kind)
{
    if (m_playlist.kind != Kind::None && m_playlist.kind != kind)
        fail(message("it names segments as well as variants"));
    m_playlist.kind = kind;
}

void HlsParser::fail(const QString &why)
{
    if (!hasFailed())
        m_playlist.error = why;
}

void HlsParser::readStreamInf(const QByteArray &value)
{
    be(Kind::Master);
    const HlsAttributes attributes(value, m_playlist.variables);
    if (!attributes.isValid())
        fail(message("a variable is not defined, or too long"));
    HlsVariant variant;
    variant.bandwidth = attributes.number("BANDWIDTH");
    variant.averageBandwidth = attributes.number("AVERAGE-BANDWIDTH");
    const QByteArray resolution = attributes.bytes("RESOLUTION").toLower();
    const int x = resolution.indexOf('x');
    if (x > 0) {
        variant.width = pixelsOf(resolution.left(x));
        variant.height = pixelsOf(resolution.mid(x + 1));
    }
    variant.codecs = attributes.text("CODECS");
    variant.audioGroup = attributes.text("AUDIO");
    for (const char *trait : {"FRAME-RATE", "VIDEO-RANGE", "VIDEO", "NAME"})
        variant.traits += attributes.bytes(trait) + '\n';
    m_variant = variant;
}

void HlsParser::addVariant(const QString &uri)
{
    m_variant->uri = uri;
    m_playlist.variants.push_back(*m_variant);
    m_variant.reset();
    if (m_playlist.variants.size() > HlsLimits::variants)
        fail(message("it names too many variants"));
}

void HlsParser::readMedia(const QByteArray &value)
{
    be(Kind::Master);
    const HlsAttributes attributes(value, m_playlist.variables);
    if (!attributes.isValid())
        fail(message("a variable is not defined, or too long"));
    const auto type = typeOf(attributes.bytes("TYPE"));
    if (!type)
        return;
    HlsRendition rendition;
    rendition.type = *type;
    rendition.group = attributes.text("GROUP-ID");
    rendition.uri = attributes.text("URI");
    rendition.language = attributes.text("LANGUAGE");
    rendition.name = attributes.text("NAME");
    rendition.isDefault = attributes.isYes("DEFAULT");
    rendition.isAutoselect = attributes.isYes("AUTOSELECT");
    m_playlist.renditions.push_back(rendition);
    if (m_playlist.renditions.size() > HlsLimits::variants)
        fail(message("it names too many renditions"));
}

void HlsParser::readIFrames(const QByteArray &)
{
    be(Kind::Master);
    ++m_playlist.iFrameVariants;
}

/// NAME and VALUE, or IMPORT of what the master defines, or QUERYPARAM of the playlist's own
/// address. The last is taken as it is sent, since it goes into addresses again.
void HlsParser::readDefine(const QByteArray &value)
{
    const HlsAttributes attributes(value, m_playlist.variables);
    QByteArray name = attributes.bytes("NAME");
    QByteArray content = attributes.bytes("VALUE");
    bool isKnown = attributes.isValid() && attributes.has("NAME") && attributes.has("VALUE");
    if (attributes.has("IMPORT")) {
        name = attributes.bytes("IMPORT");
        isKnown = m_imports.has(name);
        content = m_imports.value(name);
    } else if (attributes.has("QUERYPARAM")) {
        name = attributes.bytes("QUERYPARAM");
        const QString query = m_playlist.address.query(QUrl::FullyEncoded);
        for (const QString &item : query.split(QLatin1Char('&'))) {
            const QByteArray pair = item.toUtf8();
            if (!isKnown && pair.startsWith(name + '='))
                content = pair.mid(name.size() + 1);
            isKnown = isKnown || !content.isEmpty();
        }
    }
    if (!isKnown || !m_playlist.variables.define(name, content))
        fail(message("EXT-X-DEFINE defines nothing of use"));
}

void HlsParser::readTargetDuration(const QByteArray &value)
{
    be(Kind::Media);
    m_playlist.targetDurationS = HlsAttributes::integer(value.trimmed()).value_or(0);
}

void HlsParser::readMediaSequence(const QByteArray &value)
{
    be(Kind::Media);
    const auto number = HlsAttributes::integer(value.trimmed());
    // Room is left for the numbers of all segments.
    if (!number || *number > std::numeric_limits<qint64>::max() / 2)
        fail(message("its media sequence number is none"));
    else if (!m_playlist.segments.empty())
        fail(message("its media sequence number follows a segment"));
    else
        m_playlist.mediaSequence = *number;
}

void HlsParser::readDiscontinuitySequence(const QByteArray &value)
{
    be(Kind::Media);
    const auto number = HlsAttributes::integer(value.trimmed());
    if (!number || *number > std::numeric_limits<qint64>::max() / 2)
        fail(message("its discontinuity sequence number is none"));
    else if (m_playlist.segments.empty())
        m_discontinuity = *number;
}

void HlsParser::readPlaylistType(const QByteArray &value)
{
    be(Kind::Media);
    m_playlist.isEvent = value.trimmed() == "EVENT";
    m_playlist.isEnded = m_playlist.isEnded || value.trimmed() == "VOD"; // it must not change
}

void HlsParser::readEndList(const QByteArray &)
{
    be(Kind::Media);
    m_playlist.isEnded = true;
}

void HlsParser::readIFramesOnly(const QByteArray &)
{
    be(Kind::Media);
    m_playlist.isIFramesOnly = true;
}

/// A duration that is none is not told; one that no segment has is refused.
void HlsParser::readInf(const QByteArray &value)
{
    be(Kind::Media);
    const int comma = value.indexOf(',');
    const double seconds = secondsOf((comma < 0 ? value : value.left(comma)).trimmed());
    if (seconds > static_cast<double>(HlsLimits::segmentSeconds))
        fail(message("a segment's duration is too long"));
    else
        m_segment.durationUs = seconds > 0 ? std::llround(seconds * microseconds) : 0;
}

std::optional<HlsParser::Range> HlsParser::rangeOf(const QByteArray &value)
{
    const QByteArray text = value.trimmed();
    const int at = text.indexOf('@');
    const auto count = HlsAttributes::integer(at < 0 ? text : text.left(at));
    const auto first = at < 0 ? std::optional<qint64>() : HlsAttributes::integer(text.mid(at + 1));
    const bool isWhole = count && *count > 0 && (at < 0 || first);
    if (!isWhole || (first && *first > std::numeric_limits<qint64>::max() - *count))
        return std::nullopt;
    return Range{*count, first};
}

void HlsParser::readByteRange(const QByteArray &value)
{
    be(Kind::Media);
    m_range = rangeOf(value);
    if (!m_range)
        fail(message("a byte range is none"));
}

/// Gives the next segment its place. Returns false when nothing tells where it begins.
bool HlsParser::placeRange(const QString &uri)
{
    if (!m_range) {
        m_rangeUri.clear();
        return true;
    }
    if (!m_range->first && (m_rangeUri.isEmpty() || m_rangeUri != uri))
        return false;
    m_segment.firstByte = m_range->first.value_or(m_rangeEnd);
    m_segment.byteCount = m_range->count;
    if (m_segment.firstByte > std::numeric_limits<qint64>::max() - m_segment.byteCount)
        return false;
    m_rangeUri = uri;
    m_rangeEnd = m_segment.firstByte + m_segment.byteCount;
    return true;
}

void HlsParser::addSegment(const QString &uri)
{
    if (m_playlist.segments.size() >= HlsLimits::segments) {
        fail(message("it names too many segments"));
        return;
    }
    if (!placeRange(uri)) {
        fail(message("nothing tells where a byte range begins"));
        return;
    }
    m_segment.uri = uri;
    m_segment.sequence = m_playlist.mediaSequence + qint64(m_playlist.segments.size());
    m_segment.discontinuity = m_discontinuity;
    m_segment.key = m_key;
    if (m_newMap) {
        m_newMap->sequence = m_segment.sequence;
        m_map = std::move(m_newMap);
    }
    m_segment.map = m_map;
    m_playlist.segments.push_back(m_segment);
    m_segment = HlsSegment();
    m_range.reset();
}

/// Only whole AES-128 with a key that lies at an address is opened here. A segment that is
/// encrypted in several ways at once is taken as protected, unless all say the same.
void HlsParser::readKey(const QByteArray &value)
{
    be(Kind::Media);
    const HlsAttributes attributes(value, m_playlist.variables);
    const QByteArray method = attributes.bytes("METHOD");
    if (method == "NONE") {
        m_keys.clear();
        m_key.reset();
        return;
    }
    if (!attributes.isValid())
        fail(message("a variable is not defined, or too long"));
    QString format = attributes.text("KEYFORMAT");
    if (format.isEmpty())
        format = identityFormat;
    auto key = std::make_shared<HlsKey>();
    if (method != "AES-128")
        key->protection = QString::fromUtf8(method.isEmpty() ? "EXT-X-KEY" : method);
    else if (format != identityFormat)
        key->protection = format;
    key->uri = attributes.text("URI");
    if (attributes.has("IV")) {
        key->iv = ivOf(attributes.bytes("IV"));
        if (key->iv.isEmpty())
            fail(message("a key's IV is none"));
    }
    holdKey({format, key, method == "AES-128"});
}

void HlsParser::holdKey(const HeldKey &key)
{
    const auto same = std::find_if(m_keys.begin(), m_keys.end(), [&key](const HeldKey &held) {
        return held.format == key.format;
    });
    if (same != m_keys.end())
        *same = key;
    else if (m_keys.size() < HlsLimits::keyFormats)
        m_keys.push_back(key);
    else
        fail(message("it names too many formats of keys"));
    m_key = keyInForce();
}

/// Several formats of the same method only name several ways to the same key.
std::shared_ptr<const HlsKey> HlsParser::keyInForce() const
{
    std::shared_ptr<const HlsKey> open;
    std::shared_ptr<const HlsKey> closed;
    bool isWhole = true;
    for (const HeldKey &held : m_keys) {
        (held.key->protection.isEmpty() ? open : closed) = held.key;
        isWhole = isWhole && held.isWhole;
    }
    return open && isWhole ? open : closed;
}

void HlsParser::readMap(const QByteArray &value)
{
    be(Kind::Media);
    const HlsAttributes attributes(value, m_playlist.variables);
    auto map = std::make_shared<HlsMap>();
    map->uri = attributes.text("URI");
    if (!attributes.isValid() || map->uri.isEmpty())
        fail(message("EXT-X-MAP has no address"));
    if (attributes.has("BYTERANGE")) {
        const auto range = rangeOf(attributes.bytes("BYTERANGE"));
        if (!range)
            fail(message("a byte range is none"));
        else {
            map->firstByte = range->first.value_or(0);
            map->byteCount = range->count;
        }
    }
    map->key = m_key;
    m_newMap = map;
}

void HlsParser::readDiscontinuity(const QByteArray &)
{
    be(Kind::Media);
    ++m_discontinuity;
}

void HlsParser::readGap(const QByteArray &)
{
    be(Kind::Media);
    m_segment.isGap = true;
}

void HlsParser::readDate(const QByteArray &value)
{
    be(Kind::Media);
    const QDateTime date =
        QDateTime::fromString(QString::fromLatin1(value.trimmed()), Qt::ISODateWithMs);
    m_segment.dateMs = date.isValid() ? date.toMSecsSinceEpoch() : 0;
}

/// A playlist that leaves segments out because the one before had them. None is asked for.
void HlsParser::readSkip(const QByteArray &)
{
    be(Kind::Media);
    fail(message("it is only an update of another one"));
}
