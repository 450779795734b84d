#include "AdobeBrowser.h"
#include "AdobeCookieJar.h"
#include "AdobePreference.h"
#include "CookieStore.h"
#include "NetworkReplyProxy.h"
#include "QWebPageProxy.h"
#include "ScriptedServer.h"
#include "TestFiles.h"
#include "TestMain.h"
#include "httpdownloader.h"

#include <QWebFrame>

namespace {

enum Client { Page, Download, Document, Stream };

HttpReply withHeaders(const HeaderList &headers)
{
    HttpReply reply;
    reply.headers = headers;
    reply.headers += qMakePair(QByteArray("Content-Type"), QByteArray("text/html"));
    reply.body = "body";
    return reply;
}

HttpReply redirectTo(const QString &address, const HeaderList &more = {})
{
    HttpReply reply = withHeaders(more);
    reply.status = 302;
    reply.headers += qMakePair(QByteArray("Location"), address.toUtf8());
    return reply;
}

bool waitFor(const QObject *sender, const char *signal)
{
    QSignalSpy spy(sender, signal);
    return spy.wait(30000);
}

bool loadPage(const QUrl &url)
{
    CAdobeCookieJar jar;
    NetworkAccessManagerProxy manager(&jar);
    QWebPageProxy page;
    page.setNetworkAccessManager(&manager);
    page.load(url);
    return waitFor(&page, SIGNAL(loadFinished(bool)));
}

bool download(const QUrl &url, const QString &path)
{
    HttpDownloader downloader;
    downloader.setDownloadInfo(path, url.toString(), 0, -1, 0, false);
    return downloader.download() && waitFor(&downloader, SIGNAL(downFinished(int)));
}

bool fetchStream(const QUrl &url)
{
    CAdobeBrowser browser;
    browser.get(url.toString(), true);
    return browser.success();
}

QByteArray sentCookies(const ScriptedServer &server, const QByteArray &path)
{
    const QList<HttpRequest> requests = server.requestsFor(path);
    return requests.size() == 1 ? requests.constFirst().header("Cookie") : "(not one request)";
}

} // namespace

/// What each client of the network sends to whom, hop by hop.
class tst_CookieHops : public QObject
{
    Q_OBJECT

    QTemporaryDir m_folder;
    ScriptedServer m_first;
    ScriptedServer m_second{QHostAddress(QStringLiteral("127.0.0.2"))};

    bool fetch(int client, const QUrl &url)
    {
        switch (client) {
        case Page:
            return loadPage(url);
        case Download:
            return download(url, m_folder.filePath(QStringLiteral("file")));
        case Document:
            return download(url, QString());
        default:
            return fetchStream(url);
        }
    }

    static void addClients()
    {
        QTest::addColumn<int>("client");
        QTest::newRow("page") << int(Page);
        QTest::newRow("download") << int(Download);
        QTest::newRow("document") << int(Document);
        QTest::newRow("stream") << int(Stream);
    }

private slots:
    void initTestCase()
    {
        qputenv("CLIPWEIR_COOKIES", m_folder.filePath(QStringLiteral("cookies.txt")).toUtf8());
    }

    void init()
    {
        setArguments({QStringLiteral("--url"), uniquePageUrl()});
        CookieStore::instance().clear();
        m_first.clearRequests();
        m_second.clearRequests();
    }

    void anotherHostGetsItsOwnOnly_data() { addClients(); }
    void anotherHostGetsItsOwnOnly()
    {
        QFETCH(int, client);
        m_first.on("/login", withHeaders({{"Set-Cookie", "own=1; Path=/"}}));
        m_first.on("/a", redirectTo(m_second.address("/b")));
        m_second.on("/b", redirectTo(m_first.address("/c"), {{"Set-Cookie", "theirs=2; Path=/"}}));
        m_first.on("/c", redirectTo(m_second.address("/d")));
        m_second.on("/d", withHeaders({}));
        QVERIFY(fetch(client, m_first.url("/login")));
        QVERIFY(fetch(client, m_first.url("/a")));
        QCOMPARE(sentCookies(m_first, "/a"), QByteArray("own=1"));
        QVERIFY(!m_second.requestsFor("/b").constFirst().hasHeader("Cookie"));
        QCOMPARE(sentCookies(m_first, "/c"), QByteArray("own=1"));
        QCOMPARE(sentCookies(m_second, "/d"), QByteArray("theirs=2"));
    }

    void aNameIsAnotherHostThanItsNumbers_data() { addClients(); }
    void aNameIsAnotherHostThanItsNumbers()
    {
        QFETCH(int, client);
        const QString named = QStringLiteral("http://localhost:%1/named").arg(m_first.port());
        m_first.on("/a", redirectTo(named, {{"Set-Cookie", "own=1; Path=/"}}));
        m_first.on("/named", redirectTo(m_first.address("/b")));
        m_first.on("/b", withHeaders({}));
        QVERIFY(fetch(client, m_first.url("/a")));
        QVERIFY(!m_first.requestsFor("/named").constFirst().hasHeader("Cookie"));
        QCOMPARE(sentCookies(m_first, "/b"), QByteArray("own=1"));
    }

