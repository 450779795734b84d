#include "RunOptions.h"
#include "TestFiles.h"
#include "TestMain.h"
#include "VideoPreference.h"

#include <QDate>
#include <QDir>

Q_DECLARE_METATYPE(ProxySetting)

namespace {

CVideoPreference *preference()
{
    return CVideoPreference::instance();
}

using Flag = bool (CVideoPreference::*)() const;

Flag flagOf(const QString &key)
{
    static const QHash<QString, Flag> flags{
        {QStringLiteral("thumb"), &CVideoPreference::GetThumb},
        {QStringLiteral("partial"), &CVideoPreference::GetPartialDown},
        {QStringLiteral("smartname"), &CVideoPreference::GetSmartName},
        {QStringLiteral("noresume"), &CVideoPreference::GetResume},
        {QStringLiteral("keepimage"), &CVideoPreference::GetKeepImage},
        {QStringLiteral("log"), &CVideoPreference::GetLog},
        {QStringLiteral("show"), &CVideoPreference::GetShow},
        {QStringLiteral("info"), &CVideoPreference::GetInfoFlag},
        {QStringLiteral("exit"), &CVideoPreference::GetExitFlag},
        {QStringLiteral("f4f"), &CVideoPreference::GetSupportF4f},
        {QStringLiteral("streams"), &CVideoPreference::GetStreams},
        {QStringLiteral("parent"), &CVideoPreference::GetParent},
        {QStringLiteral("events"), &CVideoPreference::GetEvents},
        {QStringLiteral("strict"), &CVideoPreference::GetStrict},
        {QStringLiteral("continue"), &CVideoPreference::GetContinue},
        {QStringLiteral("eager"), &CVideoPreference::GetEager},
    };
    return flags.value(key);
}

const QStringList flagKeys{
    QStringLiteral("thumb"),     QStringLiteral("partial"),  QStringLiteral("smartname"),
    QStringLiteral("noresume"),  QStringLiteral("log"),      QStringLiteral("show"),
    QStringLiteral("keepimage"), QStringLiteral("info"),     QStringLiteral("exit"),
    QStringLiteral("f4f"),       QStringLiteral("parent"),   QStringLiteral("events"),
    QStringLiteral("strict"),    QStringLiteral("continue"), QStringLiteral("eager"),
    QStringLiteral("streams"),
};

} // namespace

class tst_VideoPreference : public QObject
{
    Q_OBJECT

private slots:
    void theMemoryLimitIsGivenInMebibytes()
    {
        setArguments({});
        QCOMPARE(preference()->GetMemoryLimit(), qint64(2048) << 20);
        setArguments({QStringLiteral("--memory"), QStringLiteral("3")});
        QCOMPARE(preference()->GetMemoryLimit(), qint64(3) << 20);
        for (const char *const none : {"0", "-5"}) {
            setArguments({QStringLiteral("--memory"), QLatin1String(none)});
            QCOMPARE(preference()->GetMemoryLimit(), qint64(0));
        }
        setArguments({QStringLiteral("--memory"), QStringLiteral("much")});
        QCOMPARE(preference()->GetMemoryLimit(), qint64(2048) << 20);
    }

    void init() { setArguments({}); }

    void isOneInstance() { QCOMPARE(CVideoPreference::instance(), CVideoPreference::instance()); }

    void keyMatchesWithEveryPrefixInAnyLetterCase_data()
    {
        QTest::addColumn<QString>("argument");
        QTest::addColumn<bool>("isSame");
        QTest::newRow("one dash") << "-url" << true;
        QTest::newRow("two dashes") << "--url" << true;
        QTest::newRow("slash") << "/url" << true;
        QTest::newRow("upper case") << "--URL" << true;
        QTest::newRow("mixed case after a slash") << "/uRl" << true;
        QTest::newRow("no prefix") << "url" << false;
        QTest::newRow("three dashes") << "---url" << false;
        QTest::newRow("two slashes") << "//url" << false;
        QTest::newRow("longer key") << "--urls" << false;
        QTest::newRow("shorter key") << "--ur" << false;
        QTest::newRow("space after it") << "--url " << false;
        QTest::newRow("value attached") << "--url=x" << false;
        QTest::newRow("empty") << "" << false;
        QTest::newRow("prefix only") << "--" << false;
    }

    void keyMatchesWithEveryPrefixInAnyLetterCase()
    {
        QFETCH(QString, argument);
        QFETCH(bool, isSame);
        QCOMPARE(preference()->isSameOptionKey(argument, QStringLiteral("url")), isSame);
        setArguments({argument, QStringLiteral("v")});
        QCOMPARE(preference()->GetOptionState(QStringLiteral("url")), isSame);
        QCOMPARE(preference()->GetPageUrl(), isSame ? QStringLiteral("v") : QString());
    }

