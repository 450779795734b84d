#include "OutputPaths.h"
#include "RunOptions.h"
#include "TestFiles.h"
#include "TestMain.h"

/// Where a run's files go, and that options once read stay as they were.
class tst_OutputPaths : public QObject
{
    Q_OBJECT

private slots:
    void aNamedVideoIsWhereItIsNamed()
    {
        const TemporaryWorkFolder work;
        const OutputPaths paths(QStringLiteral("new/v.avi"), QStringLiteral("n"),
                                QStringLiteral("mp4"));
        QCOMPARE(paths.video(), QStringLiteral("new/v.avi"));
        QCOMPARE(paths.folder(), work.path(QStringLiteral("new")));
        QCOMPARE(paths.thumb(), work.path(QStringLiteral("new/n.thumb")));
        QVERIFY(!QFile::exists(QStringLiteral("new")));
    }

    void othersGoIntoTheDefaultFolder()
    {
        const TemporaryWorkFolder work;
        const OutputPaths paths(QString(), QStringLiteral("n"), QStringLiteral("flv"));
        QVERIFY(!QFile::exists(QStringLiteral("tmp"))); // made when it is asked for
        QCOMPARE(paths.video(), work.path(QStringLiteral("tmp/n.flv")));
        QCOMPARE(paths.thumb(), work.path(QStringLiteral("tmp/n.thumb")));
        QCOMPARE(paths.folder(), OutputPaths::defaultFolder());
        QVERIFY(QFile::exists(QStringLiteral("tmp")));
    }

    void optionsThatAreReadStay()
    {
        const TemporaryWorkFolder work;
        setCommandLine(QStringLiteral("--url http://p/ --saveto a/v.mp4 --size 5"));
        const RunOptions options = RunOptions::ofCommandLine();
        setCommandLine(QStringLiteral("--url http://q/ --saveto b/w.mp4 --size 6"));
        QCOMPARE(options.paths.video(), QStringLiteral("a/v.mp4"));
        QCOMPARE(options.expectedBytes, qint64(5));
    }

    void expectedBytes_data()
    {
        QTest::addColumn<QString>("words");
        QTest::addColumn<qint64>("bytes");
        QTest::newRow("not given") << QString() << qint64(0);
        QTest::newRow("given") << QStringLiteral("--size 5000000000") << qint64(5000000000);
        QTest::newRow("negative") << QStringLiteral("--size -5") << qint64(0);
        QTest::newRow("no number") << QStringLiteral("--size 5x") << qint64(0);
        QTest::newRow("nothing is resumed") << QStringLiteral("--noresume --size 5") << qint64(0);
    }

    void expectedBytes()
    {
        QFETCH(QString, words);
        QFETCH(qint64, bytes);
        setCommandLine(words);
        QCOMPARE(RunOptions::ofCommandLine().expectedBytes, bytes);
    }
};

CLIPWEIR_TEST_MAIN(tst_OutputPaths)
#include "tst_outputpaths.moc"
