#include "ChromiumEngine.h"

#include <QJsonArray>

#include <limits>
#include <utility>

using namespace std::chrono_literals;

namespace {

constexpr int windowWidth = 1280;
constexpr int windowHeight = 800;
constexpr int maxLaidOutHeight = 16384;
constexpr auto longestWaitForCookies = 500ms;

/// Takes away what connects by itself, where nobody could look at it. What is deleted would come
/// back in workers.
constexpr char removal[] =
    "for (const name of ['WebTransport', 'RTCPeerConnection', 'webkitRTCPeerConnection'])"
    "Object.defineProperty(self, name, {value: undefined})";

QString text(const QJsonObject &object, const char *key)
{
    return object.value(QLatin1String(key)).toString();
}

/// The name that the engine would have with a window, and the client hints that go with it.
QJsonObject userAgentOf(const QJsonObject &version)
{
    const QString product = text(version, "product"); // such as "HeadlessChrome/120.0.1.2"
    const QString major = product.section(QLatin1Char('/'), 1).section(QLatin1Char('.'), 0, 0);
    const auto brand = [](const QString &name, const QString &number) {
        return QJsonObject{{QStringLiteral("brand"), name}, {QStringLiteral("version"), number}};
    };
    const QJsonObject hints{
        {QStringLiteral("brands"),
         QJsonArray{brand(QStringLiteral("Chromium"), major),
                    brand(QStringLiteral("Not.A/Brand"), QStringLiteral("24"))}},
        {QStringLiteral("platform"), QStringLiteral("Linux")},
        {QStringLiteral("platformVersion"), QString()},
        {QStringLiteral("architecture"), QStringLiteral("x86")},
        {QStringLiteral("model"), QString()},
        {QStringLiteral("mobile"), false}};
    // As a browser with a window gives it: the other numbers of the version are not told.
    QString name = text(version, "userAgent");
    name.remove(QLatin1String("Headless"));
    name.replace(product.section(QLatin1Char('/'), 1), major + QLatin1String(".0.0.0"));
    return {{QStringLiteral("userAgent"), name}, {QStringLiteral("userAgentMetadata"), hints}};
}

} // namespace

ChromiumEngine::ChromiumEngine(std::unique_ptr<EngineKeeper> keeper, const RunOptions &options,
                               QObject *parent)
    : PageEngine(parent)
    , m_tools(std::move(keeper))
    , m_traffic(m_tools, options)
    , m_reader(m_tools)
    , m_hand(m_tools, m_reader)
    , m_mayPress(options.mayPress)
{
    connect(&m_tools, &DevTools::happened, this, &ChromiumEngine::onEvent);
    connect(&m_tools, &DevTools::ended, this, &ChromiumEngine::onEnd);
    connect(&m_traffic, &PageTraffic::requestSeen, this, &PageEngine::requestSeen);
    connect(&m_traffic, &PageTraffic::replySeen, this, &PageEngine::replySeen);
    connect(&m_traffic, &PageTraffic::sizeUntold, this, &PageEngine::sizeUntold);
    connect(&m_traffic, &PageTraffic::replyEnded, this, &PageEngine::replyEnded);
    connect(&m_traffic, &PageTraffic::requestSeen, this, &ChromiumEngine::onLife);
    connect(&m_traffic, &PageTraffic::replySeen, this, &ChromiumEngine::onLife);
    connect(&m_silence, &QTimer::timeout, this, &ChromiumEngine::onSilence);
    m_silence.setSingleShot(true);
    m_silence.setInterval(static_cast<int>(
        qMin<qint64>(options.netSettings().stallMs, std::numeric_limits<int>::max())));
    connect(&m_reader, &FrameReader::ready, this, &PageEngine::snapshot);
}

ChromiumEngine::~ChromiumEngine()
{
    m_tools.end();
}

void ChromiumEngine::setProxy(const QNetworkProxy &) { }

void ChromiumEngine::setShown(bool) { }

void ChromiumEngine::saveCookies() { }

void ChromiumEngine::withCookies(const std::function<void()> &step)
{
    if (m_isStopped)
        return step(); // they have been taken over
    m_tools.call(QStringLiteral("Storage.getCookies"), {}, {},
                 [this, step](const QJsonObject &result) {
                     if (!result.isEmpty())
                         m_cookies.takeBack(result.value(QLatin1String("cookies")).toArray());
                     step();
                 });
}

