#include "HdsFixtures.h"
#include "LostVideo.h"
#include "PageRun.h"
#include "TestFiles.h"
#include "TestMain.h"

#include <QJsonDocument>

#include <csignal>

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

namespace {

constexpr int videoBytes = 6000000;

} // namespace

/// Whole runs with "--strict": the exit code tells what became of them, and so does the last event.
class tst_RunStrict : public QObject
{
    Q_OBJECT

    const QByteArray m_video = testBytes(videoBytes);
    ScriptedServer *m_server = nullptr;
    ProgramRun *m_run = nullptr;
    QString m_page;

    static QStringList options(const QString &page, const QStringList &more = {})
    {
        return QStringList{option("--url"), page, option("--strict"), option("--events")} + more;
    }

    /// Whether the run ended with that class, and the event says the same.
    bool endedAs(const char *runClass, int exitCode, const QByteArray &lastLine) const
    {
        const QJsonObject result = m_run->events("result").value(0);
        const bool isTold = result.value(option("class")).toString() == QLatin1String(runClass)
            && result.value(option("exitCode")).toInt() == exitCode;
        const bool isEnd = m_run->endedNormally() && m_run->exitCode() == exitCode;
        const bool isSaid =
            m_run->errorOutput().endsWith(fixedLine(lastLine) + fixedLine("detach sharememory"));
        if (isTold && isEnd && isSaid)
            return true;
        qWarning("exit code %d, result %s, lines:\n%s", m_run->exitCode(),
                 QJsonDocument(result).toJson().constData(), m_run->errorOutput().constData());
        return false;
    }

    /// The first process of an engine below a run; 0 for none.
    static pid_t engineOf(pid_t run)
    {
        QList<pid_t> waiting{run};
        while (!waiting.isEmpty()) {
            const QString task = QStringLiteral("/proc/%1/").arg(waiting.takeFirst());
            if (readFile(task + option("cmdline")).contains("chromium-headless-shell"))
                return task.section(QLatin1Char('/'), 2, 2).toInt();
            const QDir threads(task + option("task"));
            for (const QString &thread : threads.entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
                const QByteArray children =
                    readFile(threads.filePath(thread) + option("/children"));
                for (const QByteArray &child : children.simplified().split(' '))
                    waiting += child.isEmpty() ? QList<pid_t>() : QList<pid_t>{child.toInt()};
            }
        }
        return 0;
    }

    void serveStream(int fragments, const QList<int> &there)
    {
        m_page = m_server->address("/page");
        m_server->on("/page",
                     htmlReply("<script>var x = new XMLHttpRequest();"
                               "x.open('GET', '/s/m.f4m'); x.send();</script>"));
        m_server->on(
            "/s/m.f4m",
            mediaReply(hds::manifest("stream", hds::simpleBootstrap(fragments)), "video/f4m"));
        for (const int i : there)
            m_server->on("/s/streamSeg1-Frag" + QByteArray::number(i),
                         mediaReply(hds::numberedFragment(i), "video/f4f"));
    }

private slots:
    void init()
    {
        m_server = new ScriptedServer(this);
        m_run = new ProgramRun;
    }

    void cleanup()
    {
        delete m_run;
        m_run = nullptr;
        delete m_server;
        m_server = nullptr;
    }

