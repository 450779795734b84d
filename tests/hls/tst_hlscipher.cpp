#include "HlsCipher.h"
#include "TestMain.h"

#include <QProcess>

namespace {

const QByteArray key = QByteArray::fromHex("2b7e151628aed2a6abf7158809cf4f3c");
const QByteArray iv = QByteArray::fromHex("000102030405060708090a0b0c0d0e0f");

/// What another program makes of it.
QByteArray encrypted(const QByteArray &plain)
{
    QProcess openssl;
    openssl.start(QStringLiteral("openssl"),
                  {QStringLiteral("enc"), QStringLiteral("-aes-128-cbc"), QStringLiteral("-K"),
                   QString::fromLatin1(key.toHex()), QStringLiteral("-iv"),
                   QString::fromLatin1(iv.toHex())});
    openssl.write(plain);
    openssl.closeWriteChannel();
    return openssl.waitForFinished() ? openssl.readAllStandardOutput() : QByteArray();
}

} // namespace

class tst_HlsCipher : public QObject
{
    Q_OBJECT

private slots:
    void decrypts_data()
    {
        QTest::addColumn<QByteArray>("plain");
        for (const int bytes : {0, 1, 15, 16, 17, 188 * 7, 100 * 1000})
            QTest::addRow("%d bytes", bytes) << QByteArray(bytes, 'x');
    }

    void decrypts()
    {
        QFETCH(QByteArray, plain);
        QByteArray body = encrypted(plain);
        QVERIFY(body.size() > plain.size());
        const QByteArray sent = body;
        QVERIFY(HlsCipher::decrypt(body, key, iv));
        QCOMPARE(body, plain);
        QVERIFY(sent != plain); // which shares no memory with it
    }

    /// The example of NIST SP 800-38A, F.2.1, has no padding, and its end makes none.
    void paddingIsChecked()
    {
        QByteArray body = QByteArray::fromHex("7649abac8119b246cee98e9b12e9197d");
        QVERIFY(!HlsCipher::decrypt(body, key, iv));
    }

    void cutAtEveryByte()
    {
        const QByteArray whole = encrypted("A text of several blocks, the last of them not full.");
        for (int bytes = 0; bytes < whole.size(); ++bytes) {
            QByteArray cut = whole.left(bytes);
            QVERIFY(!HlsCipher::decrypt(cut, key, iv));
        }
    }

    void keysOfOtherSizes()
    {
        const QByteArray whole = encrypted("x");
        for (const int bytes : {0, 15, 17, 32}) {
            QByteArray body = whole;
            QVERIFY(!HlsCipher::decrypt(body, QByteArray(bytes, 'k'), iv));
            QVERIFY(!HlsCipher::decrypt(body, key, QByteArray(bytes, 'i')));
        }
    }

    void ivOfASequenceNumber()
    {
        QCOMPARE(HlsCipher::ivOf(0), QByteArray(16, '\0'));
        QCOMPARE(HlsCipher::ivOf(0x0102030405060708).toHex(),
                 QByteArray("00000000000000000102030405060708"));
    }
};

CLIPWEIR_TEST_MAIN(tst_HlsCipher)
#include "tst_hlscipher.moc"
