#include "PageRun.h"
#include "TestFiles.h"
#include "TestMain.h"

/// What runs find and leave on the disk beside their files.
class tst_RunTidy : public QObject
{
    Q_OBJECT

private slots:
    void temporaryFilesOfEarlierRunsAreRemoved_data()
    {
        QTest::addColumn<QString>("folder");
        QTest::newRow("of runs within walls") << option("cache/clipweir/");
        QTest::newRow("of runs without") << option("cache/");
    }

    void temporaryFilesOfEarlierRunsAreRemoved()
    {
        QFETCH(QString, folder);
        const QString page = option("http://127.0.0.1:1/left");
        ProgramRun run;
        const QString left = run.path(folder + option("clipweir-A1B2C3"));
        QVERIFY(QDir().mkpath(run.path(folder)));
        writeFile(left, "left");
        QVERIFY(run.run({option("--url"), page, option("--timeout"), option("0")}));
        QCOMPARE(run.exitCode(), 0);
        QVERIFY(!QFile::exists(left));
    }

    void aPagesDatabasesLeaveNoFile_data()
    {
        QTest::addColumn<QStringList>("options");
        QTest::newRow("without walls") << QStringList{option("--nosandbox")};
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
};

CLIPWEIR_TEST_MAIN(tst_RunTidy)
#include "tst_run_tidy.moc"
