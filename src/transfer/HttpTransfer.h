#ifndef HTTPTRANSFER_H
#define HTTPTRANSFER_H

#include "RunOptions.h"
#include "Transfer.h"
#include "downloader.h"

#include <functional>
#include <memory>

/// A file that comes over HTTP, by the rules of Downloader, which tells the host of its progress
/// and ends it when the host wants the run to end. A canceled video's part stays on the disk; a
/// picture that was cut off does not.
class HttpTransfer final : public Transfer
{
    Q_OBJECT

public:
    /// The chosen video. @param totalBytes its size, 0 when it is not known
    [[nodiscard]] static std::unique_ptr<Transfer>
    ofVideo(const QString &url, const QString &path, qint64 totalBytes, const RunOptions &options);

    /// The picture that stands for the video, to where the options put it. It tells no progress.
    [[nodiscard]] static std::unique_ptr<Transfer> ofThumb(const QString &url,
                                                           const RunOptions &options);

    void start() override;
    void cancel() override;
    [[nodiscard]] TransferReport report(Outcome) const override { return m_downloader.report(); }

private:
    using Begin = std::function<void(Downloader &)>;

    HttpTransfer(const RunOptions &options, const Begin &begin);
    void passProgress(qint64 received, qint64 total);
    void end(Outcome outcome);

    Downloader m_downloader;
    Begin m_begin;
    bool m_isStarted = false;
    bool m_isCanceled = false;
    bool m_isEnded = false;
};

#endif
