#include "EventCheck.h"
#include "HdsFixtures.h"
#include "NarrowPipe.h"
#include "PageRun.h"
#include "TestFiles.h"
#include "TestMain.h"

#include <QCryptographicHash>
#include <QFileInfo>
#include <QJsonArray>

#include <csignal>

namespace {

constexpr int videoBytes = 6000000;

QJsonValue value(const QList<QJsonObject> &events, const char *name)
{
    return events.size() == 1 ? events.constFirst().value(QLatin1String(name)) : QJsonValue();
}

QStringList namesOf(const QList<QJsonObject> &events)
{
    QStringList names;
    for (const QJsonObject &event : events) {
        const QString name = event.value(QStringLiteral("event")).toString();
        // Neither how often progress is told nor what libraries complain of is certain.
        if (name != QLatin1String("progress") && name != QLatin1String("warning"))
            names += name;
    }
    return names;
}

} // namespace

/// Whole runs with "--events". ProgramRun checks what they write by the schema.
class tst_RunEvents : public QObject
{
    Q_OBJECT

    const QByteArray m_video = testBytes(videoBytes);

    static QString sumOf(const QByteArray &bytes)
    {
        return QString::fromLatin1(
            QCryptographicHash::hash(bytes, QCryptographicHash::Sha256).toHex());
    }

private slots:
    void aWholeRun()
    {
        ScriptedServer server;
        const QString page =
            servePage(server, m_video, [this](const HttpRequest &) { return mediaReply(m_video); });
        server.on("/page",
                  htmlReply(videoPage("/v.mp4",
                                      "<title>T</title><meta property=og:image content=\""
                                          + server.address("/t.jpg").toUtf8() + "\">")));
        server.on("/t.jpg", mediaReply("picture", "image/jpeg"));
        ProgramRun run;
        QVERIFY(run.run({option("--url"), page, option("--events"), option("--thumb")}));
        QVERIFY2(run.errorOutput().startsWith(parsingLine(page)), run.errorOutput());
        QVERIFY(run.errorOutput().endsWith(fixedLine("detach sharememory")));
        QStringList names = namesOf(run.events());
        names.removeOne(option("transferEnded")); // the picture's comes sooner or later
        QCOMPARE(names.filter(option("transferEnded")).size(), 1);
        QCOMPARE(names.mid(0, 4),
                 (QStringList{option("page"), option("record"), option("transferBegun"),
                              option("transferBegun")}));
        QCOMPARE(names.mid(names.size() - 2),
                 (QStringList{option("memoryDetached"), option("result")}));
        QCOMPARE(value(run.events("page"), "url").toString(), page);
        const QJsonObject record = value(run.events("record"), "record").toObject();
        QCOMPARE(record.value(option("fileList")).toArray().size(), 1);
        QCOMPARE(record.value(option("title")).toString(), option("T"));
        const QList<QJsonObject> begun = run.events("transferBegun");
        QCOMPARE(begun.at(0).value(option("kind")).toString(), option("thumb"));
        QCOMPARE(begun.at(1).value(option("kind")).toString(), option("video"));
        QCOMPARE(begun.at(1).value(option("url")).toString(), server.address("/v.mp4"));
    }

    void theResult()
    {
        ScriptedServer server;
        const QString page =
            servePage(server, m_video, [this](const HttpRequest &) { return mediaReply(m_video); });
        ProgramRun run;
        QVERIFY(run.run({option("--url"), page, option("--events")}));
        QCOMPARE(withoutProgress(run.errorOutput()),
                 parsingLine(page) + recordLine(server.address("/v.mp4"), videoBytes, "mp4")
                     + fixedLine("start download video ...")
                     + fixedLine("video download finished:success")
                     + fixedLine("detach sharememory"));
        const QList<QJsonObject> result = run.events("result");
        QCOMPARE(value(result, "class").toString(), option("complete"));
        QCOMPARE(value(result, "exitCode").toInt(-1), 0);
        QCOMPARE(value(result, "path").toString(),
                 run.path(option("tmp/") + pageHash(page) + option(".mp4")));
        QCOMPARE(value(result, "bytes").toInt(), videoBytes);
        QCOMPARE(value(result, "sha256").toString(), sumOf(m_video));
        QCOMPARE(run.events("progress").constLast().value(option("done")).toInt(), videoBytes);
        QCOMPARE(run.events("progress").constLast().value(option("total")).toInt(), videoBytes);
    }

