#include "HdsFixtures.h"
#include "PageRun.h"
#include "TestMain.h"

#include <QDir>
#include <QPointer>
#include <QRegularExpression>

#include <sys/stat.h>

namespace {

QByteArray fragmentPath(int number)
{
    return "/s/streamSeg1-Frag" + QByteArray::number(number);
}

} // namespace

/// Whole runs of streams of which something is lost: on the way, at the server, or in the cache.
class tst_RunHdsLosses : public QObject
{
    Q_OBJECT

    QString m_page;

    /// Scripts a page that asks for a manifest of so many fragments, and the fragments.
    void serveStream(ScriptedServer &server, int fragmentCount, int paddingBytes = 0)
    {
        m_page = server.address("/page");
        server.on("/page",
                  htmlReply("<script>var x = new XMLHttpRequest();"
                            "x.open('GET', '/s/m.f4m'); x.send();</script>"));
        server.on(
            "/s/m.f4m",
            mediaReply(hds::manifest("stream", hds::simpleBootstrap(fragmentCount)), "video/f4m"));
        for (int i = 1; i <= fragmentCount; ++i)
            server.on(fragmentPath(i),
                      mediaReply(hds::numberedFragment(i, paddingBytes), "video/f4f"));
    }

    QByteArray log(const ProgramRun &run) const
    {
        return run.fileContent(option("tmp/logs/") + pageHash(m_page) + option(".log"));
    }

    QByteArray flv(const ProgramRun &run) const
    {
        return run.fileContent(option("tmp/") + pageHash(m_page) + option(".flv"));
    }

    /// The number of tags in the file, which must be sound.
    int tagCount(const ProgramRun &run) const
    {
        QString error;
        const auto tags = hds::readFlv(flv(run), error);
        return error.isEmpty() ? tags.size() : -1;
    }

    /// How many fragments the cache holds; what is still being written has another name.
    static int cachedCount(const ProgramRun &run)
    {
        const QRegularExpression name(option("Frag[0-9]+$"));
        return QDir(run.path(option("tmp/f4ftmp"))).entryList(QDir::Files).filter(name).size();
    }

    static QByteArray endLines(const QByteArray &result)
    {
        return fixedLine("video download finished:" + result) + fixedLine("detach sharememory");
    }

private slots:
    void aStreamWithoutMediaFails_data()
    {
        QTest::addColumn<HttpReply>("reply");
        QTest::addColumn<QByteArray>("reason");
        HttpReply gone;
        gone.status = 404;
        QTest::newRow("every fragment is dead")
            << gone << QByteArray("of 3 fragments 3 never came, 0 hold");
        QTest::newRow("every tag is encrypted")
            << mediaReply(hds::fragment(hds::tag(0x28, 0, "a") + hds::tag(0x29, 0, "v")))
            << QByteArray("of 3 fragments 0 never came, 3 hold");
    }

    void aStreamWithoutMediaFails()
    {
        QFETCH(HttpReply, reply);
        QFETCH(QByteArray, reason);
        ScriptedServer server;
        serveStream(server, 3);
        for (int i = 1; i <= 3; ++i)
            server.on(fragmentPath(i), reply);
        ProgramRun run;
        QVERIFY(run.run({option("--url"), m_page, option("--f4f"), option("--log")}));
        QVERIFY2(run.errorOutput().endsWith(endLines("failed")), run.errorOutput());
        QCOMPARE(run.exitCode(), 0);
        QVERIFY2(log(run).contains("holds no sound and no picture"), log(run));
        QVERIFY2(log(run).contains(reason), log(run));
        QVERIFY(run.fileContent(csvPath()).contains(",N,"));
    }

    void whatIsMissingIsTold()
    {
        ScriptedServer server;
        serveStream(server, 5);
        HttpReply gone;
        gone.status = 404;
        server.on(fragmentPath(2), gone);
        server.on(fragmentPath(4), mediaReply("no fragment at all"));
        ProgramRun run;
        QVERIFY(run.run({option("--url"), m_page, option("--f4f"), option("--log")}));
        QVERIFY2(run.errorOutput().endsWith(endLines("success")), run.errorOutput());
        QVERIFY2(
            log(run).contains("Warning: ")
                && log(run).contains("of 5 fragments 1 never came, 1 hold no sound or picture"),
            log(run));
        QCOMPARE(tagCount(run), 6);
    }

    void aWholeStreamIsNotWarnedOf()
    {
        ScriptedServer server;
        serveStream(server, 5);
        ProgramRun run;
        QVERIFY(run.run({option("--url"), m_page, option("--f4f"), option("--log")}));
        QVERIFY2(run.errorOutput().endsWith(endLines("success")), run.errorOutput());
        QVERIFY2(!log(run).contains("is not complete"), log(run));
        QCOMPARE(tagCount(run), 10);
    }

