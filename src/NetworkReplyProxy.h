#ifndef NETWORKREPLYPROXY_H
#define NETWORKREPLYPROXY_H

#include <QHash>
#include <QNetworkAccessManager>
#include <QNetworkReply>

#include "RunOptions.h"
#include "XGzip.h"

#include <memory>

/// The network manager of the page: reports every address that the page requests, refuses all
/// further requests once disabled or once the host wants the run to end, and wraps each reply.
///
/// It is the one door through which a page reaches anything: http and https addresses, data that
/// the page carries itself, and the page address that the caller named. Everything else (files,
/// resources of the program, ftp) is refused, redirects included, for the engine asks for each hop.
class NetworkAccessManagerProxy final : public QNetworkAccessManager
{
    Q_OBJECT

public:
    /// @param cookieJar may be null; stays the caller's and must outlive the manager
    explicit NetworkAccessManagerProxy(QNetworkCookieJar *cookieJar,
                                       const RunOptions &options = RunOptions::ofCommandLine());

    [[nodiscard]] const RunOptions &options() const { return m_options; }

    /// From now on no request reaches the network. There is no way back.
    void disable();

    /// Keeps later requests off the connections to a host, on one of which an answer comes that
    /// belongs to no request any more.
    void leaveConnectionsTo(const QUrl &url);

signals:
    /// A request is about to be made or refused. Emitted from inside the engine's loading code:
    /// receivers must not change the page before control has returned to the event loop.
    void sendUrl(const QString &url);

    /// A reply has progressed. @param size bytes in all, as far as known, else 0
    void replyDownloadProgress(const QString &url, qint64 size, const QString &contentType);

    /// A media reply has been cut whose server had not told the size: what is reported as its size
    /// from here on is what had come.
    void sizeUntold(const QString &url);

    /// A reply has ended or failed. One reply may report both.
    void replyFinished();

protected:
    QNetworkReply *createRequest(Operation operation, const QNetworkRequest &request,
                                 QIODevice *outgoingData) override;

private:
    [[nodiscard]] bool mayLoad(const QUrl &url) const;
    [[nodiscard]] QNetworkRequest onFreshConnection(QNetworkRequest request) const;

    const RunOptions m_options;
    bool m_isDisabled = false;
    QHash<QString, int> m_interimAnswers; ///< how many each host has sent, that are no answers
};

/// A reply of the page: passes the real reply through, reports its progress with size and content
/// type, and cuts long media and images short, whose beginning is all that the run needs. Media
/// that does not tell its size counts as long once so much has come; a reply that the engine does
/// not read waits at its server. Where the caller limits silence, a reply that has been silent for
/// longer fails with a timeout error.
class NetworkReplyProxy final : public QNetworkReply
{
    Q_OBJECT

public:
    /// @param manager becomes the parent    @param reply the real reply, which the proxy takes over
    NetworkReplyProxy(NetworkAccessManagerProxy *manager, QNetworkReply *reply);

    /// May be called from a receiver of any of its signals.
    ~NetworkReplyProxy() override;

    /// Every byte received so far, up to 8 MiB.
    [[nodiscard]] QByteArray receivedData() const;

    void abort() override;
    void close() override;
    void ignoreSslErrors() override;
    qint64 bytesAvailable() const override;
    qint64 bytesToWrite() const override;
    bool isSequential() const override;
    bool canReadLine() const override; ///< not supported: ends the process
    bool waitForReadyRead(int msecs) override; ///< not supported: ends the process
    bool waitForBytesWritten(int msecs) override; ///< not supported: ends the process

signals:
    void replyDownloadProgress(const QString &url, qint64 size, const QString &contentType);
    void sizeUntold(const QString &url);
    void replyError();

    /// The reply has ended with an answer that only announces another one.
    void interimAnswer(const QUrl &url);

public slots:
    void applyMetaData();
    void readInternal();
    void errorInternal(QNetworkReply::NetworkError code);
    void downloadPageProgress(qint64 received, qint64 total);

protected:
    qint64 readData(char *data, qint64 maxSize) override;

private:
    class Report;

    void connectReply(const NetworkAccessManagerProxy &manager);
    void finishInternal();
    void takeOverFinishedReply();
    void copyMetaData();
    void takeOverData(qint64 maxBytes);
    [[nodiscard]] QByteArray unpacked(const QByteArray &received);
    void readOn();
    void takeOverError();
    void failAsStalled();
    void failAs(NetworkError error, const QString &text);
    [[nodiscard]] bool isLongMedia(qint64 received, qint64 size) const;
    [[nodiscard]] bool isCutImage(qint64 received, qint64 size) const;
    [[nodiscard]] qint64 declaredSize() const; ///< by the header; 0 without one
    [[nodiscard]] QString contentType() const;
    void abortLongMediaReply(qint64 received, qint64 size);
    void abortImageReply(qint64 received, qint64 size);

    std::unique_ptr<QNetworkReply>
        m_reply; ///< no QObject child: a manager deletes all replies below it
    QByteArray m_data;
    qint64 m_receivedBytes = 0;
    QByteArray m_buffer;
    int m_bufferPos = 0; ///< bytes of m_buffer that the engine has read
    const bool m_keepsImages;
    bool m_isHeldBack = false; ///< bytes are left with the real reply
    bool m_isUntold = false; ///< sizeUntold() has been emitted
    bool m_hasError = false;
    std::unique_ptr<XGzip> m_unpacker; ///< of a body that takes one
    int m_openReports = 0;
};

#endif
