#include "ConnectionPool.h"
#include "HttpClient.h"
#include "ScriptedServer.h"
#include "TestMain.h"

#include <QNetworkAccessManager>
#include <QNetworkCookieJar>

namespace {

constexpr int endTimeoutMs = 30000;

HttpReply redirectTo(const QByteArray &target, int status = 302)
{
    HttpReply reply = replyOf("moved");
    reply.status = status;
    reply.headers = {{"Location", target}};
    return reply;
}

/// Bytes as they are, and the connection closed behind them.
ScriptedServer::RawHandler raw(const QByteArray &bytes)
{
    return [bytes](const HttpRequest &, QTcpSocket *socket) {
        socket->write(bytes);
        socket->disconnectFromHost();
    };
}

/// printf 'body' | gzip -n
const QByteArray gzipOfBody =
    QByteArray::fromHex("1f8b08000000000000034bca4fa90400b20ba8db04000000");

} // namespace

class tst_HttpClient : public QObject
{
    Q_OBJECT

    std::unique_ptr<ScriptedServer> m_server;
    std::unique_ptr<HttpClient> m_client;
    QStringList m_events; ///< as the client has told them, one word each
    QByteArray m_body;

    void use(std::unique_ptr<HttpClient> client)
    {
        m_client = std::move(client);
        m_events.clear();
        m_body.clear();
        connect(m_client.get(), &HttpClient::redirected, this,
                [this] { m_events += QStringLiteral("redirected"); });
        connect(m_client.get(), &HttpClient::answered, this,
                [this] { m_events += QStringLiteral("answered"); });
        connect(m_client.get(), &HttpClient::ended, this,
                [this] { m_events += QStringLiteral("ended"); });
    }

    [[nodiscard]] HttpClient::Request requestFor(const QByteArray &target) const
    {
        HttpClient::Request request;
        request.url = m_server->url(target);
        return request;
    }

    /// Starts a request and waits for its end. The body is read then, up to a limit.
    bool ask(const HttpClient::Request &request, qint64 maxBytes = 1000000)
    {
        m_events.clear();
        m_body.clear();
        m_client->start(request);
        return waitForEnd() && m_client->readInto(m_body, maxBytes);
    }

    bool waitForEnd()
    {
        return QTest::qWaitFor([this] { return hasEnded(); }, endTimeoutMs);
    }

    bool hasEnded() const { return m_events.contains(QStringLiteral("ended")); }

    static QStringList words(const char *text)
    {
        return QString::fromLatin1(text).split(QLatin1Char(' '));
    }

    QList<QByteArray> targets() const
    {
        QList<QByteArray> targets;
        const auto requests = m_server->requests();
        for (const HttpRequest &request : requests)
            targets += request.method + ' ' + request.target;
        return targets;
    }

private slots:
    void init()
    {
        m_server = std::make_unique<ScriptedServer>();
        use(std::make_unique<HttpClient>());
    }

    void cleanup()
    {
        m_client.reset();
        m_server.reset();
    }

    void anAnswer()
    {
        HttpReply reply = replyOf("body");
        reply.headers = {{"Content-Type", "video/mp4"}, {"X-A", "b"}};
        m_server->on("/a", reply);
        QVERIFY(!m_client->hasAnswer());
        QVERIFY(ask(requestFor("/a")));
        QCOMPARE(m_events, words("answered ended"));
        QCOMPARE(m_body, QByteArray("body"));
        QCOMPARE(m_client->status(), 200);
        QCOMPARE(m_client->error(), QNetworkReply::NoError);
        QCOMPARE(m_client->contentType(), QStringLiteral("video/mp4"));
        QCOMPARE(m_client->header("X-A"), QByteArray("b"));
        QCOMPARE(m_client->declaredLength(), qint64(4));
        QCOMPARE(m_client->receivedBytes(), qint64(4));
        QVERIFY(m_client->isBodyWhole());
        QVERIFY(!m_client->isRunning());
        QVERIFY(m_client->redirectTarget().isEmpty());
    }

    void whatIsSent_data()
    {
        QTest::addColumn<qint64>("start");
        QTest::addColumn<qint64>("end");
        QTest::addColumn<QByteArray>("range");
        QTest::newRow("all") << qint64(0) << qint64(0) << QByteArray();
        QTest::newRow("to the end") << qint64(500) << qint64(-1) << QByteArray("bytes=500-");
        QTest::newRow("part") << qint64(500) << qint64(1000) << QByteArray("bytes=500-999");
        QTest::newRow("first byte") << qint64(0) << qint64(1) << QByteArray("bytes=0-0");
    }

