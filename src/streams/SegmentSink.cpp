#include "SegmentSink.h"

#include "SegmentCache.h"

#include <utility>

namespace {

constexpr std::size_t maxSpares = 8;
constexpr int maxSpareBytes = 8 * 1024 * 1024;

} // namespace

SegmentSink::~SegmentSink() = default;

void SegmentSink::begin(qint64 first)
{
    end();
    m_next = first;
    m_hasLost = false;
    m_hasFailed = false;
    m_failure.reset();
    reset();
}

void SegmentSink::end()
{
    m_waiting.clear();
    m_heldBytes = 0;
    m_spares.clear();
    if (m_file.isOpen() || opensLate())
        beforeClose();
    m_file.close();
    m_goOn = nullptr;
}

void SegmentSink::take(qint64 number, const QByteArray &content)
{
    if (number < m_next)
        return; // written already
    if (number == m_next)
        m_hasLost = false;
    Waiting &segment = m_waiting[number];
    m_heldBytes += content.size() - segment.content.size();
    segment = {content, QString(), 0};
}

void SegmentSink::takeFile(qint64 number, const QString &path, qint64 bytes)
{
    take(number, QByteArray());
    if (number >= m_next)
        m_waiting[number] = {QByteArray(), path, bytes};
}

int SegmentSink::write(qint64 last)
{
    if (m_hasFailed)
        return -1;
    int written = 0;
    while (m_next <= last) {
        const auto segment = m_waiting.find(m_next);
        if (segment == m_waiting.end())
            break;
        if (!readBack(segment->second)) {
            m_waiting.erase(segment);
            m_hasLost = true;
            break;
        }
        if (!writeNext(segment->second)) {
            qWarning("%s cannot be written: %s", qUtf8Printable(path()),
                     qUtf8Printable(errorText()));
            m_hasFailed = true;
            m_failure = m_file.isTaken() ? RunClass::Busy : RunClass::Disk;
            return -1;
        }
        m_waiting.erase(segment);
        ++m_next;
        ++written;
        if (m_goOn && !m_goOn())
            break;
    }
    return written;
}

/// Has the segment's content in memory. Returns false when it has been left to a file that does not
/// hold it any more.
bool SegmentSink::readBack(Waiting &segment)
{
    if (segment.file.isEmpty())
        return true;
    segment.content = SegmentCache::read(segment.file, segment.fileBytes);
    m_heldBytes += segment.content.size();
    if (!segment.content.isEmpty())
        return true;
    qWarning("%s is not to be read again from %s", qUtf8Printable(nameOf(m_next)),
             qUtf8Printable(segment.file));
    return false;
}

bool SegmentSink::writeNext(Waiting &segment)
{
    if (!m_file.isOpen() && !opensLate() && (!openFile() || !writeHead()))
        return false;
    QByteArray content = std::move(segment.content);
    m_heldBytes -= content.size();
    const bool isWritten = writeSegment(m_next, content);
    if (m_spares.size() < maxSpares && content.capacity() <= maxSpareBytes)
        m_spares.push_back(std::move(content));
    return isWritten;
}

bool SegmentSink::openFile()
{
    return m_file.open(path(), OutputFile::Mode::Replace);
}

bool SegmentSink::writeBytes(const QByteArray &bytes)
{
    return writeBytes(bytes.constData(), bytes.size());
}

bool SegmentSink::writeBytes(const char *data, qint64 bytes)
{
    return m_file.write(data, bytes);
}

QByteArray SegmentSink::takeSpare()
{
    if (m_spares.empty())
        return {};
    QByteArray spare = std::move(m_spares.back());
    m_spares.pop_back();
    return spare;
}

bool SegmentSink::isInPlace() const
{
    return OutputFile::isInPlace(path(), m_file.size());
}

bool SegmentSink::conclude()
{
    if (m_file.isOpen() && isInPlace())
        return true;
    if (m_file.isOpen())
        m_failure = RunClass::Disk;
    qWarning(m_file.isOpen() ? "%s has vanished" : "%s has no segments", qUtf8Printable(path()));
    return false;
}

QString SegmentSink::nameOf(qint64 number) const
{
    return QStringLiteral("segment %1").arg(number);
}
