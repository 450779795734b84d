#include "browser.h"

#include "CsvLog.h"
#include "FilterVideo.h"
#include "HostEvents.h"
#include "ProcessMemory.h"
#include "RunLimits.h"
#include "RunTimes.h"
#include "ShareMemoryManager.h"
#include "downloader.h"
#include "utils.h"

#include <QCoreApplication>

#include <algorithm>
#include <limits>
#include <utility>

namespace {

constexpr int wholeFile = 0; // the number of the only range

bool isExitAsked()
{
    return ShareMemoryManager::GetInstance()->GetExitFlag();
}

} // namespace

Browser::Browser(std::unique_ptr<PageEngine> engine, const RunOptions &options, QObject *parent)
    : QObject(parent)
    , m_options(options)
    , m_life(m_result, options)
    , m_engine(std::move(engine))
    , m_rules(options.expectedBytes)
    , m_sizeProbe(options.netSettings())
    , m_site(options.pageUrl)
    , m_transfers(options)
{
    if (options.followsManifests)
        m_streams = std::make_unique<StreamSearch>(options);
    connectAll();
}

Browser::~Browser()
{
    disConnect();
    m_transfers.disconnect(this);
    m_engine.reset(); // it may have much to say while it goes
}

void Browser::connectAll()
{
    const PageEngine *const engine = m_engine.get();
    connect(engine, &PageEngine::requestSeen, this,
            qOverload<const QString &>(&Browser::setVideoUrl));
    connect(engine, &PageEngine::replySeen, this,
            qOverload<const QString &, qint64, const QString &>(&Browser::setVideoUrl));
    connect(engine, &PageEngine::sizeUntold, this,
            [this](const QString &url) { m_untoldSizes.add(url); });
    connect(engine, &PageEngine::replyEnded, this, &Browser::replyFinished);
    connect(engine, &PageEngine::loaded, this, &Browser::loadFinished);
    connect(engine, &PageEngine::snapshot, this, &Browser::onSnapshot);
    m_engine->setCandidateCheck([this] { return hasCandidate(); });
    connect(engine, &PageEngine::windowClosed, this, [this] {
        m_life.verdict().decide(RunClass::Stopped);
        requestClose();
    });
    connect(engine, &PageEngine::lost, this, &Browser::onEngineLost);
    // Queued: whoever ends the run may stand deep inside the engine, which does not survive that
    // its page is closed there.
    connect(this, &Browser::closeWebView, this, &Browser::webViewClose, Qt::QueuedConnection);
    connect(&m_clock, &SearchClock::ticked, this, &Browser::onAnalysisTimerTimeOut);
    connect(&m_clock, &SearchClock::timedOut, this, &Browser::onTerminateTimerTimeOut);
    connect(&m_life, &RunLife::looked, this, &Browser::onLook);
    connect(&m_life, &RunLife::memoryFull, this, &Browser::onMemoryFull);
    if (m_streams) {
        m_streams->setPrepare(
            [this](const std::function<void()> &step) { m_engine->withCookies(step); });
        connect(m_streams.get(), &StreamSearch::found, this, &Browser::onStreamFound);
    }
    connect(&m_transfers, &RunTransfers::fileEnded, this,
            [this](int outcome) { getDownloadState(wholeFile, Downloader::Video, outcome); });
    connect(&m_transfers, &RunTransfers::thumbEnded, this,
            [this](int outcome) { getDownloadState(wholeFile, Downloader::Thumb, outcome); });
    connect(&m_transfers, &RunTransfers::streamEnded, this, &Browser::onDownloadFinishedF4f);
    connect(&m_transfers, &RunTransfers::streamActive, this, [this] { onF4fCheckExit(true); });
}

void Browser::disConnect()
{
    m_engine->disconnect(this);
    m_clock.disconnect(this);
    if (m_streams)
        m_streams->disconnect(this);
    disconnect(&m_transfers, &RunTransfers::fileEnded, this, nullptr);
    disconnect(&m_transfers, &RunTransfers::thumbEnded, this, nullptr);
}

void Browser::loadPage()
{
    const auto limit = SearchClock::limitOf(m_options.timeoutS);
    const qint64 deadlineMs = limit ? limit->count() : std::numeric_limits<int>::max();
    m_result.startTime = QDateTime::currentDateTime();
    // Before the first line, which a host that does not read may hold up.
    m_life.begin(deadlineMs);

    setProxy();
    m_engine->setShown(m_options.isShown);
    HostEvents::send(event::ParsingBegun{m_options.pageUrl});

    m_isAnalysing = true;
    m_clock.start(limit);
    m_engine->load(QUrl(m_options.pageUrl));
}

