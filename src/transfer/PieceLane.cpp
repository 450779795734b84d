#include "PieceLane.h"

#include "ContentRange.h"
#include "PartFile.h"

namespace {

constexpr qint64 readBufferBytes = 1024 * 1024; // there may be many lanes
constexpr qint64 certainAfterMs = 2000; // a server that has sent nothing for so long is slow

/// What to make of an answer with that status, which brings nothing of the piece.
PieceLane::End endOf(int status)
{
    switch (status) {
    case 200: // all of it, as it is now
    case 206:
    case 416:
        return PieceLane::End::Other;
    case 408:
    case 425:
    case 500:
    case 502:
    case 504:
        return PieceLane::End::Broken;
    default:
        return status >= 300 ? PieceLane::End::Crowded : PieceLane::End::Broken;
    }
}

} // namespace

PieceLane::PieceLane(const QString &url, PartFile &part, const NetSettings &settings,
                     QNetworkCookieJar &cookies, QObject *parent)
    : QObject(parent)
    , m_url(url)
    , m_part(part)
    , m_cookies(cookies)
    , m_client(settings)
{
    connect(&m_client, &HttpClient::answered, this, &PieceLane::judgeAnswer);
    connect(&m_client, &HttpClient::readable, this, &PieceLane::readBody);
    connect(&m_client, &HttpClient::ended, this, &PieceLane::onEnded);
}

void PieceLane::fetch(qint64 first, qint64 end)
{
    m_first = first;
    m_position = first;
    m_end = end;
    m_askedEnd = end;
    m_lead.clear();
    m_hasBegun = false;
    m_isTaken = false;
    m_isBusy = true;
    m_isOver = false;
    m_verdict = End::Broken;
    ++m_pieceNo;
    m_sinceAsked.start();
    HttpClient::Request request;
    request.url = QUrl(m_url);
    request.cookies = &m_cookies;
    request.maxUnreadBytes = readBufferBytes;
    request.rangeStart = first - PartFile::leadBytes;
    request.rangeEnd = end;
    request.headers = {{"Accept-Encoding", "identity"}, {"If-Range", m_part.origin().condition()}};
    m_client.start(request);
}

void PieceLane::shorten(qint64 end)
{
    m_end = qMin(m_end, end);
    if (m_isBusy && !m_isOver && m_position >= m_end)
        finish(End::Whole);
}

void PieceLane::drop()
{
    if (m_isBusy && !m_isOver)
        m_lastRate = rate();
    m_isBusy = false;
    ++m_pieceNo;
    m_client.drop();
}

double PieceLane::rate() const
{
    if (!m_isBusy || m_isOver)
        return m_lastRate;
    const qint64 ms = m_sinceAsked.elapsed();
    const qint64 bytes = m_position - m_first;
    if (bytes == 0)
        return ms < certainAfterMs ? -1 : 0;
    return 1000.0 * static_cast<double>(bytes) / static_cast<double>(qMax<qint64>(1, ms));
}

void PieceLane::judgeAnswer()
{
    const ContentRange range = ContentRange::of(m_client.header("Content-Range"));
    const qint64 asked = m_first - PartFile::leadBytes;
    m_isTaken = m_part.origin().agreesWith(m_client, asked) && range.last >= m_first
        && range.last < m_askedEnd;
    if (m_isTaken)
        return;
    m_verdict = endOf(m_client.status());
    m_client.abortSoon(); // goes on in onEnded()
}

void PieceLane::readBody()
{
    if (m_isOver)
        return;
    if (!m_isTaken) {
        m_client.skip();
        return;
    }
    const qint64 before = m_position;
    const bool isTaken =
        m_client.readTo([this](const char *data, qint64 bytes) { return take(data, bytes); });
    if (!isTaken)
        finish(m_verdict);
    else if (m_position >= m_end && m_end < m_askedEnd)
        finish(End::Whole);
    if (m_position > before)
        emit arrived();
}

/// Returns false when no more is wanted; m_verdict then tells why.
bool PieceLane::take(const char *data, qint64 bytes)
{
    if (!takeLead(data, bytes))
        return false;
    const qint64 count = qMin(bytes, m_end - m_position);
    if (count > 0 && !m_part.writeAt(m_position, data, count)) {
        m_verdict = End::Unwritten;
        return false;
    }
    m_position += count;
    // Somebody else brings the rest; more than was asked for is a lie.
    m_verdict = m_end < m_askedEnd ? End::Whole : End::Other;
    return count == bytes;
}

/// Takes what comes before the piece, and leaves the rest of the bytes.
bool PieceLane::takeLead(const char *&data, qint64 &bytes)
{
    const auto missing = static_cast<int>(PartFile::leadBytes) - m_lead.size();
    const auto count = static_cast<int>(qMin<qint64>(bytes, missing));
    m_lead.append(data, count);
    data += count;
    bytes -= count;
    if (bytes == 0 || m_hasBegun)
        return true;
    m_hasBegun = true;
    m_verdict = End::Other;
    return m_part.beginAt(m_first, m_lead);
}

void PieceLane::onEnded()
{
    const bool isTaken = m_isTaken;
    if (isTaken)
        readBody();
    if (m_isOver || !m_isBusy) // it may have been dropped for what has just been told
        return;
    if (isTaken && m_position >= m_end)
        finish(End::Whole);
    else if (isTaken && m_position > m_first && m_client.isBodyWhole()
             && m_client.error() == QNetworkReply::NoError)
        finish(End::Whole); // fewer than were asked for, and in order
    else
        finish(isTaken ? End::Broken : m_verdict);
}

/// Tells the end from the event loop, for this may be inside of what the toolkit tells.
void PieceLane::finish(End end)
{
    m_lastRate = rate();
    m_isOver = true;
    if (m_client.isRunning())
        m_client.drop(); // what follows is not wanted
    const quint64 pieceNo = m_pieceNo;
    QMetaObject::invokeMethod(
        this,
        [this, end, pieceNo] {
            if (pieceNo != m_pieceNo)
                return;
            m_isBusy = false;
            emit ended(end);
        },
        Qt::QueuedConnection);
}
