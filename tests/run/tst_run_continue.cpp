#include "PageRun.h"
#include "TestFiles.h"
#include "TestMain.h"

#include <QCryptographicHash>
#include <QRandomGenerator>

#include <algorithm>
#include <csignal>

namespace {

constexpr int videoBytes = 6000000;
constexpr int kills = 4;

} // namespace

/// Whole runs with "--continue", "--retries" and "--connections". tst_filetransfer and
/// tst_filepieces have what servers do meanwhile.
class tst_RunContinue : public QObject
{
    Q_OBJECT

    const QByteArray m_video = testBytes(videoBytes);

    /// The answer of a server that knows ranges and says what its file is known by.
    HttpReply answer(const HttpRequest &request, const QByteArray &etag = "\"1\"") const
    {
        const bool isOther = request.hasHeader("If-Range") && request.header("If-Range") != etag;
        HttpReply reply = isOther ? mediaReply(m_video)
                                  : ScriptedServer::rangeReply(request, m_video, "video/mp4");
        reply.headers += qMakePair(QByteArray("ETag"), etag);
        return reply;
    }

    static QStringList arguments(const QString &page, const QStringList &more)
    {
        return QStringList{option("--url"), page, option("--events"), option("--strict")} + more;
    }

    static QString videoName(const QString &page)
    {
        return option("tmp/") + pageHash(page) + option(".mp4");
    }

    static QJsonValue result(const ProgramRun &run, const char *name)
    {
        return run.events("result").value(0).value(QLatin1String(name));
    }

private slots:
    void aSecondRunGoesOn()
    {
        ScriptedServer server;
        bool isFirst = true;
        const QString page = servePage(server, m_video, [&](const HttpRequest &request) {
            HttpReply reply = answer(request);
            if (isFirst)
                reply.cutAfterBytes = 2000000;
            isFirst = false;
            return reply;
        });
        ProgramRun run;
        QVERIFY(run.run(arguments(page, {option("--continue")})));
        QCOMPARE(run.exitCode(), 34);
        QCOMPARE(result(run, "class").toString(), option("brokenOff"));
        QCOMPARE(result(run, "path").toString(), run.path(videoName(page)) + option(".part"));
        QCOMPARE(result(run, "bytes").toInt(), 2000000);
        QVERIFY(run.errorOutput().contains("video download finished:failed"));
        QVERIFY(!QFile::exists(run.path(videoName(page))));

        QVERIFY(run.run(arguments(page, {option("--continue")})));
        QCOMPARE(run.exitCode(), 0);
        QCOMPARE(run.events("resumed").value(0).value(option("fromByte")).toInt(), 2000000);
        QVERIFY(run.errorOutput().contains("\"downloaded:2000000/6000000\" \n"));
        QVERIFY(run.errorOutput().endsWith(fixedLine("video download finished:success")
                                           + fixedLine("detach sharememory")));
        QVERIFY(run.fileContent(videoName(page)) == m_video);
        QCOMPARE(result(run, "sha256").toString().toLatin1(),
                 QCryptographicHash::hash(m_video, QCryptographicHash::Sha256).toHex());
        QVERIFY(!QFile::exists(run.path(videoName(page)) + option(".part")));
        QVERIFY(!QFile::exists(run.path(videoName(page)) + option(".part.json")));
        const HttpRequest last = server.requestsFor("/v.mp4").constLast();
        QCOMPARE(last.header("Range"), QByteArray("bytes=1983616-"));
        QCOMPARE(last.header("If-Range"), QByteArray("\"1\""));
    }

    void aChangedFileIsBegunAgain()
    {
        ScriptedServer server;
        int count = 0;
        const QString page = servePage(server, m_video, [&](const HttpRequest &request) {
            HttpReply reply = answer(request, count == 0 ? "\"1\"" : "\"2\"");
            if (count == 0)
                reply.cutAfterBytes = 2000000;
            ++count;
            return reply;
        });
        ProgramRun run;
        QVERIFY(run.run(arguments(page, {option("--continue")})));
        QCOMPARE(run.exitCode(), 34);
        QVERIFY(run.run(arguments(page, {option("--continue")})));
        QCOMPARE(run.exitCode(), 0);
        QCOMPARE(run.events("begunAgain").size(), 1);
        QVERIFY(run.fileContent(videoName(page)) == m_video);
    }

    void killsSpoilNothing_data()
    {
        QTest::addColumn<QString>("connections");
        QTest::newRow("over one connection") << option("1");
        QTest::newRow("over many") << option("8");
    }

    void killsSpoilNothing()
    {
        QFETCH(QString, connections);
        ScriptedServer server;
        const QString page = servePage(server, m_video, [&](const HttpRequest &request) {
            HttpReply reply = answer(request);
            reply.pieceBytes = videoBytes / 100;
            reply.pieceDelayMs = 20;
            return reply;
        });
        ProgramRun run;
        const QString journal = run.path(videoName(page)) + option(".part.json");
        QRandomGenerator generator(7);
        for (int i = 0; i < kills; ++i) {
            run.start({option("--url"), page, option("--continue"), option("--connections"),
                       connections});
            QVERIFY(run.waitForOutput("start download video"));
            if (i == 0) // the others at a moment of no meaning
                QTRY_VERIFY_WITH_TIMEOUT(!readFile(journal).isEmpty()
                                             && !readFile(journal).contains("\"bytes\": 0"),
                                         30000);
            else
                QTest::qWait(generator.bounded(600));
            ::kill(static_cast<pid_t>(run.process().processId()), SIGKILL);
            QVERIFY(run.waitForEnd());
        }
        QVERIFY(
            run.run(arguments(page, {option("--continue"), option("--connections"), connections})));
        QCOMPARE(run.exitCode(), 0);
        QVERIFY(run.fileContent(videoName(page)) == m_video);
        const QList<HttpRequest> requests = server.requestsFor("/v.mp4");
        QVERIFY(std::any_of(requests.cbegin(), requests.cend(), [](const HttpRequest &request) {
            return isFromDownloader(request) && request.hasHeader("If-Range");
        }));
    }