    void theSumOfAFileThatWasTakenUp()
    {
        ScriptedServer server;
        const QString page = servePage(server, m_video, [this](const HttpRequest &request) {
            return ScriptedServer::rangeReply(request, m_video, "video/mp4");
        });
        ProgramRun run;
        const QString path = run.path(option("v.mp4"));
        QFile part(path);
        QVERIFY(part.open(QIODevice::WriteOnly));
        part.write(m_video.left(1000000));
        part.close();
        QVERIFY(run.run({option("--url"), page, option("--events"), option("--saveto"), path,
                         option("--size"), QString::number(videoBytes)}));
        QCOMPARE(value(run.events("result"), "sha256").toString(), sumOf(m_video));
    }

    void withoutTheOptionNothingIsWritten()
    {
        ScriptedServer server;
        const QString page =
            servePage(server, m_video, [this](const HttpRequest &) { return mediaReply(m_video); });
        ProgramRun run;
        QVERIFY(run.run({option("--url"), page}));
        QCOMPARE(run.standardOutput(), QByteArray());
    }

    void progressIsBounded()
    {
        ScriptedServer server;
        const QString page = servePage(server, m_video, [this](const HttpRequest &) {
            HttpReply reply = mediaReply(m_video);
            reply.pieceBytes = videoBytes / 400;
            reply.pieceDelayMs = 3;
            return reply;
        });
        ProgramRun run;
        QVERIFY(run.run({option("--url"), page, option("--events")}));
        const QList<QJsonObject> progress = run.events("progress");
        for (int i = 10; i < progress.size(); ++i) {
            const int time = progress.at(i).value(option("elapsedMs")).toInt();
            const int tenBefore = progress.at(i - 10).value(option("elapsedMs")).toInt();
            QVERIFY2(time - tenBefore >= 990, qPrintable(QString::number(time - tenBefore)));
        }
        QVERIFY(run.errorOutput().count("\"downloaded:") > progress.size());
        QVERIFY(progress.constLast().value(option("rate")).toDouble() > 0);
    }

    void nobodyElseWritesThere()
    {
        ScriptedServer server;
        const QString page = serveStalling(server, m_video, 1000);
        ProgramRun run;
        run.start({option("--url"), page, option("--events")});
        QVERIFY(run.waitForOutput("start download video"));
        const QString output = QStringLiteral("/proc/%1/fd/1").arg(run.process().processId());
        QCOMPARE(QFileInfo(output).symLinkTarget(), option("/dev/null"));
        QVERIFY(askToExit(page));
        QVERIFY(run.waitForEnd());
        QCOMPARE(value(run.events("result"), "class").toString(), option("stopped"));
        QCOMPARE(namesOf(run.events()).mid(namesOf(run.events()).size() - 3),
                 (QStringList{option("exiting"), option("memoryDetached"), option("result")}));
    }

    void warningsAreTold()
    {
        ScriptedServer server;
        server.on("/page", htmlReply("<p>no video"));
        ProgramRun run;
        QVERIFY(run.run({option("--url"), server.address("/page"), option("--events"),
                         option("--proxy"), option("1:secret.invalid:80"), option("--timeout"),
                         option("2")}));
        QString texts;
        for (const QJsonObject &warning : run.events("warning"))
            texts += warning.value(option("text")).toString();
        QVERIFY2(texts.contains(option("the proxy setting is ignored")), qPrintable(texts));
    }

