#include "FlvTimeline.h"

#include "AdobeUtils.h"

#include <algorithm>
#include <limits>

namespace {

constexpr int stepMs = 40; // from the last tag to the first after a shift: a frame at 25 a second
constexpr qint64 maxTimestampMs = std::numeric_limits<qint32>::max();

bool isEarlier(const FlvTag &a, const FlvTag &b)
{
    return a.timestampMs < b.timestampMs;
}

void writeTag(QByteArray &flv, const char *header, const char *data, int dataBytes, int timestampMs)
{
    const auto start = static_cast<unsigned int>(flv.size());
    flv.append(header, FlvTag::headerBytes);
    CAdobeUtils::WriteFlvTimestamp(flv, start, timestampMs);
    flv.append(data, dataBytes);
    CAdobeUtils::WriteInt32(flv, static_cast<unsigned int>(flv.size()),
                            FlvTag::headerBytes + dataBytes);
}

/// The first media tag that says when the fragment begins; null when there is none. A sequence
/// header counts only if the samples follow soon: some packagers stamp it 0 in every fragment.
const FlvTag *firstOf(const QByteArray &buffer, const QVector<FlvTag> &tags, int windowMs)
{
    const FlvTag *header = nullptr;
    for (const FlvTag &tag : tags) {
        if (!tag.isMedia())
            continue;
        if (!tag.isSequenceHeader(buffer)) {
            const bool isFar = header && tag.timestampMs - qint64(header->timestampMs) > windowMs;
            return header && !isFar ? header : &tag;
        }
        if (!header)
            header = &tag;
    }
    return header;
}

} // namespace

FlvTimeline::FlvTimeline(int windowMs)
    : m_windowMs(qMax(0, windowMs))
{
}

void FlvTimeline::append(QByteArray &flv, const QByteArray &buffer, QVector<FlvTag> tags)
{
    std::stable_sort(tags.begin(), tags.end(), isEarlier);
    dropRepeatedHeaders(buffer, tags);
    align(buffer, tags);

    qint64 endMs = m_lastMs; // of this fragment's media
    for (const FlvTag &tag : qAsConst(tags)) {
        if (tag.isMedia())
            endMs = qMax(endMs, tag.timestampMs + m_shiftMs);
    }
    for (const FlvTag &tag : qAsConst(tags)) {
        // Script data goes along but never leads: its time stamp may be anything.
        const qint64 limitMs = tag.isMedia() ? maxTimestampMs : qMin(endMs, maxTimestampMs);
        m_lastMs = qMax(m_lastMs, qMin(tag.timestampMs + m_shiftMs, limitMs));
        const char *start = buffer.constData() + tag.offset;
        writeTag(flv, start, start + FlvTag::headerBytes, tag.dataBytes,
                 static_cast<int>(m_lastMs));
    }
}

void FlvTimeline::appendTag(QByteArray &flv, FlvTag::Type type, const QByteArray &data) const
{
    QByteArray header(FlvTag::headerBytes, '\0');
    CAdobeUtils::WriteByte(header, 0, static_cast<signed char>(type));
    CAdobeUtils::WriteInt24(header, 1, data.size());
    writeTag(flv, header.constData(), data.constData(), data.size(), static_cast<int>(m_lastMs));
}

void FlvTimeline::dropRepeatedHeaders(const QByteArray &buffer, QVector<FlvTag> &tags)
{
    const auto isRepeated = [this, &buffer](const FlvTag &tag) {
        if (!tag.isSequenceHeader(buffer))
            return false;
        QByteArray &last = tag.type == FlvTag::Audio ? m_audioHeader : m_videoHeader;
        const QByteArray data = tag.data(buffer);
        if (data == last)
            return true;
        last = QByteArray(data.constData(), data.size()); // outlives the buffer
        return false;
    };
    tags.erase(std::remove_if(tags.begin(), tags.end(), isRepeated), tags.end());
}

void FlvTimeline::align(const QByteArray &buffer, const QVector<FlvTag> &tags)
{
    const FlvTag *first = firstOf(buffer, tags, m_windowMs);
    if (!first)
        return;
    if (!m_hasStarted) {
        m_hasStarted = true;
        m_shiftMs = -first->timestampMs;
        return;
    }
    const qint64 aheadMs = first->timestampMs + m_shiftMs - m_lastMs;
    if (aheadMs > m_windowMs + m_gapMs || -aheadMs > m_windowMs / 2)
        m_shiftMs = m_lastMs + stepMs - first->timestampMs;
    m_gapMs = 0;
}
