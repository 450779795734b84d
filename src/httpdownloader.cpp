#include "httpdownloader.h"

#include "ContentRange.h"
#include "SizeProbe.h"

#include <QPointer>

#include <limits>

namespace {

// A server that has gone silent for so long will not come back; the toolkit also misses some
// connections that end inside a chunk's header.
constexpr qint64 defaultSilenceMs = 60000;
constexpr qint64 readBufferBytes = 4 * 1024 * 1024;
constexpr int maxContentBytes = 64 * 1024 * 1024; // documents kept in memory are small
constexpr qint64 partialBytes = 10240;

qint64 limitOfSilence(const RunOptions &options)
{
    const qint64 limitMs = options.netSettings().stallMs;
    return limitMs > 0 ? limitMs : defaultSilenceMs;
}

/// a + b for a position and a length that a server named, without overflow.
qint64 boundedSum(qint64 a, qint64 b)
{
    return b > std::numeric_limits<qint64>::max() - a ? std::numeric_limits<qint64>::max() : a + b;
}

} // namespace

HttpDownloader::HttpDownloader(QObject *parent)
    : HttpDownloader(std::nullopt, parent)
{
}

HttpDownloader::HttpDownloader(const RunOptions &options, QObject *parent)
    : HttpDownloader(std::make_optional(options), parent)
{
}

HttpDownloader::HttpDownloader(const std::optional<RunOptions> &options, QObject *parent)
    : QObject(parent)
    , m_options(options)
{
    setProxy();
    connect(&m_client, &HttpClient::answered, this, &HttpDownloader::checkAnswer);
    connect(&m_client, &HttpClient::readable, this, &HttpDownloader::httpReadyRead);
    connect(&m_client, &HttpClient::progressed, this, &HttpDownloader::updateDataReadProgress);
    connect(&m_client, &HttpClient::redirected, this, [this] { m_content.clear(); });
    connect(&m_client, &HttpClient::ended, this, &HttpDownloader::httpFinished);
}

HttpDownloader::~HttpDownloader() = default;

RunOptions HttpDownloader::options() const
{
    return m_options ? *m_options : RunOptions::ofCommandLine();
}

qint64 HttpDownloader::silenceLimitMs()
{
    return limitOfSilence(RunOptions::ofCommandLine());
}

void HttpDownloader::setDownloadInfo(const QString &filePath, const QString &url, qint64 start,
                                     qint64 end, int rangeNo, bool append)
{
    m_filePath = filePath;
    m_url = url;
    m_rangeStart = start;
    m_rangeEnd = end;
    m_rangeNo = rangeNo;
    m_append = append;
}

bool HttpDownloader::download()
{
    m_client.drop();
    ++m_transferNo;
    m_content.clear();
    m_expectedLength = 0;
    m_hasWriteFailed = false;
    m_isOverwriting = false;
    m_isCancelled = false;
    m_current = options();
    m_report = {};
    m_hash.reset();

    if (isFileMode() && !openFile()) {
        m_report.runClass = m_file.isTaken() ? RunClass::Busy : RunClass::Disk;
        emit downerror(m_rangeNo);
        return false;
    }
    ask();
    return true;
}

void HttpDownloader::ask()
{
    NetSettings settings = m_client.settings();
    settings.stallMs = limitOfSilence(m_current);
    settings.pageHeaders = options().pageHeaders;
    m_client.setSettings(settings);

    HttpClient::Request request;
    request.url = QUrl(m_url);
    request.cookies = &m_cookieJar;
    request.maxUnreadBytes = readBufferBytes;
    if (isFileMode()) {
        request.rangeStart = m_rangeStart;
        request.rangeEnd = m_rangeEnd;
    }
    m_client.start(request);
}

bool HttpDownloader::isFileMode() const
{
    return !m_filePath.isEmpty();
}

