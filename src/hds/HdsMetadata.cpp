#include "HdsMetadata.h"

#include <QtEndian>

#include <cmath>
#include <cstring>

namespace {

constexpr int maxDepth = 16;
constexpr double maxPixels = 100000;

enum Marker : quint8 {
    NumberMarker = 0,
    BooleanMarker = 1,
    StringMarker = 2,
    ObjectMarker = 3,
    NullMarker = 5,
    UndefinedMarker = 6,
    ReferenceMarker = 7,
    EcmaArrayMarker = 8,
    ObjectEndMarker = 9,
    StrictArrayMarker = 10,
    DateMarker = 11,
    LongStringMarker = 12
};

/// Walks the values of AMF 0. Once something does not fit, nothing is read any more.
class Reader final
{
public:
    explicit Reader(const QByteArray &data)
        : m_data(data)
    {
    }

    HdsMetadata read()
    {
        const bool isEvent = takeMarker() == StringMarker && takeString(2) == "onMetaData";
        const int marker = isEvent ? takeMarker() : -1;
        if (marker == EcmaArrayMarker)
            skip(4); // a hint at the number of properties; their end is marked
        if (marker == EcmaArrayMarker || marker == ObjectMarker)
            readProperties();
        return m_metadata;
    }

private:
    void readProperties()
    {
        while (m_isSound) {
            const QByteArray name = takeString(2);
            const int marker = takeMarker();
            if (marker == ObjectEndMarker || marker < 0)
                return;
            const int at = m_pos;
            if (marker == NumberMarker)
                note(name, takeNumber(), at);
            else
                skipValue(marker, 0);
        }
    }

    void note(const QByteArray &name, double number, int at)
    {
        if (!m_isSound)
            return;
        if (name == "duration")
            m_metadata.durationAt = at;
        else if (name == "width")
            m_metadata.width = pixels(number);
        else if (name == "height")
            m_metadata.height = pixels(number);
        else if (name == "audiocodecid")
            m_metadata.hasSound = true;
        m_metadata.hasPicture |= name == "videocodecid" || m_metadata.height > 0;
    }

    static int pixels(double number)
    {
        return std::isfinite(number) && number >= 1 && number <= maxPixels
            ? static_cast<int>(number)
            : 0;
    }

    void skipValue(int marker, int depth)
    {
        switch (marker) {
        case NumberMarker:
            skip(8);
            break;
        case BooleanMarker:
            skip(1);
            break;
        case StringMarker:
            takeString(2);
            break;
        case LongStringMarker:
            takeString(4);
            break;
        case ReferenceMarker:
            skip(2);
            break;
        case DateMarker:
            skip(8 + 2);
            break;
        case NullMarker:
        case UndefinedMarker:
            break;
        case EcmaArrayMarker:
            skip(4);
            skipProperties(depth);
            break;
        case ObjectMarker:
            skipProperties(depth);
            break;
        case StrictArrayMarker:
            skipElements(depth);
            break;
        default:
            m_isSound = false;
        }
    }

    void skipProperties(int depth)
    {
        m_isSound = m_isSound && depth < maxDepth;
        while (m_isSound) {
            takeString(2);
            const int marker = takeMarker();
            if (marker == ObjectEndMarker)
                return;
            skipValue(marker, depth + 1);
        }
    }

    /// Each element takes a byte at least, so that no count goes on beyond the data.
    void skipElements(int depth)
    {
        m_isSound = m_isSound && depth < maxDepth;
        for (quint32 left = takeSize(4); left > 0 && m_isSound; --left)
            skipValue(takeMarker(), depth + 1);
    }

    [[nodiscard]] bool has(quint32 bytes)
    {
        m_isSound = m_isSound && bytes <= static_cast<quint32>(m_data.size() - m_pos);
        return m_isSound;
    }

    void skip(quint32 bytes)
    {
        if (has(bytes))
            m_pos += static_cast<int>(bytes);
    }

    int takeMarker() { return has(1) ? static_cast<quint8>(m_data.at(m_pos++)) : -1; }

    /// A length of two or four bytes.
    quint32 takeSize(quint32 bytes)
    {
        if (!has(bytes))
            return 0;
        const char *const at = m_data.constData() + m_pos;
        m_pos += static_cast<int>(bytes);
        return bytes == 2 ? qFromBigEndian<quint16>(at) : qFromBigEndian<quint32>(at);
    }

    QByteArray takeString(quint32 lengthBytes)
    {
        const quint32 length = takeSize(lengthBytes);
        if (!has(length))
            return {};
        const int at = m_pos;
        m_pos += static_cast<int>(length);
        return QByteArray::fromRawData(m_data.constData() + at, static_cast<int>(length));
    }

    double takeNumber()
    {
        if (!has(8))
            return 0;
        const auto bits = qFromBigEndian<quint64>(m_data.constData() + m_pos);
        m_pos += 8;
        double number = 0;
        std::memcpy(&number, &bits, sizeof number);
        return number;
    }

    const QByteArray &m_data;
    HdsMetadata m_metadata;
    int m_pos = 0;
    bool m_isSound = true;
};

} // namespace

HdsMetadata HdsMetadata::parse(const QByteArray &data)
{
    return Reader(data).read();
}
