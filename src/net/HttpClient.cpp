#include "HttpClient.h"

#include "ConnectionPool.h"
#include "InterimAnswer.h"
#include "MemoryCookieJar.h"
#include "NetworkProxy.h"
#include "StallWatch.h"
#include "TlsTrust.h"
#include "WebAddress.h"

#include <QNetworkAccessManager>

namespace {

constexpr int chunkBytes = 256 * 1024;
constexpr qint64 maxReservedBytes = 8 * 1024 * 1024; // on the word of a server alone

/// The value of a "Range" header; empty when the whole file is wanted.
QByteArray rangeOf(const HttpClient::Request &request)
{
    const QByteArray start = "bytes=" + QByteArray::number(request.rangeStart) + '-';
    if (request.rangeEnd > 0)
        return start + QByteArray::number(request.rangeEnd - 1);
    return request.rangeStart > 0 ? start : QByteArray();
}

/// Lends a jar to a manager, which would else take it over.
void lendJar(QNetworkAccessManager &manager, QNetworkCookieJar *jar)
{
    QObject *const owner = jar->parent();
    manager.setCookieJar(jar);
    jar->setParent(owner);
}

/// Gives a manager a jar of its own, which holds nothing.
void takeJarBack(QNetworkAccessManager &manager)
{
    manager.setCookieJar(new MemoryCookieJar(&manager));
}

} // namespace

/// Notes, while it lives, that a signal of the reply is being passed on.
class HttpClient::Telling final
{
public:
    explicit Telling(HttpClient *client)
        : m_client(client)
    {
        ++client->m_tellings;
    }

    ~Telling()
    {
        if (m_client)
            --m_client->m_tellings;
    }

    Q_DISABLE_COPY(Telling)

private:
    QPointer<HttpClient> m_client;
};

HttpClient::HttpClient(const NetSettings &settings, const std::shared_ptr<ConnectionPool> &pool,
                       QObject *parent)
    : QObject(parent)
    , m_settings(settings)
    , m_pool(pool)
    , m_manager(pool ? pool->take() : std::make_unique<QNetworkAccessManager>())
{
}

HttpClient::~HttpClient()
{
    const bool isInOrder = hasAnswer() && !isRunning() && error() == QNetworkReply::NoError
        && !isInterim() && (m_method == Method::Head || isBodyWhole());
    drop();
    takeJarBack(*m_manager);
    if (m_tellings > 0)
        m_manager.release()->deleteLater(); // with the reply, one of whose signals has led here
    else if (m_pool && isInOrder)
        m_pool->giveBack(std::move(m_manager));
}

void HttpClient::setSettings(const NetSettings &settings)
{
    m_settings = settings;
}

const NetSettings &HttpClient::settings() const
{
    return m_settings;
}

void HttpClient::setCookies(QNetworkCookieJar *jar)
{
    lendJar(*m_manager, jar);
}

void HttpClient::start(const Request &request)
{
    m_request = request;
    m_method = request.method;
    m_redirectCount = 0;
    m_isAborted = false;
    if (request.cookies)
        lendJar(*m_manager, request.cookies);
    else
        takeJarBack(*m_manager);
    send(request.url);
}

/// Asks for the address of the request, or for where it has been redirected to.
void HttpClient::send(const QUrl &url)
{
    drop();
    m_receivedBytes = 0;
    m_unpacker.reset();
    TlsTrust::prepareFor(url);
    m_manager->setProxy(m_settings.proxy);
    m_reply = ask(requestFor(url));
    TlsTrust::reportRefusal(m_reply);
    if (m_request.maxUnreadBytes > 0)
        NetworkProxy::limitUnread(*m_reply, *m_manager, m_request.maxUnreadBytes);
    const auto *const watch = new StallWatch(m_reply, m_settings.stallMs); // the reply's child
    connect(watch, &StallWatch::stalled, m_reply, &QNetworkReply::abort);
    connect(m_reply, &QNetworkReply::metaDataChanged, this, &HttpClient::onHeader);
    connect(m_reply, &QNetworkReply::readyRead, this, [this] {
        const Telling telling(this);
        emit readable();
    });
    connect(m_reply, &QNetworkReply::downloadProgress, this, [this](qint64 received, qint64 total) {
        const Telling telling(this);
        emit progressed(received, total);
    });
    connect(m_reply, &QNetworkReply::finished, this, &HttpClient::onFinished);
}

/// A request that fails at once when the address is not one of the web. The toolkit follows no
/// redirect by itself: it takes the cookies of the first host along to hosts that have none of
/// their own.
QNetworkRequest HttpClient::requestFor(const QUrl &url) const
{
    QNetworkRequest request(WebAddress::isWeb(url) ? url : QUrl());
    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute,
                         QNetworkRequest::ManualRedirectPolicy);
    for (const auto &header : m_request.headers)
        request.setRawHeader(header.first, header.second);
    if (m_settings.pageHeaders) {
        const PageHeaders::Headers headers = m_settings.pageHeaders->of(url);
        for (const auto &header : headers)
            request.setRawHeader(header.first, header.second);
    }
    const QByteArray range = rangeOf(m_request);
    if (!range.isEmpty())
        request.setRawHeader("Range", range);
    if (m_method == Method::Post)
        request.setHeader(QNetworkRequest::ContentTypeHeader,
                          QStringLiteral("application/x-www-form-urlencoded"));
    return request;
}

