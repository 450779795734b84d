#ifndef RTMPDOWNLOADER_H
#define RTMPDOWNLOADER_H

#include <QMap>
#include <QObject>
#include <QProcess>

/// Saves an RTMP stream to a file with the external program "rtmpdump" from the folder of this
/// program, and tries again from the start after a failed write or a first failure.
///
/// One download at a time. After a failed retry, and when the program cannot be started, no signal
/// comes: the caller needs a time-out of its own. A running download ends with its object.
class RtmpDownloader final : public QObject
{
    Q_OBJECT

public:
    RtmpDownloader();
    ~RtmpDownloader() override;

    /// Starts a download and returns at once.
    /// @param params options of rtmpdump: names without dashes, with their values
    /// @param filePath the file to write; takes the place of a "flv" among the options
    /// @param resumeOffset other than 0: rtmpdump continues the file that is there
    /// @param sizeLimit in bytes; the download is stopped once more is reported; 0 or less: none
    void download(const QMap<QString, QString> &params, const QString &filePath,
                  qint64 resumeOffset, qint64 sizeLimit);

    /// Stops a running download, which ends with finished(-1).
    void cancel();

signals:
    /// @param received in bytes    @param total in bytes, estimated; 0 while it is unknown
    void progress(qint64 received, qint64 total);

    /// @param result 0: the stream has been saved; -1: stopped, by cancel() or the size limit
    void finished(int result);

private slots:
    void onStdoutReady();
    void onProcessFinished(int exitCode, QProcess::ExitStatus exitStatus);

private:
    Q_DISABLE_COPY(RtmpDownloader)

    [[nodiscard]] QStringList arguments() const;
    void reportProgress(const QByteArray &chunk);
    void startAfresh();

    QProcess m_process{this};
    QMap<QString, QString> m_params;
    QString m_filePath;
    qint64 m_resumeOffset = 0;
    qint64 m_sizeLimit = 0;
    int m_attempts = 0;
    bool m_watchesWriteFailure = true; // cleared when one is seen
    bool m_isCancelled = false;
};

#endif
