#include "CookieStore.h"
#include "Nginx.h"
#include "ScriptedServer.h"
#include "TestFiles.h"
#include "TestMain.h"
#include "httpdownloader.h"

#include <QNetworkCookie>
#include <QNetworkProxy>

namespace {

constexpr int endTimeoutMs = 30000;
constexpr qint64 longest = std::numeric_limits<qint64>::max();

/// One downloader and what it reported.
class Transfer final
{
public:
    HttpDownloader downloader;
    QSignalSpy finished{&downloader, &HttpDownloader::downFinished};
    QSignalSpy failed{&downloader, &HttpDownloader::downerror};
    QSignalSpy progress{&downloader, &HttpDownloader::sendProgress};

    void start(const QString &path, const QString &url, qint64 first = 0, bool append = false)
    {
        downloader.setDownloadInfo(path, url, first, -1, 7, append);
        downloader.download();
    }

    [[nodiscard]] int endCount() const { return finished.count() + failed.count(); }

    /// Waits for the end; false when there is none, or another than the expected one.
    [[nodiscard]] bool endsAs(bool isSuccess)
    {
        waitForEnd();
        QCoreApplication::processEvents();
        const QSignalSpy &spy = isSuccess ? finished : failed;
        return endCount() == 1 && spy.count() == 1 && spy.at(0).at(0).toInt() == 7;
    }

    [[nodiscard]] bool succeeds() { return endsAs(true); }
    [[nodiscard]] bool fails() { return endsAs(false); }

    void waitForEnd()
    {
        QEventLoop loop; // QTest::qWaitFor() sleeps between its looks
        QObject::connect(&downloader, &HttpDownloader::downFinished, &loop, &QEventLoop::quit);
        QObject::connect(&downloader, &HttpDownloader::downerror, &loop, &QEventLoop::quit);
        QTimer::singleShot(endTimeoutMs, &loop, &QEventLoop::quit);
        if (endCount() == 0)
            loop.exec();
    }

    /// Waits until so many bytes are in the file.
    [[nodiscard]] static bool reaches(const QString &path, qint64 size)
    {
        return QTest::qWaitFor([&] { return QFileInfo(path).size() >= size; }, endTimeoutMs);
    }
};

/// Writes bytes as they are and closes the connection once they have left.
ScriptedServer::RawHandler rawAnswer(const QByteArray &bytes)
{
    return [bytes](const HttpRequest &, QTcpSocket *socket) {
        socket->write(bytes);
        socket->disconnectFromHost();
    };
}

QByteArray answerWith(const QByteArray &headerLines, const QByteArray &body = {})
{
    return QByteArray("HTTP/1.1 ") + headerLines + "\r\n\r\n" + body;
}

HttpReply redirect(int status, const QByteArray &location)
{
    HttpReply reply;
    reply.status = status;
    reply.headers = {{"Location", location}};
    reply.body = "the body of a redirect";
    return reply;
}

QByteArray patternOf(int size)
{
    QByteArray bytes(size, 0);
    for (int i = 0; i < size; ++i)
        bytes[i] = static_cast<char>((i * 31 + i / 256) & 0xff);
    return bytes;
}

// "body" as gzip makes it.
const QByteArray gzipOfBody =
    QByteArray::fromHex("1f8b08000000000000034bca4fa90400b20ba8db04000000");

} // namespace

class tst_HttpDownloader : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir m_folder;
    QString m_path;
    int m_fileCount = 0;

