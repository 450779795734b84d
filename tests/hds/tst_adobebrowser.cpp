#include "AdobeBrowser.h"
#include "AdobePreference.h"
#include "MessageCatcher.h"
#include "ScriptedServer.h"
#include "TestMain.h"

#include <QElapsedTimer>
#include <QNetworkProxy>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QThread>

#include <atomic>
#include <memory>

namespace {

HttpReply redirectTo(const QByteArray &target, int status = 302)
{
    HttpReply reply = replyOf("moved", status);
    reply.headers = {{"Location", target}};
    return reply;
}

} // namespace

class tst_AdobeBrowser : public QObject
{
    Q_OBJECT

    std::unique_ptr<ScriptedServer> m_server;
    std::unique_ptr<QTemporaryDir> m_folder;

    static void setOption(const char *key, const QVariant &value)
    {
        CAdobePreference::GetInstance()->SetOption(QLatin1String(key), value);
    }

    QByteArray headerSeen(const QByteArray &name) const
    {
        return m_server->requests().constLast().header(name);
    }

private slots:
    void init()
    {
        m_server = std::make_unique<ScriptedServer>();
        m_folder = std::make_unique<QTemporaryDir>();
        qputenv("CLIPWEIR_COOKIES", m_folder->filePath(QStringLiteral("cookies.txt")).toUtf8());
        CAdobePreference::GetInstance()->Reset();
    }

    void getWaitsForTheEnd()
    {
        HttpReply reply = replyOf(QByteArray(300000, 'x'));
        reply.delayMs = 20;
        reply.pieceBytes = 100000;
        reply.pieceDelayMs = 10;
        m_server->on("/a", reply);
        const MessageCatcher catcher;
        CAdobeBrowser browser;
        const QSignalSpy ends(&browser, &CAdobeBrowser::finished);
        browser.get(m_server->address("/a?b=c"), true);
        QVERIFY(browser.success());
        QVERIFY(browser.isLengthKnown());
        QCOMPARE(browser.error(), QNetworkReply::NoError);
        QCOMPARE(browser.rawContent(), reply.body);
        QCOMPARE(browser.url(), m_server->address("/a?b=c"));
        QCOMPARE(ends.size(), 1);
        QCOMPARE(ends.constFirst().constFirst().toInt(), 0);
        QCOMPARE(catcher.lines(),
                 QStringList{QStringLiteral("Get page: \"%1\" ").arg(m_server->address("/a?b=c"))});
    }

    void aBodyIsReadIntoTheMemoryGiven()
    {
        m_server->on("/a", replyOf(QByteArray(300000, 'x')));
        m_server->on("/b", replyOf("y"));
        QByteArray memory("old content");
        memory.reserve(1000000);
        const char *place = memory.constData();
        CAdobeBrowser browser;
        browser.setBuffer(std::move(memory));
        QCOMPARE(browser.rawContent(), QByteArray());
        browser.get(m_server->address("/a"), true);
        QCOMPARE(browser.rawContent(), QByteArray(300000, 'x'));
        QCOMPARE(browser.rawContent().constData(), place);
        browser.get(m_server->address("/b"), true);
        QCOMPARE(browser.rawContent(), QByteArray("y"));
    }

    void anAnnouncedLengthIsNotBelieved()
    {
        HttpReply reply = replyOf("xyz");
        reply.headers = {{"Content-Length", "200000000"}};
        m_server->on("/a", reply);
        CAdobeBrowser browser;
        browser.get(m_server->address("/a"), true);
        QVERIFY(!browser.success());
        QVERIFY(browser.rawContent().capacity() < 10000000);
    }

    void getWithoutWaiting()
    {
        m_server->on("/a", replyOf("x"));
        CAdobeBrowser browser;
        const QSignalSpy ends(&browser, &CAdobeBrowser::finished);
        browser.get(m_server->address("/a"), false);
        QVERIFY(!browser.success());
        QTRY_COMPARE(ends.size(), 1);
        QCOMPARE(browser.rawContent(), QByteArray("x"));
    }

