// Whole runs in which the engine itself is made to break out: it loads a plug-in, as it would for
// any page, and the plug-in tries what code of a hostile page would.

#include "ConfinedRun.h"
#include "ExpectedErrors.h"
#include "TestMain.h"

#include <QSystemSemaphore>

namespace {

/// A page that asks for a plug-in, so that the engine looks at those that are there.
QByteArray intruderPage()
{
    return "<html><body><script>navigator.plugins.length</script>"
           "<embed type='application/x-intruder'></body></html>";
}

void addIntruder(ConfinedRun &run)
{
    run.set({{option("MOZ_PLUGIN_PATH"), option(INTRUDER_DIR)}});
}

QByteArray differencesIn(const QByteArray &report, const Errors &expected)
{
    return differences(errorsOf(report), expected);
}

QList<QByteArray> linesOf(const QByteArray &text)
{
    QList<QByteArray> lines = text.split('\n');
    lines.removeAll(QByteArray());
    return lines;
}

} // namespace

class tst_RunSandbox : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void theEngineIsRefused();
    void withoutASandboxAllOfItSucceeds();
    void behindAProxyNothingElseIsConnectedTo();
    void everyThreadHasTheFilter_data();
    void everyThreadHasTheFilter();
    void aLockThatVanishesIsNotMissed_data();
    void aLockThatVanishesIsNotMissed();
    void otherModesAreNotConfined();
    void gapsGoToTheLog_data();
    void gapsGoToTheLog();

private:
    std::unique_ptr<ScriptedServer> m_server;
    QString m_page;
    const QByteArray m_video = testBytes(6 * 1024 * 1024);
};

void tst_RunSandbox::init()
{
    m_server = std::make_unique<ScriptedServer>();
    m_page = m_server->address("/intruder");
    m_server->on("/intruder", htmlReply(intruderPage()));
}

void tst_RunSandbox::theEngineIsRefused()
{
    ConfinedRun run;
    addIntruder(run);
    QVERIFY(run->run({option("--url"), m_page, option("--timeout"), option("1"), option("--saveto"),
                      run.path("out/v.mp4")}));
    QCOMPARE(run->errorOutput(),
             parsingLine(m_page) + fixedLine("parse failed") + fixedLine("detach sharememory"));

    const int version = Landlock::offeredVersion();
    QCOMPARE(differencesIn(run.report("engine"), expectedErrors(version, true)), QByteArray());
    QCOMPARE(differencesIn(run.report("thread"), expectedErrors(version, true)), QByteArray());
    QCOMPARE(readFile(run.path("outside/kept")), QByteArray("kept"));

    const QList<QByteArray> threads = linesOf(run.report("everyone"));
    QVERIFY2(threads.size() > 1, run.report("everyone").constData());
    QCOMPARE(threads.count(QByteArray::number(version > 0 ? EACCES : 0)), threads.size());
}

/// So the attempts of the test above fail because of the sandbox.
void tst_RunSandbox::withoutASandboxAllOfItSucceeds()
{
    ConfinedRun run;
    addIntruder(run);
    QVERIFY(run->run({option("--url"), m_page, option("--timeout"), option("1"), option("--saveto"),
                      run.path("out/v.mp4"), option("--nosandbox")}));
    QCOMPARE(run->errorOutput(),
             parsingLine(m_page) + fixedLine("parse failed") + fixedLine("detach sharememory"));
    QCOMPARE(differencesIn(run.report("engine"), expectedErrors(0, false)), QByteArray());
    QCOMPARE(differencesIn(run.report("thread"), expectedErrors(0, false)), QByteArray());
    const QList<QByteArray> threads = linesOf(run.report("everyone"));
    QVERIFY(threads.size() > 1);
    QCOMPARE(threads.count("0"), threads.size());
}

void tst_RunSandbox::behindAProxyNothingElseIsConnectedTo()
{
    ScriptedServer proxy;
    proxy.onOther([](const HttpRequest &) { return htmlReply(intruderPage()); });
    ConfinedRun run;
    addIntruder(run);
    QVERIFY(run->run({option("--url"), m_page, option("--timeout"), option("1"), option("--saveto"),
                      run.path("out/v.mp4"), option("--proxy"),
                      option("3:127.0.0.1:%1").arg(proxy.port())}));
    QCOMPARE(run->errorOutput(),
             parsingLine(m_page) + fixedLine("parse failed") + fixedLine("detach sharememory"));
    const Errors expected = expectedErrorsBehindProxy(Landlock::offeredVersion(), true);
    QCOMPARE(differencesIn(run.report("engine"), expected), QByteArray());
    QCOMPARE(differencesIn(run.report("thread"), expected), QByteArray());
    QVERIFY(!proxy.requests().isEmpty());
}

void tst_RunSandbox::everyThreadHasTheFilter_data()
{
    QTest::addColumn<QStringList>("options");
    QTest::addColumn<QByteArray>("status");
    QTest::newRow("inside") << QStringList() << QByteArray("NoNewPrivs: 1 Seccomp: 2 ");
    QTest::newRow("outside") << QStringList{option("--nosandbox")}
                             << QByteArray("NoNewPrivs: 0 Seccomp: 0 ");
}

