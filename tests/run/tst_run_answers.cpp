// Whole runs whose server answers the download in a form that the toolkit does not take by itself.

#include "PageRun.h"
#include "TestMain.h"

namespace {

/// What gzip makes of the bytes.
QByteArray packed(const QByteArray &bytes)
{
    QProcess gzip;
    gzip.start(option("gzip"), {option("-1")});
    gzip.write(bytes);
    gzip.closeWriteChannel();
    gzip.waitForFinished();
    return gzip.readAllStandardOutput();
}

} // namespace

class tst_RunAnswers : public QObject
{
    Q_OBJECT

    const QByteArray m_video = testBytes(6 * 1024 * 1024);

private slots:
    void packedUnderItsOldName()
    {
        ScriptedServer server;
        HttpReply reply = mediaReply(packed(m_video));
        reply.headers += qMakePair(QByteArray("Content-Encoding"), QByteArray("x-gzip"));
        QVERIFY(reply.body != m_video);
        const QString page =
            servePage(server, m_video, [&reply](const HttpRequest &) { return reply; });
        ProgramRun run;
        QVERIFY(run.run({option("--url"), page, option("--saveto"), run.path(option("v.mp4"))}));
        QVERIFY2(run.errorOutput().contains("\nvideo download finished:success \n"),
                 run.errorOutput());
        QVERIFY(run.fileContent(option("v.mp4")) == m_video);
    }

    void interimAnswer()
    {
        ScriptedServer server;
        const QString page = server.address("/page");
        server.on("/page", htmlReply(videoPage("/v.mp4")));
        server.onRaw("/v.mp4", [this](const HttpRequest &request, QTcpSocket *socket) {
            if (isFromDownloader(request))
                socket->write("HTTP/1.1 103 Early Hints\r\nLink: </a.css>\r\n\r\n");
            const HttpReply reply = mediaReply(m_video);
            socket->write(ScriptedServer::headOf(reply) + reply.body);
            socket->disconnectFromHost();
        });
        ProgramRun run;
        QVERIFY(run.run({option("--url"), page, option("--saveto"), run.path(option("v.mp4")),
                         option("--log")}));
        QVERIFY2(run.errorOutput().contains("\nvideo download finished:failed \n"),
                 run.errorOutput());
        const QByteArray log = run.fileContent(option("logs/") + pageHash(page) + option(".log"));
        QVERIFY2(log.contains(": The answer behind an interim one is not read (status 103)\n"),
                 log);
        QVERIFY(run.fileContent(option("v.mp4")).isEmpty());
    }
};

CLIPWEIR_TEST_MAIN(tst_RunAnswers)
#include "tst_run_answers.moc"
