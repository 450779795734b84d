#include "AdobeOutputFile.h"

#include "AdobeUtils.h"
#include "HdsSession.h"
#include "HostEvents.h"

#include <algorithm>

namespace {

constexpr quint64 compactHeaderBytes = 8;
constexpr quint64 largeHeaderBytes = 16;
constexpr std::size_t maxSpares = 8;
constexpr int maxSpareBytes = 8 * 1024 * 1024;
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

void CAdobeOutputFile::Begin(int firstFragment)
{
    End();
    m_nextFragment = firstFragment;
    m_lastWritten = 0;
    m_lostFragment = 0;
    m_losses = Losses();
    m_hasMedia = false;
    m_hasFailed = false;
    m_hasWarned = false;
    m_timeline = std::make_unique<FlvTimeline>(option("fixWindow").toInt());
}

void CAdobeOutputFile::End()
{
    m_fragments.clear();
    m_heldBytes = 0;
    m_spares.clear();
    m_tags.clear();
    m_file.close();
    m_goOn = nullptr;
}

void CAdobeOutputFile::SetFragContent(int fragNum, const QByteArray &data)
{
    if (fragNum < m_nextFragment)
        return; // written already
    if (fragNum == m_lostFragment)
        m_lostFragment = 0;
    takeResponse(fragNum); // of an entry that this one replaces
    m_heldBytes += data.size();
    m_fragments.insert(fragNum,
                       QVariantMap{
                           {QStringLiteral("response"), data},
                           {QStringLiteral("flvData"), QByteArray()},
                           {QStringLiteral("bDecoded"), false},
                           {QStringLiteral("bflvData"), true},
                           {QStringLiteral("tagHeaderLen"), FlvTag::headerBytes},
                           {QStringLiteral("prevTagSize"), FlvTag::backPointerBytes},
                       });
}

void CAdobeOutputFile::SetFragFile(int fragNum, const QString &path, qint64 bytes)
{
    SetFragContent(fragNum, QByteArray());
    const auto entry = m_fragments.find(fragNum);
    if (entry == m_fragments.end())
        return;
    QVariantMap fields = entry->toMap();
    fields.insert(QStringLiteral("file"), path);
    fields.insert(QStringLiteral("fileBytes"), bytes);
    *entry = fields;
}

/// Has the fragment's bytes in memory. Returns false when they have been left to a file that does
/// not hold them any more; the fragment is then lost.
bool CAdobeOutputFile::readBack(int fragNum)
{
    const QVariantMap fields = m_fragments.value(fragNum).toMap();
    const QString path = fields.value(QStringLiteral("file")).toString();
    if (path.isEmpty())
        return true;
    const QByteArray content =
        CAdobeUtils::ReadWholeFile(path, fields.value(QStringLiteral("fileBytes")).toLongLong());
    if (!content.isEmpty()) {
        SetFragContent(fragNum, content);
        return true;
    }
    qWarning("fragment %d is not to be read again from %s", fragNum, qUtf8Printable(path));
    m_fragments.remove(fragNum);
    m_lostFragment = fragNum;
    return false;
}

int CAdobeOutputFile::LostFragment() const
{
    return m_lostFragment;
}

QByteArray CAdobeOutputFile::takeResponse(int fragNum)
{
    const auto entry = m_fragments.find(fragNum);
    if (entry == m_fragments.end())
        return {};
    QVariantMap fields = entry->toMap();
    const QByteArray response = fields.take(QStringLiteral("response")).toByteArray();
    *entry = fields;
    m_heldBytes -= response.size();
    return response;
}

int CAdobeOutputFile::WriteFlvFile()
{
    if (m_hasFailed)
        return -1;
    const int lastFragment = m_data.GetFragCount();
    int written = 0;
    while (m_nextFragment <= lastFragment && m_fragments.contains(m_nextFragment)) {
        if (!readBack(m_nextFragment))
            break;
        if ((!m_file.isOpen() && !openFile()) || !writeFragment(m_nextFragment)) {
            qWarning("%s cannot be written: %s", qUtf8Printable(m_file.path()),
                     qUtf8Printable(m_file.errorString()));
            m_hasFailed = true;
            return -1;
        }
        m_lastWritten = m_nextFragment++;
        ++written;
        if (m_goOn && !m_goOn())
            break;
    }
    return written;
}

/// A name that the options lack goes back into them, by interface.
bool CAdobeOutputFile::openFile()
{
    if (option("outFile").toString().isEmpty())
        m_options.SetOption(QStringLiteral("outFile"), fileName());
    if (!m_file.open(FilePath(), OutputFile::Mode::Replace) || !write(GetFlvHeader(true, true)))
        return false;
    return !option("metadata").toBool() || WriteMetadata();
}

bool CAdobeOutputFile::writeFragment(int fragNum)
{
    const QVariantMap fields = m_fragments.value(fragNum).toMap();
    if (fields.value(QStringLiteral("bflvData")).toBool()) {
        QByteArray response = takeResponse(fragNum);
        DecodeFragment(fragNum, response);
        keepSpare(response);
    }
    m_tags = m_fragments.take(fragNum).toMap().value(QStringLiteral("flvData")).toByteArray();
    const bool isWritten = write(m_tags);
    if (m_tags.capacity() > maxSpareBytes)
        m_tags.clear();
    return isWritten;
}

void CAdobeOutputFile::keepSpare(QByteArray &memory)
{
    if (m_spares.size() < maxSpares && memory.capacity() <= maxSpareBytes)
        m_spares.push_back(std::move(memory));
}

QByteArray CAdobeOutputFile::TakeSpare()
{
    if (m_spares.empty())
        return {};
    QByteArray spare = std::move(m_spares.back());
    m_spares.pop_back();
    return spare;
}

bool CAdobeOutputFile::write(const QByteArray &data)
{
    return m_file.write(data.constData(), data.size());
}

bool CAdobeOutputFile::HasMedia() const
{
    return m_hasMedia;
}

CAdobeOutputFile::Losses CAdobeOutputFile::GetLosses() const
{
    return m_losses;
}

bool CAdobeOutputFile::IsInPlace() const
{
    return OutputFile::isInPlace(FilePath(), m_file.size());
}

void CAdobeOutputFile::OutProgress() const
{
    HostEvents::send(event::Progress{m_lastWritten, m_data.GetFragCount(), event::Unit::Fragments});
}

int CAdobeOutputFile::GetWriteFragNum() const
{
    return m_lastWritten;
}

qint64 CAdobeOutputFile::HeldBytes() const
{
    return m_heldBytes;
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

void CAdobeOutputFile::SetGoOn(const std::function<bool()> &goOn)
{
    m_goOn = goOn;
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

void CAdobeOutputFile::DecodeFragment(int fragNum, QByteArray &data)
{
    QByteArray flv = std::move(m_tags);
    flv.resize(0);
    const QVector<FlvTag> tags = takeTags(fragNum, data);
    if (!tags.isEmpty()) {
        flv.reserve(data.size());
        m_timeline->append(flv, data, tags);
    }
    QVariantMap fields = m_fragments.value(fragNum).toMap();
    fields.insert(QStringLiteral("flvData"), flv);
    fields.insert(QStringLiteral("bDecoded"), true);
    m_fragments.insert(fragNum, fields);
}

/// The fragment's tags, and notes what is missing of it.
QVector<FlvTag> CAdobeOutputFile::takeTags(int fragNum, QByteArray &data)
{
    ++m_losses.given;
    if (data.isEmpty()) {
        ++m_losses.missing;
        return {};
    }
    const bool isCut = !IsWhole(data);
    unsigned int boxStart = 0;
    unsigned int payload = 0;
    unsigned long long size = 0;
    QVector<FlvTag> tags;
    int skipped = 0;
    if (VerifyFragment(data) && findMdat(data, boxStart, payload, size)) {
        const auto left = static_cast<unsigned long long>(data.size()) - payload;
        const auto begin = static_cast<int>(payload);
        tags = FlvTag::walk(data, begin, begin + static_cast<int>(qMin(size, left)), skipped);
    }
    const bool hasMedia =
        std::any_of(tags.cbegin(), tags.cend(), [](const FlvTag &tag) { return tag.isMedia(); });
    m_hasMedia |= hasMedia;
    m_losses.unusable += hasMedia ? 0 : 1;
    m_losses.cut += hasMedia && isCut ? 1 : 0;
    m_losses.skippedTags += skipped;
    if (skipped > 0 && !m_hasWarned) {
        m_hasWarned = true;
        qWarning("fragment %d: %d tags are encrypted or of no known type and left out", fragNum,
                 skipped);
    }
    return tags;
}

bool CAdobeOutputFile::WriteMetadata()
{
    const QByteArray metadata = m_data.GetMedia().value(QStringLiteral("metadata")).toByteArray();
    if (metadata.isEmpty() || metadata.size() > FlvTag::maxDataBytes)
        return true;
    QByteArray tag;
    m_timeline->appendTag(tag, FlvTag::Script, metadata);
    return write(tag);
}