    void keyIsTakenInAnyLetterCase()
    {
        QVERIFY(preference()->isSameOptionKey(QStringLiteral("--url"), QStringLiteral("URL")));
        QVERIFY(preference()->isSameOptionKey(QStringLiteral("--"), QString()));
    }

    void defaults()
    {
        QCOMPARE(preference()->GetPageUrl(), QString());
        QCOMPARE(preference()->GetTimeOut(), 120);
        QCOMPARE(preference()->GetStall(), 0);
        QCOMPARE(preference()->GetDeadline(), 0);
        QCOMPARE(preference()->GetVideoFormat(), 0);
        QCOMPARE(preference()->GetQuality(), 0);
        QCOMPARE(preference()->GetTotalSize(), qint64(0));
        QCOMPARE(preference()->GetProxy().type, 2);
        QCOMPARE(preference()->GetProxy().host, QString());
        QCOMPARE(preference()->GetProxy().port, 0);
        for (const QString &key : flagKeys)
            QCOMPARE((preference()->*flagOf(key))(), key == QLatin1String("noresume"));
    }

    void eachFlagSetsItselfOnly_data()
    {
        QTest::addColumn<QString>("key");
        for (const QString &key : flagKeys)
            QTest::newRow(qPrintable(key)) << key;
    }

    void eachFlagSetsItselfOnly()
    {
        QFETCH(QString, key);
        for (const char *prefix : {"-", "--", "/"}) {
            setArguments({QLatin1String(prefix) + key.toUpper()});
            for (const QString &other : flagKeys) {
                const bool isSet = other == key;
                const bool isInverse = other == QLatin1String("noresume");
                QCOMPARE((preference()->*flagOf(other))(), isSet != isInverse);
            }
        }
    }

    void aValueThatLooksLikeAFlagSetsIt_data()
    {
        QTest::addColumn<QString>("line");
        QTest::newRow("path") << "--saveto /log";
        QTest::newRow("dash") << "--url -log";
        QTest::newRow("letter case") << "--proxy /LOG";
    }

    void aValueThatLooksLikeAFlagSetsIt()
    {
        QFETCH(QString, line);
        setCommandLine(line);
        QVERIFY(preference()->GetLog());
    }