    void headersOfTheOptions()
    {
        m_server->on("/", replyOf("x"));
        CAdobeBrowser browser;
        browser.get(m_server->address("/"), true);
        QCOMPARE(headerSeen("Accept"),
                 QByteArray("text/html,application/xhtml+xml,application/xml;q=0.9,*/*;q=0.8"));
        QCOMPARE(headerSeen("Connection"), QByteArray("Keep-Alive"));
        setOption("userAgent", QStringLiteral("Agent/1"));
        setOption("browserHeader",
                  QVariantMap{{QStringLiteral("Referer"), QStringLiteral("http://page/")}});
        browser.get(m_server->address("/"), true);
        QCOMPARE(headerSeen("User-Agent"), QByteArray("Agent/1"));
        QCOMPARE(headerSeen("Referer"), QByteArray("http://page/"));
        QVERIFY(headerSeen("Accept").isEmpty());
    }

    void headAndPost()
    {
        m_server->on("/h", [](const HttpRequest &) {
            HttpReply reply = replyOf(QByteArray());
            reply.headers = {{"Content-Type", "text/xml"}, {"Content-Length", "12345"}};
            return reply;
        });
        m_server->on("/p", redirectTo("/answer", 303));
        m_server->on("/answer", replyOf("thanks"));
        const MessageCatcher catcher;
        CAdobeBrowser browser;
        browser.head(m_server->address("/h"), true);
        QVERIFY(browser.success());
        QCOMPARE(m_server->requests().constLast().method, QByteArray("HEAD"));
        QCOMPARE(browser.format(), QStringLiteral("xml"));
        browser.post(m_server->address("/p"), "k=v", true);
        QVERIFY(browser.success());
        QCOMPARE(browser.rawContent(), QByteArray("thanks"));
        QCOMPARE(m_server->requestsFor("/p").constFirst().method, QByteArray("POST"));
        QCOMPARE(m_server->requestsFor("/p").constFirst().body, QByteArray("k=v"));
        QCOMPARE(m_server->requestsFor("/answer").constFirst().method, QByteArray("GET"));
        QCOMPARE(catcher.linesWith(QStringLiteral("Post page:")).size(), 1);
    }

    void onlyStatus200IsASuccess_data()
    {
        QTest::addColumn<int>("status");
        for (const int status : {200, 201, 203, 206, 304, 400, 404, 416, 500, 503})
            QTest::newRow(qPrintable(QString::number(status))) << status;
    }

    void onlyStatus200IsASuccess()
    {
        QFETCH(int, status);
        m_server->on("/a", replyOf(status == 304 ? QByteArray() : "body", status));
        CAdobeBrowser browser;
        browser.get(m_server->address("/a"), true);
        QCOMPARE(browser.success(), status == 200);
    }

    void aBodyCutOffIsNoSuccess_data()
    {
        QTest::addColumn<QByteArray>("answer");
        QTest::newRow("nothing") << QByteArray();
        QTest::newRow("half a header") << QByteArray("HTTP/1.1 200 OK\r\nContent-Le");
        QTest::newRow("no body") << QByteArray("HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\n");
        QTest::newRow("short body")
            << QByteArray("HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nabcd");
        QTest::newRow("chunk cut off")
            << QByteArray("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nabc");
        QTest::newRow("last chunk missing")
            << QByteArray("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n3\r\nabc\r\n");
        QTest::newRow("no HTTP") << QByteArray("hello\r\n\r\nhello");
    }

    void aBodyCutOffIsNoSuccess()
    {
        QFETCH(QByteArray, answer);
        m_server->onRaw("/a", [answer](const HttpRequest &, QTcpSocket *socket) {
            socket->write(answer);
            socket->disconnectFromHost();
        });
        CAdobeBrowser browser;
        browser.get(m_server->address("/a"), true);
        QVERIFY(!browser.success() || !browser.isLengthKnown());
        if (!answer.contains("chunked"))
            QVERIFY(!browser.success());
    }

    void whatCannotBeReached()
    {
        const QString gone = ScriptedServer().address("/");
        CAdobeBrowser browser;
        browser.get(gone, true);
        QVERIFY(!browser.success());
        QVERIFY(browser.error() != QNetworkReply::NoError);
    }

