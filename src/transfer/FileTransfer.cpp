#include "FileTransfer.h"

#include "ContentRange.h"
#include "HostEvents.h"
#include "HttpDate.h"
#include "RunTimes.h"
#include "WebAddress.h"

#include <QFileInfo>
#include <QPointer>

#include <algorithm>

using std::chrono::milliseconds;

namespace {

constexpr qint64 defaultSilenceMs = 60000;
constexpr qint64 readBufferBytes = 4 * 1024 * 1024;
constexpr qint64 partialBytes = 10240;
constexpr milliseconds longestPause = std::chrono::minutes(1);
constexpr milliseconds longestAskedPause = std::chrono::minutes(2); // whatever a server asks for

// So many bytes that are there already are asked for once more: a server that says it sends the
// rest and sends something else is found out by them.
constexpr qint64 overlapBytes = 16 * 1024;

/// Whether the server may give later what it does not give now.
bool isPassing(int status)
{
    constexpr int passing[] = {408, 425, 429, 500, 502, 503, 504};
    return std::find(std::begin(passing), std::end(passing), status) != std::end(passing);
}

} // namespace

bool FileTransfer::isFor(const QString &path, const RunOptions &options)
{
    const QFileInfo target(path);
    const bool isPlain = !target.isSymLink() && (!target.exists() || target.isFile());
    return isPlain && (options.continues || options.retries > 0);
}

FileTransfer::FileTransfer(const QString &url, const QString &path, qint64 totalBytes,
                           const RunOptions &options)
    : m_url(url)
    , m_path(path)
    , m_totalBytes(totalBytes)
    , m_options(options)
    , m_part(path, options.continues)
{
    NetSettings settings = options.netSettings();
    if (settings.stallMs <= 0)
        settings.stallMs = defaultSilenceMs;
    m_client.setSettings(settings);
    m_pause.setSingleShot(true);
    connect(&m_pause, &QTimer::timeout, this, [this] { ask(true); });
    connect(&m_client, &HttpClient::answered, this, &FileTransfer::judgeAnswer);
    connect(&m_client, &HttpClient::readable, this, &FileTransfer::readBody);
    connect(&m_client, &HttpClient::progressed, this, &FileTransfer::tellProgress);
    connect(&m_client, &HttpClient::ended, this, &FileTransfer::onEnded);
}

void FileTransfer::start()
{
    if (m_isStarted)
        return;
    m_isStarted = true;
    if (m_isCanceled)
        return end(Outcome::Canceled, RunClass::Stopped);
    if (!WebAddress::isWeb(QUrl(m_url)))
        return end(Outcome::Failed, RunClass::Unsupported);
    if (!m_part.open())
        return end(Outcome::Failed, m_part.isTaken() ? RunClass::Busy : RunClass::Disk);
    const bool goesOn = m_options.continues && m_options.resumes && m_part.takeUp()
        && m_part.origin().address == WebAddress::withoutCredentials(m_url);
    HostEvents::send(event::Progress{goesOn ? m_part.bytes() : 0, m_totalBytes});
    if (!goesOn && !m_part.begin(FileOrigin()))
        return end(Outcome::Failed, RunClass::Disk);
    ask(goesOn);
}

void FileTransfer::cancel()
{
    m_isCanceled = true;
    if (!m_isStarted || m_isEnded)
        return;
    m_pause.stop();
    m_client.drop();
    m_part.noteInJournal();
    end(Outcome::Canceled, RunClass::Stopped);
}

TransferReport FileTransfer::report(Outcome) const
{
    TransferReport report;
    report.runClass = m_class;
    if (m_class == RunClass::Complete)
        report.sha256 = m_part.sum();
    else if (m_part.bytes() > 0 && QFileInfo::exists(m_part.path()))
        report.path = m_part.path();
    return report;
}

/// @param isRest only what is missing, if that can be told from the rest of something else
void FileTransfer::ask(bool isRest)
{
    m_body = Body::Unwanted;
    m_restRefusal.clear();
    m_overlap.clear();
    HttpClient::Request request;
    request.url = QUrl(m_url);
    request.cookies = &m_cookieJar;
    request.maxUnreadBytes = readBufferBytes;
    request.headers = {{"Accept-Encoding", "identity"}}; // ranges are those of what is written
    if (isRest && m_part.origin().isProvable() && m_part.bytes() > overlapBytes) {
        m_overlap = m_part.last(overlapBytes);
        request.rangeStart = m_part.bytes() - overlapBytes;
        request.headers.append({"If-Range", m_part.origin().condition()});
    }
    m_restFrom = request.rangeStart;
    m_client.start(request);
}

/// The answer does not bring the rest: the whole is asked for.
void FileTransfer::askAgain()
{
    if (m_isEnded)
        return;
    tellBegunAgain(m_restRefusal);
    if (m_part.begin(FileOrigin()))
        ask(false);
    else
        end(Outcome::Failed, RunClass::Disk);
}

void FileTransfer::tellBegunAgain(const QString &reason)
{
    qWarning("%s is begun again: %s", qUtf8Printable(m_path), qUtf8Printable(reason));
    HostEvents::send(event::DownloadBegunAgain{reason});
}

/// Judges the header of an answer before any byte of its body is taken.
void FileTransfer::judgeAnswer()
{
    const int status = m_client.status();
    if (m_restFrom > 0 && status == 206) {
        if (m_part.origin().agreesWith(m_client, m_restFrom)) {
            m_body = Body::Compared;
            HostEvents::send(event::DownloadResumed{m_part.bytes()});
        } else {
            m_restRefusal =
                QStringLiteral("the server's answer does not prove that it is the rest");
        }
    } else if (m_restFrom > 0 && status == 416) {
        m_restRefusal = QStringLiteral("the server has no such range");
    } else if (status == 200
               || (status == 206
                   && ContentRange::of(m_client.header("Content-Range")).first == 0)) {
        beginBody();
    }
    if (m_body == Body::Unwanted)
        m_client.abortSoon(); // goes on in onEnded()
}

