#include "FlvTag.h"

#include "AdobeUtils.h"

namespace {

constexpr unsigned int aacFormat = 10; // high nibble of an audio tag's first data byte
constexpr unsigned int avcCodec = 7; // low nibble of a video tag's first data byte
constexpr unsigned int sequenceHeaderPacket = 0; // second data byte of both

bool isKnownType(unsigned int type)
{
    // Bit 5 marks encrypted or filtered data, bits 6 and 7 are reserved: either makes it unknown.
    return type == FlvTag::Audio || type == FlvTag::Video || type == FlvTag::Script;
}

} // namespace

bool FlvTag::isSequenceHeader(const QByteArray &buffer) const
{
    if (!isMedia() || dataBytes < 2)
        return false;
    const auto data = static_cast<unsigned int>(offset + headerBytes);
    const unsigned int codec = CAdobeUtils::ReadByte(buffer, data);
    const bool hasSequenceHeaders =
        type == Audio ? codec >> 4 == aacFormat : (codec & 0x0F) == avcCodec;
    return hasSequenceHeaders && CAdobeUtils::ReadByte(buffer, data + 1) == sequenceHeaderPacket;
}

QByteArray FlvTag::data(const QByteArray &buffer) const
{
    return QByteArray::fromRawData(buffer.constData() + offset + headerBytes, dataBytes);
}

QVector<FlvTag> FlvTag::walk(const QByteArray &buffer, int begin, int end, int &skipped)
{
    QVector<FlvTag> tags;
    skipped = 0;
    int pos = begin;
    while (end - pos >= headerBytes) {
        const auto start = static_cast<unsigned int>(pos);
        const unsigned int type = CAdobeUtils::ReadByte(buffer, start);
        const int dataBytes = static_cast<int>(CAdobeUtils::ReadInt24(buffer, start + 1));
        if (dataBytes > end - pos - headerBytes)
            break;
        if (isKnownType(type)) {
            FlvTag tag;
            tag.offset = pos;
            tag.dataBytes = dataBytes;
            tag.type = static_cast<Type>(type);
            tag.timestampMs = CAdobeUtils::ReadPacketTS(buffer, start);
            tags += tag;
        } else {
            ++skipped;
        }
        pos += headerBytes + dataBytes;
        pos += qMin(backPointerBytes, end - pos);
    }
    return tags;
}
