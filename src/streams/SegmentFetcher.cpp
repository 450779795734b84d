#include "SegmentFetcher.h"

#include "SegmentSink.h"
#include "SegmentSource.h"
#include "SegmentWorker.h"

#include <QFile>
#include <QScopedValueRollback>

#include <memory>

namespace {

constexpr int heartbeatMs = 200; // how often a waiting stream gives notice
constexpr int defaultPlaces = 8;
constexpr int maxPlaces = 64;
// Segments that wait for an earlier one are left to their cache files beyond the first limit.
// Where there is no cache, none are handed out beyond the second until that one has come.
constexpr qint64 defaultMaxHeldBytes = 64 * 1024 * 1024;
constexpr qint64 defaultFullBytes = 256 * 1024 * 1024;

} // namespace

SegmentFetcher::SegmentFetcher(SegmentSource &source, SegmentSink &sink,
                               const MakeWorker &makeWorker, QObject *parent)
    : QObject(parent)
    , m_source(source)
    , m_sink(sink)
    , m_makeWorker(makeWorker)
    , m_places(defaultPlaces)
    , m_maxHeldBytes(defaultMaxHeldBytes)
    , m_fullBytes(defaultFullBytes)
{
    m_heartbeat.setInterval(heartbeatMs);
    connect(&m_heartbeat, &QTimer::timeout, this, &SegmentFetcher::active);
    connect(&m_source, &SegmentSource::changed, this, [this] {
        if (isFetching())
            collect();
    });
}

SegmentFetcher::~SegmentFetcher()
{
    for (SegmentWorker *worker : qAsConst(m_workers)) {
        worker->disconnect(this);
        worker->cancel();
    }
    for (SegmentWorker *worker : qAsConst(m_workers))
        worker->wait();
    if (m_state != State::Idle && m_state != State::Ended)
        m_sink.end();
}

void SegmentFetcher::setPlaces(int places)
{
    m_places = qBound(1, places, maxPlaces);
}

void SegmentFetcher::setMaxHeldBytes(qint64 bytes)
{
    m_maxHeldBytes = bytes;
}

void SegmentFetcher::setFullBytes(qint64 bytes)
{
    m_fullBytes = bytes;
}

void SegmentFetcher::setDeletesCache(bool deletes)
{
    m_deletesCache = deletes;
}

void SegmentFetcher::prepare()
{
    if (m_state != State::Idle)
        return;
    m_state = State::Preparing;
    m_heartbeat.start();
}

bool SegmentFetcher::start()
{
    prepare();
    if (m_state != State::Preparing)
        return false;
    if (!m_isCancelled) {
        m_state = State::Fetching;
        m_next = m_source.first();
        m_sink.begin(m_next);
        m_sink.setGoOn([this] {
            emit active();
            return isFetching();
        });
        handOut();
        if (!isFetching() || canGoOn())
            return true;
    }
    stop(m_isCancelled ? Transfer::Outcome::Canceled : Transfer::Outcome::Failed);
    endIfStopped();
    return false;
}

void SegmentFetcher::cancel()
{
    m_isCancelled = true;
    if (isFetching())
        stop(Transfer::Outcome::Canceled);
}

/// Whether there is anything that can bring the stream nearer to its end.
bool SegmentFetcher::canGoOn() const
{
    return !m_workers.isEmpty() || (!m_source.isEnded() && m_next > m_source.last());
}

void SegmentFetcher::handOut()
{
    if (m_workers.size() < m_places && !fetchLost())
        return;
    while (isFetching() && m_next <= m_source.last() && m_workers.size() < m_places
           && m_sink.heldBytes() < m_fullBytes) {
        if (!startWorker(m_next, false))
            return;
        ++m_next;
        emit active();
    }
}

/// Hands out once more the segment that the file waits for because its cache file was spoilt.
/// Returns false when there is such a one but no thread for it.
bool SegmentFetcher::fetchLost()
{
    const bool isNew = isFetching() && m_sink.hasLost() && indexOf(m_sink.lost()) < 0;
    return !isNew || startWorker(m_sink.lost(), true);
}

/// Returns false when the system has no thread left; the segment is then still to be handed out.
bool SegmentFetcher::startWorker(qint64 number, bool isAfresh)
{
    std::unique_ptr<SegmentWorker> worker(m_makeWorker(this));
    connect(worker.get(), &QThread::finished, this, &SegmentFetcher::collect);
    worker->setSegment(m_source.segment(number));
    if (isAfresh)
        worker->setAfresh();
    worker->setBuffer(m_sink.takeSpare());
    worker->start(QThread::InheritPriority);
    if (!worker->isRunning() && !worker->isFinished())
        return false;
    m_workers += worker.release();
    return true;
}

