#include "NetworkReplyProxy.h"
#include "ScriptedServer.h"
#include "ShareMemoryManager.h"
#include "TestMain.h"

#include <QNetworkCookieJar>
#include <QProcess>
#include <QSemaphore>
#include <QSignalSpy>
#include <QThread>

#include <csignal>
#include <functional>
#include <memory>

namespace {

HttpReply typedReply(const QByteArray &contentType, int size)
{
    HttpReply reply;
    reply.headers = {{"Content-Type", contentType}};
    reply.body = QByteArray(size, 'm');
    return reply;
}

std::unique_ptr<QNetworkReply> get(QNetworkAccessManager &manager, const QUrl &url)
{
    return std::unique_ptr<QNetworkReply>(manager.get(QNetworkRequest(url)));
}

/// A scripted server on a thread of its own, for requests that block the test's.
class ServerThread final
{
public:
    explicit ServerThread(const std::function<void(ScriptedServer &)> &script)
    {
        QSemaphore isUp;
        m_thread.reset(QThread::create([&] {
            ScriptedServer server;
            script(server);
            m_base = server.url("/");
            isUp.release();
            QEventLoop().exec();
        }));
        m_thread->start();
        isUp.acquire();
    }

    ~ServerThread()
    {
        m_thread->quit();
        m_thread->wait();
    }

    Q_DISABLE_COPY(ServerThread)

    [[nodiscard]] QUrl url(const char *path) const
    {
        return m_base.resolved(QUrl(QLatin1String(path)));
    }

private:
    std::unique_ptr<QThread> m_thread;
    QUrl m_base;
};

const char childVariable[] = "CLIPWEIR_UNSUPPORTED_CALL";

} // namespace

class tst_NetworkReplyProxy : public QObject
{
    Q_OBJECT

    ScriptedServer m_server;

private slots:
    void init()
    {
        setArguments({QStringLiteral("--url"), QStringLiteral("http://tst-network-reply-proxy/")});
    }

    void passesEverythingThrough()
    {
        HttpReply scripted = typedReply("text/plain; charset=utf-8", 0);
        for (int i = 0; i < 300000; ++i)
            scripted.body += static_cast<char>(i * 31);
        scripted.headers += qMakePair(QByteArray("X-Own"), QByteArray("kept"));
        scripted.headers += qMakePair(QByteArray("Set-Cookie"), QByteArray("a=1; Path=/"));
        scripted.pieceBytes = 70001;
        m_server.on("/pass", scripted);
        NetworkAccessManagerProxy manager(nullptr);
        const auto reply = get(manager, m_server.url("/pass?q"));
        QVERIFY(qobject_cast<NetworkReplyProxy *>(reply.get()));
        QVERIFY(reply->isSequential());
        QCOMPARE(reply->bytesToWrite(), qint64(-1));
        const QSignalSpy finished(reply.get(), &QNetworkReply::finished);
        const QSignalSpy metaData(reply.get(), &QNetworkReply::metaDataChanged);
        QByteArray content;
        connect(reply.get(), &QNetworkReply::readyRead, this, [&] {
            content += reply->read(1); // an engine may read in any portions
            content += reply->read(qMin<qint64>(reply->bytesAvailable(), 1000));
        });
        QTRY_COMPARE(finished.count(), 1);
        content += reply->readAll();
        QVERIFY(content == scripted.body);
        QVERIFY(static_cast<NetworkReplyProxy *>(reply.get())->receivedData() == scripted.body);
        QVERIFY(reply->isFinished());
        QVERIFY(!metaData.isEmpty());
        QCOMPARE(reply->error(), QNetworkReply::NoError);
        QCOMPARE(reply->url(), m_server.url("/pass?q"));
        QCOMPARE(reply->operation(), QNetworkAccessManager::GetOperation);
        QCOMPARE(reply->rawHeader("X-Own"), QByteArray("kept"));
        QCOMPARE(reply->header(QNetworkRequest::ContentTypeHeader).toString(),
                 QStringLiteral("text/plain; charset=utf-8"));
        QCOMPARE(reply->header(QNetworkRequest::ContentLengthHeader).toInt(), content.size());
        QCOMPARE(reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt(), 200);
    }