/// The answer brings the file from its first byte on.
void FileTransfer::beginBody()
{
    if (m_restFrom > 0)
        tellBegunAgain(QStringLiteral("the server sends all of it, as it is now"));
    m_overlap.clear();
    m_hasWriteFailed = !m_part.begin(FileOrigin::of(m_client, m_url));
    if (!m_hasWriteFailed)
        m_body = Body::Written;
}

void FileTransfer::readBody()
{
    if (m_body == Body::Unwanted) {
        m_client.skip();
        return;
    }
    const auto taker = [this](const char *data, qint64 bytes) { return take(data, bytes); };
    if (!m_client.readTo(taker))
        m_client.abort(); // ends in onEnded()
}

bool FileTransfer::take(const char *data, qint64 bytes)
{
    qint64 known = 0;
    if (m_body == Body::Compared) {
        known = compare(data, bytes);
        if (known < 0)
            return false;
    }
    const qint64 length = m_part.origin().length;
    if (length >= 0 && !m_client.isPacked() && bytes - known > length - m_part.bytes()) {
        m_body = Body::Unwanted; // more than the whole
        return false;
    }
    m_hasWriteFailed = bytes > known && !m_part.write(data + known, bytes - known);
    return !m_hasWriteFailed;
}

/// How many of the bytes are there already; -1 when they are others.
qint64 FileTransfer::compare(const char *data, qint64 bytes)
{
    const auto known = static_cast<int>(qMin<qint64>(bytes, m_overlap.size()));
    if (!m_overlap.startsWith(QByteArray::fromRawData(data, known))) {
        m_body = Body::Unwanted;
        m_restRefusal = QStringLiteral("what the server sends as the rest does not join");
        return -1;
    }
    m_overlap.remove(0, known);
    return known;
}

void FileTransfer::tellProgress()
{
    if (m_body == Body::Unwanted || m_isEnded)
        return;
    const qint64 done = m_part.bytes();
    const qint64 length = m_part.origin().length;
    HostEvents::send(event::Progress{done, length});
    const QPointer<FileTransfer> self(this);
    emit progressed(done, qMax<qint64>(0, length));
    if (self && m_options.wantsBeginningOnly && done > partialBytes)
        m_client.abort();
}

void FileTransfer::onEnded()
{
    if (m_body != Body::Unwanted)
        readBody();
    if (m_isEnded)
        return;
    m_part.noteInJournal();
    if (!m_restRefusal.isEmpty()) {
        // Not from inside what the toolkit tells of the request before.
        QMetaObject::invokeMethod(this, &FileTransfer::askAgain, Qt::QueuedConnection);
        return;
    }
    if (isWhole())
        return conclude();
    const RunClass cause = failure();
    if (mayRetry(cause))
        retry(cause);
    else
        end(Outcome::Failed, cause);
}

bool FileTransfer::isWhole() const
{
    if (m_body == Body::Unwanted || m_hasWriteFailed || !m_overlap.isEmpty())
        return false;
    const qint64 length = m_part.origin().length;
    if (length >= 0)
        return m_part.bytes() == length;
    // Without a length a cut may look like an end: then what the page has told counts.
    return m_client.error() == QNetworkReply::NoError && m_client.isBodyWhole()
        && m_part.bytes() >= m_totalBytes;
}

RunClass FileTransfer::failure() const
{
    if (m_hasWriteFailed)
        return RunClass::Disk;
    if (m_options.wantsBeginningOnly && m_part.bytes() > partialBytes)
        return RunClass::Stopped;
    const int status = m_client.status();
    if (status >= 300)
        return RunClass::Refused;
    return status >= 200 && m_body == Body::Unwanted ? RunClass::Incomplete : RunClass::BrokenOff;
}

bool FileTransfer::mayRetry(RunClass failure) const
{
    return m_attempts < m_options.retries
        && (failure == RunClass::BrokenOff
            || (failure == RunClass::Refused && isPassing(m_client.status())));
}

void FileTransfer::retry(RunClass cause)
{
    constexpr int maxDoublings = 6;
    milliseconds pause = runTimes().retryPause * (1 << qMin(m_attempts, maxDoublings));
    pause = qMin(pause, longestPause);
    const auto asked =
        HttpDate::pauseOf(m_client.header("Retry-After"), QDateTime::currentDateTimeUtc());
    if (asked)
        pause = qMax(pause, qMin<milliseconds>(*asked, longestAskedPause));
    ++m_attempts;
    HostEvents::send(event::DownloadRetried{m_attempts, m_options.retries, pause.count(), cause});
    m_pause.start(pause);
}

/// All of it has come.
void FileTransfer::conclude()
{
    const qint64 bytes = m_part.bytes();
    if (!m_part.finish()) {
        qWarning("%s cannot be given its name", qUtf8Printable(m_path));
        end(Outcome::Failed, m_part.isTaken() ? RunClass::Busy : RunClass::Disk);
        return;
    }
    // A server that has announced more to the page gives something else now.
    end(Outcome::Succeeded, bytes < m_totalBytes ? RunClass::Incomplete : RunClass::Complete);
}

void FileTransfer::end(Outcome outcome, RunClass runClass)
{
    if (m_isEnded)
        return;
    m_isEnded = true;
    m_class = runClass;
    emit ended(outcome);
}
