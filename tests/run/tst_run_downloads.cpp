#include "PageRun.h"
#include "TestMain.h"

namespace {

constexpr int videoBytes = 6000000;

} // namespace

/// Whole runs whose page has a video and whose download meets faults. Each must end in order, and
/// what is on disk stays.
class tst_RunDownloads : public QObject
{
    Q_OBJECT

    const QByteArray m_video = testBytes(videoBytes);

    /// All lines of a run that downloads m_video and ends with the given result.
    QByteArray videoRun(const ScriptedServer &server, const QString &page,
                        const QByteArray &result) const
    {
        return parsingLine(page) + recordLine(server.address("/v.mp4"), videoBytes, "mp4")
            + fixedLine("start download video ...") + fixedLine("video download finished:" + result)
            + fixedLine("detach sharememory");
    }

    static QString videoPath(const QString &page)
    {
        return option("tmp/") + pageHash(page) + option(".mp4");
    }

private slots:
    void downloadsThatFail_data()
    {
        QTest::addColumn<HttpReply>("reply");
        QTest::addColumn<int>("bytesOnDisk");
        HttpReply missing = mediaReply("<p>an error page, not a video");
        missing.status = 404;
        QTest::newRow("404") << missing << 0;
        HttpReply error = missing;
        error.status = 500;
        QTest::newRow("500") << error << 0;
        HttpReply cut = mediaReply(m_video);
        cut.cutAfterBytes = 100000;
        QTest::newRow("cut") << cut << 100000;
        HttpReply cutAtOnce = mediaReply(m_video);
        cutAtOnce.cutAfterBytes = 0;
        QTest::newRow("cut before the body") << cutAtOnce << 0;
        HttpReply lying = mediaReply(m_video.left(50000));
        lying.headers += qMakePair(QByteArray("Content-Length"), QByteArray("6000000"));
        QTest::newRow("shorter than it says") << lying << 50000;
        HttpReply loop;
        loop.status = 302;
        loop.headers = {{"Location", "/v.mp4"}};
        QTest::newRow("redirect loop") << loop << 0;
        HttpReply elsewhere = loop;
        elsewhere.headers = {{"Location", "file:///etc/hostname"}};
        QTest::newRow("redirect to a file") << elsewhere << 0;
        HttpReply unfollowed = mediaReply("see there");
        unfollowed.status = 300;
        QTest::newRow("redirect without an address") << unfollowed << 0;
    }

    void downloadsThatFail()
    {
        QFETCH(HttpReply, reply);
        QFETCH(int, bytesOnDisk);
        ScriptedServer server;
        const QString page =
            servePage(server, m_video, [&reply](const HttpRequest &) { return reply; });
        ProgramRun run;
        QVERIFY(run.run({option("--url"), page}));
        QCOMPARE(withoutProgress(run.errorOutput()), videoRun(server, page, "failed"));
        QCOMPARE(run.exitCode(), 0);
        QVERIFY(run.fileContent(videoPath(page)) == m_video.left(bytesOnDisk));
    }

    void aFailedDownloadKeepsWhatWasThere()
    {
        ScriptedServer server;
        const QString page = servePage(server, m_video, [](const HttpRequest &) {
            HttpReply reply = mediaReply("<p>an error page");
            reply.status = 403;
            return reply;
        });
        ProgramRun run;
        QVERIFY(QDir(run.folder()).mkdir(option("tmp")));
        QFile partial(run.path(videoPath(page)));
        QVERIFY(partial.open(QIODevice::WriteOnly));
        partial.write(m_video.left(1000));
        partial.close();
        QVERIFY(run.run({option("--url"), page, option("--size"), QString::number(videoBytes)}));
        QCOMPARE(withoutProgress(run.errorOutput()), videoRun(server, page, "failed"));
        QVERIFY(run.fileContent(videoPath(page)) == m_video.left(1000));
        QCOMPARE(server.requestsFor("/v.mp4").last().header("Range"), QByteArray("bytes=1000-"));
    }

    void aServerThatIgnoresTheRangeGivesAWholeFile()
    {
        ScriptedServer server;
        const QString page =
            servePage(server, m_video, [this](const HttpRequest &) { return mediaReply(m_video); });
        ProgramRun run;
        QVERIFY(QDir(run.folder()).mkdir(option("tmp")));
        QFile partial(run.path(videoPath(page)));
        QVERIFY(partial.open(QIODevice::WriteOnly));
        partial.write(m_video.left(1000));
        partial.close();
        QVERIFY(run.run({option("--url"), page, option("--size"), QString::number(videoBytes)}));
        QCOMPARE(withoutProgress(run.errorOutput()), videoRun(server, page, "success"));
        QVERIFY(run.fileContent(videoPath(page)) == m_video);
    }

