#include "PageTraffic.h"

#include "ContentRange.h"
#include "PageHeaders.h"
#include "PieceAddress.h"
#include "WebAddress.h"

#include <QFile>
#include <QJsonObject>
#include <QMimeDatabase>

namespace {

constexpr qint64 beginningBytes = 64 * 1024; // what the page gets of long media
constexpr qint64 candidateBytes = 1 << 20; // what media of unknown length is read up to
constexpr qint64 maxPageFileBytes = 16 << 20;
constexpr qint64 maxPosition = qint64(1) << 62; // that a server may tell
constexpr int maxCuts = 16; // of one address; what asks for it again and again, asks in vain

constexpr char emptyPicture[] = "R0lGODlhAQABAIAAAAAAAP///yH5BAEAAAAALAAAAAABAAEAAAIBRAA7";

QString text(const QJsonObject &object, const char *key)
{
    return object.value(QLatin1String(key)).toString();
}

bool isMedia(const QString &contentType)
{
    return contentType.startsWith(QLatin1String("video/"), Qt::CaseInsensitive)
        || contentType.startsWith(QLatin1String("audio/"), Qt::CaseInsensitive);
}

/// Playlists go by such types, too, and are read by scripts as a whole.
bool isPlaylist(const QString &contentType)
{
    return contentType.contains(QLatin1String("mpegurl"), Qt::CaseInsensitive);
}

QJsonObject header(const QString &name, const QString &value)
{
    return {{QStringLiteral("name"), name}, {QStringLiteral("value"), value}};
}

} // namespace

/// What the head of a reply tells.
struct PageTraffic::Reply
{
    QString url;
    QString resourceType;
    int status = 0;
    QJsonArray headers;
    QString contentType;
    ContentRange range;

    explicit Reply(const QJsonObject &event)
        : url(text(event.value(QLatin1String("request")).toObject(), "url"))
        , resourceType(text(event, "resourceType"))
        , status(event.value(QLatin1String("responseStatusCode")).toInt())
        , headers(event.value(QLatin1String("responseHeaders")).toArray())
        , contentType(header("Content-Type"))
        , range(ContentRange::of(header("Content-Range").toLatin1()))
    {
    }

    [[nodiscard]] QString header(const char *name) const
    {
        for (const QJsonValue &value : headers) {
            const QJsonObject line = value.toObject();
            if (text(line, "name").compare(QLatin1String(name), Qt::CaseInsensitive) == 0)
                return text(line, "value");
        }
        return {};
    }

    [[nodiscard]] bool isSuccess() const { return status >= 200 && status < 300; }

    /// The bytes of the whole file; 0 when the server does not say.
    [[nodiscard]] qint64 wholeBytes() const
    {
        if (status == 206)
            return qMax(qint64(0), range.size);
        return qMax(qint64(0), header("Content-Length").toLongLong());
    }

    [[nodiscard]] bool isMedia() const
    {
        return isSuccess() && !isPlaylist(contentType)
            && (::isMedia(contentType) || resourceType == QLatin1String("Media"));
    }
};

/// A reply that is being cut.
struct PageTraffic::Cut
{
    QString id;
    Reply reply;
    QString stream;
    QByteArray beginning;
    qint64 bytes = 0; ///< that have been read
    qint64 wantedBytes = 0;
};

PageTraffic::PageTraffic(DevTools &tools, const RunOptions &options, QObject *parent)
    : QObject(parent)
    , m_tools(tools)
    , m_options(options)
    , m_pageFile(QUrl(options.pageUrl).isLocalFile() ? QUrl(options.pageUrl) : QUrl())
{
    connect(&tools, &DevTools::happened, this, &PageTraffic::onEvent);
}

void PageTraffic::begin()
{
    const auto all = [](const char *stage) {
        return QJsonObject{{QStringLiteral("urlPattern"), QStringLiteral("*")},
                           {QStringLiteral("requestStage"), QLatin1String(stage)}};
    };
    m_tools.call(QStringLiteral("Fetch.enable"),
                 {{QStringLiteral("patterns"), QJsonArray{all("Request"), all("Response")}}});
}

