#include "HdsFixtures.h"
#include "PageRun.h"
#include "TestMain.h"

#include <QDir>
#include <QElapsedTimer>
#include <QPointer>
#include <QSharedMemory>

#include <sys/prctl.h>
#include <sys/wait.h>

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

QByteArray exitingLines()
{
    return fixedLine("exiting...") + fixedLine("detach sharememory");
}

bool isBlockThere(const QString &page)
{
    return QSharedMemory(QStringLiteral("SM_") + pageHash(page)).attach();
}

/// A process whose parent has died. It may have become a child of this one.
class Orphan final
{
public:
    explicit Orphan(pid_t pid)
        : m_pid(pid)
    {
    }

    [[nodiscard]] bool hasEnded() const
    {
        if (m_pid <= 0)
            return false;
        ::waitpid(m_pid, nullptr, WNOHANG);
        QFile file(QStringLiteral("/proc/%1/stat").arg(m_pid));
        if (!file.open(QIODevice::ReadOnly))
            return true;
        const QByteArray line = file.readAll();
        return line.isEmpty() || line.mid(line.lastIndexOf(')')).startsWith(") Z");
    }

private:
    pid_t m_pid;
};

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

    void theDeadlineEndsTheRun_data()
    {
        QTest::addColumn<QByteArray>("state");
        QTest::addColumn<int>("seconds");
        QTest::newRow("page held") << QByteArray("page") << 2;
        QTest::newRow("endless script") << QByteArray("script") << 3;
        QTest::newRow("synchronous request held") << QByteArray("synchronous") << 3;
        QTest::newRow("probe held, in a nested loop") << QByteArray("probe") << 6;
        QTest::newRow("video stalled") << QByteArray("video") << 6;
        QTest::newRow("video trickling") << QByteArray("trickle") << 6;
    }

    void theDeadlineEndsTheRun()
    {
        QFETCH(QByteArray, state);
        QFETCH(int, seconds);
        ScriptedServer server;
        const QString page = server.address("/page");
        QStringList options{option("--url"), page, option("--log"), option("--deadline"),
                            QString::number(seconds)};
        QByteArray lines = parsingLine(page);
        server.hold("/held");
        server.hold("/held.mp4");
        if (state == "page") {
            server.hold("/page");
        } else if (state == "script") {
            server.on("/page", htmlReply("<script>for (;;) { }</script>"));
        } else if (state == "synchronous") {
            server.on(
                "/page",
                htmlReply(pageThatShowsTheVideoAfter("x.open('GET', '/held', false); x.send();")));
        } else if (state == "probe") {
            server.on("/page",
                      htmlReply("<p title='" + server.address("/held.mp4").toUtf8() + "'>"));
        } else {
            servePage(server, m_video, [&](const HttpRequest &) {
                HttpReply reply = mediaReply(m_video);
                reply.pieceBytes = state == "trickle" ? 100 : 0;
                reply.pieceDelayMs = 100;
                reply.holdAfterBytes = sentBytes;
                return reply;
            });
            options += {option("--timeout"), option("2")};
            lines += recordLine(server.address("/v.mp4"), videoBytes, "mp4")
                + fixedLine("start download video ...");
        }
        ProgramRun run;
        QElapsedTimer clock;
        clock.start();
        QVERIFY(run.run(options));
        QVERIFY(clock.elapsed() >= seconds * 1000);
        qInfo("%lld ms after the deadline",
              static_cast<long long>(clock.elapsed() - seconds * 1000));
        QCOMPARE(withoutProgress(run.errorOutput()), lines + exitingLines());
        QCOMPARE(run.exitCode(), 0);
        QVERIFY(run.endedNormally());
        QCOMPARE(run.fileContent(csvPath()).count('\n'), 2);
        QVERIFY(run.fileContent(csvPath()).contains(",N,"));
        QVERIFY(!isBlockThere(page));
        if (state == "probe")
            QCOMPARE(server.requestsFor("/held.mp4").size(), 1);
        const QByteArray partial = run.fileContent(videoPath(page));
        QVERIFY(m_video.startsWith(partial));
        if (state == "video")
            QCOMPARE(partial.size(), sentBytes);
        if (state == "trickle")
            QVERIFY(!partial.isEmpty());
    }

    void theDeadlineEndsAStream()
    {
        ScriptedServer server;
        const QString page = server.address("/page");
        server.on("/page",
                  htmlReply("<script>var x = new XMLHttpRequest();"
                            "x.open('GET', '/s/m.f4m'); x.send();</script>"));
        server.on("/s/m.f4m",
                  mediaReply(hds::manifest("stream", hds::simpleBootstrap(3)), "video/f4m"));
        server.on("/s/streamSeg1-Frag1", mediaReply(hds::numberedFragment(1)));
        server.hold("/s/streamSeg1-Frag2");
        server.on("/s/streamSeg1-Frag3", mediaReply(hds::numberedFragment(3)));
        ProgramRun run;
        QVERIFY(run.run({option("--url"), page, option("--f4f"), option("--log"),
                         option("--deadline"), option("6")}));
        QVERIFY2(run.errorOutput().endsWith(exitingLines()), run.errorOutput());
        QVERIFY(run.errorOutput().contains(composedLine("downloaded:1/3")));
        QVERIFY(!run.errorOutput().contains("finished"));
        QCOMPARE(run.fileContent(csvPath()).count('\n'), 2);
        QString error;
        const auto tags =
            hds::readFlv(run.fileContent(option("tmp/") + pageHash(page) + option(".flv")), error);
        QCOMPARE(tags.size(), 2); // what came before the fragment that is missing
        const QDir cache(run.path(option("tmp/f4ftmp")));
        QCOMPARE(cache.entryList({option("*Frag3")}, QDir::Files).size(), 1);
    }

    void theRunEndsAfterItsHost_data()
    {
        QTest::addColumn<bool>("isBusy");
        QTest::addColumn<bool>("isAdopted");
        QTest::newRow("page held") << false << false;
        QTest::newRow("endless script") << true << false;
        QTest::newRow("page held, adopted by a subreaper") << false << true;
        QTest::newRow("endless script, adopted by a subreaper") << true << true;
    }

    void theRunEndsAfterItsHost()
    {
        QFETCH(bool, isBusy);
        QFETCH(bool, isAdopted);
        QCOMPARE(::prctl(PR_SET_CHILD_SUBREAPER, isAdopted, 0, 0, 0), 0);
        ScriptedServer server;
        const QString page = server.address("/page");
        if (isBusy)
            server.on("/page", htmlReply("<script>for (;;) { }</script>"));
        else
            server.hold("/page");
        ProgramRun run;
        run.startUnderHost({option("--url"), page, option("--log"), option("--parent")});
        QTRY_VERIFY_WITH_TIMEOUT(!server.requests().isEmpty(), 30000);
        QVERIFY(!run.fileContent(option("lines")).contains("exiting"));
        run.process().kill();
        const Orphan orphan(run.fileContent(option("pid")).toInt());
        QTRY_VERIFY_WITH_TIMEOUT(orphan.hasEnded(), 20000);
        ::prctl(PR_SET_CHILD_SUBREAPER, 0, 0, 0, 0);
        QCOMPARE(run.fileContent(option("lines")), parsingLine(page) + exitingLines());
        QCOMPARE(run.fileContent(csvPath()).count('\n'), 2);
        QVERIFY(!isBlockThere(page));
    }

    void withoutTheOptionTheRunOutlivesItsHost()
    {
        ScriptedServer server;
        const QString page = server.address("/page");
        QPointer<QTcpSocket> held;
        server.onRaw("/page", [&held](const HttpRequest &, QTcpSocket *socket) { held = socket; });
        ProgramRun run;
        run.startUnderHost({option("--url"), page, option("--timeout"), option("20")});
        QTRY_VERIFY_WITH_TIMEOUT(held, 30000);
        run.process().kill();
        QVERIFY(run.process().waitForFinished());
        QTRY_VERIFY(!run.fileContent(option("pid")).isEmpty());
        QVERIFY(held);
        // It still runs long after it would have looked for its host.
        const QByteArray body =
            "<script>setTimeout(function() { new Image().src = '/after'; }, 1500)</script>";
        held->write("HTTP/1.1 200 OK\r\nContent-Type: text/html\r\nConnection: close\r\n"
                    "Content-Length: "
                    + QByteArray::number(body.size()) + "\r\n\r\n" + body);
        held->disconnectFromHost();
        QTRY_VERIFY_WITH_TIMEOUT(!server.requestsFor("/after").isEmpty(), 30000);
        QVERIFY(askToExit(page));
        const Orphan orphan(run.fileContent(option("pid")).toInt());
        QTRY_VERIFY_WITH_TIMEOUT(orphan.hasEnded(), 20000);
    }
};

CLIPWEIR_TEST_MAIN(tst_RunLimits)
#include "tst_run_limits.moc"
