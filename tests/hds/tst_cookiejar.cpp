#include "AdobeCookieJar.h"
#include "CookieStore.h"
#include "TestMain.h"

#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QTemporaryDir>
#include <QThread>

#include "ScriptedServer.h"

#include <memory>
#include <vector>

#include <sys/stat.h>

namespace {

QNetworkCookie makeCookie(const QByteArray &name, const QByteArray &value, int daysToLive = 30)
{
    QNetworkCookie cookie(name, value);
    cookie.setDomain(QStringLiteral(".example.com"));
    cookie.setPath(QStringLiteral("/"));
    cookie.setExpirationDate(QDateTime::currentDateTimeUtc().addDays(daysToLive));
    return cookie;
}

QNetworkCookie makeSessionCookie(const QByteArray &name, const QByteArray &value)
{
    QNetworkCookie cookie = makeCookie(name, value);
    cookie.setExpirationDate(QDateTime());
    return cookie;
}

QByteArray valueIn(const QList<QNetworkCookie> &cookies, const QByteArray &name)
{
    for (const QNetworkCookie &cookie : cookies) {
        if (cookie.name() == name)
            return cookie.value();
    }
    return QByteArrayLiteral("(none)");
}

} // namespace

class tst_CookieJar : public QObject
{
    Q_OBJECT

    std::unique_ptr<QTemporaryDir> m_folder;

    QString filePath() const { return m_folder->filePath(QStringLiteral("sub/cookies.txt")); }

    QByteArray fileContent() const
    {
        QFile file(filePath());
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    }

    void writeFile(const QByteArray &content)
    {
        QDir().mkpath(m_folder->filePath(QStringLiteral("sub")));
        QFile file(filePath());
        QVERIFY(file.open(QIODevice::WriteOnly));
        QCOMPARE(file.write(content), qint64(content.size()));
    }

private slots:
    void init()
    {
        m_folder = std::make_unique<QTemporaryDir>();
        qputenv("CLIPWEIR_COOKIES", filePath().toUtf8());
        CookieStore::instance().clear();
    }

    void jarsShareTheirCookies()
    {
        CAdobeCookieJar first;
        CAdobeCookieJar second;
        QVERIFY(first.insertCookie(makeCookie("a", "1")));
        const auto found = second.cookiesForUrl(QUrl(QStringLiteral("http://www.example.com/x")));
        QCOMPARE(valueIn(found, "a"), QByteArray("1"));
        QVERIFY(second.cookiesForUrl(QUrl(QStringLiteral("http://example.org/"))).isEmpty());
        QVERIFY(second.deleteCookie(makeCookie("a", "other value")));
        QVERIFY(first.mycookies().isEmpty());
    }

    void expiredCookieRemovesTheLiveOne()
    {
        CAdobeCookieJar jar;
        QVERIFY(jar.insertCookie(makeCookie("a", "1")));
        QVERIFY(!jar.insertCookie(makeCookie("a", "2", -1)));
        QVERIFY(jar.mycookies().isEmpty());
    }

    void roundTripThroughTheFile()
    {
        CAdobeCookieJar jar;
        QNetworkCookie secret = makeCookie("secret", "s=3;x");
        secret.setHttpOnly(true);
        secret.setSecure(true);
        secret.setDomain(QStringLiteral("host.example.com"));
        QVERIFY(jar.insertCookie(secret));
        QVERIFY(jar.insertCookie(makeCookie("plain", "")));
        QVERIFY(jar.insertCookie(makeSessionCookie("session", "gone")));
        QVERIFY(jar.save());

        CookieStore::instance().clear();
        const CAdobeCookieJar reloaded;
        const auto cookies = reloaded.mycookies();
        QCOMPARE(cookies.size(), 2);
        QCOMPARE(valueIn(cookies, "plain"), QByteArray());
        QCOMPARE(valueIn(cookies, "secret"), QByteArray("s=3;x"));
        const auto secure =
            reloaded.cookiesForUrl(QUrl(QStringLiteral("https://host.example.com/")));
        QCOMPARE(valueIn(secure, "secret"), QByteArray("s=3;x"));
        const auto insecure =
            reloaded.cookiesForUrl(QUrl(QStringLiteral("http://host.example.com/")));
        QCOMPARE(valueIn(insecure, "secret"), QByteArray("(none)"));
    }

    void fileIsPrivateAndInNetscapeFormat()
    {
        CAdobeCookieJar jar;
        QVERIFY(jar.insertCookie(makeCookie("a", "1")));
        QVERIFY(jar.save());
        const QFileDevice::Permissions others = QFileDevice::ReadGroup | QFileDevice::WriteGroup
            | QFileDevice::ReadOther | QFileDevice::WriteOther;
        QVERIFY(!(QFile::permissions(filePath()) & others));
        const QList<QByteArray> lines = fileContent().split('\n');
        QCOMPARE(lines.at(0), QByteArray("# Netscape HTTP Cookie File"));
        const QList<QByteArray> fields = lines.at(1).split('\t');
        QCOMPARE(fields.size(), 7);
        QCOMPARE(fields.at(0), QByteArray(".example.com"));
        QCOMPARE(fields.at(1), QByteArray("TRUE"));
        QCOMPARE(fields.at(3), QByteArray("FALSE"));
        QCOMPARE(fields.at(6), QByteArray("1"));
    }