    void redirectsReachTheEngineUnfollowed()
    {
        HttpReply redirect;
        redirect.status = 302;
        redirect.headers = {{"Location", "/elsewhere"}};
        m_server.on("/redirect", redirect);
        NetworkAccessManagerProxy manager(nullptr);
        const auto reply = get(manager, m_server.url("/redirect"));
        QTRY_VERIFY(reply->isFinished());
        QCOMPARE(reply->attribute(QNetworkRequest::RedirectionTargetAttribute).toUrl(),
                 QUrl(QStringLiteral("/elsewhere")));
        QVERIFY(m_server.requestsFor("/elsewhere").isEmpty());
    }

    void errorsAreReportedOnceAndBeforeTheEnd()
    {
        HttpReply missing = typedReply("text/html", 10);
        missing.status = 404;
        m_server.on("/missing", missing);
        NetworkAccessManagerProxy manager(nullptr);
        const QSignalSpy managerFinished(&manager, &NetworkAccessManagerProxy::replyFinished);
        const auto reply = get(manager, m_server.url("/missing"));
        QStringList events;
        connect(reply.get(), &QNetworkReply::errorOccurred, this, [&] {
            events += QStringLiteral("error");
            QCOMPARE(reply->error(), QNetworkReply::ContentNotFoundError);
        });
        connect(reply.get(), &QNetworkReply::finished, this,
                [&] { events += QStringLiteral("finished"); });
        QTRY_VERIFY(events.contains(QStringLiteral("finished")));
        QCOMPARE(events, (QStringList{QStringLiteral("error"), QStringLiteral("finished")}));
        QCOMPARE(managerFinished.count(), 2);
        QVERIFY(!reply->errorString().isEmpty());
    }

    void longMedia_data()
    {
        QTest::addColumn<QByteArray>("contentType");
        QTest::addColumn<int>("size");
        QTest::addColumn<bool>("isCut");
        QTest::newRow("6,000,000 bytes") << QByteArray("video/mp4") << 6000000 << true;
        QTest::newRow("4,000,000 bytes") << QByteArray("video/mp4") << 4000000 << false;
        QTest::newRow("the limit") << QByteArray("video/mp4") << 5242880 << true;
        QTest::newRow("one below") << QByteArray("video/mp4") << 5242879 << false;
        QTest::newRow("sound") << QByteArray("audio/mpeg") << 6000000 << true;
        QTest::newRow("upper case") << QByteArray("VIDEO/MP4") << 6000000 << false;
        QTest::newRow("manifest") << QByteArray("video/f4m") << 6000000 << false;
        QTest::newRow("manifest with parameter")
            << QByteArray("video/f4m; charset=utf-8") << 6000000 << true;
        QTest::newRow("anything else")
            << QByteArray("application/octet-stream") << 6000000 << false;
        QTest::newRow("no type") << QByteArray() << 6000000 << false;
    }

    void longMedia()
    {
        QFETCH(QByteArray, contentType);
        QFETCH(int, size);
        QFETCH(bool, isCut);
        HttpReply scripted = typedReply(contentType, size);
        scripted.bodyDelayMs = 1;
        scripted.pieceBytes = 2000000;
        m_server.on("/media", scripted);
        NetworkAccessManagerProxy manager(nullptr);
        QSignalSpy progress(&manager, &NetworkAccessManagerProxy::replyDownloadProgress);
        const auto reply = get(manager, m_server.url("/media"));
        QTRY_VERIFY(reply->isFinished());
        QCOMPARE(reply->error() == QNetworkReply::OperationCanceledError, isCut);
        const int received = static_cast<NetworkReplyProxy *>(reply.get())->receivedData().size();
        QVERIFY(isCut ? received < size : received == size);
        QVERIFY(!progress.isEmpty());
        const QVariantList report = progress.last();
        QCOMPARE(report.at(0).toString(), m_server.address("/media"));
        QCOMPARE(report.at(1).toLongLong(), qint64(size));
        QCOMPARE(report.at(2).toString(), QString::fromLatin1(contentType));
    }