    void whatIsSent()
    {
        QFETCH(qint64, start);
        QFETCH(qint64, end);
        QFETCH(QByteArray, range);
        m_server->on("/a", redirectTo("/b"));
        m_server->on("/b", replyOf("body"));
        HttpClient::Request request = requestFor("/a");
        request.headers = {{"X-A", "b"}, {"User-Agent", "c"}};
        request.rangeStart = start;
        request.rangeEnd = end;
        QVERIFY(ask(request));
        QCOMPARE(targets(), (QList<QByteArray>{"GET /a", "GET /b"}));
        const auto requests = m_server->requests();
        for (const HttpRequest &seen : requests) {
            QCOMPARE(seen.header("Range"), range);
            QCOMPARE(seen.hasHeader("Range"), !range.isEmpty());
            QCOMPARE(seen.header("X-A"), QByteArray("b"));
            QCOMPARE(seen.header("User-Agent"), QByteArray("c"));
        }
    }

    void methods()
    {
        m_server->on("/post", redirectTo("/a", 307));
        m_server->on("/head", redirectTo("/a"));
        m_server->on("/a", replyOf("body"));
        HttpClient::Request request = requestFor("/post");
        request.method = HttpClient::Method::Post;
        request.form = "a=b";
        QVERIFY(ask(request));
        request.url = m_server->url("/head");
        request.method = HttpClient::Method::Head;
        QVERIFY(ask(request));
        QCOMPARE(targets(), (QList<QByteArray>{"POST /post", "GET /a", "HEAD /head", "HEAD /a"}));
        const HttpRequest post = m_server->requests().at(0);
        QCOMPARE(post.body, QByteArray("a=b"));
        QCOMPARE(post.header("Content-Type"), QByteArray("application/x-www-form-urlencoded"));
        QVERIFY(!m_server->requests().at(1).hasHeader("Content-Type"));
    }

    void redirectsAreCounted_data()
    {
        QTest::addColumn<int>("most");
        QTest::addColumn<int>("asked");
        QTest::addColumn<bool>("arrives");
        QTest::newRow("none") << 0 << 1 << false;
        QTest::newRow("one below") << 2 << 3 << false;
        QTest::newRow("limit") << 3 << 4 << true;
        QTest::newRow("one above") << 4 << 4 << true;
    }

    void redirectsAreCounted()
    {
        QFETCH(int, most);
        QFETCH(int, asked);
        QFETCH(bool, arrives);
        m_server->on("/a", redirectTo("/b"));
        m_server->on("/b", redirectTo("/c"));
        m_server->on("/c", redirectTo("/d"));
        m_server->on("/d", replyOf("body"));
        HttpClient::Request request = requestFor("/a");
        request.redirects.most = most;
        QVERIFY(ask(request));
        QCOMPARE(m_server->requests().size(), asked);
        QCOMPARE(m_client->redirectTarget().isEmpty(), arrives);
        QCOMPARE(m_events.count(QStringLiteral("redirected")), asked - 1);
        QCOMPARE(m_events.count(QStringLiteral("answered")), arrives ? 1 : 0);
        QVERIFY(ask(request)); // counted afresh
        QCOMPARE(m_server->requests().size(), 2 * asked);
    }

    void onlyTheWebIsAskedFor()
    {
        m_server->on("/a", redirectTo("file:///etc/passwd"));
        QVERIFY(ask(requestFor("/a")));
        QCOMPARE(m_events, words("redirected ended"));
        QCOMPARE(m_client->redirectTarget(), QUrl(QStringLiteral("file:///etc/passwd")));
        HttpClient::Request request;
        request.url = QUrl(QStringLiteral("file:///etc/passwd"));
        QVERIFY(ask(request));
        QCOMPARE(m_events, words("ended"));
        QVERIFY(m_client->error() != QNetworkReply::NoError);
        QCOMPARE(m_body, QByteArray());
    }

    void aReceiverMayForbidARedirect()
    {
        m_server->on("/a", redirectTo("/b"));
        connect(m_client.get(), &HttpClient::redirected, m_client.get(), &HttpClient::abort);
        QVERIFY(ask(requestFor("/a")));
        QCOMPARE(m_events, words("redirected ended"));
        QCOMPARE(m_server->requests().size(), 1);
    }