    void aBodyWithoutLengthIsAcceptedAsItEnds()
    {
        ScriptedServer server;
        const QString page = servePage(server, m_video, [this](const HttpRequest &) {
            HttpReply reply = mediaReply(m_video);
            reply.withoutLength = true;
            return reply;
        });
        ProgramRun run;
        QVERIFY(run.run({option("--url"), page}));
        QCOMPARE(withoutProgress(run.errorOutput()), videoRun(server, page, "success"));
        QVERIFY(run.fileContent(videoPath(page)) == m_video);
    }

    void aRedirectedVideoArrives()
    {
        ScriptedServer server;
        const QString page = servePage(server, m_video, [](const HttpRequest &) {
            HttpReply reply;
            reply.status = 302;
            reply.headers = {{"Location", "/moved.mp4"}};
            return reply;
        });
        server.serve("/moved.mp4", m_video, "video/mp4");
        ProgramRun run;
        QVERIFY(run.run({option("--url"), page}));
        QCOMPARE(withoutProgress(run.errorOutput()), videoRun(server, page, "success"));
        QVERIFY(run.fileContent(videoPath(page)) == m_video);
    }

    void aFullDiskFails_data()
    {
        QTest::addColumn<bool>("withoutLength");
        QTest::newRow("with a length") << false;
        QTest::newRow("without a length") << true;
    }

    void aFullDiskFails()
    {
        QFETCH(bool, withoutLength);
        ScriptedServer server;
        const QString page = servePage(server, m_video, [&](const HttpRequest &) {
            HttpReply reply = mediaReply(m_video);
            reply.withoutLength = withoutLength;
            return reply;
        });
        ProgramRun run;
        QVERIFY(QFile::link(option("/dev/full"), run.path(option("full.mp4"))));
        QVERIFY(run.run({option("--url"), page, option("--saveto"), run.path(option("full.mp4"))}));
        QCOMPARE(withoutProgress(run.errorOutput()), videoRun(server, page, "failed"));
    }

    void aFolderInPlaceOfTheFileFails()
    {
        ScriptedServer server;
        const QString page =
            servePage(server, m_video, [this](const HttpRequest &) { return mediaReply(m_video); });
        ProgramRun run;
        QVERIFY(QDir(run.folder()).mkdir(option("taken")));
        QVERIFY(run.run({option("--url"), page, option("--saveto"), run.path(option("taken"))}));
        QCOMPARE(withoutProgress(run.errorOutput()), videoRun(server, page, "failed"));
    }

    void aCandidateThatCannotBeDownloadedEndsTheRun()
    {
        ScriptedServer server;
        const QByteArray description = QByteArray(
            "{\"sequence\":[{\"layerList\":[{\"sequenceList\":[{\"name\":\"main\",\"layerList\":"
            "[{\"name\":\"video\",\"param\":{\"ldURL\":\"rtmp://127.0.0.1/live\"}}]}]}]}]}");
        server.on("/page",
                  htmlReply("<html lang=en><body><object><param name=flashvars value='sequence="
                            + description.toPercentEncoding() + "'></object>"));
        const QString page = server.address("/page");
        ProgramRun run;
        QVERIFY(
            run.run({option("--url"), page, option("--timeout"), option("6"), option("--log")}));
        QCOMPARE(run.errorOutput(),
                 parsingLine(page) + "videoUrl: " + composedLine("rtmp://127.0.0.1/live")
                     + composedLine("{\"fileList\":[{\"height\":480,\"nSize\":0,\"strFormat\":\"\","
                                    "\"urlType\":\"rtmp\",\"videoUrl\":\"rtmp://127.0.0.1/live\","
                                    "\"width\":480}],\"playList\":[],\"selectedVideo\":0,"
                                    "\"thumbUrl\":\"\",\"title\":\"\"}")
                     + fixedLine("start download video ...")
                     + fixedLine("video download finished:failed")
                     + fixedLine("detach sharememory"));
        QVERIFY(run.fileContent(csvPath()).contains(",N,"));
    }

    void aThumbnailThatFailsLeavesNoFile()
    {
        ScriptedServer server;
        HttpReply cut = mediaReply(testBytes(1000), "image/jpeg");
        cut.cutAfterBytes = 500;
        server.on("/t.jpg", cut);
        const QByteArray thumb = server.address("/t.jpg").toUtf8();
        const QString page = servePage(server, m_video, [this](const HttpRequest &) {
            HttpReply reply = mediaReply(m_video);
            reply.delayMs = 1500; // so that the thumbnail's end comes first
            return reply;
        });
        server.on("/page",
                  htmlReply(videoPage("/v.mp4",
                                      "<meta property=\"og:image\" content=\"" + thumb + "\">")));
        ProgramRun run;
        QVERIFY(run.run({option("--url"), page, option("--thumb")}));
        QCOMPARE(withoutProgress(run.errorOutput()),
                 parsingLine(page) + recordLine(server.address("/v.mp4"), videoBytes, "mp4", thumb)
                     + fixedLine("start download thumb ...") + fixedLine("start download video ...")
                     + fixedLine("thumb download finished:failed")
                     + fixedLine("video download finished:success")
                     + fixedLine("detach sharememory"));
        QVERIFY(!QFile::exists(run.path(option("tmp/") + pageHash(page) + option(".thumb"))));
    }