void PageTraffic::onEvent(const QString &method, const QJsonObject &parameters)
{
    if (method != QLatin1String("Fetch.requestPaused"))
        return;
    const QString id = text(parameters, "requestId");
    if (m_isStopped)
        return refuse(id);
    if (parameters.contains(QLatin1String("responseErrorReason"))) {
        m_tools.call(QStringLiteral("Fetch.continueRequest"), {{QStringLiteral("requestId"), id}});
        emit replyEnded();
    } else if (parameters.contains(QLatin1String("responseStatusCode"))) {
        onReply(id, parameters);
    } else {
        onRequest(id, parameters);
    }
}

void PageTraffic::onRequest(const QString &id, const QJsonObject &event)
{
    const QJsonObject request = event.value(QLatin1String("request")).toObject();
    const QString address = text(request, "url");
    const QUrl url(address);
    const QString type = text(event, "resourceType");
    if (!WebAddress::isWeb(url)) {
        if (!m_pageFile.isEmpty() && url == m_pageFile && type == QLatin1String("Document"))
            answerFile(id, url);
        else
            refuse(id);
        return;
    }
    noteHeaders(url, request.value(QLatin1String("headers")).toObject());
    const int cuts = m_cuts.value(address);
    if (cuts > maxCuts || (cuts > 0 && type == QLatin1String("Media"))) {
        // It has what it gets of this one. Any other end is tried again and again.
        return answer(id, 404, QStringLiteral("text/plain"), {});
    }
    if (type == QLatin1String("Image") && !m_options.keepsImages)
        answer(id, 200, QStringLiteral("image/gif"), QByteArray::fromBase64(emptyPicture));
    else
        passOn(id, request);
    emit requestSeen(PieceAddress::wholeOf(address));
}

/// What the page sends along for an address, the download may have to send, too.
void PageTraffic::noteHeaders(const QUrl &url, const QJsonObject &headers) const
{
    if (!m_options.pageHeaders)
        return;
    PageHeaders::Headers lines;
    for (auto it = headers.begin(); it != headers.end(); ++it)
        lines += qMakePair(it.key().toLatin1(), it.value().toString().toUtf8());
    m_options.pageHeaders->note(QUrl(PieceAddress::wholeOf(url.toString(QUrl::FullyEncoded))),
                                lines);
}

void PageTraffic::passOn(const QString &id, const QJsonObject &request)
{
    QJsonObject parameters{{QStringLiteral("requestId"), id}};
    const QJsonObject headers = request.value(QLatin1String("headers")).toObject();
    const QString name = QStringLiteral("User-Agent");
    if (!m_userAgent.isEmpty() && headers.value(name).toString() != m_userAgent) {
        QJsonArray lines{header(name, m_userAgent)};
        for (auto it = headers.begin(); it != headers.end(); ++it) {
            if (it.key().compare(name, Qt::CaseInsensitive) != 0)
                lines += header(it.key(), it.value().toString());
        }
        parameters.insert(QStringLiteral("headers"), lines);
    }
    m_tools.call(QStringLiteral("Fetch.continueRequest"), parameters);
}

void PageTraffic::refuse(const QString &id)
{
    m_tools.call(QStringLiteral("Fetch.failRequest"),
                 {{QStringLiteral("requestId"), id},
                  {QStringLiteral("errorReason"), QStringLiteral("BlockedByClient")}});
    emit replyEnded();
}

void PageTraffic::answer(const QString &id, int status, const QString &contentType,
                         const QByteArray &body)
{
    m_tools.call(QStringLiteral("Fetch.fulfillRequest"),
                 {{QStringLiteral("requestId"), id},
                  {QStringLiteral("responseCode"), status},
                  {QStringLiteral("responseHeaders"),
                   QJsonArray{header(QStringLiteral("Content-Type"), contentType)}},
                  {QStringLiteral("body"), QString::fromLatin1(body.toBase64())}});
    emit replyEnded();
}

/// The engine itself can read no file of this machine.
void PageTraffic::answerFile(const QString &id, const QUrl &url)
{
    QFile file(url.toLocalFile());
    if (!file.open(QIODevice::ReadOnly))
        return refuse(id);
    const QString type = QMimeDatabase().mimeTypeForFile(url.toLocalFile()).name();
    answer(id, 200, type, file.read(maxPageFileBytes));
}

