#include "PageRun.h"
#include "ProgramRun.h"
#include "ScriptedServer.h"
#include "TestFiles.h"
#include "TestMain.h"

/// Runs that begin with one engine and may go over to the other.
class tst_RunAuto : public QObject
{
    Q_OBJECT

private slots:
    /// One line, one record, whichever engine has loaded the page how often.
    void aPageThatIsTooNewIsLoadedAgain()
    {
        const QByteArray video = testBytes(6 << 20);
        ScriptedServer server;
        server.on("/page",
                  htmlReply("<title>New</title><script type=module>"
                            "const load = async () => { await fetch('/v.mp4') }; "
                            "await load()</script>"));
        server.serve("/v.mp4", video, "video/mp4");
        ProgramRun run;
        QVERIFY(run.run({option("--url"), server.address("/page"), option("--engine"),
                         option("auto"), option("--saveto"), run.path(option("v.mp4"))}));
        QCOMPARE(run.exitCode(), 0);
        QCOMPARE(withoutProgress(run.errorOutput()),
                 parsingLine(server.address("/page"))
                     + recordLine(server.address("/v.mp4"), video.size(), "mp4", {}, "New")
                     + fixedLine("start download video ...")
                     + fixedLine("video download finished:success")
                     + fixedLine("detach sharememory"));
        QCOMPARE(run.fileContent(option("v.mp4")), video);
        QCOMPARE(server.requestsFor("/page").size(), 2);
    }

    void aPageThatIsOldEnoughIsLoadedOnce()
    {
        const QByteArray video = testBytes(6 << 20);
        ScriptedServer server;
        server.on("/page", htmlReply(videoPage("/v.mp4")));
        server.serve("/v.mp4", video, "video/mp4");
        ProgramRun run;
        QVERIFY(run.run({option("--url"), server.address("/page"), option("--engine"),
                         option("auto"), option("--saveto"), run.path(option("v.mp4"))}));
        QCOMPARE(run.fileContent(option("v.mp4")), video);
        const QList<HttpRequest> pages = server.requestsFor("/page");
        QCOMPARE(pages.size(), 1);
        QVERIFY(!pages.first().header("User-Agent").contains("X11; Linux"));
    }

    void aStopReachesEitherEngine()
    {
        ScriptedServer server;
        server.on("/page",
                  htmlReply("<script>x => x; </script><script>fetch('/sign');"
                            "for (;;);</script>"));
        ProgramRun run;
        run.start({option("--url"), server.address("/page"), option("--engine"), option("auto")});
        QTRY_COMPARE_WITH_TIMEOUT(server.requestsFor("/sign").size(), 1, 30000);
        QVERIFY(askToExit(server.address("/page")));
        QVERIFY(run.waitForEnd());
        QVERIFY2(run.errorOutput().contains(fixedLine("exiting...")), run.errorOutput());
        QCOMPARE(run.exitCode(), 0);
    }
};

CLIPWEIR_TEST_MAIN(tst_RunAuto)
#include "tst_run_auto.moc"
