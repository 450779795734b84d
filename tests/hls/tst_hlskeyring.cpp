#include "HlsKeyRing.h"
#include "ScriptedServer.h"
#include "TestMain.h"

#include <QThread>

#include <memory>
#include <vector>

namespace {

const QByteArray keyBytes = "0123456789abcdef";

/// Asks for a key on a thread of its own.
class Asking
{
public:
    Asking(HlsKeyRing &ring, const QUrl &address)
        : m_thread(QThread::create([this, &ring, address] { key = ring.key(address, stop); }))
    {
        m_thread->start();
    }

    ~Asking()
    {
        stop.raise();
        m_thread->wait();
    }

    bool isOver() const { return m_thread->isFinished(); }

    QByteArray key; // once it is over
    StopFlag stop;

private:
    std::unique_ptr<QThread> m_thread;
};

} // namespace

class tst_HlsKeyRing : public QObject
{
    Q_OBJECT

private slots:
    void fetchesOnceForAll()
    {
        ScriptedServer server;
        server.on("/k", replyOf(keyBytes));
        server.on("/other", replyOf("fedcba9876543210"));
        HlsKeyRing ring{MediaServers()};
        std::vector<std::unique_ptr<Asking>> askings;
        for (int i = 0; i < 8; ++i)
            askings.push_back(std::make_unique<Asking>(ring, server.url("/k")));
        Asking other(ring, server.url("/other"));
        for (const auto &asking : askings) {
            QTRY_VERIFY(asking->isOver());
            QCOMPARE(asking->key, keyBytes);
        }
        QTRY_VERIFY(other.isOver());
        QCOMPARE(other.key, QByteArray("fedcba9876543210"));
        QCOMPARE(server.requestsFor("/k").size(), 1);
    }

    void wrongSizes_data()
    {
        QTest::addColumn<QByteArray>("body");
        QTest::newRow("short") << keyBytes.left(15);
        QTest::newRow("long") << keyBytes + 'x';
        QTest::newRow("empty") << QByteArray();
        QTest::newRow("page") << QByteArray("<html>log in, please</html>");
    }

    void wrongSizes()
    {
        QFETCH(QByteArray, body);
        ScriptedServer server;
        server.on("/k", replyOf(body));
        HlsKeyRing ring{MediaServers()};
        for (int round = 0; round < 2; ++round) {
            Asking asking(ring, server.url("/k"));
            QTRY_VERIFY(asking.isOver());
            QVERIFY(asking.key.isEmpty());
            QCOMPARE(server.requests().size(), 3);
        }
    }

    void aKeyThatIsNotThereIsAskedForNoMore()
    {
        ScriptedServer server;
        HlsKeyRing ring{MediaServers()};
        for (int round = 0; round < 2; ++round) {
            Asking asking(ring, server.url("/k"));
            QTRY_VERIFY(asking.isOver());
            QVERIFY(asking.key.isEmpty());
            QCOMPARE(server.requests().size(), 3);
        }
    }

    void aServerInDisorderIsAskedAgain()
    {
        ScriptedServer server;
        int requests = 0;
        server.on("/k", [&requests](const HttpRequest &) {
            return ++requests < 5 ? replyOf("busy", 503) : replyOf(keyBytes);
        });
        HlsKeyRing ring{MediaServers()};
        Asking asking(ring, server.url("/k"));
        QTRY_VERIFY_WITH_TIMEOUT(asking.isOver(), 30000);
        QCOMPARE(asking.key, keyBytes);
    }

    void aStopEndsTheWait()
    {
        ScriptedServer server;
        server.on("/k", heldReplyOf(keyBytes, 3));
        HlsKeyRing ring{MediaServers()};
        Asking first(ring, server.url("/k"));
        QTRY_COMPARE(server.requests().size(), 1);
        Asking second(ring, server.url("/k"));
        second.stop.raise();
        QTRY_VERIFY(second.isOver());
        QVERIFY(!first.isOver());
        first.stop.raise();
        QTRY_VERIFY(first.isOver());
        QVERIFY(first.key.isEmpty());
        // A stop is no answer: the next one asks again.
        server.on("/k", replyOf(keyBytes));
        Asking third(ring, server.url("/k"));
        QTRY_VERIFY(third.isOver());
        QCOMPARE(third.key, keyBytes);
    }

    void onlyOfTheWeb()
    {
        HlsKeyRing ring{MediaServers()};
        Asking asking(ring, QUrl());
        QTRY_VERIFY(asking.isOver());
        QVERIFY(asking.key.isEmpty());
    }
};

CLIPWEIR_TEST_MAIN(tst_HlsKeyRing)
#include "tst_hlskeyring.moc"
