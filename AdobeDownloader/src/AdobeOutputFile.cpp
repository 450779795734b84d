#include "AdobeOutputFile.h"

#include "AdobeUtils.h"
#include "HdsSession.h"
#include "HostEvents.h"

#include <QFileInfo>

#include <algorithm>

namespace {

constexpr quint64 compactHeaderBytes = 8;
constexpr quint64 largeHeaderBytes = 16;
constexpr int maxKeptBytes = 8 * 1024 * 1024;
constexpr unsigned int flagsOffset = 4;

const QByteArray &mdatType()
{
    static const QByteArray type("mdat");
    return type;
}

/// Looks for the mdat box; `payload` and `size` are what its header says, `boxStart` where that is.
bool findMdat(const QByteArray &data, unsigned int &boxStart, unsigned int &payload,
              unsigned long long &size)
{
    quint64 pos = 0;
    while (CAdobeUtils::HasBytes(data, pos, compactHeaderBytes)) {
        boxStart = static_cast<unsigned int>(pos);
        if (CAdobeUtils::ReadInt32(data, boxStart) == 1
            && !CAdobeUtils::HasBytes(data, pos, largeHeaderBytes))
            return false;
        payload = boxStart;
        QByteArray type;
        CAdobeUtils::ReadBoxHeader(data, payload, type, size);
        if (type == mdatType())
            return true;
        if (!CAdobeUtils::HasBytes(data, payload, size))
            return false;
        pos = payload + size;
    }
    return false;
}

} // namespace

CAdobeOutputFile::CAdobeOutputFile(CAdobePreference &options, const CAdobeData &data)
    : m_options(options)
    , m_data(data)
{
    Begin(1);
}

CAdobeOutputFile *CAdobeOutputFile::GetInstance()
{
    return &HdsSession::ofProcess()->output;
}

QVariant CAdobeOutputFile::option(const char *key) const
{
    return m_options.GetOption(QLatin1String(key));
}

void CAdobeOutputFile::reset()
{
    m_lastWritten = 0;
    m_losses = Losses();
    m_hasMedia = false;
    m_hasWarned = false;
    m_tags.clear();
    m_timeline = std::make_unique<FlvTimeline>(option("fixWindow").toInt());
}

/// A name that the options lack goes back into them, by interface.
bool CAdobeOutputFile::writeHead()
{
    if (option("outFile").toString().isEmpty())
        m_options.SetOption(QStringLiteral("outFile"), fileName());
    if (!writeBytes(GetFlvHeader(true, true)))
        return false;
    return !option("metadata").toBool() || WriteMetadata();
}

bool CAdobeOutputFile::writeSegment(qint64 number, QByteArray &content)
{
    const auto fragNum = static_cast<int>(number);
    DecodeFragment(fragNum, content);
    if (!writeBytes(m_tags))
        return false;
    if (m_tags.capacity() > maxKeptBytes)
        m_tags.clear();
    m_lastWritten = fragNum;
    return true;
}

bool CAdobeOutputFile::conclude()
{
    if (!SegmentSink::conclude())
        return false;
    warnOfLosses();
    if (!m_hasMedia) {
        qWarning("%s holds no sound and no picture", qUtf8Printable(FilePath()));
        return false;
    }
    const qint64 size = QFileInfo(FilePath()).size();
    HostEvents::send(event::Progress{size, size});
    return true;
}

void CAdobeOutputFile::warnOfLosses() const
{
    if (m_losses.isNone())
        return;
    HostEvents::send(event::PartsMissing{
        qMax(1, m_losses.missing + m_losses.unusable + m_losses.cut), m_losses.given});
    qWarning("%s is not complete: of %d fragments %d never came, %d hold no sound or picture that "
             "can be used and %d are cut short; %lld tags are left out",
             qUtf8Printable(FilePath()), m_losses.given, m_losses.missing, m_losses.unusable,
             m_losses.cut, static_cast<long long>(m_losses.skippedTags));
}

void CAdobeOutputFile::OutProgress() const
{
    HostEvents::send(event::Progress{m_lastWritten, m_data.GetFragCount(), event::Unit::Fragments});
}

QString CAdobeOutputFile::nameOf(qint64 number) const
{
    return QStringLiteral("fragment %1").arg(number);
}

