#include "TracksTransfer.h"

#include "HostEvents.h"
#include "MergedSource.h"
#include "SegmentFetch.h"
#include "SegmentFetcher.h"

#include <QDir>
#include <QFileInfo>

#include <malloc.h>

namespace {

constexpr int heartbeatMs = 200;
// Of segments that wait for an earlier one. What is beyond is read back from the cache; without
// one, no further ones are asked for until it has come.
constexpr qint64 maxHeldBytes = 16 * 1024 * 1024;
// Every segment comes on a thread of its own. With a heap for each of those that go side by side,
// the process keeps many times the memory that is in use.
constexpr int maxHeaps = 2;

} // namespace

TracksTransfer::TracksTransfer(std::unique_ptr<Presentation> presentation,
                               const QByteArray &binding, const Wish &wish,
                               const MediaServers &servers, QObject *parent)
    : Transfer(parent)
    , m_presentation(std::move(presentation))
    , m_binding(binding)
    , m_wish(wish)
    , m_servers(servers)
{
    m_heartbeat.setInterval(heartbeatMs);
    connect(&m_heartbeat, &QTimer::timeout, this, [this] { emit progressed(0, 0); });
    connect(m_presentation.get(), &Presentation::ready, this, &TracksTransfer::onReady);
    connect(m_presentation.get(), &Presentation::failed, this, &TracksTransfer::onFailed);
}

TracksTransfer::~TracksTransfer() = default;

void TracksTransfer::start()
{
    if (m_isStarted)
        return;
    m_isStarted = true;
    if (m_isCancelled) {
        end(Outcome::Canceled);
        return;
    }
    m_heartbeat.start();
    m_presentation->open();
}

void TracksTransfer::cancel()
{
    m_isCancelled = true;
    m_presentation->finish();
    if (m_fetcher)
        m_fetcher->cancel();
    else if (m_isStarted) // queued: a receiver of the end may destroy whoever calls
        QMetaObject::invokeMethod(
            this, [this] { end(Outcome::Canceled); }, Qt::QueuedConnection);
}

void TracksTransfer::onReady()
{
    m_heartbeat.stop();
    ::mallopt(M_ARENA_MAX, maxHeaps);
    if (!m_wish.cacheFolder.isEmpty())
        QDir().mkpath(m_wish.cacheFolder); // without a cache it goes on
    m_source =
        std::make_unique<MergedSource>(m_presentation->tracks(), m_wish.cacheFolder, m_binding);
    m_sink = m_presentation->makeSink(*m_source, m_wish.target);
    if (!m_sink)
        return onFailed(Presentation::Failure::Unsupported,
                        QStringLiteral("a part of the program is missing"));
    m_fetcher = std::make_unique<SegmentFetcher>(*m_source, *m_sink, [this](QObject *parent) {
        return new SegmentWorker(SegmentFetch::forOne(m_servers), parent);
    });
    // What is not wanted is not asked for: one of them may be enough.
    m_fetcher->setPlaces(m_wish.enoughBytes > 0 ? 1 : m_wish.places);
    m_fetcher->setDeletesCache(true);
    m_fetcher->setMaxHeldBytes(maxHeldBytes);
    if (m_wish.cacheFolder.isEmpty())
        m_fetcher->setFullBytes(maxHeldBytes);
    connect(m_fetcher.get(), &SegmentFetcher::active, this, [this] {
        const bool isCounted = !m_presentation->isLive();
        emit progressed(m_sink->next(), isCounted ? m_source->last() + 1 : 0);
    });
    connect(m_fetcher.get(), &SegmentFetcher::progressed, this, &TracksTransfer::tellProgress);
    connect(m_fetcher.get(), &SegmentFetcher::ended, this, &TracksTransfer::onEnded);
    m_fetcher->start();
}

void TracksTransfer::tellProgress()
{
    const bool isCounted = !m_presentation->isLive();
    HostEvents::send(event::Progress{m_sink->next(), isCounted ? m_source->last() + 1 : 0,
                                     event::Unit::Fragments});
    stopIfEnough();
}

/// What is whole by now is not stopped.
void TracksTransfer::stopIfEnough()
{
    const bool isWhole = m_sink->next() > m_source->last() && m_source->isEnded();
    if (m_wish.enoughBytes == 0 || isWhole || m_sink->mediaBytes() <= m_wish.enoughBytes)
        return;
    m_hasEnough = true;
    cancel();
}

void TracksTransfer::onFailed(Presentation::Failure failure, const QString &reason)
{
    m_failure = failure;
    refuse(reason);
    end(Outcome::Failed);
}

void TracksTransfer::refuse(const QString &reason)
{
    qWarning("the stream cannot be fetched: %s", qUtf8Printable(reason));
    HostEvents::send(event::StreamRefused{report(Outcome::Failed).runClass, reason});
}

void TracksTransfer::onEnded(Outcome outcome)
{
    m_presentation->finish();
    if (m_hasEnough)
        outcome = Outcome::Failed;
    if (m_sink->isProtected()) {
        m_failure = Presentation::Failure::Protected;
        refuse(QStringLiteral("it is encrypted"));
    }
    if (outcome == Outcome::Succeeded && missingSegments() > 0)
        HostEvents::send(event::PartsMissing{static_cast<int>(missingSegments()),
                                             static_cast<int>(m_source->last() + 1)});
    if (outcome == Outcome::Succeeded) {
        const qint64 bytes = QFileInfo(path()).size();
        HostEvents::send(event::Progress{bytes, bytes});
        if (!m_wish.cacheFolder.isEmpty())
            QDir().rmdir(m_wish.cacheFolder); // stays while another stream's segments are in it
        if (m_wish.isStrict && missingSegments() > 0)
            outcome = Outcome::Failed;
    }
    end(outcome);
}

void TracksTransfer::end(Outcome outcome)
{
    m_heartbeat.stop();
    if (m_hasEnded)
        return;
    m_hasEnded = true;
    emit ended(outcome);
}

TransferReport TracksTransfer::report(Outcome outcome) const
{
    TransferReport report = Transfer::report(outcome);
    report.path = path();
    report.runClass = classOr(report.runClass);
    // A server that answers has not broken off.
    if (report.runClass == RunClass::BrokenOff && *m_servers.denials > 0)
        report.runClass = RunClass::Refused;
    return report;
}

/// What the presentation or the file says has become of it; otherwise what the outcome does.
RunClass TracksTransfer::classOr(RunClass otherwise) const
{
    using Failure = Presentation::Failure;
    if (m_failure)
        return *m_failure == Failure::Protected  ? RunClass::Protected
            : *m_failure == Failure::Unreachable ? RunClass::BrokenOff
                                                 : RunClass::Unsupported;
    if (!m_sink)
        return otherwise;
    if (const std::optional<RunClass> obstacle = m_sink->obstacle())
        return *obstacle;
    if (m_hasEnough)
        return RunClass::Stopped;
    return m_sink->missingSegments() + m_sink->damagedPackets() > 0 ? RunClass::Incomplete
                                                                    : otherwise;
}

qint64 TracksTransfer::missingSegments() const
{
    return m_sink ? m_sink->missingSegments() : 0;
}

QString TracksTransfer::path() const
{
    return m_sink ? m_sink->path() : QString();
}
