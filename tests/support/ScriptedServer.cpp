#include "ScriptedServer.h"

#include <QTimer>

namespace {

bool sameName(const QByteArray &a, const QByteArray &b)
{
    return qstricmp(a.constData(), b.constData()) == 0;
}

bool hasName(const HeaderList &headers, const QByteArray &name)
{
    for (const auto &header : headers) {
        if (sameName(header.first, name))
            return true;
    }
    return false;
}

/// Parses "first-last" or "first-" of a "bytes=" range; false for anything else.
bool parseRange(const QByteArray &value, int size, int &first, int &last)
{
    if (!value.startsWith("bytes="))
        return false;
    const QList<QByteArray> ends = value.mid(6).split('-');
    bool isNumber = false;
    first = ends.value(0).toInt(&isNumber);
    if (!isNumber || ends.size() != 2)
        return false;
    last = ends.at(1).isEmpty() ? size - 1 : qMin(ends.at(1).toInt(), size - 1);
    return true;
}

} // namespace

HttpReply replyOf(const QByteArray &body, int status)
{
    HttpReply reply;
    reply.status = status;
    reply.body = body;
    return reply;
}

HttpReply heldReplyOf(const QByteArray &body, qint64 sentBytes)
{
    HttpReply reply = replyOf(body);
    reply.holdAfterBytes = sentBytes;
    return reply;
}

HttpReply chunkedReplyOf(const QByteArray &body)
{
    HttpReply reply;
    reply.headers = {{"Transfer-Encoding", "chunked"}};
    reply.withoutLength = true;
    if (!body.isEmpty())
        reply.body = QByteArray::number(body.size(), 16) + "\r\n" + body + "\r\n";
    reply.body += "0\r\n\r\n";
    return reply;
}

QByteArray HttpRequest::header(const QByteArray &name) const
{
    for (const auto &header : headers) {
        if (sameName(header.first, name))
            return header.second;
    }
    return {};
}

bool HttpRequest::hasHeader(const QByteArray &name) const
{
    return hasName(headers, name);
}

QByteArray HttpRequest::path() const
{
    return target.left(target.indexOf('?') < 0 ? target.size() : target.indexOf('?'));
}

ScriptedServer::ScriptedServer(QObject *parent)
    : ScriptedServer(QHostAddress(QHostAddress::LocalHost), parent)
{
}

ScriptedServer::ScriptedServer(const QHostAddress &host, QObject *parent)
    : QObject(parent)
{
    connect(&m_server, &QTcpServer::newConnection, this, &ScriptedServer::acceptConnection);
    m_server.setMaxPendingConnections(1000);
    if (!m_server.listen(host))
        qFatal("no loopback port to listen on");
}

void ScriptedServer::on(const QByteArray &path, const HttpReply &reply)
{
    m_handlers.insert(path, [reply](const HttpRequest &) { return reply; });
}

void ScriptedServer::on(const QByteArray &path, const Handler &handler)
{
    m_handlers.insert(path, handler);
}

void ScriptedServer::onRaw(const QByteArray &path, const RawHandler &handler)
{
    m_rawHandlers.insert(path, handler);
}

void ScriptedServer::onOther(const Handler &handler)
{
    m_otherHandler = handler;
}

void ScriptedServer::hold(const QByteArray &path)
{
    onRaw(path, [](const HttpRequest &, QTcpSocket *) {});
}

void ScriptedServer::serve(const QByteArray &path, const QByteArray &body,
                           const QByteArray &contentType)
{
    on(path, [body, contentType](const HttpRequest &request) {
        return rangeReply(request, body, contentType);
    });
}

HttpReply ScriptedServer::rangeReply(const HttpRequest &request, const QByteArray &body,
                                     const QByteArray &type)
{
    HttpReply reply;
    reply.headers = {{"Content-Type", type}, {"Accept-Ranges", "bytes"}};
    int first = 0;
    int last = 0;
    if (!parseRange(request.header("Range"), body.size(), first, last)) {
        reply.body = body;
        return reply;
    }
    if (first >= body.size()) {
        reply.status = 416;
        reply.headers += {"Content-Range", "bytes */" + QByteArray::number(body.size())};
        return reply;
    }
    reply.status = 206;
    reply.body = body.mid(first, last - first + 1);
    reply.headers += {"Content-Range",
                      "bytes " + QByteArray::number(first) + '-' + QByteArray::number(last) + '/'
                          + QByteArray::number(body.size())};
    return reply;
}

QByteArray ScriptedServer::headOf(const HttpReply &reply)
{
    QByteArray head = "HTTP/1.1 " + QByteArray::number(reply.status) + " Scripted\r\n";
    for (const auto &header : reply.headers)
        head += header.first + ": " + header.second + "\r\n";
    if (!reply.withoutLength && !hasName(reply.headers, "Content-Length"))
        head += "Content-Length: " + QByteArray::number(reply.body.size()) + "\r\n";
    if (!hasName(reply.headers, "Connection"))
        head += "Connection: close\r\n";
    return head + "\r\n";
}