    void twoAnswersThatAreTheSameAreEnough()
    {
        ScriptedServer server;
        serveStream(server, 3);
        QByteArray cut = hds::numberedFragment(2);
        cut.chop(5); // inside its second tag
        HttpReply reply = mediaReply(
            QByteArray::number(cut.size(), 16) + "\r\n" + cut + "\r\n0\r\n\r\n", "video/f4f");
        reply.headers += qMakePair(QByteArray("Transfer-Encoding"), QByteArray("chunked"));
        reply.withoutLength = true;
        server.on(fragmentPath(2), reply);
        ProgramRun run;
        QVERIFY(run.run({option("--url"), m_page, option("--f4f"), option("--log")}));
        QVERIFY2(run.errorOutput().endsWith(endLines("success")), run.errorOutput());
        QCOMPARE(server.requestsFor(fragmentPath(2)).size(), 2);
        QCOMPARE(tagCount(run), 5);
        QCOMPARE(cachedCount(run), 2);
        QVERIFY2(log(run).contains("and 1 are cut short"), log(run));
    }

    void aFragmentThatRedirectsToItself_data()
    {
        QTest::addColumn<int>("redirects"); // of an attempt, before the fragment comes
        QTest::addColumn<int>("requests");
        QTest::addColumn<int>("tags");
        QTest::newRow("and a last 200") << 4 << 5 << 6;
        QTest::newRow("and a 200 too late, but in the next attempt") << 5 << 6 << 6;
        QTest::newRow("for ever") << 1000 << 31 * 5 << 4;
    }

    void aFragmentThatRedirectsToItself()
    {
        QFETCH(int, redirects);
        QFETCH(int, requests);
        QFETCH(int, tags);
        ScriptedServer server;
        serveStream(server, 3);
        int seen = 0;
        server.on(fragmentPath(2), [&seen, redirects](const HttpRequest &) {
            HttpReply redirect;
            redirect.status = 302;
            redirect.headers = {{"Location", fragmentPath(2)}};
            return ++seen <= redirects ? redirect : mediaReply(hds::numberedFragment(2));
        });
        ProgramRun run;
        QVERIFY(run.run({option("--url"), m_page, option("--f4f")}));
        QVERIFY2(run.errorOutput().endsWith(endLines("success")), run.errorOutput());
        QCOMPARE(seen, requests);
        QCOMPARE(tagCount(run), tags);
    }

    /// More of everything than a manifest needs, a document type, and a bootstrap beside it.
    void aLargeManifest()
    {
        ScriptedServer server;
        serveStream(server, 3);
        server.on("/s/m.f4m",
                  mediaReply("<?xml version=\"1.0\"?>\n<!DOCTYPE manifest>\n<manifest>"
                             "<bootstrapInfo id=\"b\" url=\"s.abst\"/>"
                             "<media url=\"stream\" bitrate=\"800\" bootstrapInfoId=\"b\"/>"
                                 + QByteArray("<x/>").repeated(25000)
                                 + QByteArray(5 * 1024 * 1024, ' ') + "</manifest>",
                             "video/f4m"));
        server.on("/s/s.abst", mediaReply(hds::simpleBootstrap(3).toBase64()));
        ProgramRun run;
        QVERIFY(run.run({option("--url"), m_page, option("--f4f")}));
        QVERIFY2(run.errorOutput().endsWith(endLines("success")), run.errorOutput());
        QCOMPARE(tagCount(run), 6);
        QCOMPARE(server.requestsFor("/s/s.abst").size(), 1);
        QCOMPARE(server.requestsFor("/s/s.abst").constFirst().target, QByteArray("/s/s.abst"));
    }

    void aNameThatLooksLikeAnOption_data()
    {
        QTest::addColumn<QString>("name");
        QTest::newRow("dashes") << option("--a.flv");
        QTest::newRow("an option") << option("--delete");
        QTest::newRow("an option that takes a value") << option("--manifest");
        QTest::newRow("dashes alone") << option("--");
    }

