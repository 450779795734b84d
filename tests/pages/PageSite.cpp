#include "PageSite.h"

#include "PageRun.h"
#include "TestFiles.h"

#include <QCryptographicHash>
#include <QDateTime>
#include <QFileInfo>
#include <QUrlQuery>

#include <algorithm>

namespace {

const QLatin1String mediaFolder(PAGE_MEDIA "/");
const QLatin1String siteFolder(PAGE_SITE "/");
const QLatin1String playersFolder(PAGE_PLAYERS "/");

constexpr qint64 signedForS = 60;

QByteArray typeOf(const QString &path)
{
    static const QHash<QString, QByteArray> types{
        {option("html"), "text/html; charset=utf-8"},
        {option("js"), "text/javascript"},
        {option("css"), "text/css"},
        {option("svg"), "image/svg+xml"},
        {option("mp4"), "video/mp4"},
        {option("m4s"), "video/iso.segment"},
        {option("m3u8"), "application/vnd.apple.mpegurl"},
        {option("mpd"), "application/dash+xml"},
    };
    return types.value(QFileInfo(path).suffix(), "application/octet-stream");
}

/// A file below a folder; nothing when there is none or when the name leads out of it.
QByteArray fileBelow(const QString &folder, const QString &name)
{
    return name.contains(option("..")) ? QByteArray() : readFile(folder + name);
}

/// The number behind a query's name, also in "first-last".
qint64 numberOf(const QUrlQuery &query, const char *name, int part = 0)
{
    return query.queryItemValue(option(name)).split(QLatin1Char('-')).value(part).toLongLong();
}

QUrlQuery queryOf(const HttpRequest &request)
{
    return QUrlQuery(QUrl(QString::fromLatin1(request.target)));
}

/// What a path names behind its first folder.
QString nameOf(const HttpRequest &request)
{
    return QString::fromLatin1(request.path()).section(QLatin1Char('/'), 2);
}

HttpReply refusal(int status)
{
    HttpReply reply = htmlReply("<title>Not for you</title>");
    reply.status = status;
    return reply;
}

HttpReply plainReply(const QByteArray &body, const QByteArray &type)
{
    HttpReply reply = replyOf(body);
    reply.headers = {{"Content-Type", type}};
    return reply;
}

HttpReply player(const HttpRequest &request)
{
    const QByteArray text = fileBelow(playersFolder, nameOf(request));
    return text.isEmpty() ? refusal(404) : plainReply(text, typeOf(nameOf(request)));
}

HttpReply siteFile(const HttpRequest &request, const ScriptedServer &self,
                   const ScriptedServer &other)
{
    const QString name = QString::fromLatin1(request.path().mid(1));
    QByteArray text = fileBelow(siteFolder, name);
    if (text.isEmpty())
        return refusal(404);
    text.replace("{{this}}", self.address("").toLatin1());
    text.replace("{{other}}", other.address("").toLatin1());
    return plainReply(text, typeOf(name));
}

HttpReply mediaFile(const HttpRequest &request)
{
    const QByteArray content = fileBelow(mediaFolder, nameOf(request));
    return content.isEmpty()
        ? refusal(404)
        : ScriptedServer::rangeReply(request, content, typeOf(nameOf(request)));
}

/// The media for some, nothing for others.
ScriptedServer::Handler onlyIf(const std::function<bool(const HttpRequest &)> &isWelcome)
{
    return [isWelcome](const HttpRequest &request) {
        return isWelcome(request) ? mediaFile(request) : refusal(403);
    };
}

QByteArray wholeOf(const QByteArray &whole, const QUrlQuery &)
{
    return whole;
}

/// The part of a file that the query names; all of it when it names none.
QByteArray partOf(const QByteArray &whole, const QUrlQuery &query)
{
    qint64 first = 0;
    qint64 last = whole.size() - 1;
    if (query.hasQueryItem(option("range"))) {
        first = numberOf(query, "range");
        last = numberOf(query, "range", 1);
    } else if (query.hasQueryItem(option("bytestart"))) {
        first = numberOf(query, "bytestart");
        last = numberOf(query, "byteend");
    }
    if (first < 0 || first >= whole.size() || last < first)
        return {};
    return whole.mid(int(first), int(qMin<qint64>(last, whole.size() - 1) - first + 1));
}

/// A video whose address has no extension, or a part of it.
template <typename Part> HttpReply video(const HttpRequest &request, Part part)
{
    const QByteArray whole = fileBelow(mediaFolder, nameOf(request) + option(".mp4"));
    return whole.isEmpty()
        ? refusal(404)
        : ScriptedServer::rangeReply(request, part(whole, queryOf(request)), "video/mp4");
}

HttpReply chunkedVideo(const HttpRequest &request)
{
    const QByteArray whole = fileBelow(mediaFolder, nameOf(request) + option(".mp4"));
    if (whole.isEmpty())
        return refusal(404);
    HttpReply reply = chunkedReplyOf(whole);
    reply.headers += qMakePair(QByteArray("Content-Type"), QByteArray("video/mp4"));
    return reply;
}

QByteArray signatureOf(const QString &file, qint64 expires)
{
    const QByteArray text = "a secret of the server " + file.toUtf8() + QByteArray::number(expires);
    return QCryptographicHash::hash(text, QCryptographicHash::Sha256).toHex();
}

HttpReply sign(const HttpRequest &request)
{
    const QString file = queryOf(request).queryItemValue(option("film")) + option(".mp4");
    const qint64 expires = QDateTime::currentSecsSinceEpoch() + signedForS;
    return plainReply("/signed/" + file.toUtf8() + "?expires=" + QByteArray::number(expires)
                          + "&signature=" + signatureOf(file, expires),
                      "text/plain");
}

bool isSignatureGood(const HttpRequest &request)
{
    const qint64 expires = numberOf(queryOf(request), "expires");
    return expires > QDateTime::currentSecsSinceEpoch()
        && queryOf(request).queryItemValue(option("signature")).toLatin1()
        == signatureOf(nameOf(request), expires);
}

bool hasCookie(const HttpRequest &request, const QByteArray &cookie)
{
    const QList<QByteArray> cookies = request.header("Cookie").split(';');
    return std::any_of(cookies.cbegin(), cookies.cend(),
                       [&](const QByteArray &one) { return one.trimmed() == cookie; });
}

} // namespace

