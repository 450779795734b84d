#include "AdobeBrowser.h"
#include "NetworkReplyProxy.h"
#include "PrivateFolder.h"
#include "ScriptedServer.h"
#include "TestFiles.h"
#include "TestMain.h"
#include "downloader.h"
#include "httpdownloader.h"

namespace {

HttpReply redirectTo(const QString &address)
{
    HttpReply reply;
    reply.status = 302;
    reply.headers = {{"Location", address.toUtf8()}};
    reply.body = "r";
    return reply;
}

} // namespace

/// Every client of the network, asked for an address that is not on the web, or led to one.
class tst_WebOnly : public QObject
{
    Q_OBJECT

    QTemporaryDir m_folder;
    PrivateFolder m_private;
    ScriptedServer m_server;

    QString target() const { return m_folder.filePath(QStringLiteral("target")); }

    /// The address that the row names; "%1" stands for that of a private file.
    QString rowAddress()
    {
        const auto *const text =
            static_cast<const QString *>(QTest::qData("address", qMetaTypeId<QString>()));
        return QString(*text).replace(QLatin1String("%1"), m_private.address(QStringLiteral("f")));
    }

    static void addAddresses()
    {
        QTest::addColumn<QString>("address");
        QTest::newRow("file") << QStringLiteral("%1");
        QTest::newRow("file in capitals") << QStringLiteral("FILE:///etc/hostname");
        QTest::newRow("resource") << QStringLiteral("qrc:/res/flashver.htm");
        QTest::newRow("data") << QStringLiteral("data:video/mp4,the-private-text");
        QTest::newRow("ftp") << QStringLiteral("ftp://127.0.0.1/f");
        QTest::newRow("blank") << QStringLiteral("about:blank");
        QTest::newRow("blob") << QStringLiteral("blob:http://127.0.0.1/1");
        QTest::newRow("path") << QStringLiteral("/etc/hostname");
        QTest::newRow("looks like http") << QStringLiteral("httpfile:///etc/hostname");
    }

    static void waitForEnd(HttpDownloader &downloader)
    {
        QEventLoop loop;
        connect(&downloader, &HttpDownloader::downFinished, &loop, &QEventLoop::quit);
        connect(&downloader, &HttpDownloader::downerror, &loop, &QEventLoop::quit);
        QVERIFY(downloader.download());
        loop.exec();
    }

    void downloadFails(const QString &address)
    {
        HttpDownloader downloader;
        QSignalSpy failed(&downloader, &HttpDownloader::downerror);
        downloader.setDownloadInfo(target(), address, 0, -1, 3, false);
        waitForEnd(downloader);
        QCOMPARE(failed.size(), 1);
        QCOMPARE(readFile(target()), QByteArray(""));

        HttpDownloader document;
        document.setDownloadInfo(QString(), address, 0, -1, 3, false);
        waitForEnd(document);
        QVERIFY2(!document.RawContent().contains("private"), document.RawContent());
    }

private slots:
    void initTestCase()
    {
        qputenv("CLIPWEIR_COOKIES", m_folder.filePath(QStringLiteral("cookies.txt")).toUtf8());
        setArguments({QStringLiteral("--url"), uniquePageUrl()});
    }

    void cleanup() { QCOMPARE(m_private.opened(), QStringList()); }

    void downloads_data() { addAddresses(); }
    void downloads() { downloadFails(rowAddress()); }

    void redirectedDownloads_data() { addAddresses(); }
    void redirectedDownloads()
    {
        m_server.on("/r", redirectTo(rowAddress()));
        downloadFails(m_server.address("/r"));
    }

    void probes_data() { addAddresses(); }
    void probes()
    {
        QCOMPARE(HttpDownloader().GetFileSize(QUrl(rowAddress())), qint64(0));
        QCOMPARE(Downloader().getUrlFileSize(rowAddress()), qint64(0));
        m_server.on("/r", redirectTo(rowAddress()));
        QCOMPARE(HttpDownloader().GetFileSize(m_server.url("/r")), qint64(0));
    }