QUrl ScriptedServer::url(const QByteArray &target) const
{
    return QUrl(address(target));
}

QString ScriptedServer::address(const QByteArray &target) const
{
    // Joined, not filled in: the target may hold what looks like a marker.
    return QStringLiteral("http://%1:%2").arg(m_server.serverAddress().toString()).arg(port())
        + QString::fromUtf8(target);
}

quint16 ScriptedServer::port() const
{
    return m_server.serverPort();
}

QList<HttpRequest> ScriptedServer::requests() const
{
    return m_requests;
}

QList<HttpRequest> ScriptedServer::requestsFor(const QByteArray &path) const
{
    QList<HttpRequest> found;
    for (const HttpRequest &request : m_requests) {
        if (request.path() == path)
            found += request;
    }
    return found;
}

void ScriptedServer::clearRequests()
{
    m_requests.clear();
}

int ScriptedServer::maxAtOnce() const
{
    return m_maxAtOnce;
}

void ScriptedServer::acceptConnection()
{
    while (QTcpSocket *socket = m_server.nextPendingConnection()) {
        socket->setParent(this);
        // An answer goes out in several writes; none of them shall wait for the peer.
        socket->setSocketOption(QAbstractSocket::LowDelayOption, 1);
        connect(socket, &QTcpSocket::readyRead, this, [this, socket] { readRequest(socket); });
        connect(socket, &QTcpSocket::disconnected, this, [this, socket] {
            m_pending.remove(socket);
            socket->deleteLater();
        });
        readRequest(socket);
    }
}

void ScriptedServer::readRequest(QTcpSocket *socket)
{
    QByteArray &data = m_pending[socket];
    data += socket->readAll();
    const int headEnd = data.indexOf("\r\n\r\n");
    if (headEnd < 0)
        return;

    QList<QByteArray> lines = data.left(headEnd).split('\n');
    const QList<QByteArray> words = lines.takeFirst().trimmed().split(' ');
    HttpRequest request;
    request.method = words.value(0);
    request.target = words.value(1);
    for (const QByteArray &line : qAsConst(lines)) {
        const int colon = line.indexOf(':');
        request.headers += {line.left(colon).trimmed(), line.mid(colon + 1).trimmed()};
    }
    const int bodyLength = request.header("Content-Length").toInt();
    if (data.size() - headEnd - 4 < bodyLength)
        return;
    request.body = data.mid(headEnd + 4, bodyLength);
    data.clear();
    socket->disconnect(SIGNAL(readyRead()));

    m_requests += request;
    m_maxAtOnce = qMax(m_maxAtOnce, ++m_openAnswers);
    connect(socket, &QObject::destroyed, this, [this] { --m_openAnswers; });
    answer(socket, request);
    emit requestReceived(request.target);
}

void ScriptedServer::answer(QTcpSocket *socket, const HttpRequest &request)
{
    const RawHandler rawHandler = m_rawHandlers.value(request.path());
    if (rawHandler) {
        rawHandler(request, socket);
        return;
    }
    HttpReply reply;
    reply.status = 404;
    if (const Handler handler = m_handlers.value(request.path(), m_otherHandler))
        reply = handler(request);
    QTimer::singleShot(reply.delayMs, socket, [this, socket, reply] { sendReply(socket, reply); });
}

void ScriptedServer::sendReply(QTcpSocket *socket, const HttpReply &reply)
{
    socket->write(headOf(reply));
    socket->flush();
    const QPointer<QTcpSocket> guarded(socket);
    QTimer::singleShot(reply.bodyDelayMs, socket,
                       [this, guarded, reply] { sendBody(guarded, reply, 0); });
}

void ScriptedServer::sendBody(QPointer<QTcpSocket> socket, const HttpReply &reply, qint64 sentBytes)
{
    if (!socket)
        return;
    qint64 endBytes = reply.body.size();
    if (reply.pieceBytes > 0)
        endBytes = qMin(endBytes, sentBytes + reply.pieceBytes);
    if (reply.cutAfterBytes >= 0)
        endBytes = qMin(endBytes, reply.cutAfterBytes);
    if (reply.holdAfterBytes >= 0)
        endBytes = qMin(endBytes, reply.holdAfterBytes);
    socket->write(reply.body.constData() + sentBytes, endBytes - sentBytes);
    socket->flush();
    if (endBytes == reply.holdAfterBytes)
        return;
    if (endBytes == reply.cutAfterBytes) {
        // What was written must leave before the reset, or it may never arrive.
        while (socket->bytesToWrite() > 0 && socket->waitForBytesWritten(1000)) { }
        socket->abort();
        return;
    }
    if (endBytes == reply.body.size()) {
        socket->disconnectFromHost();
        return;
    }
    QTimer::singleShot(reply.pieceDelayMs, socket.data(),
                       [this, socket, reply, endBytes] { sendBody(socket, reply, endBytes); });
}
