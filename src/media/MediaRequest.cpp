#include "MediaRequest.h"

#include <QEventLoop>
#include <QRegularExpression>

#include <utility>

namespace {

constexpr int watchIntervalMs = 100; // how late a stop may take effect
constexpr int statusOk = 200;
constexpr int statusPartial = 206;
constexpr int firstErrorStatus = 400;
constexpr int statusNotFound = 404;
constexpr int statusGone = 410;

bool wantsPart(const MediaRequest::What &what)
{
    return what.firstByte > 0 || what.byteCount > 0;
}

/// The first byte that a partial answer has; -1 when it does not say.
qint64 beginOf(const QByteArray &contentRange)
{
    static const QRegularExpression range(QStringLiteral("^\\s*bytes\\s+(\\d{1,18})-\\d+/"));
    const auto match = range.match(QString::fromLatin1(contentRange));
    return match.hasMatch() ? match.captured(1).toLongLong() : -1;
}

/// Whether the part that has come begins where it should. One that does not say where it begins
/// can only be the file's beginning.
bool beginsRight(const MediaRequest::What &what, const QByteArray &contentRange)
{
    const qint64 begin = beginOf(contentRange);
    return begin >= 0 ? begin == what.firstByte : what.firstByte == 0;
}

} // namespace

MediaRequest::MediaRequest(const MediaServers &servers, const StopFlag &stop, QObject *parent)
    : QObject(parent)
    , m_stop(stop)
    , m_denials(servers.denials)
    , m_headers(servers.headers)
    , m_client(servers.net, servers.pool)
{
    NetSettings settings = servers.net;
    settings.stallMs = servers.patienceMs();
    m_client.setSettings(settings);
    m_watch.setInterval(watchIntervalMs);
    connect(&m_watch, &QTimer::timeout, this, [this] {
        if (m_stop.isRaised())
            m_client.abort();
    });
    connect(&m_client, &HttpClient::redirected, this, [this](const QUrl &target) {
        m_url = target;
        m_body.resize(0);
        if (m_stop.isRaised())
            m_client.abort();
    });
    connect(&m_client, &HttpClient::answered, this, &MediaRequest::onAnswered);
    connect(&m_client, &HttpClient::readable, this, &MediaRequest::takeArrived);
    connect(&m_client, &HttpClient::ended, this, &MediaRequest::onEnded);
}

MediaRequest::~MediaRequest() = default;

void MediaRequest::start(const What &what, QByteArray buffer)
{
    m_what = what;
    m_url = what.url;
    m_body = std::move(buffer);
    m_body.resize(0);
    m_toSkip = 0;
    m_isCut = m_isRefused = m_isLengthKnown = m_hasSucceeded = false;
    HttpClient::Request request;
    request.url = what.url;
    request.headers = m_headers;
    request.rangeStart = what.firstByte;
    request.rangeEnd = what.byteCount > 0 ? what.firstByte + what.byteCount : 0;
    request.redirects.mayLeaveTls = true;
    request.redirects.readsBody = true;
    request.cookies = &m_cookies;
    m_client.start(request);
    m_watch.start();
}

bool MediaRequest::run(const What &what, QByteArray buffer)
{
    if (m_stop.isRaised())
        return false;
    QEventLoop loop;
    connect(this, &MediaRequest::ended, &loop, &QEventLoop::quit);
    start(what, std::move(buffer));
    loop.exec();
    return m_hasSucceeded;
}

void MediaRequest::onAnswered()
{
    const int status = m_client.status();
    const bool isWhole = status == statusOk;
    m_toSkip = isWhole ? m_what.firstByte : 0;
    m_isRefused = !(isWhole || status == statusPartial)
        || (!isWhole && !beginsRight(m_what, m_client.header("Content-Range")))
        || (!(isWhole && wantsPart(m_what)) && m_client.declaredLength() > m_what.maxBytes);
    if (m_isRefused)
        m_client.abortSoon();
}

void MediaRequest::takeArrived()
{
    if (!m_client.redirectTarget().isEmpty() || m_isRefused || m_isCut) {
        m_client.skip();
        return;
    }
    const bool isPlain = m_toSkip == 0 && m_what.byteCount == 0;
    const bool isTaken = isPlain
        ? m_client.readInto(m_body, m_what.maxBytes)
        : m_client.readTo([this](const char *data, qint64 bytes) { return take(data, bytes); });
    if (!isTaken && !m_isCut)
        m_isRefused = true;
    if (!isTaken)
        m_client.abort();
}

/// Takes what belongs to the range of an answer. Returns whether more is wanted.
bool MediaRequest::take(const char *data, qint64 bytes)
{
    const qint64 skipped = qMin(m_toSkip, bytes);
    m_toSkip -= skipped;
    const qint64 room =
        (m_what.byteCount > 0 ? qMin(m_what.byteCount, m_what.maxBytes) : m_what.maxBytes)
        - m_body.size();
    const qint64 taken = qMin(bytes - skipped, room);
    m_body.append(data + skipped, static_cast<int>(taken));
    m_isCut = m_what.byteCount > 0 && m_body.size() == m_what.byteCount && taken < bytes - skipped;
    return taken == bytes - skipped;
}

void MediaRequest::onEnded()
{
    m_watch.stop();
    if (m_client.bytesAvailable() > 0)
        takeArrived();
    const int status = m_client.status();
    if (status >= firstErrorStatus)
        ++*m_denials;
    const bool isInOrder =
        m_isCut || (m_client.error() == QNetworkReply::NoError && m_client.isBodyWhole());
    m_isLengthKnown = m_isCut || m_client.declaredLength() >= 0
        || (m_what.byteCount > 0 && m_body.size() == m_what.byteCount);
    m_hasSucceeded = isInOrder && !m_isRefused && !m_stop.isRaised()
        && (status == statusOk || status == statusPartial)
        && (m_what.byteCount == 0 || m_body.size() == m_what.byteCount);
    emit ended();
}

bool MediaRequest::isAbsent() const
{
    return m_client.status() == statusNotFound || m_client.status() == statusGone;
}

QByteArray MediaRequest::takeBody()
{
    return std::exchange(m_body, QByteArray());
}

QString MediaRequest::errorText() const
{
    const int status = m_client.status();
    if (status != 0 && status != statusOk && status != statusPartial)
        return QStringLiteral("the server answers with %1").arg(status);
    if (m_isRefused)
        return QStringLiteral("the answer is too long or of another part");
    return m_client.error() == QNetworkReply::NoError
        ? QStringLiteral("the answer is cut short")
        : QStringLiteral("no answer (network error %1)").arg(m_client.error());
}
