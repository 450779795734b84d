#include "browser.h"

#include "AdobePreference.h"
#include "CsvLog.h"
#include "FilterVideo.h"
#include "HostEvents.h"
#include "NetDomManager.h"
#include "PageText.h"
#include "QWebPageProxy.h"
#include "RecordReport.h"
#include "RunTimes.h"
#include "ShareMemoryManager.h"
#include "VideoPreference.h"
#include "WebkitSnapshot.h"
#include "httpdownloader.h"
#include "utils.h"

#include <QApplication>
#include <QFile>
#include <QImage>
#include <QPainter>
#include <QScopedValueRollback>
#include <QWebFrame>
#include <QWebSecurityOrigin>
#include <QWebSettings>
#include <QWebView>

#include <limits>

namespace {

constexpr int quietPeriodMs = 20000;
constexpr int watchIntervalMs = 250;

constexpr qint64 knownSizeFrom = 1048576; // a smaller reply says nothing of the file's size
constexpr qint64 acceptedMediaFrom = 1048576;
constexpr qint64 acceptedAnythingFrom = 1073741824;
constexpr qint64 foundAnythingFrom = 10485760;
constexpr qint64 foundMediaFrom = 5242880;

constexpr int maxPaintedWidth = 8192;
constexpr int maxPaintedPixels = 32 * 1024 * 1024;

constexpr qint64 copyChunkBytes = 1 << 20;

/// What the media framework, with all its plug-ins, opens by itself: files of this machine, and
/// servers past the page's network and its proxy.
constexpr const char *playerSchemes[] = {
    "aws",   "bluray",    "cdda",     "dav",   "davs",          "dv",     "dvb",       "dvd",
    "fd",    "hdv",       "icy",      "icyx",  "imagesequence", "iradio", "mms",       "mmsh",
    "mmst",  "multifile", "nfs",      "pipe",  "pushfile",      "radio",  "resource",  "rfb",
    "rist",  "rtmfp",     "rtmp",     "rtmpe", "rtmps",         "rtmpt",  "rtmpte",    "rtmpts",
    "rtp",   "rtsp",      "rtsp-sdp", "rtsph", "rtsps",         "rtspsh", "rtspst",    "rtspsu",
    "rtspt", "rtspu",     "sdp",      "sftp",  "shm",           "smb",    "splitfile", "splitmux",
    "srt",   "tcp",       "testbin",  "udp",   "v4l2",          "vcd",    "webrtc"};

const QLatin1String f4fFragmentPattern("([s|S]eg[0-9]{1,20}-[F|f]rag[0-9]{1,20})");

bool isMedia(const QString &contentType)
{
    return contentType.contains(QLatin1String("video/"))
        || contentType.contains(QLatin1String("audio/"));
}

constexpr int noLimitMs = std::numeric_limits<int>::max();

/// The time that the search may take. A negative number of seconds sets no limit.
int searchLimitMs(int seconds)
{
    return seconds < 0 ? noLimitMs
                       : static_cast<int>(qMin<qint64>(seconds * qint64(1000), noLimitMs));
}

bool isExitAsked()
{
    return ShareMemoryManager::GetInstance()->GetExitFlag();
}

/// Tells how a download ended, unless its state is one that is not reported.
void reportResult(event::What what, int state)
{
    switch (state) {
    case Downloader::Succeeded:
        return HostEvents::send(event::DownloadEnded{what, event::Outcome::Succeeded});
    case Downloader::Failed:
        return HostEvents::send(event::DownloadEnded{what, event::Outcome::Failed});
    case Downloader::Canceled:
        return HostEvents::send(event::DownloadEnded{what, event::Outcome::Canceled});
    default:
        return;
    }
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
QStringList hdsArguments(const QString &f4mUrl)
{
    const auto *const preference = CVideoPreference::instance();
    QStringList arguments{QStringLiteral("--url"), preference->GetPageUrl(),
                          QStringLiteral("--manifest"), f4mUrl};
    const bool hasQuery = f4mUrl.indexOf(QLatin1Char('?')) > 0;
    if (hasQuery && !isLikeOption(queryOf(f4mUrl)))
        arguments += {QStringLiteral("--auth"), queryOf(f4mUrl)};
    const ProxySetting proxy = preference->GetProxy();
    if (!proxy.host.isEmpty())
        arguments += {QStringLiteral("--proxy"),
                      QStringLiteral("%1:%2:%3").arg(proxy.type).arg(proxy.host).arg(proxy.port)};
    return arguments;
}

bool appendFile(QFile &output, const QString &path)
{
    QFile input(path);
    if (!input.open(QIODevice::ReadOnly))
        return false;
    while (!input.atEnd()) {
        const QByteArray chunk = input.read(copyChunkBytes);
        if (chunk.isEmpty() || output.write(chunk) != chunk.size())
            return false;
    }
    return true;
}

} // namespace

Browser::Browser(QObject *parent)
    : QObject(parent)
    , m_siteSettings(SiteSettings::load())
{
    createView();

    QWebSettings *const settings = QWebSettings::globalSettings();
    settings->setDefaultTextEncoding(QStringLiteral("UTF-8"));
    for (const auto attribute :
         {QWebSettings::AutoLoadImages, QWebSettings::DnsPrefetchEnabled,
          QWebSettings::JavascriptEnabled, QWebSettings::PluginsEnabled,
          QWebSettings::JavascriptCanOpenWindows, QWebSettings::ZoomTextOnly})
        settings->setAttribute(attribute, true);
    // A page's databases would be kept in the working folder, beyond the run.
    settings->setAttribute(QWebSettings::OfflineStorageDatabaseEnabled, false);
    settings->setOfflineStorageDefaultQuota(0);

    // The engine lets no page of the web play from a local scheme.
    for (const char *const scheme : playerSchemes)
        QWebSecurityOrigin::addLocalScheme(QLatin1String(scheme));

    connectAll();
}

Browser::~Browser()
{
    disConnect();
    m_hdsDownloader.disconnect(this);
    m_view.reset(); // the page's replies live in the network manager: the page goes first
}

void Browser::createView()
{
    m_view = std::make_unique<QWebView>();
    m_page = new QWebPageProxy(m_view.get());
    m_networkManager = std::make_unique<NetworkAccessManagerProxy>(&m_cookieJar);
    m_page->setNetworkAccessManager(m_networkManager.get());
    m_view->setPage(m_page);
}

void Browser::connectAll()
{
    connect(m_page, &QWebPageProxy::pageLoadState, this, &Browser::loadFinished);
    connect(m_networkManager.get(), &NetworkAccessManagerProxy::replyDownloadProgress, this,
            qOverload<const QString &, qint64, const QString &>(&Browser::setVideoUrl));
    connect(m_networkManager.get(), &NetworkAccessManagerProxy::sendUrl, this,
            qOverload<const QString &>(&Browser::setVideoUrl));
    connect(m_networkManager.get(), &NetworkAccessManagerProxy::sizeUntold, this,
            [this](const QString &url) { m_untoldSizes += url; });
    connect(m_networkManager.get(), &NetworkAccessManagerProxy::replyFinished, this,
            &Browser::replyFinished);
    // Queued: whoever ends the run may stand deep inside the engine, which does not survive that
    // its view is closed there.
    connect(this, &Browser::closeWebView, this, &Browser::webViewClose, Qt::QueuedConnection);
    connect(&m_analysisTimer, &QTimer::timeout, this, &Browser::onAnalysisTimerTimeOut);
    connect(&m_firstTerminateTimer, &QTimer::timeout, this, &Browser::onTerminateTimerTimeOut);
    connect(&m_secondTerminateTimer, &QTimer::timeout, this, &Browser::onTerminateTimerTimeOut);
    connect(&m_videoDownloader, &Downloader::finished, this,
            [this](int rangeNo, int downType, int state) {
                // A refused address carries no type, but it was the video's all the same.
                const bool isUntyped = downType == Downloader::NoDownload;
                getDownloadState(rangeNo, isUntyped ? Downloader::Video : downType, state);
            });
    connect(&m_thumbDownloader, &Downloader::finished, this, &Browser::getDownloadState);
    connect(&m_hdsDownloader, &CAdobeDownloader::finished, this, &Browser::onDownloadFinishedF4f);
    connect(&m_hdsDownloader, &CAdobeDownloader::AdobeActive, this, &Browser::onF4fCheckExit);
    connect(&m_watchTimer, &QTimer::timeout, this, &Browser::onWatchTimerTimeOut);
    connect(qApp, &QGuiApplication::lastWindowClosed, this, &Browser::requestClose);
}

void Browser::disConnect()
{
    m_page->disconnect(this);
    m_networkManager->disconnect(this);
    m_analysisTimer.disconnect(this);
    m_firstTerminateTimer.disconnect(this);
    m_secondTerminateTimer.disconnect(this);
    m_videoDownloader.disconnect(this);
    m_thumbDownloader.disconnect(this);
}

void Browser::loadPage()
{
    const auto *const preference = CVideoPreference::instance();
    const QString pageUrl = preference->GetPageUrl();

    const int timeoutMs = searchLimitMs(preference->GetTimeOut());
    m_result.startTime = QDateTime::currentDateTime();
    // Before the first line, which a host that does not read may hold up.
    m_guard = std::make_unique<RunGuard>(timeoutMs, preference->GetMemoryLimit(), [this] {
        QMetaObject::invokeMethod(this, &Browser::onMemoryFull, Qt::QueuedConnection);
    });
    m_guard->beat(std::make_shared<RecordReport>(m_result));

    setProxy();
    m_view->setVisible(preference->GetShow());
    HostEvents::send(event::ParsingBegun{pageUrl});

    m_isAnalysing = true;
    for (QTimer *const timer : {&m_analysisTimer, &m_firstTerminateTimer, &m_secondTerminateTimer})
        timer->setTimerType(Qt::PreciseTimer);
    m_analysisTimer.start(runTimes().analysisTick);
    if (timeoutMs != noLimitMs) {
        m_firstTerminateTimer.start(timeoutMs);
        m_secondTerminateTimer.start(timeoutMs);
    }
    m_watchTimer.start(watchIntervalMs);

    m_isHuluPage = !Utils::RegexString(pageUrl, m_siteSettings.huluPagePattern).isEmpty();
    m_page->load(QUrl(pageUrl));
}

void Browser::setProxy()
{
    const auto *const preference = CVideoPreference::instance();
    const QNetworkProxy proxy = preference->GetProxy().toNetworkProxy();
    if (proxy.type() != QNetworkProxy::NoProxy) {
        m_networkManager->setProxy(proxy);
        m_page->forbidSockets();
    } else if (!preference->GetOptionString(QStringLiteral("proxy"), QString()).isEmpty()) {
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
        m_guard->beat(std::make_shared<RecordReport>(m_result));
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
    m_cookieJar.save();
    if (m_isHuluPage) {
        startHulu(strUrl);
        return;
    }
    if (CVideoPreference::instance()->GetSupportF4f() && (m_isF4fMode || startF4f(strUrl)))
        return;
    setVideoUrl(strUrl, 0, QString());
}

void Browser::setVideoUrl(const QString &strUrl, qint64 contentLength, const QString &contentType)
{
    if (m_isClosing)
        return;
    m_cookieJar.save();
    if (exitIfAsked() || !m_isAnalysing)
        return;
    if (contentType == QLatin1String("video/f4m")) {
        if (CVideoPreference::instance()->GetSupportF4f() && !m_isF4fMode)
            startF4f(strUrl);
        return;
    }
    if (m_isLoadedOnce)
        m_secondTerminateTimer.start(quietPeriodMs);
    if (!analyseUrl(strUrl, contentLength, contentType))
        return;
    const bool isFirst = m_result.fileList.isEmpty();
    m_result.add(strUrl);
    VideoFile *const file = m_result.get(strUrl);
    file->contentType = contentType;
    if (contentLength >= knownSizeFrom)
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
        m_view->hide();
        onTerminateTimerTimeOut();
        DownloadF4f(urltoF4mUrl(url));
    });
    return true;
}