    void theBodyOfARedirect_data()
    {
        QTest::addColumn<bool>("readsBody");
        QTest::newRow("is cut") << false;
        QTest::newRow("is waited for") << true;
    }

    void theBodyOfARedirect()
    {
        QFETCH(bool, readsBody);
        HttpReply endless = redirectTo("/b");
        endless.body = QByteArray(100, 'x');
        endless.holdAfterBytes = 50;
        m_server->on("/a", endless);
        m_server->on("/b", replyOf("body"));
        HttpClient::Request request = requestFor("/a");
        request.redirects.readsBody = readsBody;
        if (!readsBody) {
            QVERIFY(ask(request));
            QCOMPARE(m_body, QByteArray("body"));
            return;
        }
        m_client->start(request);
        QByteArray body;
        QVERIFY(QTest::qWaitFor([&] { return m_client->readInto(body, 100) && body.size() == 50; },
                                endTimeoutMs));
        QCOMPARE(m_events, QStringList());
        m_client->abort();
        QCOMPARE(m_events, words("redirected ended"));
    }

    void cookies_data()
    {
        QTest::addColumn<bool>("hasJar");
        QTest::newRow("of a jar") << true;
        QTest::newRow("of the request alone") << false;
    }

    void cookies()
    {
        QFETCH(bool, hasJar);
        HttpReply first = redirectTo("/b");
        first.headers = {{"Location", "/b"}, {"Set-Cookie", "k=v"}};
        m_server->on("/a", first);
        m_server->on("/b", replyOf("body"));
        QNetworkCookieJar jar;
        HttpClient::Request request = requestFor("/a");
        request.cookies = hasJar ? &jar : nullptr;
        QVERIFY(ask(request));
        QVERIFY(!jar.parent()); // it stays its owner's
        QVERIFY(!m_server->requests().at(0).hasHeader("Cookie"));
        QCOMPARE(m_server->requests().at(1).header("Cookie"), QByteArray("k=v"));
        QVERIFY(ask(request));
        QCOMPARE(m_server->requests().at(2).header("Cookie"), QByteArray(hasJar ? "k=v" : ""));
        QCOMPARE(jar.cookiesForUrl(m_server->url("/")).size(), hasJar ? 1 : 0);
        m_client.reset(); // before the jar
    }

    void aPoolHasNothingOfAJar()
    {
        HttpReply reply = replyOf("body");
        reply.headers = {{"Set-Cookie", "k=v"}};
        m_server->on("/a", reply);
        const auto pool = std::make_shared<ConnectionPool>();
        {
            QNetworkCookieJar jar;
            use(std::make_unique<HttpClient>(NetSettings(), pool));
            HttpClient::Request request = requestFor("/a");
            request.cookies = &jar;
            QVERIFY(ask(request));
            m_client.reset();
        }
        use(std::make_unique<HttpClient>(NetSettings(), pool));
        QVERIFY(ask(requestFor("/a")));
        QVERIFY(!m_server->requests().at(1).hasHeader("Cookie"));
    }

    void aPoolKeepsConnectionsOfWholeAnswers_data()
    {
        QTest::addColumn<QByteArray>("answer");
        QTest::addColumn<bool>("isKept");
        QTest::newRow("whole") << QByteArray("HTTP/1.1 200 OK\r\nContent-Length: 4\r\n\r\nbody")
                               << true;
        QTest::newRow("refused") << QByteArray("HTTP/1.1 404 No\r\nContent-Length: 4\r\n\r\nbody")
                                 << false;
        QTest::newRow("interim") << QByteArray("HTTP/1.1 103 Early Hints\r\n\r\n") << false;
        QTest::newRow("cut") << QByteArray("HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\nbody")
                             << false;
    }

    void aPoolKeepsConnectionsOfWholeAnswers()
    {
        QFETCH(QByteArray, answer);
        QFETCH(bool, isKept);
        m_server->onRaw("/a", raw(answer));
        const auto pool = std::make_shared<ConnectionPool>();
        std::unique_ptr<QNetworkAccessManager> first = pool->take();
        const QNetworkAccessManager *const place = first.get();
        pool->giveBack(std::move(first));
        use(std::make_unique<HttpClient>(NetSettings(), pool));
        QVERIFY(ask(requestFor("/a")));
        // Another one keeps the first one's place in memory from being used again.
        const QNetworkAccessManager other;
        m_client.reset();
        const std::unique_ptr<QNetworkAccessManager> next = pool->take();
        if (isKept)
            QCOMPARE(next.get(), place);
        QCOMPARE(next->findChildren<QNetworkCookieJar *>().size(), isKept ? 1 : 0);
    }

