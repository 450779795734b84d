#include "AdobeBrowser.h"

#include "AdobePreference.h"
#include "AdobeUtils.h"
#include "HostEvents.h"
#include "NetworkProxy.h"
#include "StallWatch.h"
#include "WebAddress.h"

#include <QRegExp>
#include <QSaveFile>
#include <QTextCodec>

#include <utility>

namespace {

constexpr int watchIntervalMs = 100; // how late a stop may take effect
constexpr qint64 defaultStallTimeoutMs = 60 * 1000; // a server silent for so long has given up
constexpr qint64 defaultMaxContentBytes = 256 * 1024 * 1024;
constexpr int statusOk = 200;

/// The caller's limit for silence, in place of the usual one.
qint64 stallTimeoutOf(CAdobePreference &options)
{
    const qint64 limitMs = StallWatch::limitOf(options.GetOption(QStringLiteral("stall")).toInt());
    return limitMs > 0 ? limitMs : defaultStallTimeoutMs;
}

QNetworkProxy proxyOf(CAdobePreference &options)
{
    return NetworkProxy::fromSetting(options.GetOption(QStringLiteral("proxyType")).toInt(),
                                     options.GetOption(QStringLiteral("proxyHost")).toString(),
                                     options.GetOption(QStringLiteral("proxyPort")).toInt());
}

HttpClient::Headers headersOf(CAdobePreference &options)
{
    HttpClient::Headers headers;
    const QString userAgent = options.GetOption(QStringLiteral("userAgent")).toString();
    if (!userAgent.isEmpty())
        headers += qMakePair(QByteArrayLiteral("User-Agent"), userAgent.toUtf8());
    const QVariantMap others = options.GetOption(QStringLiteral("browserHeader")).toMap();
    for (auto header = others.cbegin(); header != others.cend(); ++header)
        headers += qMakePair(header.key().toUtf8(), header.value().toString().toUtf8());
    return headers;
}

} // namespace

CAdobeBrowser::CAdobeBrowser(const StopFlag &stop, const std::shared_ptr<ConnectionPool> &pool,
                             QObject *parent, CAdobePreference *options)
    : QObject(parent)
    , m_options(options ? *options : *CAdobePreference::GetInstance())
    , m_stop(stop)
    , m_client(NetSettings(), pool)
    , m_maxContentBytes(defaultMaxContentBytes)
    , m_stallTimeoutMs(stallTimeoutOf(m_options))
{
    m_watch.setInterval(watchIntervalMs);
    connect(&m_watch, &QTimer::timeout, this, &CAdobeBrowser::watchWait);
    connect(&m_client, &HttpClient::readable, this, &CAdobeBrowser::httpReadyRead);
    connect(&m_client, &HttpClient::redirected, this, &CAdobeBrowser::onRedirected);
    connect(&m_client, &HttpClient::ended, this, &CAdobeBrowser::httpFinished);
}

CAdobeBrowser::~CAdobeBrowser() = default;

void CAdobeBrowser::get(const QString &url, bool wait)
{
    HostEvents::send(event::PageAsked{url});
    begin(url, Method::Get, wait);
}

void CAdobeBrowser::head(const QString &url, bool wait)
{
    HostEvents::send(event::PageAsked{url});
    begin(url, Method::Head, wait);
}

void CAdobeBrowser::post(const QString &url, const QByteArray &data, bool wait)
{
    HostEvents::send(event::PageAsked{url, true});
    begin(url, Method::Post, wait, data);
}

void CAdobeBrowser::begin(const QString &url, Method method, bool wait, const QByteArray &form)
{
    m_content.resize(0);
    m_isDamaged = false;
    m_client.drop();
    m_watch.stop();
    // What could not be started has no end to wait for.
    if (startRequest(url, method, form) && wait)
        CAdobeUtils::WaitFor(this, SIGNAL(finished(int)));
}

bool CAdobeBrowser::startRequest(const QString &url, Method method, const QByteArray &form)
{
    m_url = url;
    m_method = method;
    if (isStopped() || !WebAddress::isWeb(QUrl(url)))
        return false;
    HttpClient::Request request;
    request.method = method;
    request.url = QUrl(url);
    request.headers = headersOf(m_options);
    request.form = form;
    request.redirects = {qMax(0, m_maxRedirect - 1), true, true};
    request.cookies = &m_cookieJar;
    m_client.setSettings({proxyOf(m_options), m_stallTimeoutMs, nullptr});
    m_client.start(request);
    m_watch.start();
    return true;
}

