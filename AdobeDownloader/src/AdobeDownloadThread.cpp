#include "AdobeDownloadThread.h"

#include "AdobeBrowser.h"
#include "AdobeUtils.h"

#include <QFileInfo>
#include <QTemporaryFile>

#include <cerrno>
#include <cstring>
#include <utility>

#include <sys/stat.h>

namespace {

/// What others may not do with new files. Asked for while the program is loaded: to ask is to
/// change it for a moment, and for all threads.
mode_t processUmask()
{
    const mode_t mask = ::umask(S_IRWXG | S_IRWXO);
    ::umask(mask);
    return mask;
}

const mode_t newFileMask = processUmask();

constexpr int maxAttempts = 31;
constexpr qint64 maxFragmentBytes = 256 * 1024 * 1024;

/// The cached fragment; empty when there is none that could have been fetched.
QByteArray cachedContent(const QString &path)
{
    const qint64 bytes = QFileInfo(path).size();
    return bytes <= maxFragmentBytes ? CAdobeUtils::ReadWholeFile(path, bytes) : QByteArray();
}

/// The permissions that a file gets that is created plainly. The toolkit's temporary files have
/// those of a secret.
bool setPlainPermissions(const QTemporaryFile &file)
{
    constexpr mode_t everybody = S_IRUSR | S_IWUSR | S_IRGRP | S_IWGRP | S_IROTH | S_IWOTH;
    return ::fchmod(file.handle(), everybody & ~newFileMask) == 0;
}

/// Writes a file under a temporary name and renames it, so that a run that is killed leaves no
/// part of it behind under its own name.
bool writeWhole(const QString &path, const QByteArray &data)
{
    QTemporaryFile file(path + QLatin1String(".XXXXXX"));
    if (!file.open() || file.write(data) != data.size() || !file.flush())
        return false;
    if (!setPlainPermissions(file))
        qWarning("%s is for its owner only: %s", qUtf8Printable(path), std::strerror(errno));
    QFile::remove(path); // at most an empty file, for anything else would have been used
    if (!file.rename(path))
        return false;
    file.setAutoRemove(false);
    return true;
}

} // namespace

CAdobeDownloadThread::CAdobeDownloadThread(const std::shared_ptr<ConnectionPool> &pool,
                                           QObject *parent,
                                           const std::shared_ptr<HdsSession> &session)
    : QThread(parent)
    , m_session(session)
    , m_pool(pool)
{
}

CAdobeDownloadThread::~CAdobeDownloadThread()
{
    if (!m_isDone)
        Cancel();
    wait();
}

void CAdobeDownloadThread::setFragNum(int fragNum)
{
    m_fragNum = fragNum;
}

void CAdobeDownloadThread::SetAfresh()
{
    m_isAfresh = true;
}

bool CAdobeDownloadThread::IsAfresh() const
{
    return m_isAfresh;
}

void CAdobeDownloadThread::SetBuffer(QByteArray buffer)
{
    m_buffer = std::move(buffer);
}

int CAdobeDownloadThread::GetFragNum() const
{
    return m_fragNum;
}

QByteArray CAdobeDownloadThread::GetFragUrlContent() const
{
    return m_isDone ? m_content : QByteArray();
}

bool CAdobeDownloadThread::IsComplete() const
{
    return m_isDone && m_isComplete;
}

bool CAdobeDownloadThread::IsCached() const
{
    return m_isDone && m_isCached;
}

void CAdobeDownloadThread::Cancel()
{
    m_stop.raise();
}

void CAdobeDownloadThread::run()
{
    DownloaderFragment();
}

void CAdobeDownloadThread::DownloaderFragment()
{
    m_content = GetFragContent();
    m_isDone = true;
}

QByteArray CAdobeDownloadThread::GetFragContent()
{
    if (m_stop.isRaised()) {
        emit CancleFragment(m_fragNum);
        return {};
    }
    const QString cacheFile = m_session->data.GetFragCacheFile(m_fragNum);
    QByteArray content = m_isAfresh ? QByteArray() : cachedContent(cacheFile);
    if (m_stop.isRaised()) {
        emit CancleFragment(m_fragNum);
        return {};
    }
    if (!content.isEmpty()) {
        m_isComplete = true;
        m_isCached = true;
        return content;
    }

    const CAdobeData &data = m_session->data;
    const int segment = data.GetSegmentFromFragment(m_fragNum).toInt();
    content = fetch(data.GetFragUrl(segment, m_fragNum));
    if (m_stop.isRaised()) {
        emit CancleFragment(m_fragNum);
        return {};
    }
    if (m_isComplete)
        m_isCached = writeWhole(cacheFile, content); // without a cache the next run fetches again
    return content;
}

/// Fetches until the fragment is complete, has come twice the same, or the attempts are used up.
/// What may have been cut off is better than nothing then, but not good enough to be kept for the
/// next run.
QByteArray CAdobeDownloadThread::fetch(const QString &url)
{
    QByteArray content;
    for (int attempt = 0; attempt < maxAttempts && !m_isComplete; ++attempt) {
        if (m_stop.isRaised())
            return {};
        CAdobeBrowser browser(m_stop, m_pool, nullptr, &m_session->options);
        browser.setMaxContentBytes(maxFragmentBytes);
        browser.setBuffer(std::exchange(m_buffer, QByteArray()));
        browser.get(url, true);
        if (!browser.success() || browser.rawContent().size() < content.size())
            continue;
        const bool isRepeated = !content.isEmpty() && browser.rawContent() == content;
        content = browser.rawContent();
        m_isComplete =
            !content.isEmpty() && (browser.isLengthKnown() || CAdobeOutputFile::IsWhole(content));
        if (isRepeated)
            break; // cut or not, there is no more to it
    }
    return content;
}
