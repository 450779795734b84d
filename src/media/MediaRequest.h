#ifndef MEDIAREQUEST_H
#define MEDIAREQUEST_H

#include "CookieJar.h"
#include "HttpClient.h"
#include "MediaServers.h"
#include "StopFlag.h"

#include <QByteArray>
#include <QObject>
#include <QString>
#include <QTimer>
#include <QUrl>

/// One request for a document, a key or a segment, whose body is kept in memory within a bound.
/// Only addresses of the web are asked for, redirects included. It belongs to the thread that makes
/// it. It may be destroyed at any time but from a slot of ended().
class MediaRequest final : public QObject
{
    Q_OBJECT

public:
    struct What
    {
        QUrl url;
        qint64 firstByte = 0;
        qint64 byteCount = 0; ///< from there on; 0 for all
        qint64 maxBytes = 0; ///< the largest body that is accepted
    };

    /// @param stop ends the request soon after it is raised, on any thread
    explicit MediaRequest(const MediaServers &servers, const StopFlag &stop = StopFlag(),
                          QObject *parent = nullptr);
    ~MediaRequest() override;

    /// Asks. ended() follows once, never from inside this call.
    /// @param buffer memory for the body; what it holds is dropped
    void start(const What &what, QByteArray buffer = QByteArray());

    /// Asks and waits for the end in an event loop of its own, which is how a thread without one
    /// does it. Returns whether the request has succeeded.
    bool run(const What &what, QByteArray buffer = QByteArray());

    // Of the last request, once it has ended.

    /// Whether what was asked for has come, and nothing but that: all of it, as far as the server
    /// told how much there is. A server that answers with the whole file in place of a range is
    /// read up to the end of the range, which is cut out of it.
    [[nodiscard]] bool hasSucceeded() const { return m_hasSucceeded; }

    /// Whether the length was told, so that a body that was cut off is no success.
    [[nodiscard]] bool isLengthKnown() const { return m_isLengthKnown; }

    /// Whether the server says that there is no such thing (404, 410).
    [[nodiscard]] bool isAbsent() const;

    [[nodiscard]] const QByteArray &body() const { return m_body; }
    [[nodiscard]] QByteArray takeBody(); ///< and leaves none
    [[nodiscard]] QString contentType() const { return m_client.contentType(); }

    [[nodiscard]] QByteArray header(const QByteArray &name) const { return m_client.header(name); }

    /// Where the answer came from: what is relative in it is relative to that.
    [[nodiscard]] QUrl url() const { return m_url; }

    /// Why it has not succeeded, for a log.
    [[nodiscard]] QString errorText() const;

signals:
    void ended();

private:
    void onAnswered();
    void takeArrived();
    bool take(const char *data, qint64 bytes);
    void onEnded();

    const StopFlag m_stop;
    const std::shared_ptr<std::atomic<int>> m_denials;
    HttpClient::Headers m_headers;
    CookieJar m_cookies;
    HttpClient m_client;
    QTimer m_watch; // of the stop flag
    What m_what;
    QUrl m_url;
    QByteArray m_body;
    qint64 m_toSkip = 0; // bytes before the range, in an answer that has the whole file
    bool m_isCut = false; // the range has come out of the whole file, the rest is not wanted
    bool m_isRefused = false; // for what the answer is
    bool m_isLengthKnown = false;
    bool m_hasSucceeded = false;
};

#endif
