#include "AdobeBrowser.h"
#include "NetworkReplyProxy.h"
#include "PageRun.h"
#include "TestFiles.h"
#include "TestMain.h"
#include "TlsServer.h"
#include "TlsTrust.h"
#include "httpdownloader.h"

#include <QRegularExpression>
#include <QSslConfiguration>

namespace {

constexpr int endTimeoutMs = 20000;
constexpr int bodyBytes = 1000;

} // namespace

/// What clients do, and say, about servers that they have no reason to trust.
class tst_TlsTrust : public QObject
{
    Q_OBJECT

    QTemporaryDir m_folder;
    TlsServer m_server;
    QSslConfiguration m_before;

    [[nodiscard]] QString address() const { return m_server.https("/file.bin"); }

    /// Whether each kind of client gets the file.
    bool download() const
    {
        HttpDownloader downloader;
        QSignalSpy finished(&downloader, &HttpDownloader::downFinished);
        QSignalSpy failed(&downloader, &HttpDownloader::downerror);
        downloader.setDownloadInfo(m_folder.filePath(option("out")), address(), 0, -1, 0, false);
        return downloader.download()
            && QTest::qWaitFor([&] { return finished.count() + failed.count() > 0; }, endTimeoutMs)
            && failed.isEmpty();
    }

    bool probe() const { return HttpDownloader().GetFileSize(QUrl(address())) == bodyBytes; }

    bool pageReply() const
    {
        NetworkAccessManagerProxy manager(nullptr);
        const std::unique_ptr<QNetworkReply> reply(manager.get(QNetworkRequest(QUrl(address()))));
        return QTest::qWaitFor([&] { return reply->isFinished(); }, endTimeoutMs)
            && reply->readAll().size() == bodyBytes;
    }

    bool synchronousReply() const
    {
        NetworkAccessManagerProxy manager(nullptr);
        QNetworkRequest request{QUrl(address())};
        request.setAttribute(QNetworkRequest::SynchronousRequestAttribute, true);
        const std::unique_ptr<QNetworkReply> reply(manager.get(request));
        return reply->isFinished() && reply->readAll().size() == bodyBytes;
    }

    bool stream() const
    {
        CAdobeBrowser browser;
        browser.get(address(), true);
        return browser.success();
    }

    using Client = bool (tst_TlsTrust::*)() const;

    static void clients()
    {
        QTest::addColumn<int>("number");
        for (int i = 0; i < 6; ++i)
            QTest::newRow(names[i]) << i;
    }

    static constexpr const char *names[] = {"download", "probe",
                                            "page",     "synchronous with a limit for silence",
                                            "stream",   "synchronous"};

    /// Lets a client try.
    bool tries(int number) const
    {
        static constexpr Client all[] = {&tst_TlsTrust::download,  &tst_TlsTrust::probe,
                                         &tst_TlsTrust::pageReply, &tst_TlsTrust::synchronousReply,
                                         &tst_TlsTrust::stream,    &tst_TlsTrust::synchronousReply};
        setCommandLine(
            option(number == 3 ? "--url http://tst-tls/ --stall 20" : "--url http://tst-tls/"));
        return (this->*all[number])();
    }

private slots:
    void initTestCase()
    {
        qputenv("CLIPWEIR_COOKIES", m_folder.filePath(option("cookies.txt")).toUtf8());
        m_before = QSslConfiguration::defaultConfiguration();
        QVERIFY(m_server.start());
        m_server.put(option("file.bin"), testBytes(bodyBytes));
    }

    void cleanup()
    {
        qunsetenv("SSL_CERT_FILE");
        qunsetenv("SSL_CERT_DIR");
        QSslConfiguration::setDefaultConfiguration(m_before);
    }

    void refusalsAreTold_data() { clients(); }

    void refusalsAreTold()
    {
        QFETCH(int, number);
        const QString name = QString::fromUtf8(TlsServer::certificateName());
        const QString host = QRegularExpression::escape(QString::fromLatin1(m_server.secureHost()));
        // Of a synchronous request of the toolkit's own no certificate is to be had.
        const QString expected = number == 5
            ? QStringLiteral("^no secure connection to %1: .").arg(host)
            : QStringLiteral("^the certificate of %1 is refused: .*self-signed.* "
                             "\\(\"%2\", issued by \"%2\"\\)")
                  .arg(host, name);
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression(expected));
        QVERIFY(!tries(number));
    }

    void certificatesOfTheEnvironment_data() { clients(); }

    void certificatesOfTheEnvironment()
    {
        QFETCH(int, number);
        qputenv("SSL_CERT_FILE", m_server.certificateFile().toUtf8());
        TlsTrust::useEnvironment();
        QVERIFY(tries(number));
        cleanup();
        qputenv("SSL_CERT_DIR", "/nonexistent:" + m_server.certificateFolder().toUtf8());
        QTest::ignoreMessage(QtWarningMsg, "SSL_CERT_DIR names no certificates: /nonexistent");
        TlsTrust::useEnvironment();
        QVERIFY(tries(number));
    }

    void foldersReplaceTheSystems()
    {
        const int systemCount = QSslConfiguration::systemCaCertificates().size();
        QVERIFY(systemCount > 1);
        const auto count = [] {
            TlsTrust::useEnvironment();
            return QSslConfiguration::defaultConfiguration().caCertificates().size();
        };
        qputenv("SSL_CERT_FILE", m_server.certificateFile().toUtf8());
        QCOMPARE(count(), systemCount + 1);
        qputenv("SSL_CERT_DIR", m_server.certificateFolder().toUtf8());
        QCOMPARE(count(), 2);
        qunsetenv("SSL_CERT_FILE");
        QCOMPARE(count(), 1);
    }

    void withoutVariablesNothingChanges()
    {
        TlsTrust::useEnvironment();
        QVERIFY(QSslConfiguration::defaultConfiguration() == m_before);
        qputenv("SSL_CERT_FILE", "");
        TlsTrust::useEnvironment();
        QVERIFY(QSslConfiguration::defaultConfiguration() == m_before);
    }

    void aFileWithoutCertificates()
    {
        const QString path = m_folder.filePath(option("none.pem"));
        writeFile(path, "no certificate");
        qputenv("SSL_CERT_FILE", path.toUtf8());
        QTest::ignoreMessage(
            QtWarningMsg, qUtf8Printable(option("SSL_CERT_FILE names no certificates: ") + path));
        TlsTrust::useEnvironment();
    }

    void aServerThatSpeaksNoTls()
    {
        QTest::ignoreMessage(
            QtWarningMsg,
            QRegularExpression(option("^no secure connection to 127.0.0.1:[0-9]+: .")));
        HttpDownloader downloader;
        const QUrl plain(m_server.http("/file.bin").replace(option("http:"), option("https:")));
        QCOMPARE(downloader.GetFileSize(plain), qint64(0));
    }
};

CLIPWEIR_TEST_MAIN(tst_TlsTrust)
#include "tst_tlstrust.moc"
