#include "Nginx.h"
#include "PageRun.h"
#include "SocksRelay.h"
#include "TestFiles.h"
#include "TestMain.h"

#include <QTcpServer>
#include <QTcpSocket>

#include <memory>
#include <vector>

namespace {

constexpr int videoBytes = 40 << 20;
constexpr int runCount = 4;
constexpr int startAttempts = 5;

/// Debian's SOCKS 5 proxy on a loopback port of its own.
class Microsocks final
{
public:
    Microsocks() = default;

    ~Microsocks()
    {
        m_process.kill();
        m_process.waitForFinished();
    }

    Q_DISABLE_COPY(Microsocks)

    /// Starts it and waits until it accepts connections.
    [[nodiscard]] bool start()
    {
        for (int i = 0; i < startAttempts; ++i) { // somebody else may take the port first
            m_port = freePort();
            m_process.start(
                option("microsocks"),
                {option("-i"), option("127.0.0.1"), option("-p"), QString::number(m_port)});
            if (m_process.waitForStarted()
                && QTest::qWaitFor([this] { return isOver() || isListening(); }) && !isOver())
                return true;
        }
        return false;
    }

    [[nodiscard]] quint16 port() const { return m_port; }

private:
    static quint16 freePort()
    {
        QTcpServer server;
        return server.listen(QHostAddress::LocalHost) ? server.serverPort() : quint16(0);
    }

    bool isOver() const { return m_process.state() == QProcess::NotRunning; }

    bool isListening() const
    {
        QTcpSocket socket;
        socket.connectToHost(QHostAddress::LocalHost, m_port);
        return socket.waitForConnected(200);
    }

    QProcess m_process;
    quint16 m_port = 0;
};

} // namespace

/// Downloads through a SOCKS 5 proxy, several runs at a time, so that each has to wait for the
/// others.
class tst_RunSocks : public QObject
{
    Q_OBJECT

    QByteArray m_video;
    Nginx m_server;

    /// Runs side by side; each must bring the whole video.
    void runThrough(quint16 proxyPort)
    {
        std::vector<std::unique_ptr<ProgramRun>> runs;
        for (int i = 0; i < runCount; ++i) {
            runs.push_back(std::make_unique<ProgramRun>());
            // A page address of its own for each run: runs of one page are stopped together.
            runs.back()->start(
                {option("--url"), m_server.address(QStringLiteral("/page.html?%1").arg(i)),
                 option("--saveto"), runs.back()->path(option("v.mp4")), option("--proxy"),
                 QStringLiteral("1:127.0.0.1:%1").arg(proxyPort), option("--stall"), option("20")});
        }
        for (const auto &run : runs) {
            QVERIFY(run->waitForEnd());
            QVERIFY2(run->errorOutput().contains("\nvideo download finished:success \n"),
                     run->errorOutput());
            QVERIFY(run->fileContent(option("v.mp4")) == m_video);
        }
    }

private slots:
    void initTestCase()
    {
        m_video = testBytes(videoBytes);
        writeFile(m_server.rootFolder() + option("/v.mp4"), m_video);
        writeFile(m_server.rootFolder() + option("/page.html"), videoPage("/v.mp4"));
        m_server.setServerText("keepalive_timeout 0;"); // closes after every answer
        QVERIFY(m_server.start());
    }

    void proxyOfTheDistribution()
    {
        Microsocks proxy;
        QVERIFY(proxy.start());
        runThrough(proxy.port());
    }

    void proxyThatClosesAfterTheAnswer()
    {
        const SocksRelay proxy;
        runThrough(proxy.port());
        QVERIFY(proxy.connectionCount() >= 2 * runCount);
    }
};

CLIPWEIR_TEST_MAIN(tst_RunSocks)
#include "tst_run_socks.moc"
