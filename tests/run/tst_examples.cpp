#include "ProgramRun.h"
#include "ScriptedServer.h"
#include "TestMain.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTemporaryDir>

#include <csignal>

namespace {

constexpr int videoBytes = 6 * 1024 * 1024; // enough to count as found at the first look
constexpr int runTimeoutMs = 60000;
constexpr int stoppedExitCode = 130;

const QByteArray page = R"(<html><head><title>Pond</title>
<meta property="og:image" content="%1/thumb.png"></head><body><script>
var request = new XMLHttpRequest(); request.open("GET", "/clip.mp4"); request.send();
</script></body></html>)";

} // namespace

/// The example hosts, each run as a user runs it, against the built program.
class tst_Examples : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void capturesAndPrintsTheRecord_data();
    void capturesAndPrintsTheRecord();
    void stopsTheRunOnInterrupt_data();
    void stopsTheRunOnInterrupt();
    void reportsThatNothingWasFound_data();
    void reportsThatNothingWasFound();
    void reportsAProgramThatIsNotThere_data();
    void reportsAProgramThatIsNotThere();

private:
    static void addHosts();
    void start(const QStringList &arguments, const QString &program);
    void startRun(const QStringList &options);
    QByteArray output();
    bool waitForEnd();
    bool waitForOutput(const QByteArray &text);
    QJsonObject printedRecord();
    QString path(const QString &name) const;
    QByteArray contentOf(const QString &name) const;

    std::unique_ptr<QTemporaryDir> m_folder;
    std::unique_ptr<ScriptedServer> m_server;
    std::unique_ptr<QProcess> m_host;
    QByteArray m_output;
    QByteArray m_video;
};

void tst_Examples::init()
{
    m_folder = std::make_unique<QTemporaryDir>();
    m_server = std::make_unique<ScriptedServer>();
    m_output.clear();
    m_video.clear();
    for (int i = 0; m_video.size() < videoBytes; ++i)
        m_video += QByteArray::number(i);
    m_video.truncate(videoBytes);

    QByteArray text = page;
    text.replace("%1", m_server->address("").toUtf8());
    m_server->serve("/", text, "text/html");
    m_server->serve("/thumb.png", "picture", "image/png");
    m_server->on("/clip.mp4", [this](const HttpRequest &) {
        HttpReply reply;
        reply.headers = {{"Content-Type", "video/mp4"}};
        reply.body = m_video;
        // The run ends with the video; the thumbnail's end is to come first.
        reply.delayMs = m_server->requestsFor("/clip.mp4").size() == 1 ? 0 : 1500; // the page's own
        return reply;
    });
}

void tst_Examples::cleanup()
{
    if (m_host->state() != QProcess::NotRunning) {
        m_host->kill();
        m_host->waitForFinished();
    }
}

void tst_Examples::addHosts()
{
    QTest::addColumn<QStringList>("host");
    QTest::newRow("C++") << QStringList{QStringLiteral(EXAMPLE_HOST)};
    QTest::newRow("Python") << QStringList{QStringLiteral("python3"),
                                           QStringLiteral(EXAMPLES_DIR "/host.py")};
}

void tst_Examples::start(const QStringList &arguments, const QString &program)
{
    QFETCH(QStringList, host);
    ProgramRun::forgetOtherTests(arguments);
    m_host = std::make_unique<QProcess>();
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("CLIPWEIR_COOKIES"), path(QStringLiteral("cookies.txt")));
    m_host->setProcessEnvironment(environment);
    m_host->setWorkingDirectory(m_folder->path());
    m_host->setProcessChannelMode(QProcess::MergedChannels);
    m_host->start(host.first(), host.mid(1) << program << arguments);
}

void tst_Examples::startRun(const QStringList &options)
{
    const QStringList arguments{m_server->address("/"), QStringLiteral("--saveto"),
                                path(QStringLiteral("pond.mp4"))};
    start(arguments + options, QStringLiteral(CLIPWEIR_PROGRAM));
}

QByteArray tst_Examples::output()
{
    m_output += m_host->readAll();
    return m_output;
}