bool HttpDownloader::openFile()
{
    if (m_file.open(m_filePath, m_append ? OutputFile::Mode::Append : OutputFile::Mode::Replace)) {
        m_sizeBefore = m_file.size();
        return true;
    }
    qWarning("%s cannot be written: %s", qUtf8Printable(m_filePath),
             qUtf8Printable(m_file.errorString()));
    return false;
}

bool HttpDownloader::hasUsableAnswer() const
{
    const int status = m_client.status();
    return m_client.error() == QNetworkReply::NoError
        && (status == 0 || (status >= 200 && status < 300)) && answersWantedRange();
}

bool HttpDownloader::answersWantedRange() const
{
    if (m_client.status() != 206 || m_client.header("Content-Range").trimmed().isEmpty())
        return true;
    return ContentRange::of(m_client.header("Content-Range")).first == m_rangeStart;
}

/// Whether what arrived is all that was asked for, as far as the server says what it sends.
bool HttpDownloader::reachesRangeEnd() const
{
    if (m_client.status() == 204)
        return m_rangeStart == 0; // there was more when the file was begun
    if (m_client.status() != 206)
        return true;
    const ContentRange range = ContentRange::of(m_client.header("Content-Range"));
    const bool isCut =
        range.last >= 0 && boundedSum(m_rangeStart, m_client.receivedBytes()) <= range.last;
    const bool isShort = m_rangeEnd <= 0 && range.last >= 0 && range.last < range.size - 1;
    return !isCut && !isShort;
}

/// Judges the header of an answer before any byte of its body reaches the file.
void HttpDownloader::checkAnswer()
{
    if (!isFileMode())
        return;
    const int status = m_client.status();
    if (status >= 400 || !answersWantedRange()) {
        m_client.abortSoon();
        return;
    }
    const qint64 wholeSize = m_current.expectedBytes;
    const bool isWholeFile =
        status == 200 && wholeSize > 0 && m_client.declaredLength() == wholeSize;
    if (m_append && isWholeFile && m_file.isOpen() && m_file.size() > 0) {
        // The server ignored the range: appending would glue a second beginning to the first.
        // What is there is overwritten with the same bytes, so that none are lost to a cut.
        m_rangeStart = 0;
        m_isOverwriting = m_file.rewind();
        m_hasWriteFailed = !m_isOverwriting;
        if (m_hasWriteFailed)
            m_client.abortSoon();
    }
}

void HttpDownloader::httpReadyRead()
{
    if (!isFileMode()) {
        collectReadable();
    } else if (hasUsableAnswer()) {
        const int transferNo = m_transferNo;
        const QPointer<HttpDownloader> self(this);
        saveReadable();
        // The toolkit's own reports come at intervals, in which a fast server sends far too much.
        if (self && transferNo == m_transferNo && m_current.wantsBeginningOnly
            && m_client.isRunning())
            updateDataReadProgress(m_client.receivedBytes(), m_client.declaredLength());
    } else if (m_client.error() == QNetworkReply::NoError) {
        m_client.skip(); // not wanted
    }
}

void HttpDownloader::collectReadable()
{
    if (!m_client.readInto(m_content, maxContentBytes))
        m_client.abort();
}

void HttpDownloader::saveReadable()
{
    if (!m_file.isOpen() || m_hasWriteFailed)
        return;
    const auto write = [this](const char *data, qint64 bytes) {
        if (m_current.tellsEvents)
            m_hash.add(data, bytes);
        return m_file.write(data, bytes);
    };
    if (!m_client.readTo(write)) {
        m_hasWriteFailed = true;
        m_client.abort(); // ends in httpFinished()
    }
}

void HttpDownloader::updateDataReadProgress(qint64 bytesReceived, qint64 bytesTotal)
{
    const bool isRedirect = m_client.status() >= 300 && m_client.status() < 400;
    if (!isFileMode() || m_isCancelled || bytesTotal == 0 || isRedirect)
        return;
    if (m_expectedLength == 0 && !m_client.isPacked()) // that is the packed length
        m_expectedLength = bytesTotal;

    const qint64 received = boundedSum(m_rangeStart, bytesReceived);
    const int transferNo = m_transferNo;
    const QPointer<HttpDownloader> self(this);
    emit sendProgress(m_rangeNo, received, boundedSum(m_rangeStart, bytesTotal));
    if (self && transferNo == m_transferNo && received > partialBytes
        && m_current.wantsBeginningOnly)
        cancel();
}

