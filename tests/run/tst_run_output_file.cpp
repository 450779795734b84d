// Whole runs whose output file is there already, in another form or in another run's hands.

#include "ConfinedRun.h"
#include "HdsFixtures.h"
#include "TestMain.h"

#include <QPointer>
#include <QTcpSocket>

#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr int fragmentCount = 4;
constexpr int heldFragment = 3;

const QByteArray before = "what was there";
const QByteArray success = "\nvideo download finished:success \n";
const QByteArray failure = "\nvideo download finished:failed \n";

QByteArray fragmentPath(int number)
{
    return "/s/streamSeg1-Frag" + QByteArray::number(number);
}

bool makePipe(const QString &path)
{
    return ::mkfifo(QFile::encodeName(path).constData(), 0600) == 0;
}

bool makeHardLink(const QString &target, const QString &path)
{
    return ::link(QFile::encodeName(target).constData(), QFile::encodeName(path).constData()) == 0;
}

} // namespace

class tst_RunOutputFile : public QObject
{
    Q_OBJECT

    std::unique_ptr<ScriptedServer> m_server;
    const QByteArray m_video = testBytes(6 * 1024 * 1024);
    const QByteArray m_picture = testBytes(5000);
    QPointer<QTcpSocket> m_held;
    QByteArray m_heldRest;

    /// The arguments for a run of a page, with the video in a folder of the run's.
    QStringList arguments(const QByteArray &page, const QString &video,
                          const QStringList &more = {}) const
    {
        return QStringList{option("--url"), m_server->address(page), option("--saveto"), video}
        + more;
    }

    /// Answers with half of a body and keeps the rest until release(), for the first who asks.
    void holdHalf(QTcpSocket *socket, const HttpReply &reply)
    {
        const QByteArray bytes = ScriptedServer::headOf(reply) + reply.body;
        if (m_held) {
            socket->write(bytes);
            socket->disconnectFromHost();
            return;
        }
        socket->write(bytes.left(bytes.size() / 2));
        m_heldRest = bytes.mid(bytes.size() / 2);
        m_held = socket;
    }

    void release()
    {
        m_held->write(m_heldRest);
        m_held->disconnectFromHost();
    }

    void serveStream()
    {
        for (const char *const page : {"/stream", "/other-stream"})
            m_server->on(page, htmlReply("<script>new Image().src='/s/m.f4m'</script>"));
        m_server->on("/s/m.f4m",
                     mediaReply(hds::manifest("stream", hds::simpleBootstrap(fragmentCount))));
        for (int i = 1; i <= fragmentCount; ++i)
            m_server->on(fragmentPath(i), mediaReply(hds::numberedFragment(i)));
    }

    static bool isWholeStream(const QByteArray &file)
    {
        QString error;
        return hds::readFlv(file, error).size() == 2 * fragmentCount && error.isEmpty();
    }

    /// The run's log, which is beside its video.
    static QByteArray log(ConfinedRun &run, const QString &page)
    {
        return readFile(run.path("out/logs/") + pageHash(page) + option(".log"));
    }

private slots:
    void init()
    {
        m_server = std::make_unique<ScriptedServer>();
        const QByteArray head =
            "<meta property=\"og:image\" content=\"" + m_server->address("/t.jpg").toUtf8() + "\">";
        for (const char *const page : {"/page", "/other-page"})
            m_server->on(page, htmlReply(videoPage("/v.mp4", head)));
        m_server->on("/v.mp4", mediaReply(m_video));
        m_server->on("/t.jpg", mediaReply(m_picture, "image/jpeg"));
        serveStream();
    }

    void replacesWhatIsThere_data()
    {
        QTest::addColumn<bool>("isPipe");
        QTest::newRow("hard link") << false;
        QTest::newRow("pipe") << true;
    }

    void replacesWhatIsThere()
    {
        QFETCH(bool, isPipe);
        ConfinedRun run;
        ConfinedRun streamRun;
        const QString thumb =
            run.path("out/") + pageHash(m_server->address("/page")) + option(".thumb");
        writeFile(run.path("kept"), before);
        for (const QString &path : {run.path("out/v.mp4"), thumb, streamRun.path("out/v.flv")})
            QVERIFY(isPipe ? makePipe(path) : makeHardLink(run.path("kept"), path));

        // A run ends with its video, and a picture that is not there by then is given up.
        const HttpReply video = mediaReply(m_video);
        QPointer<QTcpSocket> waiting;
        m_server->onRaw("/v.mp4", [&](const HttpRequest &request, QTcpSocket *socket) {
            if (isFromDownloader(request))
                waiting = socket;
            else
                socket->write(ScriptedServer::headOf(video) + video.body);
        });
        run->start(
            arguments("/page", run.path("out/v.mp4"), {option("--noresume"), option("--thumb")}));
        streamRun->start(arguments("/stream", streamRun.path("out/v.flv"), {option("--f4f")}));
        QVERIFY(run->waitForOutput("thumb download finished"));
        QTRY_VERIFY(waiting);
        waiting->write(ScriptedServer::headOf(video) + video.body);
        QVERIFY(run->waitForEnd());
        QVERIFY(streamRun->waitForEnd());
        QVERIFY2(run->errorOutput().contains(success), run->errorOutput());
        QVERIFY2(streamRun->errorOutput().contains(success), streamRun->errorOutput());
        for (const QString &path : {run.path("out/v.mp4"), thumb, streamRun.path("out/v.flv")})
            QVERIFY(QFileInfo(path).isFile());
        QVERIFY(readFile(run.path("out/v.mp4")) == m_video);
        QCOMPARE(readFile(thumb), m_picture);
        QVERIFY(isWholeStream(readFile(streamRun.path("out/v.flv"))));
        QCOMPARE(readFile(run.path("kept")), before);
    }

