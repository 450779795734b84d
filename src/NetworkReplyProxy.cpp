#include "NetworkReplyProxy.h"

#include "InterimAnswer.h"
#include "NetworkProxy.h"
#include "ShareMemoryManager.h"
#include "StallWatch.h"
#include "SynchronousRequest.h"
#include "TlsTrust.h"
#include "WebAddress.h"

#include <QNetworkCookieJar>
#include <QPointer>
#include <QTimer>

#include <cstring>

namespace {

constexpr qint64 longMediaBytes = 5242880; // from here on a media reply is cut short ...
constexpr qint64 longMediaStartBytes = 102400; // ... once so much of it has arrived
constexpr int maxKeptBytes = 8 << 20; // above what is cut, so that all of a cut reply is kept
constexpr int maxUnreadBytes = 64 << 20; // a paused player leaves everything unread
constexpr int maxUnpackedBytes = 64 << 20; // of what arrives at one time
constexpr int compactFromBytes = 1 << 20;
constexpr qint64 readBufferBytes = 1 << 20; // a fast server waits until the proxy has looked
constexpr int lastCopiedAttribute = 7; // QNetworkRequest::DoNotBufferUploadDataAttribute

/// Whether the address is the page that the caller named, which may be a file of this machine.
bool isPageAddress(const QUrl &url, const QUrl &page)
{
    return url.scheme() == page.scheme() && url.host() == page.host()
        && url.path(QUrl::FullyDecoded) == page.path(QUrl::FullyDecoded);
}

} // namespace

NetworkAccessManagerProxy::NetworkAccessManagerProxy(QNetworkCookieJar *cookieJar,
                                                     const RunOptions &options)
    : m_options(options)
{
    if (cookieJar) {
        setCookieJar(cookieJar);
        cookieJar->setParent(nullptr); // setCookieJar() took it over; it stays the caller's
    }
}

void NetworkAccessManagerProxy::disable()
{
    m_isDisabled = true;
}

/// Whether the page may load the address: from the web, or out of the page itself. Of this
/// machine's files only the one that the caller named is opened, however a page asks for another.
bool NetworkAccessManagerProxy::mayLoad(const QUrl &url) const
{
    return WebAddress::isWeb(url) || url.scheme() == QLatin1String("data")
        || isPageAddress(url, QUrl(m_options.pageUrl));
}

QNetworkReply *NetworkAccessManagerProxy::createRequest(Operation operation,
                                                        const QNetworkRequest &request,
                                                        QIODevice *outgoingData)
{
    emit sendUrl(request.url().toString());

    if (m_isDisabled || !mayLoad(request.url()) || ShareMemoryManager::GetInstance()->GetExitFlag())
        return QNetworkAccessManager::createRequest(GetOperation, QNetworkRequest(QUrl()), nullptr);

    TlsTrust::prepareFor(request.url());
    // By itself the toolkit waits for a synchronous request without end.
    const qint64 stallMs = StallWatch::limitOf(m_options.stallS);
    if (stallMs > 0 && SynchronousRequest::isOne(request)) {
        auto reply = SynchronousRequest::run(operation, request, outgoingData, proxy(), stallMs);
        return new NetworkReplyProxy(this, reply.release());
    }
    QNetworkReply *const reply =
        QNetworkAccessManager::createRequest(operation, onFreshConnection(request), outgoingData);
    TlsTrust::reportRefusal(reply);
    return new NetworkReplyProxy(this, reply);
}

void NetworkAccessManagerProxy::leaveConnectionsTo(const QUrl &url)
{
    ++m_interimAnswers[url.host()];
}

/// The toolkit shares connections between requests with the same name to verify. Without TLS it
/// verifies none, so that every name will do; with TLS there is only the host's own.
QNetworkRequest NetworkAccessManagerProxy::onFreshConnection(QNetworkRequest request) const
{
    const QUrl url = request.url();
    const int count = m_interimAnswers.value(url.host());
    if (count > 0) {
        const bool isPlain = url.scheme() == QLatin1String("http");
        request.setPeerVerifyName(isPlain ? QString::number(count) : url.host());
    }
    return request;
}

