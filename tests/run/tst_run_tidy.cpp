#include "PageRun.h"
#include "TestFiles.h"
#include "TestMain.h"

namespace {

constexpr int noOutputFolder = 13;

} // namespace

/// What runs find and leave on the disk beside their files.
class tst_RunTidy : public QObject
{
    Q_OBJECT

private slots:
    void temporaryFilesOfEarlierRunsAreRemoved_data()
    {
        QTest::addColumn<QString>("folder");
        QTest::newRow("of confined runs") << option("clipweir/");
        QTest::newRow("of others") << QString();
    }

    void temporaryFilesOfEarlierRunsAreRemoved()
    {
        QFETCH(QString, folder);
        const QString page = option("http://127.0.0.1:1/left");
        ProgramRun run;
        const QString left = run.cachePath(folder + option("clipweir-A1B2C3"));
        QVERIFY(QDir().mkpath(run.cachePath(folder)));
        writeFile(left, "left");
        QVERIFY(run.run({option("--url"), page, option("--timeout"), option("0")}));
        QCOMPARE(run.exitCode(), 0);
        QVERIFY(!QFile::exists(left));
    }

    void aPagesDatabasesLeaveNoFile_data()
    {
        QTest::addColumn<QStringList>("options");
        QTest::newRow("not confined") << QStringList{option("--nosandbox")};
        QTest::newRow("in the output folder") << QStringList{option("--saveto"), option("v.mp4")};
    }

    void aPagesDatabasesLeaveNoFile()
    {
        QFETCH(QStringList, options);
        ScriptedServer server;
        server.on("/page",
                  htmlReply("<script>try { openDatabase('d', '1', 'd', 1000000).transaction("
                            "function(t) { t.executeSql('create table t (c)'); }); } catch (e) {}"
                            "try { localStorage.a = 1; } catch (e) {}"
                            "new Image().src = '/tried';</script>"));
        server.hold("/tried");
        const QString page = server.address("/page");
        ProgramRun run;
        run.start(QStringList{option("--url"), page} + options);
        QTRY_VERIFY_WITH_TIMEOUT(!server.requestsFor("/tried").isEmpty(), 30000);
        QVERIFY(askToExit(page));
        QVERIFY(run.waitForEnd(20000));
        const QDir folder(run.folder());
        const QStringList files = folder.entryList(QDir::Files | QDir::Hidden);
        QVERIFY2(files.filter(QRegularExpression(option("\\.(db|localstorage)"))).isEmpty(),
                 qPrintable(files.join(QLatin1Char(' '))));
    }

    void aPathThatIsNoUtf8IsRefused_data()
    {
        QTest::addColumn<QString>("word"); // as printf writes it
        QTest::addColumn<int>("exitCode");
        QTest::newRow("a byte that begins nothing") << option("./v\\377.mp4") << noOutputFolder;
        QTest::newRow("half a character") << option("./v\\303") << noOutputFolder;
        QTest::newRow("half of a pair") << option("./v\\355\\240\\200") << noOutputFolder;
        QTest::newRow("a character") << option("./v\\303\\251.mp4") << 0;
        QTest::newRow("the replacement character") << option("./v\\357\\277\\275.mp4") << 0;
    }

    void aPathThatIsNoUtf8IsRefused()
    {
        QFETCH(QString, word);
        QFETCH(int, exitCode);
        const QString page = option("http://127.0.0.1:1/bytes");
        ProgramRun run;
        run.setLauncher({option("bash"), option("-c"),
                         option("exec \"$@\" -SaveTo \"$(printf \"$0\")\""), word});
        QVERIFY(run.run({option("--url"), page, option("--timeout"), option("0")}));
        QCOMPARE(run.exitCode(), exitCode);
        if (exitCode == 0)
            return;
        QCOMPARE(run.errorOutput(), fixedLine("the path of --saveto is not UTF-8"));
        QCOMPARE(QDir(run.folder()).entryList({option("v*"), option("tmp")}), QStringList());
    }
};

CLIPWEIR_TEST_MAIN(tst_RunTidy)
#include "tst_run_tidy.moc"