void Browser::setProxy()
{
    const QNetworkProxy proxy = m_options.proxy.toNetworkProxy();
    if (proxy.type() != QNetworkProxy::NoProxy) {
        m_engine->setProxy(proxy);
    } else if (m_options.isProxyNamed) {
        // Not the setting itself, which may hold a password.
        qWarning("the proxy setting is ignored and all connections are direct: a type from 1 on "
                 "but 2, and a numeric address, are needed");
    }
}

void Browser::requestClose()
{
    if (m_isClosing)
        return;
    m_life.claimEnd();
    m_isClosing = true;
    emit closeWebView();
}

bool Browser::exitIfAsked()
{
    if (!isExitAsked())
        return false;
    m_life.verdict().decide(RunLimits::stopClass());
    if (!m_isClosing)
        endWith(event::Exiting{});
    return true;
}

void Browser::endWith(const HostEvent &lastWord)
{
    m_life.claimEnd();
    HostEvents::sendLast(lastWord);
    m_life.note(RunGuard::LastLineSent);
    requestClose();
}

/// The page takes more memory than it may: the run goes on with what it has found.
void Browser::onMemoryFull()
{
    if (!m_isAnalysing)
        return;
    m_life.note(RunGuard::MemoryHeeded); // to let go of that much may take a while
    onTerminateTimerTimeOut();
}

/// The run goes on with what it has found. Nobody else is left who could end the search.
void Browser::onEngineLost(const QString &reason)
{
    if (m_isClosing || !m_isAnalysing)
        return;
    qWarning("the page's engine is lost: %s", qUtf8Printable(reason));
    m_life.verdict().noteEngineLost();
    later([this] {
        if (m_isAnalysing)
            onTerminateTimerTimeOut();
    });
}

void Browser::onLook()
{
    if (m_transfers.isStreaming())
        onF4fCheckExit(true); // its workers are stopped before the run ends
    else
        exitIfAsked();
}

void Browser::later(const std::function<void()> &step)
{
    QMetaObject::invokeMethod(
        this,
        [this, step] {
            if (!m_isClosing)
                step();
        },
        Qt::QueuedConnection);
}

void Browser::setVideoUrl(const QString &strUrl)
{
    if (m_isClosing)
        return;
    m_engine->saveCookies();
    if (m_site.isItsPage()) {
        startHulu(strUrl);
        return;
    }
    if (m_options.followsStreams && (m_isF4fMode || startF4f(strUrl)))
        return;
    setVideoUrl(strUrl, 0, QString());
}

void Browser::setVideoUrl(const QString &strUrl, qint64 contentLength, const QString &contentType)
{
    if (m_isClosing)
        return;
    m_engine->saveCookies();
    if (contentLength > 0 || !contentType.isEmpty()) // else all that it tells is a failure
        m_life.verdict().notePageSeen();
    if (exitIfAsked() || !m_isAnalysing)
        return;
    if (contentType == QLatin1String("video/f4m")) {
        if (m_options.followsStreams && !m_isF4fMode)
            startF4f(strUrl);
        if (m_streams)
            m_streams->note(strUrl, contentType);
        return;
    }
    if (m_isLoadedOnce)
        m_clock.restartQuietPeriod();
    if (m_streams)
        m_streams->note(strUrl, contentType);
    if (m_streams && m_streams->isPiece(strUrl, contentType))
        return;
    const int before = m_result.fileList.size();
    if (!MediaRules::note(m_result, strUrl, contentLength, contentType))
        return;
    if (before == 0)
        m_life.show(); // the script that asked for it may never return
    const bool isNew = m_result.fileList.size() > before;
    if (isNew)
        m_lastCandidate.start();
    // An answer tells again and again how far it has come, which is no further wish of the page.
    if (m_options.isEager && (isNew || !m_clock.isTickDue()) && isVideoFounded())
        m_clock.tickSoon();
}

/// Turns the run to a stream if the address names one. Returns whether it does.
bool Browser::startF4f(const QString &url)
{
    if (!IsF4fVideoUrl(url))
        return false;
    // What is told by its manifest is a stream of today among others.
    if (m_streams) {
        m_streams->note(url, QString());
        if (m_streams->knowsHds())
            return false;
    }
    m_isF4fMode = true;
    m_isAnalysing = false;
    later([this, url] {
        disConnect();
        m_engine->setShown(false);
        onTerminateTimerTimeOut();
        DownloadF4f(urltoF4mUrl(url));
    });
    return true;
}

