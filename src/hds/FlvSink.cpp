#include "FlvSink.h"

#include "AdobeUtils.h"
#include "HdsMetadata.h"
#include "MergedSource.h"

#include <QtEndian>

#include <cstring>

namespace {

constexpr int windowMs = 1000; // how exact packagers are about where a fragment begins
constexpr int maxKeptBytes = 8 * 1024 * 1024;
constexpr int flagsOffset = 4;
constexpr int headBytes = 9 + 4; // of the file, up to its first tag
constexpr qint64 usPerMs = 1000;

/// Whether a tag of sound or picture is encrypted, which Adobe Flash Video File Format
/// Specification 10.1, section E.4.1, calls filtered.
bool isEncrypted(const QByteArray &fragment, const CAdobeOutputFile::Content &content)
{
    constexpr int filterBit = 0x20;
    for (int at = content.begin; content.end - at >= FlvTag::headerBytes;) {
        const auto start = static_cast<unsigned int>(at);
        const unsigned int type = CAdobeUtils::ReadByte(fragment, start);
        if (type == (FlvTag::Audio | filterBit) || type == (FlvTag::Video | filterBit))
            return true;
        // A size of 24 bits leads no farther than can be counted: a fragment has 256 MiB at most.
        at += FlvTag::headerBytes + static_cast<int>(CAdobeUtils::ReadInt24(fragment, start + 1))
            + FlvTag::backPointerBytes;
    }
    return false;
}

} // namespace

FlvSink::FlvSink(const MergedSource &source, const QByteArray &metadata, const Target &target)
    : m_source(source)
    , m_metadata(metadata.size() <= FlvTag::maxDataBytes ? metadata : QByteArray())
    , m_target(target)
{
    reset();
}

void FlvSink::reset()
{
    m_timeline = std::make_unique<FlvTimeline>(windowMs);
    m_tags.clear();
    m_gapMs = m_mediaBytes = m_missing = m_damaged = 0;
    m_hasSound = m_hasPicture = m_isBegun = m_isProtected = false;
}

bool FlvSink::writeHead()
{
    QByteArray head = CAdobeOutputFile::GetFlvHeader(true, true);
    if (!m_metadata.isEmpty())
        m_timeline->appendTag(head, FlvTag::Script, m_metadata);
    return writeBytes(head);
}

bool FlvSink::writeSegment(qint64 number, QByteArray &fragment)
{
    const TrackSegment segment = m_source.place(number).segment;
    if (fragment.isEmpty() && segment.segment.mayBeAbsent)
        return true;
    const CAdobeOutputFile::Content content = CAdobeOutputFile::ContentOf(fragment);
    m_isProtected = !content.hasMedia && isEncrypted(fragment, content);
    if (m_isProtected)
        return false;
    noteLoss(content);
    const qint64 durationMs = qMax<qint64>(0, segment.durationUs) / usPerMs;
    if (!content.hasMedia) {
        m_gapMs += durationMs;
        return true;
    }
    m_timeline->allowGap(m_gapMs);
    m_gapMs = durationMs;
    m_mediaBytes += fragment.size();
    return writeTags(fragment, content);
}

void FlvSink::noteLoss(const CAdobeOutputFile::Content &content)
{
    if (!content.hasMedia)
        ++m_missing;
    else
        m_damaged += content.skipped + (content.isCut ? 1 : 0);
}

bool FlvSink::writeTags(QByteArray &fragment, const CAdobeOutputFile::Content &content)
{
    if (!m_isBegun && (!openFile() || !writeHead()))
        return false;
    m_isBegun = true;
    for (const FlvTag &tag : content.tags) {
        m_hasSound |= tag.type == FlvTag::Audio;
        m_hasPicture |= tag.type == FlvTag::Video;
    }
    m_tags.resize(0);
    m_tags.reserve(fragment.size());
    m_timeline->append(m_tags, fragment, content.tags);
    const bool isWritten = writeBytes(m_tags);
    if (m_tags.capacity() > maxKeptBytes)
        m_tags.clear();
    return isWritten;
}

/// Puts into the head what is known only now; where that cannot be, as in a pipe, it stays a
/// guess.
void FlvSink::beforeClose()
{
    if (!m_isBegun)
        return;
    const QByteArray head = CAdobeOutputFile::GetFlvHeader(m_hasSound, m_hasPicture);
    bool isWritten = !seekTo(flagsOffset) || writeBytes(head.mid(flagsOffset, 1));
    const int durationAt = HdsMetadata::parse(m_metadata).durationAt;
    if (durationAt >= 0 && seekTo(headBytes + FlvTag::headerBytes + durationAt)) {
        const double seconds = static_cast<double>(m_timeline->lastMs()) / 1000;
        quint64 bits = 0;
        std::memcpy(&bits, &seconds, sizeof bits);
        char bytes[sizeof bits];
        qToBigEndian(bits, bytes);
        isWritten = writeBytes(bytes, sizeof bytes) && isWritten;
    }
    if (!isWritten)
        qWarning("the head of %s cannot be written", qUtf8Printable(path()));
}

bool FlvSink::conclude()
{
    if (m_missing > 0)
        qWarning("%s is not complete: %lld fragments are missing", qUtf8Printable(path()),
                 static_cast<long long>(m_missing));
    if (m_damaged > 0)
        qWarning("%s is not complete: %lld packets are left out", qUtf8Printable(path()),
                 static_cast<long long>(m_damaged));
    return SegmentSink::conclude();
}

QString FlvSink::path() const
{
    return m_target.pathFor(QStringLiteral("flv"));
}

QString FlvSink::nameOf(qint64 number) const
{
    return QStringLiteral("fragment %1").arg(number + 1);
}

QString FlvSink::errorText() const
{
    return m_isProtected ? QStringLiteral("it is encrypted") : SegmentSink::errorText();
}

std::optional<RunClass> FlvSink::obstacle() const
{
    if (m_isProtected)
        return RunClass::Protected;
    if (m_isBegun || failure())
        return failure();
    return m_missing > 0 ? RunClass::BrokenOff : RunClass::Unsupported;
}
