#include "PageRun.h"
#include "TestMain.h"

#include <QSharedMemory>

#include <csignal>

namespace {

constexpr int videoBytes = 6000000;

QByteArray exitingLines()
{
    return fixedLine("exiting...") + fixedLine("detach sharememory");
}

} // namespace

/// Runs that are asked to end, at every kind of moment. Each must end by itself, in order, without
/// losing what is on disk.
class tst_RunStop : public QObject
{
    Q_OBJECT

    const QByteArray m_video = testBytes(videoBytes);

    /// Waits for the request and asks the run to end; the whole output must be the lines given
    /// and the two of an exit.
    static void stopAt(ScriptedServer &server, const QByteArray &path, ProgramRun &run,
                       const QString &page, const QByteArray &linesBefore)
    {
        QTRY_VERIFY_WITH_TIMEOUT(!server.requestsFor(path).isEmpty(), 30000);
        QVERIFY(askToExit(page));
        QVERIFY(run.waitForEnd(20000));
        QCOMPARE(withoutProgress(run.errorOutput()), linesBefore + exitingLines());
        QCOMPARE(run.exitCode(), 0);
        QVERIFY(run.endedNormally());
    }

private slots:
    void whileThePageLoads()
    {
        ScriptedServer server;
        server.hold("/page");
        const QString page = server.address("/page");
        ProgramRun run;
        run.start({option("--url"), page, option("--log")});
        stopAt(server, "/page", run, page, parsingLine(page));
        // One row, and not more than one.
        QCOMPARE(run.fileContent(csvPath()).count('\n'), 2);
    }

    void whileAnEndlessScriptRuns()
    {
        ScriptedServer server;
        server.on("/page",
                  htmlReply("<img src=/seen><script>new Image().src='/started';"
                            "for (;;) { }</script>"));
        const QString page = server.address("/page");
        ProgramRun run;
        run.start({option("--url"), page, option("--log")});
        stopAt(server, "/page", run, page, parsingLine(page));
        QCOMPARE(run.fileContent(csvPath()).count('\n'), 2);
    }

    void whileAScriptWaitsForAHeldAnswer()
    {
        ScriptedServer server;
        server.on("/page",
                  htmlReply("<script>var x = new XMLHttpRequest();"
                            "x.open('GET', '/held', false); x.send();</script>"));
        server.hold("/held");
        const QString page = server.address("/page");
        ProgramRun run;
        run.start({option("--url"), page});
        stopAt(server, "/held", run, page, parsingLine(page));
    }

    void whileAProbeIsHeldDuringAScan()
    {
        ScriptedServer server;
        server.hold("/held.mp4");
        server.on("/page", htmlReply("<p title='" + server.address("/held.mp4").toUtf8() + "'>"));
        const QString page = server.address("/page");
        ProgramRun run;
        run.start({option("--url"), page});
        stopAt(server, "/held.mp4", run, page, parsingLine(page));
    }

