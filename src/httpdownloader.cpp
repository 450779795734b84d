#include "httpdownloader.h"

#include "InterimAnswer.h"
#include "NetworkProxy.h"
#include "SizeProbe.h"
#include "StallWatch.h"
#include "TlsTrust.h"
#include "WebAddress.h"

#include <QNetworkReply>
#include <QNetworkRequest>
#include <QPointer>
#include <QRegularExpression>

#include <limits>
#include <memory>

namespace {

constexpr int maxRedirects = 10;
// A server that has gone silent for so long will not come back; the toolkit also misses some
// connections that end inside a chunk's header.
constexpr qint64 defaultSilenceMs = 60000;
constexpr int chunkBytes = 256 * 1024;
constexpr qint64 readBufferBytes = 4 * 1024 * 1024;
constexpr int maxContentBytes = 64 * 1024 * 1024; // documents kept in memory are small
constexpr qint64 partialBytes = 10240;

qint64 limitOfSilence(const RunOptions &options)
{
    const qint64 limitMs = options.netSettings().stallMs;
    return limitMs > 0 ? limitMs : defaultSilenceMs;
}

/// Ends the reply when it falls silent.
void watchForSilence(QNetworkReply *reply, qint64 limitMs)
{
    const auto *const watch = new StallWatch(reply, limitMs);
    QObject::connect(watch, &StallWatch::stalled, reply, &QNetworkReply::abort);
}

/// A request that fails at once when the address is not one of the web.
QNetworkRequest makeRequest(const QUrl &url)
{
    QNetworkRequest request(WebAddress::isWeb(url) ? url : QUrl());
    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute,
                         QNetworkRequest::NoLessSafeRedirectPolicy);
    request.setMaximumRedirectsAllowed(maxRedirects);
    return request;
}

int statusOf(const QNetworkReply &reply)
{
    return reply.attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
}

bool isRedirect(const QNetworkReply &reply)
{
    return statusOf(reply) >= 300 && statusOf(reply) < 400;
}

/// a + b for a position and a length that a server named, without overflow.
qint64 boundedSum(qint64 a, qint64 b)
{
    return b > std::numeric_limits<qint64>::max() - a ? std::numeric_limits<qint64>::max() : a + b;
}

/// What a "Content-Range" header says: positions of bytes, both inclusive, and the size of the
/// whole; -1 for what it does not say.
struct ContentRange
{
    qint64 first = -1;
    qint64 last = -1;
    qint64 size = -1;
};

ContentRange contentRangeOf(const QNetworkReply &reply)
{
    static const QRegularExpression pattern(
        QStringLiteral("^\\s*\\w+\\s+(\\d+)(?:-(\\d+))?(?:/(\\d+))?"));
    const auto match = pattern.match(QString::fromLatin1(reply.rawHeader("Content-Range")));
    const auto number = [&match](int group) {
        bool isNumber = false;
        const qint64 value = match.captured(group).toLongLong(&isNumber);
        return isNumber ? value : -1;
    };
    return {number(1), number(2), number(3)};
}

void installCookieJar(QNetworkAccessManager &manager, QNetworkCookieJar *cookieJar)
{
    QObject *const owner = cookieJar->parent();
    manager.setCookieJar(cookieJar);
    cookieJar->setParent(owner); // the manager took it over; it stays its owner's
}

} // namespace

HttpDownloader::HttpDownloader(QObject *parent)
    : QObject(parent)
{
    setProxy();
}

HttpDownloader::HttpDownloader(const RunOptions &options, QObject *parent)
    : QObject(parent)
    , m_options(options)
{
    setProxy();
}

RunOptions HttpDownloader::options() const
{
    return m_options ? *m_options : RunOptions::ofCommandLine();
}

qint64 HttpDownloader::silenceLimitMs()
{
    return limitOfSilence(RunOptions::ofCommandLine());
}