    void otherSchemesAreNotFetched_data()
    {
        QTest::addColumn<QString>("address");
        QTest::newRow("file") << QStringLiteral("file:///etc/hostname");
        QTest::newRow("data") << QStringLiteral("data:text/plain,x");
        QTest::newRow("ftp") << QStringLiteral("ftp://127.0.0.1/x");
        QTest::newRow("resource") << QStringLiteral("qrc:/x");
        QTest::newRow("path") << QStringLiteral("/etc/hostname");
        QTest::newRow("empty") << QString();
        QTest::newRow("no host") << QStringLiteral("http:///x");
        QTest::newRow("bad port") << QStringLiteral("http://h:99999/");
    }

    void otherSchemesAreNotFetched()
    {
        QFETCH(QString, address);
        CAdobeBrowser browser;
        browser.get(address, true);
        QVERIFY(!browser.success());
        QVERIFY(browser.rawContent().isEmpty());
        m_server->on("/r", redirectTo(address.toUtf8()));
        if (address.contains(QLatin1Char(':')) && QUrl(address).isValid()) {
            const QSignalSpy ends(&browser, &CAdobeBrowser::finished);
            browser.get(m_server->address("/r"), true);
            QVERIFY(!browser.success());
            QCOMPARE(ends.size(), 1);
            QCOMPARE(ends.constFirst().constFirst().toInt(), 1);
        }
    }

    void redirects_data()
    {
        QTest::addColumn<int>("redirects");
        QTest::addColumn<int>("limit");
        QTest::addColumn<bool>("isFollowed");
        QTest::newRow("one") << 1 << 5 << true;
        QTest::newRow("four") << 4 << 5 << true;
        QTest::newRow("five") << 5 << 5 << false;
        QTest::newRow("one of a limit of one") << 1 << 1 << false;
        QTest::newRow("nine of a limit of ten") << 9 << 10 << true;
    }

    void redirects()
    {
        QFETCH(int, redirects);
        QFETCH(int, limit);
        QFETCH(bool, isFollowed);
        for (int i = 0; i < redirects; ++i) {
            // Both an absolute address and one relative to the request's.
            const QByteArray next = "d/" + QByteArray::number(i + 1);
            const QByteArray path = i == 0
                ? QByteArray("/0")
                : QByteArray("/") + QByteArray("d/").repeated(i) + QByteArray::number(i);
            const QByteArray target = i % 2 == 0
                ? next
                : m_server->address("/" + QByteArray("d/").repeated(i) + next).toUtf8();
            m_server->on(path, redirectTo(target, 301 + i % 2));
        }
        const QByteArray last =
            "/" + QByteArray("d/").repeated(redirects) + QByteArray::number(redirects);
        m_server->on(last, replyOf("there"));
        const MessageCatcher catcher;
        CAdobeBrowser browser;
        browser.setMaxRedirect(limit);
        const QSignalSpy ends(&browser, &CAdobeBrowser::finished);
        browser.get(m_server->address("/0"), true);
        QCOMPARE(browser.success(), isFollowed);
        QCOMPARE(browser.rawContent(), isFollowed ? QByteArray("there") : QByteArray("moved"));
        QCOMPARE(ends.size(), 1);
        QCOMPARE(ends.constFirst().constFirst().toInt(), isFollowed ? 0 : 1);
        QCOMPARE(m_server->requests().size(), isFollowed ? redirects + 1 : redirects);
        const QStringList lines = catcher.linesWith(QStringLiteral("Redirect to: "));
        QCOMPARE(lines.size(), isFollowed ? redirects : redirects - 1);
        if (isFollowed) {
            QCOMPARE(browser.url(), m_server->address(last));
            QCOMPARE(lines.constLast(),
                     QStringLiteral("Redirect to:  \"%1\" ").arg(m_server->address(last)));
        }
    }

    void aRedirectThatComesBackOnItself_data()
    {
        QTest::addColumn<int>("redirects"); // before there is something else
        QTest::addColumn<bool>("hasLocation"); // in the answer then
        QTest::addColumn<int>("requests");
        QTest::addColumn<int>("code");
        QTest::newRow("for ever") << 100 << false << 5 << 1;
        QTest::newRow("and a last 200") << 4 << false << 5 << 0;
        QTest::newRow("and a last 200 that names itself, too") << 4 << true << 5 << 0;
        QTest::newRow("and a 200 too late") << 5 << false << 5 << 1;
        QTest::newRow("once") << 1 << false << 2 << 0;
    }

