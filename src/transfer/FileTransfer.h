#ifndef FILETRANSFER_H
#define FILETRANSFER_H

#include "CookieJar.h"
#include "HttpClient.h"
#include "PartFile.h"
#include "PieceFetcher.h"
#include "RunOptions.h"
#include "Transfer.h"

#include <QElapsedTimer>
#include <QTimer>

#include <memory>

/// A file that comes over HTTP, with options for which it gathers beside its name: it is tried
/// again when it breaks off, and goes on with what has come before, of this run or of an earlier
/// one, only where the server's answer proves that it is the same content. Else it begins again.
/// Only what is whole gets the name.
///
/// Where several connections are wished for, the first one asks for the first piece alone. If the
/// answer proves what the content is known by, a PieceFetcher brings the rest meanwhile, and takes
/// this connection over when its piece is there. Whatever is not to be had in that way is asked for
/// as if there were one connection only.
class FileTransfer final : public Transfer
{
    Q_OBJECT

public:
    /// Whether the options ask for this kind of transfer, and the path is one for it: links,
    /// devices and pipes are written as they are, which leaves no place beside them.
    [[nodiscard]] static bool isFor(const QString &path, const RunOptions &options);

    /// @param totalBytes the size, 0 when it is not known
    FileTransfer(const QString &url, const QString &path, qint64 totalBytes,
                 const RunOptions &options);

    void start() override;
    void cancel() override;
    [[nodiscard]] TransferReport report(Outcome outcome) const override;

private:
    /// What is done with the body of an answer.
    enum class Body { Unwanted, Written, Compared };

    void ask(bool isRest);
    void askAgain();
    void askPlainly();
    void askAlone();
    void tellBegunAgain(const QString &reason);
    void judgeAnswer();
    void judgePiece();
    void beginBody();
    void startPieces();
    void readBody();
    [[nodiscard]] bool take(const char *data, qint64 bytes);
    [[nodiscard]] qint64 compare(const char *data, qint64 bytes);
    void tellProgress();
    void onPiecesArrived();
    void onEnded();
    void joinSome();
    void settle();
    [[nodiscard]] bool isWhole() const;
    [[nodiscard]] RunClass failure() const;
    [[nodiscard]] bool mayRetry(RunClass failure) const;
    void retry(RunClass cause);
    void conclude();
    void end(Outcome outcome, RunClass runClass);

    const QString m_url;
    const QString m_path;
    const qint64 m_totalBytes;
    const RunOptions m_options;
    CookieJar m_cookieJar;
    PartFile m_part;
    HttpClient m_client;
    std::unique_ptr<PieceFetcher> m_pieces; ///< while others bring what this does not
    QTimer m_pause;
    QTimer m_joining;
    QElapsedTimer m_sinceProgress;
    Body m_body = Body::Unwanted;
    QByteArray m_overlap; ///< what the rest has to begin with
    qint64 m_restFrom = 0; ///< the first byte asked for
    qint64 m_askedEnd = 0; ///< one past the last one; 0 for the end of the file
    qint64 m_bodyEnd = -1; ///< one past the last byte that the answer may bring; -1 when not known
    QString m_restRefusal; ///< why the rest is not taken; the whole is asked for instead
    int m_attempts = 0; ///< after the first one
    bool m_isAlone = false; ///< no more is asked for over other connections
    bool m_asksPlainly = false; ///< the answer is not taken; the whole is asked for instead
    bool m_awaitsJoin = false;
    bool m_hasWriteFailed = false;
    bool m_isStarted = false;
    bool m_isCanceled = false;
    bool m_isEnded = false;
    RunClass m_class = RunClass::BrokenOff;
};

#endif
