#include "HostLine.h"
#include "MessageCatcher.h"
#include "TestMain.h"

class tst_HostLine : public QObject
{
    Q_OBJECT

private slots:
    void fixedLine()
    {
        const MessageCatcher catcher;
        HostLine::sendText(QStringLiteral("exiting..."));
        QCOMPARE(catcher.lines(), QStringList{QStringLiteral("exiting... ")});
    }

    void composedLine()
    {
        const MessageCatcher catcher;
        HostLine::sendQuoted(QStringLiteral("downloaded:1/2"));
        QCOMPARE(catcher.lines(), QStringList{QStringLiteral("\"downloaded:1/2\" ")});
    }

    void plainLine()
    {
        const MessageCatcher catcher;
        HostLine::sendPlain(QStringLiteral("Usage:"));
        HostLine::sendPlain(QString());
        QCOMPARE(catcher.lines(), (QStringList{QStringLiteral("Usage:"), QString()}));
    }

    void mixedLine()
    {
        QCOMPARE(HostLine()
                     .quoted(QStringLiteral("http://h/"))
                     .text(QStringLiteral("parsing..."))
                     .toString(),
                 QStringLiteral("\"http://h/\" parsing... "));
    }

    void listLine()
    {
        QCOMPARE(HostLine().list({QStringLiteral("--flv"), QStringLiteral("a b")}).toString(),
                 QStringLiteral("(\"--flv\", \"a b\") "));
        QCOMPARE(HostLine().list({}).toString(), QStringLiteral("() "));
    }

    void textStaysAsItIs_data()
    {
        QTest::addColumn<QString>("text");
        QTest::newRow("quotes") << QStringLiteral("a \"b\" c");
        QTest::newRow("backslash") << QStringLiteral("a\\n");
        QTest::newRow("percent") << QStringLiteral("%1 %s %n");
        QTest::newRow("not ASCII") << QString::fromUtf8("\xc3\xa9\xe4\xb8\xad\xf0\x9f\x8e\xac");
    }

    void textStaysAsItIs()
    {
        QFETCH(QString, text);
        const MessageCatcher catcher;
        HostLine::sendQuoted(text);
        QCOMPARE(catcher.lines(), QStringList{QLatin1Char('"') + text + QLatin1String("\" ")});
    }

    void controlCharactersCannotForgeALine_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<QString>("expected");
        QTest::newRow("line feed")
            << QStringLiteral("a\nexiting... ") << QStringLiteral("a\\nexiting... ");
        QTest::newRow("carriage return") << QStringLiteral("a\rb") << QStringLiteral("a\\rb");
        QTest::newRow("tab") << QStringLiteral("a\tb") << QStringLiteral("a\\tb");
        QTest::newRow("NUL") << QStringLiteral("a") + QChar(0) + QStringLiteral("b")
                             << QStringLiteral("a\\u0000b");
        QTest::newRow("escape") << QStringLiteral("a\x1b[2J") << QStringLiteral("a\\u001b[2J");
        QTest::newRow("next line") << QString(QChar(0x85)) << QStringLiteral("\\u0085");
        QTest::newRow("line separator") << QString(QChar(0x2028)) << QStringLiteral("\\u2028");
        QTest::newRow("first above")
            << QStringLiteral(" ~") + QChar(0xa0) << QStringLiteral(" ~") + QChar(0xa0);
    }

    void controlCharactersCannotForgeALine()
    {
        QFETCH(QString, text);
        QFETCH(QString, expected);
        const MessageCatcher catcher;
        HostLine::sendPlain(text);
        QCOMPARE(catcher.lines(), QStringList{expected});
    }
};

CLIPWEIR_TEST_MAIN(tst_HostLine)
#include "tst_hostline.moc"