bool tst_Examples::waitForEnd()
{
    return QTest::qWaitFor([this] { return m_host->state() == QProcess::NotRunning; },
                           runTimeoutMs);
}

bool tst_Examples::waitForOutput(const QByteArray &text)
{
    return QTest::qWaitFor([this, &text] { return output().contains(text); }, runTimeoutMs);
}

QJsonObject tst_Examples::printedRecord()
{
    const int start = output().indexOf("{\n");
    const int end = output().lastIndexOf('}');
    return QJsonDocument::fromJson(output().mid(start, end - start + 1)).object();
}

QString tst_Examples::path(const QString &name) const
{
    return m_folder->filePath(name);
}

QByteArray tst_Examples::contentOf(const QString &name) const
{
    QFile file(path(name));
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

void tst_Examples::capturesAndPrintsTheRecord_data()
{
    addHosts();
}

void tst_Examples::capturesAndPrintsTheRecord()
{
    startRun({QStringLiteral("--thumb")});
    QVERIFY2(waitForEnd(), output().constData());
    QVERIFY2(output().contains("] 100% of 6291456 bytes"), output().constData());
    QVERIFY(output().contains("\nvideo: success\n"));
    QVERIFY(output().contains("\nthumb: success\n"));
    QCOMPARE(m_host->exitCode(), 0);

    const QJsonObject record = printedRecord();
    QCOMPARE(record.value(QStringLiteral("title")).toString(), QStringLiteral("Pond"));
    QCOMPARE(record.value(QStringLiteral("selectedVideo")).toInt(-1), 0);
    const QJsonObject file = record.value(QStringLiteral("fileList")).toArray().at(0).toObject();
    QCOMPARE(file.value(QStringLiteral("videoUrl")).toString(), m_server->address("/clip.mp4"));
    QCOMPARE(file.value(QStringLiteral("nSize")).toInt(), videoBytes);

    QVERIFY(contentOf(QStringLiteral("pond.mp4")) == m_video);
}

void tst_Examples::stopsTheRunOnInterrupt_data()
{
    addHosts();
}

void tst_Examples::stopsTheRunOnInterrupt()
{
    HttpReply reply;
    reply.body = m_video;
    reply.headers = {{"Content-Type", "video/mp4"}};
    reply.pieceBytes = 64 * 1024;
    reply.pieceDelayMs = 100; // leaves ten seconds to stop it
    m_server->on("/clip.mp4", reply);

    startRun({});
    QVERIFY2(waitForOutput("[##"), output().constData());
    QCOMPARE(::kill(static_cast<pid_t>(m_host->processId()), SIGINT), 0);
    QVERIFY2(waitForEnd(), output().constData());
    QVERIFY2(output().endsWith("stopped\n"), output().constData());
    QCOMPARE(m_host->exitCode(), stoppedExitCode);
    QCOMPARE(printedRecord().value(QStringLiteral("title")).toString(), QStringLiteral("Pond"));
    const QByteArray kept = contentOf(QStringLiteral("pond.mp4"));
    QVERIFY(!kept.isEmpty() && kept.size() < m_video.size());
    QVERIFY(m_video.startsWith(kept));
}

void tst_Examples::reportsThatNothingWasFound_data()
{
    addHosts();
}

void tst_Examples::reportsThatNothingWasFound()
{
    m_server->serve("/", "<html><body>nothing here</body></html>", "text/html");
    startRun({QStringLiteral("--timeout"), QStringLiteral("1")});
    QVERIFY2(waitForEnd(), output().constData());
    QVERIFY2(output().contains("no video was found\n"), output().constData());
    QCOMPARE(m_host->exitCode(), 1);
}

void tst_Examples::reportsAProgramThatIsNotThere_data()
{
    addHosts();
}

void tst_Examples::reportsAProgramThatIsNotThere()
{
    start({m_server->address("/")}, path(QStringLiteral("nobody")));
    QVERIFY2(waitForEnd(), output().constData());
    QVERIFY2(output().contains("nobody does not start"), output().constData());
    QCOMPARE(m_host->exitCode(), 1);
}

CLIPWEIR_TEST_MAIN(tst_Examples)
#include "tst_examples.moc"