    void aRedirectThatComesBackOnItself()
    {
        QFETCH(int, redirects);
        QFETCH(bool, hasLocation);
        QFETCH(int, requests);
        QFETCH(int, code);
        int seen = 0;
        m_server->on("/r", [&](const HttpRequest &) {
            if (++seen <= redirects)
                return redirectTo("/r");
            HttpReply there = replyOf("there");
            if (hasLocation)
                there.headers += qMakePair(QByteArray("Location"), QByteArray("/r"));
            return there;
        });
        const MessageCatcher catcher;
        CAdobeBrowser browser;
        const QSignalSpy ends(&browser, &CAdobeBrowser::finished);
        browser.get(m_server->address("/r"), true);
        QCOMPARE(seen, requests);
        QCOMPARE(ends.size(), 1);
        QCOMPARE(ends.constFirst().constFirst().toInt(), code);
        QCOMPARE(browser.success(), code == 0);
        QCOMPARE(browser.rawContent(), code == 0 ? QByteArray("there") : QByteArray("moved"));
        QCOMPARE(catcher.linesWith(QStringLiteral("Redirect to: ")).size(), requests - 1);
    }

    void redirectsAreCountedPerRequest()
    {
        m_server->on("/0", redirectTo("/1"));
        m_server->on("/1", redirectTo("/2"));
        m_server->on("/2", replyOf("there"));
        CAdobeBrowser browser;
        for (int i = 0; i < 4; ++i) {
            browser.get(m_server->address("/0"), true);
            QVERIFY(browser.success());
        }
    }

    void isRedirectHasItsOldSense()
    {
        m_server->on("/r", redirectTo("/a"));
        m_server->on("/a", replyOf("x"));
        CAdobeBrowser browser;
        browser.setMaxRedirect(1);
        browser.get(m_server->address("/r"), true);
        QVERIFY(!browser.isRedirect());
        QCOMPARE(browser.redirectUrl(), m_server->address("/a"));
        browser.get(m_server->address("/a"), true);
        QVERIFY(browser.isRedirect());
        QVERIFY(browser.redirectUrl().isEmpty());
    }

    void contentIsDecodedByItsCharset_data()
    {
        QTest::addColumn<QByteArray>("type");
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<QString>("text");
        const QString e = QString::fromUtf8("\xc3\xa9");
        QTest::newRow("none") << QByteArray("text/xml") << QByteArray("\xc3\xa9") << e;
        QTest::newRow("utf-8") << QByteArray("text/xml;charset=utf-8") << QByteArray("\xc3\xa9")
                               << e;
        QTest::newRow("latin") << QByteArray("text/xml; charset=iso-8859-1") << QByteArray("\xe9")
                               << e;
        QTest::newRow("upper case")
            << QByteArray("text/xml; Charset=ISO-8859-1") << QByteArray("\xe9") << e;
        QTest::newRow("unknown") << QByteArray("text/xml; charset=nonsense")
                                 << QByteArray("\xc3\xa9") << e;
    }

    void contentIsDecodedByItsCharset()
    {
        QFETCH(QByteArray, type);
        QFETCH(QByteArray, body);
        QFETCH(QString, text);
        HttpReply reply = replyOf(body);
        reply.headers = {{"Content-Type", type}};
        m_server->on("/a", reply);
        CAdobeBrowser browser;
        browser.get(m_server->address("/a"), true);
        QCOMPARE(browser.content(), text);
        QCOMPARE(browser.rawContent(), body);
    }

    void format_data()
    {
        QTest::addColumn<QByteArray>("type");
        QTest::addColumn<QString>("format");
        QTest::newRow("html") << QByteArray("text/html; charset=x") << QStringLiteral("html");
        QTest::newRow("xml") << QByteArray("text/xml") << QStringLiteral("xml");
        QTest::newRow("smil") << QByteArray("application/smil+xml") << QStringLiteral("smil");
        QTest::newRow("json") << QByteArray("application/json") << QStringLiteral("json");
        QTest::newRow("other") << QByteArray("video/f4f") << QString();
    }

