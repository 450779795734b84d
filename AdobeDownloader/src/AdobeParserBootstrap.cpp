// The bootstrap side of CAdobeParser: the abst box of an HTTP Dynamic Streaming rendition with its
// segment (asrt) and fragment (afrt) run tables, all fields big-endian. Layout: Adobe Flash Video
// File Format Specification 10.1, section 2.11.2.
//
// Everything in these boxes comes from the network. Reading past the end of the data yields zeros
// and leaves the position there, so that a box cut short gives what it holds and nothing else.
#include "AdobeParser.h"

#include "AdobeBrowser.h"
#include "AdobeUtils.h"
#include "HostEvents.h"

#include <limits>

namespace {

constexpr int maxRefreshAttempts = 31; // of an answer without content, as for a fragment
constexpr quint64 compactHeaderBytes = 8;
constexpr quint64 largeHeaderBytes = 16;
constexpr quint64 segmentEntryBytes = 8;
constexpr quint64 fragmentEntryBytes = 16; // at least
constexpr int maxTableEntries = 1000000; // each takes hundreds of bytes
constexpr unsigned int liveBit = 0x20;
constexpr unsigned int updateBit = 0x10;
constexpr int fragmentsBeforeLiveEdge = 2;

qint64 number(const QVariant &entry, const char *key)
{
    return entry.toMap().value(QLatin1String(key)).toLongLong();
}

int toCount(qint64 value)
{
    return static_cast<int>(qBound<qint64>(0, value, std::numeric_limits<int>::max()));
}

/// The entry that ends the table of a finished stream; it stands for no fragment.
bool isEndOfStream(const QVariant &entry)
{
    return number(entry, "fragmentDuration") == 0 && number(entry, "discontinuityIndicator") == 0;
}

} // namespace

bool CAdobeParser::ParseBootstrap()
{
    const QVariantMap media = m_session->data.GetMedia();
    if (!media.value(QStringLiteral("bootstrapUrl")).toString().isEmpty()) {
        if (UpdateBootstrapInfo())
            return ParseBoxes();
        HostEvents::send(event::BootstrapFailed{});
        return false;
    }
    if (!media.value(QStringLiteral("bootstrap")).toByteArray().isEmpty())
        return ParseBoxes();
    HostEvents::send(event::BootstrapMissing{});
    return false;
}

bool CAdobeParser::UpdateBootstrapInfo()
{
    const QString address = option("bootstrapUrl").toString();
    QByteArray bootstrap;
    for (int attempt = 0; bootstrap.isEmpty(); ++attempt) {
        if (attempt == maxRefreshAttempts)
            return false;
        CAdobeBrowser browser(m_stop, nullptr, nullptr, &m_session->options);
        browser.get(address, true);
        if (!browser.success())
            return false;
        bootstrap = browser.rawContent();
    }
    bootstrap.replace('\r', QByteArray());
    bootstrap.replace('\n', QByteArray());

    QVariantMap media = m_session->data.GetMedia();
    media.insert(QStringLiteral("bootstrap"), bootstrap.trimmed());
    m_session->data.SetMedia(media);
    return true;
}

bool CAdobeParser::ParseBoxes()
{
    CAdobeData &data = m_session->data;
    m_box = data.GetMedia().value(QStringLiteral("bootstrap")).toByteArray();
    m_pos = 0;
    m_segments.clear();
    m_fragments.clear();
    data.SetFragCount(0);

    ReadBoxHeader(m_box, m_pos);
    if (m_boxType != "abst") {
        HostEvents::send(event::BootstrapBroken{});
        return false;
    }
    ParseBootstrapBox();
    data.SetSegmentTable(m_segments);
    data.SetFragmentTable(m_fragments);
    if (data.GetFragCount() != 0)
        return true;
    HostEvents::send(event::StreamEmpty{});
    return false;
}

