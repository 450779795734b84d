#include "QxDir.h"
#include "TestMain.h"

#include <QTemporaryDir>

class tst_QxDir : public QObject
{
    Q_OBJECT

private slots:
    void namesFoldersBelowHome()
    {
        const QString home = QDir::homePath();
        QCOMPARE(QxDir::GetDocumentDir(), home + QLatin1String("/Documents"));
        QCOMPARE(QxDir::GetVideoDir(), home + QLatin1String("/Movies"));
        QCOMPARE(QxDir::GetPictureDir(), home + QLatin1String("/Pictures"));
        QCOMPARE(QxDir::GetMusicDir(), home + QLatin1String("/Music"));
        QCOMPARE(QxDir::GetAppDataDir(), home + QLatin1String("/Library/Application Support"));
        QCOMPARE(GetInputDir(), home + QLatin1String("/Movies"));
        QCOMPARE(GetOutputDir(QStringLiteral("a")), home + QLatin1String("/Movies/a"));
        QCOMPARE(GetSnapshotDir(QStringLiteral("a")), home + QLatin1String("/Pictures/a"));
        QCOMPARE(GetDbPathName(QStringLiteral("a.db")), home + QLatin1String("/Documents/a.db"));
        QCOMPARE(GetProfileDir(), home + QLatin1String("/Library/Application Support/Profiles"));
        QCOMPARE(GetAppDataDir(QStringLiteral("a")),
                 home + QLatin1String("/Library/Application Support/a"));
        QCOMPARE(GetSubtitleDir(), home + QLatin1String("/Music"));
        QCOMPARE(GetSoundDir(), home + QLatin1String("/Music"));
        QVERIFY(!QFile::exists(QxDir::GetVideoDir()));
    }

    void makeDirKeepsAnExistingFolder()
    {
        const QTemporaryDir folder;
        QCOMPARE(QxDir::MakeDir(folder.path()), folder.path());
        QVERIFY(QDir(folder.path()).isEmpty());
    }

    void makeDirResolvesAgainstTheWorkingFolder()
    {
        const QTemporaryDir folder;
        const QString before = QDir::currentPath();
        QVERIFY(QDir::setCurrent(folder.path()));
        const QString made = QxDir::MakeDir(QStringLiteral("x/y"));
        QVERIFY(QDir::setCurrent(before));
        QCOMPARE(made, folder.path() + QLatin1String("/x/y"));
        QVERIFY(QDir(made).exists());
    }

    void makeDirReturnsThePathOfAFolderItCannotMake()
    {
        const QString impossible = QStringLiteral("/proc/self/nothing/here");
        QCOMPARE(QxDir::MakeDir(impossible), impossible);
        QVERIFY(!QDir(impossible).exists());
    }

    void changeBaseName_data()
    {
        QTest::addColumn<QString>("path");
        QTest::addColumn<QString>("expected");
        QTest::newRow("plain") << QStringLiteral("/tmp/clip.flv")
                               << QStringLiteral("/tmp/movie.flv");
        QTest::newRow("two points")
            << QStringLiteral("/tmp/a.b.flv") << QStringLiteral("/tmp/movie.flv");
        QTest::newRow("relative") << QStringLiteral("clip.flv") << QStringLiteral("./movie.flv");
    }

    void changeBaseName()
    {
        QFETCH(QString, path);
        QFETCH(QString, expected);
        QCOMPARE(ChangeBaseName(path, QStringLiteral("movie")), expected);
    }

    void commonDir_data()
    {
        QTest::addColumn<QString>("a");
        QTest::addColumn<QString>("b");
        QTest::addColumn<QString>("expected");
        QTest::newRow("siblings") << "/a/b/c"
                                  << "/a/b/d"
                                  << "/a/b";
        QTest::newRow("prefix of a name") << "/a/x"
                                          << "/a/xy"
                                          << "/a";
        QTest::newRow("equal") << "/a/b"
                               << "/a/b"
                               << "/a/b";
        QTest::newRow("one longer") << "/a/b"
                                    << "/a/b/c"
                                    << "/a";
        QTest::newRow("root only") << "/a"
                                   << "/b"
                                   << "";
        QTest::newRow("nothing shared") << "a/b"
                                        << "cc/b"
                                        << "";
        QTest::newRow("empty") << ""
                               << "/a"
                               << "";
    }

    void commonDir()
    {
        QFETCH(QString, a);
        QFETCH(QString, b);
        QFETCH(QString, expected);
        QCOMPARE(GetCommonDir(a, b), expected);
    }
};

CLIPWEIR_TEST_MAIN(tst_QxDir)
#include "tst_qxdir.moc"