    void whileAProbeIsHeldDuringTheSelection()
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
        run.start({option("--url"), page, option("--timeout"), option("2")});
        QTRY_VERIFY_WITH_TIMEOUT(requestsSeen > 0 && isFromDownloader(server.requests().last()),
                                 30000);
        stopAt(server, "/v.mp4", run, page, parsingLine(page));
    }

    void whileADownloadIsStalled()
    {
        ScriptedServer server;
        const QString page = serveStalling(server, m_video, 300000);
        ProgramRun run;
        run.start({option("--url"), page});
        const QString path = option("tmp/") + pageHash(page) + option(".mp4");
        QTRY_COMPARE_WITH_TIMEOUT(run.fileContent(path).size(), 300000, 30000);
        stopAt(server, "/v.mp4", run, page,
               parsingLine(page) + recordLine(server.address("/v.mp4"), videoBytes, "mp4")
                   + fixedLine("start download video ..."));
        QVERIFY(run.fileContent(path) == m_video.left(300000));
    }

    void whileADownloadsAnswerIsHeld()
    {
        ScriptedServer server;
        const QString page = servePage(server, m_video, [this](const HttpRequest &) {
            HttpReply reply = mediaReply(m_video);
            reply.delayMs = 1000000;
            return reply;
        });
        ProgramRun run;
        run.start({option("--url"), page});
        QVERIFY(run.waitForOutput("start download video"));
        stopAt(server, "/v.mp4", run, page,
               parsingLine(page) + recordLine(server.address("/v.mp4"), videoBytes, "mp4")
                   + fixedLine("start download video ..."));
    }

    void whileTheThumbnailIsStalled()
    {
        ScriptedServer server;
        HttpReply stalled = mediaReply(testBytes(1000), "image/jpeg");
        stalled.holdAfterBytes = 500;
        server.on("/t.jpg", stalled);
        const QByteArray thumb = server.address("/t.jpg").toUtf8();
        const QString page = serveStalling(server, m_video, 300000);
        server.on("/page",
                  htmlReply(videoPage("/v.mp4",
                                      "<meta property=\"og:image\" content=\"" + thumb + "\">")));
        ProgramRun run;
        run.start({option("--url"), page, option("--thumb")});
        const QString name = option("tmp/") + pageHash(page);
        QTRY_COMPARE_WITH_TIMEOUT(run.fileContent(name + option(".thumb")).size(), 500, 30000);
        QTRY_COMPARE_WITH_TIMEOUT(run.fileContent(name + option(".mp4")).size(), 300000, 30000);
        stopAt(server, "/t.jpg", run, page,
               parsingLine(page) + recordLine(server.address("/v.mp4"), videoBytes, "mp4", thumb)
                   + fixedLine("start download thumb ...") + fixedLine("start download video ..."));
        QVERIFY(!QFile::exists(run.path(name + option(".thumb"))));
        QVERIFY(run.fileContent(name + option(".mp4")) == m_video.left(300000));
    }

    void aServerThatVanishesInsideAChunkIsGivenUp()
    {
        ScriptedServer server;
        server.on("/page", htmlReply(videoPage("/v.mp4")));
        server.onRaw("/v.mp4", [this](const HttpRequest &request, QTcpSocket *socket) {
            if (isFromDownloader(request)) {
                socket->write("HTTP/1.1 200 OK\r\nContent-Type: video/mp4\r\n"
                              "Transfer-Encoding: chunked\r\n\r\n5\r\n");
            } else {
                socket->write("HTTP/1.1 200 OK\r\nContent-Type: video/mp4\r\n"
                              "Content-Length: 6000000\r\n\r\n");
                socket->write(m_video);
            }
            socket->disconnectFromHost();
        });
        const QString page = server.address("/page");
        ProgramRun run;
        QVERIFY(run.run({option("--url"), page, option("--stall"), option("2")}));
        QVERIFY2(run.errorOutput().endsWith(fixedLine("video download finished:failed")
                                            + fixedLine("detach sharememory")),
                 run.errorOutput());
    }

    void aServerThatFallsSilentIsGivenUp()
    {
        ScriptedServer server;
        const QString page = serveStalling(server, m_video, 300000);
        ProgramRun run;
        QVERIFY(run.run({option("--url"), page, option("--stall"), option("2")}));
        QVERIFY2(run.errorOutput().endsWith(fixedLine("video download finished:failed")
                                            + fixedLine("detach sharememory")),
                 run.errorOutput());
        const QString path = option("tmp/") + pageHash(page) + option(".mp4");
        QVERIFY(run.fileContent(path) == m_video.left(300000));
    }

    void theHostMayWriteTheByteItself()
    {
        ScriptedServer server;
        server.hold("/page");
        const QString page = server.address("/page");
        ProgramRun run;
        run.start({option("--url"), page});
        QTRY_VERIFY_WITH_TIMEOUT(!server.requests().isEmpty(), 30000);
        QSharedMemory block(QStringLiteral("SM_") + pageHash(page));
        QVERIFY(block.attach());
        QCOMPARE(block.size(), 1);
        QVERIFY(block.lock());
        *static_cast<char *>(block.data()) = 1;
        QVERIFY(block.unlock());
        QVERIFY(run.waitForEnd(20000));
        QCOMPARE(run.errorOutput(), parsingLine(page) + exitingLines());
    }

    void anotherLetterCaseIsAnotherRun()
    {
        ScriptedServer server;
        server.hold("/page");
        const QString page = server.address("/page");
        ProgramRun run;
        run.start({option("--url"), page, option("--timeout"), option("4")});
        QTRY_VERIFY_WITH_TIMEOUT(!server.requests().isEmpty(), 30000);
        QVERIFY(askToExit(server.address("/Page")));
        QVERIFY(run.waitForEnd(20000));
        QCOMPARE(run.errorOutput(),
                 parsingLine(page) + fixedLine("parse failed") + fixedLine("detach sharememory"));
    }

    void aSignalEndsTheRunInOrder_data()
    {
        QTest::addColumn<int>("signalNumber");
        QTest::newRow("SIGINT") << SIGINT;
        QTest::newRow("SIGTERM") << SIGTERM;
    }

    void aSignalEndsTheRunInOrder()
    {
        QFETCH(int, signalNumber);
        ScriptedServer server;
        const QString page = serveStalling(server, m_video, 300000);
        ProgramRun run;
        run.start({option("--url"), page, option("--log")});
        const QString path = option("tmp/") + pageHash(page) + option(".mp4");
        QTRY_COMPARE_WITH_TIMEOUT(run.fileContent(path).size(), 300000, 30000);
        QCOMPARE(::kill(static_cast<pid_t>(run.process().processId()), signalNumber), 0);
        QVERIFY(run.waitForEnd(20000));
        QVERIFY(run.errorOutput().endsWith(exitingLines()));
        QVERIFY(run.endedNormally());
        QCOMPARE(run.exitCode(), 0);
        QVERIFY(run.fileContent(path) == m_video.left(300000));
        QVERIFY(run.fileContent(csvPath()).contains(",N,"));
    }

    void aSecondSignalKills()
    {
        ScriptedServer server;
        server.hold("/page");
        const QString page = server.address("/page");
        ProgramRun run;
        run.start({option("--url"), page});
        QTRY_VERIFY_WITH_TIMEOUT(!server.requests().isEmpty(), 30000);
        const auto pid = static_cast<pid_t>(run.process().processId());
        QCOMPARE(::kill(pid, SIGSTOP), 0); // so that both arrive before the first is acted upon
        QCOMPARE(::kill(pid, SIGINT), 0);
        QCOMPARE(::kill(pid, SIGCONT), 0);
        // The first is delivered as the process continues; the second finds the default action.
        while (run.process().state() == QProcess::Running) {
            ::kill(pid, SIGINT);
            QTest::qWait(1);
        }
        QVERIFY(run.waitForEnd(20000));
    }

    void theDeadlineFiresDuringAProbe()
    {
        ScriptedServer server;
        server.hold("/held.mp4");
        server.on("/page", htmlReply("<p title='" + server.address("/held.mp4").toUtf8() + "'>"));
        const QString page = server.address("/page");
        ProgramRun run;
        QVERIFY(run.run({option("--url"), page, option("--timeout"), option("5")}));
        QCOMPARE(server.requestsFor("/held.mp4").size(), 1);
        QCOMPARE(run.errorOutput(),
                 parsingLine(page) + fixedLine("parse failed") + fixedLine("detach sharememory"));
    }

    void theDeadlineFiresDuringAProbeAndDownloadsWhatIsKnown()
    {
        ScriptedServer server;
        const QByteArray video = m_video.left(2000000); // too small to count as found
        server.hold("/held.mp4");
        const QString page =
            servePage(server, video, [&video](const HttpRequest &) { return mediaReply(video); });
        server.on("/page",
                  htmlReply(videoPage("/v.mp4") + "<p title='"
                            + server.address("/held.mp4").toUtf8() + "'>"));
        ProgramRun run;
        QVERIFY(run.run({option("--url"), page, option("--timeout"), option("5")}));
        QCOMPARE(server.requestsFor("/held.mp4").size(), 1);
        QCOMPARE(withoutProgress(run.errorOutput()),
                 parsingLine(page) + recordLine(server.address("/v.mp4"), video.size(), "mp4")
                     + fixedLine("start download video ...")
                     + fixedLine("video download finished:success")
                     + fixedLine("detach sharememory"));
        QVERIFY(run.fileContent(option("tmp/") + pageHash(page) + option(".mp4")) == video);
    }

    void anEndlessScriptDoesNotOutliveTheDeadline()
    {
        ScriptedServer server;
        server.on("/page", htmlReply("<script>for (;;) { }</script>"));
        const QString page = server.address("/page");
        ProgramRun run;
        QVERIFY(run.run({option("--url"), page, option("--timeout"), option("1")}));
        QCOMPARE(run.errorOutput(),
                 parsingLine(page) + fixedLine("parse failed") + fixedLine("detach sharememory"));
        QCOMPARE(run.exitCode(), 0);
    }
};

CLIPWEIR_TEST_MAIN(tst_RunStop)
#include "tst_run_stop.moc"