    void mediaIsCutAtTheFirstStepThatHasEnough()
    {
        HttpReply scripted = typedReply("video/mp4", 6000000);
        scripted.pieceBytes = 51200;
        scripted.pieceDelayMs = 250; // more than the pause between two progress reports
        m_server.on("/pieces", scripted);
        NetworkAccessManagerProxy manager(nullptr);
        const auto reply = get(manager, m_server.url("/pieces"));
        QTRY_VERIFY(reply->isFinished());
        QCOMPARE(static_cast<NetworkReplyProxy *>(reply.get())->receivedData().size(), 102400);
        QCOMPARE(reply->error(), QNetworkReply::OperationCanceledError);
    }

    void withoutAnyLength_data()
    {
        QTest::addColumn<QByteArray>("contentType");
        QTest::addColumn<int>("size");
        QTest::addColumn<bool>("isCut");
        QTest::newRow("one below") << QByteArray("video/mp4") << 5242879 << false;
        QTest::newRow("the limit") << QByteArray("video/mp4") << 5242880 << true;
        QTest::newRow("sound") << QByteArray("audio/mpeg") << 20000000 << true;
        QTest::newRow("manifest") << QByteArray("video/f4m") << 6000000 << false;
        QTest::newRow("picture") << QByteArray("image/png") << 6000000 << false;
        QTest::newRow("anything else")
            << QByteArray("application/octet-stream") << 20000000 << false;
    }

    /// What has come counts.
    void withoutAnyLength()
    {
        QFETCH(QByteArray, contentType);
        QFETCH(int, size);
        QFETCH(bool, isCut);
        HttpReply scripted = typedReply(contentType, size);
        scripted.withoutLength = true;
        scripted.holdAfterBytes = isCut ? size : -1; // a reply that is over is not cut any more
        m_server.on("/lengthless", scripted);
        NetworkAccessManagerProxy manager(nullptr);
        QSignalSpy progress(&manager, &NetworkAccessManagerProxy::replyDownloadProgress);
        const QSignalSpy untold(&manager, &NetworkAccessManagerProxy::sizeUntold);
        const auto reply = get(manager, m_server.url("/lengthless"));
        qint64 read = 0;
        connect(reply.get(), &QNetworkReply::readyRead, this,
                [&] { read += reply->readAll().size(); });
        QTRY_VERIFY(reply->isFinished());
        QCOMPARE(reply->error() == QNetworkReply::OperationCanceledError, isCut);
        QVERIFY(isCut ? read >= 5242880 && read < 8000000 : read == size);
        QVERIFY(!progress.isEmpty());
        QCOMPARE(untold.count(), isCut ? 1 : 0);
        if (isCut)
            QCOMPARE(progress.last().at(1).toLongLong(), read);
    }

    /// A player that is paused, say: its reply goes on when it does.
    void whatIsNotReadWaits()
    {
        constexpr int size = 90000000;
        constexpr qint64 most = 64 << 20;
        HttpReply scripted = typedReply("application/octet-stream", 0);
        for (int i = 0; i < size / 4; ++i)
            scripted.body.append(reinterpret_cast<const char *>(&i), 4);
        m_server.on("/unread", scripted);
        NetworkAccessManagerProxy manager(nullptr);
        const auto reply = get(manager, m_server.url("/unread"));
        QTRY_COMPARE_WITH_TIMEOUT(reply->bytesAvailable(), most, 20000);
        QSignalSpy news(reply.get(), &QNetworkReply::readyRead);
        QVERIFY(!news.wait(500));
        QVERIFY(!reply->isFinished());
        QCOMPARE(reply->bytesAvailable(), most);
        QCOMPARE(static_cast<NetworkReplyProxy *>(reply.get())->receivedData().size(), 8 << 20);

        QByteArray content = reply->readAll();
        connect(reply.get(), &QNetworkReply::readyRead, this,
                [&] { content += reply->read(70001); });
        QTRY_VERIFY_WITH_TIMEOUT((content += reply->read(300000), reply->isFinished()), 20000);
        content += reply->readAll();
        QVERIFY(content == scripted.body);
        QCOMPARE(reply->error(), QNetworkReply::NoError);
        QCOMPARE(static_cast<NetworkReplyProxy *>(reply.get())->receivedData(),
                 scripted.body.left(8 << 20));
    }