void Browser::startHulu(const QString &url)
{
    const QString endpoint = m_siteSettings.huluSelectionEndpoint;
    if (endpoint.isEmpty() || !url.contains(endpoint) || !m_huluSelectionUrl.isEmpty())
        return;
    m_huluSelectionUrl = url;
    later([this, url] {
        onTerminateTimerTimeOut();
        DownloadHulu(url);
    });
}

bool Browser::analyseUrl(const QString &url, qint64 size, const QString &contentType) const
{
    return (isMedia(contentType) && size >= acceptedMediaFrom) || size >= acceptedAnythingFrom
        || Utils::matchMediaType(url);
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
    m_secondTerminateTimer.start(quietPeriodMs);
    saveHtmlToImage();
}

void Browser::saveHtmlToImage()
{
    QWebFrame *const frame = m_page->mainFrame();
    // A page may claim any size; what is painted must fit into memory.
    const QSize size = frame->contentsSize().boundedTo(QSize(maxPaintedWidth, maxPaintedPixels));
    if (size.isEmpty())
        return;
    const QSize painted(size.width(), qMin(size.height(), maxPaintedPixels / size.width()));
    m_page->setViewportSize(painted);
    QImage image(painted, QImage::Format_ARGB32);
    if (image.isNull())
        return;
    QPainter painter(&image);
    frame->render(&painter);
}

