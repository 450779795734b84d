#include "PageRun.h"
#include "ProgramRun.h"
#include "ScriptedServer.h"
#include "TestFiles.h"
#include "TestMain.h"

#include <QDir>
#include <QFile>

#include <csignal>

namespace {

constexpr int noEngine = 11;

/// The processes of the system whose command line has all of these parts.
QList<pid_t> processesOf(const QByteArrayList &parts)
{
    QList<pid_t> processes;
    const QStringList names = QDir(QStringLiteral("/proc")).entryList(QDir::Dirs);
    for (const QString &name : names) {
        QFile file(QStringLiteral("/proc/%1/cmdline").arg(name));
        if (!file.open(QIODevice::ReadOnly))
            continue;
        const QByteArray words = file.readAll();
        bool hasAll = true;
        for (const QByteArray &part : parts)
            hasAll = hasAll && words.contains(part);
        if (hasAll)
            processes += name.toInt();
    }
    return processes;
}

/// The parent of a process.
pid_t parentOf(pid_t process)
{
    QFile file(QStringLiteral("/proc/%1/stat").arg(process));
    if (!file.open(QIODevice::ReadOnly))
        return 0;
    const QByteArray text = file.readAll();
    return text.mid(text.lastIndexOf(')') + 2).split(' ').value(1).toInt();
}

/// The engine's first process, of those that a run has started.
pid_t engineOf(pid_t program)
{
    const QList<pid_t> engines = processesOf({"--remote-debugging-pipe", "--headless"});
    for (const pid_t engine : engines) {
        for (pid_t process = engine; process > 1; process = parentOf(process)) {
            if (process == program)
                return engine;
        }
    }
    return 0;
}

} // namespace

/// Whole runs over the current engine, and over whichever will do.
class tst_RunEngine : public QObject
{
    Q_OBJECT

    /// Runs a page until it has asked for something, and kills the engine then.
    static QByteArray linesOfRunWithoutEngine(ScriptedServer &server, const QByteArray &sign)
    {
        ProgramRun run;
        run.start({option("--url"), server.address("/page"), option("--engine"), option("chromium"),
                   option("--saveto"), run.path(option("v.mp4"))});
        const bool isSeen =
            QTest::qWaitFor([&] { return !server.requestsFor(sign).isEmpty(); }, 30000);
        const pid_t engine = engineOf(static_cast<pid_t>(run.process().processId()));
        if (!isSeen || engine == 0)
            return "the engine has not come that far";
        ::kill(engine, SIGKILL);
        if (!run.waitForEnd() || run.exitCode() != 0)
            return "the run has not ended in order";
        return withoutProgress(run.errorOutput());
    }

private slots:
    void anEngineThatIsMissingIsTold()
    {
        ScriptedServer server;
        ProgramRun run;
        run.setEnvironment(option("XDG_CONFIG_HOME"), run.folder());
        QFile settings(run.path(option("clipweir.conf")));
        QVERIFY(settings.open(QIODevice::WriteOnly));
        settings.write("[engine]\nchromium=/nonexistent/engine\n");
        settings.close();
        QVERIFY(run.run(
            {option("--url"), server.address("/page"), option("--engine"), option("chromium")}));
        QCOMPARE(run.exitCode(), noEngine);
        QCOMPARE(run.errorOutput(),
                 QByteArray("no page engine is installed at \"/nonexistent/engine\" \n"));
        QVERIFY(server.requests().isEmpty());
    }

    void anEngineThatDiesEndsTheSearch()
    {
        ScriptedServer server;
        server.on("/page", htmlReply("<script>fetch('/sign')</script>"));
        server.hold("/sign");
        QCOMPARE(linesOfRunWithoutEngine(server, "/sign"),
                 parsingLine(server.address("/page")) + fixedLine("parse failed")
                     + fixedLine("detach sharememory"));
    }

    void whatWasFoundBeforeIsBrought()
    {
        const QByteArray video = testBytes(3 << 20);
        ScriptedServer server;
        server.on("/page",
                  htmlReply("<script>fetch('/v.mp4').then(() => fetch('/sign'))</script>"));
        server.serve("/v.mp4", video, "video/mp4");
        server.hold("/sign");
        QCOMPARE(linesOfRunWithoutEngine(server, "/sign"),
                 parsingLine(server.address("/page"))
                     + recordLine(server.address("/v.mp4"), video.size(), "mp4")
                     + fixedLine("start download video ...")
                     + fixedLine("video download finished:success")
                     + fixedLine("detach sharememory"));
    }
};

CLIPWEIR_TEST_MAIN(tst_RunEngine)
#include "tst_run_engine.moc"