    void aStreamWithMissingParts()
    {
        ScriptedServer server;
        server.on("/page",
                  htmlReply("<script>var x = new XMLHttpRequest();"
                            "x.open('GET', '/s/m.f4m'); x.send();</script>"));
        server.on("/s/m.f4m",
                  mediaReply(hds::manifest("stream", hds::simpleBootstrap(3)), "video/f4m"));
        for (const int i : {1, 3})
            server.on("/s/streamSeg1-Frag" + QByteArray::number(i),
                      mediaReply(hds::numberedFragment(i), "video/f4f"));
        ProgramRun run;
        QVERIFY(run.run(
            {option("--url"), server.address("/page"), option("--f4f"), option("--events")}));
        QVERIFY(run.errorOutput().contains("video download finished:success"));
        QCOMPARE(run.exitCode(), 0);
        QCOMPARE(value(run.events("partsMissing"), "missing").toInt(), 1);
        QCOMPARE(value(run.events("partsMissing"), "total").toInt(), 3);
        QCOMPARE(value(run.events("result"), "class").toString(), option("incomplete"));
        QVERIFY(!run.events("documentAsked").isEmpty());
        QCOMPARE(value(run.events("fragmentsCounted"), "count").toInt(), 3);
    }

    void runsThatDoNotBegin_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<QString>("runClass");
        QTest::addColumn<int>("exitCode");
        QTest::newRow("no address") << QStringList() << option("noPageUrl") << 14;
        QTest::newRow("no folder") << QStringList{option("--url"), option("http://127.0.0.1:1/x"),
                                                  option("--saveto"), option("/none/v.mp4")}
                                   << option("noOutputFolder") << 13;
    }

    void runsThatDoNotBegin()
    {
        QFETCH(QStringList, arguments);
        QFETCH(QString, runClass);
        QFETCH(int, exitCode);
        ProgramRun run;
        QVERIFY(run.run(arguments + QStringList{option("--events")}));
        QCOMPARE(run.exitCode(), exitCode);
        QCOMPARE(value(run.events("result"), "class").toString(), runClass);
        QCOMPARE(value(run.events("result"), "exitCode").toInt(), exitCode);
        QCOMPARE(run.errorOutput(), QByteArray());
    }

    void otherModes()
    {
        ProgramRun exit;
        QVERIFY(exit.run({option("--exit"), option("--events"), option("--url"), uniquePageUrl()}));
        QCOMPARE(namesOf(exit.events()), QStringList{option("exitFlagSet")});
        QCOMPARE(exit.errorOutput(), fixedLine("set ExitFlag"));
        ProgramRun info;
        QVERIFY(info.run({option("--info"), option("--events")}));
        QCOMPARE(namesOf(info.events()), QStringList{option("flashVersion")});
    }

    void aHostThatReadsLateMissesNothing()
    {
        ScriptedServer server;
        const QString page =
            servePage(server, m_video, [this](const HttpRequest &) { return mediaReply(m_video); });
        ProgramRun run;
        NarrowPipe pipe(run.path(option("pipe")));
        pipe.fill();
        run.process().setStandardOutputFile(run.path(option("pipe")));
        run.start({option("--url"), page, option("--log"), option("--events")});
        // The first thing that the run has to tell holds it up.
        const QString log = option("tmp/logs/") + pageHash(page) + option(".log");
        QTRY_VERIFY_WITH_TIMEOUT(QFile::exists(run.path(log)), 30000);
        QVERIFY(server.requestsFor("/v.mp4").isEmpty());
        QByteArray output;
        QVERIFY(QTest::qWaitFor(
            [&] {
                output = pipe.read();
                return output.contains("\"event\":\"result\"") && output.endsWith('\n');
            },
            60000));
        run.process().waitForFinished();
        QVERIFY(EventCheck::isValid(output));
        QVERIFY(output.contains("\"class\":\"complete\""));
        QVERIFY(run.errorOutput().contains("video download finished:success"));
    }

    void aHostThatNeverReadsHoldsNoRunUpForEver()
    {
        ScriptedServer server;
        const QString page =
            servePage(server, m_video, [this](const HttpRequest &) { return mediaReply(m_video); });
        ProgramRun run;
        NarrowPipe pipe(run.path(option("pipe")));
        pipe.fill();
        run.process().setStandardOutputFile(run.path(option("pipe")));
        run.start({option("--url"), page, option("--events"), option("--strict"),
                   option("--deadline"), option("3")});
        QTRY_COMPARE_WITH_TIMEOUT(run.process().state(), QProcess::NotRunning, 60000);
        QVERIFY(run.endedNormally());
        QCOMPARE(run.exitCode(), 41);
    }
};

CLIPWEIR_TEST_MAIN(tst_RunEvents)
#include "tst_run_events.moc"