void ChromiumEngine::load(const QUrl &url)
{
    m_url = url;
    m_tools.call(QStringLiteral("Browser.getVersion"), {}, {},
                 [this](const QJsonObject &version) { onVersion(version); });
    m_traffic.begin();
    m_tools.call(QStringLiteral("Browser.setDownloadBehavior"),
                 {{QStringLiteral("behavior"), QStringLiteral("deny")}});
    giveCookies();
    holdNewTargets({}, {QStringLiteral("service_worker"), QStringLiteral("shared_worker")});
    m_tools.call(QStringLiteral("Target.createTarget"),
                 {{QStringLiteral("url"), QStringLiteral("about:blank")},
                  {QStringLiteral("width"), windowWidth},
                  {QStringLiteral("height"), windowHeight}},
                 {}, [this](const QJsonObject &result) { onTarget(text(result, "targetId")); });
}

/// Of several that are given at once, the engine takes none if it does not like one of them.
void ChromiumEngine::giveCookies()
{
    const QJsonArray cookies = m_cookies.given();
    if (cookies.isEmpty())
        return;
    const auto give = [this](const QJsonArray &some) {
        m_tools.call(QStringLiteral("Storage.setCookies"), {{QStringLiteral("cookies"), some}});
    };
    const auto ask = [this](const std::function<void(const QJsonArray &taken)> &then) {
        m_tools.call(QStringLiteral("Storage.getCookies"), {}, {},
                     [then](const QJsonObject &result) {
                         then(result.value(QLatin1String("cookies")).toArray());
                     });
    };
    const auto note = [this](const QJsonArray &taken) { m_cookies.noteTaken(taken); };
    give(cookies);
    ask([cookies, give, ask, note](const QJsonArray &taken) {
        if (!taken.isEmpty())
            return note(taken);
        for (const QJsonValue &cookie : cookies)
            give({cookie});
        ask(note);
    });
}

void ChromiumEngine::onVersion(const QJsonObject &version)
{
    m_userAgent = userAgentOf(version);
    m_traffic.setUserAgent(text(m_userAgent, "userAgent"));
}

void ChromiumEngine::onTarget(const QString &target)
{
    m_tools.call(QStringLiteral("Target.attachToTarget"),
                 {{QStringLiteral("targetId"), target}, {QStringLiteral("flatten"), true}}, {},
                 [this](const QJsonObject &result) { onSession(text(result, "sessionId")); });
}

void ChromiumEngine::onSession(const QString &session)
{
    m_session = session;
    m_reader.setSession(session);
    m_hand.setSession(session);
    prepareFrames(session);
    m_tools.call(QStringLiteral("Inspector.enable"), {}, session);
    // The page's own process does this, and could still be at it when the page comes.
    m_tools.call(QStringLiteral("Emulation.setUserAgentOverride"), m_userAgent, session,
                 [this](const QJsonObject &) { navigate(); });
}

/// Has targets of these types, once they are made below that one, wait to be prepared.
void ChromiumEngine::holdNewTargets(const QString &session, const QStringList &types)
{
    QJsonArray filter;
    for (const QString &type : types)
        filter += QJsonObject{{QStringLiteral("type"), type}};
    filter += QJsonObject{{QStringLiteral("exclude"), true}};
    m_tools.call(QStringLiteral("Target.setAutoAttach"),
                 {{QStringLiteral("autoAttach"), true},
                  {QStringLiteral("waitForDebuggerOnStart"), true},
                  {QStringLiteral("flatten"), true},
                  {QStringLiteral("filter"), filter}},
                 session);
}

/// Takes from all scripts of a target's frames what goes past the page's traffic.
void ChromiumEngine::prepareFrames(const QString &session)
{
    holdNewTargets(session, {QStringLiteral("iframe"), QStringLiteral("worker")});
    m_tools.call(QStringLiteral("Page.enable"), {}, session);
    m_tools.call(QStringLiteral("Page.addScriptToEvaluateOnNewDocument"),
                 {{QStringLiteral("source"), QLatin1String(removal)}}, session);
}

/// @param session of a target that waits
void ChromiumEngine::prepare(const QString &session, const QString &type)
{
    if (type == QLatin1String("iframe")) {
        m_reader.addSite(session);
        prepareFrames(session);
    } else {
        holdNewTargets(session, {QStringLiteral("worker")});
        m_tools.call(QStringLiteral("Runtime.evaluate"),
                     {{QStringLiteral("expression"), QLatin1String(removal)}}, session);
    }
    // The others get their name by the page's.
    if (type == QLatin1String("service_worker") || type == QLatin1String("shared_worker"))
        m_tools.call(QStringLiteral("Network.setUserAgentOverride"), m_userAgent, session);
    m_tools.call(QStringLiteral("Runtime.runIfWaitingForDebugger"), {}, session);
}