void PageTraffic::onReply(const QString &id, const QJsonObject &event)
{
    const Reply reply(event);
    const QString whole = PieceAddress::wholeOf(reply.url);
    const qint64 bytes = reply.wholeBytes();
    if (!reply.isMedia() || (reply.status != 206 && bytes > 0 && bytes <= beginningBytes)) {
        m_tools.call(QStringLiteral("Fetch.continueRequest"), {{QStringLiteral("requestId"), id}});
    } else {
        cut(id, reply);
    }
    if (whole != reply.url && reply.isMedia()) {
        // Of a piece, the server tells the length of the piece.
        emit replySeen(whole, candidateBytes, reply.contentType);
        emit sizeUntold(whole);
    } else if (bytes > 0 || !reply.isMedia()) {
        emit replySeen(reply.url, bytes, reply.contentType);
    }
    emit replyEnded();
}

void PageTraffic::cut(const QString &id, const Reply &reply)
{
    ++m_cuts[reply.url];
    const bool isCounted = reply.wholeBytes() == 0;
    const auto cut = std::make_shared<Cut>(
        Cut{id, reply, {}, {}, 0, isCounted ? candidateBytes : beginningBytes});
    m_tools.call(QStringLiteral("Fetch.takeResponseBodyAsStream"),
                 {{QStringLiteral("requestId"), id}}, {}, [this, cut](const QJsonObject &result) {
                     cut->stream = text(result, "stream");
                     if (cut->stream.isEmpty())
                         finish(cut);
                     else
                         readOn(cut);
                 });
}

void PageTraffic::readOn(const std::shared_ptr<Cut> &cut)
{
    m_tools.call(
        QStringLiteral("IO.read"),
        {{QStringLiteral("handle"), cut->stream}, {QStringLiteral("size"), int(beginningBytes)}},
        {}, [this, cut](const QJsonObject &result) {
            QByteArray data = text(result, "data").toUtf8();
            if (result.value(QLatin1String("base64Encoded")).toBool())
                data = QByteArray::fromBase64(data);
            cut->bytes += data.size();
            cut->beginning += data.left(int(beginningBytes) - cut->beginning.size());
            const bool isOver = result.value(QLatin1String("eof")).toBool() || result.isEmpty();
            if (m_isStopped || isOver || cut->bytes >= cut->wantedBytes)
                finish(cut);
            else
                readOn(cut);
        });
}

void PageTraffic::finish(const std::shared_ptr<Cut> &cut)
{
    if (!cut->stream.isEmpty())
        m_tools.call(QStringLiteral("IO.close"), {{QStringLiteral("handle"), cut->stream}});
    const Reply &reply = cut->reply;
    QJsonArray headers;
    for (const QJsonValue &value : reply.headers) {
        const QString name = text(value.toObject(), "name").toLower();
        if (name != QLatin1String("content-length") && name != QLatin1String("content-range")
            && name != QLatin1String("content-encoding")
            && name != QLatin1String("transfer-encoding"))
            headers += value;
    }
    const qint64 first = qBound(qint64(0), reply.range.first, maxPosition);
    if (reply.status == 206 && !cut->beginning.isEmpty())
        headers += header(QStringLiteral("Content-Range"),
                          QStringLiteral("bytes %1-%2/%3")
                              .arg(first)
                              .arg(first + cut->beginning.size() - 1)
                              .arg(qMax(reply.wholeBytes(), first + cut->beginning.size())));
    m_tools.call(QStringLiteral("Fetch.fulfillRequest"),
                 {{QStringLiteral("requestId"), cut->id},
                  {QStringLiteral("responseCode"), reply.status},
                  {QStringLiteral("responseHeaders"), headers},
                  {QStringLiteral("body"), QString::fromLatin1(cut->beginning.toBase64())}});
    if (reply.wholeBytes() > 0 || m_isStopped)
        return;
    emit replySeen(reply.url, cut->bytes, reply.contentType);
    if (cut->bytes >= cut->wantedBytes)
        emit sizeUntold(reply.url);
}
