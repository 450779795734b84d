#include "AdobePreference.h"
#include "MessageCatcher.h"
#include "TestMain.h"

#include <QThread>

#include <memory>
#include <vector>

class tst_AdobePreference : public QObject
{
    Q_OBJECT

    static QVariant option(const char *key)
    {
        return CAdobePreference::GetInstance()->GetOption(QLatin1String(key));
    }

    static void parse(const QString &words)
    {
        CAdobePreference::GetInstance()->parseParams(words.split(QLatin1Char(' ')));
    }

private slots:
    void init() { CAdobePreference::GetInstance()->Reset(); }

    void defaults_data()
    {
        QTest::addColumn<QVariant>("value");
        for (const char *key :
             {"debug", "delete", "play", "quiet", "rename", "bLive", "bTable", "exit"})
            QTest::newRow(key) << QVariant(false);
        for (const char *key : {"metadata", "showHeader"})
            QTest::newRow(key) << QVariant(true);
        for (const char *key : {"duration", "fileSize", "fragCount", "fragNum", "start", "quality",
                                "proxyType", "proxyPort"})
            QTest::newRow(key) << QVariant(0);
        for (const char *key :
             {"manifest", "outFile", "referrer", "auth", "userAgent", "proxyHost", "url"})
            QTest::newRow(key) << QVariant(QString());
        QTest::newRow("fileExt") << QVariant(QStringLiteral(".f4f"));
        QTest::newRow("fileCount") << QVariant(1);
        QTest::newRow("fixWindow") << QVariant(1000);
        QTest::newRow("outDir") << QVariant(QStringLiteral("."));
        QTest::newRow("pannel") << QVariant(8);
    }

    void defaults()
    {
        QFETCH(QVariant, value);
        QCOMPARE(option(QTest::currentDataTag()), value);
    }

    void defaultHeaders()
    {
        const QVariantMap headers = option("browserHeader").toMap();
        QCOMPARE(headers.size(), 2);
        QCOMPARE(headers.value(QStringLiteral("Accept")).toString(),
                 QStringLiteral("text/html,application/xhtml+xml,application/xml;q=0.9,*/*;q=0.8"));
        QCOMPARE(headers.value(QStringLiteral("Connection")).toString(),
                 QStringLiteral("Keep-Alive"));
    }

    void aKeyThatIsAskedForIsAdded()
    {
        const auto *const preference = CAdobePreference::GetInstance();
        const QString key = QStringLiteral("no such key");
        QVERIFY(preference->HasOption(QStringLiteral("pannel")));
        QVERIFY(!preference->HasOption(key));
        QVERIFY(!option("no such key").isValid());
        QVERIFY(preference->HasOption(key));
        QVERIFY(!option("no such key").isValid());
        CAdobePreference::GetInstance()->Reset();
        QVERIFY(!preference->HasOption(key));
    }

    void unknownKeyIsInvalid()
    {
        QVERIFY(!option("no such key").isValid());
        QCOMPARE(option("no such key").toInt(), 0);
        CAdobePreference::GetInstance()->SetOption(QStringLiteral("no such key"), 5);
        QCOMPARE(option("no such key"), QVariant(5));
        CAdobePreference::GetInstance()->Reset();
        QVERIFY(!option("no such key").isValid());
    }

    void namesWithAndWithoutValues()
    {
        const MessageCatcher catcher;
        parse(QStringLiteral("x --quiet --outDir /tmp"));
        QCOMPARE(option("quiet"), QVariant(true));
        QCOMPARE(option("outDir"), QVariant(QStringLiteral("/tmp")));
        QCOMPARE(catcher.lines(),
                 (QStringList{QStringLiteral("\"setOption: quiet=true\" "),
                              QStringLiteral("\"setOption: outDir=/tmp\" ")}));
    }

    void valuesAreText()
    {
        parse(QStringLiteral("x --delete --fragNum 5"));
        QCOMPARE(option("delete"), QVariant(true));
        QCOMPARE(option("fragNum"), QVariant(QStringLiteral("5")));
    }

    void nameAtTheEnd()
    {
        CAdobePreference::GetInstance()->SetOption(QStringLiteral("metadata"), false);
        parse(QStringLiteral("x --metadata"));
        QCOMPARE(option("metadata"), QVariant(true));
    }

    void emptyValueIsNone()
    {
        CAdobePreference::GetInstance()->parseParams(
            {QStringLiteral("x"), QStringLiteral("--auth"), QString(), QStringLiteral("--play")});
        QCOMPARE(option("auth"), QVariant(true));
        QCOMPARE(option("play"), QVariant(true));
    }

    void proxyInThreeParts()
    {
        const MessageCatcher catcher;
        parse(QStringLiteral("x --proxy 3:proxyhost:8080 --quiet"));
        QCOMPARE(option("proxyType"), QVariant(3));
        QCOMPARE(option("proxyHost"), QVariant(QStringLiteral("proxyhost")));
        QCOMPARE(option("proxyPort"), QVariant(8080));
        QVERIFY(!option("proxy").isValid());
        QCOMPARE(option("quiet"), QVariant(true));
        QCOMPARE(catcher.lines().constFirst(),
                 QStringLiteral("\"setOption: proxy proxyType =3 proxyHost = proxyhost "
                                "proxyPort = 8080\" "));
    }

    void proxyInTwoParts()
    {
        parse(QStringLiteral("x --proxy proxyhost:8080"));
        QCOMPARE(option("proxy"), QVariant(QStringLiteral("proxyhost:8080")));
        QCOMPARE(option("proxyType"), QVariant(0));
        QCOMPARE(option("proxyHost"), QVariant(QString()));
        QCOMPARE(option("proxyPort"), QVariant(0));
    }

    void emptyPartsOfAProxyCount()
    {
        parse(QStringLiteral("x --proxy 1::"));
        QCOMPARE(option("proxyType"), QVariant(1));
        QCOMPARE(option("proxyHost"), QVariant(QString()));
        QVERIFY(!option("proxy").isValid());
    }

    void firstItemIsNotLookedAt()
    {
        parse(QStringLiteral("--url http://page/ --manifest http://h/m.f4m stray"));
        QCOMPARE(option("url"), QVariant(QString()));
        QCOMPARE(option("manifest"), QVariant(QStringLiteral("http://h/m.f4m")));
        CAdobePreference::GetInstance()->parseParams({});
    }

    void textThatLooksLikeAMarker()
    {
        const MessageCatcher catcher;
        parse(QStringLiteral("x --a%2b c%1d"));
        QCOMPARE(catcher.lines(), QStringList{QStringLiteral("\"setOption: a%2b=c%1d\" ")});
    }

    void manyThreadsAtOnce()
    {
        std::vector<std::unique_ptr<QThread>> threads;
        for (int t = 0; t < 4; ++t) {
            threads.emplace_back(QThread::create([t] {
                for (int i = 0; i < 500; ++i) {
                    const QString key = QString::number(i);
                    CAdobePreference::GetInstance()->GetOption(key);
                    CAdobePreference::GetInstance()->SetOption(key, t);
                }
            }));
            threads.back()->start();
        }
        for (const auto &thread : threads)
            QVERIFY(thread->wait());
        QVERIFY(option("499").isValid());
    }
};

CLIPWEIR_TEST_MAIN(tst_AdobePreference)
#include "tst_adobepreference.moc"
