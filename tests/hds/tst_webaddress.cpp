#include "TestMain.h"
#include "WebAddress.h"

class tst_WebAddress : public QObject
{
    Q_OBJECT

private slots:
    void onlyHttpAndHttpsAreTheWeb_data()
    {
        QTest::addColumn<QString>("address");
        QTest::addColumn<bool>("isWeb");
        const auto row = [](const char *address, bool isWeb) {
            QTest::newRow(address) << QString::fromLatin1(address) << isWeb;
        };
        row("http://h", true);
        row("https://h/a?b#c", true);
        row("HTTP://H/", true);
        row("http://u:p@h/", true);
        row("http://[::1]:80/", true);
        row("http:///a", false);
        row("http:a", false);
        row("http://h:port/", false);
        row("httpx://h/", false);
        row("file:///a", false);
        row("file://h/a", false);
        row("FILE:///a", false);
        row("qrc:/a", false);
        row("data:video/mp4,x", false);
        row("ftp://h/a", false);
        row("about:blank", false);
        row("blob:http://h/1", false);
        row("javascript:1", false);
        row("rtmp://h/a", false);
        row("/a", false);
        row("//h/a", false);
        row("", false);
    }

    void onlyHttpAndHttpsAreTheWeb()
    {
        QFETCH(QString, address);
        QTEST(WebAddress::isWeb(QUrl(address)), "isWeb");
    }

    void credentialsAreTakenOut_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<QString>("expected");
        const auto row = [](const char *name, const char *text, const char *expected) {
            QTest::newRow(name) << QString::fromUtf8(text) << QString::fromUtf8(expected);
        };
        row("nothing", "", "");
        row("no address", "a@b.c: d/e", "a@b.c: d/e");
        row("no credentials", "http://h:80/a?b#c", "http://h:80/a?b#c");
        row("user and password", "http://u:p@h/a", "http://h/a");
        row("user only", "https://u@h", "https://h");
        row("password only", "http://:p@h/", "http://h/");
        row("empty", "http://@h/", "http://h/");
        row("other scheme", "rtmp://u:p@h/a", "rtmp://h/a");
        row("at sign in the password", "http://u:p@q@h/", "http://h/");
        row("quote in the password", "http://u:p\"q@h/", "http://h/");
        row("space in the password", "http://u:p q@h/", "http://h/");
        row("backslash in the password", "http://u:p\\q@h/", "http://h/");
        row("not ASCII", "http://\xc3\xa9:\xc3\xa9@h/\xc3\xa9", "http://h/\xc3\xa9");
        row("escaped", "http://u:p%40@h/", "http://h/");
        row("at sign in the path", "http://h/@u:p@x", "http://h/@u:p@x");
        row("at sign in the query", "http://h?u:p@x", "http://h?u:p@x");
        row("at sign in the fragment", "http://h#u:p@x", "http://h#u:p@x");
        row("an address in a query", "http://u:p@h/?n=http://v:q@i/", "http://h/?n=http://i/");
        row("in a line", "Get page: \"http://u:p@h/a\" ", "Get page: \"http://h/a\" ");
        row("two in a line", "\"http://u:p@h/\", \"ftp://v@i/\"", "\"http://h/\", \"ftp://i/\"");
        row("in JSON", "{\"videoUrl\":\"http://u:p@h/v.mp4\",\"width\":0}",
            "{\"videoUrl\":\"http://h/v.mp4\",\"width\":0}");
        row("mark after mark", "http://u:http://p@h/", "http://u:http://h/");
        row("cut", "http://u:p@", "http://");
        const auto kept = [row](const char *text) { row(text, text, text); };
        kept("Win at http:// now - follow us @clip");
        kept("Win at http://h.example now - follow us @clip");
        kept("Win at http://h.example now: follow me@i.example");
        kept("Win at http://h.example:80 now - follow us @clip");
        kept("Win at http://localhost now - follow us @clip");
        kept("http://\t@clip");
        row("credentials before a mention", "http://u:p@h now @clip", "http://clip");
        row("user before a mention", "http://u@h now @clip", "http://h now @clip");
        row("text, then credentials", "at http:// now http://u:p@h/", "at http:// now http://h/");
        row("space behind the colon", "http://u: p@h/", "http://h/");
        row("space in the user's name", "http://u v:p@h/", "http://h/");
        row("several spaces in the password", "http://u:p q  r@h/", "http://h/");
        row("space at the password's end", "http://u:p @h/", "http://h/");
        row("password that might be a port", "http://u:80 p@h/", "http://h/");
        row("user with a point", "http://u.v:p q@h/", "http://h/");
        row("mark at the end", "http://", "http://");
        row("mark alone", "://u@", "://");
    }

    void credentialsAreTakenOut()
    {
        QFETCH(QString, text);
        QTEST(WebAddress::withoutCredentials(text), "expected");
    }

    void longTextTakesOnePass()
    {
        // With a walk for every mark these would take hours.
        for (const char *const piece : {"://", "://a", ":", "@", "://a@", "//:"}) {
            const QString text = QString::fromLatin1(piece).repeated(2000000);
            const QString result = WebAddress::withoutCredentials(text + QLatin1Char('@'));
            QVERIFY(result.size() <= text.size() + 1);
        }
    }
};

CLIPWEIR_TEST_MAIN(tst_WebAddress)
#include "tst_webaddress.moc"
