#include "HttpTransfer.h"

#include <QPointer>

namespace {

constexpr int rangeNo = 0; // a file comes in one piece

} // namespace

HttpTransfer::HttpTransfer(const RunOptions &options, const Begin &begin)
    : m_downloader(options)
    , m_begin(begin)
{
    connect(&m_downloader, &Downloader::progressed, this, &HttpTransfer::passProgress);
    connect(&m_downloader, &Downloader::finished, this,
            [this](int, int, int result) { end(static_cast<Outcome>(result)); });
}

std::unique_ptr<Transfer> HttpTransfer::ofVideo(const QString &url, const QString &path,
                                                qint64 totalBytes, const RunOptions &options)
{
    const auto begin = [=](Downloader &downloader) {
        downloader.downloadVideo(url, path, totalBytes, rangeNo, Downloader::Video);
    };
    return std::unique_ptr<Transfer>(new HttpTransfer(options, begin));
}

std::unique_ptr<Transfer> HttpTransfer::ofThumb(const QString &url, const RunOptions &options)
{
    const auto begin = [=](Downloader &downloader) { downloader.downloadThumb(url); };
    return std::unique_ptr<Transfer>(new HttpTransfer(options, begin));
}

void HttpTransfer::start()
{
    if (m_isStarted)
        return;
    m_isStarted = true;
    if (m_isCanceled)
        end(Outcome::Canceled);
    else
        m_begin(m_downloader);
}

void HttpTransfer::cancel()
{
    m_isCanceled = true;
    if (!m_isStarted || m_isEnded)
        return;
    // Told first, for the downloader reports its own end as a failure.
    const QPointer<HttpTransfer> self(this);
    end(Outcome::Canceled);
    if (self)
        m_downloader.cancel();
}

void HttpTransfer::passProgress(qint64 received, qint64 total)
{
    if (!m_isEnded)
        emit progressed(received, total >= received ? total : 0);
}

void HttpTransfer::end(Outcome outcome)
{
    if (m_isEnded)
        return;
    m_isEnded = true;
    emit ended(outcome);
}