HttpDownloader::~HttpDownloader()
{
    releaseReply();
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
    releaseReply();
    m_content.clear();
    m_expectedLength = 0;
    m_receivedBytes = 0;
    m_hasWriteFailed = false;
    m_isOverwriting = false;
    m_current = options();
    m_redirectCount = 0;
    m_isCancelled = false;

    installCookieJar(m_manager, &m_cookieJar);
    if (isFileMode() && !openFile()) {
        emit downerror(m_rangeNo);
        return false;
    }
    send(QUrl(m_url));
    return true;
}

/// Asks for the described address, or for where it has redirected to.
void HttpDownloader::send(const QUrl &url)
{
    QNetworkRequest request = makeRequest(url);
    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute,
                         QNetworkRequest::ManualRedirectPolicy);
    if (isFileMode())
        setRange(request);

    m_unpacker.reset();
    TlsTrust::prepareFor(url);
    m_reply = m_manager.get(request);
    TlsTrust::reportRefusal(m_reply);
    NetworkProxy::limitUnread(*m_reply, m_manager, readBufferBytes);
    watchForSilence(m_reply, limitOfSilence(m_current));
    connect(m_reply, &QNetworkReply::finished, this, &HttpDownloader::httpFinished);
    connect(m_reply, &QNetworkReply::readyRead, this, &HttpDownloader::httpReadyRead);
    connect(m_reply, &QNetworkReply::metaDataChanged, this, &HttpDownloader::checkAnswer);
    if (isFileMode()) {
        connect(m_reply, &QNetworkReply::downloadProgress, this,
                &HttpDownloader::updateDataReadProgress);
    }
}

/// Asks for where the ended reply redirects to. Returns false when that is nowhere to go. The
/// toolkit does not do it here because it takes the cookies of the first host along to hosts that
/// have none of their own.
bool HttpDownloader::followRedirect()
{
    const QUrl target = WebAddress::redirectTarget(*m_reply);
    const bool isLessSafe = m_reply->url().scheme() == QLatin1String("https")
        && target.scheme() != QLatin1String("https");
    if (m_isCancelled || !WebAddress::isWeb(target) || isLessSafe
        || m_redirectCount >= maxRedirects)
        return false;
    ++m_redirectCount;
    m_content.clear();
    releaseReply();
    send(target);
    return true;
}

bool HttpDownloader::isFileMode() const
{
    return !m_filePath.isEmpty();
}

void HttpDownloader::setRange(QNetworkRequest &request) const
{
    QString range;
    if (m_rangeEnd > 0)
        range = QStringLiteral("bytes=%1-%2").arg(m_rangeStart).arg(m_rangeEnd - 1);
    else if (m_rangeStart > 0)
        range = QStringLiteral("bytes=%1-").arg(m_rangeStart);
    if (!range.isEmpty())
        request.setRawHeader("Range", range.toLatin1());
}

bool HttpDownloader::openFile()
{
    if (m_file.open(m_filePath, m_append ? OutputFile::Mode::Append : OutputFile::Mode::Replace))
        return true;
    qWarning("%s cannot be written: %s", qUtf8Printable(m_filePath),
             qUtf8Printable(m_file.errorString()));
    return false;
}

void HttpDownloader::releaseReply()
{
    if (!m_reply)
        return;
    m_reply->disconnect(this);
    m_reply->abort();
    m_reply->deleteLater();
    m_reply = nullptr;
}

bool HttpDownloader::hasUsableAnswer() const
{
    const int status = statusOf(*m_reply);
    return m_reply->error() == QNetworkReply::NoError
        && (status == 0 || (status >= 200 && status < 300)) && answersWantedRange();
}

bool HttpDownloader::answersWantedRange() const
{
    if (statusOf(*m_reply) != 206 || m_reply->rawHeader("Content-Range").trimmed().isEmpty())
        return true;
    return contentRangeOf(*m_reply).first == m_rangeStart;
}

