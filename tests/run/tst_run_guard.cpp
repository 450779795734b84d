#include "PageRun.h"
#include "TestMain.h"

#include <QElapsedTimer>
#include <QSharedMemory>

#include <array>
#include <csignal>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr int videoBytes = 6000000;
constexpr int smallBytes = 2000000;
constexpr int longPauseMs = 8000; // more than limit and patience of the runs below together

bool isBlockThere(const QString &page)
{
    return QSharedMemory(QStringLiteral("SM_") + pageHash(page)).attach();
}

/// A page with a video too small to end the analysis, which runs the script once the video has been
/// under way for a while.
QString serveSmallVideo(ScriptedServer &server, const QByteArray &video, const QByteArray &script)
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

/// A pipe as some hosts give it: a name in the run's folder, with room for little.
class NarrowPipe final
{
public:
    explicit NarrowPipe(const QString &path)
    {
        const QByteArray name = QFile::encodeName(path);
        ::mkfifo(name.constData(), 0600);
        m_fd = ::open(name.constData(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
        ::fcntl(m_fd, F_SETPIPE_SZ, 4096);
    }

    ~NarrowPipe() { ::close(m_fd); }
    Q_DISABLE_COPY(NarrowPipe)

    /// Leaves no room for another line.
    void fill()
    {
        while (::write(m_fd, "#", 1) == 1)
            ++m_filled;
    }

    /// What has come, without what fill() put there.
    QByteArray read()
    {
        std::array<char, 4096> bytes{};
        for (;;) {
            const ssize_t count = ::read(m_fd, bytes.data(), bytes.size());
            if (count <= 0)
                break;
            m_lines.append(bytes.data(), static_cast<int>(count));
        }
        QByteArray lines = m_lines;
        return lines.replace(QByteArray(m_filled, '#'), QByteArray());
    }

private:
    int m_fd = -1;
    int m_filled = 0;
    QByteArray m_lines;
};

} // namespace

/// What becomes of a run whose main thread stands still, whose page takes all the memory, or which
/// crashes.
class tst_RunGuard : public QObject
{
    Q_OBJECT

    const QByteArray m_video = testBytes(videoBytes);
    const QByteArray m_smallVideo = m_video.left(smallBytes);

    QByteArray successLines(const ScriptedServer &server, const QString &page) const
    {
        return parsingLine(page) + recordLine(server.address("/v.mp4"), videoBytes, "mp4")
            + fixedLine("start download video ...") + fixedLine("video download finished:success")
            + fixedLine("detach sharememory");
    }

    /// What the guard says of a video that was found and is not there.
    static QByteArray lostLines(const ScriptedServer &server)
    {
        return recordLine(server.address("/v.mp4"), smallBytes, "mp4")
                   .replace("\"selectedVideo\":0", "\"selectedVideo\":-1")
            + fixedLine("video download finished:failed") + fixedLine("detach sharememory");
    }

    static void pauseProcess(ProgramRun &run, int pauseMs = longPauseMs)
    {
        const auto pid = static_cast<pid_t>(run.process().processId());
        QCOMPARE(::kill(pid, SIGSTOP), 0);
        QTest::qWait(pauseMs);
        QCOMPARE(::kill(pid, SIGCONT), 0);
    }

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
        const QString page = serveSmallVideo(server, m_smallVideo, "for (;;) { }");
        ProgramRun run;
        QVERIFY(
            run.run({option("--url"), page, option("--timeout"), option("2"), option("--log")}));
        QCOMPARE(run.errorOutput(), parsingLine(page) + lostLines(server));
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
        QTest::newRow("without") << piece + "for (;;) take();" << QByteArray("failed");
    }

    void aPageOverItsMemoryIsLeft()
    {
        QFETCH(QByteArray, script);
        QFETCH(QByteArray, end);
        ScriptedServer server;
        const QString page = serveSmallVideo(server, m_smallVideo, script);
        ProgramRun run;
        QVERIFY(
            run.run({option("--url"), page, option("--memory"), option("700"), option("--log")}));
        QVERIFY2(run.errorOutput().endsWith(fixedLine("video download finished:" + end)
                                            + fixedLine("detach sharememory")),
                 run.errorOutput());
        QVERIFY(run.fileContent(option("tmp/logs/") + pageHash(page) + option(".log"))
                    .contains("the page takes more than 700 MiB of memory"));
    }

#ifndef CLIPWEIR_SANITIZED // which reports the crash in its own way
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
        const QString page = serveSmallVideo(server, m_smallVideo, nest);
        if (!isFound)
            server.on("/page", htmlReply("<body><script>" + nest + "</script>"));
        ProgramRun run;
        run.start({option("--url"), page, option("--log")});
        verifyCrash(run, page,
                    parsingLine(page)
                        + (isFound ? lostLines(server)
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
        const QString page = servePage(server, m_video, [this](const HttpRequest &) {
            HttpReply reply = mediaReply(m_video);
            reply.holdAfterBytes = 300000;
            return reply;
        });
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
#endif
};

CLIPWEIR_TEST_MAIN(tst_RunGuard)
#include "tst_run_guard.moc"