/// A stream that can be fetched takes the place of what its own address was taken for.
void Browser::onStreamFound(const VideoFile &stream)
{
    if (m_isClosing || !m_isAnalysing)
        return;
    m_result.remove(
        [&stream](const VideoFile &file) { return file.address() == stream.address(); });
    m_result.fileList += stream;
    dropPieces();
    HostEvents::send(event::CandidateFound{stream.address()});
    m_life.show();
    m_lastCandidate.start();
    if (m_options.isEager && isVideoFounded())
        m_clock.tickSoon();
}

void Browser::dropPieces()
{
    m_result.remove([this](const VideoFile &file) {
        return m_streams->isPiece(file.address(), file.isStream() ? QString() : file.contentType);
    });
}

/// What has been noted is judged to its end. Of a stream that cannot be fetched, if there is
/// nothing else, the download's end says why.
void Browser::finishStreams()
{
    m_streams->finish([this] { return m_isClosing; });
    if (m_result.fileList.isEmpty() && m_streams->refused())
        m_result.fileList += *m_streams->refused();
    m_streams->stop();
}

void Browser::startHulu(const QString &url)
{
    if (!m_site.take(url))
        return;
    later([this, url] {
        onTerminateTimerTimeOut();
        DownloadHulu(url);
    });
}

void Browser::loadFinished(bool isOk)
{
    if (isOk)
        m_life.verdict().notePageSeen();
    if (m_isClosing || exitIfAsked() || m_isLoadedOnce || !m_isAnalysing)
        return;
    m_isLoadedOnce = true;
    m_clock.restartQuietPeriod();
    saveHtmlToImage();
}

void Browser::saveHtmlToImage()
{
    m_engine->layOutWhole();
}

void Browser::replyFinished()
{
    exitIfAsked();
}

void Browser::onAnalysisTimerTimeOut()
{
    if (m_isClosing || exitIfAsked() || !m_isAnalysing || m_isF4fMode || m_isScanning)
        return;
    findMedia();
}

void Browser::findMedia()
{
    m_isScanning = true;
    m_engine->requestSnapshot();
}

void Browser::onSnapshot(const PageSnapshot &snapshot)
{
    if (m_isAnalysing && !m_isClosing && m_streams)
        m_streams->scan(snapshot);
    if (m_isAnalysing && !m_isClosing)
        pageScan().scan(snapshot);
    m_isScanning = false;
    if (m_streams && m_isAnalysing)
        dropPieces();
    const bool isJudging = m_streams && m_streams->isJudging();
    if (m_isAnalysing && !m_isClosing && !isJudging && isVideoFounded() && !mayBetterCome()) {
        stopAnalysis();
        m_isAnalysing = false;
        download();
    }
}

int Browser::parseDomParam(const PageSnapshot &snapshot)
{
    pageScan().scanParams(snapshot);
    return m_result.fileList.size();
}

/// A scanner that stops with the analysis: from then on the record stays as it was selected from.
PageScan Browser::pageScan()
{
    return {m_result, m_sizeProbe, m_options.pageUrl,
            [this] { return m_isClosing || !m_isAnalysing; }};
}

bool Browser::isVideoFounded() const
{
    return std::any_of(m_result.fileList.cbegin(), m_result.fileList.cend(),
                       [this](const VideoFile &file) { return m_rules.isFound(file); });
}

/// Whether there is something to choose. An address alone may be anything: players ask for empty
/// videos to learn what the engine can do.
bool Browser::hasCandidate() const
{
    return std::any_of(m_result.fileList.cbegin(), m_result.fileList.cend(),
                       [](const VideoFile &file) {
                           return file.nSize > 0 || file.urlType != QLatin1String("http");
                       });
}

/// What comes first may be an advertisement. The toolkit's engine lets it play to its end, which
/// nobody waits for.
bool Browser::mayBetterCome() const
{
    using std::chrono::milliseconds;
    const milliseconds pause = runTimes().analysisTick * 3 / 5;
    // An eager run has a pause of its own.
    return !m_options.isEager && m_options.engine != CVideoPreference::Engine::Webkit
        && m_lastCandidate.isValid() && milliseconds(m_lastCandidate.elapsed()) < pause;
}

void Browser::stopAnalysis()
{
    m_result.endTime = QDateTime::currentDateTime();
    m_life.verdict().noteSearchEnded();
    m_life.show();
    m_clock.stop();
    m_engine->stop();
    if (m_options.memoryBytes > 0) // what the page has taken is not taken from what follows
        ProcessMemory::limitGrowth(ProcessMemory::spareBytes);
}

