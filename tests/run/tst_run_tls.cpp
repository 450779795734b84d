// Whole runs whose servers speak https with a certificate that the system does not know.

#include "HdsFixtures.h"
#include "PageRun.h"
#include "TestFiles.h"
#include "TestMain.h"
#include "TlsServer.h"

namespace {

constexpr int videoBytes = 6 * 1024 * 1024;

const QByteArray success = "\nvideo download finished:success \n";

/// The answer to the engine is the video; to the downloader, its address over TLS.
const QByteArray redirectedDownload =
    "location = /moved.mp4 {\n"
    "    if ($http_user_agent = Mozilla/5.0) { return 302 https://127.0.0.1:%PORT2%/v.mp4; }\n"
    "}\n";

} // namespace

class tst_RunTls : public QObject
{
    Q_OBJECT

    TlsServer m_server;
    const QByteArray m_video = testBytes(videoBytes);

    QByteArray refusal() const
    {
        return " Warning: the certificate of " + m_server.secureHost() + " is refused: ";
    }

    QByteArray certificate() const
    {
        return "(\"" + TlsServer::certificateName() + "\", issued by \""
            + TlsServer::certificateName() + "\")";
    }

private slots:
    void initTestCase()
    {
        QVERIFY(m_server.start(redirectedDownload));
        m_server.put(option("v.mp4"), m_video);
        m_server.put(option("moved.mp4"), m_video);
        m_server.put(option("plain.html"), videoPage("/v.mp4"));
        m_server.put(option("media.html"), videoPage(m_server.https("/v.mp4").toUtf8()));
        m_server.put(option("moved.html"), videoPage("/moved.mp4"));
        m_server.put(option("stream.html"), "<script>new Image().src='/s/m.f4m'</script>");
        m_server.put(option("s/m.f4m"),
                     hds::manifest(m_server.https("/s/stream").toUtf8(), hds::simpleBootstrap(1)));
        m_server.put(option("s/streamSeg1-Frag1"), hds::numberedFragment(1));
    }

    void theLogTellsWhatIsRefused_data()
    {
        QTest::addColumn<QString>("page");
        QTest::addColumn<QByteArray>("lastLine");
        QTest::newRow("page") << m_server.https("/plain.html") << QByteArray("parse failed");
        QTest::newRow("media") << m_server.http("/media.html")
                               << QByteArray("video download finished:failed");
        QTest::newRow("download") << m_server.http("/moved.html")
                                  << QByteArray("video download finished:failed");
        QTest::newRow("stream") << m_server.http("/stream.html") << QByteArray();
    }

    void theLogTellsWhatIsRefused()
    {
        QFETCH(QString, page);
        QFETCH(QByteArray, lastLine);
        ProgramRun run;
        QVERIFY(run.run({option("--url"), page, option("--saveto"), run.path(option("v.mp4")),
                         option("--timeout"), option("6"), option("--log"), option("--f4f")}));
        QVERIFY2(run.errorOutput().contains(lastLine), run.errorOutput());
        QVERIFY(!run.errorOutput().contains("certificate of")); // the host's lines are as ever
        const QByteArray log = run.fileContent(option("logs/") + pageHash(page) + option(".log"));
        const int at = log.indexOf(refusal());
        QVERIFY2(at >= 0, log);
        const QByteArray line = log.mid(at, log.indexOf('\n', at) - at);
        QVERIFY2(line.contains("self-signed") && line.contains(certificate()), line);
        if (page.endsWith(option("/media.html"))) // for the page's player, and for the download
            QVERIFY2(log.count(refusal()) >= 2, log);
    }

    /// In the sandbox, which the variables open for these files.
    void certificatesOfTheEnvironment_data()
    {
        QTest::addColumn<QString>("variable");
        QTest::addColumn<QString>("value");
        QTest::newRow("file") << option("SSL_CERT_FILE") << m_server.certificateFile();
        QTest::newRow("folders") << option("SSL_CERT_DIR")
                                 << option("/nonexistent:") + m_server.certificateFolder();
    }

    void certificatesOfTheEnvironment()
    {
        QFETCH(QString, variable);
        QFETCH(QString, value);
        ProgramRun run;
        run.setEnvironment(variable, value);
        QVERIFY(run.run({option("--url"), m_server.https("/plain.html"), option("--saveto"),
                         run.path(option("v.mp4"))}));
        QVERIFY2(run.errorOutput().contains(success), run.errorOutput());
        QVERIFY(run.fileContent(option("v.mp4")) == m_video);
    }
};

CLIPWEIR_TEST_MAIN(tst_RunTls)
#include "tst_run_tls.moc"
