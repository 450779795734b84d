#include "HlsKeyRing.h"

#include "HlsCipher.h"
#include "MediaRequest.h"

#include <QElapsedTimer>
#include <QThread>

#include <chrono>

namespace {

constexpr auto lookInterval = std::chrono::milliseconds(50); // how late a stop may take effect
constexpr int quickTries = 3;
constexpr qint64 firstPauseMs = 100;
constexpr qint64 longestPauseMs = 5000;
constexpr qint64 maxAnswerBytes = 64 * 1024; // such as a page that stands in a key's place

/// Waits before the next try, longer each time.
void pauseAfter(int tries, const StopFlag &stop)
{
    const qint64 pauseMs = qMin(longestPauseMs, firstPauseMs << qMin(tries, 10));
    QElapsedTimer since;
    since.start();
    while (!stop.isRaised() && !since.hasExpired(pauseMs))
        QThread::msleep(static_cast<unsigned long>(lookInterval.count()));
}

} // namespace

HlsKeyRing::HlsKeyRing(const MediaServers &servers)
    : m_servers(servers)
{
}

QByteArray HlsKeyRing::key(const QUrl &address, const StopFlag &stop)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    Entry &entry = m_entries[address.toString(QUrl::FullyEncoded)]; // stays where it is
    while (entry.isBeingFetched && !stop.isRaised())
        m_hasNews.wait_for(lock, lookInterval);
    if (entry.isDecided || stop.isRaised())
        return entry.bytes;
    entry.isBeingFetched = true;
    lock.unlock();
    const QByteArray bytes = fetch(address, stop);
    lock.lock();
    entry.bytes = bytes;
    entry.isBeingFetched = false;
    entry.isDecided = !bytes.isEmpty() || !stop.isRaised(); // else another thread may fetch it
    m_hasNews.notify_all();
    return bytes;
}

/// Tries again while the server keeps silent or is out of order; one that has no key, or something
/// else in its place, is believed sooner.
QByteArray HlsKeyRing::fetch(const QUrl &address, const StopFlag &stop) const
{
    QElapsedTimer since;
    since.start();
    for (int tries = 1; !stop.isRaised(); ++tries) {
        MediaRequest request(m_servers, stop);
        const bool hasCome = request.run({address, 0, 0, maxAnswerBytes});
        if (hasCome && request.body().size() == HlsCipher::keyBytes)
            return request.takeBody();
        const bool isHopeless =
            hasCome || request.isAbsent() || since.hasExpired(m_servers.patienceMs());
        if (address.isEmpty() || (isHopeless && tries >= quickTries)) {
            qWarning("no key from %s: %s", qUtf8Printable(address.toString(QUrl::RemoveUserInfo)),
                     hasCome ? "it is not of 16 bytes" : qUtf8Printable(request.errorText()));
            break;
        }
        pauseAfter(tries, stop);
    }
    return {};
}