    void aMediaAddressInThePageSourceIsFound()
    {
        ScriptedServer server;
        const QByteArray video = testBytes(11000000);
        server.serve("/clip.mp4", video, "application/octet-stream");
        server.serve("/small.mp4", testBytes(1000), "application/octet-stream");
        const QByteArray address = server.address("/clip.mp4").toUtf8();
        server.on("/page",
                  htmlReply("<p title='" + address + "'><p title=\"" + address + "\"><p title='"
                            + server.address("/small.mp4").toUtf8() + "'>"));
        const QString page = server.address("/page");
        ProgramRun run;
        QVERIFY(run.run({option("--url"), page}));
        QCOMPARE(withoutProgress(run.errorOutput()),
                 parsingLine(page) + "videoUrl: " + composedLine(address)
                     + recordLine(server.address("/clip.mp4"), video.size(), "mp4")
                     + fixedLine("start download video ...")
                     + fixedLine("video download finished:success")
                     + fixedLine("detach sharememory"));
        QVERIFY(run.fileContent(videoPath(page)) == video);
    }

    void aVideoThatAScriptAsksForIsFound()
    {
        ScriptedServer server;
        const QString page =
            servePage(server, m_video, [this](const HttpRequest &) { return mediaReply(m_video); });
        server.on("/where", mediaReply("/v.mp4", "text/plain"));
        server.on("/page",
                  htmlReply("<body><script>var x = new XMLHttpRequest();"
                            "x.open('GET', '/where', false); x.send();"
                            "var v = document.createElement('video');"
                            "v.src = x.responseText; v.autoplay = true;"
                            "document.body.appendChild(v);</script>"));
        ProgramRun run;
        QVERIFY(run.run({option("--url"), page}));
        QCOMPARE(withoutProgress(run.errorOutput()), videoRun(server, page, "success"));
    }

    void theProxyCarriesEveryRequest()
    {
        ScriptedServer proxy;
        const QByteArray video = m_video;
        proxy.onOther([&video](const HttpRequest &request) {
            return request.target.endsWith(".mp4") ? mediaReply(video)
                                                   : htmlReply(videoPage("/v.mp4"));
        });
        ScriptedServer direct;
        const QString page = direct.address("/page");
        ProgramRun run;
        QVERIFY(run.run({option("--url"), page, option("--proxy"),
                         QStringLiteral("3:127.0.0.1:%1").arg(proxy.port())}));
        QCOMPARE(withoutProgress(run.errorOutput()), videoRun(direct, page, "success"));
        QCOMPARE(direct.requests().size(), 0);
        QVERIFY(run.fileContent(videoPath(page)) == video);
    }

    void proxiesOfTheEnvironmentAreNotUsed()
    {
        ScriptedServer proxy;
        ScriptedServer server;
        const QString page =
            servePage(server, m_video, [this](const HttpRequest &) { return mediaReply(m_video); });
        ProgramRun run;
        for (const char *name : {"http_proxy", "HTTP_PROXY", "all_proxy"})
            run.setEnvironment(option(name),
                               QStringLiteral("http://127.0.0.1:%1").arg(proxy.port()));
        run.setEnvironment(option("no_proxy"), QString());
        QVERIFY(run.run({option("--url"), page}));
        QCOMPARE(withoutProgress(run.errorOutput()), videoRun(server, page, "success"));
        QCOMPARE(proxy.requests().size(), 0);
    }

    void theDownloadCarriesTheSessionOfItsPage()
    {
        ScriptedServer server;
        QByteArray cookie;
        const QString page = servePage(server, m_video, [&](const HttpRequest &request) {
            cookie = request.header("Cookie");
            return mediaReply(m_video);
        });
        HttpReply reply = htmlReply(videoPage("/v.mp4"));
        reply.headers += qMakePair(QByteArray("Set-Cookie"), QByteArray("sid=7; Path=/"));
        reply.headers +=
            qMakePair(QByteArray("Set-Cookie"), QByteArray("kept=1; Path=/; Max-Age=3600"));
        server.on("/page", reply);
        ProgramRun run;
        QVERIFY(run.run({option("--url"), page}));
        QVERIFY(cookie.contains("sid=7"));
        QVERIFY(cookie.contains("kept=1"));
        const QByteArray stored = run.fileContent(option("cookies.txt"));
        QVERIFY(stored.contains("\tkept\t1\n"));
        QVERIFY(!stored.contains("sid"));
    }
};

CLIPWEIR_TEST_MAIN(tst_RunDownloads)
#include "tst_run_downloads.moc"