    void downloads_data()
    {
        QTest::addColumn<HttpReply>("reply");
        QTest::addColumn<QByteArray>("runClass");
        QTest::addColumn<int>("exitCode");
        QTest::addColumn<QByteArray>("outcome");
        QTest::newRow("whole") << mediaReply(m_video) << QByteArray("complete") << 0
                               << QByteArray("success");
        HttpReply lengthless = mediaReply(m_video);
        lengthless.withoutLength = true;
        QTest::newRow("whole, without a length")
            << lengthless << QByteArray("complete") << 0 << QByteArray("success");
        HttpReply refused = mediaReply("<p>no");
        refused.status = 403;
        QTest::newRow("403") << refused << QByteArray("refused") << 33 << QByteArray("failed");
        refused.status = 503;
        QTest::newRow("503") << refused << QByteArray("refused") << 33 << QByteArray("failed");
        HttpReply loop;
        loop.status = 302;
        loop.headers = {{"Location", "/v.mp4"}};
        QTest::newRow("redirect loop")
            << loop << QByteArray("refused") << 33 << QByteArray("failed");
        HttpReply cut = mediaReply(m_video);
        cut.cutAfterBytes = 100000;
        QTest::newRow("cut") << cut << QByteArray("brokenOff") << 34 << QByteArray("failed");
        HttpReply lying = mediaReply(m_video.left(50000));
        lying.headers += qMakePair(QByteArray("Content-Length"), QByteArray("6000000"));
        QTest::newRow("shorter than it says")
            << lying << QByteArray("brokenOff") << 34 << QByteArray("failed");
        HttpReply silent = mediaReply(m_video);
        silent.holdAfterBytes = 100000;
        QTest::newRow("silent") << silent << QByteArray("brokenOff") << 34 << QByteArray("failed");
        QTest::newRow("shorter than it was")
            << mediaReply(m_video.left(50000)) << QByteArray("incomplete") << 35
            << QByteArray("failed");
        HttpReply shortLengthless = mediaReply(m_video.left(50000));
        shortLengthless.withoutLength = true;
        QTest::newRow("cut, without a length")
            << shortLengthless << QByteArray("incomplete") << 35 << QByteArray("failed");
        HttpReply empty;
        empty.status = 204;
        QTest::newRow("204") << empty << QByteArray("incomplete") << 35 << QByteArray("failed");
    }

    void downloads()
    {
        QFETCH(HttpReply, reply);
        QFETCH(QByteArray, runClass);
        QFETCH(int, exitCode);
        QFETCH(QByteArray, outcome);
        m_page = servePage(*m_server, m_video, [&reply](const HttpRequest &) { return reply; });
        QVERIFY(m_run->run(options(m_page, {option("--stall"), option("2")})));
        QVERIFY(endedAs(runClass, exitCode, "video download finished:" + outcome));
        if (exitCode != 0)
            QVERIFY(m_run->events("result").value(0).value(option("sha256")).isNull());
    }

    void aSecondBeginning()
    {
        m_page = servePage(*m_server, m_video,
                           [this](const HttpRequest &) { return mediaReply(m_video); });
        const QString path = m_run->path(option("v.mp4"));
        QFile before(path);
        QVERIFY(before.open(QIODevice::WriteOnly));
        before.write("something else");
        before.close();
        QVERIFY(m_run->run(options(m_page, {option("--saveto"), path})));
        QVERIFY(endedAs("incomplete", 35, "video download finished:failed"));
    }

