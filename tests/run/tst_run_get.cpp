#include "EventCheck.h"
#include "PageRun.h"
#include "TestFiles.h"
#include "TestMain.h"

#include <QCryptographicHash>
#include <QRegularExpression>

#include <csignal>

namespace {

constexpr int videoBytes = 6000000;

QString titled(int number)
{
    return QStringLiteral("Clip %1 \u52d5\u753b").arg(number);
}

} // namespace

/// The command for people over the built program: real pages, real files.
class tst_RunGet : public QObject
{
    Q_OBJECT

    const QByteArray m_video = QByteArray("\0\0\0\x18"
                                          "ftypisom",
                                          12)
        + testBytes(videoBytes);
    ScriptedServer *m_server = nullptr;
    ProgramRun *m_run = nullptr;

    /// A page for each number, all with one video's bytes but names of their own.
    QString servePageOf(int number)
    {
        const QByteArray digits = QByteArray::number(number);
        const QByteArray title =
            "<meta charset=utf-8><title>" + titled(number).toUtf8() + "</title>";
        m_server->on("/page" + digits, htmlReply(videoPage("/v" + digits + ".mp4", title)));
        m_server->on("/v" + digits + ".mp4", [this](const HttpRequest &request) {
            HttpReply reply = ScriptedServer::rangeReply(request, m_video, "video/mp4");
            reply.headers += qMakePair(QByteArray("ETag"), QByteArray("\"1\""));
            return reply;
        });
        return m_server->address("/page" + digits);
    }

    [[nodiscard]] int downloadsOf(int number) const
    {
        int count = 0;
        const QList<HttpRequest> all =
            m_server->requestsFor("/v" + QByteArray::number(number) + ".mp4");
        for (const HttpRequest &request : all)
            count += isFromDownloader(request) ? 1 : 0;
        return count;
    }

    /// Starts the command in the run's folder, as the run would start the program.
    void start(const QStringList &arguments)
    {
        m_run->setEnvironment(option("CLIPWEIR_PROGRAM"), ProgramRun::program());
        m_run->startOther(option(CLIPWEIR_GET),
                          QStringList{option("-d"), m_run->path(option("out"))} + arguments);
    }

    int get(const QStringList &arguments)
    {
        start(arguments);
        return m_run->waitForEnd() && m_run->endedNormally() ? m_run->exitCode() : -1;
    }

    [[nodiscard]] QStringList files() const { return filesBelow(m_run->path(option("out"))); }

private slots:
    void init()
    {
        m_server = new ScriptedServer(this);
        m_run = new ProgramRun;
    }

    void cleanup()
    {
        delete m_run;
        m_run = nullptr;
        delete m_server;
        m_server = nullptr;
    }

    void aPage()
    {
        QCOMPARE(get({servePageOf(1)}), 0);
        QCOMPARE(files(), QStringList{titled(1) + option(".mp4")});
        QCOMPARE(m_run->fileContent(option("out/") + titled(1) + option(".mp4")), m_video);
    }

    void severalPages()
    {
        const QString refused = servePageOf(3);
        m_server->on("/v3.mp4", [this](const HttpRequest &request) {
            return isFromDownloader(request) ? replyOf("no", 403) : mediaReply(m_video);
        });
        QCOMPARE(get({option("--json"), option("-j"), option("3"), option("--per-host"),
                      option("3"), servePageOf(1), servePageOf(2), refused}),
                 33);
        QCOMPARE(files().filter(option("Clip")).size(), 2);
        const QList<QJsonObject> events = EventCheck::eventsOf(m_run->standardOutput());
        const QByteArray sum =
            QCryptographicHash::hash(m_video, QCryptographicHash::Sha256).toHex();
        int sums = 0;
        for (const QJsonObject &event : events)
            sums += event.value(option("sha256")).toString().toLatin1() == sum ? 1 : 0;
        QCOMPARE(sums, 2);
        QCOMPARE(events.constLast().value(option("arrived")).toInt(), 2);
    }

    void aStoppedPageGoesOn_data()
    {
        QTest::addColumn<int>("signal");
        QTest::newRow("Ctrl-C") << SIGINT;
        QTest::newRow("killed") << SIGKILL;
    }

