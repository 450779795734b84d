#include "AdobeBrowser.h"

#include "AdobeCookieJar.h"
#include "AdobePreference.h"
#include "AdobeUtils.h"
#include "ConnectionPool.h"
#include "HostEvents.h"
#include "InterimAnswer.h"
#include "NetworkProxy.h"
#include "StallWatch.h"
#include "TlsTrust.h"
#include "WebAddress.h"
#include "XGzip.h"

#include <QNetworkRequest>
#include <QRegExp>
#include <QSaveFile>
#include <QTextCodec>

#include <utility>

namespace {

constexpr int watchIntervalMs = 100; // how late a stop may take effect
constexpr qint64 defaultStallTimeoutMs = 60 * 1000; // a server silent for so long has given up
constexpr qint64 defaultMaxContentBytes = 256 * 1024 * 1024;
constexpr qint64 maxReservedBytes = 8 * 1024 * 1024; // on the word of a server alone
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

QNetworkRequest requestOf(CAdobePreference &options, const QUrl &url)
{
    QNetworkRequest request(url);
    const QString userAgent = options.GetOption(QStringLiteral("userAgent")).toString();
    if (!userAgent.isEmpty())
        request.setRawHeader("User-Agent", userAgent.toUtf8());
    const QVariantMap headers = options.GetOption(QStringLiteral("browserHeader")).toMap();
    for (auto header = headers.cbegin(); header != headers.cend(); ++header)
        request.setRawHeader(header.key().toUtf8(), header.value().toString().toUtf8());
    return request;
}

} // namespace

CAdobeBrowser::CAdobeBrowser(const StopFlag &stop, const std::shared_ptr<ConnectionPool> &pool,
                             QObject *parent, CAdobePreference *options)
    : QObject(parent)
    , m_options(options ? *options : *CAdobePreference::GetInstance())
    , m_stop(stop)
    , m_pool(pool)
    , m_manager(pool ? pool->take() : std::make_unique<QNetworkAccessManager>())
    , m_maxContentBytes(defaultMaxContentBytes)
    , m_stallTimeoutMs(stallTimeoutOf(m_options))
{
    m_manager->setCookieJar(new CAdobeCookieJar(m_manager.get()));
    m_watch.setInterval(watchIntervalMs);
    connect(&m_watch, &QTimer::timeout, this, &CAdobeBrowser::watchWait);
}

CAdobeBrowser::~CAdobeBrowser()
{
    const bool isInOrder = success();
    dropReply();
    if (m_pool && isInOrder)
        m_pool->giveBack(std::move(m_manager));
}

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

void CAdobeBrowser::begin(const QString &url, Method method, bool wait, const QByteArray &data)
{
    m_redirectCount = 0;
    m_content.resize(0);
    dropReply();
    // What could not be started has no end to wait for.
    if (startRequest(url, method, data) && wait)
        CAdobeUtils::WaitFor(this, SIGNAL(finished(int)));
}

bool CAdobeBrowser::startRequest(const QString &url, Method method, const QByteArray &data)
{
    m_url = url;
    m_method = method;
    const QUrl address(url);
    if (m_exit || m_stop.isRaised() || !WebAddress::isWeb(address))
        return false;

    TlsTrust::prepareFor(address);
    m_manager->setProxy(proxyOf(m_options));
    QNetworkRequest request = requestOf(m_options, address);
    dropReply();
    m_content.resize(0);
    m_packedBytes = -1;
    m_isDamaged = false;
    switch (method) {
    case Method::Get:
        m_reply = m_manager->get(request);
        break;
    case Method::Head:
        m_reply = m_manager->head(request);
        break;
    case Method::Post:
        request.setHeader(QNetworkRequest::ContentTypeHeader,
                          QStringLiteral("application/x-www-form-urlencoded"));
        m_reply = m_manager->post(request, data);
        break;
    }
    connect(m_reply.data(), &QNetworkReply::readyRead, this, &CAdobeBrowser::httpReadyRead);
    connect(m_reply.data(), &QNetworkReply::finished, this, &CAdobeBrowser::httpFinished);
    TlsTrust::reportRefusal(m_reply.data());
    const auto *const stallWatch = new StallWatch(m_reply.data(), m_stallTimeoutMs);
    connect(stallWatch, &StallWatch::stalled, m_reply.data(), &QNetworkReply::abort);
    m_watch.start();
    return true;
}

