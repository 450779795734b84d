#include "MessageCatcher.h"
#include "TestMain.h"
#include "VideoParts.h"

#include <QTemporaryDir>

class tst_VideoParts : public QObject
{
    Q_OBJECT

    static QString text(const char *latin1) { return QString::fromLatin1(latin1); }

    static void write(const QString &path, const QByteArray &bytes)
    {
        QFile file(path);
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write(bytes);
    }

    static QByteArray read(const QString &path)
    {
        QFile file(path);
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    }

private slots:
    void onePart_data()
    {
        QTest::addColumn<int>("outcome");
        QTest::addColumn<QStringList>("lines");
        QTest::addColumn<bool>("isThere");
        QTest::newRow("success") << 1 << QStringList{text("video download finished:success ")}
                                 << true;
        QTest::newRow("failed") << 0 << QStringList{text("video download finished:failed ")}
                                << false;
        QTest::newRow("canceled") << -1 << QStringList{text("video download finished:canceled ")}
                                  << false;
        QTest::newRow("unknown") << 7 << QStringList() << false;
    }

    void onePart()
    {
        QFETCH(int, outcome);
        QFETCH(QStringList, lines);
        QFETCH(bool, isThere);
        const MessageCatcher catcher;
        VideoParts parts(1);
        QVERIFY(!parts.haveAllEnded());
        parts.add(outcome);
        QVERIFY(parts.haveAllEnded());
        QVERIFY(catcher.lines().isEmpty());
        QCOMPARE(parts.report(text("/no/such/file")), isThere);
        QCOMPARE(catcher.lines(), lines);
    }

    void severalParts_data()
    {
        QTest::addColumn<int>("lastOutcome");
        QTest::addColumn<QString>("line");
        QTest::addColumn<QByteArray>("joined");
        QTest::newRow("all arrive")
            << 1 << text("video download success ") << QByteArray("firstsecond");
        QTest::newRow("one fails") << 0 << text("video download failed ") << QByteArray();
    }

    void severalParts()
    {
        QFETCH(int, lastOutcome);
        QFETCH(QString, line);
        QFETCH(QByteArray, joined);
        const QTemporaryDir folder;
        const QString video = folder.filePath(text("video.mp4"));
        write(video + text("_0"), "first");
        write(video + text("_1"), "second");
        const MessageCatcher catcher;
        VideoParts parts(2);
        parts.add(1);
        QVERIFY(!parts.haveAllEnded());
        parts.add(lastOutcome);
        QVERIFY(parts.haveAllEnded());
        QCOMPARE(parts.report(video), !joined.isEmpty());
        QCOMPARE(catcher.lines(), (QStringList{line, text("video download finished ")}));
        QCOMPARE(read(video), joined);
    }

    void joiningLeavesOutWhatIsMissing()
    {
        const QTemporaryDir folder;
        const QString video = folder.filePath(text("video.mp4"));
        write(video + text("_1"), "second");
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression(text("cannot append part 0")));
        QVERIFY(VideoParts::join(video, 2));
        QCOMPARE(read(video), QByteArray("second"));
    }

    void joiningNeedsAnOutput()
    {
        QVERIFY(!VideoParts::join(text("/proc/self/none/video.mp4"), 2));
    }
};

CLIPWEIR_TEST_MAIN(tst_VideoParts)
#include "tst_videoparts.moc"