/// Whether what arrived is all that was asked for, as far as the server says what it sends.
bool HttpDownloader::reachesRangeEnd() const
{
    if (statusOf(*m_reply) == 204)
        return m_rangeStart == 0; // there was more when the file was begun
    if (statusOf(*m_reply) != 206)
        return true;
    const ContentRange range = contentRangeOf(*m_reply);
    const bool isCut = range.last >= 0 && boundedSum(m_rangeStart, m_receivedBytes) <= range.last;
    const bool isShort = m_rangeEnd <= 0 && range.last >= 0 && range.last < range.size - 1;
    return !isCut && !isShort;
}

/// Judges the header of an answer before any byte of its body reaches the file.
void HttpDownloader::checkAnswer()
{
    if (!WebAddress::redirectTarget(*m_reply).isEmpty()) {
        endReplySoon(); // goes on in httpFinished()
        return;
    }
    if (!isFileMode())
        return;
    const int status = statusOf(*m_reply);
    if (status >= 400 || !answersWantedRange()) {
        endReplySoon();
        return;
    }
    const qint64 wholeSize = m_current.expectedBytes;
    const bool isWholeFile = status == 200 && wholeSize > 0 && declaredLength() == wholeSize;
    if (m_append && isWholeFile && m_file.isOpen() && m_file.size() > 0) {
        // The server ignored the range: appending would glue a second beginning to the first.
        // What is there is overwritten with the same bytes, so that none are lost to a cut.
        m_rangeStart = 0;
        m_isOverwriting = m_file.rewind();
        m_hasWriteFailed = !m_isOverwriting;
        if (m_hasWriteFailed)
            endReplySoon();
    }
}

/// Ends a reply whose body nobody wants, without waiting for the body. Queued: the toolkit may have
/// an error of its own under way, and a reply takes only one.
void HttpDownloader::endReplySoon()
{
    QMetaObject::invokeMethod(m_reply, &QNetworkReply::abort, Qt::QueuedConnection);
}

void HttpDownloader::httpReadyRead()
{
    if (!isFileMode()) {
        collectReadable();
    } else if (hasUsableAnswer()) {
        const QPointer<QNetworkReply> reply(m_reply);
        const QPointer<HttpDownloader> self(this);
        saveReadable();
        // The toolkit's own reports come at intervals, in which a fast server sends far too much.
        if (self && reply == m_reply && m_current.wantsBeginningOnly && !m_reply->isFinished())
            updateDataReadProgress(m_receivedBytes, declaredLength());
    } else if (m_reply->error() == QNetworkReply::NoError) {
        m_reply->readAll(); // not wanted; left alone it would stop the reply
    }
}

qint64 HttpDownloader::declaredLength() const
{
    const QVariant length = m_reply->header(QNetworkRequest::ContentLengthHeader);
    return length.isValid() ? length.toLongLong() : -1;
}

void HttpDownloader::collectReadable()
{
    const QByteArray arrived = m_reply->readAll();
    if (!takeBytes(arrived.constData(), arrived.size()))
        m_reply->abort();
}

/// Stores bytes of the body, unpacked if need be. Returns false when that cannot be.
bool HttpDownloader::takeBytes(const char *data, qint64 bytes)
{
    if (!m_unpacker && XGzip::isIn(*m_reply))
        m_unpacker = std::make_unique<XGzip>();
    if (!m_unpacker)
        return store(data, bytes);
    return m_unpacker->unpack(data, bytes, [this](const char *piece, qint64 pieceBytes) {
        return store(piece, pieceBytes);
    });
}

bool HttpDownloader::store(const char *data, qint64 bytes)
{
    if (isFileMode())
        return m_file.write(data, bytes);
    const qint64 room = maxContentBytes - m_content.size();
    m_content.append(data, static_cast<int>(qMin(bytes, room)));
    return bytes <= room;
}

