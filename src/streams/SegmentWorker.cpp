#include "SegmentWorker.h"

#include "SegmentCache.h"

#include <utility>

namespace {

constexpr int maxAttempts = 31;
constexpr int maxDecodings = 2;

} // namespace

SegmentWorker::SegmentWorker(const Fetch &fetch, QObject *parent)
    : QThread(parent)
    , m_fetch(fetch)
{
}

SegmentWorker::~SegmentWorker()
{
    end();
}

void SegmentWorker::end()
{
    if (!m_isDone)
        cancel();
    wait();
}

void SegmentWorker::run()
{
    m_content = obtain();
    if (m_stop.isRaised()) {
        m_content.clear();
        m_isComplete = false;
        emit cancelled(m_segment.number);
    }
    m_isDone = true;
}

QByteArray SegmentWorker::obtain()
{
    if (m_stop.isRaised())
        return {};
    const QString &cacheFile = m_segment.cacheFile;
    if (!m_isAfresh && !cacheFile.isEmpty()) {
        // Only what can have been fetched is of use.
        const QByteArray content = SegmentCache::readUpTo(cacheFile, maxBytes);
        if (!content.isEmpty()) {
            m_isComplete = true;
            m_isCached = true;
            return content;
        }
    }
    const QByteArray content = fetchDecoded();
    if (m_stop.isRaised())
        return {};
    if (m_isComplete && !cacheFile.isEmpty()) // without a cache the next run fetches again
        m_isCached = SegmentCache::write(cacheFile, content);
    return content;
}

/// What cannot be decoded may be something else that a server has sent by mistake, such as a page:
/// the segment is asked for once more.
QByteArray SegmentWorker::fetchDecoded()
{
    for (int round = 0; round < maxDecodings && !m_stop.isRaised(); ++round) {
        QByteArray content = fetch();
        if (!m_segment.decode || content.isEmpty() || m_segment.decode(content, m_stop))
            return content;
        m_isComplete = false;
    }
    return {};
}

/// Fetches until the segment is complete, has come twice the same, or the attempts are used up.
/// What may have been cut off is better than nothing then, but not good enough to be kept for the
/// next run.
QByteArray SegmentWorker::fetch()
{
    QByteArray content;
    if (m_segment.address.isEmpty())
        return content;
    for (int attempt = 0; attempt < maxAttempts && !m_isComplete; ++attempt) {
        if (m_stop.isRaised())
            return {};
        const Answer answer = m_fetch(m_segment, std::exchange(m_buffer, QByteArray()), m_stop);
        if (!answer.isSuccess || answer.body.size() < content.size())
            continue;
        const bool isRepeated = !content.isEmpty() && answer.body == content;
        content = answer.body;
        m_isComplete = !content.isEmpty()
            && (answer.isLengthKnown || (m_segment.isWhole && m_segment.isWhole(content)));
        if (isRepeated)
            break; // cut or not, there is no more to it
    }
    return content;
}
