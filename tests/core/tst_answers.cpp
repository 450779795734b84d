#include "AdobeBrowser.h"
#include "NetworkReplyProxy.h"
#include "PageRun.h"
#include "TestFiles.h"
#include "TestMain.h"
#include "httpdownloader.h"

#include <QProcess>
#include <QRegularExpression>

namespace {

constexpr int endTimeoutMs = 10000;

// "body" as gzip makes it.
const QByteArray gzipOfBody =
    QByteArray::fromHex("1f8b08000000000000034bca4fa90400b20ba8db04000000");
const QByteArray body = "body";

QByteArray plainAnswer()
{
    return "HTTP/1.1 200 OK\r\nContent-Type: video/mp4\r\nContent-Length: 4\r\n"
           "Connection: close\r\n\r\nbody";
}

QByteArray packed(const QByteArray &coding, const QByteArray &content)
{
    return "HTTP/1.1 200 OK\r\nContent-Encoding: " + coding + "\r\nContent-Length: "
        + QByteArray::number(content.size()) + "\r\nConnection: close\r\n\r\n" + content;
}

QByteArray gzipOfZeros(int bytes)
{
    QProcess gzip;
    gzip.start(option("sh"),
               {option("-c"), QStringLiteral("head -c %1 /dev/zero | gzip -9").arg(bytes)});
    gzip.waitForFinished();
    return gzip.readAllStandardOutput();
}

/// Announces an answer and sends it only when the next request has come, on whatever connection.
void answerLate(QTcpSocket *socket)
{
    static QPointer<QTcpSocket> announced;
    const QByteArray path = socket->readAll().split(' ').value(1);
    const auto answer = [](const QByteArray &content) {
        return "HTTP/1.1 200 OK\r\nContent-Length: " + QByteArray::number(content.size())
            + "\r\n\r\n" + content;
    };
    if (path == "/interim") {
        announced = socket;
        socket->write("HTTP/1.1 103 Early Hints\r\n\r\n");
        return;
    }
    if (announced)
        announced->write(answer("of another"));
    socket->write(answer(path));
}

} // namespace

/// Answers in forms that servers may choose, to each kind of client.
class tst_Answers : public QObject
{
    Q_OBJECT

    QTemporaryDir m_folder;
    ScriptedServer m_server;

    [[nodiscard]] QString address() const { return m_server.address("/a"); }

    /// What a client makes of the answer; null when it fails.
    QByteArray download() const
    {
        const QString path = m_folder.filePath(option("out"));
        QFile::remove(path);
        HttpDownloader downloader;
        QSignalSpy finished(&downloader, &HttpDownloader::downFinished);
        QSignalSpy failed(&downloader, &HttpDownloader::downerror);
        downloader.setDownloadInfo(path, address(), 0, -1, 0, false);
        const bool isEnded = downloader.download()
            && QTest::qWaitFor([&] { return finished.count() + failed.count() > 0; }, endTimeoutMs);
        return isEnded && failed.isEmpty() ? readFile(path) : QByteArray();
    }

    QByteArray document() const
    {
        HttpDownloader downloader;
        QSignalSpy finished(&downloader, &HttpDownloader::downFinished);
        downloader.setDownloadInfo(QString(), address(), 0, -1, 0, false);
        downloader.download();
        return finished.wait(endTimeoutMs) ? downloader.RawContent() : QByteArray();
    }

    QByteArray pageReply() const
    {
        NetworkAccessManagerProxy manager(nullptr);
        const std::unique_ptr<QNetworkReply> reply(manager.get(QNetworkRequest(QUrl(address()))));
        const bool isEnded = QTest::qWaitFor([&] { return reply->isFinished(); }, endTimeoutMs);
        return isEnded && reply->error() == QNetworkReply::NoError ? reply->readAll()
                                                                   : QByteArray();
    }

    QByteArray fragment() const
    {
        CAdobeBrowser browser;
        browser.setStallTimeout(endTimeoutMs);
        browser.get(address(), true);
        return browser.success() ? browser.rawContent() : QByteArray();
    }

    void serve(const QByteArray &answer)
    {
        m_server.onRaw("/a", [answer](const HttpRequest &, QTcpSocket *socket) {
            socket->write(answer);
            socket->disconnectFromHost();
        });
    }

private slots:
    void initTestCase()
    {
        qputenv("CLIPWEIR_COOKIES", m_folder.filePath(option("cookies.txt")).toUtf8());
        setCommandLine(option("--url http://tst-answers/"));
    }