    void pictures_data()
    {
        QTest::addColumn<bool>("keepImage");
        QTest::addColumn<bool>("inOnePiece");
        QTest::addColumn<bool>("isCut");
        QTest::newRow("cut by default") << false << false << true;
        QTest::newRow("complete at the first step") << false << true << false;
        QTest::newRow("kept on request") << true << false << false;
    }

    void pictures()
    {
        QFETCH(bool, keepImage);
        QFETCH(bool, inOnePiece);
        QFETCH(bool, isCut);
        if (keepImage)
            setArguments({QStringLiteral("--keepimage")});
        HttpReply scripted = typedReply("image/png", 2000);
        scripted.pieceBytes = inOnePiece ? 0 : 1000;
        scripted.pieceDelayMs = 300;
        m_server.on("/picture", scripted);
        NetworkAccessManagerProxy manager(nullptr);
        const auto reply = get(manager, m_server.url("/picture"));
        QTRY_VERIFY(reply->isFinished());
        QCOMPARE(reply->error() == QNetworkReply::OperationCanceledError, isCut);
    }

    void aDisabledManagerReportsAndRefuses()
    {
        NetworkAccessManagerProxy manager(nullptr);
        manager.disable();
        m_server.clearRequests();
        QSignalSpy sent(&manager, &NetworkAccessManagerProxy::sendUrl);
        const auto reply = get(manager, m_server.url("/refused"));
        QCOMPARE(sent.count(), 1);
        QCOMPARE(sent.first().first().toString(), m_server.address("/refused"));
        QTRY_VERIFY(reply->isFinished());
        QVERIFY(reply->error() != QNetworkReply::NoError);
        QVERIFY(m_server.requests().isEmpty());
    }

    void theExitFlagRefusesToo()
    {
        NetworkAccessManagerProxy manager(nullptr);
        m_server.clearRequests();
        QVERIFY(ShareMemoryManager::GetInstance()->SetExitFlag(true));
        const auto reply = get(manager, m_server.url("/refused"));
        QVERIFY(ShareMemoryManager::GetInstance()->SetExitFlag(false));
        QTRY_VERIFY(reply->isFinished());
        QVERIFY(reply->error() != QNetworkReply::NoError);
        QVERIFY(m_server.requests().isEmpty());
        ShareMemoryManager::GetInstance()->DeleteShareMemData();
    }

    void theJarStaysItsOwners()
    {
        QNetworkCookieJar jar;
        {
            NetworkAccessManagerProxy manager(&jar);
            QCOMPARE(manager.cookieJar(), &jar);
        }
        QVERIFY(!jar.parent());
    }

    void synchronousRepliesAreCompleteAtOnce()
    {
        QNetworkRequest request(QUrl(QStringLiteral("data:text/plain,hello")));
        NetworkAccessManagerProxy manager(nullptr);
        const std::unique_ptr<QNetworkReply> reply(manager.get(request));
        const QSignalSpy finished(reply.get(), &QNetworkReply::finished);
        QTRY_COMPARE(finished.count(), 1);
        QCOMPARE(reply->readAll(), QByteArray("hello"));
    }

