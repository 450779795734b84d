#include "ChromiumEngineFactory.h"

#include "ChromiumEngine.h"

#include <QFile>
#include <QNetworkProxy>

#include <unistd.h>

namespace {

const char *const switches[] = {
    "--headless",
    "--remote-debugging-pipe",
    "--incognito",
    "--no-startup-window",
    "--no-first-run",
    "--no-default-browser-check",
    "--noerrdialogs",
    // It asks nobody but the page's servers.
    "--disable-background-networking",
    "--disable-component-update",
    "--disable-sync",
    "--disable-default-apps",
    "--disable-extensions",
    "--disable-breakpad",
    "--disable-crash-reporter",
    "--disable-client-side-phishing-detection",
    "--disable-domain-reliability",
    "--disable-field-trial-config",
    "--metrics-recording-only",
    "--no-pings",
    "--dns-prefetch-disable",
    "--disable-search-engine-choice-screen",
    "--disable-features=Translate,OptimizationHints,MediaRouter,InterestFeedContentSuggestions,"
    "CertificateTransparencyComponentUpdater,AutofillServerCommunication,DialMediaRouteProvider,"
    "AsyncDns,NetworkTimeServiceQuerying,WebRtcHideLocalIpsWithMdns,SpareRendererForSitePerProcess,"
    "BackForwardCache,PaintHolding",
    // A process less, which would not be confined any more than the one that it goes to.
    "--enable-features=NetworkServiceInProcess2",
    // Nothing that cannot be seen on its way.
    "--disable-quic",
    "--force-webrtc-ip-handling-policy=disable_non_proxied_udp",
    // It keeps nothing.
    "--password-store=basic",
    "--use-mock-keychain",
    "--disable-dev-shm-usage",
    // Nobody sees or hears it.
    "--disable-gpu",
    "--in-process-gpu",
    "--disable-software-rasterizer",
    "--disable-3d-apis",
    "--mute-audio",
    "--hide-scrollbars",
    "--autoplay-policy=no-user-gesture-required",
    "--block-new-web-contents",
    "--disable-blink-features=AutomationControlled",
    "--disable-background-timer-throttling",
    "--disable-renderer-backgrounding",
    "--disable-backgrounding-occluded-windows",
    "--disable-hang-monitor",
};

/// An address at which nobody answers.
constexpr char nowhere[] = "socks4://127.0.0.1:1";

QByteArray uriOf(const QNetworkProxy &proxy)
{
    if (proxy.type() == QNetworkProxy::NoProxy)
        return "direct://";
    const QByteArray scheme = proxy.type() == QNetworkProxy::Socks5Proxy ? "socks5://" : "http://";
    QByteArray host = proxy.hostName().toLatin1();
    if (host.contains(':'))
        host = '[' + host + ']';
    return scheme + host + ':' + QByteArray::number(proxy.port());
}

/// How the engine reaches servers. Sockets that scripts open, which nobody can look at, are led to
/// where nobody answers: they take the way that is left for all other schemes.
QVector<QByteArray> networkSwitches(const QNetworkProxy &proxy)
{
    const QByteArray way = uriOf(proxy);
    return {"--proxy-server=http=" + way + ";https=" + way + ";socks=" + nowhere,
            "--proxy-bypass-list=<-loopback>"};
}

} // namespace

ChromiumEngineFactory::ChromiumEngineFactory(bool isWantedAtOnce)
    : m_isWantedAtOnce(isWantedAtOnce)
{
}

ChromiumEngineFactory::~ChromiumEngineFactory() = default;

bool ChromiumEngineFactory::isInstalled(const RunOptions &options)
{
    return ::access(QFile::encodeName(options.chromiumPath).constData(), X_OK) == 0;
}

void ChromiumEngineFactory::prepare(const RunOptions &options)
{
    const QNetworkProxy proxy = options.proxy.toNetworkProxy();
    EngineKeeper::Setup setup;
    setup.program = QFile::encodeName(options.chromiumPath);
    setup.memoryBytes = options.memoryBytes;
    for (const char *const word : switches)
        setup.arguments += word;
    setup.arguments += networkSwitches(proxy);
    if (proxy.type() != QNetworkProxy::NoProxy)
        setup.ports = {proxy.port()};
    m_keeper = EngineKeeper::fork(setup);
    if (m_keeper && m_isWantedAtOnce)
        m_keeper->begin();
}

std::unique_ptr<PageEngine> ChromiumEngineFactory::make(const RunOptions &options)
{
    return std::make_unique<ChromiumEngine>(std::move(m_keeper), options);
}