void CAdobeParser::ReadBoxHeader(QByteArray &data, unsigned long long &pos)
{
    m_boxType.clear();
    m_boxSize = 0;
    const bool isWhole = CAdobeUtils::HasBytes(data, pos, compactHeaderBytes)
        && (CAdobeUtils::ReadInt32(data, static_cast<unsigned int>(pos)) != 1
            || CAdobeUtils::HasBytes(data, pos, largeHeaderBytes));
    if (!isWhole) {
        pos = static_cast<unsigned long long>(data.size());
        return;
    }
    auto offset = static_cast<unsigned int>(pos);
    CAdobeUtils::ReadBoxHeader(data, offset, m_boxType, m_boxSize);
    pos = offset;
}

void CAdobeParser::ParseBootstrapBox()
{
    skip(1 + 3 + 4); // version, flags, bootstrapinfoVersion
    const unsigned int profileLiveUpdate = takeByte();
    if (profileLiveUpdate & liveBit) {
        m_session->options.SetOption(QStringLiteral("bLive"), true);
        m_session->options.SetOption(QStringLiteral("metadata"), false);
    }
    if (!(profileLiveUpdate & updateBit))
        m_session->options.SetOption(QStringLiteral("bTable"), true);
    skip(4 + 8 + 8); // timescale, currentMediaTime, smpteTimeCodeOffset
    skipString(); // movieIdentifier
    skipStrings(); // servers
    skipStrings(); // qualities
    skipString(); // drmData
    skipString(); // metaData
    readTables(QByteArrayLiteral("asrt"), &CAdobeParser::ParseAsrtBox);
    readTables(QByteArrayLiteral("afrt"), &CAdobeParser::ParseAfrtBox);
    if (!m_segments.isEmpty() && !m_fragments.isEmpty())
        ParseSegAndFragTable();
}

/// Reads a number of boxes, handing those of the given type to their reader. Whatever that has
/// read, the next box begins where this one says it ends.
void CAdobeParser::readTables(const QByteArray &type, void (CAdobeParser::*readTable)())
{
    for (unsigned int left = takeByte(); left > 0 && bytesLeft() > 0; --left) {
        ReadBoxHeader(m_box, m_pos);
        const unsigned long long payload = m_pos;
        const unsigned long long payloadBytes = qMin<quint64>(m_boxSize, bytesLeft());
        if (m_boxType == type)
            (this->*readTable)();
        m_pos = payload + payloadBytes;
    }
}

void CAdobeParser::ParseAsrtBox()
{
    skip(1 + 3); // version, flags
    skipStrings(); // qualities
    const quint32 count = takeInt32();
    for (quint32 i = 0; i < count && hasRoom(m_segments, segmentEntryBytes); ++i) {
        QVariantMap entry;
        entry.insert(QStringLiteral("firstSegment"), static_cast<int>(takeInt32()));
        entry.insert(QStringLiteral("fragmentsPerSegment"), static_cast<int>(takeInt32()));
        m_segments += entry;
    }
}

void CAdobeParser::ParseAfrtBox()
{
    skip(1 + 3 + 4); // version, flags, timescale
    skipStrings(); // qualities
    const quint32 count = takeInt32();
    for (quint32 i = 0; i < count && hasRoom(m_fragments, fragmentEntryBytes); ++i) {
        QVariantMap entry;
        entry.insert(QStringLiteral("firstFragment"), takeInt32());
        entry.insert(QStringLiteral("firstFragmentTimestamp"), takeInt64());
        const quint32 duration = takeInt32();
        entry.insert(QStringLiteral("fragmentDuration"), duration);
        if (duration == 0)
            entry.insert(QStringLiteral("discontinuityIndicator"), takeByte());
        m_fragments += entry;
    }
}

