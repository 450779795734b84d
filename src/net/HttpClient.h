#ifndef HTTPCLIENT_H
#define HTTPCLIENT_H

#include "NetSettings.h"
#include "XGzip.h"

#include <QByteArray>
#include <QList>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QObject>
#include <QPair>
#include <QPointer>
#include <QUrl>

#include <memory>

class ConnectionPool;
class QNetworkAccessManager;
class QNetworkCookieJar;

/// Asks servers over HTTP, one request at a time: the one place that has the rules for redirects,
/// silence, proxies, trust, cookies, interim answers, packed bodies and the use of connections. The
/// page's own requests alone go another way, for they are the engine's.
///
/// Only http and https addresses are ever asked for. The client keeps nothing of a body: whoever
/// asks reads it, straight to where it is to be. It tells what happens by signals and says nothing
/// to the host. It belongs to the thread that makes it, whose event loop has to run. It may be
/// destroyed at any time but from a slot of redirected().
class HttpClient final : public QObject
{
    Q_OBJECT

public:
    enum class Method { Get, Head, Post };

    using Headers = QList<QPair<QByteArray, QByteArray>>;

    /// What is done about an answer that sends on to another address.
    struct RedirectRule
    {
        int most = 10; ///< how many are followed, one after the other
        bool mayLeaveTls = false; ///< from https to http
        /// Whether a redirect's own body is waited for, which leaves its connection to the requests
        /// that follow. Else it is cut, since it may be long, or never end.
        bool readsBody = false;
    };

    struct Request
    {
        Method method = Method::Get;
        QUrl url;
        Headers headers; ///< for every hop; without a range
        QByteArray form; ///< what a POST brings. Where that redirects to is asked for with GET.
        qint64 rangeStart = 0; ///< the first byte that is wanted
        qint64 rangeEnd = 0; ///< one past the last one; 0 or less for the file's end
        RedirectRule redirects;
        /// The cookies that go along, every hop with its own; null for none but what this request's
        /// own hops set. The jar stays the caller's and outlives the client's use of it.
        QNetworkCookieJar *cookies = nullptr;
        qint64 maxUnreadBytes = 0; ///< of the body, see NetworkProxy::limitUnread(); 0 for any
    };

    /// @param pool lends the connections of earlier requests and gets them back if the last answer
    ///             has come whole; without it the connections are the client's own
    explicit HttpClient(const NetSettings &settings = NetSettings(),
                        const std::shared_ptr<ConnectionPool> &pool = nullptr,
                        QObject *parent = nullptr);
    ~HttpClient() override;

    /// For the requests, and the hops of a running one, that are made from now on.
    void setSettings(const NetSettings &settings);
    [[nodiscard]] const NetSettings &settings() const;

    /// Another jar for the hops of the running request. It stays the caller's.
    void setCookies(QNetworkCookieJar *jar);

    /// Drops the request before it, of which nothing more is told. ended() follows once, unless the
    /// client is destroyed or another request started first; never from inside this call. An
    /// address that is none of the web ends with an error.
    void start(const Request &request);

    /// Ends the request now: ended() comes from inside this call, unless nothing is under way. No
    /// redirect is followed any more. What has come but is not read is lost.
    void abort();

    /// Ends an answer whose body nobody wants, from the event loop. To be called from answered(),
    /// where the toolkit may have an error of its own under way, and a reply takes only one.
    void abortSoon();

    /// Drops the request, of which nothing more is told.
    void drop();

    // Of the last answer, while it comes and afterwards.

    [[nodiscard]] bool isRunning() const;
    [[nodiscard]] bool hasAnswer() const; ///< whether there is any, or may be one
    [[nodiscard]] int status() const; ///< 0 without a header
    [[nodiscard]] QByteArray header(const QByteArray &name) const;
    [[nodiscard]] QString contentType() const;
    [[nodiscard]] QNetworkReply::NetworkError error() const;
    [[nodiscard]] bool isInterim() const; ///< it only announces another one
    [[nodiscard]] bool isPacked() const; ///< the body is unpacked here when it is read

    /// Where the answer sends on to, whatever that is; empty when it does not.
    [[nodiscard]] QUrl redirectTarget() const;

    /// The length of the body as it is sent, before any unpacking; -1 when the server does not say.
    [[nodiscard]] qint64 declaredLength() const;

    /// So many bytes of the body, as it is sent, have been read.
    [[nodiscard]] qint64 receivedBytes() const;

    /// Whether the body that has been read is all of what the server called its length, and of
    /// what is packed in it. The toolkit misses a cut that arrives with the last bytes before it.
    [[nodiscard]] bool isBodyWhole() const;

    [[nodiscard]] qint64 bytesAvailable() const; ///< of the body as it is sent

    /// Reads what has come and gives it away in pieces of bounded size, unpacked if need be.
    /// Returns false when it cannot be unpacked, or is not taken; the rest is then left or lost.
    [[nodiscard]] bool readTo(const XGzip::Take &take);

    /// The same to the end of what is in memory already, without a copy in between.
    /// @param maxBytes which that shall not outgrow    Returns false when it would, or cannot be
    /// unpacked; memory then has what came before.
    [[nodiscard]] bool readInto(QByteArray &memory, qint64 maxBytes);

    /// Reads what has come and forgets it. Left alone it would stop the answer.
    void skip();

signals:
    /// An answer sends on to another address, which is asked for next if the rule and the address
    /// allow it. Its body, as far as it has come, can be read. Receivers may abort(), but start or
    /// destroy nothing.
    void redirected(const QUrl &target);

    /// The header of an answer has come that neither redirects nor only announces another one.
    void answered();

    /// Something of a body has come.
    void readable();

    /// How much of an answer's body has come, as the toolkit counts it; -1 for an unknown total.
    void progressed(qint64 received, qint64 total);

    /// The end. What has not been read of the body can be read now, unless it was aborted.
    void ended();

private:
    class Telling;

    void send(const QUrl &url);
    [[nodiscard]] QNetworkReply *ask(const QNetworkRequest &request);
    [[nodiscard]] QNetworkRequest requestFor(const QUrl &url) const;
    [[nodiscard]] bool mayFollow(const QUrl &target) const;
    [[nodiscard]] bool unpackTo(const char *data, qint64 bytes, const XGzip::Take &take);
    void onHeader();
    void onFinished();

    NetSettings m_settings;
    std::shared_ptr<ConnectionPool> m_pool;
    std::unique_ptr<QNetworkAccessManager> m_manager;
    QPointer<QNetworkReply> m_reply; // child of the manager
    Request m_request;
    Method m_method = Method::Get; ///< of the running hop
    int m_redirectCount = 0;
    int m_tellings = 0; ///< signals of the reply that are being passed on
    bool m_isAborted = false; ///< a redirect that is under way is not followed any more
    qint64 m_receivedBytes = 0;
    std::unique_ptr<XGzip> m_unpacker; ///< of a body that takes one
    QByteArray m_chunk; ///< carries bytes from the reply to whoever takes them
};

#endif
