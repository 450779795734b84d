#include "PageRun.h"
#include "TestMain.h"

namespace {

constexpr int videoBytes = 6000000;
constexpr int sentBytes = 300000;

/// A page whose script waits for an answer and shows the video once there is none to be had.
QByteArray pageThatShowsTheVideoAfter(const QByteArray &request)
{
    return "<body><script>function show() {"
           " var v = document.createElement('video'); v.src = '/v.mp4'; v.autoplay = true;"
           " document.body.appendChild(v); }"
           " var x = new XMLHttpRequest();"
        + request + "</script></body>";
}

} // namespace

/// Runs with limits of time: for the silence of a server, and for the run as a whole.
class tst_RunLimits : public QObject
{
    Q_OBJECT

    const QByteArray m_video = testBytes(videoBytes);

    static QByteArray endLines(const QByteArray &result)
    {
        return fixedLine("video download finished:" + result) + fixedLine("detach sharememory");
    }

    static QString videoPath(const QString &page)
    {
        return option("tmp/") + pageHash(page) + option(".mp4");
    }

private slots:
    void aSilentVideoFails_data()
    {
        QTest::addColumn<bool>("isHeaderSent");
        QTest::newRow("before the answer") << false;
        QTest::newRow("in the body") << true;
    }

    void aSilentVideoFails()
    {
        QFETCH(bool, isHeaderSent);
        ScriptedServer server;
        const QString page = servePage(server, m_video, [&](const HttpRequest &) {
            HttpReply reply = mediaReply(m_video);
            reply.delayMs = isHeaderSent ? 0 : 1000000;
            reply.holdAfterBytes = sentBytes;
            return reply;
        });
        ProgramRun run;
        QVERIFY(run.run({option("--url"), page, option("--stall"), option("2")}));
        QCOMPARE(withoutProgress(run.errorOutput()),
                 parsingLine(page) + recordLine(server.address("/v.mp4"), videoBytes, "mp4")
                     + fixedLine("start download video ...") + endLines("failed"));
        QCOMPARE(run.exitCode(), 0);
        QVERIFY(run.fileContent(videoPath(page)) == m_video.left(isHeaderSent ? sentBytes : 0));
    }

    void aSlowVideoDoesNot()
    {
        ScriptedServer server;
        const QString page = servePage(server, m_video, [this](const HttpRequest &) {
            HttpReply reply = mediaReply(m_video);
            reply.pieceBytes = videoBytes / 20;
            reply.pieceDelayMs = 200; // the whole takes longer than the limit
            return reply;
        });
        ProgramRun run;
        QVERIFY(run.run({option("--url"), page, option("--stall"), option("3")}));
        QVERIFY2(run.errorOutput().endsWith(endLines("success")), run.errorOutput());
        QVERIFY(run.fileContent(videoPath(page)) == m_video);
    }

    void aSilentThumbnailFailsAlone()
    {
        ScriptedServer server;
        HttpReply silent = mediaReply(testBytes(1000), "image/jpeg");
        silent.holdAfterBytes = 500;
        server.on("/t.jpg", silent);
        const QByteArray thumb = server.address("/t.jpg").toUtf8();
        const QString page = servePage(server, m_video, [this](const HttpRequest &) {
            HttpReply reply = mediaReply(m_video);
            reply.pieceBytes = videoBytes / 20;
            reply.pieceDelayMs = 500; // ends long after the thumbnail is given up
            return reply;
        });
        server.on("/page",
                  htmlReply(videoPage("/v.mp4",
                                      "<meta property=\"og:image\" content=\"" + thumb + "\">")));
        ProgramRun run;
        QVERIFY(
            run.run({option("--url"), page, option("--thumb"), option("--stall"), option("2")}));
        QCOMPARE(withoutProgress(run.errorOutput()),
                 parsingLine(page) + recordLine(server.address("/v.mp4"), videoBytes, "mp4", thumb)
                     + fixedLine("start download thumb ...") + fixedLine("start download video ...")
                     + fixedLine("thumb download finished:failed") + endLines("success"));
        QVERIFY(!QFile::exists(run.path(option("tmp/") + pageHash(page) + option(".thumb"))));
    }

    void aSilentProbeOfAScanIsPassedOver()
    {
        ScriptedServer server;
        server.hold("/held.mp4");
        server.serve("/v.mp4", m_video + m_video, "video/mp4");
        const QByteArray held = server.address("/held.mp4").toUtf8();
        const QByteArray good = server.address("/v.mp4").toUtf8();
        server.on("/page", htmlReply("<p title='" + held + "'><p title='" + good + "'>"));
        const QString page = server.address("/page");
        ProgramRun run;
        QVERIFY(run.run({option("--url"), page, option("--stall"), option("1")}));
        QCOMPARE(withoutProgress(run.errorOutput()),
                 parsingLine(page) + "videoUrl: \"" + good + "\" \n"
                     + recordLine(server.address("/v.mp4"), 2 * videoBytes, "mp4")
                     + fixedLine("start download video ...") + endLines("success"));
    }

    void aSilentProbeOfTheSelectionGivesNoSize()
    {
        ScriptedServer server;
        int requestsSeen = 0;
        server.onRaw("/v.mp4", [&requestsSeen](const HttpRequest &, QTcpSocket *socket) {
            if (++requestsSeen == 1)
                socket->abort(); // the engine's; the candidate keeps its unknown size
        });
        server.on("/page", htmlReply(videoPage("/v.mp4")));
        const QString page = server.address("/page");
        ProgramRun run;
        QVERIFY(run.run({option("--url"), page, option("--timeout"), option("2"), option("--stall"),
                         option("1")}));
        QCOMPARE(withoutProgress(run.errorOutput()),
                 parsingLine(page) + recordLine(server.address("/v.mp4"), 0, "mp4")
                     + fixedLine("start download video ...") + endLines("failed"));
    }

    void aSilentRequestOfThePageFails_data()
    {
        QTest::addColumn<QByteArray>("script");
        QTest::newRow("queued") << QByteArray(
            "x.open('GET', '/held'); x.onerror = show; x.ontimeout = show; x.send();");
        QTest::newRow("synchronous")
            << QByteArray("x.open('GET', '/held', false); try { x.send(); } catch (e) { show(); }");
    }

    void aSilentRequestOfThePageFails()
    {
        QFETCH(QByteArray, script);
        ScriptedServer server;
        const QString page =
            servePage(server, m_video, [this](const HttpRequest &) { return mediaReply(m_video); });
        server.on("/page", htmlReply(pageThatShowsTheVideoAfter(script)));
        server.hold("/held");
        ProgramRun run;
        QVERIFY(run.run({option("--url"), page, option("--stall"), option("2")}));
        QCOMPARE(withoutProgress(run.errorOutput()),
                 parsingLine(page) + recordLine(server.address("/v.mp4"), videoBytes, "mp4")
                     + fixedLine("start download video ...") + endLines("success"));
        QCOMPARE(server.requestsFor("/held").size(), 1);
    }
};

CLIPWEIR_TEST_MAIN(tst_RunLimits)
#include "tst_run_limits.moc"
