#include "SegmentIndex.h"

#include <QtEndian>

namespace {

constexpr qint64 boxHeaderBytes = 8;
constexpr qint64 referenceBytes = 12;
constexpr qint64 mostTime = qint64(1) << 60;
constexpr qint64 mostBytes = qint64(1) << 50;
constexpr quint32 isIndexBit = 0x80000000;

/// Reads numbers one after the other, none from beyond the end.
class Reader final
{
public:
    Reader(const QByteArray &bytes, qint64 position, qint64 end)
        : m_bytes(bytes)
        , m_position(position)
        , m_end(end)
    {
    }

    template <typename Number> Number next()
    {
        constexpr auto size = static_cast<qint64>(sizeof(Number));
        if (m_end - m_position < size) {
            m_isShort = true;
            return 0;
        }
        m_position += size;
        return qFromBigEndian<Number>(m_bytes.constData() + m_position - size);
    }

    [[nodiscard]] qint64 left() const { return m_end - m_position; }
    [[nodiscard]] bool isShort() const { return m_isShort; }

private:
    const QByteArray &m_bytes;
    qint64 m_position;
    const qint64 m_end;
    bool m_isShort = false;
};

/// Reads what is in the box, behind its header. @param boxBytes its size with the header
std::optional<SegmentIndex> readIndex(Reader reader, qint64 boxBytes)
{
    const auto version = reader.next<quint32>() >> 24;
    reader.next<quint32>(); // the stream's number
    SegmentIndex index;
    index.timescale = reader.next<quint32>();
    const quint64 time = version == 0 ? reader.next<quint32>() : reader.next<quint64>();
    const quint64 offset = version == 0 ? reader.next<quint32>() : reader.next<quint64>();
    const auto count = reader.next<quint32>() & 0xFFFF; // behind 16 bits that are reserved
    if (reader.isShort() || index.timescale == 0 || time > quint64(mostTime)
        || offset > quint64(mostBytes) || qint64(count) > reader.left() / referenceBytes)
        return std::nullopt;
    index.firstTime = static_cast<qint64>(time);
    index.firstByte = boxBytes + static_cast<qint64>(offset);
    index.references.reserve(static_cast<int>(count));
    for (quint32 i = 0; i < count; ++i) {
        const auto size = reader.next<quint32>();
        const auto duration = reader.next<quint32>();
        reader.next<quint32>(); // of its access points
        if ((size & isIndexBit) != 0 || size == 0)
            return std::nullopt;
        index.references += {qint64(size), qint64(duration)};
    }
    return index;
}

} // namespace

std::optional<SegmentIndex> SegmentIndex::parse(const QByteArray &bytes)
{
    qint64 position = 0;
    while (bytes.size() - position >= boxHeaderBytes) {
        const qint64 size = qFromBigEndian<quint32>(bytes.constData() + position);
        if (size < boxHeaderBytes || size > bytes.size() - position)
            return std::nullopt;
        if (bytes.mid(static_cast<int>(position) + 4, 4) == "sidx") {
            std::optional<SegmentIndex> index =
                readIndex(Reader(bytes, position + boxHeaderBytes, position + size), size);
            if (index)
                index->firstByte += position;
            return index;
        }
        position += size;
    }
    return std::nullopt;
}