    void format()
    {
        QFETCH(QByteArray, type);
        QFETCH(QString, format);
        HttpReply reply = replyOf("x");
        reply.headers = {{"Content-Type", type}};
        m_server->on("/a", reply);
        CAdobeBrowser browser;
        browser.get(m_server->address("/a"), true);
        QCOMPARE(browser.format(), format);
    }

    void nothingBeforeTheFirstRequest()
    {
        const CAdobeBrowser browser;
        QVERIFY(!browser.success());
        QVERIFY(browser.content().isEmpty());
        QVERIFY(browser.format().isEmpty());
        QVERIFY(browser.redirectUrl().isEmpty());
    }

    void save()
    {
        m_server->on("/a", replyOf("content"));
        CAdobeBrowser browser;
        browser.get(m_server->address("/a"), true);
        const QString path = m_folder->filePath(QStringLiteral("saved"));
        QVERIFY(browser.save(path));
        QFile file(path);
        QVERIFY(file.open(QIODevice::ReadOnly));
        QCOMPARE(file.readAll(), QByteArray("content"));
        QVERIFY(!browser.save(m_folder->filePath(QStringLiteral("no/saved"))));
    }

    void largeBodiesAreRefused_data()
    {
        QTest::addColumn<bool>("isAnnounced");
        QTest::addColumn<int>("size");
        QTest::newRow("at the limit") << true << 100000;
        QTest::newRow("announced") << true << 100001;
        QTest::newRow("not announced") << false << 100001;
    }

    void largeBodiesAreRefused()
    {
        QFETCH(bool, isAnnounced);
        QFETCH(int, size);
        HttpReply reply = replyOf(QByteArray(size, 'x'));
        reply.withoutLength = !isAnnounced;
        m_server->on("/a", reply);
        CAdobeBrowser browser;
        browser.setMaxContentBytes(100000);
        browser.get(m_server->address("/a"), true);
        QCOMPARE(browser.success(), size <= 100000);
        QVERIFY(browser.rawContent().size() <= 100000);
    }

    void cookiesTravel()
    {
        HttpReply reply = replyOf("x");
        reply.headers = {{"Set-Cookie", "sid=7; Path=/"}};
        m_server->on("/set", reply);
        m_server->on("/use", replyOf("x"));
        CAdobeBrowser first;
        first.get(m_server->address("/set"), true);
        CAdobeBrowser second;
        second.get(m_server->address("/use"), true);
        QCOMPARE(headerSeen("Cookie"), QByteArray("sid=7"));
    }

    void proxyOfTheOptions()
    {
        m_server->onOther([](const HttpRequest &) { return replyOf("by proxy"); });
        setOption("proxyType", 3);
        setOption("proxyHost", QStringLiteral("127.0.0.1"));
        setOption("proxyPort", m_server->port());
        CAdobeBrowser browser;
        browser.get(QStringLiteral("http://host.invalid/x"), true);
        QCOMPARE(browser.rawContent(), QByteArray("by proxy"));
        QCOMPARE(m_server->requests().constLast().target, QByteArray("http://host.invalid/x"));
    }

    void noProxyOfTheEnvironment()
    {
        m_server->on("/a", replyOf("direct"));
        ScriptedServer proxy;
        qputenv("http_proxy", proxy.address("").toUtf8());
        for (const int type : {0, 2}) {
            setOption("proxyType", type);
            CAdobeBrowser browser;
            browser.get(m_server->address("/a"), true);
            QCOMPARE(browser.rawContent(), QByteArray("direct"));
        }
        qunsetenv("http_proxy");
        QVERIFY(proxy.requests().isEmpty());
    }

    void aNamedProxyIsNeverPassedBy_data()
    {
        QTest::addColumn<int>("type");
        QTest::addColumn<bool>("isDirect");
        for (int type = -1; type <= 7; ++type) {
            const bool isDirect =
                type == QNetworkProxy::DefaultProxy || type == QNetworkProxy::NoProxy;
            QTest::addRow("type %d", type) << type << isDirect;
        }
    }