QNetworkReply *HttpClient::ask(const QNetworkRequest &request)
{
    switch (m_method) {
    case Method::Head:
        return m_manager->head(request);
    case Method::Post:
        return m_manager->post(request, m_request.form);
    case Method::Get:
        break;
    }
    return m_manager->get(request);
}

void HttpClient::abort()
{
    m_isAborted = true;
    if (isRunning())
        m_reply->abort(); // comes back through onFinished()
}

void HttpClient::abortSoon()
{
    QMetaObject::invokeMethod(m_reply, &QNetworkReply::abort, Qt::QueuedConnection);
}

void HttpClient::drop()
{
    if (!m_reply)
        return;
    m_reply->disconnect(this);
    m_reply->abort();
    m_reply->deleteLater();
    m_reply.clear();
}

void HttpClient::onHeader()
{
    const Telling telling(this);
    const bool isRedirect = !redirectTarget().isEmpty();
    if (isRedirect && !m_request.redirects.readsBody)
        abortSoon(); // goes on in onFinished()
    else if (!isRedirect && !isInterim())
        emit answered();
}

void HttpClient::onFinished()
{
    const Telling telling(this);
    m_reply->disconnect(this); // nothing is told after the end
    InterimAnswer::report(*m_reply);
    if (isInterim())
        m_manager->clearConnectionCache(); // the answer itself is still to come on this one
    const QUrl target = redirectTarget();
    if (!target.isEmpty() && m_redirectCount < m_request.redirects.most) {
        ++m_redirectCount;
        emit redirected(target);
        if (mayFollow(target)) {
            if (m_method == Method::Post)
                m_method = Method::Get;
            send(target);
            return;
        }
    }
    emit ended();
}

bool HttpClient::mayFollow(const QUrl &target) const
{
    const bool leavesTls = m_reply->url().scheme() == QLatin1String("https")
        && target.scheme() != QLatin1String("https");
    return !m_isAborted && WebAddress::isWeb(target)
        && (!leavesTls || m_request.redirects.mayLeaveTls);
}

bool HttpClient::isRunning() const
{
    return m_reply && !m_reply->isFinished();
}

bool HttpClient::hasAnswer() const
{
    return !m_reply.isNull();
}

int HttpClient::status() const
{
    return m_reply ? m_reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt() : 0;
}

QByteArray HttpClient::header(const QByteArray &name) const
{
    return m_reply ? m_reply->rawHeader(name) : QByteArray();
}

QString HttpClient::contentType() const
{
    return m_reply ? m_reply->header(QNetworkRequest::ContentTypeHeader).toString() : QString();
}

QNetworkReply::NetworkError HttpClient::error() const
{
    return m_reply ? m_reply->error() : QNetworkReply::OperationCanceledError;
}

bool HttpClient::isInterim() const
{
    return m_reply && InterimAnswer::isIn(*m_reply);
}

bool HttpClient::isPacked() const
{
    return m_reply && XGzip::isIn(*m_reply);
}

QUrl HttpClient::redirectTarget() const
{
    return m_reply ? WebAddress::redirectTarget(*m_reply) : QUrl();
}

qint64 HttpClient::declaredLength() const
{
    const QVariant length =
        m_reply ? m_reply->header(QNetworkRequest::ContentLengthHeader) : QVariant();
    return length.isValid() ? length.toLongLong() : -1;
}

qint64 HttpClient::receivedBytes() const
{
    return m_receivedBytes;
}

bool HttpClient::isBodyWhole() const
{
    return m_receivedBytes >= declaredLength() && (!m_unpacker || m_unpacker->isWhole());
}

qint64 HttpClient::bytesAvailable() const
{
    return m_reply && m_reply->isOpen() ? m_reply->bytesAvailable() : 0;
}

bool HttpClient::readTo(const XGzip::Take &take)
{
    if (bytesAvailable() == 0)
        return true;
    m_chunk.resize(chunkBytes);
    for (;;) {
        const qint64 count = m_reply->read(m_chunk.data(), m_chunk.size());
        if (count <= 0)
            return true;
        if (m_receivedBytes == 0 && isPacked())
            m_unpacker = std::make_unique<XGzip>();
        m_receivedBytes += count;
        const bool isTaken = m_unpacker ? m_unpacker->unpack(m_chunk.constData(), count, take)
                                        : take(m_chunk.constData(), count);
        if (!isTaken)
            return false;
    }
}

bool HttpClient::readInto(QByteArray &memory, qint64 maxBytes)
{
    if (m_unpacker || (m_receivedBytes == 0 && isPacked())) {
        return readTo([&memory, maxBytes](const char *data, qint64 bytes) {
            const qint64 room = maxBytes - memory.size();
            memory.append(data, static_cast<int>(qMin(bytes, room)));
            return bytes <= room;
        });
    }
    const qint64 arrived = bytesAvailable();
    const int size = memory.size();
    const qint64 wanted = qMin(arrived, maxBytes - size);
    if (memory.isEmpty())
        memory.reserve(static_cast<int>(qMax(wanted, qMin(declaredLength(), maxReservedBytes))));
    memory.resize(size + static_cast<int>(wanted));
    const qint64 count = wanted > 0 ? m_reply->read(memory.data() + size, wanted) : 0;
    memory.resize(size + static_cast<int>(qMax(qint64(0), count)));
    m_receivedBytes += qMax(qint64(0), count);
    return wanted == arrived;
}

void HttpClient::skip()
{
    if (m_reply && m_reply->isOpen())
        m_reply->readAll();
}
