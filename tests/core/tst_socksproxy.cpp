#include "AdobeBrowser.h"
#include "AdobePreference.h"
#include "NetworkReplyProxy.h"
#include "Nginx.h"
#include "PageRun.h"
#include "SocksRelay.h"
#include "TestFiles.h"
#include "TestMain.h"
#include "httpdownloader.h"

#include <QNetworkProxy>

namespace {

constexpr int bodyBytes = 20 << 20; // several times what any client keeps unread
constexpr int transferCount = 4;
constexpr int endTimeoutMs = 20000;
constexpr unsigned long busyMs = 20;

/// Keeps the thread from its events for a while, as a busy machine does: more of the answer comes
/// in, up to its end, before anybody looks at it.
void beBusy()
{
    QThread::msleep(busyMs);
}

/// Waits until so many signals have come.
bool waitFor(const QSignalSpy &spy, int count)
{
    return QTest::qWaitFor([&] { return spy.count() >= count; }, endTimeoutMs);
}

} // namespace

/// Clients whose thread is busy while their answers arrive through a SOCKS 5 proxy, and whose
/// server closes each connection after its answer, get all of it.
class tst_SocksProxy : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir m_folder;
    Nginx m_server;
    SocksRelay m_relay;
    QByteArray m_body;

    [[nodiscard]] QString address(const char *path = "/v.bin") const
    {
        return m_server.address(option(path));
    }

    [[nodiscard]] QNetworkProxy proxy() const
    {
        return {QNetworkProxy::Socks5Proxy, option("127.0.0.1"), m_relay.port()};
    }

private slots:
    void initTestCase()
    {
        qputenv("CLIPWEIR_COOKIES", m_folder.filePath(option("cookies.txt")).toUtf8());
        m_body = testBytes(bodyBytes);
        writeFile(m_server.rootFolder() + option("/v.bin"), m_body);
        m_server.setServerText("keepalive_timeout 0;");
        QVERIFY(m_server.start());
        setCommandLine(QStringLiteral("--url http://tst-socks-proxy/ --proxy 1:127.0.0.1:%1")
                           .arg(m_relay.port()));
    }

    void cleanup() { QVERIFY(m_relay.connectionCount() > 0); }

    void downloads_data()
    {
        QTest::addColumn<bool>("isFile");
        QTest::newRow("into a file") << true;
        QTest::newRow("into memory") << false;
    }

    void downloads()
    {
        QFETCH(bool, isFile);
        HttpDownloader downloaders[transferCount];
        QList<int> ended;
        for (int i = 0; i < transferCount; ++i) {
            HttpDownloader &downloader = downloaders[i];
            const auto end = [&ended](int rangeNo) { ended += rangeNo; };
            connect(&downloader, &HttpDownloader::downFinished, this, end);
            connect(&downloader, &HttpDownloader::sendProgress, this, &beBusy);
            const QString path = isFile ? m_folder.filePath(QString::number(i)) : QString();
            downloader.setDownloadInfo(path, address(), 0, -1, i, false);
            QVERIFY(downloader.download());
        }
        QTRY_COMPARE_WITH_TIMEOUT(ended.size(), transferCount, endTimeoutMs);
        for (int i = 0; i < transferCount; ++i) {
            const QByteArray content = isFile ? readFile(m_folder.filePath(QString::number(i)))
                                              : downloaders[i].RawContent();
            QVERIFY(content == m_body);
        }
    }

    void repliesOfThePage()
    {
        NetworkAccessManagerProxy manager(nullptr);
        manager.setProxy(proxy());
        QSignalSpy ended(&manager, &NetworkAccessManagerProxy::replyFinished);
        connect(&manager, &NetworkAccessManagerProxy::replyDownloadProgress, this, &beBusy);
        std::vector<std::unique_ptr<QNetworkReply>> replies;
        for (int i = 0; i < transferCount; ++i)
            replies.emplace_back(manager.get(QNetworkRequest(QUrl(address()))));
        QVERIFY(waitFor(ended, transferCount));
        for (const auto &reply : replies)
            QVERIFY(reply->readAll() == m_body);
    }

    void fragments()
    {
        auto *const options = CAdobePreference::GetInstance();
        options->SetOption(option("proxyType"), int(QNetworkProxy::Socks5Proxy));
        options->SetOption(option("proxyHost"), option("127.0.0.1"));
        options->SetOption(option("proxyPort"), m_relay.port());
        for (int i = 0; i < transferCount; ++i) {
            CAdobeBrowser browser;
            QTimer busy;
            connect(&busy, &QTimer::timeout, this, &beBusy);
            busy.start(0);
            browser.get(address(), true);
            QVERIFY(browser.success());
            QVERIFY(browser.rawContent() == m_body);
        }
    }

    void sizeProbe()
    {
        HttpDownloader downloader;
        QCOMPARE(downloader.GetFileSize(QUrl(address())), qint64(bodyBytes));
    }
};

CLIPWEIR_TEST_MAIN(tst_SocksProxy)
#include "tst_socksproxy.moc"
