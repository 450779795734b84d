#include "NetworkFaults.h"

#include <QPointer>
#include <QTimer>

#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

namespace {

constexpr int pollMs = 2;
constexpr int trickleMs = 50;
constexpr int trickledBytes = 40;
constexpr int floodBytes = 256 * 1024;

using Socket = QPointer<QTcpSocket>;

/// Whether everything that was written has reached the other side's system.
bool hasArrived(const QTcpSocket &socket)
{
    int unsent = 0;
    return socket.bytesToWrite() == 0
        && ::ioctl(static_cast<int>(socket.socketDescriptor()), SIOCOUTQ, &unsent) == 0
        && unsent == 0;
}

/// Resets a connection, after what was written has arrived.
void resetOnceArrived(const Socket &socket)
{
    if (!socket)
        return;
    if (!hasArrived(*socket)) {
        QTimer::singleShot(pollMs, socket, [socket] { resetOnceArrived(socket); });
        return;
    }
    const linger atOnce{1, 0}; // with it closing is a reset
    ::setsockopt(static_cast<int>(socket->socketDescriptor()), SOL_SOCKET, SO_LINGER, &atOnce,
                 sizeof atOnce);
    socket->abort();
}

void sendAndReset(QTcpSocket *socket, const QByteArray &bytes)
{
    socket->write(bytes);
    resetOnceArrived(socket);
}

void sendAndClose(QTcpSocket *socket, const QByteArray &bytes)
{
    socket->write(bytes);
    socket->disconnectFromHost();
}

QByteArray wholeOf(const HttpReply &reply)
{
    return ScriptedServer::headOf(reply) + reply.body;
}

/// Sends bytes one by one to a position, then the rest.
void trickle(const Socket &socket, const QByteArray &bytes, int position)
{
    if (!socket)
        return;
    if (position == trickledBytes) {
        sendAndClose(socket, bytes.mid(position));
        return;
    }
    socket->write(bytes.mid(position, 1));
    QTimer::singleShot(trickleMs, socket,
                       [socket, bytes, position] { trickle(socket, bytes, position + 1); });
}

/// Sends a piece again and again, as fast as it is taken.
void flood(QTcpSocket *socket, const QByteArray &piece)
{
    const auto more = [socket, piece] {
        if (socket->bytesToWrite() < floodBytes)
            socket->write(piece);
    };
    QObject::connect(socket, &QTcpSocket::bytesWritten, socket, more);
    more();
}

void replaceHeader(HttpReply &reply, const QByteArray &name, const QByteArray &value)
{
    for (int i = reply.headers.size() - 1; i >= 0; --i) {
        if (reply.headers.at(i).first == name)
            reply.headers.removeAt(i);
    }
    reply.headers += {name, value};
}

QByteArray withHeader(HttpReply reply, const QByteArray &name, const QByteArray &value)
{
    replaceHeader(reply, name, value);
    return wholeOf(reply);
}

QByteArray contentRange(qint64 first, qint64 size)
{
    return "bytes " + QByteArray::number(first) + '-' + QByteArray::number(first + size - 1) + '/'
        + QByteArray::number(first + size);
}

/// A body in one chunk.
QByteArray chunked(const HttpReply &good, const QByteArray &sizeText, const QByteArray &end)
{
    HttpReply reply = good;
    reply.withoutLength = true;
    replaceHeader(reply, "Transfer-Encoding", "chunked");
    return ScriptedServer::headOf(reply) + sizeText + "\r\n" + good.body + end;
}

QByteArray gzip(const QByteArray &body)
{
    // A gzip member of stored blocks: each is a final bit, a length, its complement and the bytes.
    constexpr int blockBytes = 65535;
    QByteArray bytes("\x1f\x8b\x08\x00\x00\x00\x00\x00\x00\x03", 10);
    for (int at = 0; at < body.size(); at += blockBytes) {
        const QByteArray block = body.mid(at, blockBytes);
        const auto size = static_cast<quint16>(block.size());
        const auto complement = static_cast<quint16>(~size);
        bytes += static_cast<char>(at + blockBytes >= body.size() ? 1 : 0);
        for (const quint16 value : {size, complement})
            bytes += QByteArray(1, static_cast<char>(value & 0xFF)) + static_cast<char>(value >> 8);
        bytes += block;
    }
    return bytes;
}

NetworkFault::Sender resetAt(int position)
{
    return [position](QTcpSocket *socket, const HttpRequest &, const HttpReply &good) {
        const int at = position >= 0 ? position : good.body.size() + position;
        sendAndReset(socket, ScriptedServer::headOf(good) + good.body.left(at));
    };
}

/// A sender of bytes that are made from the good answer.
NetworkFault::Sender sending(const std::function<QByteArray(const HttpReply &)> &bytesOf)
{
    return [bytesOf](QTcpSocket *socket, const HttpRequest &, const HttpReply &good) {
        sendAndClose(socket, bytesOf(good));
    };
}

NetworkFault::Sender withStatus(int status)
{
    return sending([status](const HttpReply &) {
        HttpReply reply;
        reply.status = status;
        reply.headers = {{"Content-Type", "text/plain"}};
        reply.body =
            status == 204 ? QByteArray() : QByteArray("an error page, not what was wanted");
        return wholeOf(reply);
    });
}

std::vector<NetworkFault> cuts()
{
    return {
        {"closed before the header", sending([](const HttpReply &) { return QByteArray(); })},
        {"reset before the header",
         [](QTcpSocket *socket, const HttpRequest &, const HttpReply &) {
             resetOnceArrived(socket);
         }},
        {"closed inside the header",
         sending([](const HttpReply &good) { return ScriptedServer::headOf(good).left(40); })},
        {"reset inside the header",
         [](QTcpSocket *socket, const HttpRequest &, const HttpReply &good) {
             sendAndReset(socket, ScriptedServer::headOf(good).left(40));
         }},
        {"reset at byte 0", resetAt(0)},
        {"reset at byte 1", resetAt(1)},
        {"reset at byte 16383", resetAt(16383)},
        {"reset at byte 16384", resetAt(16384)},
        {"reset at byte 16385", resetAt(16385)},
        {"reset at byte 65535", resetAt(65535)},
        {"reset at byte 65536", resetAt(65536)},
        {"reset at byte 65537", resetAt(65537)},
        {"reset before the last byte", resetAt(-1)},
        {"closed in the middle", sending([](const HttpReply &good) {
             return ScriptedServer::headOf(good) + good.body.left(good.body.size() / 2);
         })},
        {"reset at the end",
         [](QTcpSocket *socket, const HttpRequest &, const HttpReply &good) {
             sendAndReset(socket, wholeOf(good));
         }},
        {"trickle",
         [](QTcpSocket *socket, const HttpRequest &, const HttpReply &good) {
             trickle(socket, wholeOf(good), 0);
         }},
    };
}

/// Sends the first bytes of the answer and nothing more.
NetworkFault::Sender silentAfter(const std::function<int(const HttpReply &)> &bytes)
{
    return [bytes](QTcpSocket *socket, const HttpRequest &, const HttpReply &good) {
        socket->write(wholeOf(good).left(bytes(good)));
    };
}

std::vector<NetworkFault> silences()
{
    return {
        {"silence before the header", silentAfter([](const HttpReply &) { return 0; }), false,
         true},
        {"silence inside the header", silentAfter([](const HttpReply &) { return 40; }), false,
         true},
        {"silence in the middle",
         silentAfter([](const HttpReply &good) { return good.body.size() / 2; }), false, true},
    };
}

std::vector<NetworkFault> lies()
{
    return {
        {"length too large", sending([](const HttpReply &good) {
             return withHeader(good, "Content-Length", QByteArray::number(good.body.size() + 1000));
         })},
        {"length too small", sending([](const HttpReply &good) {
             return withHeader(good, "Content-Length", QByteArray::number(good.body.size() / 2));
         })},
        {"length beyond 64 bits", sending([](const HttpReply &good) {
             return withHeader(good, "Content-Length", "99999999999999999999");
         })},
        {"another range", sending([](const HttpReply &good) {
             HttpReply reply = good;
             reply.status = 206;
             return withHeader(reply, "Content-Range", contentRange(7, good.body.size()));
         })},
        {"200 for a range, or 206 for none",
         [](QTcpSocket *socket, const HttpRequest &request, const HttpReply &good) {
             HttpReply reply = good;
             reply.status = request.hasHeader("Range") ? 200 : 206;
             sendAndClose(socket,
                          reply.status == 200 ? wholeOf(reply)
                                              : withHeader(reply, "Content-Range",
                                                           contentRange(0, good.body.size())));
         }},
        {"416", withStatus(416)},
        {"404", withStatus(404)},
        {"500", withStatus(500)},
        {"204 without a body", withStatus(204)},
        {"plain bytes as gzip", sending([](const HttpReply &good) {
             return withHeader(good, "Content-Encoding", "gzip");
         })},
        {"cut gzip", sending([](const HttpReply &good) {
             HttpReply reply = good;
             reply.body = gzip(good.body).left(good.body.size() / 2);
             return withHeader(reply, "Content-Encoding", "gzip");
         })},
        {"chunk size is a word",
         sending([](const HttpReply &good) { return chunked(good, "many", "\r\n0\r\n\r\n"); })},
        {"cut chunk", sending([](const HttpReply &good) {
             return chunked(good, QByteArray::number(good.body.size() * 2, 16), QByteArray());
         })},
    };
}

std::vector<NetworkFault> floods()
{
    return {
        {"endless body",
         [](QTcpSocket *socket, const HttpRequest &, const HttpReply &good) {
             HttpReply reply = good;
             reply.withoutLength = true;
             socket->write(wholeOf(reply));
             flood(socket, QByteArray(floodBytes, ' '));
         },
         true},
        {"endless header",
         [](QTcpSocket *socket, const HttpRequest &, const HttpReply &) {
             socket->write("HTTP/1.1 200 OK\r\n");
             flood(socket, QByteArray("X-More: and more\r\n").repeated(1000));
         },
         true},
        {"header of 100 KB", sending([](const HttpReply &good) {
             return withHeader(good, "X-Large", QByteArray(100000, 'x'));
         })},
        {"endless redirects",
         [](QTcpSocket *socket, const HttpRequest &request, const HttpReply &) {
             HttpReply reply;
             reply.status = 302;
             const int turn = request.target.mid(request.path().size() + 1).toInt() + 1;
             reply.headers = {{"Location", request.path() + '?' + QByteArray::number(turn)}};
             sendAndClose(socket, wholeOf(reply));
         }},
    };
}

} // namespace

const std::vector<NetworkFault> &networkFaults()
{
    static const std::vector<NetworkFault> all = [] {
        std::vector<NetworkFault> faults = cuts();
        for (const auto &more : {silences(), lies(), floods()})
            faults.insert(faults.end(), more.begin(), more.end());
        return faults;
    }();
    return all;
}
