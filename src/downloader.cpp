#include "downloader.h"

#include "HostEvents.h"
#include "ShareMemoryManager.h"
#include "SizeProbe.h"

#include <QFile>
#include <QFileInfo>
#include <QPointer>

#include <limits>

namespace {

constexpr int thumbRangeNo = -1; // what the thumbnail's outcomes carry

bool isHttp(const QString &url)
{
    return url.startsWith(QLatin1String("http"));
}

void reportProgress(qint64 received, qint64 total)
{
    HostEvents::send(event::Progress{received, total});
}

} // namespace

Downloader::Downloader(QObject *parent)
    : QObject(parent)
{
}

Downloader::Downloader(const RunOptions &options, QObject *parent)
    : QObject(parent)
    , m_options(options)
    , m_downloader(options)
{
}

Downloader::~Downloader()
{
    m_downloader.disconnect(this);
    cancel();
    removeCutThumb();
}

RunOptions Downloader::options() const
{
    return m_options ? *m_options : RunOptions::ofCommandLine();
}

void Downloader::downloadVideo(const QString &url, const QString &filePath, qint64 totalSize,
                               int rangeNo, int)
{
    m_videoPath = filePath;
    m_totalSize = totalSize;
    m_class.reset();
    if (!isHttp(url)) {
        m_class = RunClass::Unsupported;
        emit finished(rangeNo, m_downloadType, Failed);
        return;
    }
    m_downloadType = Video;

    const RunOptions chosen = options();
    const qint64 downloaded = chosen.expectedBytes > 0 ? getDownloadedFileSize() : 0;
    reportProgress(downloaded, totalSize);
    if (downloaded == totalSize && totalSize > 0) {
        m_class = RunClass::Complete;
        emit finished(rangeNo, Video, Succeeded);
    } else {
        startVideo(url, downloaded, rangeNo, chosen.resumes);
    }
}

void Downloader::startVideo(const QString &url, qint64 start, int rangeNo, bool resumes)
{
    m_downloader.disconnect(this);
    m_downloader.setDownloadInfo(m_videoPath, url, start, -1, rangeNo, resumes);
    m_downloader.setProxy();
    connect(&m_downloader, &HttpDownloader::downFinished, this, &Downloader::downloadVideoSuccess);
    connect(&m_downloader, &HttpDownloader::downerror, this, &Downloader::downloadVideoError);
    connect(&m_downloader, &HttpDownloader::sendProgress, this, &Downloader::outDownloadProcess);
    m_downloader.download();
}

void Downloader::downloadThumb(const QString &url)
{
    if (!isHttp(url)) {
        emit finished(0, m_downloadType, Failed);
        return;
    }
    m_downloadType = Thumb;

    const RunOptions chosen = options();
    m_thumbPath = chosen.paths.thumb();
    if (chosen.resumes && QFile::exists(m_thumbPath)) {
        if (OutputFile::isBeingWritten(m_thumbPath)) {
            qWarning("%s is not taken as it is: another run is writing it",
                     qUtf8Printable(m_thumbPath));
            emit finished(0, Thumb, Failed);
        } else {
            emit finished(0, Thumb, Succeeded);
        }
        return;
    }
    m_downloader.disconnect(this);
    m_downloader.setDownloadInfo(m_thumbPath, url, 0, -1, 0, chosen.resumes);
    m_downloader.setProxy();
    connect(&m_downloader, &HttpDownloader::downFinished, this, &Downloader::downloadThumbSuccess);
    connect(&m_downloader, &HttpDownloader::downerror, this, &Downloader::downloadThumbError);
    m_isThumbOpen = m_downloader.download();
}

TransferReport Downloader::report() const
{
    TransferReport report = m_downloader.report();
    if (m_class)
        report = {*m_class};
    // Some answers seem to be in order and are not: a body without a length may be cut anywhere.
    if (report.runClass == RunClass::Complete && m_downloadType == Video
        && QFileInfo(m_videoPath).size() < m_totalSize)
        report.runClass = RunClass::Incomplete;
    return report;
}

qint64 Downloader::getUrlFileSize(const QString &url)
{
    return SizeProbe(options().netSettings()).sizeOf(url);
}

int Downloader::getDownloadedFileSize() const
{
    const QString path = m_downloadType == Video ? m_videoPath : options().paths.thumb();
    const qint64 size = QFileInfo(path).size(); // 0 for a missing file
    return size > std::numeric_limits<int>::max() ? 0 : static_cast<int>(size);
}

void Downloader::downloadVideoSuccess(int rangeNo)
{
    emit finished(rangeNo, Video, Succeeded);
}

void Downloader::downloadVideoError(int rangeNo)
{
    emit finished(rangeNo, Video, Failed);
}

void Downloader::downloadThumbSuccess(int)
{
    m_isThumbOpen = false;
    emit finished(thumbRangeNo, Thumb, Succeeded);
}

void Downloader::downloadThumbError(int)
{
    removeCutThumb();
    emit finished(thumbRangeNo, Thumb, Failed);
}

void Downloader::removeCutThumb()
{
    if (!m_isThumbOpen)
        return;
    m_isThumbOpen = false;
    // Half a picture would pass for a whole one in the next run.
    QFile::remove(m_thumbPath);
}

void Downloader::outDownloadProcess(int, qint64 received, qint64 total)
{
    if (m_downloadType == Video) {
        reportProgress(received, total);
        emit progressed(received, total);
    }
    if (ShareMemoryManager::GetInstance()->GetExitFlag())
        cancel();
}

void Downloader::cancel(int rangeNo, int downType)
{
    // Reported first: the transfer's own end arrives as a failure, from inside cancel().
    const QPointer<Downloader> self(this);
    emit finished(rangeNo, downType, Canceled);
    if (self)
        cancel();
}

void Downloader::cancel()
{
    m_downloader.cancel();
}
