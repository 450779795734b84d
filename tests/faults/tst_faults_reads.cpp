#include "HdsFixtures.h"
#include "PageRun.h"
#include "TestFiles.h"
#include "TestMain.h"

#include <QDir>

#include <cerrno>

namespace {

constexpr int fragmentCount = 3;
constexpr int fragmentBytes = 300000;

/// Enough for several reads. Each lives for long.
QByteArray manyCookies()
{
    QByteArray file("# Netscape HTTP Cookie File\n");
    for (int i = 0; i < 1000; ++i)
        file += "other.example\tFALSE\t/\tFALSE\t4000000000\tname" + QByteArray::number(i)
            + "\tvalue\n";
    return file;
}

} // namespace

/// Whole runs that cannot read a file of theirs to its end: what was not read is not taken for
/// nothing.
class tst_FaultsReads : public QObject
{
    Q_OBJECT

    /// Serves a page that sets a cookie and plays a stream.
    static QString serveStream(ScriptedServer &server)
    {
        HttpReply page = htmlReply("<script>new Image().src='/s/m.f4m'</script>");
        page.headers +=
            qMakePair(QByteArray("Set-Cookie"), QByteArray("kept=1; Path=/; Max-Age=3600"));
        server.on("/page", page);
        server.on("/s/m.f4m",
                  mediaReply(hds::manifest("stream", hds::simpleBootstrap(fragmentCount))));
        for (int i = 1; i <= fragmentCount; ++i)
            server.on("/s/streamSeg1-Frag" + QByteArray::number(i),
                      mediaReply(hds::numberedFragment(i, fragmentBytes)));
        return server.address("/page");
    }

    static void failReads(ProgramRun &run, const QString &below, int number)
    {
        run.setEnvironment(option("LD_PRELOAD"), QStringLiteral(FAILING_CALLS));
        run.setEnvironment(option("CLIPWEIR_FAIL_UNDER"), below);
        run.setEnvironment(option("CLIPWEIR_FAIL"),
                           QStringLiteral("read:%1:%2+").arg(number).arg(EIO));
    }

    static int tagCount(const ProgramRun &run, const QString &page)
    {
        QString error;
        const auto tags =
            hds::readFlv(run.fileContent(option("tmp/") + pageHash(page) + option(".flv")), error);
        return error.isEmpty() ? tags.size() : -1;
    }

private slots:
    void cookiesThatCannotBeReadAreKept_data()
    {
        QTest::addColumn<int>("number"); // of the first read that fails
        QTest::newRow("none is read") << 1;
        QTest::newRow("some are read") << 2;
    }

    void cookiesThatCannotBeReadAreKept()
    {
        QFETCH(int, number);
        ScriptedServer server;
        const QString page = serveStream(server);
        ProgramRun run;
        const QByteArray cookies = manyCookies();
        writeFile(run.path(option("cookies.txt")), cookies);
        failReads(run, run.path(option("cookies.txt")), number);
        QVERIFY(run.run({option("--url"), page, option("--f4f")}, 30000));
        QVERIFY(run.errorOutput().contains(fixedLine("video download finished:success")));
        QCOMPARE(tagCount(run, page), 2 * fragmentCount);
        QVERIFY(run.fileContent(option("cookies.txt")) == cookies);
    }

    void cachedFragmentsThatCannotBeReadAreFetched_data()
    {
        QTest::addColumn<int>("number");
        QTest::newRow("none is read") << 1;
        QTest::newRow("some are read") << 2;
    }

    void cachedFragmentsThatCannotBeReadAreFetched()
    {
        QFETCH(int, number);
        ScriptedServer server;
        const QString page = serveStream(server);
        ProgramRun run;
        QVERIFY(run.run({option("--url"), page, option("--f4f")}));
        QCOMPARE(tagCount(run, page), 2 * fragmentCount);
        server.clearRequests();
        failReads(run, run.path(option("tmp/f4ftmp")), number);
        QVERIFY(run.run({option("--url"), page, option("--f4f")}));
        QVERIFY(run.errorOutput().contains(fixedLine("video download finished:success")));
        QCOMPARE(tagCount(run, page), 2 * fragmentCount);
        int fetched = 0;
        for (int i = 1; i <= fragmentCount; ++i)
            fetched += server.requestsFor("/s/streamSeg1-Frag" + QByteArray::number(i)).size();
        QVERIFY(fetched >= fragmentCount + 1 - number);
    }
};

CLIPWEIR_TEST_MAIN(tst_FaultsReads)
#include "tst_faults_reads.moc"