    void aNamedProxyIsNeverPassedBy()
    {
        QFETCH(int, type);
        QFETCH(bool, isDirect);
        m_server->on("/a", replyOf("direct"));
        QTcpSocket proxy; // has a port of its own and refuses every connection
        QVERIFY(proxy.bind(QHostAddress::LocalHost));
        setOption("proxyType", type);
        setOption("proxyHost", QStringLiteral("127.0.0.1"));
        setOption("proxyPort", proxy.localPort());
        CAdobeBrowser browser;
        browser.get(m_server->address("/a"), true);
        QCOMPARE(browser.success(), isDirect);
        QCOMPARE(m_server->requests().size(), isDirect ? 1 : 0);
    }

    void withoutAProxyHostConnectionsAreDirect()
    {
        m_server->on("/a", replyOf("direct"));
        for (int type = -1; type <= 7; ++type) {
            setOption("proxyType", type);
            CAdobeBrowser browser;
            browser.get(m_server->address("/a"), true);
            QCOMPARE(browser.rawContent(), QByteArray("direct"));
        }
    }

    void exitStartsNothing()
    {
        CAdobeBrowser browser;
        browser.exit();
        browser.get(m_server->address("/a"), true);
        QVERIFY(!browser.success());
        QVERIFY(m_server->requests().isEmpty());
    }

    void exitEndsAWait()
    {
        m_server->hold("/a");
        CAdobeBrowser browser;
        connect(m_server.get(), &ScriptedServer::requestReceived, &browser, &CAdobeBrowser::exit,
                Qt::QueuedConnection);
        browser.get(m_server->address("/a"), true);
        QVERIFY(!browser.success());
    }

    void stopEndsAWaitOnAnyThread()
    {
        m_server->hold("/a");
        const QString address = m_server->address("/a");
        const StopFlag stop;
        std::atomic_bool isSuccess = true;
        const std::unique_ptr<QThread> thread(QThread::create([&] {
            CAdobeBrowser browser(stop);
            browser.get(address, true);
            isSuccess = browser.success();
        }));
        thread->start();
        QTRY_COMPARE(m_server->requests().size(), 1);
        stop.raise();
        QTRY_VERIFY(thread->isFinished());
        QVERIFY(!isSuccess);
    }

    void aSilentServerIsGivenUp_data()
    {
        QTest::addColumn<int>("holdAfterBytes");
        QTest::newRow("before the body") << 0;
        QTest::newRow("in the body") << 5;
    }

    void aSilentServerIsGivenUp()
    {
        QFETCH(int, holdAfterBytes);
        HttpReply reply = replyOf("0123456789");
        reply.holdAfterBytes = holdAfterBytes;
        m_server->on("/a", reply);
        CAdobeBrowser browser;
        browser.setStallTimeout(200);
        browser.get(m_server->address("/a"), true);
        QVERIFY(!browser.success());
    }

    void theCallersLimitForSilenceIsUsed()
    {
        m_server->hold("/a");
        setOption("stall", 1);
        CAdobeBrowser browser;
        browser.get(m_server->address("/a"), true);
        QVERIFY(!browser.success());
    }

    void aSlowServerIsNotGivenUp()
    {
        // The whole answer takes longer than the limit, no single step does.
        HttpReply reply = replyOf(QByteArray(40, 'x'));
        reply.pieceBytes = 1;
        reply.pieceDelayMs = 50;
        m_server->on("/a", reply);
        CAdobeBrowser browser;
        browser.setStallTimeout(1500);
        browser.get(m_server->address("/a"), true);
        QVERIFY(browser.success());
    }

    void aNewRequestReplacesTheOneBefore()
    {
        m_server->hold("/held");
        m_server->on("/a", replyOf("x"));
        CAdobeBrowser browser;
        const QSignalSpy ends(&browser, &CAdobeBrowser::finished);
        browser.get(m_server->address("/held"), false);
        QTRY_COMPARE(m_server->requests().size(), 1);
        browser.get(m_server->address("/a"), true);
        QVERIFY(browser.success());
        QCOMPARE(ends.size(), 1);
    }

    void destroyedMidway()
    {
        m_server->hold("/held");
        auto browser = std::make_unique<CAdobeBrowser>();
        browser->get(m_server->address("/held"), false);
        QTRY_COMPARE(m_server->requests().size(), 1);
        browser.reset();
    }
};

CLIPWEIR_TEST_MAIN(tst_AdobeBrowser)
#include "tst_adobebrowser.moc"
