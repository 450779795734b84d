#include "FileTransfer.h"

#include "ContentRange.h"
#include "HostEvents.h"
#include "RetryPause.h"
#include "WebAddress.h"

#include <QFileInfo>
#include <QPointer>

namespace {

constexpr qint64 defaultSilenceMs = 60000;
constexpr qint64 readBufferBytes = 4 * 1024 * 1024;
constexpr qint64 partialBytes = 10240;
constexpr qint64 firstPieceBytes = 4 * 1024 * 1024; // what is smaller needs no second connection
constexpr qint64 joinedAtOnce = 4 * 1024 * 1024; // a few milliseconds' work
constexpr qint64 progressIntervalMs = 100; // of what many connections tell
constexpr qint64 overlapBytes = PartFile::leadBytes; // is asked for once more, to be compared

} // namespace

bool FileTransfer::isFor(const QString &path, const RunOptions &options)
{
    const QFileInfo target(path);
    const bool isPlain = !target.isSymLink() && (!target.exists() || target.isFile());
    return isPlain && (options.continues || options.retries > 0 || options.fileConnections > 1);
}

FileTransfer::FileTransfer(const QString &url, const QString &path, qint64 totalBytes,
                           const RunOptions &options)
    : m_url(url)
    , m_path(path)
    , m_totalBytes(totalBytes)
    , m_options(options)
    , m_part(path, options.continues)
    , m_isAlone(options.fileConnections <= 1 || options.wantsBeginningOnly)
{
    NetSettings settings = options.netSettings();
    if (settings.stallMs <= 0)
        settings.stallMs = defaultSilenceMs;
    m_client.setSettings(settings);
    m_pause.setSingleShot(true);
    connect(&m_pause, &QTimer::timeout, this, [this] { ask(true); });
    m_joining.setSingleShot(true);
    connect(&m_joining, &QTimer::timeout, this, &FileTransfer::joinSome);
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
    HostEvents::send(event::Progress{goesOn ? m_part.gatheredBytes() : 0, m_totalBytes});
    if (!goesOn && !m_part.begin(FileOrigin()))
        return end(Outcome::Failed, RunClass::Disk);
    ask(goesOn);
}

void FileTransfer::cancel()
{
    m_isCanceled = true;
    if (!m_isStarted || m_isEnded)
        return;
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
    else if (m_part.gatheredBytes() > 0 && QFileInfo::exists(m_part.path()))
        report.path = m_part.path();
    return report;
}

/// @param isRest only what is missing, if that can be told from the rest of something else
void FileTransfer::ask(bool isRest)
{
    m_body = Body::Unwanted;
    m_restRefusal.clear();
    m_overlap.clear();
    m_asksPlainly = false;
    HttpClient::Request request;
    request.url = QUrl(m_url);
    request.cookies = &m_cookieJar;
    request.maxUnreadBytes = readBufferBytes;
    request.headers = {{"Accept-Encoding", "identity"}}; // ranges are those of what is written
    if (isRest && m_part.origin().isProvable() && m_part.bytes() > overlapBytes) {
        m_overlap = m_part.last(overlapBytes);
        request.rangeStart = m_part.bytes() - overlapBytes;
        request.headers.append({"If-Range", m_part.origin().condition()});
        request.rangeEnd = qMax<qint64>(0, m_part.firstAhead());
    }
    if (!m_isAlone) {
        const qint64 end = (request.rangeStart > 0 ? m_part.bytes() : 0) + firstPieceBytes;
        request.rangeEnd = request.rangeEnd > 0 ? qMin(request.rangeEnd, end) : end;
    }
    m_restFrom = request.rangeStart;
    m_askedEnd = request.rangeEnd;
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

/// The server does not give a piece as it should: the same is asked for as by anybody else.
void FileTransfer::askPlainly()
{
    m_isAlone = true;
    if (!m_isEnded)
        ask(false);
}

/// What is missing cannot be had over several connections.
void FileTransfer::askAlone()
{
    m_isAlone = true;
    m_pieces.reset();
    if (!m_isEnded)
        ask(true);
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
        const qint64 last = ContentRange::of(m_client.header("Content-Range")).last;
        const bool hasEnd = m_askedEnd == 0 || last < m_askedEnd; // what follows may be there
        if (hasEnd && m_part.origin().agreesWith(m_client, m_restFrom)) {
            m_body = Body::Compared;
            HostEvents::send(event::DownloadResumed{m_part.gatheredBytes()});
            startPieces();
        } else {
            m_restRefusal =
                QStringLiteral("the server's answer does not prove that it is the rest");
        }
    } else if (m_restFrom > 0 && status == 416) {
        m_restRefusal = QStringLiteral("the server has no such range");
    } else if (m_restFrom == 0 && m_askedEnd > 0 && status != 200) {
        judgePiece();
    } else if (status == 200
               || (status == 206
                   && ContentRange::of(m_client.header("Content-Range")).first == 0)) {
        beginBody();
    }
    if (m_body == Body::Unwanted)
        m_client.abortSoon(); // goes on in onEnded()
}

/// Judges an answer to the request for the first piece.
void FileTransfer::judgePiece()
{
    const int status = m_client.status();
    const ContentRange range = ContentRange::of(m_client.header("Content-Range"));
    const FileOrigin origin = FileOrigin::of(m_client, m_url);
    const qint64 end = range.last + 1;
    const bool isWhole = end == origin.length;
    const bool isPiece = end > overlapBytes && end < origin.length && origin.isProvable();
    if (status == 206 && range.first == 0 && end > 0 && end <= m_askedEnd && !m_client.isPacked()
        && (isWhole || isPiece)) {
        beginBody();
        startPieces();
    } else {
        m_asksPlainly = status == 206 || (status >= 400 && !RetryPause::isPassing(status));
    }
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
    m_bodyEnd = m_part.origin().length;
    if (m_client.status() == 200)
        m_askedEnd = 0; // the server takes no notice of it
}

