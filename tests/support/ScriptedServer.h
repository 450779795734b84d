#ifndef SCRIPTEDSERVER_H
#define SCRIPTEDSERVER_H

#include <QByteArray>
#include <QHash>
#include <QHostAddress>
#include <QList>
#include <QMetaType>
#include <QPair>
#include <QPointer>
#include <QTcpServer>
#include <QTcpSocket>
#include <QUrl>

#include <functional>

using HeaderList = QList<QPair<QByteArray, QByteArray>>;

/// One request as the server received it.
struct HttpRequest
{
    QByteArray method;
    QByteArray target; ///< path and query as sent
    HeaderList headers;
    QByteArray body;

    /// The value of the first header of that name, in any letter case; empty when there is none.
    [[nodiscard]] QByteArray header(const QByteArray &name) const;
    [[nodiscard]] bool hasHeader(const QByteArray &name) const;
    [[nodiscard]] QByteArray path() const; ///< target without its query
};

/// An answer with its faults. Lengths are in bytes, times in milliseconds.
struct HttpReply
{
    int status = 200;
    HeaderList headers; ///< "Content-Length" and "Connection: close" are added unless present
    QByteArray body;
    int delayMs = 0; ///< before the status line
    int bodyDelayMs = 0; ///< between the header and the body
    int pieceBytes = 0; ///< above 0: the body goes out in pieces of this size
    int pieceDelayMs = 0; ///< between two pieces
    qint64 cutAfterBytes = -1; ///< from 0: the connection is reset after so many body bytes
    qint64 holdAfterBytes = -1; ///< from 0: nothing more is sent after so many body bytes
    bool withoutLength = false; ///< no "Content-Length"; the body ends with the connection
};

Q_DECLARE_METATYPE(HttpReply)

HttpReply replyOf(const QByteArray &body, int status = 200);

/// Sends a beginning of the body and then nothing.
HttpReply heldReplyOf(const QByteArray &body, qint64 sentBytes);

/// An answer that does not say how long it is, yet has an end that nobody can mistake.
HttpReply chunkedReplyOf(const QByteArray &body);

/// An HTTP server on a loopback port of its own, for one test. It answers what the test scripts,
/// faults included, and records every request. A connection carries one request.
class ScriptedServer : public QObject
{
    Q_OBJECT

public:
    using Handler = std::function<HttpReply(const HttpRequest &)>;
    using RawHandler = std::function<void(const HttpRequest &, QTcpSocket *)>;

    explicit ScriptedServer(QObject *parent = nullptr);

    /// @param host the loopback address to listen on, such as 127.0.0.2; another host to cookies
    explicit ScriptedServer(const QHostAddress &host, QObject *parent = nullptr);

    /// Answers every request for a path (without query); anything else gets 404.
    void on(const QByteArray &path, const HttpReply &reply);
    void on(const QByteArray &path, const Handler &handler);

    /// Hands the socket to the test, which writes the answer byte by byte.
    void onRaw(const QByteArray &path, const RawHandler &handler);

    /// Answers requests for which nothing else is scripted.
    void onOther(const Handler &handler);

    /// Accepts a connection and never answers.
    void hold(const QByteArray &path);

    /// Serves a body with byte ranges (206 and 416) as a file server does.
    void serve(const QByteArray &path, const QByteArray &body, const QByteArray &contentType);

    /// The answer of a file server to a request that may name a range (200, 206 or 416).
    [[nodiscard]] static HttpReply rangeReply(const HttpRequest &request, const QByteArray &body,
                                              const QByteArray &contentType);

    /// The status line and the headers of a reply, to the empty line, as they are sent.
    [[nodiscard]] static QByteArray headOf(const HttpReply &reply);

    [[nodiscard]] QUrl url(const QByteArray &target) const;
    [[nodiscard]] QString address(const QByteArray &target) const; ///< url() as text
    [[nodiscard]] quint16 port() const;

    [[nodiscard]] QList<HttpRequest> requests() const;
    [[nodiscard]] QList<HttpRequest> requestsFor(const QByteArray &path) const;
    void clearRequests();

    /// The highest number of requests that were being answered at one time.
    [[nodiscard]] int maxAtOnce() const;

signals:
    void requestReceived(const QByteArray &target);

private:
    void acceptConnection();
    void readRequest(QTcpSocket *socket);
    void answer(QTcpSocket *socket, const HttpRequest &request);
    void sendReply(QTcpSocket *socket, const HttpReply &reply);
    void sendBody(QPointer<QTcpSocket> socket, const HttpReply &reply, qint64 sentBytes);

    QTcpServer m_server;
    QHash<QByteArray, Handler> m_handlers;
    QHash<QByteArray, RawHandler> m_rawHandlers;
    Handler m_otherHandler;
    QHash<QTcpSocket *, QByteArray> m_pending;
    QList<HttpRequest> m_requests;
    int m_openAnswers = 0;
    int m_maxAtOnce = 0;
};

#endif
