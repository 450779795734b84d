#include "browser.h"

#include "AdobePreference.h"
#include "CsvLog.h"
#include "FilterVideo.h"
#include "HostEvents.h"
#include "PageText.h"
#include "RecordReport.h"
#include "ShareMemoryManager.h"
#include "httpdownloader.h"
#include "utils.h"

#include <QCoreApplication>

#include <algorithm>
#include <limits>
#include <utility>

namespace {

constexpr int watchIntervalMs = 250;

const QLatin1String f4fFragmentPattern("([s|S]eg[0-9]{1,20}-[F|f]rag[0-9]{1,20})");

bool isExitAsked()
{
    return ShareMemoryManager::GetInstance()->GetExitFlag();
}

QString queryOf(const QString &address)
{
    const int mark = address.indexOf(QLatin1Char('?'));
    return mark > 0 ? address.mid(mark + 1) : QString();
}

/// Whether a text of the page or the caller would be taken for an option of its own.
bool isLikeOption(const QString &text)
{
    return text.startsWith(QLatin1String("--"));
}

/// Sets an option of the stream's download as its argument list would, whatever the text begins
/// with.
void setHdsOption(const QString &name, const QString &text)
{
    auto *const options = CAdobePreference::GetInstance();
    if (!isLikeOption(text)) {
        options->parseParams({QString(), QLatin1String("--") + name, text});
        return;
    }
    options->SetOption(name, text);
    HostEvents::send(event::StreamOptionSet{name, text});
}

/// What comes before the output in the stream's download as an argument list. The first two stand
/// where a program name would, and are not read.
QStringList hdsArguments(const QString &f4mUrl, const RunOptions &options)
{
    QStringList arguments{QStringLiteral("--url"), options.pageUrl, QStringLiteral("--manifest"),
                          f4mUrl};
    const bool hasQuery = f4mUrl.indexOf(QLatin1Char('?')) > 0;
    if (hasQuery && !isLikeOption(queryOf(f4mUrl)))
        arguments += {QStringLiteral("--auth"), queryOf(f4mUrl)};
    const ProxySetting &proxy = options.proxy;
    if (!proxy.host.isEmpty())
        arguments += {QStringLiteral("--proxy"),
                      QStringLiteral("%1:%2:%3").arg(proxy.type).arg(proxy.host).arg(proxy.port)};
    return arguments;
}

} // namespace

Browser::Browser(std::unique_ptr<PageEngine> engine, const RunOptions &options, QObject *parent)
    : QObject(parent)
    , m_options(options)
    , m_engine(std::move(engine))
    , m_rules(options.expectedBytes)
    , m_sizeProbe(options.netSettings())
    , m_site(options.pageUrl)
    , m_videoDownloader(options)
    , m_thumbDownloader(options)
{
    connectAll();
}

Browser::~Browser()
{
    disConnect();
    m_hdsDownloader.disconnect(this);
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
    connect(engine, &PageEngine::windowClosed, this, &Browser::requestClose);
    connect(engine, &PageEngine::lost, this, &Browser::onEngineLost);
    // Queued: whoever ends the run may stand deep inside the engine, which does not survive that
    // its page is closed there.
    connect(this, &Browser::closeWebView, this, &Browser::webViewClose, Qt::QueuedConnection);
    connect(&m_clock, &SearchClock::ticked, this, &Browser::onAnalysisTimerTimeOut);
    connect(&m_clock, &SearchClock::timedOut, this, &Browser::onTerminateTimerTimeOut);
    connect(&m_watchTimer, &QTimer::timeout, this, &Browser::onWatchTimerTimeOut);
    connect(&m_videoDownloader, &Downloader::finished, this,
            [this](int rangeNo, int downType, int state) {
                // A refused address carries no type, but it was the video's all the same.
                const bool isUntyped = downType == Downloader::NoDownload;
                getDownloadState(rangeNo, isUntyped ? Downloader::Video : downType, state);
            });
    connect(&m_thumbDownloader, &Downloader::finished, this, &Browser::getDownloadState);
    connect(&m_hdsDownloader, &CAdobeDownloader::finished, this, &Browser::onDownloadFinishedF4f);
    connect(&m_hdsDownloader, &CAdobeDownloader::AdobeActive, this, &Browser::onF4fCheckExit);
}