/// Has others bring what the answer, which has been judged, does not.
void FileTransfer::startPieces()
{
    const qint64 length = m_part.origin().length;
    const qint64 last = ContentRange::of(m_client.header("Content-Range")).last;
    m_bodyEnd = m_askedEnd > 0 && last >= 0 ? qMin(last + 1, length) : length;
    if (m_isAlone || m_body == Body::Unwanted || m_bodyEnd >= length)
        return;
    const PieceFetcher::Wish wish{m_url, m_options.fileConnections, m_options.retries,
                                  m_client.settings()};
    m_pieces = std::make_unique<PieceFetcher>(wish, m_part, m_cookieJar, m_bodyEnd);
    connect(m_pieces.get(), &PieceFetcher::arrived, this, &FileTransfer::onPiecesArrived);
    connect(m_pieces.get(), &PieceFetcher::ended, this, [this] {
        if (m_pieces->hasWriteFailed())
            m_client.drop();
        if (!m_client.isRunning())
            settle();
    });
    m_pieces->start();
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
    if (m_bodyEnd >= 0 && !m_client.isPacked() && bytes - known > m_bodyEnd - m_part.bytes()) {
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
    const qint64 done = m_part.gatheredBytes();
    const qint64 length = m_part.origin().length;
    m_sinceProgress.start();
    HostEvents::send(event::Progress{done, length});
    const QPointer<FileTransfer> self(this);
    emit progressed(done, qMax<qint64>(0, length));
    if (self && m_options.wantsBeginningOnly && done > partialBytes)
        m_client.abort();
}

void FileTransfer::onPiecesArrived()
{
    if (m_part.canJoin() && !m_joining.isActive())
        m_joining.start(0);
    if (!m_sinceProgress.isValid() || m_sinceProgress.hasExpired(progressIntervalMs))
        tellProgress();
}

void FileTransfer::onEnded()
{
    if (m_body != Body::Unwanted)
        readBody();
    if (m_isEnded)
        return;
    m_part.noteInJournal();
    // Not from inside what the toolkit tells of the request before.
    if (!m_restRefusal.isEmpty()) {
        m_pieces.reset();
        QMetaObject::invokeMethod(this, &FileTransfer::askAgain, Qt::QueuedConnection);
    } else if (m_asksPlainly) {
        QMetaObject::invokeMethod(this, &FileTransfer::askPlainly, Qt::QueuedConnection);
    } else if (m_pieces && m_pieces->isRunning() && !m_hasWriteFailed) {
        m_overlap.clear(); // whoever brings it compares what is before it
        m_pieces->takeOver({m_part.bytes(), m_bodyEnd});
    } else {
        settle();
    }
}

/// Takes up what others have brought, a little at a time.
void FileTransfer::joinSome()
{
    switch (m_part.join(joinedAtOnce)) {
    case PartFile::Joined::Some:
        return m_joining.start(0);
    case PartFile::Joined::All:
        if (m_awaitsJoin)
            settle();
        return;
    case PartFile::Joined::Foreign:
        m_client.drop();
        m_pieces.reset();
        m_isAlone = true;
        m_restRefusal = QStringLiteral("the pieces that the server has sent do not join");
        return askAgain();
    case PartFile::Joined::Unreadable:
        return end(Outcome::Failed, RunClass::Disk);
    }
}

/// Nothing is under way any more.
void FileTransfer::settle()
{
    m_hasWriteFailed = m_hasWriteFailed || (m_pieces && m_pieces->hasWriteFailed());
    m_awaitsJoin = m_part.canJoin() && !m_hasWriteFailed;
    if (m_awaitsJoin) {
        m_joining.start(0); // comes back here
        return;
    }
    if (isWhole())
        return conclude();
    const bool isPieceThere = m_askedEnd > 0 && m_body != Body::Unwanted && m_overlap.isEmpty()
        && m_part.bytes() >= m_bodyEnd;
    if (!m_hasWriteFailed && (m_pieces || isPieceThere)) {
        QMetaObject::invokeMethod(this, &FileTransfer::askAlone, Qt::QueuedConnection);
        return;
    }
    const RunClass cause = failure();
    if (mayRetry(cause))
        retry(cause);
    else
        end(Outcome::Failed, cause);
}

bool FileTransfer::isWhole() const
{
    if (m_hasWriteFailed || !m_overlap.isEmpty())
        return false;
    const qint64 length = m_part.origin().length;
    if (m_body == Body::Unwanted && !m_pieces)
        return false;
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
            || (failure == RunClass::Refused && RetryPause::isPassing(m_client.status())));
}

void FileTransfer::retry(RunClass cause)
{
    const auto pause = RetryPause::of(m_attempts, m_client.header("Retry-After"));
    ++m_attempts;
    HostEvents::send(event::DownloadRetried{m_attempts, m_options.retries, pause.count(), cause});
    m_pause.start(pause);
}

/// All of it has come.
void FileTransfer::conclude()
{
    const qint64 bytes = m_part.bytes();
    if (m_pieces)
        tellProgress();
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
    m_pause.stop();
    m_joining.stop();
    if (m_pieces)
        m_pieces->stop();
    emit ended(outcome);
}