private slots:
    void initTestCase()
    {
        qputenv("CLIPWEIR_COOKIES", m_folder.filePath(QStringLiteral("cookies.txt")).toUtf8());
    }

    void init()
    {
        setArguments({});
        CookieStore::instance().clear();
        m_path = m_folder.filePath(QString::number(++m_fileCount));
    }

    void silenceIsBoundedByAMinuteOrTheCaller()
    {
        QCOMPARE(HttpDownloader::silenceLimitMs(), qint64(60000));
        setCommandLine(QStringLiteral("--stall 2"));
        QCOMPARE(HttpDownloader::silenceLimitMs(), qint64(2000));
    }

    void rangeHeader_data()
    {
        QTest::addColumn<qint64>("start");
        QTest::addColumn<qint64>("end");
        QTest::addColumn<QByteArray>("range");
        QTest::newRow("whole file") << qint64(0) << qint64(-1) << QByteArray();
        QTest::newRow("end 0 is open") << qint64(0) << qint64(0) << QByteArray();
        QTest::newRow("piece") << qint64(500) << qint64(1000) << QByteArray("bytes=500-999");
        QTest::newRow("from the first byte")
            << qint64(0) << qint64(1000) << QByteArray("bytes=0-999");
        QTest::newRow("one byte") << qint64(0) << qint64(1) << QByteArray("bytes=0-0");
        QTest::newRow("open end") << qint64(500) << qint64(-1) << QByteArray("bytes=500-");
        QTest::newRow("open end by 0") << qint64(500) << qint64(0) << QByteArray("bytes=500-");
        QTest::newRow("above 32 bits") << qint64(5000000000) << qint64(6000000000)
                                       << QByteArray("bytes=5000000000-5999999999");
    }

    void rangeHeader()
    {
        QFETCH(qint64, start);
        QFETCH(qint64, end);
        QFETCH(QByteArray, range);
        ScriptedServer server;
        server.on("/f", replyOf("x"));
        Transfer transfer;
        transfer.downloader.setDownloadInfo(m_path, server.address("/f"), start, end, 7, false);
        QVERIFY(transfer.downloader.download());
        QVERIFY(transfer.succeeds());
        QCOMPARE(server.requests().size(), 1);
        const HttpRequest request = server.requests().at(0);
        QCOMPARE(request.method, QByteArray("GET"));
        QCOMPARE(request.hasHeader("Range"), !range.isEmpty());
        QCOMPARE(request.header("Range"), range);
    }

    void memoryModeSendsNoRange()
    {
        ScriptedServer server;
        server.on("/f", replyOf("x"));
        Transfer transfer;
        transfer.downloader.setDownloadInfo({}, server.address("/f"), 500, 1000, 7, false);
        transfer.downloader.download();
        QVERIFY(transfer.succeeds());
        QVERIFY(!server.requests().at(0).hasHeader("Range"));
        QCOMPARE(transfer.progress.count(), 0);
    }

    void answer_data()
    {
        QTest::addColumn<QByteArray>("answer");
        QTest::addColumn<bool>("isSuccess");
        QTest::addColumn<QByteArray>("content");
        const auto row = [](const char *name, const QByteArray &answer, bool isSuccess,
                            const QByteArray &content) {
            QTest::newRow(name) << answer << isSuccess << content;
        };
        row("plain", answerWith("200 OK\r\nContent-Length: 4", "body"), true, "body");
        row("empty", answerWith("200 OK\r\nContent-Length: 0"), true, "");
        row("no content", answerWith("204 No Content"), true, "");
        row("no length", answerWith("200 OK\r\nConnection: close", "body"), true, "body");
        row("old protocol", "HTTP/1.0 200 OK\r\n\r\nbody", true, "body");
        row("NUL bytes",
            answerWith("200 OK\r\nContent-Length: 3", QByteArray::fromRawData("\0a\0", 3)), true,
            QByteArray::fromRawData("\0a\0", 3));
        row("after 100 Continue",
            "HTTP/1.1 100 Continue\r\n\r\n" + answerWith("200 OK\r\nContent-Length: 4", "body"),
            true, "body");

        row("length too long", answerWith("200 OK\r\nContent-Length: 5", "body"), false, "body");
        row("length too short", answerWith("200 OK\r\nContent-Length: 3", "body"), true, "bod");
        row("largest length", answerWith("200 OK\r\nContent-Length: 9223372036854775807", "body"),
            false, "body");

        row("chunks",
            answerWith("200 OK\r\nTransfer-Encoding: chunked", "2\r\nbo\r\n2\r\ndy\r\n0\r\n\r\n"),
            true, "body");

        row("gzip",
            answerWith("200 OK\r\nContent-Encoding: gzip\r\nContent-Length: 24", gzipOfBody), true,
            "body");

        row("missing", answerWith("404 Not Found\r\nContent-Length: 4", "page"), false, "");
        row("missing, no length", answerWith("404 Not Found", "page"), false, "");
        row("gone", answerWith("410 Gone\r\nContent-Length: 4", "page"), false, "");
        row("forbidden", answerWith("403 Forbidden\r\nContent-Length: 4", "page"), false, "");
        row("password wanted",
            answerWith("401 Unauthorized\r\nWWW-Authenticate: Basic realm=\"x\"\r\n"
                       "Content-Length: 4",
                       "page"),
            false, "");
        row("unsatisfiable range",
            answerWith("416 No\r\nContent-Range: bytes */9\r\nContent-Length: 4", "page"), false,
            "");
        row("server error", answerWith("500 Oh\r\nContent-Length: 4", "page"), false, "");
        row("unavailable", answerWith("503 Later\r\nContent-Length: 4", "page"), false, "");
        row("choices", answerWith("300 Choose\r\nContent-Length: 4", "page"), false, "");
        row("not modified", answerWith("304 Same"), false, "");
        row("redirect to nowhere", answerWith("302 Found\r\nContent-Length: 4", "page"), false, "");

        row("nothing at all", "", false, "");
        row("another protocol", "220 mail.test ready\r\n", false, "");
        row("no status", "HTTP/1.1 \r\n\r\nbody", false, "");
        row("header without end", "HTTP/1.1 200 OK\r\nContent-Length: 4\r\n", false, "");
        QByteArray flood;
        for (int i = 0; i < 5000; ++i)
            flood += "X-Flood-" + QByteArray::number(i) + ": " + QByteArray(990, 'x') + "\r\n";
        row("header flood", answerWith("200 OK\r\n" + flood + "Content-Length: 4", "body"), true,
            "body");
    }

    void answer()
    {
        QFETCH(QByteArray, answer);
        QFETCH(bool, isSuccess);
        QFETCH(QByteArray, content);
        ScriptedServer server;
        server.onRaw("/f", rawAnswer(answer));
        Transfer transfer;
        transfer.start(m_path, server.address("/f"));
        QVERIFY(transfer.endsAs(isSuccess));
        QCOMPARE(readFile(m_path), content);
    }

    /// Answers for which several outcomes would do, as long as there is one and nothing is
    /// invented.
    void hostileAnswerEnds_data()
    {
        QTest::addColumn<QByteArray>("answer");
        QTest::newRow("negative length") << answerWith("200 OK\r\nContent-Length: -5", "body");
        QTest::newRow("length beyond 64 bits")
            << answerWith("200 OK\r\nContent-Length: 99999999999999999999", "body");
        QTest::newRow("two lengths")
            << answerWith("200 OK\r\nContent-Length: 4\r\nContent-Length: 9", "body");
        QTest::newRow("length is a word") << answerWith("200 OK\r\nContent-Length: x", "body");
        const char *const chunked = "200 OK\r\nTransfer-Encoding: chunked";
        QTest::newRow("chunk size is a word") << answerWith(chunked, "zz\r\nbody\r\n0\r\n\r\n");
        QTest::newRow("chunk size beyond 64 bits")
            << answerWith(chunked, "ffffffffffffffffff\r\nbody\r\n0\r\n\r\n");
        QTest::newRow("negative chunk size") << answerWith(chunked, "-4\r\nbody\r\n0\r\n\r\n");
        // The toolkit takes a cut for the end when it arrives together with the last bytes.
        QTest::newRow("cut between chunks") << answerWith(chunked, "4\r\nbody\r\n");
        QTest::newRow("cut inside a chunk") << answerWith(chunked, "8\r\nbody");
        const char *const gzip = "200 OK\r\nContent-Encoding: gzip";
        QTest::newRow("cut gzip") << answerWith(gzip, gzipOfBody.left(15));
        QTest::newRow("no gzip at all") << answerWith(gzip, "body");
        QTest::newRow("status beyond three digits") << answerWith("99999999999 OK", "body");
    }

    void hostileAnswerEnds()
    {
        QFETCH(QByteArray, answer);
        ScriptedServer server;
        server.onRaw("/f", rawAnswer(answer));
        Transfer transfer;
        transfer.start(m_path, server.address("/f"));
        transfer.waitForEnd();
        QCOMPARE(transfer.endCount(), 1);
        QVERIFY(readFile(m_path).size() <= 4);
    }

    void cutAtAnyByteFailsAndKeepsWhatArrived_data()
    {
        QTest::addColumn<bool>("isReset");
        QTest::newRow("closed") << false;
        QTest::newRow("reset") << true;
    }

    void cutAtAnyByteFailsAndKeepsWhatArrived()
    {
        QFETCH(bool, isReset);
        const QByteArray body = patternOf(60);
        const QByteArray whole = answerWith("200 OK\r\nContent-Length: 60", body);
        const int bodyAt = whole.size() - body.size();
        int cut = 0;
        ScriptedServer server;
        server.onRaw("/f", [&](const HttpRequest &, QTcpSocket *socket) {
            socket->write(whole.left(cut));
            socket->waitForBytesWritten(1000);
            if (isReset)
                socket->abort();
            else
                socket->disconnectFromHost();
        });
        for (cut = 0; cut < whole.size(); cut += cut < bodyAt ? 5 : 3) {
            Transfer transfer;
            transfer.start(m_path, server.address("/f"));
            QVERIFY2(transfer.fails(), qPrintable(QString::number(cut)));
            const QByteArray content = readFile(m_path);
            if (!isReset)
                QCOMPARE(content, body.left(qMax(0, cut - bodyAt)));
            QVERIFY(body.left(qMax(0, cut - bodyAt)).startsWith(content));
        }
    }

    void appendingKeepsWhatIsThere()
    {
        ScriptedServer server;
        server.on("/f", replyOf(QByteArray(700, 'b')));
        writeFile(m_path, QByteArray(300, 'a'));
        Transfer transfer;
        transfer.start(m_path, server.address("/f"), 0, true);
        QVERIFY(transfer.succeeds());
        QCOMPARE(readFile(m_path), QByteArray(300, 'a') + QByteArray(700, 'b'));
    }

    void withoutAppendingTheFileBeginsAfresh()
    {
        ScriptedServer server;
        server.on("/f", replyOf("new"));
        writeFile(m_path, "something older and longer");
        Transfer transfer;
        transfer.start(m_path, server.address("/f"));
        QVERIFY(transfer.succeeds());
        QCOMPARE(readFile(m_path), QByteArray("new"));
    }

    void bytesOnDiskCountTowardsTheLength()
    {
        // The length is compared with the whole file: a cut answer is still a failure, as the
        // connection itself failed.
        ScriptedServer server;
        server.onRaw("/f", rawAnswer(answerWith("200 OK\r\nContent-Length: 9", "body")));
        writeFile(m_path, "0123456789");
        Transfer transfer;
        transfer.start(m_path, server.address("/f"), 0, true);
        QVERIFY(transfer.fails());
        QCOMPARE(readFile(m_path), QByteArray("0123456789body"));
    }

    void resume_data()
    {
        QTest::addColumn<QByteArray>("answer");
        QTest::addColumn<QString>("options");
        QTest::addColumn<bool>("isSuccess");
        QTest::addColumn<QByteArray>("content");
        const QByteArray old("0123");
        const QByteArray partial("206 Part\r\nContent-Length: 4\r\nContent-Range: ");
        const QByteArray right = answerWith(partial + "bytes 4-7/8", "4567");
        const QByteArray whole = answerWith("200 OK\r\nContent-Length: 8", "01234567");
        QTest::newRow("the wanted range") << right << "--size 8" << true << old + "4567";
        QTest::newRow("size of the whole unknown to the server")
            << answerWith(partial + "bytes 4-7/*", "4567") << "--size 8" << true << old + "4567";
        QTest::newRow("no Content-Range") << answerWith("206 Part\r\nContent-Length: 4", "4567")
                                          << "--size 8" << true << old + "4567";
        QTest::newRow("a range too early")
            << answerWith(partial + "bytes 3-6/8", "3456") << "--size 8" << false << old;
        QTest::newRow("a range too late")
            << answerWith(partial + "bytes 5-8/9", "5678") << "--size 8" << false << old;
        QTest::newRow("no range in Content-Range")
            << answerWith(partial + "bytes */8", "4567") << "--size 8" << false << old;
        QTest::newRow("Content-Range is nonsense")
            << answerWith(partial + "x", "4567") << "--size 8" << false << old;
        QTest::newRow("range ignored, the length is the whole size: begun afresh")
            << whole << "--size 8" << true << QByteArray("01234567");
        QTest::newRow("range ignored, another length: appended")
            << whole << "--size 9" << true << old + "01234567";
        QTest::newRow("range ignored, size unknown: appended")
            << whole << "" << true << old + "01234567";
        QTest::newRow("range ignored, no length: appended")
            << answerWith("200 OK", "01234567") << "--size 8" << true << old + "01234567";
        QTest::newRow("range ignored and cut: what arrived replaces what was there")
            << answerWith("200 OK\r\nContent-Length: 8", "01234") << "--size 8" << false
            << QByteArray("01234");
        QTest::newRow("range ignored and cut early: what was there stays")
            << answerWith("200 OK\r\nContent-Length: 8", "01") << "--size 8" << false << old;
        QTest::newRow("range ignored, the whole is shorter")
            << answerWith("200 OK\r\nContent-Length: 3", "abc") << "--size 3" << true
            << QByteArray("abc");
        QTest::newRow("less than the rest")
            << answerWith("206 Part\r\nContent-Length: 2\r\nContent-Range: bytes 4-5/8", "45")
            << "--size 8" << false << old + "45";
        QTest::newRow("a length below that of the range")
            << answerWith("206 Part\r\nContent-Length: 2\r\nContent-Range: bytes 4-7/8", "45")
            << "--size 8" << false << old + "45";
        QTest::newRow("no more content")
            << answerWith("204 No Content") << "--size 8" << false << old;
        QTest::newRow("past the end")
            << answerWith("416 No\r\nContent-Range: bytes */4\r\nContent-Length: 4", "page")
            << "--size 8" << false << old;
        QTest::newRow("missing") << answerWith("404 No\r\nContent-Length: 8", "01234567")
                                 << "--size 8" << false << old;
        QTest::newRow("server error")
            << answerWith("500 No\r\nContent-Length: 4", "page") << "--size 8" << false << old;
        QTest::newRow("hang-up") << QByteArray() << "--size 8" << false << old;
        QTest::newRow("cut") << right.left(right.size() - 2) << "--size 8" << false << old + "45";
    }

    void resume()
    {
        QFETCH(QByteArray, answer);
        QFETCH(QString, options);
        QFETCH(bool, isSuccess);
        QFETCH(QByteArray, content);
        setCommandLine(options);
        ScriptedServer server;
        server.onRaw("/f", rawAnswer(answer));
        writeFile(m_path, "0123");
        Transfer transfer;
        transfer.start(m_path, server.address("/f"), 4, true);
        QVERIFY(transfer.endsAs(isSuccess));
        QCOMPARE(readFile(m_path), content);
        QCOMPARE(server.requests().at(0).header("Range"), QByteArray("bytes=4-"));
    }

    void aWholeAnswerReportsItsOwnPositions()
    {
        setCommandLine(QStringLiteral("--size 8"));
        ScriptedServer server;
        server.on("/f", replyOf("01234567"));
        writeFile(m_path, "0123");
        Transfer transfer;
        transfer.start(m_path, server.address("/f"), 4, true);
        QVERIFY(transfer.succeeds());
        QCOMPARE(transfer.progress.last(), (QVariantList{7, qint64(8), qint64(8)}));
    }

    void redirectIsFollowedWithTheRange_data()
    {
        QTest::addColumn<int>("status");
        QTest::addColumn<QByteArray>("location");
        for (const int status : {301, 302, 303, 307, 308})
            QTest::newRow(qPrintable(QString::number(status))) << status << QByteArray("/d/f");
        QTest::newRow("relative to the folder") << 302 << QByteArray("f");
        QTest::newRow("one folder up") << 302 << QByteArray("../d/f");
        QTest::newRow("with a query") << 302 << QByteArray("/d/f?a=1&b=%20");
        QTest::newRow("with a fragment") << 302 << QByteArray("/d/f#part");
    }

    void redirectIsFollowedWithTheRange()
    {
        QFETCH(int, status);
        QFETCH(QByteArray, location);
        ScriptedServer server;
        server.on("/d/r", redirect(status, location));
        server.serve("/d/f", "0123456789", "video/mp4");
        writeFile(m_path, "0123");
        Transfer transfer;
        transfer.start(m_path, server.address("/d/r"), 4, true);
        QVERIFY(transfer.succeeds());
        QCOMPARE(readFile(m_path), QByteArray("0123456789"));
        QCOMPARE(server.requestsFor("/d/f").at(0).header("Range"), QByteArray("bytes=4-"));
        QCOMPARE(server.requestsFor("/d/f").at(0).method, QByteArray("GET"));
    }

    void redirectLimit_data()
    {
        QTest::addColumn<int>("count");
        QTest::addColumn<bool>("isSuccess");
        QTest::newRow("at the limit") << 10 << true;
        QTest::newRow("one above") << 11 << false;
    }

    void redirectLimit()
    {
        QFETCH(int, count);
        QFETCH(bool, isSuccess);
        ScriptedServer server;
        for (int i = 0; i < count; ++i)
            server.on("/" + QByteArray::number(i), redirect(302, "/" + QByteArray::number(i + 1)));
        server.on("/" + QByteArray::number(count), replyOf("body"));
        Transfer transfer;
        transfer.start(m_path, server.address("/0"));
        QVERIFY(transfer.endsAs(isSuccess));
        QCOMPARE(readFile(m_path), QByteArray(isSuccess ? "body" : ""));
    }

    void redirectThatIsNotFollowedIsAFailure_data()
    {
        QTest::addColumn<QByteArray>("location");
        QTest::newRow("to itself") << QByteArray("/r");
        QTest::newRow("ftp") << QByteArray("ftp://127.0.0.1/f");
        QTest::newRow("file") << QByteArray("file:///etc/passwd");
        QTest::newRow("data") << QByteArray("data:text/plain,x");
        QTest::newRow("script") << QByteArray("javascript:1");
        QTest::newRow("own scheme") << QByteArray("qrc:/x");
        QTest::newRow("no address") << QByteArray("http://[");
        QTest::newRow("empty") << QByteArray("");
    }

    void redirectThatIsNotFollowedIsAFailure()
    {
        QFETCH(QByteArray, location);
        ScriptedServer server;
        server.on("/r", redirect(302, location));
        writeFile(m_path, "0123");
        Transfer transfer;
        transfer.start(m_path, server.address("/r"), 4, true);
        QVERIFY(transfer.fails());
        QCOMPARE(readFile(m_path), QByteArray("0123"));
    }

    void theLongBodyOfARedirectIsPassedOver()
    {
        ScriptedServer server;
        HttpReply reply = redirect(302, "/f");
        reply.body = QByteArray(3000000, 'r');
        server.on("/r", reply);
        server.on("/f", replyOf("body"));
        Transfer transfer;
        transfer.start(m_path, server.address("/r"));
        QVERIFY(transfer.succeeds());
        QCOMPARE(readFile(m_path), QByteArray("body"));
    }

    void aRefusedConnectionIsAFailure()
    {
        auto server = std::make_unique<ScriptedServer>();
        const QString address = server->address("/f");
        server.reset();
        Transfer transfer;
        transfer.start(m_path, address);
        QVERIFY(transfer.fails());
        QVERIFY(QFile::exists(m_path));
    }

    void anAddressThatIsNoneIsAFailure_data()
    {
        QTest::addColumn<QString>("url");
        QTest::newRow("empty") << "";
        QTest::newRow("no host") << "http://";
        QTest::newRow("bad host") << "http://[::x/";
        QTest::newRow("bad port") << "http://127.0.0.1:99999/";
        QTest::newRow("unknown scheme") << "httpx://127.0.0.1/";
    }

    void anAddressThatIsNoneIsAFailure()
    {
        QFETCH(QString, url);
        Transfer transfer;
        transfer.start(m_path, url);
        QVERIFY(transfer.fails());
        QCOMPARE(readFile(m_path), QByteArray());
    }

    void aFileThatCannotBeOpenedFailsAtOnce_data()
    {
        QTest::addColumn<QString>("path");
        QTest::newRow("a folder") << m_folder.path();
        QTest::newRow("in no folder") << m_folder.filePath(QStringLiteral("none/f"));
        QTest::newRow("name too long") << m_folder.filePath(QString(256, QLatin1Char('n')));
    }

    void aFileThatCannotBeOpenedFailsAtOnce()
    {
        QFETCH(QString, path);
        ScriptedServer server;
        Transfer transfer;
        transfer.downloader.setDownloadInfo(path, server.address("/f"), 0, -1, 7, false);
        QVERIFY(!transfer.downloader.download());
        QCOMPARE(transfer.failed.count(), 1); // from inside the call
        transfer.downloader.cancel();
        QVERIFY(transfer.fails());
        QCOMPARE(server.requests().size(), 0);
    }

    void aFileThatVanishesIsAFailure_data()
    {
        QTest::addColumn<bool>("isReplaced");
        QTest::newRow("removed") << false;
        QTest::newRow("replaced by a folder") << true;
    }

    void aFileThatVanishesIsAFailure()
    {
        QFETCH(bool, isReplaced);
        ScriptedServer server;
        QPointer<QTcpSocket> held;
        server.onRaw("/f", [&held](const HttpRequest &, QTcpSocket *socket) {
            held = socket;
            socket->write(answerWith("200 OK\r\nContent-Length: 4", "bo"));
        });
        Transfer transfer;
        transfer.start(m_path, server.address("/f"));
        QVERIFY(Transfer::reaches(m_path, 2));
        QVERIFY(QFile::remove(m_path));
        if (isReplaced)
            QVERIFY(QDir().mkdir(m_path));
        held->write("dy");
        held->disconnectFromHost();
        QVERIFY(transfer.fails());
        QDir().rmdir(m_path);
    }

    void aFullDiskIsAFailure_data()
    {
        QTest::addColumn<bool>("hasLength");
        QTest::addColumn<int>("size");
        QTest::newRow("one byte") << true << 1;
        QTest::newRow("one byte, no length") << false << 1;
        QTest::newRow("much") << true << 20000000;
        QTest::newRow("much, no length") << false << 20000000;
    }

    void aFullDiskIsAFailure()
    {
        QFETCH(bool, hasLength);
        QFETCH(int, size);
        ScriptedServer server;
        HttpReply reply = replyOf(QByteArray(size, 'x'));
        reply.withoutLength = !hasLength;
        server.on("/f", reply);
        Transfer transfer;
        transfer.start(QStringLiteral("/dev/full"), server.address("/f"));
        QVERIFY(transfer.fails());
    }

    void progressPositionsCountFromTheFilesBeginning()
    {
        ScriptedServer server;
        server.on("/f", replyOf(QByteArray(5000, 'x')));
        Transfer transfer;
        transfer.start(m_path, server.address("/f"), 1000000);
        QVERIFY(transfer.succeeds());
        QVERIFY(transfer.progress.count() > 0);
        qint64 before = 1000000;
        for (const QVariantList &report : qAsConst(transfer.progress)) {
            QCOMPARE(report.at(0).toInt(), 7);
            QVERIFY(report.at(1).toLongLong() >= before);
            before = report.at(1).toLongLong();
            QCOMPARE(report.at(2).toLongLong(), qint64(1005000));
        }
        QCOMPARE(before, qint64(1005000));
    }

    void progressOfTheLargestLengthDoesNotOverflow()
    {
        ScriptedServer server;
        server.onRaw("/f",
                     rawAnswer(answerWith("206 Part\r\nContent-Length: 9223372036854775807\r\n"
                                          "Content-Range: bytes 100-/*",
                                          "body")));
        Transfer transfer;
        transfer.start(m_path, server.address("/f"), 100);
        QVERIFY(transfer.fails());
        for (const QVariantList &report : qAsConst(transfer.progress))
            QCOMPARE(report.at(2).toLongLong(), longest);
    }

    void anUnknownTotalIsReportedAsOneLess()
    {
        ScriptedServer server;
        HttpReply reply = replyOf("body");
        reply.withoutLength = true;
        server.on("/f", reply);
        Transfer transfer;
        transfer.start(m_path, server.address("/f"));
        QVERIFY(transfer.succeeds());
        for (const QVariantList &report : qAsConst(transfer.progress))
            QVERIFY(report.at(2).toLongLong() == -1 || report.at(2) == report.at(1));
    }

    void anEmptyBodyReportsNoProgress()
    {
        ScriptedServer server;
        server.on("/f", replyOf(""));
        Transfer transfer;
        transfer.start(m_path, server.address("/f"));
        QVERIFY(transfer.succeeds());
        QCOMPARE(transfer.progress.count(), 0);
    }

    void partialDownloadStopsAfter10240Bytes_data()
    {
        QTest::addColumn<int>("size");
        QTest::addColumn<int>("start");
        QTest::addColumn<bool>("isSuccess");
        QTest::newRow("at the limit") << 10240 << 0 << true;
        QTest::newRow("one above") << 10241 << 0 << false;
        QTest::newRow("much above") << 1000000 << 0 << false;
        QTest::newRow("the start counts") << 1 << 20000 << false;
        QTest::newRow("start and body at the limit") << 240 << 10000 << true;
        QTest::newRow("start and body one above") << 241 << 10000 << false;
    }

    void partialDownloadStopsAfter10240Bytes()
    {
        QFETCH(int, size);
        QFETCH(int, start);
        QFETCH(bool, isSuccess);
        setCommandLine(QStringLiteral("--partial"));
        ScriptedServer server;
        // More than the server has sent can only be waited for: the end comes from the cut-off.
        server.on(
            "/f",
            heldReplyOf(QByteArray(size + (isSuccess ? 0 : 9), 'x'), isSuccess ? size + 1 : size));
        Transfer transfer;
        transfer.start(m_path, server.address("/f"), start);
        QVERIFY(transfer.endsAs(isSuccess));
        const qint64 onDisk = QFileInfo(m_path).size();
        QVERIFY(onDisk <= size && start + onDisk >= qMin(start + size, 10241));
    }

    void withoutTheOptionNothingIsCutOff()
    {
        ScriptedServer server;
        server.on("/f", replyOf(patternOf(50000)));
        Transfer transfer;
        transfer.start(m_path, server.address("/f"));
        QVERIFY(transfer.succeeds());
        QCOMPARE(readFile(m_path), patternOf(50000));
    }

    void cancelWithoutATransferDoesNothing()
    {
        Transfer transfer;
        transfer.downloader.cancel();
        ScriptedServer server;
        server.on("/f", replyOf("body"));
        transfer.start(m_path, server.address("/f"));
        QVERIFY(transfer.succeeds());
        transfer.downloader.cancel();
        QVERIFY(transfer.succeeds()); // still the one signal
        QCOMPARE(readFile(m_path), QByteArray("body"));
    }

    void cancelKeepsWhatArrived()
    {
        ScriptedServer server;
        server.on("/f", heldReplyOf(patternOf(100000), 60000));
        Transfer transfer;
        transfer.start(m_path, server.address("/f"));
        QVERIFY(Transfer::reaches(m_path, 60000));
        transfer.downloader.cancel();
        QCOMPARE(transfer.failed.count(), 1);
        transfer.downloader.cancel();
        QVERIFY(transfer.fails());
        QCOMPARE(readFile(m_path), patternOf(60000));
    }

    void cancelBeforeAnyAnswer()
    {
        ScriptedServer server;
        server.hold("/f");
        writeFile(m_path, "0123");
        Transfer transfer;
        transfer.start(m_path, server.address("/f"), 4, true);
        QTRY_COMPARE(server.requests().size(), 1);
        transfer.downloader.cancel();
        QVERIFY(transfer.fails());
        QCOMPARE(readFile(m_path), QByteArray("0123"));
    }

    void cancelRightAfterTheStart()
    {
        ScriptedServer server;
        Transfer transfer;
        transfer.start(m_path, server.address("/f"));
        transfer.downloader.cancel();
        QVERIFY(transfer.fails());
    }

    void cancelInsideAProgressReport()
    {
        ScriptedServer server;
        HttpReply slow = heldReplyOf(patternOf(100000), 90000);
        slow.pieceBytes = 1000;
        slow.pieceDelayMs = 5; // reports come at intervals: the transfer has to last for one
        server.on("/f", slow);
        Transfer transfer;
        connect(&transfer.downloader, &HttpDownloader::sendProgress, &transfer.downloader,
                &HttpDownloader::cancel);
        transfer.start(m_path, server.address("/f"));
        QVERIFY(transfer.fails());
        const QByteArray content = readFile(m_path);
        QVERIFY(!content.isEmpty());
        QVERIFY(patternOf(90000).startsWith(content));
    }

    void cancelInsideAReportOfAPartialDownload()
    {
        setCommandLine(QStringLiteral("--partial"));
        ScriptedServer server;
        server.on("/f", heldReplyOf(patternOf(100000), 60000));
        Transfer transfer;
        connect(&transfer.downloader, &HttpDownloader::sendProgress, &transfer.downloader,
                &HttpDownloader::cancel);
        transfer.start(m_path, server.address("/f"));
        QVERIFY(transfer.fails());
    }

    void cancelInsideTheEnd()
    {
        ScriptedServer server;
        server.on("/f", replyOf("body"));
        Transfer transfer;
        connect(&transfer.downloader, &HttpDownloader::downFinished, &transfer.downloader,
                &HttpDownloader::cancel);
        transfer.start(m_path, server.address("/f"));
        QVERIFY(transfer.succeeds());
    }

    void anotherTransferMayBeginInsideAnEnd_data()
    {
        QTest::addColumn<bool>("isCanceled");
        QTest::newRow("after success") << false;
        QTest::newRow("after cancel") << true;
    }

    void anotherTransferMayBeginInsideAnEnd()
    {
        QFETCH(bool, isCanceled);
        ScriptedServer server;
        server.on("/1", isCanceled ? heldReplyOf("body", 2) : replyOf("body"));
        server.on("/2", replyOf("another"));
        const QString secondPath = m_path + QLatin1String(".2");
        Transfer transfer;
        HttpDownloader &downloader = transfer.downloader;
        bool isSecond = false;
        const auto startSecond = [&] {
            if (isSecond)
                return;
            isSecond = true;
            downloader.setDownloadInfo(secondPath, server.address("/2"), 0, -1, 8, false);
            downloader.download();
        };
        connect(&downloader, &HttpDownloader::downFinished, &downloader, startSecond);
        connect(&downloader, &HttpDownloader::downerror, &downloader, startSecond);
        transfer.start(m_path, server.address("/1"));
        if (isCanceled) {
            QVERIFY(Transfer::reaches(m_path, 2));
            downloader.cancel();
        }
        QTRY_COMPARE_WITH_TIMEOUT(transfer.endCount(), 2, endTimeoutMs);
        QCOMPARE(transfer.finished.last(), QVariantList{8});
        QCOMPARE(readFile(m_path), QByteArray(isCanceled ? "bo" : "body"));
        QCOMPARE(readFile(secondPath), QByteArray("another"));
    }

    void anotherTransferMayReplaceARunningOne()
    {
        ScriptedServer server;
        server.on("/1", heldReplyOf("body", 2));
        server.on("/2", replyOf("another"));
        const QString secondPath = m_path + QLatin1String(".2");
        Transfer transfer;
        transfer.start(m_path, server.address("/1"));
        QVERIFY(Transfer::reaches(m_path, 2));
        transfer.start(secondPath, server.address("/2"));
        QVERIFY(transfer.succeeds());
        QCOMPARE(readFile(m_path), QByteArray("bo"));
        QCOMPARE(readFile(secondPath), QByteArray("another"));
    }

    void theReceiverMayDeleteTheDownloaderLater()
    {
        ScriptedServer server;
        server.on("/f", replyOf("body"));
        QPointer<HttpDownloader> downloader = new HttpDownloader(this);
        connect(downloader, &HttpDownloader::downFinished, downloader, &QObject::deleteLater);
        downloader->setDownloadInfo(m_path, server.address("/f"), 0, -1, 7, false);
        downloader->download();
        QTRY_VERIFY_WITH_TIMEOUT(!downloader, endTimeoutMs);
        QCOMPARE(readFile(m_path), QByteArray("body"));
    }

    void destructionKeepsWhatArrived()
    {
        ScriptedServer server;
        server.on("/f", heldReplyOf(patternOf(100000), 60000));
        {
            Transfer transfer;
            transfer.start(m_path, server.address("/f"));
            QVERIFY(Transfer::reaches(m_path, 60000));
        }
        QCOMPARE(readFile(m_path), patternOf(60000));
    }

    void memoryMode_data()
    {
        QTest::addColumn<QByteArray>("answer");
        QTest::addColumn<QByteArray>("content");
        QTest::newRow("document") << answerWith("200 OK\r\nContent-Length: 4", "body")
                                  << QByteArray("body");
        QTest::newRow("error page")
            << answerWith("404 No\r\nContent-Length: 4", "page") << QByteArray("page");
        QTest::newRow("server error page") << answerWith("500 No", "page") << QByteArray("page");
        QTest::newRow("cut") << answerWith("200 OK\r\nContent-Length: 9", "body")
                             << QByteArray("body");
        QTest::newRow("hang-up") << QByteArray() << QByteArray();
        QTest::newRow("empty") << answerWith("200 OK\r\nContent-Length: 0") << QByteArray();
    }

    void memoryMode()
    {
        QFETCH(QByteArray, answer);
        QFETCH(QByteArray, content);
        ScriptedServer server;
        server.onRaw("/f", rawAnswer(answer));
        Transfer transfer;
        transfer.start({}, server.address("/f"));
        QVERIFY(transfer.succeeds()); // whatever happened
        QCOMPARE(transfer.downloader.RawContent(), content);
    }

    void memoryModeBeginsAfreshAtEveryDownload()
    {
        ScriptedServer server;
        server.on("/f", replyOf("body"));
        Transfer transfer;
        for (int i = 1; i <= 2; ++i) {
            transfer.start({}, server.address("/f"));
            QTRY_COMPARE_WITH_TIMEOUT(transfer.finished.count(), i, endTimeoutMs);
        }
        QCOMPARE(transfer.downloader.RawContent(), QByteArray("body"));
    }

    void memoryModeIsBounded()
    {
        ScriptedServer server;
        HttpReply reply = replyOf(QByteArray(80 * 1024 * 1024, 'x'));
        reply.pieceBytes = 1024 * 1024;
        server.on("/f", reply);
        Transfer transfer;
        transfer.start({}, server.address("/f"));
        QVERIFY(transfer.succeeds());
        QVERIFY(transfer.downloader.RawContent().size() < 79 * 1024 * 1024);
    }

    void fileSize_data()
    {
        QTest::addColumn<QByteArray>("answer");
        QTest::addColumn<qint64>("size");
        QTest::newRow("length") << answerWith("200 OK\r\nContent-Length: 4", "body") << qint64(4);
        QTest::newRow("only the header is waited for")
            << answerWith("200 OK\r\nContent-Length: 5000000000", "body") << qint64(5000000000);
        QTest::newRow("largest") << answerWith("200 OK\r\nContent-Length: 9223372036854775807",
                                               "body")
                                 << longest;
        QTest::newRow("beyond 64 bits")
            << answerWith("200 OK\r\nContent-Length: 99999999999999999999", "body") << qint64(0);
        QTest::newRow("no length") << answerWith("200 OK", "body") << qint64(0);
        QTest::newRow("not a number")
            << answerWith("200 OK\r\nContent-Length: x", "body") << qint64(0);
        QTest::newRow("an error page has a length too")
            << answerWith("404 No\r\nContent-Length: 4", "page") << qint64(4);
        QTest::newRow("redirect") << answerWith("302 Found\r\nLocation: /real", "page")
                                  << qint64(1234);
        QTest::newRow("redirect with a length of its own")
            << answerWith("302 Found\r\nLocation: /real\r\nContent-Length: 4", "page")
            << qint64(1234);
        QTest::newRow("redirect that is not followed")
            << answerWith("302 Found\r\nLocation: ftp://h/\r\nContent-Length: 4", "page")
            << qint64(0);
        QTest::newRow("choices") << answerWith("300 Choose\r\nContent-Length: 4", "page")
                                 << qint64(0);
        QTest::newRow("hang-up") << QByteArray() << qint64(0);
    }

    void fileSize()
    {
        QFETCH(QByteArray, answer);
        ScriptedServer server;
        server.onRaw("/f", rawAnswer(answer));
        server.on("/real", replyOf(QByteArray(1234, 'x')));
        HttpDownloader downloader;
        QTEST(downloader.GetFileSize(server.url("/f")), "size");
        const HttpRequest request = server.requests().at(0);
        QCOMPARE(request.method, QByteArray("GET"));
        QVERIFY(!request.hasHeader("Range"));
        QVERIFY(!request.hasHeader("Cookie"));
    }

    void fileSizeOfWhatCannotBeAsked()
    {
        HttpDownloader downloader;
        QCOMPARE(downloader.GetFileSize(QUrl()), qint64(0));
        QCOMPARE(downloader.GetFileSize(QUrl(QStringLiteral("http://"))), qint64(0));
        QCOMPARE(downloader.GetFileSize(QUrl(QStringLiteral("rtmp://127.0.0.1/x"))), qint64(0));
    }

    void fileSizeDoesNotDisturbARunningTransfer()
    {
        ScriptedServer server;
        HttpReply slow = replyOf(patternOf(100000));
        slow.pieceBytes = 10000;
        slow.pieceDelayMs = 1;
        server.on("/f", slow);
        HttpReply late = replyOf("1234");
        late.delayMs = 30;
        server.on("/g", late);
        Transfer transfer;
        transfer.start(m_path, server.address("/f"));
        QCOMPARE(transfer.downloader.GetFileSize(server.url("/g")), qint64(4));
        QVERIFY(transfer.succeeds());
        QCOMPARE(readFile(m_path), patternOf(100000));
    }

    void aHeldProbeEndsWithTheProgram()
    {
        ScriptedServer server;
        server.hold("/f");
        connect(&server, &ScriptedServer::requestReceived, qApp, &QCoreApplication::quit);
        qint64 size = -1;
        QTimer::singleShot(0, this, [&] { size = HttpDownloader().GetFileSize(server.url("/f")); });
        QCOMPARE(QCoreApplication::exec(), 0);
        QCOMPARE(size, qint64(0));
    }

    void cookiesOfTheProcessAreSentAndKept()
    {
        QNetworkCookie cookie("session", "s1");
        cookie.setDomain(QStringLiteral("127.0.0.1"));
        cookie.setPath(QStringLiteral("/"));
        QVERIFY(CookieStore::instance().insert(cookie));
        ScriptedServer server;
        HttpReply reply = replyOf("body");
        reply.headers = {{"Set-Cookie", "seen=2; Path=/"}};
        server.on("/f", reply);
        server.on("/r", redirect(302, "/f"));
        Transfer transfer;
        transfer.start(m_path, server.address("/r"));
        QVERIFY(transfer.succeeds());
        QCOMPARE(server.requestsFor("/r").at(0).header("Cookie"), QByteArray("session=s1"));
        QCOMPARE(server.requestsFor("/f").at(0).header("Cookie"), QByteArray("session=s1"));
        QCOMPARE(CookieStore::instance().cookies().size(), 2);
    }

    void anotherJarHoldsUntilTheNextDownload()
    {
        QNetworkCookieJar jar;
        QNetworkCookie cookie("other", "1");
        cookie.setDomain(QStringLiteral("127.0.0.1"));
        cookie.setPath(QStringLiteral("/"));
        jar.insertCookie(cookie);
        ScriptedServer server;
        server.on("/f", replyOf("body"));
        Transfer transfer;
        transfer.downloader.setCookieJar(&jar);
        QVERIFY(!jar.parent());
        transfer.start(m_path, server.address("/f"));
        QVERIFY(transfer.succeeds());
        QVERIFY(!server.requests().at(0).hasHeader("Cookie"));
    }

    void theProxyOfTheCommandLineIsUsed()
    {
        ScriptedServer proxy;
        proxy.onOther([](const HttpRequest &) { return replyOf("by proxy"); });
        setCommandLine(QStringLiteral("--proxy 3:127.0.0.1:%1").arg(proxy.port()));
        const QString url = QStringLiteral("http://media.test/f");
        Transfer transfer;
        transfer.start(m_path, url);
        QVERIFY(transfer.succeeds());
        QCOMPARE(readFile(m_path), QByteArray("by proxy"));
        QCOMPARE(transfer.downloader.GetFileSize(QUrl(url)), qint64(8));
        QCOMPARE(proxy.requests().size(), 2);
        for (const HttpRequest &request : proxy.requests())
            QCOMPARE(request.target, url.toUtf8());
    }

    void aSilentServerIsGivenUp_data()
    {
        QTest::addColumn<int>("sentBytes");
        QTest::newRow("before the answer") << -1;
        QTest::newRow("before the body") << 0;
        QTest::newRow("in the body") << 300;
    }

    void aSilentServerIsGivenUp()
    {
        QFETCH(int, sentBytes);
        const QByteArray content = patternOf(700);
        ScriptedServer server;
        if (sentBytes >= 0)
            server.on("/f", heldReplyOf(content, sentBytes));
        else
            server.hold("/f");
        setCommandLine(QStringLiteral("--stall 1"));
        Transfer transfer;
        transfer.start(m_path, server.address("/f"));
        QVERIFY(transfer.fails());
        QVERIFY(readFile(m_path) == content.left(qMax(0, sentBytes)));
        Transfer inMemory;
        inMemory.start(QString(), server.address("/f"));
        QVERIFY(
            inMemory.succeeds()); // as after every failure: the content is the caller's to judge
    }

    void aServerThatOnlyTricklesIsWaitedFor()
    {
        const QByteArray content = patternOf(30);
        ScriptedServer server;
        HttpReply reply = replyOf(content);
        reply.pieceBytes = 1;
        reply.pieceDelayMs = 50; // the whole takes longer than the limit
        server.on("/f", reply);
        setCommandLine(QStringLiteral("--stall 1"));
        Transfer transfer;
        transfer.start(m_path, server.address("/f"));
        QVERIFY(transfer.succeeds());
        QVERIFY(readFile(m_path) == content);
    }

    void aSilentProbeIsGivenUp_data()
    {
        QTest::addColumn<QByteArray>("path");
        QTest::newRow("before the answer") << QByteArray("/held");
        QTest::newRow("in the header") << QByteArray("/half");
        QTest::newRow("after a redirect") << QByteArray("/redirect");
    }

    void aSilentProbeIsGivenUp()
    {
        QFETCH(QByteArray, path);
        ScriptedServer server;
        server.hold("/held");
        server.onRaw("/half", [](const HttpRequest &, QTcpSocket *socket) {
            socket->write("HTTP/1.1 200 OK\r\nContent-Length: 70");
        });
        server.on("/redirect", redirect(302, "/held"));
        setCommandLine(QStringLiteral("--stall 1"));
        HttpDownloader downloader;
        QCOMPARE(downloader.GetFileSize(server.url(path)), qint64(0));
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
        ScriptedServer server;
        server.on("/f", replyOf("direct"));
        QTcpSocket proxy; // has a port of its own and refuses every connection
        QVERIFY(proxy.bind(QHostAddress::LocalHost));
        setCommandLine(QStringLiteral("--proxy %1:127.0.0.1:%2").arg(type).arg(proxy.localPort()));
        Transfer transfer;
        transfer.start(m_path, server.address("/f"));
        QVERIFY(transfer.endsAs(isDirect));
        QCOMPARE(transfer.downloader.GetFileSize(server.url("/f")), qint64(isDirect ? 6 : 0));
        QCOMPARE(server.requests().size(), isDirect ? 2 : 0);
    }

    void aRealServer()
    {
        Nginx nginx;
        QVERIFY(nginx.start());
        const QByteArray content = patternOf(20 * 1024 * 1024);
        writeFile(nginx.rootFolder() + QLatin1String("/f.mp4"), content);
        const QString url = nginx.address(QStringLiteral("/f.mp4"));
        {
            Transfer transfer;
            QCOMPARE(transfer.downloader.GetFileSize(QUrl(url)), qint64(content.size()));
            transfer.start(m_path, url);
            QVERIFY(transfer.succeeds());
            QVERIFY(readFile(m_path) == content);
        }
        {
            writeFile(m_path, content.left(12345678));
            Transfer transfer;
            transfer.start(m_path, url, 12345678, true);
            QVERIFY(transfer.succeeds());
            QVERIFY(readFile(m_path) == content);
        }
        {
            Transfer transfer;
            transfer.downloader.setDownloadInfo(m_path, url, 500, 1000, 7, false);
            transfer.downloader.download();
            QVERIFY(transfer.succeeds());
            QCOMPARE(readFile(m_path), content.mid(500, 500));
        }
        {
            Transfer transfer;
            transfer.start(m_path, url, content.size(), true);
            QVERIFY(transfer.fails());
            QCOMPARE(readFile(m_path), content.mid(500, 500));
        }
        {
            Transfer transfer;
            transfer.start(m_path, nginx.address(QStringLiteral("/none")), 0, true);
            QVERIFY(transfer.fails());
            QCOMPARE(readFile(m_path), content.mid(500, 500));
        }
    }
};

CLIPWEIR_TEST_MAIN(tst_HttpDownloader)
#include "tst_httpdownloader.moc"
