#include "MediaRules.h"
#include "TestMain.h"

class tst_MediaRules : public QObject
{
    Q_OBJECT

private slots:
    void notesWhatIsKnown()
    {
        const QString url = QStringLiteral("http://h/a.mp4");
        ParseData record;
        QVERIFY(!MediaRules::note(record, QStringLiteral("http://h/a.css"), 100, QString()));
        QVERIFY(record.fileList.isEmpty());
        QVERIFY(MediaRules::note(record, url, 1048575, QStringLiteral("video/mp4")));
        QCOMPARE(record.get(url)->nSize, qint64(0));
        QCOMPARE(record.get(url)->contentType, QStringLiteral("video/mp4"));
        QVERIFY(MediaRules::note(record, url, 1048576, QStringLiteral("video/webm")));
        QCOMPARE(record.get(url)->nSize, qint64(1048576));
        QCOMPARE(record.get(url)->contentType, QStringLiteral("video/webm"));
        QVERIFY(MediaRules::note(record, url, 5, QString()));
        QCOMPARE(record.get(url)->nSize, qint64(1048576));
        QCOMPARE(record.fileList.size(), 1);
    }

    void candidates()
    {
        const QString plain = QStringLiteral("http://h/a");
        const QString type = QStringLiteral("video/mp4");
        QVERIFY(!MediaRules::isCandidate(plain, 1048575, type));
        QVERIFY(MediaRules::isCandidate(plain, 1048576, type));
        QVERIFY(!MediaRules::isCandidate(plain, 1073741823, QString()));
        QVERIFY(MediaRules::isCandidate(plain, 1073741824, QString()));
        QVERIFY(MediaRules::isCandidate(QStringLiteral("http://h/a.mp4"), 0, QString()));
    }

    void found_data()
    {
        QTest::addColumn<qint64>("expectedBytes");
        QTest::addColumn<qint64>("size");
        QTest::addColumn<QString>("contentType");
        QTest::addColumn<bool>("isFound");
        const QString video = QStringLiteral("video/mp4");
        QTest::newRow("unknown size") << qint64(0) << qint64(0) << video << false;
        QTest::newRow("media of 5 MiB") << qint64(0) << qint64(5242880) << video << true;
        QTest::newRow("media below") << qint64(0) << qint64(5242879) << video << false;
        QTest::newRow("upper case type")
            << qint64(0) << qint64(5242880) << QStringLiteral("Video/mp4") << false;
        QTest::newRow("anything of 10 MiB") << qint64(0) << qint64(10485760) << QString() << true;
        QTest::newRow("anything below") << qint64(0) << qint64(10485759) << QString() << false;
        QTest::newRow("expected") << qint64(3) << qint64(3) << QString() << true;
        QTest::newRow("not what is expected") << qint64(3) << qint64(20000000) << video << false;
    }

    void found()
    {
        QFETCH(qint64, expectedBytes);
        QFETCH(qint64, size);
        QFETCH(QString, contentType);
        QFETCH(bool, isFound);
        VideoFile file;
        file.nSize = size;
        file.contentType = contentType;
        QCOMPARE(MediaRules(expectedBytes).isFound(file), isFound);
    }

    void streamsAreFound()
    {
        VideoFile stream;
        stream.manifest = ManifestAddress::Kind::Dash;
        QVERIFY(MediaRules(0).isFound(stream));
        QVERIFY(!MediaRules(3).isFound(stream));
    }
};

CLIPWEIR_TEST_MAIN(tst_MediaRules)
#include "tst_mediarules.moc"
