#include "HlsLimits.h"
#include "HlsVariables.h"
#include "TestMain.h"

class tst_HlsVariables : public QObject
{
    Q_OBJECT

private slots:
    void substitutes_data()
    {
        QTest::addColumn<QByteArray>("text");
        QTest::addColumn<QByteArray>("result"); // null for a failure
        QTest::newRow("none") << QByteArray("a/b.ts") << QByteArray("a/b.ts");
        QTest::newRow("one") << QByteArray("{$a}/b.ts") << QByteArray("x/b.ts");
        QTest::newRow("two") << QByteArray("{$a}{$b-_1}") << QByteArray("x{$a}");
        QTest::newRow("not again") << QByteArray("{$b-_1}") << QByteArray("{$a}");
        QTest::newRow("empty value") << QByteArray("a{$e}b") << QByteArray("ab");
        QTest::newRow("unknown") << QByteArray("a{$c}") << QByteArray();
        QTest::newRow("letter case") << QByteArray("{$A}") << QByteArray();
        QTest::newRow("never closed") << QByteArray("{$a") << QByteArray("{$a");
        QTest::newRow("no name") << QByteArray("{$}{$a}") << QByteArray("{$}x");
        QTest::newRow("blank in it") << QByteArray("{$a b}") << QByteArray("{$a b}");
        QTest::newRow("one in another") << QByteArray("{${$a}}") << QByteArray("{$x}");
    }

    void substitutes()
    {
        QFETCH(QByteArray, text);
        QFETCH(QByteArray, result);
        HlsVariables variables;
        QVERIFY(variables.define("a", "x"));
        QVERIFY(variables.define("b-_1", "{$a}"));
        QVERIFY(variables.define("e", ""));
        QCOMPARE(variables.substitute(text), !result.isNull());
        if (!result.isNull())
            QCOMPARE(text, result);
    }

    void definesOnceAndWell()
    {
        HlsVariables variables;
        QVERIFY(variables.define("a", "x"));
        QVERIFY(!variables.define("a", "y"));
        QVERIFY(!variables.define("", "y"));
        QVERIFY(!variables.define("a b", "y"));
        QVERIFY(!variables.define("\xc3\xa4", "y"));
        QVERIFY(variables.has("a") && !variables.has("a b"));
        QCOMPARE(variables.value("a"), QByteArray("x"));
    }

    void isBounded()
    {
        HlsVariables variables;
        const QByteArray large(HlsLimits::lineBytes, 'x');
        QVERIFY(variables.define("a", large));
        QByteArray text = "{$a}";
        QVERIFY(variables.substitute(text));
        QCOMPARE(text.size(), HlsLimits::lineBytes);
        text = "{$a}b";
        QVERIFY(!variables.substitute(text));
        int defined = 0;
        while (defined < 1000 && variables.define("b" + QByteArray::number(defined), large))
            ++defined;
        QVERIFY(defined < HlsLimits::variableBytes / HlsLimits::lineBytes);
    }

    void allTextsTogetherAreBounded()
    {
        HlsVariables variables;
        QVERIFY(variables.define("a", QByteArray(HlsLimits::lineBytes / 2, 'x')));
        int texts = 0;
        for (QByteArray text = "{$a}"; texts < 100000 && variables.substitute(text); ++texts)
            text = "{$a}";
        QCOMPARE(qint64(texts), HlsLimits::substitutedBytes / (HlsLimits::lineBytes / 2));
    }
};

CLIPWEIR_TEST_MAIN(tst_HlsVariables)
#include "tst_hlsvariables.moc"