    void twoRunsForOneFile()
    {
        ScriptedServer server;
        int count = 0;
        const auto handler = [&](const HttpRequest &request) {
            HttpReply reply = answer(request);
            if (count++ == 0)
                reply.holdAfterBytes = 2000000;
            return reply;
        };
        const QString page = servePage(server, m_video, handler);
        server.on("/other", htmlReply(videoPage("/v.mp4")));
        ProgramRun first;
        const QString path = first.path(option("v.mp4"));
        first.start(arguments(page, {option("--continue"), option("--saveto"), path}));
        QTRY_COMPARE_WITH_TIMEOUT(QFileInfo(path + option(".part")).size(), 2000000, 30000);
        ProgramRun second;
        QVERIFY(second.run(
            arguments(server.address("/other"), {option("--continue"), option("--saveto"), path})));
        QCOMPARE(second.exitCode(), 38);
        QCOMPARE(result(second, "class").toString(), option("busy"));
        QVERIFY(second.errorOutput().contains("video download finished:failed"));
        QVERIFY(askToExit(page));
        QVERIFY(first.waitForEnd());
        QCOMPARE(first.exitCode(), 40);
        QVERIFY(second.run(
            arguments(server.address("/other"), {option("--continue"), option("--saveto"), path})));
        QCOMPARE(second.exitCode(), 0);
        QCOMPARE(second.events("resumed").size(), 1);
        QVERIFY(readFile(path) == m_video);
    }

    void manyConnections()
    {
        const QByteArray video = testBytes(16000000);
        ScriptedServer server;
        const QString page = servePage(server, video, [&](const HttpRequest &request) {
            HttpReply reply = ScriptedServer::rangeReply(request, video, "video/mp4");
            reply.headers += qMakePair(QByteArray("ETag"), QByteArray("\"1\""));
            reply.bodyDelayMs = 50;
            return reply;
        });
        ProgramRun run;
        QVERIFY(run.run(arguments(page, {option("--connections"), option("4")})));
        QCOMPARE(run.exitCode(), 0);
        QVERIFY(run.fileContent(videoName(page)) == video);
        QCOMPARE(result(run, "sha256").toString().toLatin1(),
                 QCryptographicHash::hash(video, QCryptographicHash::Sha256).toHex());
        QVERIFY(run.errorOutput().contains("\"downloaded:16000000/16000000\" \n"));
        QVERIFY(!QFile::exists(run.path(videoName(page)) + option(".part")));
        int pieces = 0;
        for (const HttpRequest &request : server.requestsFor("/v.mp4"))
            pieces += isFromDownloader(request) && request.hasHeader("If-Range") ? 1 : 0;
        QVERIFY2(pieces >= 3, qPrintable(QString::number(pieces)));
    }

    void retries()
    {
        ScriptedServer server;
        const QString page = servePage(server, m_video, [&](const HttpRequest &request) {
            HttpReply reply = answer(request);
            reply.cutAfterBytes = 2500000;
            return reply;
        });
        ProgramRun run;
        QVERIFY(run.run(arguments(page, {option("--retries"), option("5")})));
        QCOMPARE(run.exitCode(), 0);
        QVERIFY(run.fileContent(videoName(page)) == m_video);
        const QList<QJsonObject> retries = run.events("retry");
        QCOMPARE(retries.size(), 2);
        QCOMPARE(retries.at(0).value(option("pauseMs")).toInt(), 100);
        QCOMPARE(retries.at(1).value(option("pauseMs")).toInt(), 200);
        QCOMPARE(retries.at(0).value(option("cause")).toString(), option("brokenOff"));
        QCOMPARE(run.events("resumed").size(), 2);
    }

    void aPauseCanBeBrokenOff()
    {
        ScriptedServer server;
        const QString page = servePage(server, m_video, [&](const HttpRequest &) {
            HttpReply reply = mediaReply("later");
            reply.status = 503;
            reply.headers += qMakePair(QByteArray("Retry-After"), QByteArray("3600"));
            return reply;
        });
        ProgramRun run;
        run.start(arguments(page, {option("--retries"), option("3")}));
        QTRY_VERIFY_WITH_TIMEOUT(
            isFromDownloader(server.requests().value(server.requests().size() - 1)), 30000);
        QVERIFY(askToExit(page));
        QVERIFY(run.waitForEnd());
        QCOMPARE(run.exitCode(), 40);
        QCOMPARE(run.events("retry").value(0).value(option("pauseMs")).toInt(), 120000);
    }
};

CLIPWEIR_TEST_MAIN(tst_RunContinue)
#include "tst_run_continue.moc"