    void aStoppedPageGoesOn()
    {
        QFETCH(int, signal);
        const QString page = servePageOf(1);
        bool isSlow = true;
        QByteArray range;
        m_server->on("/v1.mp4", [&](const HttpRequest &request) {
            HttpReply reply = ScriptedServer::rangeReply(request, m_video, "video/mp4");
            reply.headers += qMakePair(QByteArray("ETag"), QByteArray("\"1\""));
            if (isFromDownloader(request) && isSlow) {
                reply.pieceBytes = 100000;
                reply.pieceDelayMs = 100;
            } else if (isFromDownloader(request) && range.isEmpty()) {
                range = request.header("Range");
            }
            return reply;
        });
        start({page});
        // What a killed run knows of its part it writes down a few times a second.
        const auto isPartKnown = [this] {
            const QStringList journals = files().filter(option(".part.json"));
            const QByteArray text = m_run->fileContent(option("out/") + journals.value(0));
            return EventCheck::eventsOf(text.simplified()).value(0).value(option("bytes")).toInt()
                > 0;
        };
        QTRY_VERIFY_WITH_TIMEOUT(isPartKnown(), 30000);
        ::kill(static_cast<pid_t>(m_run->process().processId()), signal);
        QVERIFY(m_run->waitForEnd());
        if (signal == SIGINT)
            QCOMPARE(m_run->exitCode(), 40);
        isSlow = false;
        // The run of a killed command ends by itself; the new one waits for that.
        QCOMPARE(get({page}), 0);
        QCOMPARE(files(), QStringList{titled(1) + option(".mp4")});
        QCOMPARE(m_run->fileContent(option("out/") + titled(1) + option(".mp4")), m_video);
        QVERIFY2(range.startsWith("bytes=") && range != "bytes=0-", range);
    }

    void onlyTheRestIsFetched()
    {
        constexpr int count = 6;
        QStringList wanted{option("--archive"), m_run->path(option("done")), option("-j"),
                           option("2")};
        for (int i = 0; i < count; ++i)
            wanted += servePageOf(i);
        start(wanted);
        const auto arrived = [this] {
            return files().filter(QRegularExpression(option("^Clip"))).size();
        };
        QTRY_VERIFY_WITH_TIMEOUT(arrived() >= 2, 60000);
        ::kill(static_cast<pid_t>(m_run->process().processId()), SIGKILL);
        QVERIFY(m_run->waitForEnd());
        const QByteArray done = m_run->fileContent(option("done"));
        m_server->clearRequests();
        QCOMPARE(get(wanted), 0);
        QCOMPARE(arrived(), count);
        QCOMPARE(files().size(), count);
        for (int i = 0; i < count; ++i) {
            const bool wasDone = done.contains("/page" + QByteArray::number(i) + '\n');
            QVERIFY(!wasDone || downloadsOf(i) == 0);
            QCOMPARE(m_run->fileContent(option("out/") + titled(i) + option(".mp4")), m_video);
        }
    }

    void aSimulation()
    {
        QCOMPARE(get({option("--simulate"), servePageOf(1)}), 0);
        const QByteArray told = m_run->standardOutput();
        QVERIFY2(told.contains("would fetch") && told.contains("/v1.mp4"), told);
        QVERIFY(!QFile::exists(m_run->path(option("out"))));
    }

    void cookiesReachThePage()
    {
        const QByteArray cookies = "127.0.0.1\tFALSE\t/\tFALSE\t0\tname\tvalue\n";
        writeFile(m_run->path(option("mine.txt")), cookies);
        const QString page = servePageOf(1);
        QCOMPARE(get({option("--cookies"), m_run->path(option("mine.txt")), page}), 0);
        QCOMPARE(m_server->requestsFor("/page1").value(0).header("Cookie"),
                 QByteArray("name=value"));
        QCOMPARE(m_run->fileContent(option("mine.txt")), cookies);
    }

    void anAbsentPage()
    {
        QCOMPARE(get({uniquePageUrl(), option("--retries"), option("0"), option("--timeout"),
                      option("3")}),
                 32);
        QVERIFY(files().isEmpty());
    }
};

CLIPWEIR_TEST_MAIN(tst_RunGet)
#include "tst_run_get.moc"