void CAdobeBrowser::dropReply()
{
    m_watch.stop();
    if (!m_reply)
        return;
    m_reply->disconnect(this);
    m_reply->abort();
    m_reply->deleteLater();
    m_reply.clear();
}

void CAdobeBrowser::watchWait()
{
    if (m_exit || m_stop.isRaised())
        m_reply->abort(); // comes back through httpFinished()
}

void CAdobeBrowser::httpReadyRead()
{
    if (qMax(announcedLength(), m_content.size() + m_reply->bytesAvailable()) > m_maxContentBytes) {
        qWarning("%s is not fetched: its body is over %lld bytes", qUtf8Printable(m_url),
                 static_cast<long long>(m_maxContentBytes));
        m_content.clear();
        m_reply->abort();
        return;
    }
    takeArrived();
}

/// Reads into place: a body of megabytes would else be copied once more for each of its pieces.
void CAdobeBrowser::takeArrived()
{
    const qint64 arrived = m_reply->bytesAvailable();
    if (m_content.isEmpty())
        m_content.reserve(
            static_cast<int>(qMax(arrived, qMin(announcedLength(), maxReservedBytes))));
    const int size = m_content.size();
    m_content.resize(size + static_cast<int>(arrived));
    const qint64 read = m_reply->read(m_content.data() + size, arrived);
    m_content.resize(size + static_cast<int>(qMax(qint64(0), read)));
}

void CAdobeBrowser::unpack()
{
    const QByteArray packed = std::exchange(m_content, QByteArray());
    XGzip unpacker;
    const bool isTaken =
        unpacker.unpack(packed.constData(), packed.size(), [this](const char *data, qint64 bytes) {
            m_content.append(data, static_cast<int>(bytes));
            return m_content.size() <= m_maxContentBytes;
        });
    m_packedBytes = packed.size();
    m_isDamaged = !isTaken || !unpacker.isWhole();
}

void CAdobeBrowser::httpFinished()
{
    m_watch.stop();
    InterimAnswer::report(*m_reply);
    if (m_reply->isOpen())
        takeArrived();
    if (XGzip::isIn(*m_reply))
        unpack();
    const QString target = redirectUrl();
    if (target.isEmpty()) {
        emit finished(0);
        return;
    }
    if (++m_redirectCount >= m_maxRedirect) {
        emit finished(1);
        return;
    }
    HostEvents::send(event::PageRedirected{target});
    // The answer to a redirected POST is fetched like any page.
    if (!startRequest(target, m_method == Method::Post ? Method::Get : m_method))
        emit finished(1);
}

bool CAdobeBrowser::success() const
{
    const qint64 arrived = m_packedBytes >= 0 ? m_packedBytes : m_content.size();
    return !m_isDamaged && m_reply && m_reply->isFinished()
        && m_reply->error() == QNetworkReply::NoError
        && m_reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt() == statusOk
        && (m_method == Method::Head || !isLengthKnown() || arrived == announcedLength());
}

bool CAdobeBrowser::isLengthKnown() const
{
    return m_reply && m_reply->header(QNetworkRequest::ContentLengthHeader).isValid();
}

qint64 CAdobeBrowser::announcedLength() const
{
    return m_reply->header(QNetworkRequest::ContentLengthHeader).toLongLong();
}

QNetworkReply::NetworkError CAdobeBrowser::error() const
{
    return m_reply ? m_reply->error() : QNetworkReply::OperationCanceledError;
}

QByteArray CAdobeBrowser::rawContent() const
{
    return m_content;
}

QString CAdobeBrowser::contentType() const
{
    return m_reply ? m_reply->header(QNetworkRequest::ContentTypeHeader).toString() : QString();
}

QString CAdobeBrowser::content() const
{
    QRegExp charset(QStringLiteral(";\\s*charset=([-_.:a-z0-9]+)"), Qt::CaseInsensitive);
    const QTextCodec *codec = nullptr;
    if (charset.indexIn(contentType()) >= 0)
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
    const QString type = contentType();
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
    return !m_reply || m_reply->attribute(QNetworkRequest::RedirectionTargetAttribute).isNull();
}

QString CAdobeBrowser::redirectUrl() const
{
    return isRedirect() ? QString()
                        : WebAddress::redirectTarget(*m_reply).toString(QUrl::FullyEncoded);
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
    if (m_reply && !m_reply->isFinished())
        m_reply->abort();
}