    /// It names the file, and nothing else comes of it.
    void aNameThatLooksLikeAnOption()
    {
        QFETCH(QString, name);
        ScriptedServer server;
        serveStream(server, 2);
        ProgramRun run;
        QVERIFY(QDir().mkpath(run.path(option("tmp"))));
        const QString file = run.path(option("tmp/") + name);
        QVERIFY(run.run({option("--url"), m_page, option("--f4f"), option("--saveto"), file}));
        QVERIFY2(run.errorOutput().endsWith(endLines("success")), run.errorOutput());
        QList<QByteArray> options;
        for (const QByteArray &line : run.errorLines()) {
            if (line.startsWith("\"setOption"))
                options += line + '\n';
        }
        const QByteArray folder = run.path(option("tmp")).toUtf8();
        QCOMPARE(options,
                 (QList<QByteArray>{
                     composedLine("setOption: manifest=" + server.address("/s/m.f4m").toUtf8()),
                     composedLine("setOption: outFile=" + name.toUtf8()),
                     composedLine("setOption: outDir=" + folder)}));
        QString error;
        QCOMPARE(hds::readFlv(run.fileContent(option("tmp/") + name), error).size(), 4);
        QCOMPARE(QDir(run.path(option("tmp"))).entryList(QDir::Files | QDir::Hidden),
                 QStringList{name});
        QCOMPARE(cachedCount(run), 2);
    }

    void cachedFragmentsFollowTheUmask_data()
    {
        QTest::addColumn<QString>("mask");
        QTest::addColumn<int>("permissions"); // in octal digits
        QTest::newRow("022") << option("022") << 0644;
        QTest::newRow("002") << option("002") << 0664;
        QTest::newRow("077") << option("077") << 0600;
    }

    void cachedFragmentsFollowTheUmask()
    {
        QFETCH(QString, mask);
        QFETCH(int, permissions);
        ScriptedServer server;
        serveStream(server, 2);
        ProgramRun run;
        run.setLauncher({option("sh"), option("-c"), option("umask $0 && exec \"$@\""), mask});
        QVERIFY(run.run({option("--url"), m_page, option("--f4f"), option("--log")}));
        QVERIFY2(run.errorOutput().endsWith(endLines("success")), run.errorOutput());
        QCOMPARE(cachedCount(run), 2);
        const QDir cache(run.path(option("tmp/f4ftmp")));
        for (const QString &name : cache.entryList(QDir::Files)) {
            struct stat info = {};
            QCOMPARE(::stat(QFile::encodeName(cache.filePath(name)).constData(), &info), 0);
            QCOMPARE(int(info.st_mode & 0777), permissions);
        }
        QVERIFY2(!log(run).contains("owner only"), log(run));
    }

    void whatWasLeftToALostCacheIsFetchedAgain_data()
    {
        QTest::addColumn<bool>("comesAgain");
        QTest::addColumn<QByteArray>("result");
        QTest::newRow("it comes again") << true << QByteArray("success");
        QTest::newRow("it is gone at the server, too") << false << QByteArray("failed");
    }

    /// More waits for the first fragment than is held in memory, and the cache is emptied before it
    /// comes.
    void whatWasLeftToALostCacheIsFetchedAgain()
    {
        QFETCH(bool, comesAgain);
        QFETCH(QByteArray, result);
        constexpr int fragmentCount = 14;
        constexpr int fragmentBytes = 6 * 1024 * 1024; // ten of them are held, three are not
        ScriptedServer server;
        serveStream(server, fragmentCount, fragmentBytes);
        bool isCacheLost = false;
        for (int i = 2; i <= fragmentCount; ++i) {
            server.on(fragmentPath(i), [i, comesAgain, &isCacheLost](const HttpRequest &) {
                HttpReply gone;
                gone.status = 404;
                return isCacheLost && !comesAgain
                    ? gone
                    : mediaReply(hds::numberedFragment(i, fragmentBytes), "video/f4f");
            });
        }
        QPointer<QTcpSocket> first;
        server.onRaw(fragmentPath(1),
                     [&first](const HttpRequest &, QTcpSocket *socket) { first = socket; });
        ProgramRun run;
        run.start({option("--url"), m_page, option("--f4f"), option("--log")});
        QTRY_COMPARE_WITH_TIMEOUT(cachedCount(run), fragmentCount - 1, 30000);
        QVERIFY(QDir(run.path(option("tmp/f4ftmp"))).removeRecursively());
        isCacheLost = true;
        QVERIFY(first);
        const HttpReply reply = mediaReply(hds::numberedFragment(1, fragmentBytes), "video/f4f");
        first->write(ScriptedServer::headOf(reply) + reply.body);
        first->disconnectFromHost();
        QVERIFY(run.waitForEnd());
        QVERIFY2(run.errorOutput().endsWith(endLines(result)), run.errorOutput());
        QVERIFY(log(run).contains("is not to be read again"));
        if (comesAgain)
            QCOMPARE(tagCount(run), 2 * fragmentCount);
        else
            QVERIFY(log(run).contains("was lost and cannot be fetched again"));
    }
};

CLIPWEIR_TEST_MAIN(tst_RunHdsLosses)
#include "tst_run_hds_losses.moc"