void HttpDownloader::saveReadable()
{
    if (!m_file.isOpen() || m_hasWriteFailed)
        return;
    m_chunk.resize(chunkBytes);
    for (;;) {
        const qint64 count = m_reply->read(m_chunk.data(), m_chunk.size());
        if (count <= 0)
            return;
        m_receivedBytes += count;
        if (!takeBytes(m_chunk.constData(), count)) {
            m_hasWriteFailed = true;
            m_reply->abort(); // ends in httpFinished()
            return;
        }
    }
}

void HttpDownloader::updateDataReadProgress(qint64 bytesReceived, qint64 bytesTotal)
{
    if (bytesTotal == 0 || isRedirect(*m_reply))
        return;
    if (m_expectedLength == 0 && !XGzip::isIn(*m_reply)) // that is the packed length
        m_expectedLength = bytesTotal;

    const qint64 received = boundedSum(m_rangeStart, bytesReceived);
    const QPointer<QNetworkReply> reply(m_reply);
    const QPointer<HttpDownloader> self(this);
    emit sendProgress(m_rangeNo, received, boundedSum(m_rangeStart, bytesTotal));
    if (self && reply == m_reply && received > partialBytes && m_current.wantsBeginningOnly)
        cancel();
}

void HttpDownloader::httpFinished()
{
    m_reply->disconnect(this); // nothing is reported after the end
    InterimAnswer::report(*m_reply);
    if (InterimAnswer::isIn(*m_reply))
        m_manager.clearConnectionCache(); // the answer itself is still to come on this one
    if (followRedirect())
        return;
    if (isFileMode()) {
        finishFile();
        return;
    }
    if (m_reply->isOpen()) // not after an abort
        collectReadable();
    emit downFinished(m_rangeNo);
}

void HttpDownloader::finishFile()
{
    if (!m_file.isOpen()) {
        emit downerror(m_rangeNo);
        return;
    }
    const bool isUsable = hasUsableAnswer();
    if (isUsable)
        saveReadable();
    const qint64 fileSize = m_isOverwriting ? m_file.pos() : m_file.size();
    // The toolkit misses a cut that arrives together with the last bytes before it.
    const bool isWhole = m_receivedBytes >= declaredLength() && fileSize >= m_expectedLength
        && reachesRangeEnd() && (!m_unpacker || m_unpacker->isWhole());
    bool isSaved = isUsable && !m_hasWriteFailed && isWhole;
    if (isSaved && m_isOverwriting)
        isSaved = m_file.resize(fileSize);
    m_file.close();
    // Somebody may have removed or replaced the file while it was being written.
    if (isSaved && OutputFile::isInPlace(m_filePath, fileSize))
        emit downFinished(m_rangeNo);
    else
        emit downerror(m_rangeNo);
}

void HttpDownloader::cancel()
{
    if (!m_reply)
        return;
    m_isCancelled = true;
    // Each step below may end in a receiver's slot, which may delete this or begin another
    // transfer.
    const QPointer<QNetworkReply> reply(m_reply);
    const QPointer<HttpDownloader> self(this);
    if (isFileMode() && hasUsableAnswer())
        saveReadable(); // now, since the abort ends in httpFinished(), which closes the file
    if (self && reply == m_reply) {
        disconnect(m_reply, &QNetworkReply::downloadProgress, this, nullptr); // of the abort itself
        reply->abort();
    }
}

QByteArray HttpDownloader::RawContent() const
{
    return m_content;
}

void HttpDownloader::setCookieJar(QNetworkCookieJar *cookieJar)
{
    installCookieJar(m_manager, cookieJar);
}

void HttpDownloader::setProxy()
{
    const QNetworkProxy proxy = options().netSettings().proxy;
    if (proxy.type() != QNetworkProxy::DefaultProxy)
        m_manager.setProxy(proxy);
}

qint64 HttpDownloader::GetFileSize(QUrl url)
{
    return SizeProbe({m_manager.proxy(), options().netSettings().stallMs}).sizeOf(url);
}