void Browser::onTerminateTimerTimeOut()
{
    if (m_isClosing)
        return;
    stopAnalysis();
    if (m_isF4fMode) {
        m_isAnalysing = false;
        return;
    }
    if (m_site.isItsPage() && m_site.isAsked())
        return;
    if (m_streams) {
        m_life.note(RunGuard::DownloadBegun); // the wait has a bound of its own
        finishStreams();
        if (m_isClosing || !m_isAnalysing)
            return;
    }
    if (m_result.fileList.isEmpty()) {
        m_life.verdict().noteNothingFound();
        endWith(event::ParsingFailed{});
        return;
    }
    m_isAnalysing = false;
    download();
}

void Browser::download()
{
    if (m_isDownloadStarted)
        return;
    m_isDownloadStarted = true;
    m_life.note(RunGuard::DownloadBegun);
    m_untoldSizes.askFor(m_result, m_sizeProbe, [this] { return m_isClosing; });
    const bool isSelected = CFilterVideo(&m_result, m_options, m_sizeProbe).selectVideo();
    m_untoldSizes.forgetIn(m_result);
    if (m_isClosing || !isSelected)
        return;

    HostEvents::send(event::RecordMade{m_result.toJson()});
    m_life.note(RunGuard::RecordSent);
    const QString thumbUrl = m_result.getThumbUrl();
    if (m_options.wantsThumb && !thumbUrl.isEmpty()) {
        HostEvents::send(
            event::DownloadBegun{event::What::Thumb, thumbUrl, m_options.paths.thumb()});
        m_transfers.startThumb(thumbUrl);
    }
    if (m_isClosing)
        return;
    const VideoFile file = m_result.fileList.at(m_result.selectedVideo);
    const QString path = m_result.getVideoFullPath(m_options);
    HostEvents::send(event::DownloadBegun{event::What::Video, file.address(), path});
    m_life.verdict().noteVideoBegun(path);
    if (file.isStream())
        m_transfers.startManifest(file, path);
    else
        m_transfers.startFile(file.address(), path, file.nSize);
}

void Browser::getDownloadState(int, int downType, int state)
{
    if (m_isClosing || exitIfAsked())
        return;
    if (downType == Downloader::Thumb)
        VideoParts::reportEnd(event::What::Thumb, state);
    if (downType == Downloader::Video)
        reportVideoResult(state);
}

void Browser::reportVideoResult(int state)
{
    m_life.verdict().noteVideoEnded(static_cast<Transfer::Outcome>(state),
                                    m_transfers.videoReport());
    m_parts.add(state);
    setDownloadCount();
}

void Browser::setDownloadCount()
{
    if (!m_parts.haveAllEnded())
        return;
    m_result.succeeded = m_parts.report(m_result.getVideoFullPath(m_options));
    m_life.note(RunGuard::LastLineSent);
    requestClose();
}

bool Browser::mergeVideoFile(int count)
{
    return VideoParts::join(m_result.getVideoFullPath(m_options), count);
}

int Browser::DownloadF4f(const QString &f4mUrl)
{
    m_life.note(RunGuard::DownloadBegun);
    m_life.note(RunGuard::RecordSent);
    m_life.verdict().noteVideoBegun(m_options.paths.video());
    m_transfers.startStream(f4mUrl);
    return m_transfers.isStreaming() ? 1 : 0;
}

void Browser::onDownloadFinishedF4f(int ret)
{
    const QString path = m_transfers.videoReport().path;
    if (!path.isEmpty())
        m_life.verdict().noteVideoBegun(path); // known only now
    if (m_isClosing || exitIfAsked())
        return;
    reportVideoResult(ret);
}

void Browser::onF4fCheckExit(bool bActive)
{
    if (bActive && isExitAsked())
        m_transfers.cancelStream();
}

void Browser::DownloadHulu(const QString &url)
{
    SelectionSite::ask(url, m_options);
    m_life.verdict().noteNothingFound();
    if (!m_isClosing)
        endWith(event::ParsingFailed{});
}

void Browser::webViewClose()
{
    if (m_isEnded)
        return;
    m_isEnded = true;
    disConnect();
    Utils::CloseProcessWindow(QCoreApplication::applicationPid(), QStringLiteral("flash player"));
    writeDownloadLog();
    m_engine->close();
    emit runEnded();
}

void Browser::endRun()
{
    m_life.claimEnd();
    m_isClosing = true;
    webViewClose();
}

void Browser::writeDownloadLog()
{
    CsvLog(m_result, m_options).saveDownloadResult();
    m_life.note(RunGuard::RowWritten);
}