    void aPathEndsAtASlash_data() { addClients(); }
    void aPathEndsAtASlash()
    {
        QFETCH(int, client);
        m_first.on("/set",
                   redirectTo(QStringLiteral("/video"), {{"Set-Cookie", "p=1; Path=/video"}}));
        m_first.on("/video", redirectTo(QStringLiteral("/video/x")));
        m_first.on("/video/x", redirectTo(QStringLiteral("/videos")));
        m_first.on("/videos", redirectTo(QStringLiteral("/Video/x")));
        m_first.on("/Video/x", withHeaders({}));
        QVERIFY(fetch(client, m_first.url("/set")));
        QCOMPARE(sentCookies(m_first, "/video"), QByteArray("p=1"));
        QCOMPARE(sentCookies(m_first, "/video/x"), QByteArray("p=1"));
        QCOMPARE(sentCookies(m_first, "/videos"), QByteArray());
        QCOMPARE(sentCookies(m_first, "/Video/x"), QByteArray());
    }

    void aSecureCookieIsNeverSentInTheClear_data() { addClients(); }
    void aSecureCookieIsNeverSentInTheClear()
    {
        QFETCH(int, client);
        m_first.on(
            "/a",
            redirectTo(QStringLiteral("/b"),
                       {{"Set-Cookie", "s=1; Path=/; Secure"}, {"Set-Cookie", "plain=2; Path=/"}}));
        m_first.on("/b", withHeaders({}));
        QVERIFY(fetch(client, m_first.url("/a")));
        QCOMPARE(sentCookies(m_first, "/b"), QByteArray("plain=2"));
        QCOMPARE(CookieStore::instance().cookies().size(), 2);
    }

    void anExpiredCookieIsGoneAtTheNextHop_data() { addClients(); }
    void anExpiredCookieIsGoneAtTheNextHop()
    {
        QFETCH(int, client);
        m_first.on("/a",
                   redirectTo(QStringLiteral("/b"),
                              {{"Set-Cookie", "x=1; Path=/"},
                               {"Set-Cookie", "y=2; Path=/; Max-Age=1000"}}));
        m_first.on(
            "/b",
            redirectTo(QStringLiteral("/c"),
                       {{"Set-Cookie", "x=; Path=/; Max-Age=0"},
                        {"Set-Cookie", "y=; Path=/; Expires=Thu, 01 Jan 1970 00:00:00 GMT"}}));
        m_first.on("/c", withHeaders({}));
        QVERIFY(fetch(client, m_first.url("/a")));
        const QList<QByteArray> sent = sentCookies(m_first, "/b").split(';');
        QCOMPARE(sent.size(), 2);
        QVERIFY(!m_first.requestsFor("/c").constFirst().hasHeader("Cookie"));
        QVERIFY(CookieStore::instance().cookies().isEmpty());
    }

    void nobodySetsCookiesForAnotherHost_data() { addClients(); }
    void nobodySetsCookiesForAnotherHost()
    {
        QFETCH(int, client);
        m_second.on("/evil",
                    redirectTo(m_first.address("/a"),
                               {{"Set-Cookie", "a=1; Path=/; Domain=127.0.0.1"},
                                {"Set-Cookie", "b=1; Path=/; Domain=.0.0.1"},
                                {"Set-Cookie", "c=1; Path=/; Domain=.0.0.2"},
                                {"Set-Cookie", "d=1; Path=/; Domain=localhost"},
                                {"Set-Cookie", "e=1; Path=/; Domain=com"},
                                {"Set-Cookie", "good=1; Path=/; Domain=127.0.0.2"}}));
        m_first.on("/a", withHeaders({}));
        QVERIFY(fetch(client, m_second.url("/evil")));
        QVERIFY(!m_first.requestsFor("/a").constFirst().hasHeader("Cookie"));
        const QList<QNetworkCookie> cookies = CookieStore::instance().cookies();
        QCOMPARE(cookies.size(), 1);
        QCOMPARE(cookies.constFirst().name(), QByteArray("good"));
    }

    void theSizeProbeSendsWhatItWasJustGivenOnly()
    {
        m_first.on("/login", withHeaders({{"Set-Cookie", "own=1; Path=/"}}));
        m_first.on("/a", redirectTo(m_second.address("/b"), {{"Set-Cookie", "probe=1; Path=/"}}));
        m_second.on("/b", redirectTo(m_first.address("/c")));
        m_first.on("/c", redirectTo(m_second.address("/d")));
        m_second.on("/d", withHeaders({}));
        QVERIFY(download(m_first.url("/login"), QString()));
        QCOMPARE(HttpDownloader().GetFileSize(m_first.url("/a")), qint64(4));
        QVERIFY(!m_first.requestsFor("/a").constFirst().hasHeader("Cookie"));
        QVERIFY(!m_second.requestsFor("/b").constFirst().hasHeader("Cookie"));
        QCOMPARE(sentCookies(m_first, "/c"), QByteArray("probe=1"));
        QVERIFY(!m_second.requestsFor("/d").constFirst().hasHeader("Cookie"));
        QCOMPARE(CookieStore::instance().cookies().size(), 1);
    }
};

CLIPWEIR_TEST_MAIN(tst_CookieHops)
#include "tst_cookiehops.moc"
