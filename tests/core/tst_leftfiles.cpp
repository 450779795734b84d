#include "LeftFiles.h"
#include "TestFiles.h"
#include "TestMain.h"

class tst_LeftFiles : public QObject
{
    Q_OBJECT

private slots:
    void whatNobodyUsesIsRemoved()
    {
        const QTemporaryDir folder;
        const QStringList others{QStringLiteral("clipweir-123"), QStringLiteral("clipweir-1234567"),
                                 QStringLiteral("other-123456"), QStringLiteral("clipweir")};
        for (const QString &name : others)
            writeFile(folder.filePath(name), "other");
        writeFile(folder.filePath(QStringLiteral("clipweir-left12")), "left");
        const QString used = folder.filePath(QStringLiteral("clipweir-used12"));
        writeFile(used, "used");
        QFile user(used);
        QVERIFY(user.open(QIODevice::ReadWrite));
        QVERIFY(QDir(folder.path()).mkdir(QStringLiteral("clipweir-folder")));
        QVERIFY(QFile::link(folder.filePath(others.first()),
                            folder.filePath(QStringLiteral("clipweir-link12"))));

        LeftFiles::removeFrom(folder.path());
        QStringList expected = others;
        expected += {QStringLiteral("clipweir-used12"), QStringLiteral("clipweir-link12")};
        expected.sort();
        QStringList left = QDir(folder.path()).entryList(QDir::Files);
        left.sort();
        QCOMPARE(left, expected);

        user.close();
        LeftFiles::removeFrom(folder.path());
        QVERIFY(!QFile::exists(used));
    }

    void aFileThatIsOldIsRemovedInAnyCase()
    {
        const QTemporaryDir folder;
        const QString path = folder.filePath(QStringLiteral("clipweir-aaaaaa"));
        writeFile(path, "old");
        QFile user(path);
        QVERIFY(user.open(QIODevice::ReadWrite));
        QVERIFY(user.setFileTime(QDateTime::currentDateTime().addDays(-2),
                                 QFileDevice::FileModificationTime));
        LeftFiles::removeFrom(folder.path());
        QVERIFY(!QFile::exists(path));
    }

    void aMissingFolderIsNoMatter() { LeftFiles::removeFrom(QStringLiteral("/nonexistent/cache")); }
};

CLIPWEIR_TEST_MAIN(tst_LeftFiles)
#include "tst_leftfiles.moc"