void Browser::replyFinished()
{
    exitIfAsked();
}

void Browser::onAnalysisTimerTimeOut()
{
    if (exitIfAsked() || !m_isAnalysing || m_isF4fMode || m_isScanning)
        return;
    findMedia();
    if (m_isAnalysing && !m_isClosing && isVideoFounded()) {
        stopAnalysis();
        m_isAnalysing = false;
        download();
    }
}

void Browser::stopAnalysis()
{
    m_result.endTime = QDateTime::currentDateTime();
    showLife();
    m_analysisTimer.stop();
    m_firstTerminateTimer.stop();
    m_secondTerminateTimer.stop();
    m_networkManager->disable();
    m_page->stopScripts(); // one that waits for the page's end may hold up the run's
    m_page->load(QUrl(QStringLiteral("about:blank")));
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
    if (m_isHuluPage && !m_huluSelectionUrl.isEmpty())
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

bool Browser::isVideoFounded() const
{
    const auto *const preference = CVideoPreference::instance();
    const qint64 wantedSize = preference->GetResume() ? preference->GetTotalSize() : 0;
    for (const VideoFile &file : m_result.fileList) {
        const bool isFound = wantedSize > 0 ? file.nSize == wantedSize
                                            : file.nSize >= foundAnythingFrom
                || (isMedia(file.contentType) && file.nSize >= foundMediaFrom);
        if (isFound)
            return true;
    }
    return false;
}

void Browser::findMedia()
{
    const QScopedValueRollback<bool> scanning(m_isScanning, true);
    const PageSnapshot snapshot = WebkitSnapshot::of(*m_page->mainFrame());
    if (!snapshot.source.isEmpty())
        m_result.pageSource = snapshot.source;
    if (snapshot.hasRootAttributes)
        parseDomParam(snapshot);
    if (!snapshot.source.isEmpty() && m_isAnalysing && !m_isClosing)
        scan(snapshot, &NetDomManager::getPageSourceVideoInfo);
}

int Browser::parseDomParam(const PageSnapshot &snapshot)
{
    scan(snapshot, &NetDomManager::getDomVideoInfo);
    return m_result.fileList.size();
}

/// Runs a scanner over a copy of the record and takes over what it added. The record itself may
/// grow while the scanner waits; once analysis is over, it stays as it was selected from.
void Browser::scan(const PageSnapshot &snapshot,
                   const std::function<ParseData(NetDomManager &)> &scanner)
{
    NetDomManager manager;
    manager.setDomInfo(snapshot);
    manager.setParseInfo(m_result);
    manager.setStopCheck([this] { return m_isClosing || !m_isAnalysing; });
    const int knownFiles = m_result.fileList.size();
    const ParseData scanned = scanner(manager);
    if (m_isClosing || !m_isAnalysing)
        return;
    for (int i = knownFiles; i < scanned.fileList.size(); ++i) {
        const VideoFile &file = scanned.fileList.at(i);
        if (!m_result.contains(file.address()))
            m_result.fileList += file;
    }
}

/// A probe may know how large a file is whose server did not tell it to the page.
void Browser::askForUntoldSizes()
{
    const QSet<QString> addresses = m_untoldSizes;
    for (const QString &address : addresses) {
        const qint64 size =
            m_isClosing || !m_result.contains(address) ? 0 : Downloader().getUrlFileSize(address);
        if (size <= 0)
            continue;
        m_result.get(address)->nSize = size;
        m_untoldSizes -= address;
    }
}

/// What had come was good enough to find and to select the file by, but to the host it is no size.
void Browser::forgetUntoldSizes()
{
    for (const QString &address : qAsConst(m_untoldSizes)) {
        if (VideoFile *const file = m_result.get(address))
            file->nSize = 0;
    }
}

void Browser::download()
{
    if (m_isDownloadStarted)
        return;
    m_isDownloadStarted = true;
    note(RunGuard::DownloadBegun);
    askForUntoldSizes();
    const bool isSelected = CFilterVideo(&m_result).selectVideo();
    forgetUntoldSizes();
    if (m_isClosing || !isSelected)
        return;

    HostEvents::send(event::RecordMade{m_result.toJson()});
    note(RunGuard::RecordSent);
    const QString thumbUrl = m_result.getThumbUrl();
    if (CVideoPreference::instance()->GetThumb() && !thumbUrl.isEmpty()) {
        HostEvents::send(event::DownloadBegun{event::What::Thumb});
        m_thumbDownloader.downloadThumb(thumbUrl);
    }
    if (m_isClosing)
        return;
    HostEvents::send(event::DownloadBegun{event::What::Video});
    const VideoFile file = m_result.fileList.at(m_result.selectedVideo);
    m_videoDownloader.downloadVideo(file.address(), m_result.getVideoFullPath(), file.nSize, 0,
                                    Downloader::Video);
}

void Browser::getDownloadState(int, int downType, int state)
{
    if (m_isClosing || exitIfAsked())
        return;
    if (downType == Downloader::Thumb)
        reportResult(event::What::Thumb, state);
    if (downType != Downloader::Video)
        return;

    ++(state == Downloader::Succeeded ? m_succeededParts : m_failedParts);
    if (m_expectedParts == 1)
        reportVideoResult(state);
    else
        setDownloadCount();
}

void Browser::reportVideoResult(int state)
{
    m_result.succeeded = state == Downloader::Succeeded;
    reportResult(event::What::Video, state);
    note(RunGuard::LastLineSent);
    requestClose();
}

void Browser::setDownloadCount()
{
    if (m_succeededParts + m_failedParts < m_expectedParts)
        return;
    if (m_failedParts == 0 && m_succeededParts > 1) {
        HostEvents::send(event::PartsEnded{true});
        m_result.succeeded = mergeVideoFile(m_expectedParts);
    } else {
        HostEvents::send(event::PartsEnded{false});
    }
    HostEvents::send(event::PartsFinished{});
    note(RunGuard::LastLineSent);
    requestClose();
}

bool Browser::mergeVideoFile(int count)
{
    const QString path = m_result.getVideoFullPath();
    QFile output(path);
    if (!output.open(QIODevice::WriteOnly))
        return false;
    for (int i = 0; i < count; ++i) {
        if (!appendFile(output, path + QStringLiteral("_%1").arg(i)))
            qWarning("cannot append part %d to %s: %s", i, qUtf8Printable(path),
                     qUtf8Printable(output.errorString()));
    }
    return true;
}

int Browser::DownloadF4f(const QString &f4mUrl)
{
    const auto *const preference = CVideoPreference::instance();
    const QString outDir = preference->GetOutDir();
    HostEvents::send(event::OutputFolder{outDir});
    CAdobePreference::GetInstance()->parseParams(hdsArguments(f4mUrl));
    const QString path = preference->GetVideoFullPath();
    setHdsOption(QStringLiteral("outFile"), path.mid(path.lastIndexOf(QLatin1Char('/')) + 1));
    setHdsOption(QStringLiteral("outDir"), outDir);
    if (isLikeOption(queryOf(f4mUrl)))
        CAdobePreference::GetInstance()->SetOption(QStringLiteral("auth"), queryOf(f4mUrl));
    CAdobePreference::GetInstance()->SetOption(QStringLiteral("stall"), preference->GetStall());
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
    m_page->stopScripts();
    Utils::CloseProcessWindow(QCoreApplication::applicationPid(), QStringLiteral("flash player"));
    writeDownloadLog();
    m_view->close();
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
    CsvLog(m_result).saveDownloadResult();
    note(RunGuard::RowWritten);
}
