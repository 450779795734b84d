#include "ConnectionPool.h"

#include "AdobeBrowser.h"
#include "AdobePreference.h"
#include "CookieStore.h"
#include "HdsRun.h"
#include "ScriptedServer.h"
#include "TestMain.h"

#include <atomic>
#include <thread>

namespace {

/// A server that keeps its connections open and counts them.
class LastingServer final : public QObject
{
public:
    enum class Fault {
        None,
        ClosesAfterAnswer, // without a word in the answer
        ClosesAtSecondRequest, // of a connection, in place of an answer
    };

    explicit LastingServer(Fault fault = Fault::None)
        : m_fault(fault)
    {
        m_server.listen(QHostAddress::LocalHost);
        connect(&m_server, &QTcpServer::newConnection, this, [this] {
            QTcpSocket *socket = m_server.nextPendingConnection();
            connections += 0;
            const int place = connections.size() - 1;
            connect(socket, &QTcpSocket::readyRead, this,
                    [this, socket, place] { read(socket, place); });
        });
    }

    void on(const QByteArray &path, const QByteArray &body, int status = 200)
    {
        HttpReply reply;
        reply.status = status;
        reply.body = body;
        reply.headers = {{"Content-Length", QByteArray::number(body.size())},
                         {"Connection", "keep-alive"}};
        m_replies.insert(path, reply);
    }

    QString address(const QString &path) const
    {
        return QStringLiteral("http://127.0.0.1:%1%2").arg(m_server.serverPort()).arg(path);
    }

    bool holdsAnswers = false;
    QList<int> connections; // requests of each

    void release()
    {
        holdsAnswers = false;
        for (QTcpSocket *socket : qAsConst(m_held))
            answer(socket);
        m_held.clear();
    }

private:
    void read(QTcpSocket *socket, int place)
    {
        if (!socket->peek(socket->bytesAvailable()).endsWith("\r\n\r\n"))
            return;
        if (++connections[place] == 2 && m_fault == Fault::ClosesAtSecondRequest)
            socket->abort();
        else if (holdsAnswers)
            m_held += socket;
        else
            answer(socket);
    }

    void answer(QTcpSocket *socket)
    {
        const QByteArray target = socket->readAll().split(' ').at(1);
        const HttpReply reply = m_replies.value(target);
        socket->write(ScriptedServer::headOf(reply) + reply.body);
        if (m_fault == Fault::ClosesAfterAnswer)
            socket->disconnectFromHost();
    }

    Fault m_fault;
    QTcpServer m_server;
    QHash<QByteArray, HttpReply> m_replies;
    QList<QTcpSocket *> m_held;
};

/// Fetches on a thread of its own, as a worker does.
class Fetch final
{
public:
    Fetch(const std::shared_ptr<ConnectionPool> &pool, const QString &address)
        : m_thread([this, pool = pool, address]() mutable {
            {
                CAdobeBrowser browser(StopFlag(), std::exchange(pool, nullptr));
                browser.get(address, true);
                content = browser.success() ? browser.rawContent() : QByteArray("failed");
            }
            m_hasEnded = true;
        })
    {
    }

    ~Fetch() { m_thread.join(); }

    bool hasEnded() const { return m_hasEnded; }

    QByteArray content;

private:
    std::atomic_bool m_hasEnded = false;
    std::thread m_thread; // a standard one, so that thread analysers see its end
};

} // namespace

class tst_ConnectionPool : public QObject
{
    Q_OBJECT

    std::unique_ptr<HdsRun> m_run; // the options and a folder
    std::shared_ptr<ConnectionPool> m_pool;

    QByteArray fetched(const LastingServer &server, const QString &path = QStringLiteral("/a"))
    {
        const Fetch fetch(m_pool, server.address(path));
        return QTest::qWaitFor([&fetch] { return fetch.hasEnded(); }) ? fetch.content : "no end";
    }

private slots:
    void init()
    {
        m_run = std::make_unique<HdsRun>();
        m_pool = std::make_shared<ConnectionPool>();
        CookieStore::instance().clear();
    }

    void aConnectionServesManyThreadsInTurn()
    {
        LastingServer server;
        server.on("/a", "first");
        server.on("/b", QByteArray(300000, 'b'));
        for (int i = 0; i < 3; ++i) {
            QCOMPARE(fetched(server), QByteArray("first"));
            QCOMPARE(fetched(server, QStringLiteral("/b")), QByteArray(300000, 'b'));
        }
        QCOMPARE(server.connections, QList<int>{6});
    }