    void savesOnlyWhatChanged()
    {
        CAdobeCookieJar jar;
        QVERIFY(jar.save());
        QVERIFY(!QFile::exists(filePath()));
        QVERIFY(jar.insertCookie(makeCookie("a", "1")));
        QVERIFY(jar.save());
        QVERIFY(QFile::remove(filePath()));
        const QNetworkCookie same = jar.mycookies().constFirst();
        QVERIFY(jar.insertCookie(same));
        QVERIFY(jar.save());
        QVERIFY(!QFile::exists(filePath()));
    }

    void keepsWhatAnotherRunSaved()
    {
        CAdobeCookieJar jar;
        QVERIFY(jar.insertCookie(makeCookie("mine", "1")));
        QVERIFY(jar.insertCookie(makeCookie("removed", "1")));
        QVERIFY(jar.save());
        writeFile(fileContent() + ".example.com\tTRUE\t/\tFALSE\t4102444800\ttheirs\t2\n");
        QVERIFY(jar.deleteCookie(makeCookie("removed", "")));
        QVERIFY(jar.insertCookie(makeCookie("mine", "3")));
        QVERIFY(jar.save());

        CookieStore::instance().clear();
        const auto cookies = CAdobeCookieJar().mycookies();
        QCOMPARE(cookies.size(), 2);
        QCOMPARE(valueIn(cookies, "mine"), QByteArray("3"));
        QCOMPARE(valueIn(cookies, "theirs"), QByteArray("2"));
    }

    void skipsWhatIsNoCookie()
    {
        writeFile("# a comment\n\nnonsense\n"
                  ".example.com\tTRUE\t/\tFALSE\tnever\tbad\t1\n"
                  ".example.com\tTRUE\t/\tFALSE\t1\texpired\t1\n"
                  ".example.com\tTRUE\t/\tFALSE\t0\tsession\t1\n"
                  ".example.com\tTRUE\t/\tFALSE\t99999999999999999999\thuge\t1\n"
                  ".example.com\tTRUE\t/\tFALSE\t4102444800\t\tnameless\n"
                  "\tTRUE\t/\tFALSE\t4102444800\tdomainless\t1\n"
                  "toolong"
                  + QByteArray(100000, 'x')
                  + "\tTRUE\t/\tFALSE\t4102444800\tlong\t1\n"
                    "#HttpOnly_.example.com\tTRUE\t/\tFALSE\t4102444800\tgood\t1\r\n");
        const auto cookies = CAdobeCookieJar().mycookies();
        QCOMPARE(cookies.size(), 1);
        QCOMPARE(valueIn(cookies, "good"), QByteArray("1"));
        QVERIFY(cookies.constFirst().isHttpOnly());
    }

    void aNulInALineMakesItNoCookie()
    {
        const char lines[] = "\0.example.com\tTRUE\t/\tFALSE\t4102444800\tdomainless\t1\n"
                             ".example.com\tTRUE\t/\0x\tFALSE\t4102444800\tpath\t1\n"
                             ".example.com\tTRUE\t/\tFALSE\t4102444800\tgood\t1\n";
        writeFile(QByteArray(lines, sizeof(lines) - 1));
        const auto cookies = CAdobeCookieJar().mycookies();
        QCOMPARE(cookies.size(), 1);
        QCOMPARE(cookies.constFirst().name(), QByteArray("good"));
    }

    void aDomainThatNamesNoHostIsSkipped()
    {
        writeFile(".\tFALSE\t/\tFALSE\t4102444800\thost\t1\n"
                  ".\tTRUE\t/\tFALSE\t4102444800\tdomain\t1\n"
                  ".# x\tFALSE\t/\tFALSE\t4102444800\tcomment\t1\n");
        QVERIFY(CAdobeCookieJar().mycookies().isEmpty());
    }

    void aDomainOfUnrelatedHostsIsRefused_data()
    {
        QTest::addColumn<QByteArray>("domain");
        QTest::addColumn<QString>("host");
        QTest::addColumn<QString>("other");
        const auto row = [](const char *name, const char *domain, const char *host,
                            const char *other) {
            QTest::newRow(name) << QByteArray(domain) << QString::fromLatin1(host)
                                << QString::fromLatin1(other);
        };
        row("listed", "com", "one.com", "other.com");
        row("not listed", "test", "one.test", "other.test");
        row("a dot", ".", "one.example.", "other.example.");
        row("with a dot at the end", "example.", "one.example.", "other.example.");
        row("two labels and a dot at the end", "co.uk.", "one.co.uk.", "other.co.uk.");
    }