NetworkReplyProxy::NetworkReplyProxy(NetworkAccessManagerProxy *manager, QNetworkReply *reply)
    : QNetworkReply(manager)
    , m_reply(reply)
    , m_keepsImages(manager->options().keepsImages)
{
    m_reply->setParent(nullptr);
    setOperation(m_reply->operation());
    setRequest(m_reply->request());
    setUrl(m_reply->url());

    connect(this, &NetworkReplyProxy::replyDownloadProgress, manager,
            &NetworkAccessManagerProxy::replyDownloadProgress);
    connect(this, &NetworkReplyProxy::sizeUntold, manager, &NetworkAccessManagerProxy::sizeUntold);
    connect(this, &QNetworkReply::finished, manager, &NetworkAccessManagerProxy::replyFinished);
    connect(this, &NetworkReplyProxy::replyError, manager,
            &NetworkAccessManagerProxy::replyFinished);

    connect(this, &NetworkReplyProxy::interimAnswer, manager,
            &NetworkAccessManagerProxy::leaveConnectionsTo);

    open(QIODevice::ReadOnly);
    if (m_reply->isFinished())
        takeOverFinishedReply();
    else
        connectReply(*manager);
}

/// Notes, while it lives, that a signal of the real reply is being passed on.
class NetworkReplyProxy::Report final
{
public:
    explicit Report(NetworkReplyProxy *proxy)
        : m_proxy(proxy)
    {
        ++proxy->m_openReports;
    }

    ~Report()
    {
        if (m_proxy)
            --m_proxy->m_openReports;
    }

    Q_DISABLE_COPY(Report)

private:
    QPointer<NetworkReplyProxy> m_proxy;
};

NetworkReplyProxy::~NetworkReplyProxy()
{
    if (m_openReports == 0)
        return;
    m_reply->disconnect(this);
    m_reply->abort();
    m_reply.release()->deleteLater(); // one of its signals has led here
}

void NetworkReplyProxy::connectReply(const NetworkAccessManagerProxy &manager)
{
    NetworkProxy::limitUnread(*m_reply, manager, readBufferBytes);
    connect(m_reply.get(), &QNetworkReply::metaDataChanged, this,
            &NetworkReplyProxy::applyMetaData);
    connect(m_reply.get(), &QNetworkReply::readyRead, this, &NetworkReplyProxy::readInternal);
    connect(m_reply.get(), &QNetworkReply::errorOccurred, this, &NetworkReplyProxy::errorInternal);
    connect(m_reply.get(), &QNetworkReply::finished, this, &NetworkReplyProxy::finishInternal);
    connect(m_reply.get(), &QNetworkReply::uploadProgress, this, [this](qint64 sent, qint64 total) {
        const Report report(this);
        emit uploadProgress(sent, total);
    });
    connect(m_reply.get(), &QNetworkReply::downloadProgress, this,
            [this](qint64 received, qint64 total) {
                const Report report(this);
                emit downloadProgress(received, total);
            });
    connect(m_reply.get(), &QNetworkReply::downloadProgress, this,
            &NetworkReplyProxy::downloadPageProgress);
    const auto *const watch =
        new StallWatch(m_reply.get(), StallWatch::limitOf(manager.options().stallS));
    connect(watch, &StallWatch::stalled, this, &NetworkReplyProxy::failAsStalled);
}

void NetworkReplyProxy::takeOverFinishedReply()
{
    // A synchronous request is over before its reply can be wrapped. The engine reads the state at
    // once; only the signals wait for the event loop.
    copyMetaData();
    takeOverData(m_reply->bytesAvailable());
    if (m_reply->error() != NoError)
        takeOverError();
    else if (InterimAnswer::isIn(*m_reply))
        setError(ProtocolFailure, InterimAnswer::errorText());
    setFinished(true);
    QTimer::singleShot(0, this, [this] {
        const QPointer<NetworkReplyProxy> self(this);
        emit metaDataChanged();
        if (self && bytesAvailable() > 0)
            emit readyRead();
        if (self)
            downloadPageProgress(m_receivedBytes, m_receivedBytes);
        if (self)
            emit finished();
    });
}

QByteArray NetworkReplyProxy::receivedData() const
{
    return m_data;
}

