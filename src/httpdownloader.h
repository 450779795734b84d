#ifndef HTTPDOWNLOADER_H
#define HTTPDOWNLOADER_H

#include <QObject>
#include <QUrl>

#include "ContentHash.h"
#include "CookieJar.h"
#include "HttpClient.h"
#include "OutputFile.h"
#include "RunOptions.h"
#include "TransferReport.h"

#include <optional>

/// Fetches one address over HTTP: a byte range into a file, or the whole body into memory.
///
/// Redirects are followed within http and https, never from https to http, with the range kept;
/// every hop gets the cookies of its own address. No other scheme is ever fetched.
/// Memory use does not grow with the file, but for what waits unread behind a SOCKS 5 proxy (see
/// NetworkProxy::limitUnread()). One request at a time; main thread.
class HttpDownloader final : public QObject
{
    Q_OBJECT

public:
    /// With the options of the command line, which are read for each transfer.
    explicit HttpDownloader(QObject *parent = nullptr);

    explicit HttpDownloader(const RunOptions &options, QObject *parent = nullptr);
    ~HttpDownloader() override;

    /// Describes the next request.
    /// @param filePath the target file; empty to collect the body in memory
    /// @param start first byte, from 0    @param end one past the last byte; <= 0 for the file's
    /// end
    /// @param rangeNo echoed in every signal    @param append keep what the file already holds
    void setDownloadInfo(const QString &filePath, const QString &url, qint64 start, qint64 end,
                         int rangeNo, bool append);

    /// Starts the request, which fails when nothing arrives for a minute, or for as long as the
    /// caller's limit for silence says. Exactly one of
    /// downFinished() and downerror() follows; downerror() comes from inside this call when the
    /// file cannot be opened, and then no request is sent. Returns whether a request was sent.
    bool download();

    /// Ends the running request; what has arrived reaches the file. downerror() follows.
    void cancel();

    /// What became of the file. From the end of its transfer on.
    [[nodiscard]] TransferReport report() const { return m_report; }

    /// The body collected in memory.
    [[nodiscard]] QByteArray RawContent() const;

    /// Uses another jar until the next download(). The jar stays the caller's.
    void setCookieJar(QNetworkCookieJar *cookieJar);

    /// Uses the proxy of the options, if they name one.
    void setProxy();

    /// The length in bytes that the server declares for an address; 0 when it declares none. Waits
    /// in a nested event loop until the server answers, the loop is ended, or the caller's limit
    /// for silence has passed; without one there is no time-out.
    [[nodiscard]] qint64 GetFileSize(QUrl url);

    /// How long a transfer with the options of the command line may bring nothing, in milliseconds:
    /// the caller's limit, or a minute. A probe has none unless the caller sets one.
    [[nodiscard]] static qint64 silenceLimitMs();

signals:
    void readShareMemory(int rangeNo);

    /// Positions within the whole file, in bytes.
    void sendProgress(int rangeNo, qint64 received, qint64 total);
    void downerror(int rangeNo);

    /// In memory also after a failure: the caller judges the content.
    void downFinished(int rangeNo);

private slots:
    void httpFinished();
    void httpReadyRead();
    void updateDataReadProgress(qint64 bytesReceived, qint64 bytesTotal);

private:
    HttpDownloader(const std::optional<RunOptions> &options, QObject *parent);
    [[nodiscard]] RunOptions options() const;
    [[nodiscard]] bool isFileMode() const;
    [[nodiscard]] bool openFile();
    void ask();
    void checkAnswer();
    [[nodiscard]] bool hasUsableAnswer() const;
    [[nodiscard]] bool answersWantedRange() const;
    [[nodiscard]] bool reachesRangeEnd() const;
    void saveReadable();
    void collectReadable();
    void finishFile();
    [[nodiscard]] RunClass judge(bool isSaved, qint64 fileSize) const;

    const std::optional<RunOptions> m_options; ///< none for those of the command line
    QString m_filePath;
    QString m_url;
    OutputFile m_file;
    qint64 m_rangeStart = 0;
    qint64 m_rangeEnd = -1;
    int m_rangeNo = -1;
    bool m_append = false;
    QByteArray m_content;
    qint64 m_expectedLength = 0;
    RunOptions m_current; ///< of the transfer under way
    int m_transferNo = 0; ///< tells whether a receiver has begun another transfer
    bool m_hasWriteFailed = false;
    qint64 m_sizeBefore = 0; ///< of the file, before anything is written to it
    ContentHash m_hash; ///< of what is written to a file that is begun, for events
    TransferReport m_report;
    bool m_isOverwriting = false; // the file from its beginning, instead of adding to it
    bool m_isCancelled = false; ///< the end's own progress is not told
    CookieJar m_cookieJar;
    HttpClient m_client;
};

#endif
