#include "AdobeCookieJar.h"
#include "CookieStore.h"
#include "TestFiles.h"
#include "TestMain.h"

#include <QNetworkCookie>

/// Which cookie goes where, as RFC 6265 has it, from the server's line and from the file.
class tst_CookieRules : public QObject
{
    Q_OBJECT

    QTemporaryDir m_folder;

    QString filePath() const { return m_folder.filePath(QStringLiteral("cookies.txt")); }

    static bool isSent(const QString &address)
    {
        return !CAdobeCookieJar().cookiesForUrl(QUrl(address)).isEmpty();
    }

    static void add(const char *name, const char *setBy, const char *line, const char *askedBy,
                    bool isSent)
    {
        QTest::newRow(name) << QString::fromUtf8(setBy) << QByteArray(line)
                            << QString::fromUtf8(askedBy) << isSent;
    }

private slots:
    void initTestCase() { qputenv("CLIPWEIR_COOKIES", filePath().toUtf8()); }

    void init()
    {
        QFile::remove(filePath());
        CookieStore::instance().clear();
    }

    void rules_data()
    {
        QTest::addColumn<QString>("setBy");
        QTest::addColumn<QByteArray>("line");
        QTest::addColumn<QString>("askedBy");
        QTest::addColumn<bool>("sent");
        const char *const host = "http://a.example.com/";
        add("same host", host, "c=1", host, true);
        add("other port", host, "c=1", "http://a.example.com:81/", true);
        add("host only: below", host, "c=1", "http://b.a.example.com/", false);
        add("host only: above", host, "c=1", "http://example.com/", false);
        add("host only: looks alike", host, "c=1", "http://xa.example.com/", false);
        add("domain", host, "c=1; Domain=example.com", "http://example.com/", true);
        add("domain with dot", host, "c=1; Domain=.example.com", "http://b.example.com/", true);
        add("domain: letter case", host, "c=1; Domain=EXAMPLE.com", "http://b.example.com/", true);
        add("domain: looks alike", host, "c=1; Domain=example.com", "http://xexample.com/", false);
        add("domain: looks alike behind", host, "c=1; Domain=example.com",
            "http://example.com.org/", false);
        add("domain of another", host, "c=1; Domain=other.com", "http://other.com/", false);
        add("domain below", host, "c=1; Domain=b.a.example.com", "http://b.a.example.com/", false);
        add("domain beside", host, "c=1; Domain=b.example.com", "http://b.example.com/", false);
        add("public suffix", host, "c=1; Domain=com", "http://other.com/", false);
        add("public suffix of two", "http://a.co.uk/", "c=1; Domain=co.uk", "http://b.co.uk/",
            false);
        add("public suffix by its dot", "http://a.co.uk/", "c=1; Domain=.co.uk", "http://b.co.uk/",
            false);
        add("below a public suffix", "http://a.b.co.uk/", "c=1; Domain=b.co.uk",
            "http://c.b.co.uk/", true);
        add("suffix of a firm", "http://a.github.io/", "c=1; Domain=github.io",
            "http://b.github.io/", false);
        add("below the suffix of a firm", "http://b.a.github.io/", "c=1; Domain=a.github.io",
            "http://c.a.github.io/", true);
        add("public suffix for itself", "http://github.io/", "c=1; Domain=github.io",
            "http://github.io/", true);
        add("public suffix for those below", "http://github.io/", "c=1; Domain=github.io",
            "http://a.github.io/", false);
        add("single label on no list", "http://a.test/", "c=1; Domain=test", "http://b.test/",
            false);
        add("below a single label on no list", "http://b.a.test/", "c=1; Domain=a.test",
            "http://c.a.test/", true);
        const char *const chinese = "http://a.例.公司.cn/";
        add("other letters", chinese, "c=1; Domain=例.公司.cn", "http://b.例.公司.cn/", true);
        add("other letters: encoded", chinese, "c=1; Domain=xn--fsq.xn--55qx5d.cn",
            "http://b.xn--fsq.xn--55qx5d.cn/", true);
        add("public suffix in other letters", chinese, "c=1; Domain=公司.cn", "http://b.公司.cn/",
            false);
        add("public suffix in other letters: encoded", "http://a.xn--55qx5d.cn/",
            "c=1; Domain=xn--55qx5d.cn", "http://b.xn--55qx5d.cn/", false);
        add("dot at the end", "http://a.example.com./", "c=1; Domain=example.com.",
            "http://b.example.com./", false);
        add("dot at the end of the host", "http://a.example.com./", "c=1; Domain=example.com",
            "http://a.example.com./", false);
        add("dot at the end: host only", "http://a.example.com./", "c=1", "http://a.example.com./",
            true);
        add("numbers", "http://10.0.0.1/", "c=1", "http://10.0.0.1/", true);
        add("numbers by name", "http://10.0.0.1/", "c=1; Domain=10.0.0.1", "http://10.0.0.1/",
            true);
        add("numbers by dot", "http://10.0.0.1/", "c=1; Domain=.10.0.0.1", "http://10.0.0.1/",
            true);
        add("tail of numbers", "http://10.0.0.1/", "c=1; Domain=.0.0.1", "http://10.0.0.1/", false);
        add("tail of numbers elsewhere", "http://10.0.0.1/", "c=1; Domain=.0.0.1",
            "http://11.0.0.1/", false);
        add("numbers of six", "http://[::1]/", "c=1; Domain=[::1]", "http://[::2]/", false);
        add("localhost", "http://localhost/", "c=1", "http://localhost/", true);
        add("localhost's numbers", "http://localhost/", "c=1", "http://127.0.0.1/", false);

        add("path", host, "c=1; Path=/v", "http://a.example.com/v", true);
        add("path below", host, "c=1; Path=/v", "http://a.example.com/v/x", true);
        add("path beside", host, "c=1; Path=/v", "http://a.example.com/vx", false);
        add("path above", host, "c=1; Path=/v", "http://a.example.com/", false);
        add("path with slash", host, "c=1; Path=/v/", "http://a.example.com/v/x", true);
        add("path with slash: itself", host, "c=1; Path=/v/", "http://a.example.com/v", false);
        add("path: letter case", host, "c=1; Path=/v", "http://a.example.com/V", false);
        add("no path: own folder", "http://a.example.com/d/p", "c=1", "http://a.example.com/d/q",
            true);
        add("no path: above", "http://a.example.com/d/p", "c=1", "http://a.example.com/", false);
        add("no address in a path", host, "c=1; Path=v", "http://a.example.com/x", true);
        add("address without path", host, "c=1; Path=/", "http://a.example.com", true);

        add("secure in the clear", host, "c=1; Secure", host, false);
        add("secure", host, "c=1; Secure", "https://a.example.com/", true);
        add("secure: other scheme", host, "c=1; Secure", "ftp://a.example.com/", false);
        add("plain over https", host, "c=1", "https://a.example.com/", true);

        add("later", host, "c=1; Expires=Fri, 01 Jan 2100 00:00:00 GMT", host, true);
        add("long ago", host, "c=1; Expires=Thu, 01 Jan 1970 00:00:01 GMT", host, false);
        add("no age", host, "c=1; Max-Age=0", host, false);
        add("age below nothing", host, "c=1; Max-Age=-5", host, false);
        add("some age", host, "c=1; Max-Age=1000", host, true);
    }