    void silenceEndsIt()
    {
        m_server->hold("/a");
        NetSettings settings;
        settings.stallMs = 50;
        m_client->setSettings(settings);
        QVERIFY(ask(requestFor("/a")));
        QCOMPARE(m_events, words("ended"));
        QCOMPARE(m_client->error(), QNetworkReply::OperationCanceledError);
    }

    void theProxyIsAsked()
    {
        m_server->onOther([](const HttpRequest &) { return replyOf("body"); });
        NetSettings settings;
        settings.proxy =
            QNetworkProxy(QNetworkProxy::HttpProxy, QStringLiteral("127.0.0.1"), m_server->port());
        m_client->setSettings(settings);
        HttpClient::Request request;
        request.url = QUrl(QStringLiteral("http://media.test/v"));
        QVERIFY(ask(request));
        QCOMPARE(m_body, QByteArray("body"));
        QCOMPARE(m_server->requests().at(0).target, QByteArray("http://media.test/v"));
    }

    void interimAnswersAreNone()
    {
        m_server->onRaw("/a",
                        raw("HTTP/1.1 103 Early Hints\r\n\r\n"
                            "HTTP/1.1 200 OK\r\nContent-Length: 4\r\n\r\nbody"));
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression(QStringLiteral("status 103")));
        QVERIFY(ask(requestFor("/a")));
        QCOMPARE(m_events, words("ended"));
        QVERIFY(m_client->isInterim());
        QCOMPARE(m_body, QByteArray());
    }

    void packedBodies_data()
    {
        QTest::addColumn<QByteArray>("content");
        QTest::addColumn<int>("maxBytes");
        QTest::addColumn<bool>("isRead");
        QTest::addColumn<bool>("isWhole");
        QTest::newRow("whole") << gzipOfBody << 4 << true << true;
        QTest::newRow("one byte too many") << gzipOfBody << 3 << false << false;
        QTest::newRow("cut") << gzipOfBody.left(gzipOfBody.size() - 1) << 4 << true << false;
        QTest::newRow("not packed") << QByteArray("body") << 4 << false << false;
    }

    void packedBodies()
    {
        QFETCH(QByteArray, content);
        QFETCH(int, maxBytes);
        QFETCH(bool, isRead);
        QFETCH(bool, isWhole);
        HttpReply reply = replyOf(content);
        reply.headers = {{"Content-Encoding", "x-gzip"}};
        m_server->on("/a", reply);
        QCOMPARE(ask(requestFor("/a"), maxBytes), isRead);
        QVERIFY(m_client->isPacked());
        QCOMPARE(m_client->isBodyWhole(), isWhole);
        QCOMPARE(m_client->receivedBytes(), qint64(content.size()));
        QCOMPARE(m_body, QByteArray("body").left(content == "body" ? 0 : maxBytes));
    }

    void aBodyIsReadBehindWhatIsThere()
    {
        m_server->on("/a", replyOf("body"));
        QByteArray memory("old ");
        memory.reserve(100);
        const char *const place = memory.constData();
        m_client->start(requestFor("/a"));
        QVERIFY(waitForEnd());
        QVERIFY(!m_client->readInto(memory, 7));
        QCOMPARE(memory, QByteArray("old bod"));
        QVERIFY(!m_client->isBodyWhole());
        QVERIFY(m_client->readInto(memory, 8));
        QCOMPARE(memory, QByteArray("old body"));
        QVERIFY(m_client->isBodyWhole());
        QCOMPARE(memory.constData(), place);
    }

    void piecesAreBoundedAndMayBeRefused()
    {
        m_server->on("/a", replyOf(QByteArray(1000000, 'x')));
        qint64 longest = 0;
        qint64 total = 0;
        const auto take = [&](const char *, qint64 bytes) {
            longest = qMax(longest, bytes);
            total += bytes;
            return total < 900000;
        };
        m_client->start(requestFor("/a"));
        QVERIFY(waitForEnd());
        QVERIFY(!m_client->readTo(take));
        QVERIFY(total >= 900000);
        QVERIFY(longest <= 256 * 1024);
    }

    void cutBodiesAreNotWhole()
    {
        m_server->onRaw("/a", raw("HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\nbody"));
        m_client->start(requestFor("/a"));
        QVERIFY(waitForEnd());
        QVERIFY(!m_client->isBodyWhole());
        m_server->onRaw("/b", raw("HTTP/1.1 200 OK\r\nConnection: close\r\n\r\nbody"));
        QVERIFY(ask(requestFor("/b")));
        QCOMPARE(m_client->declaredLength(), qint64(-1));
        QVERIFY(m_client->isBodyWhole());
    }

    void endedByTheCaller()
    {
        HttpReply reply = replyOf("body");
        reply.holdAfterBytes = 2;
        m_server->on("/a", reply);
        m_client->abort(); // nothing is under way
        m_client->start(requestFor("/a"));
        QVERIFY(!hasEnded());
        QVERIFY(QTest::qWaitFor([this] { return m_client->bytesAvailable() == 2; }, endTimeoutMs));
        QVERIFY(m_client->isRunning());
        m_client->abort();
        QCOMPARE(m_events, words("answered ended"));
        m_client->abort();
        QCOMPARE(m_events, words("answered ended"));
        QCOMPARE(m_client->error(), QNetworkReply::OperationCanceledError);
        QVERIFY(m_client->readInto(m_body, 10));
        QCOMPARE(m_body, QByteArray());
    }

    void anAnswerThatNobodyWantsIsCut()
    {
        HttpReply reply = replyOf("body");
        reply.status = 404;
        reply.holdAfterBytes = 2;
        m_server->on("/a", reply);
        connect(m_client.get(), &HttpClient::answered, m_client.get(), &HttpClient::abortSoon);
        QVERIFY(ask(requestFor("/a")));
        QCOMPARE(m_events, words("answered ended"));
        QCOMPARE(m_client->status(), 404);
    }

    void oneRequestDropsTheOther()
    {
        m_server->hold("/a");
        m_server->on("/b", replyOf("body"));
        m_client->start(requestFor("/a"));
        QTRY_COMPARE(m_server->requests().size(), 1);
        QVERIFY(ask(requestFor("/b")));
        QCOMPARE(m_events, words("answered ended"));
        QCOMPARE(m_body, QByteArray("body"));
        m_client->drop();
        QVERIFY(!m_client->hasAnswer());
    }

    void aReceiverMayStartTheNext()
    {
        m_server->on("/a", replyOf("a"));
        m_server->on("/b", replyOf("b"));
        connect(m_client.get(), &HttpClient::ended, this, [this] {
            if (m_server->requests().size() == 1)
                m_client->start(requestFor("/b"));
        });
        m_client->start(requestFor("/a"));
        QTRY_COMPARE_WITH_TIMEOUT(m_events, words("answered ended answered ended"), endTimeoutMs);
        QVERIFY(m_client->readInto(m_body, 10));
        QCOMPARE(m_body, QByteArray("b"));
    }

    void aReceiverMayDestroyIt_data()
    {
        QTest::addColumn<QString>("event");
        for (const char *const event : {"answered", "readable", "progressed", "ended"})
            QTest::newRow(event) << QString::fromLatin1(event);
    }

    void aReceiverMayDestroyIt()
    {
        QFETCH(QString, event);
        m_server->on("/a", replyOf("body"));
        const auto destroyAt = [this, &event](const char *name) {
            return [this, isIt = event == QLatin1String(name)] {
                if (isIt)
                    m_client.reset();
            };
        };
        connect(m_client.get(), &HttpClient::answered, this, destroyAt("answered"));
        connect(m_client.get(), &HttpClient::readable, this, destroyAt("readable"));
        connect(m_client.get(), &HttpClient::progressed, this, destroyAt("progressed"));
        connect(m_client.get(), &HttpClient::ended, this, destroyAt("ended"));
        m_client->start(requestFor("/a"));
        QTRY_VERIFY_WITH_TIMEOUT(!m_client, endTimeoutMs);
        QCoreApplication::processEvents();
    }
};

CLIPWEIR_TEST_MAIN(tst_HttpClient)
#include "tst_httpclient.moc"