    void silenceIsATimeout_data()
    {
        QTest::addColumn<int>("sentBytes");
        QTest::addColumn<bool>("isSynchronous");
        for (const bool isSynchronous : {false, true}) {
            const char *const kind = isSynchronous ? "synchronous" : "queued";
            QTest::addRow("%s, before the answer", kind) << -1 << isSynchronous;
            QTest::addRow("%s, before the body", kind) << 0 << isSynchronous;
            QTest::addRow("%s, in the body", kind) << 300 << isSynchronous;
        }
    }

    void silenceIsATimeout()
    {
        QFETCH(int, sentBytes);
        QFETCH(bool, isSynchronous);
        setArguments({QStringLiteral("--stall"), QStringLiteral("1")});
        ServerThread server([sentBytes](ScriptedServer &scripted) {
            HttpReply reply = typedReply("text/plain", 700);
            reply.holdAfterBytes = sentBytes;
            if (sentBytes >= 0)
                scripted.on("/silent", reply);
            else
                scripted.hold("/silent");
        });
        NetworkAccessManagerProxy manager(nullptr);
        const QSignalSpy ends(&manager, &NetworkAccessManagerProxy::replyFinished);
        QNetworkRequest request(server.url("/silent"));
        request.setAttribute(QNetworkRequest::SynchronousRequestAttribute, isSynchronous);
        const std::unique_ptr<QNetworkReply> reply(manager.get(request));
        QCOMPARE(reply->isFinished(), isSynchronous);
        QStringList events;
        connect(reply.get(), &QNetworkReply::errorOccurred, this,
                [&] { events += QStringLiteral("error"); });
        connect(reply.get(), &QNetworkReply::finished, this,
                [&] { events += QStringLiteral("finished"); });
        QTRY_VERIFY_WITH_TIMEOUT(events.contains(QStringLiteral("finished")), 30000);
        QCOMPARE(reply->error(), QNetworkReply::TimeoutError);
        QVERIFY(!reply->errorString().isEmpty());
        QCOMPARE(reply->readAll().size(), qMax(0, sentBytes));
        // A reply that is over from the start has no more errors to tell.
        QCOMPARE(events.count(QStringLiteral("error")), isSynchronous ? 0 : 1);
        QCOMPARE(ends.size(), isSynchronous ? 1 : 2);
    }

    void synchronousRequestsOfAllKinds_data()
    {
        QTest::addColumn<QByteArray>("method");
        QTest::addColumn<QByteArray>("body");
        for (const char *const method : {"GET", "HEAD", "DELETE"})
            QTest::newRow(method) << QByteArray(method) << QByteArray();
        for (const char *const method : {"POST", "PUT", "PATCH"})
            QTest::newRow(method) << QByteArray(method) << QByteArray("sent");
    }

    void synchronousRequestsOfAllKinds()
    {
        QFETCH(QByteArray, method);
        QFETCH(QByteArray, body);
        setArguments({QStringLiteral("--stall"), QStringLiteral("20")});
        ServerThread server([](ScriptedServer &scripted) {
            scripted.onOther([](const HttpRequest &request) {
                HttpReply reply = typedReply("text/plain", 0);
                reply.status = 404;
                reply.body = request.method == "HEAD" ? "" : request.method + request.body;
                reply.headers += qMakePair(QByteArray("X-Seen"), request.header("X-Own"));
                return reply;
            });
        });
        NetworkAccessManagerProxy manager(nullptr);
        QNetworkRequest request(server.url("/any"));
        request.setAttribute(QNetworkRequest::SynchronousRequestAttribute, true);
        request.setRawHeader("X-Own", "kept");
        const std::unique_ptr<QNetworkReply> reply(
            manager.sendCustomRequest(request, method, body));
        QVERIFY(reply->isFinished());
        QCOMPARE(reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt(), 404);
        QCOMPARE(reply->error(), QNetworkReply::ContentNotFoundError);
        QCOMPARE(reply->rawHeader("X-Seen"), QByteArray("kept"));
        QCOMPARE(reply->url(), server.url("/any"));
        QCOMPARE(reply->readAll(), method == "HEAD" ? QByteArray() : method + body);
    }