void Browser::disConnect()
{
    m_engine->disconnect(this);
    m_clock.disconnect(this);
    m_videoDownloader.disconnect(this);
    m_thumbDownloader.disconnect(this);
}

void Browser::loadPage()
{
    const auto limit = SearchClock::limitOf(m_options.timeoutS);
    const qint64 deadlineMs = limit ? limit->count() : std::numeric_limits<int>::max();
    m_result.startTime = QDateTime::currentDateTime();
    // Before the first line, which a host that does not read may hold up.
    m_guard = std::make_unique<RunGuard>(deadlineMs, m_options.memoryBytes, [this] {
        QMetaObject::invokeMethod(this, &Browser::onMemoryFull, Qt::QueuedConnection);
    });
    showLife();

    setProxy();
    m_engine->setShown(m_options.isShown);
    HostEvents::send(event::ParsingBegun{m_options.pageUrl});

    m_isAnalysing = true;
    m_clock.start(limit);
    m_watchTimer.start(watchIntervalMs);
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

bool Browser::isEnded() const
{
    return m_isEnded;
}

void Browser::requestClose()
{
    if (m_isClosing)
        return;
    claimEnd();
    m_isClosing = true;
    emit closeWebView();
}

/// From here on the end is the main thread's: the guard only sees to it that it comes.
void Browser::claimEnd()
{
    showLife();
    if (m_guard)
        m_guard->claimEnd();
}

bool Browser::exitIfAsked()
{
    if (!isExitAsked())
        return false;
    if (!m_isClosing) {
        claimEnd();
        HostEvents::send(event::Exiting{});
        note(RunGuard::LastLineSent);
        requestClose();
    }
    return true;
}

/// Tells the guard that this thread is alive and what it knows.
void Browser::showLife()
{
    if (m_guard)
        m_guard->beat(std::make_shared<RecordReport>(m_result, m_options));
}

void Browser::note(RunGuard::Step step)
{
    if (m_guard)
        m_guard->note(step);
}

/// The page takes more memory than it may: the run goes on with what it has found.
void Browser::onMemoryFull()
{
    if (!m_isAnalysing)
        return;
    note(RunGuard::MemoryHeeded); // to let go of that much may take a while
    onTerminateTimerTimeOut();
}

/// The run goes on with what it has found. Nobody else is left who could end the search.
void Browser::onEngineLost(const QString &reason)
{
    if (m_isClosing || !m_isAnalysing)
        return;
    qWarning("the page's engine is lost: %s", qUtf8Printable(reason));
    later([this] {
        if (m_isAnalysing)
            onTerminateTimerTimeOut();
    });
}

void Browser::onWatchTimerTimeOut()
{
    showLife();
    if (m_isHdsRunning)
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
    if (exitIfAsked() || !m_isAnalysing)
        return;
    if (contentType == QLatin1String("video/f4m")) {
        if (m_options.followsStreams && !m_isF4fMode)
            startF4f(strUrl);
        return;
    }
    if (m_isLoadedOnce)
        m_clock.restartQuietPeriod();
    if (!analyseUrl(strUrl, contentLength, contentType))
        return;
    const bool isFirst = m_result.fileList.isEmpty();
    m_result.add(strUrl);
    VideoFile *const file = m_result.get(strUrl);
    file->contentType = contentType;
    if (MediaRules::isFileSize(contentLength))
        file->nSize = contentLength;
    if (isFirst)
        showLife(); // the script that asked for it may never return
}

/// Turns the run to a stream if the address names one. Returns whether it does.
bool Browser::startF4f(const QString &url)
{
    if (!IsF4fVideoUrl(url))
        return false;
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

void Browser::startHulu(const QString &url)
{
    if (!m_site.take(url))
        return;
    later([this, url] {
        onTerminateTimerTimeOut();
        DownloadHulu(url);
    });
}

bool Browser::analyseUrl(const QString &url, qint64 size, const QString &contentType) const
{
    return MediaRules::isCandidate(url, size, contentType);
}

bool Browser::IsF4fVideoUrl(const QString &url)
{
    return PageText::isStreamAddress(url);
}

QString Browser::urltoF4mUrl(const QString &url)
{
    const QString fragment = Utils::RegexString(url, f4fFragmentPattern);
    if (fragment.isEmpty() || url.indexOf(fragment) <= 0)
        return url;
    return QString(url).replace(fragment, QLatin1String("mainfest.f4m")); // sic: sites expect it
}

QString Browser::getFormat(const QString &url)
{
    return Utils::getFormatFromUrl(url);
}

void Browser::loadFinished(bool)
{
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
    if (m_isAnalysing && !m_isClosing)
        pageScan().scan(snapshot);
    m_isScanning = false;
    if (m_isAnalysing && !m_isClosing && isVideoFounded()) {
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

void Browser::stopAnalysis()
{
    m_result.endTime = QDateTime::currentDateTime();
    showLife();
    m_clock.stop();
    m_engine->stop();
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
    if (!m_result.fileList.isEmpty()) {
        m_isAnalysing = false;
        download();
        return;
    }
    endWithoutVideo();
}

void Browser::endWithoutVideo()
{
    claimEnd();
    HostEvents::send(event::ParsingFailed{});
    note(RunGuard::LastLineSent);
    requestClose();
}

void Browser::download()
{
    if (m_isDownloadStarted)
        return;
    m_isDownloadStarted = true;
    note(RunGuard::DownloadBegun);
    m_untoldSizes.askFor(m_result, m_sizeProbe, [this] { return m_isClosing; });
    const bool isSelected = CFilterVideo(&m_result, m_options, m_sizeProbe).selectVideo();
    m_untoldSizes.forgetIn(m_result);
    if (m_isClosing || !isSelected)
        return;

    HostEvents::send(event::RecordMade{m_result.toJson()});
    note(RunGuard::RecordSent);
    const QString thumbUrl = m_result.getThumbUrl();
    if (m_options.wantsThumb && !thumbUrl.isEmpty()) {
        HostEvents::send(event::DownloadBegun{event::What::Thumb});
        m_thumbDownloader.downloadThumb(thumbUrl);
    }
    if (m_isClosing)
        return;
    HostEvents::send(event::DownloadBegun{event::What::Video});
    const VideoFile file = m_result.fileList.at(m_result.selectedVideo);
    m_videoDownloader.downloadVideo(file.address(), m_result.getVideoFullPath(m_options),
                                    file.nSize, 0, Downloader::Video);
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
    m_parts.add(state);
    setDownloadCount();
}

void Browser::setDownloadCount()
{
    if (!m_parts.haveAllEnded())
        return;
    m_result.succeeded = m_parts.report(m_result.getVideoFullPath(m_options));
    note(RunGuard::LastLineSent);
    requestClose();
}

bool Browser::mergeVideoFile(int count)
{
    return VideoParts::join(m_result.getVideoFullPath(m_options), count);
}

int Browser::DownloadF4f(const QString &f4mUrl)
{
    HostEvents::send(event::OutputFolder{m_options.paths.folder()});
    CAdobePreference::GetInstance()->parseParams(hdsArguments(f4mUrl, m_options));
    const QString path = m_options.paths.video();
    setHdsOption(QStringLiteral("outFile"), path.mid(path.lastIndexOf(QLatin1Char('/')) + 1));
    setHdsOption(QStringLiteral("outDir"), m_options.paths.folder());
    if (isLikeOption(queryOf(f4mUrl)))
        CAdobePreference::GetInstance()->SetOption(QStringLiteral("auth"), queryOf(f4mUrl));
    CAdobePreference::GetInstance()->SetOption(QStringLiteral("stall"), m_options.stallS);
    m_isHdsRunning = true;
    note(RunGuard::DownloadBegun);
    note(RunGuard::RecordSent);
    return m_hdsDownloader.Download() ? 1 : 0;
}

void Browser::onDownloadFinishedF4f(int ret)
{
    m_isHdsRunning = false;
    if (m_isClosing || exitIfAsked())
        return;
    reportVideoResult(ret);
}

void Browser::onF4fCheckExit(bool bActive)
{
    if (bActive && isExitAsked())
        m_hdsDownloader.Cancel();
}

void Browser::DownloadHulu(const QString &url)
{
    HttpDownloader downloader;
    downloader.setDownloadInfo(QString(), url, 0, -1, 0, false);
    downloader.download();
    Utils::WaitFor(&downloader, SIGNAL(downFinished(int)));
    if (m_isClosing)
        return;
    endWithoutVideo();
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
    claimEnd();
    m_isClosing = true;
    webViewClose();
}

void Browser::writeDownloadLog()
{
    CsvLog(m_result, m_options).saveDownloadResult();
    note(RunGuard::RowWritten);
}
