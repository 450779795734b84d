#include "ScriptedServer.h"
#include "StallWatch.h"
#include "TestMain.h"

#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QPointer>
#include <QSemaphore>
#include <QSignalSpy>

#include <limits>
#include <memory>

namespace {

constexpr int shortMs = 200;
constexpr int patientMs = 1500; // far above every pause that the answers below make

} // namespace

/// Watched requests to a server that falls silent, or only seems to.
class tst_StallWatch : public QObject
{
    Q_OBJECT

    std::unique_ptr<ScriptedServer> m_server;
    std::unique_ptr<QNetworkAccessManager> m_manager;

    std::unique_ptr<QNetworkReply> get(const QByteArray &path)
    {
        QNetworkRequest request(m_server->url(path));
        request.setAttribute(QNetworkRequest::RedirectPolicyAttribute,
                             QNetworkRequest::NoLessSafeRedirectPolicy);
        return std::unique_ptr<QNetworkReply>(m_manager->get(request));
    }

private slots:
    void init()
    {
        m_server = std::make_unique<ScriptedServer>();
        m_manager = std::make_unique<QNetworkAccessManager>();
    }

    void cleanup() { m_manager.reset(); }

    void limitOfSeconds_data()
    {
        QTest::addColumn<int>("seconds");
        QTest::addColumn<qint64>("limitMs");
        QTest::newRow("none") << 0 << qint64(0);
        QTest::newRow("negative") << -1 << qint64(0);
        QTest::newRow("lowest") << std::numeric_limits<int>::min() << qint64(0);
        QTest::newRow("one") << 1 << qint64(1000);
        QTest::newRow("highest") << std::numeric_limits<int>::max() << qint64(2147483647000);
    }

    void limitOfSeconds()
    {
        QFETCH(int, seconds);
        QTEST(StallWatch::limitOf(seconds), "limitMs");
    }

    void silenceIsReportedOnce_data()
    {
        QTest::addColumn<HttpReply>("reply");
        HttpReply beforeTheHeader = replyOf("0123456789");
        beforeTheHeader.delayMs = 1000000;
        QTest::newRow("before the header") << beforeTheHeader;
        for (const qint64 sent : {0, 1, 9}) {
            HttpReply reply = replyOf("0123456789");
            reply.holdAfterBytes = sent;
            QTest::addRow("after %d bytes of the body", int(sent)) << reply;
        }
        HttpReply redirect = replyOf("");
        redirect.status = 302;
        redirect.headers = {{"Location", "/held"}};
        QTest::newRow("after a redirect") << redirect;
    }

    void silenceIsReportedOnce()
    {
        QFETCH(HttpReply, reply);
        m_server->on("/a", reply);
        m_server->hold("/held");
        const auto request = get("/a");
        const StallWatch watch(request.get(), shortMs);
        QSignalSpy stalls(&watch, &StallWatch::stalled);
        QVERIFY(stalls.wait(30000));
        QVERIFY(!request->isFinished()); // what becomes of it is the owner's to say
        QVERIFY(!stalls.wait(3 * shortMs));
        QCOMPARE(stalls.size(), 1);
    }

    void halfAHeaderIsNoSignOfLife()
    {
        m_server->onRaw("/a", [](const HttpRequest &, QTcpSocket *socket) {
            socket->write("HTTP/1.1 200 OK\r\nContent-");
        });
        const auto request = get("/a");
        const StallWatch watch(request.get(), shortMs);
        QSignalSpy stalls(&watch, &StallWatch::stalled);
        QVERIFY(stalls.wait(30000));
    }

    void aConnectionThatIsNotTakenUpIsSilenceToo()
    {
        QTcpServer listener; // its connections are never accepted
        QVERIFY(listener.listen(QHostAddress::LocalHost));
        listener.pauseAccepting();
        const std::unique_ptr<QNetworkReply> request(m_manager->get(QNetworkRequest(
            QUrl(QStringLiteral("http://127.0.0.1:%1/").arg(listener.serverPort())))));
        const StallWatch watch(request.get(), shortMs);
        QSignalSpy stalls(&watch, &StallWatch::stalled);
        QVERIFY(stalls.wait(30000));
    }

