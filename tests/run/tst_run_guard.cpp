#include "LostVideo.h"
#include "NarrowPipe.h"
#include "PageRun.h"
#include "TestMain.h"

#include <csignal>

#include <unistd.h>

namespace {

constexpr int videoBytes = 6000000;
constexpr int longPauseMs = 8000; // more than limit and patience of the runs below together

} // namespace

/// What becomes of a run whose main thread stands still, or whose page takes all the memory.
class tst_RunGuard : public QObject
{
    Q_OBJECT

    const QByteArray m_video = testBytes(videoBytes);
    const QByteArray m_smallVideo = m_video.left(lost::smallBytes);

    QByteArray successLines(const ScriptedServer &server, const QString &page) const
    {
        return parsingLine(page) + recordLine(server.address("/v.mp4"), videoBytes, "mp4")
            + fixedLine("start download video ...") + fixedLine("video download finished:success")
            + fixedLine("detach sharememory");
    }

    static void pauseProcess(ProgramRun &run, int pauseMs = longPauseMs)
    {
        const auto pid = static_cast<pid_t>(run.process().processId());
        QCOMPARE(::kill(pid, SIGSTOP), 0);
        QTest::qWait(pauseMs);
        QCOMPARE(::kill(pid, SIGCONT), 0);
    }

private slots:
    void aStoppedProcessGoesOnWithItsDownload()
    {
        ScriptedServer server;
        const QString page = servePage(server, m_video, [this](const HttpRequest &) {
            HttpReply reply = mediaReply(m_video);
            reply.delayMs = longPauseMs;
            return reply;
        });
        ProgramRun run;
        run.start({option("--url"), page, option("--timeout"), option("5")});
        QVERIFY(run.waitForOutput("start download video"));
        pauseProcess(run);
        QVERIFY(run.waitForEnd());
        QCOMPARE(withoutProgress(run.errorOutput()), successLines(server, page));
    }

    void aProcessStoppedWhileItAnalysesTakesWhatItHasFound()
    {
        ScriptedServer server;
        const QString page =
            servePage(server, m_video, [this](const HttpRequest &) { return mediaReply(m_video); });
        ProgramRun run;
        run.start({option("--url"), page, option("--timeout"), option("5")});
        QTRY_VERIFY_WITH_TIMEOUT(!server.requestsFor("/v.mp4").isEmpty(), 30000);
        pauseProcess(run);
        QVERIFY(run.waitForEnd());
        QCOMPARE(withoutProgress(run.errorOutput()), successLines(server, page));
    }

    void aProcessStoppedBeyondItsOwnDeadlineStillTidiesUp()
    {
        ScriptedServer server;
        server.hold("/page");
        const QString page = server.address("/page");
        ProgramRun run;
        run.start({option("--url"), page, option("--log"), option("--deadline"), option("4")});
        QTRY_VERIFY_WITH_TIMEOUT(!server.requestsFor("/page").isEmpty(), 30000);
        pauseProcess(run, 10000); // beyond the last resort, too
        QVERIFY(run.waitForEnd());
        QCOMPARE(run.errorOutput(),
                 parsingLine(page) + fixedLine("exiting...") + fixedLine("detach sharememory"));
        QCOMPARE(run.fileContent(csvPath()).count('\n'), 2);
    }

    void aDiskMayTakeItsTime()
    {
        ScriptedServer server;
        const QString page =
            servePage(server, m_video, [this](const HttpRequest &) { return mediaReply(m_video); });
        ProgramRun run;
        run.setEnvironment(option("LD_PRELOAD"), option(SLOW_DISK));
        run.setEnvironment(option("SLOW_DISK_SECONDS"), QString::number(longPauseMs / 1000));
        run.setEnvironment(option("ASAN_OPTIONS"), option("verify_asan_link_order=0"));
        QVERIFY(run.run({option("--url"), page, option("--timeout"), option("5")}));
        QCOMPARE(withoutProgress(run.errorOutput()), successLines(server, page));
        QVERIFY(run.fileContent(option("tmp/") + pageHash(page) + option(".mp4")) == m_video);
    }

    void aHostThatReadsLateGetsEveryLine()
    {
        ScriptedServer server;
        const QString page =
            servePage(server, m_video, [this](const HttpRequest &) { return mediaReply(m_video); });
        ProgramRun run;
        NarrowPipe pipe(run.path(option("pipe")));
        run.setLauncher({option("/bin/sh"), option("-c"), option("\"$@\" 2>pipe"), option("host")});
        run.start({option("--url"), page, option("--timeout"), option("5")});
        QTRY_COMPARE_WITH_TIMEOUT(pipe.read(), parsingLine(page), 30000);
        pipe.fill(); // what comes next is the record
        QTest::qWait(longPauseMs);
        QTRY_VERIFY_WITH_TIMEOUT((pipe.read(), run.process().state() == QProcess::NotRunning),
                                 30000);
        QCOMPARE(withoutProgress(pipe.read()), successLines(server, page));
    }

    void aFoundVideoIsNoFailedParse()
    {
        ScriptedServer server;
        const QString page = lost::serveSmallVideo(server, m_smallVideo, "for (;;) { }");
        ProgramRun run;
        QVERIFY(
            run.run({option("--url"), page, option("--timeout"), option("8"), option("--log")}));
        QCOMPARE(run.errorOutput(), parsingLine(page) + lost::lines(server));
        QCOMPARE(run.exitCode(), 0);
        QCOMPARE(run.fileContent(csvPath()).count('\n'), 2);
    }

    void aPageOverItsMemoryIsLeft_data()
    {
        QTest::addColumn<QByteArray>("script");
        QTest::addColumn<QByteArray>("end");
        const QByteArray piece = "var kept = []; function take() { var a = new Float64Array(1e6);"
                                 " for (var i = 0; i < a.length; i++) a[i] = i; kept.push(a); } ";
        QTest::newRow("with time for others")
            << piece + "setInterval(take, 1);" << QByteArray("success");
        QTest::newRow("without") << piece + "for (;;) { try { take(); } catch (e) { } }"
                                 << QByteArray("failed");
        QTest::newRow("without, and it ends by itself")
            << piece + "setTimeout(function() { for (;;) take(); }, 100);" << QByteArray();
    }

    void aPageOverItsMemoryIsLeft()
    {
        QFETCH(QByteArray, script);
        QFETCH(QByteArray, end);
        ScriptedServer server;
        const QString page = lost::serveSmallVideo(server, m_smallVideo, script);
        ProgramRun run;
        QVERIFY(
            run.run({option("--url"), page, option("--memory"), option("700"), option("--log")}));
        const auto endsAs = [&run](const QByteArray &result) {
            return run.errorOutput().endsWith(fixedLine("video download finished:" + result)
                                              + fixedLine("detach sharememory"));
        };
        // Memory that the system refuses may end the script before the guard ends the run.
        QVERIFY2(end.isEmpty() ? endsAs("success") || endsAs("failed") : endsAs(end),
                 run.errorOutput());
        QVERIFY(run.fileContent(option("tmp/logs/") + pageHash(page) + option(".log"))
                    .contains("the page takes more than 700 MiB of memory"));
    }
};

CLIPWEIR_TEST_MAIN(tst_RunGuard)
#include "tst_run_guard.moc"