/// Looked at from the host's side while the engine plays a video, which takes the most threads.
void tst_RunSandbox::everyThreadHasTheFilter()
{
    QFETCH(QStringList, options);
    QFETCH(QByteArray, status);
    HttpReply media = mediaReply(m_video);
    media.holdAfterBytes = 1024 * 1024;
    m_server->on("/v.mp4", media);
    m_server->on("/intruder", htmlReply(videoPage("/v.mp4")));

    ConfinedRun run;
    run->start(QStringList{option("--url"), m_page, option("--saveto"), run.path("out/v.mp4")}
               + options);
    QTRY_VERIFY_WITH_TIMEOUT(!m_server->requestsFor("/v.mp4").isEmpty(), 30000);

    const QDir tasks(option("/proc/%1/task").arg(run->process().processId()));
    const QStringList ids = tasks.entryList(QDir::Dirs | QDir::NoDotAndDotDot);
    QVERIFY(ids.size() > 2);
    int looked = 0;
    for (const QString &id : ids) {
        QByteArray found;
        for (const QByteArray &line :
             readFile(tasks.filePath(id + option("/status"))).split('\n')) {
            if (line.startsWith("NoNewPrivs:") || line.startsWith("Seccomp:"))
                found += line.simplified() + ' ';
        }
        if (found.isEmpty())
            continue; // the thread has ended meanwhile
        QCOMPARE(found, status);
        ++looked;
    }
    QVERIFY(looked > 2);
    run->process().terminate();
    QVERIFY(run->waitForEnd());
}

void tst_RunSandbox::aLockThatVanishesIsNotMissed_data()
{
    QTest::addColumn<QStringList>("options");
    QTest::newRow("inside") << QStringList();
    QTest::newRow("outside") << QStringList{option("--nosandbox")};
}

/// Taking the stop flag's lock out of the system leaves the run within reach, and it leaves
/// nothing.
void tst_RunSandbox::aLockThatVanishesIsNotMissed()
{
    QFETCH(QStringList, options);
    ConfinedRun run;
    const QByteArray folderBefore = qgetenv("TMPDIR");
    qputenv("TMPDIR", QFile::encodeName(run.path("temporary"))); // the key files' place
    run->start(QStringList{option("--url"), m_page, option("--saveto"), run.path("out/v.mp4")}
               + options);
    const bool isStarted = run->waitForOutput("parsing...");
    const QString key = option("SM_") + pageHash(m_page);
    {
        const QSystemSemaphore lock(key, 1,
                                    QSystemSemaphore::Create); // the owner now: gone with it
    }
    const qint64 maker = run->process().processId();
    const bool isAsked = askToExit(m_page);
    const bool hasEnded = run->waitForEnd();
    qputenv("TMPDIR", folderBefore);
    if (folderBefore.isEmpty())
        qunsetenv("TMPDIR");

    QVERIFY(isStarted && isAsked && hasEnded);
    QCOMPARE(run->errorOutput(),
             parsingLine(m_page) + fixedLine("exiting...") + fixedLine("detach sharememory"));
    QCOMPARE(QDir(run.path("temporary")).entryList(QDir::Files), QStringList());
    constexpr int makerColumn = 4;
    for (const QByteArray &block : linesOf(readFile(option("/proc/sysvipc/shm"))))
        QVERIFY2(block.simplified().split(' ').value(makerColumn).toLongLong() != maker,
                 block.constData());
}

void tst_RunSandbox::otherModesAreNotConfined()
{
    ConfinedRun run;
    addIntruder(run);
    QVERIFY(run->run({option("--info")}));
    QTRY_VERIFY(!run.report("engine").isEmpty());
    QCOMPARE(differencesIn(run.report("engine"), expectedErrors(0, false)), QByteArray());
}

void tst_RunSandbox::gapsGoToTheLog_data()
{
    QTest::addColumn<QString>("lacks");
    QTest::addColumn<QList<QByteArray>>("gaps");
    QTest::newRow("nothing is missing") << QString() << QList<QByteArray>();
    QTest::newRow("no Landlock") << option("landlock") << QList<QByteArray>{"(no Landlock)"};
    QTest::newRow("an older Landlock")
        << option("landlock-above-4")
        << QList<QByteArray>{"devices may be controlled", "signals may be sent"};
    QTest::newRow("no filter") << option("seccomp") << QList<QByteArray>{"(no seccomp)"};
    QTest::newRow("neither") << option("landlock seccomp")
                             << QList<QByteArray>{"(no Landlock)", "(no seccomp)"};
}

void tst_RunSandbox::gapsGoToTheLog()
{
    QFETCH(QString, lacks);
    QFETCH(QList<QByteArray>, gaps);
    for (const bool isLogged : {true, false}) {
        ConfinedRun run;
        run.set(kernelVariables(option(OLDER_KERNEL), lacks));
        QStringList arguments{option("--url"),     m_page,
                              option("--timeout"), option("0"),
                              option("--saveto"),  run.path("out/v.mp4")};
        if (isLogged)
            arguments += option("--log");
        QVERIFY(run->run(arguments));
        QCOMPARE(run->errorOutput(),
                 parsingLine(m_page) + fixedLine("parse failed") + fixedLine("detach sharememory"));
        QCOMPARE(run->exitCode(), 0);
        const QByteArray log = readFile(run.path("out/logs/") + pageHash(m_page) + option(".log"));
        QCOMPARE(log.isEmpty(), !isLogged);
        QCOMPARE(log.count("Warning: the page run is confined in part only: "),
                 isLogged ? gaps.size() : 0);
        for (const QByteArray &gap : qAsConst(gaps))
            QCOMPARE(log.contains(gap), isLogged);
    }
}

CLIPWEIR_TEST_MAIN(tst_RunSandbox)
#include "tst_run_sandbox.moc"