bool CAdobeBrowser::isStopped() const
{
    return m_exit || m_stop.isRaised();
}

void CAdobeBrowser::watchWait()
{
    if (isStopped())
        m_client.abort(); // comes back through httpFinished()
}

void CAdobeBrowser::httpReadyRead()
{
    if (qMax(m_client.declaredLength(), m_content.size() + m_client.bytesAvailable())
        > m_maxContentBytes) {
        qWarning("%s is not fetched: its body is over %lld bytes", qUtf8Printable(m_url),
                 static_cast<long long>(m_maxContentBytes));
        m_content.clear();
        m_client.abort();
        return;
    }
    takeArrived();
}

void CAdobeBrowser::takeArrived()
{
    if (!m_isDamaged)
        m_isDamaged = !m_client.readInto(m_content, m_maxContentBytes);
    if (m_isDamaged)
        m_client.skip();
}

void CAdobeBrowser::onRedirected(const QUrl &target)
{
    const QString address = target.toString(QUrl::FullyEncoded);
    HostEvents::send(event::PageRedirected{address});
    m_url = address;
    m_content.resize(0);
    m_isDamaged = false;
    if (m_method == Method::Post)
        m_method = Method::Get;
    if (isStopped())
        m_client.abort();
}

void CAdobeBrowser::httpFinished()
{
    m_watch.stop();
    takeArrived();
    if (m_client.isPacked() && m_client.receivedBytes() == 0)
        m_isDamaged = true; // nothing is no packed body
    emit finished(redirectUrl().isEmpty() ? 0 : 1);
}

bool CAdobeBrowser::success() const
{
    return !m_isDamaged && m_client.hasAnswer() && !m_client.isRunning()
        && m_client.error() == QNetworkReply::NoError && m_client.status() == statusOk
        && (m_method == Method::Head || m_client.isBodyWhole());
}

bool CAdobeBrowser::isLengthKnown() const
{
    return m_client.declaredLength() >= 0;
}

QNetworkReply::NetworkError CAdobeBrowser::error() const
{
    return m_client.error();
}

QByteArray CAdobeBrowser::rawContent() const
{
    return m_content;
}

QString CAdobeBrowser::content() const
{
    QRegExp charset(QStringLiteral(";\\s*charset=([-_.:a-z0-9]+)"), Qt::CaseInsensitive);
    const QTextCodec *codec = nullptr;
    if (charset.indexIn(m_client.contentType()) >= 0)
        codec = QTextCodec::codecForName(charset.cap(1).toLatin1());
    if (!codec)
        codec = QTextCodec::codecForName("UTF-8");
    return codec->toUnicode(m_content);
}

QString CAdobeBrowser::format() const
{
    static const struct
    {
        const char *type;
        const char *name;
    } formats[] = {
        {"text/html", "html"},
        {"text/xml", "xml"},
        {"application/smil", "smil"},
        {"application/json", "json"},
    };
    const QString type = m_client.contentType();
    for (const auto &format : formats) {
        if (type.contains(QLatin1String(format.type)))
            return QLatin1String(format.name);
    }
    return {};
}

QString CAdobeBrowser::url() const
{
    return m_url;
}

bool CAdobeBrowser::isRedirect() const
{
    return m_client.redirectTarget().isEmpty();
}

QString CAdobeBrowser::redirectUrl() const
{
    return m_client.redirectTarget().toString(QUrl::FullyEncoded);
}

bool CAdobeBrowser::save(const QString &path) const
{
    QSaveFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(m_content) == m_content.size()
        && file.commit();
}

void CAdobeBrowser::setMaxRedirect(int count)
{
    m_maxRedirect = count;
}

void CAdobeBrowser::setMaxContentBytes(qint64 bytes)
{
    m_maxContentBytes = bytes;
}

void CAdobeBrowser::setBuffer(QByteArray buffer)
{
    m_content = std::move(buffer);
    m_content.resize(0);
}

void CAdobeBrowser::setStallTimeout(qint64 timeoutMs)
{
    m_stallTimeoutMs = timeoutMs;
}

void CAdobeBrowser::exit()
{
    m_exit = true;
    m_client.abort();
}