    void rules()
    {
        QFETCH(QString, setBy);
        QFETCH(QByteArray, line);
        QFETCH(QString, askedBy);
        QFETCH(bool, sent);
        CAdobeCookieJar jar;
        jar.setCookiesFromUrl(QNetworkCookie::parseCookies(line), QUrl(setBy));
        QCOMPARE(isSent(askedBy), sent);

        // The same once it has been to the file and back.
        if (!line.contains("Expires") && !line.contains("Max-Age")) {
            init();
            jar.setCookiesFromUrl(QNetworkCookie::parseCookies(line + "; Max-Age=9000"),
                                  QUrl(setBy));
        }
        QVERIFY(jar.save());
        CookieStore::instance().clear();
        QCOMPARE(isSent(askedBy), sent);
    }

    void theExpiredOneDeletes()
    {
        CAdobeCookieJar jar;
        const QUrl url(QStringLiteral("http://a.example.com/"));
        jar.setCookiesFromUrl(QNetworkCookie::parseCookies("c=1; Max-Age=9000"), url);
        QVERIFY(jar.save());
        jar.setCookiesFromUrl(QNetworkCookie::parseCookies("c=; Max-Age=0"), url);
        QVERIFY(!isSent(url.toString()));
        QVERIFY(jar.save());
        CookieStore::instance().clear();
        QVERIFY(!isSent(url.toString()));
        QVERIFY(!readFile(filePath()).contains("\tc\t"));
    }

    void fromTheFile_data()
    {
        QTest::addColumn<QByteArray>("line");
        QTest::addColumn<QString>("askedBy");
        QTest::addColumn<bool>("sent");
        const auto row = [](const char *name, const char *domain, const char *rest,
                            const char *askedBy, bool isSent) {
            QTest::newRow(name) << QByteArray(domain) + '\t' + rest + "\t4102444800\tc\t1\n"
                                << QString::fromLatin1(askedBy) << isSent;
        };
        row("subdomains", ".example.com", "TRUE\t/\tFALSE", "http://a.example.com/", true);
        row("no subdomains in spite of a dot", ".example.com", "FALSE\t/\tFALSE",
            "http://a.example.com/", false);
        row("the host itself", ".example.com", "FALSE\t/\tFALSE", "http://example.com/", true);
        row("host only", "example.com", "FALSE\t/\tFALSE", "http://a.example.com/", false);
        row("letter case", ".Example.COM", "TRUE\t/\tFALSE", "http://a.example.com/", true);
        row("public suffix", ".co.uk", "TRUE\t/\tFALSE", "http://a.co.uk/", false);
        row("suffix of a firm", ".github.io", "TRUE\t/\tFALSE", "http://a.github.io/", false);
        row("single label on no list", ".test", "TRUE\t/\tFALSE", "http://a.test/", false);
        row("public suffix in other letters", ".公司.cn", "TRUE\t/\tFALSE", "http://a.公司.cn/",
            false);
        row("dot at the end", ".co.uk.", "TRUE\t/\tFALSE", "http://a.co.uk./", false);
        row("tail of numbers", ".0.0.1", "TRUE\t/\tFALSE", "http://127.0.0.1/", false);
        row("secure", ".example.com", "TRUE\t/\tTRUE", "http://a.example.com/", false);
        row("secure over https", ".example.com", "TRUE\t/\tTRUE", "https://a.example.com/", true);
        row("path", ".example.com", "TRUE\t/v\tFALSE", "http://a.example.com/vx", false);
    }

    void fromTheFile()
    {
        QFETCH(QByteArray, line);
        QFETCH(QString, askedBy);
        writeFile(filePath(), line);
        QTEST(isSent(askedBy), "sent");
    }
};

CLIPWEIR_TEST_MAIN(tst_CookieRules)
#include "tst_cookierules.moc"