    void aTrickleIsNoSilence()
    {
        HttpReply reply = replyOf(QByteArray(40, 'x'));
        reply.pieceBytes = 1;
        reply.pieceDelayMs = 50; // the whole takes longer than the limit
        m_server->on("/a", reply);
        const auto request = get("/a");
        const StallWatch watch(request.get(), patientMs);
        const QSignalSpy stalls(&watch, &StallWatch::stalled);
        QSignalSpy ends(request.get(), &QNetworkReply::finished);
        QVERIFY(ends.wait(30000));
        QVERIFY(stalls.isEmpty());
        QCOMPARE(request->readAll().size(), 40);
    }

    void nothingIsReportedAfterTheEnd()
    {
        m_server->on("/a", replyOf("x"));
        const auto request = get("/a");
        const StallWatch watch(request.get(), shortMs);
        QSignalSpy stalls(&watch, &StallWatch::stalled);
        QSignalSpy ends(request.get(), &QNetworkReply::finished);
        QVERIFY(ends.wait(30000));
        QVERIFY(!stalls.wait(3 * shortMs));
        const StallWatch late(request.get(), shortMs);
        QSignalSpy lateStalls(&late, &StallWatch::stalled);
        QVERIFY(!lateStalls.wait(3 * shortMs));
    }

    void withoutALimitNothingIsReported()
    {
        m_server->hold("/a");
        const auto request = get("/a");
        for (const qint64 limitMs : {qint64(0), qint64(-5)}) {
            const StallWatch watch(request.get(), limitMs);
            QSignalSpy stalls(&watch, &StallWatch::stalled);
            QVERIFY(!stalls.wait(3 * shortMs));
        }
    }

    void aLimitBeyondWhatATimerHoldsIsHeldBack()
    {
        m_server->hold("/a");
        const auto request = get("/a");
        const StallWatch watch(request.get(), std::numeric_limits<qint64>::max());
        QSignalSpy stalls(&watch, &StallWatch::stalled);
        QVERIFY(!stalls.wait(shortMs));
    }

    void whatArrivedWhileTheThreadWasBusyCounts()
    {
        // The server works on a thread of its own, so that it answers while this one sleeps.
        QUrl url;
        QSemaphore isUp;
        const std::unique_ptr<QThread> thread(QThread::create([&] {
            ScriptedServer server;
            HttpReply reply = replyOf("0123456789");
            reply.pieceBytes = 5;
            reply.pieceDelayMs = patientMs;
            server.on("/a", reply);
            url = server.url("/a");
            isUp.release();
            QEventLoop().exec();
        }));
        thread->start();
        isUp.acquire();
        const std::unique_ptr<QNetworkReply> request(m_manager->get(QNetworkRequest(url)));
        QSignalSpy received(request.get(), &QNetworkReply::readyRead);
        QVERIFY(received.wait(30000));
        const StallWatch watch(request.get(), 2 * patientMs);
        const QSignalSpy stalls(&watch, &StallWatch::stalled);
        QSignalSpy ends(request.get(), &QNetworkReply::finished);
        QThread::msleep(3 * patientMs); // as a busy engine would
        QVERIFY(ends.wait(30000));
        thread->quit();
        QVERIFY(thread->wait());
        QVERIFY(stalls.isEmpty());
    }

    void theOwnerMayEndOrDeleteTheRequest_data()
    {
        QTest::addColumn<bool>("isDeleted");
        QTest::newRow("aborted") << false;
        QTest::newRow("deleted") << true;
    }

    void theOwnerMayEndOrDeleteTheRequest()
    {
        QFETCH(bool, isDeleted);
        m_server->hold("/a");
        const QPointer<QNetworkReply> request(get("/a").release());
        const auto *const watch = new StallWatch(request, shortMs);
        connect(watch, &StallWatch::stalled, m_manager.get(), [&] {
            if (isDeleted)
                delete request.data();
            else
                request->abort();
        });
        QTRY_VERIFY_WITH_TIMEOUT(!request || request->isFinished(), 30000);
        QCOMPARE(request.isNull(), isDeleted);
        delete request.data();
    }
};

CLIPWEIR_TEST_MAIN(tst_StallWatch)
#include "tst_stallwatch.moc"