int SegmentFetcher::indexOf(qint64 number) const
{
    for (int i = m_workers.size() - 1; i >= 0; --i) {
        if (m_workers.at(i)->segment().number == number)
            return i;
    }
    return -1;
}

void SegmentFetcher::collect()
{
    m_hasNews = true;
    // A receiver of active() may run an event loop: the round under way then goes once more.
    if (m_isCollecting)
        return;
    const QScopedValueRollback<bool> collecting(m_isCollecting, true);
    while (m_hasNews) {
        m_hasNews = false;
        collectFinished();
        if (isFetching() && writeCollected())
            complete();
        handOut();
    }
    if (isFetching() && !canGoOn())
        stop(Transfer::Outcome::Failed);
    endSoonIfStopped();
}

void SegmentFetcher::collectFinished()
{
    for (int i = m_workers.size() - 1; i >= 0; --i) {
        const SegmentWorker *worker = m_workers.at(i);
        if (worker->isRunning())
            continue;
        if (isFetching())
            hand(*worker);
        removeWorker(i);
    }
    emit active();
}

/// Hands the sink what the worker has brought.
void SegmentFetcher::hand(const SegmentWorker &worker)
{
    const Segment &segment = worker.segment();
    const QByteArray content = worker.content();
    if (worker.isAfresh()) {
        // It had come whole before: the file must not go on without it.
        if (worker.isComplete()) {
            m_sink.take(segment.number, content);
        } else {
            qWarning("%s was lost and cannot be fetched again",
                     qUtf8Printable(m_sink.nameOf(segment.number)));
            stop(Transfer::Outcome::Failed);
        }
    } else if (worker.isCached() && m_sink.heldBytes() + content.size() > m_maxHeldBytes) {
        m_sink.takeFile(segment.number, segment.cacheFile, content.size());
    } else {
        m_sink.take(segment.number, content);
    }
}

/// Returns whether the file is complete.
bool SegmentFetcher::writeCollected()
{
    while (m_sink.next() <= m_source.last()) {
        const int written = m_sink.write(m_source.last());
        if (written < 0)
            stop(Transfer::Outcome::Failed);
        if (written <= 0 || !isFetching())
            return false;
        emit progressed();
        emit active();
        if (!isFetching())
            return false;
    }
    return m_source.isEnded();
}

void SegmentFetcher::complete()
{
    if (!m_sink.conclude()) {
        stop(Transfer::Outcome::Failed);
        return;
    }
    if (m_deletesCache)
        deleteCache();
    stop(Transfer::Outcome::Succeeded);
}

void SegmentFetcher::deleteCache()
{
    for (qint64 n = m_source.first(); n <= m_source.last() && isFetching(); ++n) {
        const QString path = m_source.segment(n).cacheFile;
        if (!path.isEmpty())
            QFile::remove(path); // one that was given up has none
        emit active();
    }
}

void SegmentFetcher::cancelWorkers()
{
    for (SegmentWorker *worker : qAsConst(m_workers)) {
        if (!worker->isRunning())
            continue;
        connect(worker, &SegmentWorker::cancelled, this, &SegmentFetcher::removeStopped,
                Qt::UniqueConnection);
        worker->cancel();
    }
}

void SegmentFetcher::removeStopped(qint64 number)
{
    const int index = indexOf(number);
    // One that is still on its way out is removed when its end is reported.
    if (index >= 0 && !m_workers.at(index)->isRunning())
        removeWorker(index);
    endSoonIfStopped();
}

void SegmentFetcher::removeWorker(int index)
{
    SegmentWorker *worker = m_workers.takeAt(index);
    worker->disconnect(this);
    delete worker; // at once, for its memory is to be used again
}

/// Decides the outcome, for good, and stops the workers.
void SegmentFetcher::stop(Transfer::Outcome outcome)
{
    if (m_state == State::Stopping || m_state == State::Ended)
        return;
    m_state = State::Stopping;
    m_outcome = outcome;
    cancelWorkers();
    endSoonIfStopped();
}

/// Leaves the end to the event loop, so that nothing of this object is on the stack by then: a
/// receiver of ended() may destroy it.
void SegmentFetcher::endSoonIfStopped()
{
    if (m_state == State::Stopping && m_workers.isEmpty())
        QMetaObject::invokeMethod(this, &SegmentFetcher::endIfStopped, Qt::QueuedConnection);
}

void SegmentFetcher::endIfStopped()
{
    if (m_state != State::Stopping || !m_workers.isEmpty())
        return;
    m_state = State::Ended;
    m_heartbeat.stop();
    m_sink.end();
    emit ended(m_outcome);
}