    /// A file that a link leads to outside the output folder: only the file is within the sandbox,
    /// not its folder.
    void behindALink_data()
    {
        QTest::addColumn<QStringList>("options");
        QTest::addColumn<bool>("isRemoved");
        QTest::newRow("confined") << QStringList() << false;
        QTest::newRow("not confined") << QStringList{option("--nosandbox")} << true;
    }

    void behindALink()
    {
        QFETCH(QStringList, options);
        QFETCH(bool, isRemoved);
        ConfinedRun run;
        QDir().mkpath(run.path("outside"));
        writeFile(run.path("outside/file"), before);
        QVERIFY(makeHardLink(run.path("outside/file"), run.path("outside/other")));
        QVERIFY(QFile::link(run.path("outside/file"), run.path("out/v.mp4")));
        QVERIFY(run->run(arguments("/page", run.path("out/v.mp4"),
                                   options + QStringList{option("--noresume")})));
        QVERIFY2(run->errorOutput().contains(success), run->errorOutput());
        QVERIFY(QFileInfo(run.path("out/v.mp4")).isSymLink());
        QVERIFY(readFile(run.path("outside/file")) == m_video);
        if (isRemoved)
            QCOMPARE(readFile(run.path("outside/other")), before);
    }

    /// A pipe that nobody reads, which would be added to.
    void aPipeIsNotWaitedFor()
    {
        ConfinedRun run;
        QVERIFY(makePipe(run.path("out/v.mp4")));
        QVERIFY(run->run(arguments("/page", run.path("out/v.mp4"), {option("--log")})));
        QVERIFY2(run->errorOutput().contains(failure), run->errorOutput());
        QVERIFY(
            log(run, m_server->address("/page"))
                .contains("Warning: " + run.path("out/v.mp4").toUtf8() + " cannot be written: "));
    }

    void twoRunsWithOneFile_data()
    {
        QTest::addColumn<QStringList>("options");
        QTest::newRow("adding") << QStringList();
        QTest::newRow("afresh") << QStringList{option("--noresume")};
        QTest::newRow("stream") << QStringList{option("--f4f")};
    }

    void twoRunsWithOneFile()
    {
        QFETCH(QStringList, options);
        const bool isStream = options.contains(option("--f4f"));
        m_server->onRaw("/v.mp4", [&](const HttpRequest &request, QTcpSocket *socket) {
            const HttpReply reply = mediaReply(m_video);
            if (isFromDownloader(request)) {
                holdHalf(socket, reply);
            } else {
                socket->write(ScriptedServer::headOf(reply) + reply.body);
                socket->disconnectFromHost();
            }
        });
        m_server->onRaw(fragmentPath(heldFragment), [&](const HttpRequest &, QTcpSocket *socket) {
            holdHalf(socket, mediaReply(hds::numberedFragment(heldFragment)));
        });
        ConfinedRun run;
        const QString video = run.path("out/v.mp4");
        options += option("--log");
        run->start(arguments(isStream ? "/stream" : "/page", video, options));
        QTRY_VERIFY_WITH_TIMEOUT(m_held && QFileInfo(video).size() > 0, 30000);
        const QByteArray written = readFile(video);

        ConfinedRun second;
        const QByteArray otherPage = isStream ? "/other-stream" : "/other-page";
        QVERIFY(second->run(arguments(otherPage, video, options)));
        QVERIFY2(second->errorOutput().contains(failure), second->errorOutput());
        const QByteArray expected =
            "Warning: " + video.toUtf8() + " cannot be written: another run is writing it\n";
        const QByteArray text = log(run, m_server->address(otherPage));
        QVERIFY2(text.contains(expected), text);
        QVERIFY(readFile(video).startsWith(written));

        release();
        QVERIFY(run->waitForEnd());
        QVERIFY2(run->errorOutput().contains(success), run->errorOutput());
        const QByteArray content = readFile(video);
        QVERIFY(isStream ? isWholeStream(content) : content == m_video);
    }
};

CLIPWEIR_TEST_MAIN(tst_RunOutputFile)
#include "tst_run_output_file.moc"
