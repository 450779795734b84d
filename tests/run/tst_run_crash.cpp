#include "LostVideo.h"
#include "PageRun.h"
#include "TestMain.h"

#include <QSharedMemory>

#include <csignal>

namespace {

constexpr int videoBytes = 6000000;

bool isBlockThere(const QString &page)
{
    return QSharedMemory(QStringLiteral("SM_") + pageHash(page)).attach();
}

} // namespace

/// What a host sees of a run that crashes: the last lines, the row, no stop flag, and the signal.
class tst_RunCrash : public QObject
{
    Q_OBJECT

    const QByteArray m_video = testBytes(videoBytes);
    const QByteArray m_smallVideo = m_video.left(lost::smallBytes);

    /// Waits for the end of a run that crashes. Nobody but the run itself has tidied up by then.
    static void verifyCrash(ProgramRun &run, const QString &page, const QByteArray &lines)
    {
        QTRY_COMPARE_WITH_TIMEOUT(run.process().state(), QProcess::NotRunning, 30000);
        QVERIFY(!isBlockThere(page));
        QVERIFY(!run.endedNormally());
        QCOMPARE(withoutProgress(run.errorOutput()), lines);
        QCOMPARE(run.fileContent(csvPath()).count('\n'), 2);
        QVERIFY(run.fileContent(csvPath()).contains(",N,"));
    }

private slots:
    void aCrashOfTheEngineEndsInOrder_data()
    {
        QTest::addColumn<bool>("isFound");
        QTest::newRow("before anything is found") << false;
        QTest::newRow("with a video") << true;
    }

    void aCrashOfTheEngineEndsInOrder()
    {
        QFETCH(bool, isFound);
        // More elements inside each other than the engine has stack for.
        const QByteArray nest = "var root = document.createElement('div');"
                                " for (var i = 0, e = root; i < 200000; ++i)"
                                " e = e.appendChild(document.createElement('b'));"
                                " document.body.appendChild(root); root.innerHTML;";
        ScriptedServer server;
        const QString page = lost::serveSmallVideo(server, m_smallVideo, nest);
        if (!isFound)
            server.on("/page", htmlReply("<body><script>" + nest + "</script>"));
        ProgramRun run;
        run.start({option("--url"), page, option("--log")});
        verifyCrash(run, page,
                    parsingLine(page)
                        + (isFound ? lost::lines(server)
                                   : fixedLine("parse failed") + fixedLine("detach sharememory")));
        QCOMPARE(run.exitCode(), SIGSEGV);
    }

    void aCrashDuringTheDownloadEndsInOrder_data()
    {
        QTest::addColumn<int>("signalNumber");
        QTest::newRow("SIGABRT") << SIGABRT;
        QTest::newRow("SIGBUS") << SIGBUS;
    }

    void aCrashDuringTheDownloadEndsInOrder()
    {
        QFETCH(int, signalNumber);
        ScriptedServer server;
        const QString page = serveStalling(server, m_video, 300000);
        ProgramRun run;
        run.start({option("--url"), page, option("--log")});
        const QString path = option("tmp/") + pageHash(page) + option(".mp4");
        QTRY_COMPARE_WITH_TIMEOUT(run.fileContent(path).size(), 300000, 30000);
        QCOMPARE(::kill(static_cast<pid_t>(run.process().processId()), signalNumber), 0);
        verifyCrash(run, page,
                    parsingLine(page) + recordLine(server.address("/v.mp4"), videoBytes, "mp4")
                        + fixedLine("start download video ...")
                        + fixedLine("video download finished:failed")
                        + fixedLine("detach sharememory"));
        QCOMPARE(run.exitCode(), signalNumber);
        QVERIFY(run.fileContent(path) == m_video.left(300000));
    }
};

CLIPWEIR_TEST_MAIN(tst_RunCrash)
#include "tst_run_crash.moc"