    void runsThatDoNotBegin_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<QByteArray>("runClass");
        QTest::addColumn<int>("exitCode");
        const QString page = uniquePageUrl();
        QTest::newRow("no display") << QStringList{option("--url"), page, option("--show")}
                                    << QByteArray("noDisplay") << 12;
        QTest::newRow("no folder")
            << QStringList{option("--url"), page, option("--saveto"), option("/none/v.mp4")}
            << QByteArray("noOutputFolder") << 13;
        QTest::newRow("no address") << QStringList() << QByteArray("noPageUrl") << 14;
    }

    void runsThatDoNotBegin()
    {
        QFETCH(QStringList, arguments);
        QFETCH(QByteArray, runClass);
        QFETCH(int, exitCode);
        m_run->setEnvironment(option("DISPLAY"), option(":4711"));
        m_run->setEnvironment(option("QT_QPA_PLATFORM"), QString());
        QVERIFY(m_run->run(arguments + QStringList{option("--strict"), option("--events")}));
        QCOMPARE(m_run->exitCode(), exitCode);
        const QJsonObject result = m_run->events("result").value(0);
        QCOMPARE(result.value(option("class")).toString().toLatin1(), runClass);
        QCOMPARE(result.value(option("exitCode")).toInt(), exitCode);
    }

    void noArguments()
    {
        QVERIFY(m_run->run({}));
        QCOMPARE(m_run->exitCode(), 23);
    }

    void aPageWithoutAVideo()
    {
        m_server->on("/page", htmlReply("<p>nothing"));
        m_page = m_server->address("/page");
        QVERIFY(m_run->run(options(m_page, {option("--timeout"), option("2")})));
        QVERIFY(endedAs("nothingFound", 31, "parse failed"));
    }

    void aPageThatCannotBeLoaded_data()
    {
        QTest::addColumn<bool>("isHeld");
        QTest::newRow("nobody listens") << false;
        QTest::newRow("no answer") << true;
    }

    void aPageThatCannotBeLoaded()
    {
        QFETCH(bool, isHeld);
        m_server->hold("/held");
        m_page = isHeld ? m_server->address("/held") : uniquePageUrl();
        QVERIFY(m_run->run(options(m_page, {option("--timeout"), option("2")})));
        QVERIFY(endedAs("pageUnreached", 32, "parse failed"));
    }

    void aStreamWithMissingParts()
    {
        serveStream(3, {1, 3});
        QVERIFY(m_run->run(options(m_page, {option("--f4f")})));
        QVERIFY(endedAs("incomplete", 35, "video download finished:failed"));
    }

    void aWholeStream()
    {
        serveStream(3, {1, 2, 3});
        QVERIFY(m_run->run(options(m_page, {option("--f4f")})));
        QVERIFY(endedAs("complete", 0, "video download finished:success"));
        QVERIFY(!m_run->events("result").value(0).value(option("sha256")).isNull());
    }

    void aProtectedStream()
    {
        m_server->on("/p.m3u8",
                     mediaReply("#EXTM3U\n#EXT-X-TARGETDURATION:1\n#EXT-X-KEY:METHOD=SAMPLE-AES,"
                                "URI=\"skd://1\",KEYFORMAT=\"com.apple.streamingkeydelivery\"\n"
                                "#EXTINF:1,\ns00.ts\n#EXT-X-ENDLIST\n",
                                "application/vnd.apple.mpegurl"));
        m_server->on("/page",
                     htmlReply("<script>var x = new XMLHttpRequest();"
                               "x.open('GET', '/p.m3u8'); x.send();</script>"));
        m_page = m_server->address("/page");
        QVERIFY(
            m_run->run(options(m_page, {option("--streams"), option("--timeout"), option("3")})));
        QVERIFY(endedAs("protected", 36, "video download finished:failed"));
    }

    void aFullDisk()
    {
        m_page = servePage(*m_server, m_video,
                           [this](const HttpRequest &) { return mediaReply(m_video); });
        const QString path = m_run->path(option("full.mp4"));
        QVERIFY(QFile::link(option("/dev/full"), path));
        QVERIFY(m_run->run(options(m_page, {option("--saveto"), path})));
        QVERIFY(endedAs("disk", 37, "video download finished:failed"));
    }

    void aFileThatAnotherRunWrites()
    {
        m_page = servePage(*m_server, m_video,
                           [this](const HttpRequest &) { return mediaReply(m_video); });
        const QString path = m_run->path(option("v.mp4"));
        const int fd = ::open(QFile::encodeName(path).constData(), O_WRONLY | O_CREAT, 0600);
        QVERIFY(fd >= 0 && ::flock(fd, LOCK_EX) == 0);
        const bool hasRun = m_run->run(options(m_page, {option("--saveto"), path}));
        ::close(fd);
        QVERIFY(hasRun);
        QVERIFY(endedAs("busy", 38, "video download finished:failed"));
        QCOMPARE(m_run->fileContent(option("v.mp4")), QByteArray());
    }

    void anAddressOfAnotherKind()
    {
        const QByteArray description = QByteArray(
            "{\"sequence\":[{\"layerList\":[{\"sequenceList\":[{\"name\":\"main\",\"layerList\":"
            "[{\"name\":\"video\",\"param\":{\"ldURL\":\"rtmp://127.0.0.1/live\"}}]}]}]}]}");
        m_server->on("/page",
                     htmlReply("<html lang=en><body><object><param name=flashvars value='sequence="
                               + description.toPercentEncoding() + "'></object>"));
        m_page = m_server->address("/page");
        QVERIFY(m_run->run(options(m_page, {option("--timeout"), option("6")})));
        QVERIFY(endedAs("unsupported", 39, "video download finished:failed"));
    }

    void aStopRequest()
    {
        m_page = serveStalling(*m_server, m_video, 1000);
        m_run->start(options(m_page));
        QVERIFY(m_run->waitForOutput("start download video"));
        QVERIFY(askToExit(m_page));
        QVERIFY(m_run->waitForEnd());
        QVERIFY(endedAs("stopped", 40, "exiting..."));
    }

    void aDeadline()
    {
        m_page = serveStalling(*m_server, m_video, 1000);
        QVERIFY(m_run->run(options(m_page, {option("--deadline"), option("5")})));
        QVERIFY(endedAs("deadline", 41, "exiting..."));
    }

    void aDeadlineOfAStuckPage()
    {
        m_server->on("/page", htmlReply("<script>for (;;) { }</script>"));
        m_page = m_server->address("/page");
        QVERIFY(m_run->run(options(m_page, {option("--deadline"), option("4")})));
        QVERIFY(endedAs("deadline", 41, "exiting..."));
    }

    void anEngineThatHangs_data()
    {
        QTest::addColumn<bool>("hasVideo");
        QTest::newRow("with a video") << true;
        QTest::newRow("without") << false;
    }

    void anEngineThatHangs()
    {
        QFETCH(bool, hasVideo);
        const QByteArray endless = "for (;;) { }";
        if (hasVideo) {
            m_page = lost::serveSmallVideo(*m_server, m_video.left(lost::smallBytes), endless);
        } else {
            m_server->on("/page", htmlReply("<script>" + endless + "</script>"));
            m_page = m_server->address("/page");
        }
        QVERIFY(m_run->run(options(m_page, {option("--timeout"), option("3")})));
        QVERIFY(endedAs("engineLost", 42,
                        hasVideo ? "video download finished:failed" : "parse failed"));
    }

    /// The one that is a program of its own, whichever the test is run over.
    void anEngineThatDies_data()
    {
        QTest::addColumn<bool>("hasVideo");
        QTest::newRow("with a video") << true;
        QTest::newRow("without") << false;
    }

    void anEngineThatDies()
    {
        QFETCH(bool, hasVideo);
        if (hasVideo)
            m_page = lost::serveSmallVideo(*m_server, m_video.left(lost::smallBytes),
                                           "new Image().src = '/loaded';");
        else
            m_server->on("/page", htmlReply("<script>new Image().src = '/loaded';</script>"));
        m_page = m_server->address("/page");
        m_run->start(options(m_page,
                             {option("--engine"), option("chromium"), option("--keepimage"),
                              option("--timeout"), option("30")}));
        QTRY_VERIFY_WITH_TIMEOUT(!m_server->requestsFor("/loaded").isEmpty(), 30000);
        const pid_t engine = engineOf(static_cast<pid_t>(m_run->process().processId()));
        QVERIFY(engine > 0);
        QCOMPARE(::kill(engine, SIGKILL), 0);
        QVERIFY(m_run->waitForEnd());
        // What is known by then is fetched all the same.
        if (hasVideo)
            QVERIFY(endedAs("complete", 0, "video download finished:success"));
        else
            QVERIFY(endedAs("engineLost", 42, "parse failed"));
    }

    void anEngineThatIsNotThere()
    {
        writeFile(m_run->path(option("config/clipweir.conf")), "[engine]\nchromium=/none/engine\n");
        m_server->on("/page", htmlReply("<p>nothing"));
        m_page = m_server->address("/page");
        QVERIFY(m_run->run(options(m_page, {option("--engine"), option("chromium")})));
        QCOMPARE(m_run->exitCode(), 11);
        QCOMPARE(m_run->events("result").value(0).value(option("class")).toString(),
                 option("engineMissing"));
        QCOMPARE(m_run->events("engineMissing").value(0).value(option("path")).toString(),
                 option("/none/engine"));
    }

    void withoutTheOptionTheCodeIsNought()
    {
        m_page = servePage(*m_server, m_video, [](const HttpRequest &) {
            HttpReply reply = mediaReply("no");
            reply.status = 404;
            return reply;
        });
        QVERIFY(m_run->run({option("--url"), m_page, option("--events")}));
        QVERIFY(endedAs("refused", 0, "video download finished:failed"));
    }
};

CLIPWEIR_TEST_MAIN(tst_RunStrict)
#include "tst_run_strict.moc"