    void valueOption_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<QString>("value");
        const QString key = QStringLiteral("--url");
        const QString a = QStringLiteral("http://a/");
        const QString b = QStringLiteral("http://b/");
        QTest::newRow("given") << QStringList{key, a} << a;
        QTest::newRow("last argument") << QStringList{a, key} << QString();
        QTest::newRow("empty value") << QStringList{key, QString()} << QString();
        QTest::newRow("given twice: the first wins") << QStringList{key, a, key, b} << a;
        QTest::newRow("the first wins in any spelling")
            << QStringList{QStringLiteral("/URL"), a, key, b} << a;
        QTest::newRow("a first empty value hides the second")
            << QStringList{key, QString(), key, b} << QString();
        QTest::newRow("a value that is a key is taken as it stands")
            << QStringList{key, QStringLiteral("--thumb"), b} << QStringLiteral("--thumb");
        QTest::newRow("its own key as value: the first match decides")
            << QStringList{key, key, b} << key;
        QTest::newRow("key found as another option's value")
            << QStringList{QStringLiteral("--saveto"), key, a} << a;
        QTest::newRow("spaces stay")
            << QStringList{key, QStringLiteral(" x ")} << QStringLiteral(" x ");
    }

    void valueOption()
    {
        QFETCH(QStringList, arguments);
        QFETCH(QString, value);
        setArguments(arguments);
        QCOMPARE(preference()->GetPageUrl(), value);
        const QString fallback = QStringLiteral("fallback");
        QCOMPARE(preference()->GetOptionString(QStringLiteral("url"), fallback),
                 value.isEmpty() ? fallback : value);
    }

    void number_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<int>("timeout"); // 120 when not a number
        QTest::addColumn<int>("format"); // 0 when not a number
        QTest::newRow("plain") << "45" << 45 << 45;
        QTest::newRow("zero") << "0" << 0 << 0;
        QTest::newRow("negative") << "-7" << -7 << -7;
        QTest::newRow("largest") << "2147483647" << 2147483647 << 2147483647;
        QTest::newRow("one above") << "2147483648" << 120 << 0;
        QTest::newRow("word, as the usage text shows it") << "mp4" << 120 << 0;
        QTest::newRow("unit") << "45s" << 120 << 0;
        QTest::newRow("fraction") << "1.5" << 120 << 0;
        QTest::newRow("hexadecimal") << "0x10" << 120 << 0;
        QTest::newRow("leading zero is decimal") << "010" << 10 << 10;
        QTest::newRow("missing") << "" << 120 << 0;
    }

    void number()
    {
        QFETCH(QString, text);
        QFETCH(int, timeout);
        QFETCH(int, format);
        setArguments({QStringLiteral("--timeout"), text, QStringLiteral("--format"), text,
                      QStringLiteral("--quality"), text});
        QCOMPARE(preference()->GetTimeOut(), timeout);
        QCOMPARE(preference()->GetVideoFormat(), format);
        QCOMPARE(preference()->GetQuality(), format);
    }

    void totalSize_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<qint64>("size");
        QTest::newRow("plain") << "5000" << qint64(5000);
        QTest::newRow("above 32 bits") << "4294967297" << qint64(4294967297);
        QTest::newRow("largest") << "9223372036854775807" << std::numeric_limits<qint64>::max();
        QTest::newRow("one above") << "9223372036854775808" << qint64(0);
        QTest::newRow("negative") << "-1" << qint64(-1);
        QTest::newRow("word") << "big" << qint64(0);
        QTest::newRow("number and word") << "12k" << qint64(0);
        QTest::newRow("missing") << "" << qint64(0);
    }

    void totalSize()
    {
        QFETCH(QString, text);
        QFETCH(qint64, size);
        setArguments({QStringLiteral("--size"), text});
        QCOMPARE(preference()->GetTotalSize(), size);
    }

    void proxy_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<ProxySetting>("expected");
        const auto setting = [](qint32 type, const char *host, qint32 port) {
            return ProxySetting{type, QLatin1String(host), port};
        };
        QTest::newRow("whole") << "3:127.0.0.1:8080" << setting(3, "127.0.0.1", 8080);
        QTest::newRow("host name") << "3:proxy.example:8080" << setting(3, "", 8080);
        QTest::newRow("type only") << "3" << setting(3, "", 0);
        QTest::newRow("no port") << "1:10.0.0.1" << setting(1, "10.0.0.1", 0);
        QTest::newRow("no type") << ":10.0.0.1:80" << setting(2, "10.0.0.1", 80);
        QTest::newRow("type is a word") << "http:10.0.0.1:80" << setting(2, "10.0.0.1", 80);
        QTest::newRow("port is a word") << "3:10.0.0.1:web" << setting(3, "10.0.0.1", 0);
        QTest::newRow("further parts") << "3:10.0.0.1:80:user:word" << setting(3, "10.0.0.1", 80);
        QTest::newRow("numbers are not checked")
            << "99:10.0.0.1:70000" << setting(99, "10.0.0.1", 70000);
        QTest::newRow("empty host") << "3::80" << setting(3, "", 80);
        QTest::newRow("an IPv6 address is cut at its first colon")
            << "3:::1:80" << setting(3, "", 0);
        QTest::newRow("empty") << "" << setting(2, "", 0);
    }

    void proxy()
    {
        QFETCH(QString, text);
        QFETCH(ProxySetting, expected);
        setArguments({QStringLiteral("--proxy"), text});
        const ProxySetting setting = preference()->GetProxy();
        QCOMPARE(setting.type, expected.type);
        QCOMPARE(setting.host, expected.host);
        QCOMPARE(setting.port, expected.port);
    }

    void limitsInSeconds_data()
    {
        QTest::addColumn<QString>("value");
        QTest::addColumn<int>("seconds");
        QTest::newRow("a minute") << "60" << 60;
        QTest::newRow("highest") << "2147483647" << 2147483647;
        QTest::newRow("none") << "0" << 0;
        QTest::newRow("negative") << "-5" << 0;
        QTest::newRow("beyond a number") << "2147483648" << 0;
        QTest::newRow("fraction") << "1.5" << 0;
        QTest::newRow("unit") << "5s" << 0;
        QTest::newRow("word") << "soon" << 0;
        QTest::newRow("nothing") << "" << 0;
        QTest::newRow("another option") << "--log" << 0;
    }

    void limitsInSeconds()
    {
        QFETCH(QString, value);
        setArguments({QStringLiteral("--stall"), value});
        QTEST(preference()->GetStall(), "seconds");
        QCOMPARE(preference()->GetDeadline(), 0);
        setArguments({QStringLiteral("--deadline"), value});
        QTEST(preference()->GetDeadline(), "seconds");
        QCOMPARE(preference()->GetStall(), 0);
        setArguments({QStringLiteral("/STALL")});
        QCOMPARE(preference()->GetStall(), 0);
    }

    void connections_data()
    {
        QTest::addColumn<QString>("value");
        QTest::addColumn<int>("connections");
        QTest::addColumn<int>("ofFile");
        QTest::newRow("least") << "1" << 1 << 1;
        QTest::newRow("most") << "32" << 32 << 32;
        QTest::newRow("too many") << "33" << 8 << 1;
        QTest::newRow("none") << "0" << 8 << 1;
        QTest::newRow("negative") << "-1" << 8 << 1;
        QTest::newRow("no number") << "many" << 8 << 1;
        QTest::newRow("too long a number") << "99999999999" << 8 << 1;
    }

    void connections()
    {
        setArguments({});
        QCOMPARE(preference()->GetConnections(), 8);
        QCOMPARE(preference()->GetFileConnections(), 1);
        QFETCH(QString, value);
        setArguments({QStringLiteral("--connections"), value});
        QTEST(preference()->GetConnections(), "connections");
        QCOMPARE(RunOptions::ofCommandLine().connections, preference()->GetConnections());
        QFETCH(int, ofFile);
        QCOMPARE(preference()->GetFileConnections(), ofFile);
        QCOMPARE(RunOptions::ofCommandLine().fileConnections, ofFile);
    }

    void streams()
    {
        setArguments(
            {QStringLiteral("--streams"), QStringLiteral("--language"), QStringLiteral("de-AT")});
        QCOMPARE(preference()->GetLanguage(), QStringLiteral("de-AT"));
        const RunOptions options = RunOptions::ofCommandLine();
        QVERIFY(options.followsManifests && !options.followsStreams);
        QCOMPARE(options.language, QStringLiteral("de-AT"));
        setArguments({});
        QCOMPARE(preference()->GetLanguage(), QString());
        QVERIFY(!RunOptions::ofCommandLine().followsManifests);
    }

    void networkProxyNeverFallsBackToDirect_data()
    {
        QTest::addColumn<int>("type");
        QTest::addColumn<int>("port");
        QTest::addColumn<int>("expectedType");
        QTest::addColumn<int>("expectedPort");
        QTest::newRow("SOCKS 5") << 1 << 1080 << int(QNetworkProxy::Socks5Proxy) << 1080;
        QTest::newRow("HTTP, highest port") << 3 << 65535 << int(QNetworkProxy::HttpProxy) << 65535;
        QTest::newRow("port above") << 3 << 65536 << int(QNetworkProxy::HttpProxy) << 0;
        QTest::newRow("port below") << 3 << -1 << int(QNetworkProxy::HttpProxy) << 0;
        QTest::newRow("highest type") << 5 << 1 << int(QNetworkProxy::FtpCachingProxy) << 1;
        QTest::newRow("type above") << 6 << 1 << int(QNetworkProxy::HttpProxy) << 1;
        QTest::newRow("type below") << -1 << 1 << int(QNetworkProxy::HttpProxy) << 1;
        QTest::newRow("no proxy") << 2 << 1 << int(QNetworkProxy::NoProxy) << 1;
        QTest::newRow("default") << 0 << 1 << int(QNetworkProxy::NoProxy) << 1;
        QTest::newRow("HTTP caching") << 4 << 1 << int(QNetworkProxy::HttpCachingProxy) << 1;
    }

    void networkProxyNeverFallsBackToDirect()
    {
        QFETCH(int, type);
        QFETCH(int, port);
        const ProxySetting setting{type, QStringLiteral("10.0.0.1"), port};
        const QNetworkProxy proxy = setting.toNetworkProxy();
        QTEST(int(proxy.type()), "expectedType");
        QTEST(int(proxy.port()), "expectedPort");
        QCOMPARE(proxy.hostName(), QStringLiteral("10.0.0.1"));
    }

    void smartNameIsOffWithSaveTo()
    {
        setCommandLine(QStringLiteral("--smartname --saveto /x/v.mp4"));
        QVERIFY(!preference()->GetSmartName());
        setArguments({QStringLiteral("--smartname"), QStringLiteral("--saveto"), QString()});
        QVERIFY(preference()->GetSmartName());
    }

    void pageNameIsTheMd5OfTheAddressAsTyped_data()
    {
        QTest::addColumn<QString>("address");
        QTest::addColumn<QString>("name");
        // The figures are those of md5sum.
        QTest::newRow("empty") << ""
                               << "D41D8CD98F00B204E9800998ECF8427E";
        QTest::newRow("ASCII") << "http://a/"
                               << "D2E30D023BACB13655CF2F69855DDD49";
        QTest::newRow("letter case counts") << "http://A/"
                                            << "3C8A2E83FB3DF2BB9DEC1525F3C5D202";
        QTest::newRow("UTF-8") << QString::fromUtf8("http://a/\xc3\xa9\xf0\x9f\x8e\xac")
                               << "BAE15B3F5016C9AADDCAE0586AD807A7";
    }

    void pageNameIsTheMd5OfTheAddressAsTyped()
    {
        QFETCH(QString, address);
        setArguments({QStringLiteral("--url"), address});
        QTEST(preference()->GetPageUrlMD5(), "name");
    }

    void defaultFolderIsMadeInTheWorkingFolder()
    {
        const TemporaryWorkFolder work;
        QCOMPARE(preference()->GetDefaultOutDir(), work.path(QStringLiteral("tmp")));
        QVERIFY(QDir(work.path(QStringLiteral("tmp"))).exists());
        QCOMPARE(preference()->GetOutDir(), work.path(QStringLiteral("tmp")));
    }

    void defaultFolderFallsBackToTheDocuments()
    {
        const TemporaryWorkFolder work;
        const QTemporaryDir home;
        writeFile(work.path(QStringLiteral("tmp")), "a file stands where the folder would");
        const QByteArray homeBefore = qgetenv("HOME");
        qputenv("HOME", home.path().toUtf8());
        const QString folder = preference()->GetDefaultOutDir();
        qputenv("HOME", homeBefore);
        QCOMPARE(folder, home.path() + QLatin1String("/Documents/reelsnare"));
        QVERIFY(QDir(folder).exists());
    }

    void retriesAreNoneUnlessTheyAreANumber()
    {
        setArguments({});
        QCOMPARE(preference()->GetRetries(), 0);
        setArguments({QStringLiteral("--retries"), QStringLiteral("3")});
        QCOMPARE(preference()->GetRetries(), 3);
        for (const char *const none : {"0", "-5", "many"}) {
            setArguments({QStringLiteral("--retries"), QLatin1String(none)});
            QCOMPARE(preference()->GetRetries(), 0);
        }
    }

    void filesInTheDefaultFolder_data()
    {
        QTest::addColumn<QString>("flags");
        QTest::addColumn<QString>("extension");
        QTest::newRow("plain") << ""
                               << ".mp4";
        QTest::newRow("f4f") << "--f4f"
                             << ".flv";
    }

    void filesInTheDefaultFolder()
    {
        QFETCH(QString, flags);
        QFETCH(QString, extension);
        const TemporaryWorkFolder work;
        setCommandLine(QStringLiteral("--url http://a/ ") + flags);
        const QString base = work.path(QStringLiteral("tmp/")) + preference()->GetPageUrlMD5();
        QCOMPARE(preference()->GetVideoFullPath(), base + extension);
        QCOMPARE(preference()->GetThumbFullPath(), base + QLatin1String(".thumb"));
    }

    void saveToNamesTheVideoAndItsFolderIsNotMade()
    {
        const TemporaryWorkFolder work;
        setArguments({QStringLiteral("--url"), QStringLiteral("http://a/"), QStringLiteral("--f4f"),
                      QStringLiteral("--saveto"), QStringLiteral("sub/../new/v.avi")});
        QCOMPARE(preference()->GetVideoFullPath(), QStringLiteral("sub/../new/v.avi"));
        QCOMPARE(preference()->GetOutDir(), work.path(QStringLiteral("new")));
        QCOMPARE(preference()->GetThumbFullPath(),
                 work.path(QStringLiteral("new/")) + preference()->GetPageUrlMD5()
                     + QLatin1String(".thumb"));
        QVERIFY(QDir(work.path()).isEmpty());
    }

    void logFilesLieInAFolderThatIsMade()
    {
        const TemporaryWorkFolder work;
        setCommandLine(QStringLiteral("--url http://a/"));
        const QString logs = work.path(QStringLiteral("tmp/logs/"));
        QCOMPARE(preference()->GetLogFullPath(QStringLiteral("log")),
                 logs + preference()->GetPageUrlMD5() + QLatin1String(".log"));
        QVERIFY(QDir(logs).exists());

        const auto todaysFile = [&logs] {
            return logs + QDate::currentDate().toString(QStringLiteral("yyyy-MM-dd"))
                + QLatin1String(".csv");
        };
        const QString before = todaysFile();
        const QString path = preference()->GetCsvFullPath(QStringLiteral("csv"));
        QVERIFY(path == before || path == todaysFile()); // midnight may pass in between
    }
};

CLIPWEIR_TEST_MAIN(tst_VideoPreference)
#include "tst_videopreference.moc"