void ChromiumEngine::navigate()
{
    m_tools.call(QStringLiteral("Page.navigate"),
                 {{QStringLiteral("url"), QString::fromLatin1(m_url.toEncoded())}}, m_session,
                 [this](const QJsonObject &result) {
                     if (result.contains(QLatin1String("errorText")))
                         tellLoaded(false);
                 });
}

void ChromiumEngine::tellLoaded(bool isOk)
{
    if (std::exchange(m_isLoaded, true))
        return;
    m_silence.stop();
    if (m_mayPress && isOk)
        m_hand.begin([this] { return !hasCandidate(); });
    emit loaded(isOk);
}

void ChromiumEngine::onLife()
{
    m_hand.wait();
    if (!m_isLoaded && !m_isStopped && m_silence.interval() > 0)
        m_silence.start();
}

/// The engine ends no single request that is under way, but all that a page waits for.
void ChromiumEngine::onSilence()
{
    m_tools.call(QStringLiteral("Page.stopLoading"), {}, m_session);
    tellLoaded(true);
}

void ChromiumEngine::onEvent(const QString &method, const QJsonObject &parameters,
                             const QString &session)
{
    if (m_isStopped)
        return;
    if (method == QLatin1String("Page.loadEventFired")) {
        tellLoaded(true);
    } else if (method == QLatin1String("Page.javascriptDialogOpening")) {
        const bool isPrompt = text(parameters, "type") == QLatin1String("prompt");
        m_tools.call(QStringLiteral("Page.handleJavaScriptDialog"),
                     {{QStringLiteral("accept"), !isPrompt}}, session);
    } else if (method == QLatin1String("Inspector.targetCrashed") && session == m_session) {
        stop();
        emit lost(QStringLiteral("its page has crashed"));
    } else if (method == QLatin1String("Target.attachedToTarget")
               && parameters.value(QLatin1String("waitingForDebugger")).toBool()) {
        prepare(text(parameters, "sessionId"),
                text(parameters.value(QLatin1String("targetInfo")).toObject(), "type"));
    } else if (method == QLatin1String("Target.detachedFromTarget")) {
        m_reader.removeSite(text(parameters, "sessionId"));
    }
}

void ChromiumEngine::onEnd(const QString &reason)
{
    if (m_isStopped)
        return;
    m_isStopped = true;
    m_traffic.stop();
    m_silence.stop();
    m_hand.stop();
    m_reader.stop();
    emit lost(reason);
}

/// Lays the page out in a window as high as itself.
void ChromiumEngine::layOutWhole()
{
    m_tools.call(
        QStringLiteral("Page.getLayoutMetrics"), {}, m_session, [this](const QJsonObject &result) {
            const QJsonObject size = result.value(QLatin1String("cssContentSize")).toObject();
            const int height =
                qBound(windowHeight, int(qMin(1e9, size.value(QLatin1String("height")).toDouble())),
                       maxLaidOutHeight);
            if (m_isStopped || height == windowHeight)
                return;
            m_tools.call(QStringLiteral("Emulation.setDeviceMetricsOverride"),
                         {{QStringLiteral("width"), windowWidth},
                          {QStringLiteral("height"), height},
                          {QStringLiteral("deviceScaleFactor"), 0},
                          {QStringLiteral("mobile"), false}},
                         m_session);
        });
}

void ChromiumEngine::requestSnapshot()
{
    if (m_isStopped || m_session.isEmpty())
        emit snapshot({});
    else
        m_reader.read();
}

void ChromiumEngine::stop()
{
    if (m_isStopped)
        return;
    m_isStopped = true;
    m_traffic.stop();
    m_silence.stop();
    m_hand.stop();
    m_reader.stop();
    const QJsonObject cookies =
        m_tools.callAndWait(QStringLiteral("Storage.getCookies"), longestWaitForCookies);
    if (!cookies.isEmpty())
        m_cookies.takeBack(cookies.value(QLatin1String("cookies")).toArray());
    m_tools.end();
}

void ChromiumEngine::close()
{
    stop();
}
