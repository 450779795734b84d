#include "ContentRange.h"
#include "HttpDate.h"
#include "TestMain.h"

class tst_HttpDate : public QObject
{
    Q_OBJECT

private slots:
    void dates_data()
    {
        QTest::addColumn<QByteArray>("text");
        QTest::addColumn<qint64>("seconds"); // since 1970; -1 for none
        QTest::newRow("usual") << QByteArray("Sun, 06 Nov 1994 08:49:37 GMT") << qint64(784111777);
        QTest::newRow("spaces") << QByteArray(" Thu, 01 Jan 1970 00:00:00 GMT ") << qint64(0);
        QTest::newRow("empty") << QByteArray() << qint64(-1);
        QTest::newRow("no date") << QByteArray("yesterday") << qint64(-1);
        QTest::newRow("no such day") << QByteArray("Sun, 31 Feb 1994 08:49:37 GMT") << qint64(-1);
        QTest::newRow("another zone") << QByteArray("Sun, 06 Nov 1994 08:49:37 CET") << qint64(-1);
    }

    void dates()
    {
        QFETCH(QByteArray, text);
        QFETCH(qint64, seconds);
        const QDateTime time = HttpDate::parse(text);
        QCOMPARE(time.isValid() ? time.toSecsSinceEpoch() : qint64(-1), seconds);
    }

    void pauses_data()
    {
        QTest::addColumn<QByteArray>("text");
        QTest::addColumn<qint64>("seconds"); // -1 for none
        QTest::newRow("seconds") << QByteArray("17") << qint64(17);
        QTest::newRow("none") << QByteArray("0") << qint64(0);
        QTest::newRow("negative") << QByteArray("-3") << qint64(0);
        QTest::newRow("forever") << QByteArray("9223372036854775807") << qint64(86400);
        QTest::newRow("beyond 64 bits") << QByteArray("9223372036854775808") << qint64(-1);
        QTest::newRow("a time") << QByteArray("Thu, 01 Jan 1970 00:01:40 GMT") << qint64(90);
        QTest::newRow("a time gone by") << QByteArray("Thu, 01 Jan 1970 00:00:01 GMT") << qint64(0);
        QTest::newRow("missing") << QByteArray() << qint64(-1);
        QTest::newRow("a word") << QByteArray("soon") << qint64(-1);
    }

    void pauses()
    {
        QFETCH(QByteArray, text);
        QFETCH(qint64, seconds);
        const auto pause = HttpDate::pauseOf(text, QDateTime::fromSecsSinceEpoch(10));
        QCOMPARE(pause ? qint64(pause->count()) : qint64(-1), seconds);
    }

    void ranges_data()
    {
        QTest::addColumn<QByteArray>("text");
        QTest::addColumn<qint64>("first");
        QTest::addColumn<qint64>("last");
        QTest::addColumn<qint64>("size");
        QTest::newRow("all") << QByteArray("bytes 4-9/10") << qint64(4) << qint64(9) << qint64(10);
        QTest::newRow("unknown size")
            << QByteArray("bytes 4-9/*") << qint64(4) << qint64(9) << qint64(-1);
        QTest::newRow("unsatisfied")
            << QByteArray("bytes */10") << qint64(-1) << qint64(-1) << qint64(-1);
        QTest::newRow("empty") << QByteArray() << qint64(-1) << qint64(-1) << qint64(-1);
        QTest::newRow("too large") << QByteArray("bytes 9223372036854775808-9/10") << qint64(-1)
                                   << qint64(9) << qint64(10);
    }

    void ranges()
    {
        QFETCH(QByteArray, text);
        const ContentRange range = ContentRange::of(text);
        QTEST(range.first, "first");
        QTEST(range.last, "last");
        QTEST(range.size, "size");
    }
};

CLIPWEIR_TEST_MAIN(tst_HttpDate)
#include "tst_httpdate.moc"