void NetworkReplyProxy::copyMetaData()
{
    const auto rawHeaders = m_reply->rawHeaderPairs();
    const bool isPacked = XGzip::isIn(*m_reply); // its body is passed on unpacked
    for (const auto &header : rawHeaders) {
        const QByteArray name = header.first.toLower();
        if (!isPacked || (name != "content-encoding" && name != "content-length"))
            setRawHeader(header.first, header.second);
    }
    for (const auto known :
         {QNetworkRequest::ContentTypeHeader, QNetworkRequest::ContentLengthHeader,
          QNetworkRequest::LocationHeader, QNetworkRequest::LastModifiedHeader,
          QNetworkRequest::SetCookieHeader}) {
        if (!isPacked || known != QNetworkRequest::ContentLengthHeader)
            setHeader(known, m_reply->header(known));
    }
    for (int i = 0; i <= lastCopiedAttribute; ++i) {
        const auto attributeCode = static_cast<QNetworkRequest::Attribute>(i);
        setAttribute(attributeCode, m_reply->attribute(attributeCode));
    }
}

void NetworkReplyProxy::applyMetaData()
{
    const Report report(this);
    copyMetaData();
    emit metaDataChanged();
}

/// What the next bytes of the body unpack to. A body that is none such, or that swells beyond all
/// measure, ends with the last piece that is in order.
QByteArray NetworkReplyProxy::unpacked(const QByteArray &received)
{
    QByteArray result;
    if (!m_unpacker)
        m_unpacker = std::make_unique<XGzip>();
    const bool isTaken = m_unpacker->unpack(received.constData(), received.size(),
                                            [&result](const char *data, qint64 bytes) {
                                                result.append(data, static_cast<int>(bytes));
                                                return result.size() <= maxUnpackedBytes;
                                            });
    if (!isTaken && !m_reply->isFinished())
        QMetaObject::invokeMethod(m_reply.get(), &QNetworkReply::abort, Qt::QueuedConnection);
    return result;
}

void NetworkReplyProxy::takeOverData(qint64 maxBytes)
{
    QByteArray received = m_reply->read(maxBytes);
    m_receivedBytes += received.size();
    if (!received.isEmpty() && XGzip::isIn(*m_reply))
        received = unpacked(received);
    m_data += received.left(maxKeptBytes - m_data.size());
    if (m_bufferPos >= compactFromBytes && m_bufferPos >= m_buffer.size() / 2) {
        m_buffer.remove(0, m_bufferPos);
        m_bufferPos = 0;
    }
    m_buffer += received;
}

/// What the engine does not read stays with the real reply, whose server then waits.
void NetworkReplyProxy::readInternal()
{
    const int room = maxUnreadBytes - (m_buffer.size() - m_bufferPos);
    m_isHeldBack = m_reply->bytesAvailable() > room;
    if (room <= 0)
        return;
    const Report report(this);
    takeOverData(room);
    const QPointer<NetworkReplyProxy> self(this);
    emit readyRead();
    // The network layer reports progress a few times a second only; a fast server would be through
    // with a long file before the first report.
    if (self && !m_reply->isFinished()) {
        const qint64 size = declaredSize();
        if (isLongMedia(m_receivedBytes, size) || isCutImage(m_receivedBytes, size))
            downloadPageProgress(m_receivedBytes, size);
    }
}

void NetworkReplyProxy::readOn()
{
    if (m_reply->bytesAvailable() > 0 && !isFinished())
        readInternal();
}

void NetworkReplyProxy::takeOverError()
{
    m_hasError = true;
    setError(m_reply->error(), m_reply->errorString());
}

/// To the page the server has taken too long; the abort by which the real reply ends is not told.
void NetworkReplyProxy::failAsStalled()
{
    if (m_hasError || m_isHeldBack) // the engine's silence is not the server's
        return;
    const Report report(this);
    const QPointer<NetworkReplyProxy> self(this);
    failAs(TimeoutError, StallWatch::errorText());
    if (self)
        m_reply->abort(); // ends in finishInternal()
}

/// Tells the page of an error that the real reply does not have.
void NetworkReplyProxy::failAs(NetworkError error, const QString &text)
{
    m_hasError = true;
    setError(error, text);
    const QPointer<NetworkReplyProxy> self(this);
    emit errorOccurred(error);
    if (self)
        emit replyError();
}

void NetworkReplyProxy::errorInternal(QNetworkReply::NetworkError code)
{
    if (m_hasError)
        return;
    const Report report(this);
    takeOverError();
    const QPointer<NetworkReplyProxy> self(this);
    emit errorOccurred(code);
    if (self)
        emit replyError();
}

