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
};

CLIPWEIR_TEST_MAIN(tst_RunTidy)
#include "tst_run_tidy.moc"