    void endsDuringItsOwnSignals_data()
    {
        QTest::addColumn<QByteArray>("moment");
        QTest::newRow("abort in metaDataChanged") << QByteArray("meta");
        QTest::newRow("abort in readyRead") << QByteArray("read");
        QTest::newRow("abort in progress") << QByteArray("progress");
        QTest::newRow("delete in the manager's report") << QByteArray("report");
        QTest::newRow("delete in finished of a cut reply") << QByteArray("cut");
    }

    void endsDuringItsOwnSignals()
    {
        QFETCH(QByteArray, moment);
        HttpReply scripted = typedReply(moment == "cut" ? "video/mp4" : "text/plain", 6000000);
        m_server.on("/ends", scripted);
        NetworkAccessManagerProxy manager(nullptr);
        QPointer<QNetworkReply> reply(manager.get(QNetworkRequest(m_server.url("/ends"))));
        bool hasFinished = false;
        connect(reply, &QNetworkReply::finished, this, [&] {
            QVERIFY(!hasFinished);
            hasFinished = true;
            if (moment == "cut")
                delete reply.data();
        });
        if (moment == "meta")
            connect(reply, &QNetworkReply::metaDataChanged, reply, &QNetworkReply::abort);
        if (moment == "read")
            connect(reply, &QNetworkReply::readyRead, reply, &QNetworkReply::abort);
        if (moment == "progress")
            connect(reply, &QNetworkReply::downloadProgress, reply, &QNetworkReply::abort);
        if (moment == "report")
            connect(&manager, &NetworkAccessManagerProxy::replyDownloadProgress, reply,
                    [&] { reply->deleteLater(); });
        QTRY_VERIFY(hasFinished || !reply);
        delete reply.data();
    }

    void aManagerTakesItsOpenRepliesAlong()
    {
        m_server.hold("/held");
        m_server.clearRequests();
        QPointer<QNetworkReply> reply;
        {
            NetworkAccessManagerProxy manager(nullptr);
            reply = manager.get(QNetworkRequest(m_server.url("/held")));
            QTRY_COMPARE(m_server.requests().size(), 1);
        }
        QVERIFY(!reply);
    }

    void unsupportedCallsEndTheProcess_data()
    {
        QTest::addColumn<QString>("call");
        QTest::newRow("canReadLine") << QStringLiteral("canReadLine");
        QTest::newRow("waitForReadyRead") << QStringLiteral("waitForReadyRead");
        QTest::newRow("waitForBytesWritten") << QStringLiteral("waitForBytesWritten");
    }

    void unsupportedCallsEndTheProcess()
    {
        QFETCH(QString, call);
        QProcess child;
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(QLatin1String(childVariable), call);
        child.setProcessEnvironment(environment);
        child.setProcessChannelMode(QProcess::MergedChannels);
        child.start(QCoreApplication::applicationFilePath(),
                    {QStringLiteral("unsupportedCallsInAChild")});
        QVERIFY(child.waitForFinished());
        QVERIFY(child.exitStatus() == QProcess::CrashExit || child.exitCode() != 0);
        QVERIFY(child.readAll().contains("not implemented"));
    }

    /// Makes the call that the environment names; without one there is nothing to see.
    void unsupportedCallsInAChild()
    {
        const QByteArray call = qgetenv(childVariable);
        NetworkAccessManagerProxy manager(nullptr);
        const auto reply = get(manager, QUrl(QStringLiteral("data:,x")));
        if (call == "canReadLine")
            QVERIFY(reply->canReadLine());
        if (call == "waitForReadyRead")
            QVERIFY(reply->waitForReadyRead(1));
        if (call == "waitForBytesWritten")
            QVERIFY(reply->waitForBytesWritten(1));
    }
};

CLIPWEIR_TEST_MAIN(tst_NetworkReplyProxy)
#include "tst_networkreplyproxy.moc"
