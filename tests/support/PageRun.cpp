#include "PageRun.h"

#include <QCryptographicHash>
#include <QDate>
#include <QRandomGenerator>

QString option(const char *text)
{
    return QString::fromLatin1(text);
}

QString csvPath()
{
    return option("tmp/logs/") + QDate::currentDate().toString(Qt::ISODate) + option(".csv");
}

QByteArray testBytes(int size)
{
    QByteArray bytes(size, Qt::Uninitialized);
    QRandomGenerator generator(42);
    for (char &byte : bytes)
        byte = static_cast<char>(generator.generate());
    return bytes;
}

QByteArray videoPage(const QByteArray &videoAddress, const QByteArray &head)
{
    return "<html><head>" + head + "</head><body><video src=\"" + videoAddress
        + "\" autoplay></video></body></html>";
}

HttpReply htmlReply(const QByteArray &html)
{
    HttpReply reply;
    reply.headers = {{"Content-Type", "text/html; charset=utf-8"}};
    reply.body = html;
    return reply;
}

HttpReply mediaReply(const QByteArray &body, const QByteArray &contentType)
{
    HttpReply reply;
    reply.headers = {{"Content-Type", contentType}};
    reply.body = body;
    return reply;
}

bool isFromDownloader(const HttpRequest &request)
{
    const QByteArray name = request.header("User-Agent");
    // With an engine of today the downloader takes its name, and asks for no kind of content.
    return name == "Mozilla/5.0" || (name.contains("X11; Linux") && !request.hasHeader("Accept"));
}

QString servePage(ScriptedServer &server, const QByteArray &video,
                  const ScriptedServer::Handler &forDownloader)
{
    server.on("/page", htmlReply(videoPage("/v.mp4")));
    server.on("/v.mp4", [video, forDownloader](const HttpRequest &request) {
        return isFromDownloader(request) ? forDownloader(request) : mediaReply(video);
    });
    return server.address("/page");
}

QString serveStalling(ScriptedServer &server, const QByteArray &video, int bytes)
{
    return servePage(server, video, [video, bytes](const HttpRequest &) {
        HttpReply reply = mediaReply(video);
        reply.holdAfterBytes = bytes;
        return reply;
    });
}

QString pageHash(const QString &pageAddress)
{
    const QByteArray digest =
        QCryptographicHash::hash(pageAddress.toUtf8(), QCryptographicHash::Md5);
    return QString::fromLatin1(digest.toHex().toUpper());
}

QByteArray parsingLine(const QString &pageAddress)
{
    return '"' + pageAddress.toUtf8() + "\" parsing... \n";
}

QByteArray fixedLine(const QByteArray &text)
{
    return text + " \n";
}

QByteArray composedLine(const QByteArray &text)
{
    return '"' + text + "\" \n";
}

QByteArray recordLine(const QString &videoAddress, qint64 size, const QByteArray &format,
                      const QByteArray &thumbUrl, const QByteArray &title)
{
    return composedLine("{\"fileList\":[{\"height\":0,\"nSize\":" + QByteArray::number(size)
                        + ",\"strFormat\":\"" + format + "\",\"urlType\":\"http\",\"videoUrl\":\""
                        + videoAddress.toUtf8()
                        + "\",\"width\":0}],\"playList\":[],\"selectedVideo\":0,\"thumbUrl\":\""
                        + thumbUrl + "\",\"title\":\"" + title + "\"}");
}

bool askToExit(const QString &pageAddress)
{
    ProgramRun run;
    return run.run({QStringLiteral("--exit"), QStringLiteral("--url"), pageAddress})
        && run.exitCode() == 0 && run.errorOutput() == fixedLine("set ExitFlag");
}

QByteArray withoutProgress(const QByteArray &errorOutput)
{
    QByteArray result;
    const QList<QByteArray> lines = errorOutput.split('\n');
    for (int i = 0; i < lines.size(); ++i) {
        if (lines.at(i).startsWith("\"downloaded:"))
            continue;
        result += lines.at(i);
        if (i + 1 < lines.size())
            result += '\n';
    }
    return result;
}

QByteArray withoutTold(const QByteArray &errorOutput, const QString &address)
{
    const QByteArray line = "videoUrl: \"" + address.toUtf8() + "\" \n";
    const int at = errorOutput.indexOf('\n' + line);
    return at < 0 ? errorOutput : QByteArray(errorOutput).remove(at + 1, line.size());
}
