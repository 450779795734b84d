#include "RetryPause.h"
#include "TestMain.h"

class tst_RetryPause : public QObject
{
    Q_OBJECT

private slots:
    void pauses_data()
    {
        QTest::addColumn<int>("attempts");
        QTest::addColumn<QByteArray>("retryAfter");
        QTest::addColumn<int>("seconds");
        QTest::newRow("first") << 0 << QByteArray() << 1;
        QTest::newRow("second") << 1 << QByteArray() << 2;
        QTest::newRow("sixth") << 5 << QByteArray() << 32;
        QTest::newRow("seventh") << 6 << QByteArray() << 60;
        QTest::newRow("thousandth") << 999 << QByteArray() << 60;
        QTest::newRow("asked for less") << 2 << QByteArray("1") << 4;
        QTest::newRow("asked for more") << 0 << QByteArray("90") << 90;
        QTest::newRow("asked for too much") << 0 << QByteArray("3600") << 120;
        QTest::newRow("asked for nonsense") << 0 << QByteArray("soon") << 1;
    }

    void pauses()
    {
        QFETCH(int, attempts);
        QFETCH(QByteArray, retryAfter);
        QFETCH(int, seconds);
        QVERIFY(RetryPause::of(attempts, retryAfter) == std::chrono::seconds(seconds));
    }

    void whatMayPass()
    {
        for (const int status : {408, 425, 429, 500, 502, 503, 504})
            QVERIFY2(RetryPause::isPassing(status), qPrintable(QString::number(status)));
        for (const int status : {0, 200, 206, 301, 403, 404, 416, 501, 505})
            QVERIFY2(!RetryPause::isPassing(status), qPrintable(QString::number(status)));
    }
};

CLIPWEIR_TEST_MAIN(tst_RetryPause)
#include "tst_retrypause.moc"
