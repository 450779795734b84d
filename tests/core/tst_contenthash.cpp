#include "ContentHash.h"
#include "TestFiles.h"
#include "TestMain.h"

#include <QCryptographicHash>

class tst_ContentHash : public QObject
{
    Q_OBJECT

    static QByteArray expected(const QByteArray &bytes)
    {
        return QCryptographicHash::hash(bytes, QCryptographicHash::Sha256);
    }

private slots:
    void piecesMakeOneSum()
    {
        ContentHash hash;
        QCOMPARE(hash.sum(), expected(QByteArray()));
        hash.add("one ", 4);
        QCOMPARE(hash.sum(), expected("one "));
        hash.add("two", 3);
        QCOMPARE(hash.sum(), expected("one two"));
        QCOMPARE(hash.bytes(), qint64(7));
        hash.reset();
        QCOMPARE(hash.bytes(), qint64(0));
        QCOMPARE(hash.sum(), expected(QByteArray()));
    }

    void files()
    {
        const TemporaryWorkFolder folder;
        const QByteArray content(3000001, 'x');
        writeFile(folder.path(QStringLiteral("f")), content);
        QCOMPARE(ContentHash::ofFile(folder.path(QStringLiteral("f"))), expected(content));
        QCOMPARE(ContentHash::ofFile(folder.path(QStringLiteral("none"))), QByteArray());
        QCOMPARE(ContentHash::ofFile(folder.path()), QByteArray());
    }
};

CLIPWEIR_TEST_MAIN(tst_ContentHash)
#include "tst_contenthash.moc"
