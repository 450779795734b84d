#include "SegmentBytes.h"

#include <QList>
#include <QtEndian>

namespace {

constexpr int tsPacketBytes = 188;
constexpr char tsSync = 0x47;
constexpr int boxHeaderBytes = 8;
constexpr int largeBoxHeaderBytes = 16;
constexpr int id3HeaderBytes = 10;
constexpr int id3FrameHeaderBytes = 10;
constexpr int timestampBytes = 8;
constexpr qint64 timestampMask = (qint64(1) << 33) - 1;

bool hasBytes(const QByteArray &bytes, qint64 position, qint64 count)
{
    return position >= 0 && count >= 0 && position <= bytes.size()
        && count <= bytes.size() - position;
}

template <typename Number> Number bigEndianAt(const QByteArray &bytes, qint64 position)
{
    return qFromBigEndian<Number>(bytes.constData() + position);
}

quint8 byteAt(const QByteArray &bytes, int position)
{
    return static_cast<quint8>(bytes.at(position));
}

/// A number of 28 bits, seven in a byte, as ID3 has sizes.
int synchsafeAt(const QByteArray &bytes, int position)
{
    int number = 0;
    for (int i = 0; i < 4; ++i)
        number = number << 7 | (byteAt(bytes, position + i) & 0x7F);
    return number;
}

bool isBoxType(const QByteArray &type)
{
    static const QList<QByteArray> types{"ftyp", "styp", "moov", "moof", "sidx", "emsg",
                                         "prft", "mdat", "free", "skip", "ssix", "uuid"};
    return types.contains(type);
}

/// The size of the box at a position, which lies within the bytes; 0 when there is none.
qint64 boxBytesAt(const QByteArray &bytes, qint64 position)
{
    if (!hasBytes(bytes, position, boxHeaderBytes))
        return 0;
    qint64 size = bigEndianAt<quint32>(bytes, position);
    qint64 least = boxHeaderBytes;
    if (size == 1) {
        if (!hasBytes(bytes, position, largeBoxHeaderBytes))
            return 0;
        const auto large = bigEndianAt<quint64>(bytes, position + boxHeaderBytes);
        if (large > static_cast<quint64>(bytes.size()))
            return 0;
        size = static_cast<qint64>(large);
        least = largeBoxHeaderBytes;
    }
    return size >= least && hasBytes(bytes, position, size) ? size : 0;
}

bool isWholeMp4(const QByteArray &bytes)
{
    qint64 position = 0;
    while (position < bytes.size()) {
        const qint64 size = boxBytesAt(bytes, position);
        if (size == 0)
            return false;
        position += size;
    }
    return true;
}

SegmentBytes::Kind kindOfFrames(const QByteArray &bytes, int position)
{
    if (!hasBytes(bytes, position, 6))
        return SegmentBytes::Kind::Unknown;
    const quint8 first = byteAt(bytes, position);
    const quint8 second = byteAt(bytes, position + 1);
    if (first == 0x0B && second == 0x77) // bsid, in bits 40 to 44, is above 10 for E-AC-3
        return byteAt(bytes, position + 5) >> 3 > 10 ? SegmentBytes::Kind::Eac3
                                                     : SegmentBytes::Kind::Ac3;
    if (first != 0xFF || (second & 0xE0) != 0xE0)
        return SegmentBytes::Kind::Unknown;
    return (second & 0xF6) == 0xF0 ? SegmentBytes::Kind::Adts : SegmentBytes::Kind::Mp3;
}

/// The time in the frames of one tag, from one position to another.
std::optional<qint64> timeInTag(const QByteArray &bytes, int position, int end)
{
    static const QByteArray owner =
        QByteArrayLiteral("com.apple.streaming.transportStreamTimestamp") + '\0';
    const bool isVersion4 = byteAt(bytes, position + 3) >= 4;
    position += id3HeaderBytes;
    while (position <= end - id3FrameHeaderBytes) {
        const qint64 size = isVersion4 ? qint64(synchsafeAt(bytes, position + 4))
                                       : qint64(bigEndianAt<quint32>(bytes, position + 4));
        const int content = position + id3FrameHeaderBytes;
        if (size <= 0 || size > end - content)
            return std::nullopt;
        if (bytes.mid(position, 4) == "PRIV" && size == owner.size() + timestampBytes
            && bytes.mid(content, owner.size()) == owner)
            return bigEndianAt<qint64>(bytes, content + owner.size()) & timestampMask;
        position = content + static_cast<int>(size);
    }
    return std::nullopt;
}

/// The size of the tag at a position; 0 when there is none that lies within the bytes.
int tagBytesAt(const QByteArray &bytes, int position)
{
    if (!hasBytes(bytes, position, id3HeaderBytes) || bytes.mid(position, 3) != "ID3")
        return 0;
    constexpr quint8 hasFooter = 0x10;
    const int footer = byteAt(bytes, position + 5) & hasFooter ? id3HeaderBytes : 0;
    const int size = id3HeaderBytes + synchsafeAt(bytes, position + 6) + footer;
    return hasBytes(bytes, position, size) ? size : 0;
}

} // namespace

SegmentBytes::Kind SegmentBytes::kindOf(const QByteArray &bytes)
{
    if (bytes.isEmpty())
        return Kind::Unknown;
    if (bytes.at(0) == tsSync
        && (bytes.size() <= tsPacketBytes || bytes.at(tsPacketBytes) == tsSync))
        return Kind::TransportStream;
    if (bytes.startsWith("\x1A\x45\xDF\xA3") || bytes.startsWith("\x1F\x43\xB6\x75"))
        return Kind::WebM;
    if (hasBytes(bytes, 0, boxHeaderBytes) && isBoxType(bytes.mid(4, 4)))
        return Kind::Mp4;
    return kindOfFrames(bytes, id3Bytes(bytes));
}

bool SegmentBytes::isWhole(const QByteArray &bytes)
{
    switch (kindOf(bytes)) {
    case Kind::TransportStream:
        return bytes.size() % tsPacketBytes == 0;
    case Kind::Mp4:
        return isWholeMp4(bytes);
    default:
        return false;
    }
}

int SegmentBytes::id3Bytes(const QByteArray &bytes)
{
    int position = 0;
    for (int size = tagBytesAt(bytes, 0); size > 0; size = tagBytesAt(bytes, position))
        position += size;
    return position;
}

std::optional<qint64> SegmentBytes::id3Time(const QByteArray &bytes)
{
    int position = 0;
    for (int size = tagBytesAt(bytes, 0); size > 0; size = tagBytesAt(bytes, position)) {
        const std::optional<qint64> time = timeInTag(bytes, position, position + size);
        if (time)
            return time;
        position += size;
    }
    return std::nullopt;
}
