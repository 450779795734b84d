#include "SegmentFetch.h"

#include "MediaRequest.h"

#include <QElapsedTimer>
#include <QThread>

#include <algorithm>
#include <memory>
#include <utility>

namespace {

constexpr int quickTries = 3;
constexpr qint64 firstPauseMs = 500;
constexpr qint64 longestPauseMs = 15 * 1000;
constexpr unsigned long lookMs = 50; // how late a stop may take effect
// A server that says that there is no such thing may yet get it, but not much later.
constexpr qint64 absencePatienceMs = 8 * 1000;

/// What is known of the tries so far; a worker's thread has it.
class Tries final
{
public:
    explicit Tries(const MediaServers &servers)
        : m_servers(servers)
    {
    }

    SegmentWorker::Answer next(const Segment &segment, QByteArray buffer, const StopFlag &stop)
    {
        if (m_isOver || !wait(stop))
            return {};
        MediaRequest request(m_servers, stop);
        request.run({QUrl(addressOf(segment)), segment.firstByte, segment.byteCount,
                     SegmentWorker::maxBytes},
                    std::move(buffer));
        SegmentWorker::Answer answer;
        answer.isSuccess = request.hasSucceeded() && !isPage(segment, request);
        if (!answer.isSuccess) {
            noteFailure(segment, request);
            return answer;
        }
        answer.isLengthKnown = request.isLengthKnown();
        answer.body = request.takeBody();
        return answer;
    }

private:
    [[nodiscard]] QString addressOf(const Segment &segment) const
    {
        const int count = segment.otherAddresses.size() + 1;
        const int index = m_failures % count;
        return index == 0 ? segment.address : segment.otherAddresses.at(index - 1);
    }

    /// Whether a page has come in the segment's place, such as one that tells of an error.
    static bool isPage(const Segment &segment, const MediaRequest &request)
    {
        return !segment.decode
            && request.contentType().startsWith(QLatin1String("text/html"), Qt::CaseInsensitive)
            && request.body().left(1024).trimmed().startsWith('<');
    }

    void noteFailure(const Segment &segment, const MediaRequest &request)
    {
        if (m_failures == 0)
            m_since.start();
        ++m_failures;
        const bool isAbsent = request.isAbsent();
        const bool isEverywhere = m_failures > segment.otherAddresses.size();
        const qint64 patienceMs =
            isAbsent ? std::min(absencePatienceMs, m_servers.patienceMs()) : m_servers.patienceMs();
        m_isOver = (isAbsent && segment.mayBeAbsent && isEverywhere)
            || (m_failures >= quickTries && m_since.elapsed() + pauseMs() > patienceMs);
        if (m_isOver)
            qWarning("%s is given up: %s", qUtf8Printable(segment.address),
                     qUtf8Printable(request.errorText()));
    }

    [[nodiscard]] qint64 pauseMs() const
    {
        if (m_failures < quickTries)
            return 0;
        return std::min(longestPauseMs, firstPauseMs << std::min(m_failures - quickTries, 10));
    }

    /// Returns false when it is stopped meanwhile.
    [[nodiscard]] bool wait(const StopFlag &stop) const
    {
        QElapsedTimer waited;
        waited.start();
        while (!stop.isRaised() && waited.elapsed() < pauseMs())
            QThread::msleep(lookMs);
        return !stop.isRaised();
    }

    const MediaServers m_servers;
    QElapsedTimer m_since; // the first failure
    int m_failures = 0;
    bool m_isOver = false;
};

} // namespace

SegmentWorker::Fetch SegmentFetch::forOne(const MediaServers &servers)
{
    const auto tries = std::make_shared<Tries>(servers);
    return [tries](const Segment &segment, QByteArray buffer, const StopFlag &stop) {
        return tries->next(segment, std::move(buffer), stop);
    };
}
