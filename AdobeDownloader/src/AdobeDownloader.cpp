#include "AdobeDownloader.h"

#include "AdobeDownloadThread.h"
#include "ConnectionPool.h"
#include "HostEvents.h"

#include <QDir>
#include <QFileInfo>
#include <QPointer>
#include <QScopedValueRollback>

namespace {

constexpr int heartbeatMs = 200; // how often a waiting run gives notice
constexpr int maxWorkers = 64;
// Fragments that wait for an earlier one are left to their cache files beyond the first limit.
// Where there is no cache, none are handed out beyond the second until that one has come.
constexpr qint64 defaultMaxHeldBytes = 64 * 1024 * 1024;
constexpr qint64 fullBytes = 256 * 1024 * 1024;

constexpr int succeeded = 1;
constexpr int failed = 0;
constexpr int cancelled = -1;

} // namespace

CAdobeDownloader::CAdobeDownloader(QObject *parent)
    : CAdobeDownloader(HdsSession::ofProcess(), parent)
{
}

CAdobeDownloader::CAdobeDownloader(const std::shared_ptr<HdsSession> &session, QObject *parent)
    : QObject(parent)
    , m_session(session)
    , m_parser(std::make_shared<CAdobeParser>(m_stop, CAdobeParser::Fetch(), session))
    , m_pool(std::make_shared<ConnectionPool>())
    , m_maxHeldBytes(defaultMaxHeldBytes)
{
    m_heartbeat.setInterval(heartbeatMs);
    connect(&m_heartbeat, &QTimer::timeout, this, [this] { emit AdobeActive(true); });
}

CAdobeDownloader::~CAdobeDownloader()
{
    m_stop.raise();
    const auto workers = findChildren<CAdobeDownloadThread *>();
    for (CAdobeDownloadThread *worker : workers) {
        worker->disconnect(this);
        worker->Cancel();
    }
    for (CAdobeDownloadThread *worker : workers)
        worker->wait();
    if (m_state != State::Idle && m_state != State::Ended)
        m_session->output.End();
}

QVariant CAdobeDownloader::option(const char *key) const
{
    return m_session->options.GetOption(QLatin1String(key));
}

int CAdobeDownloader::workerPlaces() const
{
    return qBound(1, option("pannel").toInt(), maxWorkers); // sic: the key is so spelled
}

/// Tells the log what the file lacks, if anything.
void CAdobeDownloader::warnOfLosses() const
{
    const CAdobeOutputFile::Losses losses = m_session->output.GetLosses();
    if (losses.isNone())
        return;
    qWarning("%s is not complete: of %d fragments %d never came, %d hold no sound or picture that "
             "can be used and %d are cut short; %lld tags are left out",
             qUtf8Printable(m_session->output.FilePath()), losses.given, losses.missing,
             losses.unusable, losses.cut, static_cast<long long>(losses.skippedTags));
}

bool CAdobeDownloader::Download()
{
    if (m_state != State::Idle)
        return false;
    m_state = State::Preparing;
    m_heartbeat.start();
    MakeOutDir(); // without a cache the run goes on

    // The manifest is fetched in nested event loops, in which this object may be destroyed.
    const QPointer<CAdobeDownloader> self(this);
    const std::shared_ptr<CAdobeParser> parser = m_parser;
    m_session->data.Reset();
    const bool isParsed = !m_isCancelled && parser->parseManifest();
    if (!self)
        return false;
    if (isParsed && !m_isCancelled && beginFetching())
        return true;
    stopWith(m_isCancelled ? cancelled : failed);
    endIfStopped();
    return false;
}

/// Returns false when there is nothing to fetch or no worker can be started.
bool CAdobeDownloader::beginFetching()
{
    m_state = State::Fetching;
    m_nextFragment = m_parser->StartFragment();
    CAdobeOutputFile &output = m_session->output;
    output.Begin(m_nextFragment + 1);
    output.SetGoOn([this] {
        emit AdobeActive(true);
        return isFetching();
    });
    AddDownloadThread();
    return !isFetching() || !m_workers.isEmpty();
}

