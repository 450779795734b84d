#include "ParameterSets.h"

namespace {

constexpr int avcHeadBytes = 5; // version, profile, constraints, level, lengths
constexpr int hevcHeadBytes = 22; // up to the number of arrays
constexpr int hevcLengthsAt = 21;

quint8 byteAt(const QByteArray &bytes, int position)
{
    return static_cast<quint8>(bytes.at(position));
}

/// Walks over units that have their length, of two bytes, before them.
class Walk final
{
public:
    Walk(const QByteArray &record, int position, int lengthBytes)
        : m_record(record)
        , m_position(position)
        , m_lengthBytes(lengthBytes)
    {
    }

    /// One byte; none at the end.
    std::optional<int> next()
    {
        if (m_position >= m_record.size())
            return std::nullopt;
        return byteAt(m_record, m_position++);
    }

    /// Takes so many units over. Returns false when they are not all there.
    bool take(int count, QByteArray &units)
    {
        for (int i = 0; i < count; ++i) {
            const std::optional<int> high = next();
            const std::optional<int> low = next();
            const int size = high && low ? *high << 8 | *low : 0;
            if (size == 0 || size > m_record.size() - m_position
                || (m_lengthBytes == 1 && size > 0xFF))
                return false;
            for (int at = m_lengthBytes - 1; at >= 0; --at)
                units += static_cast<char>(at > 1 ? 0 : size >> (8 * at) & 0xFF);
            units += m_record.mid(m_position, size);
            m_position += size;
        }
        return true;
    }

private:
    const QByteArray &m_record;
    int m_position;
    const int m_lengthBytes;
};

bool takeAvc(Walk walk, QByteArray &units)
{
    const std::optional<int> sequences = walk.next();
    if (!sequences || !walk.take(*sequences & 0x1F, units))
        return false;
    const std::optional<int> pictures = walk.next();
    return pictures && walk.take(*pictures, units);
}

bool takeHevc(Walk walk, QByteArray &units)
{
    const std::optional<int> arrays = walk.next();
    for (int i = 0; arrays && i < *arrays; ++i) {
        const std::optional<int> kind = walk.next();
        const std::optional<int> high = walk.next();
        const std::optional<int> low = walk.next();
        if (!kind || !high || !low || !walk.take(*high << 8 | *low, units))
            return false;
    }
    return arrays.has_value();
}

} // namespace

int ParameterSets::lengthBytes(const QByteArray &record, Codec codec)
{
    const bool isAvc = codec == Codec::H264;
    if (record.size() < (isAvc ? avcHeadBytes : hevcHeadBytes) || record.at(0) != 1)
        return 0;
    return (byteAt(record, isAvc ? avcHeadBytes - 1 : hevcLengthsAt) & 3) + 1;
}

std::optional<QByteArray> ParameterSets::units(const QByteArray &record, Codec codec,
                                               int lengthBytes)
{
    if (lengthBytes == 0 || ParameterSets::lengthBytes(record, codec) != lengthBytes)
        return std::nullopt;
    QByteArray units;
    const bool isAvc = codec == Codec::H264;
    const Walk walk(record, isAvc ? avcHeadBytes : hevcHeadBytes, lengthBytes);
    const bool isTaken = isAvc ? takeAvc(walk, units) : takeHevc(walk, units);
    return isTaken && !units.isEmpty() ? std::optional<QByteArray>(units) : std::nullopt;
}