    void aDomainOfUnrelatedHostsIsRefused()
    {
        QFETCH(QByteArray, domain);
        QFETCH(QString, host);
        QFETCH(QString, other);
        const QUrl url(QStringLiteral("http://%1/").arg(host));
        const QUrl otherUrl(QStringLiteral("http://%1/").arg(other));
        CAdobeCookieJar jar;
        jar.setCookiesFromUrl(
            QNetworkCookie::parseCookies("a=b; domain=" + domain + "; max-age=1000"), url);
        QVERIFY(jar.mycookies().isEmpty());
        // Nor does it help to have it in the file.
        writeFile('.' + domain + "\tTRUE\t/\tFALSE\t4102444800\ta\tb\n");
        QVERIFY(CAdobeCookieJar().cookiesForUrl(otherUrl).isEmpty());
    }

    void aHostMayNameItself()
    {
        const QUrl url(QStringLiteral("http://intranet/"));
        CAdobeCookieJar jar;
        jar.setCookiesFromUrl(QNetworkCookie::parseCookies("a=b; domain=intranet"), url);
        QCOMPARE(jar.cookiesForUrl(url).size(), 1);
    }

    void aCookieThatWouldForgeALineIsNotWritten()
    {
        CAdobeCookieJar jar;
        QVERIFY(jar.insertCookie(makeCookie("a", "1\n.evil.com\tTRUE")));
        QVERIFY(jar.save());
        QCOMPARE(fileContent(), QByteArray("# Netscape HTTP Cookie File\n"));
    }

    void anUnwritableFileLosesNothing()
    {
        qputenv("CLIPWEIR_COOKIES", "/proc/self/none/cookies.txt");
        CAdobeCookieJar jar;
        QVERIFY(jar.insertCookie(makeCookie("a", "1")));
        QVERIFY(!jar.save());
        qputenv("CLIPWEIR_COOKIES", filePath().toUtf8());
        QVERIFY(jar.save());
        QVERIFY(fileContent().contains("\ta\t1\n"));
    }

    void whatIsNoFileIsLeftAlone()
    {
        QVERIFY(QDir().mkpath(m_folder->filePath(QStringLiteral("sub"))));
        const QByteArray path = QFile::encodeName(filePath());
        QCOMPARE(::mkfifo(path.constData(), 0600), 0);
        CAdobeCookieJar jar;
        QVERIFY(!jar.load()); // nor waited for
        QVERIFY(jar.insertCookie(makeCookie("a", "1")));
        QVERIFY(!jar.save());
        struct stat status = {};
        QCOMPARE(::stat(path.constData(), &status), 0);
        QVERIFY(S_ISFIFO(status.st_mode));
        QVERIFY(QFile::remove(filePath()));
        QVERIFY(jar.save());
    }

    void theNumberOfCookiesIsBounded()
    {
        CAdobeCookieJar jar;
        for (int i = 0; i < 3100; ++i)
            jar.insertCookie(makeSessionCookie(QByteArray::number(i), "x"));
        QCOMPARE(jar.mycookies().size(), 3000);
        QCOMPARE(valueIn(jar.mycookies(), "3099"), QByteArray("x"));
    }

    void cookiesOfOneManagerReachAnother()
    {
        ScriptedServer server;
        HttpReply setting;
        setting.headers = {{"Set-Cookie", "sid=7; Path=/"}};
        server.on("/set", setting);
        server.on("/use", HttpReply());
        QNetworkAccessManager first;
        first.setCookieJar(new CAdobeCookieJar(&first));
        QNetworkAccessManager second;
        second.setCookieJar(new CAdobeCookieJar(&second));
        const std::unique_ptr<QNetworkReply> set(first.get(QNetworkRequest(server.url("/set"))));
        QTRY_VERIFY(set->isFinished());
        const std::unique_ptr<QNetworkReply> use(second.get(QNetworkRequest(server.url("/use"))));
        QTRY_VERIFY(use->isFinished());
        QCOMPARE(server.requestsFor("/use").constFirst().header("Cookie"), QByteArray("sid=7"));
    }

    void manyThreadsAtOnce()
    {
        constexpr int threadCount = 8;
        constexpr int cookiesEach = 50;
        std::vector<std::unique_ptr<QThread>> threads;
        for (int t = 0; t < threadCount; ++t) {
            threads.emplace_back(QThread::create([t] {
                CAdobeCookieJar jar;
                for (int i = 0; i < cookiesEach; ++i) {
                    jar.insertCookie(makeCookie(QByteArray::number(t * cookiesEach + i), "v"));
                    jar.cookiesForUrl(QUrl(QStringLiteral("http://a.example.com/")));
                    jar.save();
                }
            }));
            threads.back()->start();
        }
        for (const auto &thread : threads)
            QVERIFY(thread->wait());
        CAdobeCookieJar jar;
        QVERIFY(jar.save());
        CookieStore::instance().clear();
        QCOMPARE(CAdobeCookieJar().mycookies().size(), threadCount * cookiesEach);
    }
};

CLIPWEIR_TEST_MAIN(tst_CookieJar)
#include "tst_cookiejar.moc"