    void everyClient_data()
    {
        QTest::addColumn<QByteArray>("answer");
        QTest::addColumn<bool>("isPacked");
        QTest::newRow("plain") << plainAnswer() << false;
        QTest::newRow("after 100") << "HTTP/1.1 100 Continue\r\n\r\n" + plainAnswer() << false;
        for (const char *const coding : {"gzip", "x-gzip", "GZIP", "X-GZip"})
            QTest::newRow(coding) << packed(coding, gzipOfBody) << true;
    }

    void everyClient()
    {
        QFETCH(QByteArray, answer);
        QFETCH(bool, isPacked);
        serve(answer);
        QCOMPARE(download(), body);
        QCOMPARE(document(), body);
        QCOMPARE(pageReply(), body);
        QCOMPARE(fragment(), body);
        // A packed body's length is not the file's.
        QCOMPARE(HttpDownloader().GetFileSize(QUrl(address())), isPacked ? 0 : body.size());
    }

    void damagedBodies_data()
    {
        QTest::addColumn<QByteArray>("content");
        QTest::newRow("not packed") << body;
        QTest::newRow("cut") << gzipOfBody.left(gzipOfBody.size() - 4);
        QTest::newRow("empty") << QByteArray();
        QTest::newRow("changed") << QByteArray(gzipOfBody).replace(12, 1, "x");
    }

    void damagedBodies()
    {
        QFETCH(QByteArray, content);
        serve(packed("x-gzip", content));
        QVERIFY(download().isNull());
        QVERIFY(fragment().isNull());
        QVERIFY(pageReply() != content || content.isEmpty());
    }

    /// A few kilobytes that unpack to more than a document may have.
    void aBodyThatSwells()
    {
        constexpr int unpackedBytes = 70 << 20;
        serve(packed("x-gzip", gzipOfZeros(unpackedBytes)));
        QCOMPARE(document().size(), 64 << 20);
        CAdobeBrowser browser;
        browser.setMaxContentBytes(1 << 20);
        browser.get(address(), true);
        QVERIFY(!browser.success());
    }

    void interimAnswers_data()
    {
        QTest::addColumn<QByteArray>("interim");
        QTest::newRow("102") << QByteArray("102 Processing\r\n\r\n");
        QTest::newRow("103") << QByteArray("103 Early Hints\r\nLink: </a.css>\r\n\r\n");
        QTest::newRow("103 with a length")
            << QByteArray("103 Early Hints\r\nContent-Length: 100\r\n\r\n");
    }

    /// They are no answers: whoever gets one fails, and the log says why.
    void interimAnswers()
    {
        QFETCH(QByteArray, interim);
        serve("HTTP/1.1 " + interim + plainAnswer());
        const QString warning = QStringLiteral("^%1: The answer behind an interim one is not read "
                                               "\\(status 10[23]\\)$")
                                    .arg(QRegularExpression::escape(address()));
        for (int client = 0; client < 5; ++client)
            QTest::ignoreMessage(QtWarningMsg, QRegularExpression(warning));
        QVERIFY(download().isNull());
        QVERIFY(document().isEmpty());
        QVERIFY(pageReply().isNull());
        QVERIFY(fragment().isNull());
        QCOMPARE(HttpDownloader().GetFileSize(QUrl(address())), qint64(0));
    }

    /// What comes behind an interim answer is not taken for the answer to the page's next request.
    void theNextRequestHasItsOwnAnswer()
    {
        QTcpServer server;
        QVERIFY(server.listen(QHostAddress::LocalHost));
        connect(&server, &QTcpServer::newConnection, this, [&server] {
            QTcpSocket *const socket = server.nextPendingConnection();
            connect(socket, &QTcpSocket::readyRead, socket, [socket] { answerLate(socket); });
        });
        const QString base = QStringLiteral("http://127.0.0.1:%1").arg(server.serverPort());
        NetworkAccessManagerProxy manager(nullptr);
        for (const char *const round : {"1", "2"}) {
            QTest::ignoreMessage(QtWarningMsg, QRegularExpression(option("interim")));
            for (const QString &path : {option("/interim"), option("/own") + option(round)}) {
                const std::unique_ptr<QNetworkReply> reply(
                    manager.get(QNetworkRequest(QUrl(base + path))));
                QTRY_VERIFY_WITH_TIMEOUT(reply->isFinished(), endTimeoutMs);
                const bool isInterim = path == option("/interim");
                QCOMPARE(reply->error(),
                         isInterim ? QNetworkReply::ProtocolFailure : QNetworkReply::NoError);
                QCOMPARE(reply->readAll(), isInterim ? QByteArray() : path.toUtf8());
            }
        }
    }
};

CLIPWEIR_TEST_MAIN(tst_Answers)
#include "tst_answers.moc"
