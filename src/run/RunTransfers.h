#ifndef RUNTRANSFERS_H
#define RUNTRANSFERS_H

#include "ParseData.h"
#include "RunOptions.h"
#include "Transfer.h"

#include <memory>

/// What a run fetches once it knows its video: a file or a stream, and the picture that goes with a
/// file. Each is fetched once. Main thread; starting may wait in nested event loops, and what ends
/// at once is told from inside the call that starts it.
class RunTransfers final : public QObject
{
    Q_OBJECT

public:
    explicit RunTransfers(const RunOptions &options, QObject *parent = nullptr);

    /// @param sizeBytes 0 while unknown
    void startFile(const QString &url, const QString &path, qint64 sizeBytes);
    void startThumb(const QString &url);
    void startStream(const QString &manifestUrl);

    /// @param stream a candidate that is one
    /// @param path where it goes; unless the caller gave that, its extension follows what comes
    void startManifest(const VideoFile &stream, const QString &path);

    /// What became of the video, whichever way it came. From its end on.
    [[nodiscard]] TransferReport videoReport() const { return m_videoReport; }

    /// Whether a stream is on its way.
    [[nodiscard]] bool isStreaming() const { return m_isStreaming; }

    /// Ends the stream if there is one, which streamEnded() tells once its workers have stopped.
    void cancelStream();

signals:
    /// @param outcome a Transfer::Outcome
    void fileEnded(int outcome);
    void thumbEnded(int outcome);
    void streamEnded(int outcome);

    /// Told often while a stream is on its way, whether anything of it comes or not. Receivers may
    /// cancel it.
    void streamActive();

private:
    void runStream(std::unique_ptr<Transfer> stream, const QString &path);
    void endVideo(const Transfer &transfer, Transfer::Outcome &outcome, const QString &path);

    const RunOptions m_options;
    std::unique_ptr<Transfer> m_file;
    std::unique_ptr<Transfer> m_thumb;
    std::unique_ptr<Transfer> m_stream;
    TransferReport m_videoReport;
    bool m_isStreaming = false;
};

#endif