void HttpDownloader::httpFinished()
{
    if (isFileMode()) {
        finishFile();
        return;
    }
    collectReadable();
    emit downFinished(m_rangeNo);
}

void HttpDownloader::finishFile()
{
    if (!m_file.isOpen()) {
        m_report.runClass = RunClass::Disk;
        emit downerror(m_rangeNo);
        return;
    }
    const bool isUsable = hasUsableAnswer();
    if (isUsable)
        saveReadable();
    const qint64 fileSize = m_isOverwriting ? m_file.pos() : m_file.size();
    const bool isWhole =
        m_client.isBodyWhole() && fileSize >= m_expectedLength && reachesRangeEnd();
    bool isSaved = isUsable && !m_hasWriteFailed && isWhole;
    if (isSaved && m_isOverwriting)
        isSaved = m_file.resize(fileSize);
    m_file.close();
    // Somebody may have removed or replaced the file while it was being written.
    const bool isInPlace = isSaved && OutputFile::isInPlace(m_filePath, fileSize);
    m_report.runClass = isSaved && !isInPlace ? RunClass::Disk : judge(isSaved, fileSize);
    if (m_report.runClass == RunClass::Complete && m_hash.bytes() == fileSize)
        m_report.sha256 = m_hash.sum();
    if (isInPlace)
        emit downFinished(m_rangeNo);
    else
        emit downerror(m_rangeNo);
}

RunClass HttpDownloader::judge(bool isSaved, qint64 fileSize) const
{
    // Without a range what is there already is the beginning of something else.
    const bool isGlued = m_rangeStart == 0 && m_sizeBefore > 0 && !m_isOverwriting;
    const bool isShortOfAll = m_current.expectedBytes > 0 && fileSize != m_current.expectedBytes;
    if (isSaved)
        return isGlued || isShortOfAll ? RunClass::Incomplete : RunClass::Complete;
    if (m_hasWriteFailed)
        return RunClass::Disk;
    if (m_isCancelled)
        return RunClass::Stopped;
    if (m_client.status() >= 300 || !answersWantedRange())
        return RunClass::Refused;
    const bool isCut = m_client.receivedBytes() < m_client.declaredLength();
    return isCut || m_client.error() != QNetworkReply::NoError ? RunClass::BrokenOff
                                                               : RunClass::Incomplete;
}

void HttpDownloader::cancel()
{
    if (!m_client.isRunning())
        return;
    m_isCancelled = true;
    // Each step below may end in a receiver's slot, which may delete this or begin another
    // transfer.
    const int transferNo = m_transferNo;
    const QPointer<HttpDownloader> self(this);
    if (isFileMode() && hasUsableAnswer())
        saveReadable(); // now, since the abort ends in httpFinished(), which closes the file
    if (self && transferNo == m_transferNo)
        m_client.abort();
}

QByteArray HttpDownloader::RawContent() const
{
    return m_content;
}

void HttpDownloader::setCookieJar(QNetworkCookieJar *cookieJar)
{
    m_client.setCookies(cookieJar);
}

void HttpDownloader::setProxy()
{
    NetSettings settings = m_client.settings();
    const QNetworkProxy proxy = options().netSettings().proxy;
    if (proxy.type() != QNetworkProxy::DefaultProxy)
        settings.proxy = proxy;
    m_client.setSettings(settings);
}

qint64 HttpDownloader::GetFileSize(QUrl url)
{
    NetSettings settings = options().netSettings();
    settings.proxy = m_client.settings().proxy;
    return SizeProbe(settings).sizeOf(url);
}
