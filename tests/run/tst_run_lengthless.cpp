// Whole runs of pages whose video does not tell its length, from a server that never comes to its
// end.

#include "PageRun.h"
#include "TestMain.h"

namespace {

/// Sends media without a length until the other side has enough, and counts.
class EndlessMedia final : public QObject
{
public:
    static constexpr qint64 mostBytes = 256 << 20; ///< so that a test that fails ends, too

    void send(const QByteArray &type, QTcpSocket *socket)
    {
        socket->write("HTTP/1.1 200 OK\r\nContent-Type: " + type + "\r\nConnection: close\r\n\r\n");
        connect(socket, &QTcpSocket::bytesWritten, this, [this, socket] { sendMore(socket); });
        connect(socket, &QTcpSocket::disconnected, this, [this] { m_isCut = true; });
        sendMore(socket);
    }

    [[nodiscard]] bool isCut() const { return m_isCut; }
    [[nodiscard]] qint64 sentBytes() const { return m_sentBytes; }

private:
    void sendMore(QTcpSocket *socket)
    {
        constexpr qint64 fewBytes = 1 << 18;
        if (socket->bytesToWrite() < fewBytes && m_sentBytes < mostBytes)
            m_sentBytes += socket->write(m_piece);
    }

    const QByteArray m_piece = testBytes(1 << 18);
    qint64 m_sentBytes = 0;
    bool m_isCut = false;
};

} // namespace

class tst_RunLengthless : public QObject
{
    Q_OBJECT

private slots:
    void isCutAndFound_data()
    {
        QTest::addColumn<QByteArray>("type");
        QTest::addColumn<QByteArray>("path");
        QTest::addColumn<bool>("isSizeTold");
        QTest::newRow("video, told to a probe")
            << QByteArray("video/mp4") << QByteArray("/v.mp4") << true;
        QTest::newRow("video by its type alone, never told")
            << QByteArray("video/mp4") << QByteArray("/stream") << false;
        QTest::newRow("sound by its type alone, never told")
            << QByteArray("audio/mpeg") << QByteArray("/sound") << false;
    }

    /// What has come is enough to find the video by; the record has the true size or none.
    void isCutAndFound()
    {
        QFETCH(QByteArray, type);
        QFETCH(QByteArray, path);
        QFETCH(bool, isSizeTold);
        ScriptedServer server;
        EndlessMedia media;
        HttpReply whole = mediaReply(testBytes(300000));
        whole.withoutLength = !isSizeTold;
        const QString page = server.address("/page");
        server.on("/page", htmlReply(videoPage(path)));
        server.onRaw(path, [&](const HttpRequest &request, QTcpSocket *socket) {
            if (!isFromDownloader(request)) {
                media.send(type, socket);
                return;
            }
            socket->write(ScriptedServer::headOf(whole) + whole.body);
            socket->disconnectFromHost();
        });
        ProgramRun run;
        run.start({option("--url"), page});
        QTRY_VERIFY_WITH_TIMEOUT(media.isCut(), 30000);
        QVERIFY(run.waitForEnd());
        QVERIFY2(media.sentBytes() < EndlessMedia::mostBytes / 4,
                 QByteArray::number(media.sentBytes()));
        const QByteArray format =
            path.contains('.') ? path.mid(path.indexOf('.') + 1) : QByteArray();
        QCOMPARE(withoutProgress(run.errorOutput()),
                 parsingLine(page)
                     + recordLine(server.address(path), isSizeTold ? whole.body.size() : 0, format)
                     + fixedLine("start download video ...")
                     + fixedLine("video download finished:success")
                     + fixedLine("detach sharememory"));
        const QString name = option("tmp/") + pageHash(page) + option(".mp4");
        QVERIFY(run.fileContent(name) == whole.body);
    }
};

CLIPWEIR_TEST_MAIN(tst_RunLengthless)
#include "tst_run_lengthless.moc"
