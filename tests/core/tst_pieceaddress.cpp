#include "PieceAddress.h"
#include "TestMain.h"

class tst_PieceAddress : public QObject
{
    Q_OBJECT

private slots:
    void wholes_data()
    {
        QTest::addColumn<QString>("address");
        QTest::addColumn<QString>("whole");
        const auto row = [](const char *address, const char *whole) {
            QTest::newRow(address) << QString::fromLatin1(address) << QString::fromLatin1(whole);
        };
        row("http://h/v", "http://h/v");
        row("http://h/v?range=0-99", "http://h/v");
        row("http://h/v?a=b&range=0-99&c=%20d", "http://h/v?a=b&c=%20d");
        row("http://h/v?Range=100-", "http://h/v");
        row("http://h/v?range=0-99#t", "http://h/v#t");
        row("http://h/v?bytestart=0&byteend=99&e=1", "http://h/v?e=1");
        row("http://h/v?bytes=1-2", "http://h/v");
        row("http://h/v?byterange=1-2", "http://h/v");
        // No piece of a file.
        row("http://h/v?range=all", "http://h/v?range=all");
        row("http://h/v?range=-5", "http://h/v?range=-5");
        row("http://h/v?range=5", "http://h/v?range=5");
        row("http://h/v?range=", "http://h/v?range=");
        row("http://h/v?range", "http://h/v?range");
        row("http://h/v?arrange=1-2", "http://h/v?arrange=1-2");
        row("http://h/v?bytestart=", "http://h/v?bytestart=");
        row("http://h/range=1-2", "http://h/range=1-2");
        row("http://h/v#?range=1-2", "http://h/v#?range=1-2");
        row("http://h/v?&&=", "http://h/v?&&=");
        row("", "");
    }

    void wholes()
    {
        QFETCH(QString, address);
        QTEST(PieceAddress::wholeOf(address), "whole");
    }
};

CLIPWEIR_TEST_MAIN(tst_PieceAddress)
#include "tst_pieceaddress.moc"
