#ifndef DOWNLOADER_H
#define DOWNLOADER_H

#include <QObject>

#include "RunOptions.h"
#include "httpdownloader.h"

#include <optional>

/// Brings the chosen video, or the thumbnail, to disk: decides between resuming, skipping and
/// starting, reports progress to the host, and obeys the host's stop flag at every progress step.
/// One transfer at a time; main thread.
class Downloader final : public QObject
{
    Q_OBJECT

public:
    /// What is being downloaded, as finished() carries it.
    enum DownloadType { NoDownload = -1, Thumb = 0, Video = 1 };

    /// How it ended, as finished() carries it.
    enum Result { Canceled = -1, Failed = 0, Succeeded = 1 };

    /// With the options of the command line, which are read for each transfer.
    explicit Downloader(QObject *parent = nullptr);

    explicit Downloader(const RunOptions &options, QObject *parent = nullptr);

    /// Ends a running transfer. What a video has on disk stays; a thumbnail cut off is removed.
    ~Downloader() override;

    /// Starts, resumes or skips the video. finished() may come from inside this call.
    /// @param totalSize its size in bytes, 0 when unknown
    void downloadVideo(const QString &url, const QString &filePath, qint64 totalSize, int rangeNo,
                       int downType);

    /// Starts or skips the thumbnail. finished() may come from inside this call.
    void downloadThumb(const QString &url);

    /// What became of the last transfer. From finished() on.
    [[nodiscard]] TransferReport report() const;

    /// The size in bytes that the server declares for an http or https address; 0 when unknown.
    /// Waits in a nested event loop.
    [[nodiscard]] qint64 getUrlFileSize(const QString &url);

    /// The size in bytes of what is on disk for the current type. A 32-bit number: a larger file
    /// cannot be resumed and counts as 0.
    [[nodiscard]] int getDownloadedFileSize() const;

signals:
    /// @param downType a DownloadType    @param ret a Result
    void finished(int rangeNo, int downType, int ret);

    /// The video has progressed: positions within the whole file, in bytes. The total is below what
    /// has been received while it is not known. Receivers may cancel, but not destroy this.
    void progressed(qint64 received, qint64 total);

public slots:
    void downloadVideoSuccess(int rangeNo);
    void downloadVideoError(int rangeNo);
    void downloadThumbSuccess(int rangeNo);
    void downloadThumbError(int rangeNo);
    void outDownloadProcess(int rangeNo, qint64 received, qint64 total);

    /// Reports the transfer as canceled, then ends it; its own end, a failure, follows.
    void cancel(int rangeNo, int downType);

    /// Ends the transfer, which then reports its failure.
    void cancel();

private:
    [[nodiscard]] RunOptions options() const;
    void startVideo(const QString &url, qint64 start, int rangeNo, bool resumes);
    void removeCutThumb();

    const std::optional<RunOptions> m_options; ///< none for those of the command line
    int m_downloadType = NoDownload;
    qint64 m_totalSize = 0; ///< of the video; 0 when unknown
    std::optional<RunClass> m_class; ///< of what never reached a server
    HttpDownloader m_downloader;
    QString m_videoPath;
    QString m_thumbPath;
    bool m_isThumbOpen = false; ///< the thumbnail's file was opened and is not complete
};

#endif
