#include "HdsFixtures.h"

#include <QtEndian>

namespace hds {

namespace {

const int audioType = 8;
const int videoType = 9;

QByteArray strings(const QList<QByteArray> &texts)
{
    QByteArray bytes(1, static_cast<char>(texts.size()));
    for (const QByteArray &text : texts)
        bytes += text + '\0';
    return bytes;
}

quint32 read24(const QByteArray &data, int pos)
{
    return qFromBigEndian<quint32>(data.constData() + pos) >> 8;
}

} // namespace

QByteArray int16(quint32 value)
{
    return int32(value).right(2);
}

QByteArray int24(quint32 value)
{
    return int32(value).right(3);
}

QByteArray int32(quint32 value)
{
    QByteArray bytes(4, '\0');
    qToBigEndian(value, bytes.data());
    return bytes;
}

QByteArray int64(quint64 value)
{
    QByteArray bytes(8, '\0');
    qToBigEndian(value, bytes.data());
    return bytes;
}

QByteArray box(const QByteArray &type, const QByteArray &payload)
{
    return int32(static_cast<quint32>(payload.size()) + 8) + type + payload;
}

QByteArray largeBox(const QByteArray &type, const QByteArray &payload)
{
    return int32(1) + type + int64(static_cast<quint64>(payload.size()) + 16) + payload;
}

QByteArray tag(int type, quint32 timestampMs, const QByteArray &data)
{
    const auto size = static_cast<quint32>(data.size());
    return QByteArray(1, static_cast<char>(type)) // type
        + int24(size) // data size
        + int24(timestampMs & 0xFFFFFF) // timestamp, low bits
        + QByteArray(1, static_cast<char>(timestampMs >> 24)) // timestamp, high bits
        + int24(0) // stream id
        + data + int32(size + 11); // back-pointer
}

QByteArray audioTag(quint32 timestampMs, const QByteArray &content)
{
    // AAC, 44 kHz, 16 bit, stereo; raw samples
    return tag(audioType, timestampMs, QByteArray("\xaf\x01", 2) + content);
}

QByteArray videoTag(quint32 timestampMs, const QByteArray &content)
{
    // key frame, AVC; picture data, composition time 0
    return tag(videoType, timestampMs, QByteArray("\x17\x01\x00\x00\x00", 5) + content);
}

QByteArray audioHeader(quint32 timestampMs, const QByteArray &content)
{
    return tag(audioType, timestampMs, QByteArray("\xaf\x00", 2) + content);
}

QByteArray videoHeader(quint32 timestampMs, const QByteArray &content)
{
    return tag(videoType, timestampMs, QByteArray("\x17\x00\x00\x00\x00", 5) + content);
}

QByteArray fragment(const QByteArray &tags)
{
    return box("afra", QByteArray(10, '\0')) + box("abst", QByteArray(30, '\1'))
        + box("moof", box("mfhd", QByteArray(8, '\0'))) + box("mdat", tags);
}

QByteArray numberedFragment(int number, int paddingBytes)
{
    const auto start = static_cast<quint32>(number - 1) * 100;
    const QByteArray padding(paddingBytes, static_cast<char>(number));
    return fragment(audioTag(start, "a" + QByteArray::number(number))
                    + videoTag(start + 40, "v" + QByteArray::number(number) + padding));
}

QByteArray Bootstrap::asrt() const
{
    QByteArray payload = QByteArray(1, '\0') + int24(0) // version, flags
        + strings(qualities) + int32(static_cast<quint32>(segments.size()));
    for (const SegmentRun &run : segments)
        payload += int32(run.firstSegment) + int32(run.fragmentsPerSegment);
    return box("asrt", payload);
}

QByteArray Bootstrap::afrt() const
{
    QByteArray payload = QByteArray(1, '\0') + int24(0) // version, flags
        + int32(1000) // timescale
        + strings(qualities) + int32(static_cast<quint32>(fragments.size()));
    for (const FragmentRun &run : fragments) {
        payload += int32(run.firstFragment) + int64(run.timestamp) + int32(run.duration);
        if (run.discontinuity >= 0)
            payload += static_cast<char>(run.discontinuity);
    }
    return box("afrt", payload);
}

QByteArray Bootstrap::abst() const
{
    const char flags = static_cast<char>((isLive ? 0x20 : 0) | (isUpdate ? 0x10 : 0));
    return box("abst",
               QByteArray(1, '\0') + int24(0) // version, flags
                   + int32(1) // version of the bootstrap
                   + QByteArray(1, flags) // profile, live, update
                   + int32(1000) // timescale
                   + int64(mediaTime) // current media time
                   + int64(0) // time code offset
                   + QByteArray("movie", 6) // movie identifier
                   + strings(servers) + strings(qualities) // servers, qualities
                   + drmData + '\0' // DRM data
                   + QByteArray(1, '\0') // metadata
                   + QByteArray(1, '\1') + asrt() // one segment run table
                   + QByteArray(1, '\1') + afrt()); // one fragment run table
}

QByteArray simpleBootstrap(int fragmentCount)
{
    Bootstrap bootstrap;
    bootstrap.segments = {{1, static_cast<quint32>(fragmentCount)}};
    bootstrap.fragments = {{1, 0, 100}};
    return bootstrap.abst();
}

QByteArray manifest(const QByteArray &mediaUrl, const QByteArray &bootstrap,
                    const QByteArray &metadata)
{
    QByteArray text = "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n"
                      "<manifest xmlns=\"http://ns.adobe.com/f4m/1.0\">\n"
                      "<bootstrapInfo profile=\"named\" id=\"b0\">\n"
        + bootstrap.toBase64() + "\n</bootstrapInfo>\n<media bitrate=\"800\" url=\"" + mediaUrl
        + "\" bootstrapInfoId=\"b0\">";
    if (!metadata.isEmpty())
        text += "<metadata>" + metadata.toBase64() + "</metadata>";
    return text + "</media>\n</manifest>\n";
}

QVector<ReadTag> readFlv(const QByteArray &file, QString &error)
{
    QVector<ReadTag> tags;
    error.clear();
    if (!file.startsWith(QByteArray("FLV\x01\x05\x00\x00\x00\x09\x00\x00\x00\x00", 13))) {
        error = QStringLiteral("no FLV header");
        return tags;
    }
    int pos = 13;
    qint64 last = 0;
    while (pos < file.size()) {
        if (file.size() - pos < 15) {
            error = QStringLiteral("cut off at %1").arg(pos);
            return tags;
        }
        const auto size = static_cast<int>(read24(file, pos + 1));
        if (size > file.size() - pos - 15) {
            error = QStringLiteral("the tag at %1 runs past the end").arg(pos);
            return tags;
        }
        ReadTag read;
        read.type = static_cast<uchar>(file.at(pos));
        read.timestampMs = read24(file, pos + 4)
            | static_cast<quint32>(static_cast<uchar>(file.at(pos + 7))) << 24;
        read.data = file.mid(pos + 11, size);
        const auto backPointer = qFromBigEndian<quint32>(file.constData() + pos + 11 + size);
        if (backPointer != static_cast<quint32>(size) + 11)
            error =
                QStringLiteral("the back-pointer of the tag at %1 is %2").arg(pos).arg(backPointer);
        if (read.timestampMs < last)
            error = QStringLiteral("time falls at %1").arg(pos);
        last = read.timestampMs;
        tags += read;
        pos += 15 + size;
    }
    return tags;
}

} // namespace hds
