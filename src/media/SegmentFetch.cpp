#include "SegmentFetch.h"

#include "MediaRequest.h"
#include "WebAddress.h"

#include <QElapsedTimer>
#include <QThread>
#include <QUrl>
#include <QVector>

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
        if (m_failures == 0 && !m_isOver)
            takeAddresses(segment);
        if (m_isOver || !wait(stop))
            return {};
        MediaRequest request(m_servers, stop);
        request.run({m_addresses.at(m_failures % m_addresses.size()), segment.firstByte,
                     segment.byteCount, SegmentWorker::maxBytes},
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
    /// Only what lies on the web is ever asked for.
    void takeAddresses(const Segment &segment)
    {
        m_addresses.clear();
        for (const QString &address : QStringList(segment.address) + segment.otherAddresses) {
            const QUrl url(address);
            if (WebAddress::isWeb(url))
                m_addresses += url;
        }
        m_isOver = m_addresses.isEmpty();
        if (m_isOver)
            qWarning("%s is not asked for: it is no address of the web",
                     qUtf8Printable(segment.address));
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
        const bool isEverywhere = m_failures >= m_addresses.size();
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
    QVector<QUrl> m_addresses; // of the same bytes
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