PageSite::PageSite()
    : m_otherHost(QHostAddress(QStringLiteral("127.0.0.2")))
{
    serveOn(m_host, m_otherHost);
    serveOn(m_otherHost, m_host);
}

void PageSite::serveOn(ScriptedServer &server, const ScriptedServer &other)
{
    server.on("/sign", sign);
    server.on("/session", [](const HttpRequest &) {
        HttpReply reply = replyOf("begun");
        reply.headers = {{"Set-Cookie", "session=begun; Path=/; HttpOnly"}};
        return reply;
    });
    server.on("/api/video.json",
              plainReply(R"({"sources": [{"src": "/media/clip.mp4"}]})", "application/json"));
    const QHash<QByteArray, ScriptedServer::Handler> folders{
        {"players", player},
        {"media", mediaFile},
        {"watch", [](const HttpRequest &request) { return video(request, wholeOf); }},
        {"pieces", [](const HttpRequest &request) { return video(request, partOf); }},
        {"chunked", chunkedVideo},
        {"of-the-page", onlyIf([&other](const HttpRequest &request) {
             return request.header("Referer").startsWith(other.address("/").toLatin1());
         })},
        {"of-the-visitor",
         onlyIf([](const HttpRequest &request) { return hasCookie(request, "seen=yes"); })},
        {"of-the-session",
         onlyIf([](const HttpRequest &request) { return hasCookie(request, "session=begun"); })},
        {"signed", onlyIf(isSignatureGood)}};
    server.onOther([folders, &server, &other](const HttpRequest &request) {
        const auto handler = folders.constFind(request.path().split('/').value(1));
        return handler != folders.constEnd() ? (*handler)(request)
                                             : siteFile(request, server, other);
    });
}

QString PageSite::page(const QByteArray &name) const
{
    return m_host.address('/' + name + ".html");
}

QString PageSite::address(const QByteArray &target) const
{
    return target.startsWith("//") ? m_otherHost.address(target.mid(1)) : m_host.address(target);
}

QByteArray PageSite::titleOf(const QByteArray &page)
{
    const QByteArray text = readFile(siteFolder + QString::fromLatin1(page) + option(".html"));
    const int begin = text.indexOf("<title>") + int(qstrlen("<title>"));
    return text.mid(begin, text.indexOf("</title>") - begin);
}

QByteArray PageSite::media(const QString &name)
{
    const QByteArray content = fileBelow(mediaFolder, name);
    if (content.isEmpty())
        qFatal("no such media: %s", qPrintable(name));
    return content;
}

ScriptedServer &PageSite::host()
{
    return m_host;
}

ScriptedServer &PageSite::otherHost()
{
    return m_otherHost;
}