void CAdobeDownloader::Cancel()
{
    m_isCancelled = true;
    Abort();
}

void CAdobeDownloader::Abort()
{
    m_isCancelled = true;
    m_stop.raise();
    if (isFetching())
        stopWith(cancelled);
}

void CAdobeDownloader::SetMaxHeldBytes(qint64 bytes)
{
    m_maxHeldBytes = bytes;
}

bool CAdobeDownloader::MakeOutDir()
{
    const QString path =
        QDir(option("outDir").toString() + QLatin1String("/f4ftmp")).absolutePath();
    return QDir().mkpath(path) && QFileInfo(path).isDir();
}

void CAdobeDownloader::AddDownloadThread()
{
    const int lastFragment = m_session->data.GetFragCount();
    const int places = workerPlaces();
    if (m_workers.size() < places && !fetchLost())
        return;
    while (isFetching() && m_nextFragment < lastFragment && m_workers.size() < places
           && m_session->output.HeldBytes() < fullBytes) {
        if (!startWorker(m_nextFragment + 1, false))
            return;
        ++m_nextFragment;
        emit AdobeActive(true);
    }
}

/// Hands out once more the fragment that the file waits for because its cache file was spoilt.
/// Returns false when there is such a one but no thread for it.
bool CAdobeDownloader::fetchLost()
{
    const int lost = m_session->output.LostFragment();
    const bool isNew = isFetching() && lost > 0 && FindThreadIndex(lost) < 0;
    return !isNew || startWorker(lost, true);
}

/// Returns false when the system has no thread left; the fragment is then still to be handed out.
bool CAdobeDownloader::startWorker(int fragNum, bool isAfresh)
{
    auto *worker = new CAdobeDownloadThread(m_pool, this, m_session);
    connect(worker, &QThread::finished, this, &CAdobeDownloader::OnDownloaderFragmentFinished);
    worker->setFragNum(fragNum);
    if (isAfresh)
        worker->SetAfresh();
    worker->SetBuffer(m_session->output.TakeSpare());
    worker->start(QThread::InheritPriority);
    if (!worker->isRunning() && !worker->isFinished()) {
        delete worker;
        return false;
    }
    m_workers += worker;
    return true;
}

int CAdobeDownloader::FindThreadIndex(int fragNum) const
{
    for (int i = m_workers.size() - 1; i >= 0; --i) {
        if (m_workers.at(i)->GetFragNum() == fragNum)
            return i;
    }
    return -1;
}

void CAdobeDownloader::OnDownloaderFragmentFinished()
{
    m_hasNews = true;
    // A receiver of AdobeActive() may run an event loop: the round under way then goes once more.
    if (m_isCollecting)
        return;
    const QScopedValueRollback<bool> collecting(m_isCollecting, true);
    while (m_hasNews) {
        m_hasNews = false;
        collectFinished();
        if (isFetching() && writeCollected())
            complete();
        AddDownloadThread();
    }
    if (isFetching() && m_workers.isEmpty())
        stopWith(failed); // nothing is left that could bring the run to its end
    endSoonIfStopped();
}

void CAdobeDownloader::collectFinished()
{
    for (int i = m_workers.size() - 1; i >= 0; --i) {
        const CAdobeDownloadThread *worker = m_workers.at(i);
        if (worker->isRunning())
            continue;
        if (isFetching())
            collect(*worker);
        removeWorker(i);
    }
    emit AdobeActive(true);
}

