#include "HlsAttributes.h"
#include "HlsVariables.h"
#include "TestMain.h"

class tst_HlsAttributes : public QObject
{
    Q_OBJECT

private slots:
    void reads()
    {
        HlsVariables none;
        const HlsAttributes list(
            "METHOD=AES-128,URI=\"a,b=c.key\", IV=0x0A , N=12,S=\"\",Y=YES,Z=\"YES\"", none);
        QVERIFY(list.isValid());
        QCOMPARE(list.bytes("METHOD"), QByteArray("AES-128"));
        QCOMPARE(list.text("URI"), QStringLiteral("a,b=c.key"));
        QCOMPARE(list.bytes("IV"), QByteArray("0x0A"));
        QCOMPARE(list.number("N"), qint64(12));
        QVERIFY(list.has("S") && list.bytes("S").isEmpty());
        QVERIFY(list.isYes("Y") && list.isYes("Z") && !list.isYes("S"));
        QVERIFY(!list.has("M") && !list.has("ETHOD") && !list.has(""));
        QCOMPARE(list.number("METHOD"), qint64(0));
    }

    void lenient_data()
    {
        QTest::addColumn<QByteArray>("text");
        QTest::addColumn<QByteArray>("value"); // of A
        QTest::newRow("empty") << QByteArray() << QByteArray();
        QTest::newRow("no value") << QByteArray("A") << QByteArray();
        QTest::newRow("nothing behind") << QByteArray("A=") << QByteArray();
        QTest::newRow("first counts") << QByteArray("A=1,A=2") << QByteArray("1");
        QTest::newRow("open quote") << QByteArray("A=\"x,B=2") << QByteArray("x,B=2");
        QTest::newRow("quote alone") << QByteArray("A=\"") << QByteArray();
        QTest::newRow("behind a quote") << QByteArray("B=\"x\"y,A=1") << QByteArray("1");
        QTest::newRow("commas") << QByteArray(",,A=1,,") << QByteArray();
        QTest::newRow("utf-8") << QByteArray("A=\"\xc3\xa4\"") << QByteArray("\xc3\xa4");
    }

    void lenient()
    {
        QFETCH(QByteArray, text);
        QFETCH(QByteArray, value);
        HlsVariables none;
        QCOMPARE(HlsAttributes(text, none).bytes("A"), value);
    }

    void cutAtEveryByte()
    {
        const QByteArray text = "A=1,URI=\"a{$v}b\",B=0x{$v}";
        HlsVariables variables;
        QVERIFY(variables.define("v", "12"));
        for (int bytes = 0; bytes < text.size(); ++bytes) {
            const HlsAttributes list(text.left(bytes), variables);
            QVERIFY(list.bytes("A").size() <= 1);
        }
        const HlsAttributes whole(text, variables);
        QCOMPARE(whole.bytes("URI"), QByteArray("a12b"));
        QCOMPARE(whole.bytes("B"), QByteArray("0x12"));
    }

    void undefinedVariable()
    {
        HlsVariables none;
        QVERIFY(!HlsAttributes("A=\"{$v}\"", none).isValid());
        QVERIFY(!HlsAttributes("A=0x{$v}", none).isValid());
        QVERIFY(HlsAttributes("A={$v}", none).isValid()); // an enumerated string takes none
    }

    void integers_data()
    {
        QTest::addColumn<QByteArray>("digits");
        QTest::addColumn<qint64>("number"); // -1 for none
        QTest::newRow("zero") << QByteArray("0") << qint64(0);
        QTest::newRow("zeros before") << QByteArray("0007") << qint64(7);
        QTest::newRow("largest") << QByteArray("9223372036854775807")
                                 << std::numeric_limits<qint64>::max();
        QTest::newRow("above it") << QByteArray("9223372036854775808") << qint64(-1);
        QTest::newRow("far above") << QByteArray(1000, '9') << qint64(-1);
        QTest::newRow("negative") << QByteArray("-1") << qint64(-1);
        QTest::newRow("sign") << QByteArray("+1") << qint64(-1);
        QTest::newRow("fraction") << QByteArray("1.0") << qint64(-1);
        QTest::newRow("blank") << QByteArray(" 1") << qint64(-1);
        QTest::newRow("hexadecimal") << QByteArray("0x1") << qint64(-1);
        QTest::newRow("empty") << QByteArray() << qint64(-1);
    }

    void integers()
    {
        QFETCH(QByteArray, digits);
        QFETCH(qint64, number);
        QCOMPARE(HlsAttributes::integer(digits).value_or(-1), number);
    }
};

CLIPWEIR_TEST_MAIN(tst_HlsAttributes)
#include "tst_hlsattributes.moc"