void CAdobeParser::ParseSegAndFragTable()
{
    CAdobePreference &options = m_session->options;
    m_session->data.SetFragCount(0);
    if (isEndOfStream(m_fragments.constLast())) {
        options.SetOption(QStringLiteral("bLive"), false);
        m_fragments.removeLast();
    }
    const bool isLive = options.GetOption(QStringLiteral("bLive")).toBool();
    const int count = countFragments();
    const QVariant segment = isLive ? m_segments.constLast() : m_segments.constFirst();
    m_startSegment = qMax(1, static_cast<int>(number(segment, "firstSegment")));
    const qint64 firstFragment =
        m_fragments.isEmpty() ? 1 : number(m_fragments.constFirst(), "firstFragment");
    m_startFragment = toCount(isLive ? qint64(count) - fragmentsBeforeLiveEdge : firstFragment - 1);
    m_session->data.SetFragCount(count);
    HostEvents::send(event::FragmentsCounted{count});
}

int CAdobeParser::countFragments() const
{
    qint64 count = number(m_segments.constFirst(), "fragmentsPerSegment");
    for (int i = 1; i < m_segments.size(); ++i) {
        const QVariant &previous = m_segments.at(i - 1);
        const qint64 between =
            number(m_segments.at(i), "firstSegment") - number(previous, "firstSegment") - 1;
        count += between * number(previous, "fragmentsPerSegment")
            + number(m_segments.at(i), "fragmentsPerSegment");
        // Nothing that follows brings an absurd sum back, and it must not overflow.
        count =
            qBound<qint64>(std::numeric_limits<int>::min(), count, std::numeric_limits<int>::max());
    }
    if (m_fragments.isEmpty())
        return toCount(count);
    if (count > 0)
        count += number(m_fragments.constFirst(), "firstFragment") - 1;
    return toCount(qMax(count, number(m_fragments.constLast(), "firstFragment")));
}

int CAdobeParser::StartSegment() const
{
    return m_startSegment;
}

int CAdobeParser::StartFragment() const
{
    return m_startFragment;
}

quint64 CAdobeParser::bytesLeft() const
{
    const auto size = static_cast<quint64>(m_box.size());
    return m_pos < size ? size - m_pos : 0;
}

/// Whether another entry can follow. Tables that overlap are read twice, yet all of them together
/// have no more entries than the bytes would hold if each stood there once.
bool CAdobeParser::hasRoom(const QVariantList &table, quint64 entryBytes) const
{
    if (table.size() >= maxTableEntries) {
        qWarning("a table of the bootstrap is cut: it has more than %d entries", maxTableEntries);
        return false;
    }
    const auto most = static_cast<quint64>(m_box.size()) / entryBytes;
    return bytesLeft() >= entryBytes && static_cast<quint64>(table.size()) < most;
}

unsigned int CAdobeParser::takeByte()
{
    const auto pos = static_cast<unsigned int>(m_pos);
    const bool isThere = bytesLeft() >= 1;
    skip(1);
    return isThere ? CAdobeUtils::ReadByte(m_box, pos) : 0;
}

quint32 CAdobeParser::takeInt32()
{
    const auto pos = static_cast<unsigned int>(m_pos);
    const bool isThere = bytesLeft() >= 4;
    skip(4);
    return isThere ? static_cast<quint32>(CAdobeUtils::ReadInt32(m_box, pos)) : 0;
}

qint64 CAdobeParser::takeInt64()
{
    const auto pos = static_cast<unsigned int>(m_pos);
    const bool isThere = bytesLeft() >= 8;
    skip(8);
    return isThere ? CAdobeUtils::ReadInt64(m_box, pos) : 0;
}

void CAdobeParser::skip(quint64 bytes)
{
    m_pos += qMin(bytes, bytesLeft());
}

void CAdobeParser::skipString()
{
    auto pos = static_cast<unsigned int>(m_pos);
    CAdobeUtils::ReadString(m_box, pos);
    m_pos = qMin<quint64>(pos, static_cast<quint64>(m_box.size()));
}

void CAdobeParser::skipStrings()
{
    for (unsigned int left = takeByte(); left > 0; --left)
        skipString();
}