QString CAdobeOutputFile::FilePath() const
{
    return option("outDir").toString() + QLatin1Char('/') + fileName();
}

QString CAdobeOutputFile::fileName() const
{
    const QString name = option("outFile").toString();
    return name.isEmpty() ? m_data.GetBaseFileName(0) + QLatin1String(".flv") : name;
}

QByteArray CAdobeOutputFile::GetFlvHeader(bool audio, bool video)
{
    // "FLV", version 1, flags, header length 9, and the back-pointer of the tag before the first.
    QByteArray header = CAdobeUtils::QStringToHex(QStringLiteral("464c5601050000000900000000"));
    CAdobeUtils::WriteByte(header, flagsOffset,
                           static_cast<signed char>((audio ? 4 : 0) + (video ? 1 : 0)));
    return header;
}

bool CAdobeOutputFile::VerifyFragment(QByteArray &data)
{
    unsigned int boxStart = 0;
    unsigned int payload = 0;
    unsigned long long size = 0;
    if (!findMdat(data, boxStart, payload, size))
        return false;
    if (size == 0 || !CAdobeUtils::HasBytes(data, payload, size)) {
        // The low half of a 64-bit size may read as the type and would pass for a compact header.
        if (payload - boxStart == largeHeaderBytes)
            CAdobeUtils::WriteInt32(data, payload - 4, 0);
        CAdobeUtils::WriteBoxSize(data, payload, mdatType(),
                                  static_cast<unsigned int>(data.size()) - boxStart);
    }
    return true;
}

bool CAdobeOutputFile::IsWhole(const QByteArray &data)
{
    unsigned int boxStart = 0;
    unsigned int payload = 0;
    unsigned long long size = 0;
    return findMdat(data, boxStart, payload, size) && CAdobeUtils::HasBytes(data, payload, size);
}

CAdobeOutputFile::Content CAdobeOutputFile::ContentOf(QByteArray &data)
{
    Content content;
    content.isCut = !IsWhole(data);
    unsigned int boxStart = 0;
    unsigned int payload = 0;
    unsigned long long size = 0;
    if (VerifyFragment(data) && findMdat(data, boxStart, payload, size)) {
        const auto left = static_cast<unsigned long long>(data.size()) - payload;
        content.begin = static_cast<int>(payload);
        content.end = content.begin + static_cast<int>(qMin(size, left));
        content.tags = FlvTag::walk(data, content.begin, content.end, content.skipped);
    }
    content.hasMedia = std::any_of(content.tags.cbegin(), content.tags.cend(),
                                   [](const FlvTag &tag) { return tag.isMedia(); });
    return content;
}

void CAdobeOutputFile::DecodeFragment(int fragNum, QByteArray &data)
{
    m_tags.resize(0);
    const QVector<FlvTag> tags = takeTags(fragNum, data);
    if (tags.isEmpty())
        return;
    m_tags.reserve(data.size());
    m_timeline->append(m_tags, data, tags);
}

/// The fragment's tags, and notes what is missing of it.
QVector<FlvTag> CAdobeOutputFile::takeTags(int fragNum, QByteArray &data)
{
    ++m_losses.given;
    if (data.isEmpty()) {
        ++m_losses.missing;
        return {};
    }
    const Content content = ContentOf(data);
    m_hasMedia |= content.hasMedia;
    m_losses.unusable += content.hasMedia ? 0 : 1;
    m_losses.cut += content.hasMedia && content.isCut ? 1 : 0;
    m_losses.skippedTags += content.skipped;
    if (content.skipped > 0 && !m_hasWarned) {
        m_hasWarned = true;
        qWarning("fragment %d: %d tags are encrypted or of no known type and left out", fragNum,
                 content.skipped);
    }
    return content.tags;
}

bool CAdobeOutputFile::WriteMetadata()
{
    const QByteArray metadata = m_data.GetMedia().value(QStringLiteral("metadata")).toByteArray();
    if (metadata.isEmpty() || metadata.size() > FlvTag::maxDataBytes)
        return true;
    QByteArray tag;
    m_timeline->appendTag(tag, FlvTag::Script, metadata);
    return writeBytes(tag);
}
