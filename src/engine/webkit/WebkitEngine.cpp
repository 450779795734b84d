#include "WebkitEngine.h"

#include "CookieStore.h"
#include "QWebPageProxy.h"
#include "WebkitSnapshot.h"

#include <QApplication>
#include <QImage>
#include <QMetaMethod>
#include <QPainter>
#include <QWebElement>
#include <QWebFrame>
#include <QWebSecurityOrigin>
#include <QWebSettings>
#include <QWebView>

#include <algorithm>
#include <iterator>

namespace {

constexpr int maxPaintedWidth = 8192;
constexpr int maxPaintedPixels = 32 * 1024 * 1024;

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

void setUpEngine()
{
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
}

/// Whether the engine says that it does not understand a script, or lacks what every later engine
/// has.
bool isFromLaterTimes(const QString &message)
{
    static constexpr const char *later[] = {"AbortController", "BigInt",    "IntersectionObserver",
                                            "MediaSource",     "Response",  "ResizeObserver",
                                            "WebAssembly",     "caches",    "customElements",
                                            "fetch",           "globalThis"};
    if (message.startsWith(QLatin1String("SyntaxError")))
        return true;
    const QString lack = QStringLiteral("Can't find variable: ");
    const int at = message.indexOf(lack);
    if (at < 0)
        return false;
    const QStringRef name = message.midRef(at + lack.size());
    return std::any_of(std::begin(later), std::end(later),
                       [&name](const char *each) { return name.startsWith(QLatin1String(each)); });
}

} // namespace

WebkitEngine::WebkitEngine(const RunOptions &options, QObject *parent)
    : PageEngine(parent)
    , m_networkManager(std::make_unique<NetworkAccessManagerProxy>(&m_cookieJar, options))
    , m_view(std::make_unique<QWebView>())
    , m_page(new QWebPageProxy(m_view.get()))
{
    m_page->setNetworkAccessManager(m_networkManager.get());
    m_view->setPage(m_page);
    setUpEngine();
    connectAll();
}

WebkitEngine::~WebkitEngine()
{
    m_page->disconnect(this); // it reports its own end
    m_networkManager->disconnect(this);
    m_view.reset(); // the page's replies live in the network manager: the page goes first
}

void WebkitEngine::connectAll()
{
    connect(m_page, &QWebPageProxy::pageLoadState, this, &PageEngine::loaded);
    const auto *const network = m_networkManager.get();
    connect(network, &NetworkAccessManagerProxy::sendUrl, this, &PageEngine::requestSeen);
    connect(network, &NetworkAccessManagerProxy::replyDownloadProgress, this,
            &PageEngine::replySeen);
    connect(network, &NetworkAccessManagerProxy::sizeUntold, this, &PageEngine::sizeUntold);
    connect(network, &NetworkAccessManagerProxy::replyFinished, this, &PageEngine::replyEnded);
    connect(qApp, &QGuiApplication::lastWindowClosed, this, &PageEngine::windowClosed);
}

void WebkitEngine::setProxy(const QNetworkProxy &proxy)
{
    m_networkManager->setProxy(proxy);
    m_page->forbidSockets();
}

void WebkitEngine::setShown(bool isShown)
{
    m_view->setVisible(isShown);
}

/// Tells when the page turns out to be made for a later engine.
void WebkitEngine::watchForLimits()
{
    m_page->watchFor(QStringLiteral("MediaSource"));
    connect(m_page, &QWebPageProxy::consoleMessage, this, [this](const QString &text) {
        if (isFromLaterTimes(text))
            emit outgrown(text);
    });
    connect(m_page, &QWebPageProxy::pageLoadState, this, [this] {
        const QString modules = QStringLiteral("script[type=module]");
        if (!m_page->mainFrame()->findFirstElement(modules).isNull())
            emit outgrown(QStringLiteral("it has module scripts"));
    });
}

void WebkitEngine::load(const QUrl &url)
{
    if (isSignalConnected(QMetaMethod::fromSignal(&PageEngine::outgrown)))
        watchForLimits();
    m_page->load(url);
}

void WebkitEngine::layOutWhole()
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

void WebkitEngine::requestSnapshot()
{
    emit snapshot(WebkitSnapshot::of(*m_page->mainFrame()));
}

void WebkitEngine::stop()
{
    m_networkManager->disable();
    m_page->stopScripts(); // one that waits for the page's end may hold up the run's
    m_page->load(QUrl(QStringLiteral("about:blank")));
}

void WebkitEngine::saveCookies()
{
    CookieStore::instance().save(); // one that cannot be written is tried again at the next request
}

void WebkitEngine::close()
{
    m_page->stopScripts();
    m_view->close();
}