    void withoutAPoolNothingIsShared()
    {
        LastingServer server;
        server.on("/a", "x");
        m_pool.reset();
        fetched(server);
        fetched(server);
        QCOMPARE(server.connections, (QList<int>{1, 1}));
    }

    void requestsAtOneTimeHaveConnectionsOfTheirOwn()
    {
        LastingServer server;
        server.on("/a", "x");
        server.holdsAnswers = true;
        {
            const Fetch one(m_pool, server.address(QStringLiteral("/a")));
            const Fetch other(m_pool, server.address(QStringLiteral("/a")));
            QTRY_COMPARE(server.connections, (QList<int>{1, 1}));
            server.release();
            QTRY_VERIFY(one.hasEnded() && other.hasEnded());
            QCOMPARE(one.content, QByteArray("x"));
            QCOMPARE(other.content, QByteArray("x"));
        }
        QCOMPARE(fetched(server), QByteArray("x"));
        QCOMPARE(server.connections.size(), 2);
    }

    void aFailureGivesNothingBack()
    {
        LastingServer server;
        server.on("/a", "x");
        server.on("/gone", "x", 404);
        QCOMPARE(fetched(server, QStringLiteral("/gone")), QByteArray("failed"));
        QCOMPARE(fetched(server), QByteArray("x"));
        QCOMPARE(server.connections, (QList<int>{1, 1}));
    }

    void aConnectionThatClosedIsReplaced()
    {
        LastingServer server(LastingServer::Fault::ClosesAfterAnswer);
        server.on("/a", "x");
        for (int i = 0; i < 3; ++i)
            QCOMPARE(fetched(server), QByteArray("x"));
        QCOMPARE(server.connections, (QList<int>{1, 1, 1}));
    }

    void aConnectionThatDiesUnderARequestIsReplaced()
    {
        LastingServer server(LastingServer::Fault::ClosesAtSecondRequest);
        server.on("/a", "x");
        for (int i = 0; i < 3; ++i)
            QCOMPARE(fetched(server), QByteArray("x"));
        QCOMPARE(server.connections, (QList<int>{2, 2, 1}));
    }

    void aProxyIsNotLeftOver()
    {
        LastingServer server;
        LastingServer proxy;
        server.on("/a", "direct");
        proxy.on(server.address(QStringLiteral("/a")).toUtf8(), "by proxy");
        CAdobePreference *options = CAdobePreference::GetInstance();
        options->SetOption(QStringLiteral("proxyType"), 3);
        options->SetOption(QStringLiteral("proxyHost"), QStringLiteral("127.0.0.1"));
        options->SetOption(QStringLiteral("proxyPort"), QUrl(proxy.address(QString())).port());
        QCOMPARE(fetched(server), QByteArray("by proxy"));
        options->SetOption(QStringLiteral("proxyHost"), QString());
        QCOMPARE(fetched(server), QByteArray("direct"));
    }

    void aPoolMayEndBeforeItsLastRequest()
    {
        LastingServer server;
        server.on("/a", "x");
        fetched(server);
        server.holdsAnswers = true;
        const Fetch fetch(m_pool, server.address(QStringLiteral("/a")));
        m_pool.reset();
        QTRY_COMPARE(server.connections, QList<int>{2});
        server.release();
        QTRY_VERIFY(fetch.hasEnded());
        QCOMPARE(fetch.content, QByteArray("x"));
    }

    void aStreamNeedsAConnectionForEachWorker()
    {
        constexpr int fragments = 30;
        LastingServer server;
        server.on("/dir/m.f4m", hds::manifest("s", hds::simpleBootstrap(fragments)));
        for (int n = 1; n <= fragments; ++n)
            server.on("/dir/sSeg1-Frag" + QByteArray::number(n), hds::numberedFragment(n));
        QCOMPARE(m_run->run(server.address(QStringLiteral("/dir/m.f4m")),
                            {QStringLiteral("--pannel"), QStringLiteral("3")}),
                 1);
        QCOMPARE(m_run->contents(), contentsOf(numbersFrom(1, fragments)));
        QVERIFY(server.connections.size() <= 1 + 3); // the manifest has its own
    }
};

CLIPWEIR_TEST_MAIN(tst_ConnectionPool)
#include "tst_connectionpool.moc"