void CAdobeDownloader::collect(const CAdobeDownloadThread &worker)
{
    CAdobeOutputFile &output = m_session->output;
    const int fragNum = worker.GetFragNum();
    const QByteArray content = worker.GetFragUrlContent();
    if (worker.IsAfresh()) {
        // It had come whole before: the file must not go on without it.
        if (worker.IsComplete()) {
            output.SetFragContent(fragNum, content);
        } else {
            qWarning("fragment %d was lost and cannot be fetched again", fragNum);
            stopWith(failed);
        }
    } else if (worker.IsCached() && output.HeldBytes() + content.size() > m_maxHeldBytes) {
        output.SetFragFile(fragNum, m_session->data.GetFragCacheFile(fragNum), content.size());
    } else {
        output.SetFragContent(fragNum, content);
    }
}

/// Returns whether the file is complete.
bool CAdobeDownloader::writeCollected()
{
    CAdobeOutputFile &output = m_session->output;
    const int lastFragment = m_session->data.GetFragCount();
    while (output.GetWriteFragNum() < lastFragment) {
        const int written = output.WriteFlvFile();
        if (written < 0)
            stopWith(failed);
        if (written <= 0 || !isFetching())
            return false;
        output.OutProgress();
        emit AdobeActive(true);
        if (!isFetching())
            return false;
    }
    return true;
}

void CAdobeDownloader::complete()
{
    if (!m_session->output.IsInPlace()) {
        qWarning("%s has vanished", qUtf8Printable(m_session->output.FilePath()));
        stopWith(failed);
        return;
    }
    warnOfLosses();
    if (!m_session->output.HasMedia()) {
        qWarning("%s holds no sound and no picture", qUtf8Printable(m_session->output.FilePath()));
        stopWith(failed);
        return;
    }
    const qint64 size = QFileInfo(m_session->output.FilePath()).size();
    HostEvents::send(event::Progress{size, size});
    if (option("delete").toBool())
        deleteCache();
    stopWith(succeeded);
}

void CAdobeDownloader::deleteCache()
{
    const int lastFragment = m_session->data.GetFragCount();
    for (int n = m_parser->StartFragment() + 1; n <= lastFragment && isFetching(); ++n) {
        QFile::remove(m_session->data.GetFragCacheFile(n)); // one that was given up has none
        emit AdobeActive(true);
    }
}

void CAdobeDownloader::RemoveAllThread()
{
    for (CAdobeDownloadThread *worker : qAsConst(m_workers)) {
        if (!worker->isRunning())
            continue;
        connect(worker, &CAdobeDownloadThread::CancleFragment, this,
                &CAdobeDownloader::OnCancelThread, Qt::UniqueConnection);
        worker->Cancel();
    }
}

void CAdobeDownloader::OnCancelThread(int fragNum)
{
    const int index = FindThreadIndex(fragNum);
    // One that is still on its way out is removed when its end is reported.
    if (index >= 0 && !m_workers.at(index)->isRunning())
        removeWorker(index);
    endSoonIfStopped();
}

void CAdobeDownloader::removeWorker(int index)
{
    CAdobeDownloadThread *worker = m_workers.takeAt(index);
    worker->disconnect(this);
    delete worker; // at once, for its memory is to be used again
}

/// Decides the result, for good, and stops the workers.
void CAdobeDownloader::stopWith(int result)
{
    if (m_state == State::Stopping || m_state == State::Ended)
        return;
    m_state = State::Stopping;
    m_result = result;
    RemoveAllThread();
    endSoonIfStopped();
}

/// Leaves the end to the event loop, so that nothing of this object is on the stack by then: a
/// receiver of finished() may destroy it.
void CAdobeDownloader::endSoonIfStopped()
{
    if (m_state == State::Stopping && m_workers.isEmpty())
        QMetaObject::invokeMethod(this, &CAdobeDownloader::endIfStopped, Qt::QueuedConnection);
}

void CAdobeDownloader::endIfStopped()
{
    if (m_state != State::Stopping || !m_workers.isEmpty())
        return;
    m_state = State::Ended;
    m_heartbeat.stop();
    m_session->output.End();
    emit finished(m_result);
}
