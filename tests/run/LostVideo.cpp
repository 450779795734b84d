#include "LostVideo.h"

QString lost::serveSmallVideo(ScriptedServer &server, const QByteArray &video,
                              const QByteArray &script)
{
    const QString page =
        servePage(server, video, [video](const HttpRequest &) { return mediaReply(video); });
    server.on("/ready", [&server](const HttpRequest &) {
        const bool isSeen = !server.requestsFor("/v.mp4").isEmpty();
        return htmlReply(isSeen && server.requestsFor("/ready").size() > 5 ? "yes" : "no");
    });
    server.on("/page",
              htmlReply("<body><video src='/v.mp4' autoplay></video><script>"
                        "function look() { var x = new XMLHttpRequest(); x.open('GET', '/ready');"
                        " x.onload = function() {"
                        " if (x.responseText == 'yes') run(); else setTimeout(look, 100); };"
                        " x.send(); }"
                        "function run() { "
                        + script + " } look();</script></body>"));
    return page;
}

QByteArray lost::lines(const ScriptedServer &server)
{
    return recordLine(server.address("/v.mp4"), smallBytes, "mp4")
               .replace("\"selectedVideo\":0", "\"selectedVideo\":-1")
        + fixedLine("video download finished:failed") + fixedLine("detach sharememory");
}