void NetworkReplyProxy::finishInternal()
{
    if (isFinished())
        return;
    const Report report(this);
    const QPointer<NetworkReplyProxy> self(this);
    InterimAnswer::report(*m_reply);
    if (InterimAnswer::isIn(*m_reply))
        emit interimAnswer(url());
    if (m_reply->error() != NoError)
        errorInternal(m_reply->error());
    else if (InterimAnswer::isIn(*m_reply))
        failAs(ProtocolFailure, InterimAnswer::errorText());
    if (self && m_isHeldBack && m_reply->isOpen()) {
        takeOverData(m_reply->bytesAvailable());
        emit readyRead();
    }
    if (!self)
        return;
    setFinished(true);
    emit finished();
}

void NetworkReplyProxy::downloadPageProgress(qint64 received, qint64 total)
{
    const Report report(this);
    const QString address = url().toString();
    const QString type = contentType();
    const qint64 known = qMax(declaredSize(), total);
    const bool isUntold = known < longMediaBytes && isLongMedia(received, known);
    const qint64 size = isUntold ? received : known;

    // An abort ends the reply before it returns, and the engine may drop its replies at their end.
    const QPointer<NetworkReplyProxy> self(this);
    if (isUntold && !m_isUntold) {
        m_isUntold = true; // the abort's own progress comes here again
        emit sizeUntold(address);
    }
    if (!self)
        return;
    abortLongMediaReply(received, size);
    if (self)
        abortImageReply(received, size);
    if (self)
        emit replyDownloadProgress(address, size, type);
}

qint64 NetworkReplyProxy::declaredSize() const
{
    return m_reply->header(QNetworkRequest::ContentLengthHeader).toLongLong();
}

QString NetworkReplyProxy::contentType() const
{
    return m_reply->header(QNetworkRequest::ContentTypeHeader).toString();
}

bool NetworkReplyProxy::isLongMedia(qint64 received, qint64 size) const
{
    const QString type = contentType();
    if (type == QLatin1String("video/f4m"))
        return false; // a stream's manifest, which is needed whole
    return (type.contains(QLatin1String("video/")) || type.contains(QLatin1String("audio/")))
        && received >= longMediaStartBytes && qMax(received, size) >= longMediaBytes;
}

bool NetworkReplyProxy::isCutImage(qint64 received, qint64 size) const
{
    return contentType().contains(QLatin1String("image/")) && !m_keepsImages
        && (received < size || size == -1);
}

void NetworkReplyProxy::abortLongMediaReply(qint64 received, qint64 size)
{
    if (isLongMedia(received, size))
        m_reply->abort();
}

void NetworkReplyProxy::abortImageReply(qint64 received, qint64 size)
{
    if (isCutImage(received, size))
        m_reply->abort();
}

qint64 NetworkReplyProxy::readData(char *data, qint64 maxSize)
{
    const qint64 count = qMin<qint64>(maxSize, m_buffer.size() - m_bufferPos);
    if (count <= 0)
        return 0;
    std::memcpy(data, m_buffer.constData() + m_bufferPos, static_cast<size_t>(count));
    m_bufferPos += static_cast<int>(count);
    if (m_bufferPos == m_buffer.size()) {
        m_buffer.clear();
        m_bufferPos = 0;
    }
    if (m_isHeldBack && m_buffer.size() - m_bufferPos <= maxUnreadBytes / 2) {
        m_isHeldBack = false;
        QMetaObject::invokeMethod(this, &NetworkReplyProxy::readOn, Qt::QueuedConnection);
    }
    return count;
}

qint64 NetworkReplyProxy::bytesAvailable() const
{
    return m_buffer.size() - m_bufferPos + QNetworkReply::bytesAvailable();
}

qint64 NetworkReplyProxy::bytesToWrite() const
{
    return -1;
}

bool NetworkReplyProxy::isSequential() const
{
    return m_reply->isSequential();
}

void NetworkReplyProxy::abort()
{
    m_reply->abort();
}

void NetworkReplyProxy::close()
{
    m_reply->close();
}

void NetworkReplyProxy::ignoreSslErrors()
{
    m_reply->ignoreSslErrors();
}

bool NetworkReplyProxy::canReadLine() const
{
    qFatal("not implemented");
}

bool NetworkReplyProxy::waitForReadyRead(int)
{
    qFatal("not implemented");
}

bool NetworkReplyProxy::waitForBytesWritten(int)
{
    qFatal("not implemented");
}
