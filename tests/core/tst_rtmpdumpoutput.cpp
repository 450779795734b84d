#include "RtmpdumpOutput.h"
#include "TestMain.h"

#include <limits>

class tst_RtmpdumpOutput : public QObject
{
    Q_OBJECT

private slots:
    void status_data();
    void status();
    void noStatus_data();
    void noStatus();
    void writeFailure();
};

void tst_RtmpdumpOutput::status_data()
{
    QTest::addColumn<QByteArray>("chunk");
    QTest::addColumn<qint64>("received");
    QTest::addColumn<qint64>("total");
    const auto row = [](const char *name, const QByteArray &chunk, qint64 received, qint64 total) {
        QTest::newRow(name) << chunk << received << total;
    };
    constexpr qint64 most = std::numeric_limits<qint64>::max();
    constexpr qint64 least = std::numeric_limits<qint64>::min();
    row("plain", "\r1024.000 kB / 8.00 sec (5.0%)", 1048576, 20971520);
    row("too early to tell", "\r1024.000 kB / 8.00 sec (3.0%)", 1048576, 0);
    row("no size", "(50%)", 0, 0);
    row("a percentage that is no number", "\r1 kB (x%)", 1024, 0);
    row("numbers that do not fit", "\r1e300 kB (100%)", most, most);
    row("negative numbers that do not fit", "\r-1e300 kB (100%)", least, least);
    row("no numbers at all", "\rnan kB (nan%)", 0, 0);
    row("without end", "\rinf kB (inf%)", most, 0);
    row("a NUL inside", QByteArray("\r2 kB\0(50%)", 11), 2048, 4096);
}

void tst_RtmpdumpOutput::status()
{
    QFETCH(QByteArray, chunk);
    const auto status = RtmpdumpOutput::status(chunk);
    QVERIFY(status.has_value());
    QTEST(status->received(), "received");
    QTEST(status->total(), "total");
}

void tst_RtmpdumpOutput::noStatus_data()
{
    QTest::addColumn<QByteArray>("chunk");
    QTest::newRow("empty") << QByteArray();
    QTest::newRow("no percentage") << QByteArray("\r1024.000 kB / 8.00 sec");
    QTest::newRow("empty percentage") << QByteArray("\r1 kB (%)");
    QTest::newRow("the wrong way round") << QByteArray("% (");
}

void tst_RtmpdumpOutput::noStatus()
{
    QFETCH(QByteArray, chunk);
    QVERIFY(!RtmpdumpOutput::status(chunk));
}

void tst_RtmpdumpOutput::writeFailure()
{
    QVERIFY(RtmpdumpOutput::tellsWriteFailure("ERROR: Failed writing, "));
    QVERIFY(!RtmpdumpOutput::tellsWriteFailure("failed writing"));
    QVERIFY(!RtmpdumpOutput::tellsWriteFailure(QByteArray()));
}

CLIPWEIR_TEST_MAIN(tst_RtmpdumpOutput)
#include "tst_rtmpdumpoutput.moc"
