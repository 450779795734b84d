#ifndef ADOBEBROWSER_H
#define ADOBEBROWSER_H

#include "AdobeCookieJar.h"
#include "HttpClient.h"
#include "StopFlag.h"

#include <QByteArray>
#include <QNetworkReply>
#include <QObject>
#include <QString>
#include <QTimer>

#include <memory>

class CAdobePreference;

/// One HTTP request at a time, its redirects followed, its body kept in memory, and the host told
/// of it.
///
/// Headers and proxy come from the HDS options; cookies from the store of the process; only http
/// and https addresses are fetched. It belongs to the thread that creates it and needs no running
/// event loop there when it is told to wait. A request ends, as a failure, soon after a stop was
/// asked for, when nothing arrives for too long, and when the body outgrows its limit.
class CAdobeBrowser final : public QObject
{
    Q_OBJECT

public:
    /// @param stop ends the wait for a request when it is raised, from any thread
    /// @param pool lends the connections of earlier requests and gets them back after a success;
    ///             without it the connections are the object's own
    /// @param options the HDS options that it follows; the process's when it is null
    explicit CAdobeBrowser(const StopFlag &stop = StopFlag(),
                           const std::shared_ptr<ConnectionPool> &pool = nullptr,
                           QObject *parent = nullptr, CAdobePreference *options = nullptr);

    /// Not to be called from a slot of finished().
    ~CAdobeBrowser() override;

    // Each replaces the request before it; with `wait` set it returns when the request has ended.
    void get(const QString &url, bool wait);
    void head(const QString &url, bool wait);
    void post(const QString &url, const QByteArray &data, bool wait);

    /// Whether the last request ended with status 200, without a network error and, if its length
    /// is known, with a body of that length.
    [[nodiscard]] bool success() const;

    /// Whether the server said how long the body is. When it did not, a body that was cut off may
    /// pass as a success: the network library does not always notice.
    [[nodiscard]] bool isLengthKnown() const;

    [[nodiscard]] QNetworkReply::NetworkError error() const;

    /// The body as received.
    [[nodiscard]] QByteArray rawContent() const;

    /// The body as text, by the charset of its content type, else UTF-8.
    [[nodiscard]] QString content() const;

    /// "html", "xml", "smil" or "json" by the content type; empty for any other.
    [[nodiscard]] QString format() const;

    /// The address of the last request, that is after redirects.
    [[nodiscard]] QString url() const;

    /// sic: true when the reply does not redirect; the name is part of the interface.
    [[nodiscard]] bool isRedirect() const;

    /// Where the reply redirects to, made absolute; empty when it does not.
    [[nodiscard]] QString redirectUrl() const;

    /// Writes the body to a file. Returns false when it cannot be written whole.
    [[nodiscard]] bool save(const QString &path) const;

    /// The number of redirects at which a request ends; the ones before it are followed.
    void setMaxRedirect(int count);

    /// The largest body that is accepted, in bytes.
    void setMaxContentBytes(qint64 bytes);

    /// Memory that the next body is read into, in place of new one; what it holds is dropped.
    void setBuffer(QByteArray buffer);

    /// How long nothing may arrive before a request is ended, in place of the option "stall" (in
    /// seconds) or, without it, a minute.
    void setStallTimeout(qint64 timeoutMs);

    /// Starts no more requests and ends the one that is under way. Other threads raise the stop
    /// flag instead.
    void exit();

signals:
    /// A request has ended: 1 when there were too many redirects or it was refused, else 0.
    void finished(int code);

private slots:
    void httpReadyRead();
    void httpFinished();

private:
    using Method = HttpClient::Method;

    bool startRequest(const QString &url, Method method, const QByteArray &form);
    void begin(const QString &url, Method method, bool wait, const QByteArray &form = QByteArray());
    void onRedirected(const QUrl &target);
    void takeArrived();
    void watchWait();
    [[nodiscard]] bool isStopped() const;

    CAdobePreference &m_options;
    StopFlag m_stop;
    CAdobeCookieJar m_cookieJar;
    HttpClient m_client;
    QTimer m_watch;
    QString m_url;
    Method m_method = Method::Get;
    QByteArray m_content;
    qint64 m_maxContentBytes;
    qint64 m_stallTimeoutMs;
    int m_maxRedirect = 5;
    bool m_isDamaged = false; ///< the body could not be unpacked
    bool m_exit = false;
};

#endif