    void streams_data() { addAddresses(); }
    void streams()
    {
        CAdobeBrowser browser;
        browser.get(rowAddress(), true);
        QVERIFY(!browser.success());
        QVERIFY(browser.rawContent().isEmpty());
        m_server.on("/r", redirectTo(rowAddress()));
        browser.get(m_server.address("/r"), true);
        QVERIFY(!browser.success());
        QVERIFY2(!browser.rawContent().contains("private"), browser.rawContent());
    }

    void pages_data() { addAddresses(); }
    void pages()
    {
        const QString address = rowAddress();
        NetworkAccessManagerProxy manager(nullptr);
        QSignalSpy sent(&manager, &NetworkAccessManagerProxy::sendUrl);
        const std::unique_ptr<QNetworkReply> reply(manager.get(QNetworkRequest(QUrl(address))));
        QTRY_VERIFY(reply->isFinished());
        QCOMPARE(sent.size(), 1); // refused requests are reported, too
        QCOMPARE(sent.constFirst().constFirst().toString(), QUrl(address).toString());
        const bool isOwnContent = address.startsWith(QLatin1String("data:"));
        QCOMPARE(reply->error() == QNetworkReply::NoError, isOwnContent);
        QCOMPARE(reply->readAll(), QByteArray(isOwnContent ? "the-private-text" : ""));
    }

    void thePageThatTheCallerNamed()
    {
        const QString page = m_folder.filePath(QStringLiteral("a #page?.html"));
        writeFile(page, "page");
        const QUrl address = QUrl::fromLocalFile(page);
        setArguments({QStringLiteral("--url"), QString::fromUtf8(address.toEncoded())});
        NetworkAccessManagerProxy manager(nullptr);
        QUrl withFragment = address;
        withFragment.setFragment(QStringLiteral("part"));
        for (const QUrl &url : {address, withFragment}) {
            const std::unique_ptr<QNetworkReply> reply(manager.get(QNetworkRequest(url)));
            QTRY_VERIFY(reply->isFinished());
            QCOMPARE(reply->readAll(), QByteArray("page"));
        }
        const QUrl beside(m_private.address(QStringLiteral("f")));
        const std::unique_ptr<QNetworkReply> reply(manager.get(QNetworkRequest(beside)));
        QTRY_VERIFY(reply->isFinished());
        QVERIFY(reply->error() != QNetworkReply::NoError);
        setArguments({QStringLiteral("--url"), uniquePageUrl()});
    }

    void cancelledAtARedirectEndsAsAFailure()
    {
        HttpReply held = redirectTo(m_server.address("/f"));
        held.body = QByteArray(100000, 'r');
        held.holdAfterBytes = 10;
        m_server.on("/r", held);
        m_server.on("/f", HttpReply());
        m_server.clearRequests();
        HttpDownloader downloader;
        QSignalSpy failed(&downloader, &HttpDownloader::downerror);
        connect(
            &m_server, &ScriptedServer::requestReceived, &downloader,
            [&downloader] { downloader.cancel(); }, Qt::QueuedConnection);
        downloader.setDownloadInfo(target(), m_server.address("/r"), 0, -1, 3, false);
        waitForEnd(downloader);
        QCOMPARE(failed.size(), 1);
        QVERIFY(m_server.requestsFor("/f").isEmpty());
    }

    /// The answer is known by its header; nobody waits for a body that never comes.
    void aRedirectWhoseBodyNeverComesIsFollowed()
    {
        HttpReply held = redirectTo(m_server.address("/f"));
        held.body = QByteArray(100000, 'r');
        held.holdAfterBytes = 10;
        m_server.on("/r", held);
        HttpReply reply;
        reply.body = "body";
        m_server.on("/f", reply);
        HttpDownloader downloader;
        QSignalSpy finished(&downloader, &HttpDownloader::downFinished);
        QSignalSpy progress(&downloader, &HttpDownloader::sendProgress);
        downloader.setDownloadInfo(target(), m_server.address("/r"), 0, -1, 3, false);
        waitForEnd(downloader);
        QCOMPARE(finished.size(), 1);
        QCOMPARE(readFile(target()), QByteArray("body"));
        for (const QVariantList &report : qAsConst(progress))
            QCOMPARE(report.at(2).toLongLong(), qint64(4)); // nothing of the redirect's own body
    }
};

CLIPWEIR_TEST_MAIN(tst_WebOnly)
#include "tst_webonly.moc"
