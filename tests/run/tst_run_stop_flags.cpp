#include "PageRun.h"
#include "TestMain.h"

#include <QSharedMemory>

#include <csignal>

#include <sys/ipc.h>
#include <sys/sem.h>

namespace {

/// The files that stand for a page's stop flag and its lock in the system.
QString blockFile(const QString &page)
{
    return QSharedMemory(QStringLiteral("SM_") + pageHash(page)).nativeKey();
}

QString lockFile(const QString &page)
{
    return blockFile(page).replace(QLatin1String("sharedmemory"), QLatin1String("systemsem"));
}

int lockId(const QString &page)
{
    return ::semget(::ftok(QFile::encodeName(lockFile(page)).constData(), 'Q'), 0, 0);
}

} // namespace

/// What runs leave in the system to be stopped by, beside those of other runs and after a kill.
class tst_RunStopFlags : public QObject
{
    Q_OBJECT

private slots:
    void aRequestStopsThatRunAlone()
    {
        ScriptedServer server;
        server.hold("/first");
        server.hold("/second");
        const QString firstPage = server.address("/first");
        const QString secondPage = server.address("/second");
        ProgramRun first;
        first.start({option("--url"), firstPage});
        QVERIFY(first.waitForOutput("parsing..."));
        ProgramRun second;
        second.setEnvironment(option("LD_PRELOAD"), option(SAME_NUMBERS));
        second.setEnvironment(option("ASAN_OPTIONS"), option("verify_asan_link_order=0"));
        second.setEnvironment(option("SAME_NUMBER_AS"), blockFile(firstPage));
        second.start({option("--url"), secondPage});
        QVERIFY(second.waitForOutput("parsing..."));

        QVERIFY(askToExit(firstPage));
        QVERIFY(first.waitForEnd(20000));
        const QByteArray exiting = fixedLine("exiting...") + fixedLine("detach sharememory");
        QCOMPARE(first.errorOutput(), parsingLine(firstPage) + exiting);
        QCOMPARE(second.errorOutput(), parsingLine(secondPage));
        QVERIFY(askToExit(secondPage));
        QVERIFY(second.waitForEnd(20000));
        QCOMPARE(second.errorOutput(), parsingLine(secondPage) + exiting);
        for (const QString &page : {firstPage, secondPage})
            QVERIFY(!QFile::exists(blockFile(page)) && !QFile::exists(lockFile(page)));
    }

    void theNextRunTakesAwayWhatAKilledOneLeft_data()
    {
        QTest::addColumn<QStringList>("options");
        QTest::newRow("confined") << QStringList();
        QTest::newRow("without") << QStringList{option("--nosandbox")};
    }

    void theNextRunTakesAwayWhatAKilledOneLeft()
    {
        QFETCH(QStringList, options);
        ScriptedServer server;
        server.hold("/page");
        const QString page = server.address("/page");
        ProgramRun::forgetOtherTests({page});
        QProcess killed;
        killed.start(option(CLIPWEIR_PROGRAM), QStringList{option("--url"), page} + options);
        QByteArray lines;
        QTRY_VERIFY_WITH_TIMEOUT((lines += killed.readAllStandardError()).contains("parsing... \n"),
                                 30000);
        killed.kill();
        QVERIFY(killed.waitForFinished());
        const int lock = lockId(page);
        QVERIFY(lock >= 0);
        QVERIFY(QFile::exists(blockFile(page)));

        ProgramRun run;
        QVERIFY(run.run(QStringList{option("--url"), page, option("--timeout"), option("0")}
                        + options));
        QCOMPARE(run.errorOutput(),
                 fixedLine("detach sharememory") + parsingLine(page) + fixedLine("parse failed")
                     + fixedLine("detach sharememory"));
        QCOMPARE(::semctl(lock, 0, GETVAL), -1);
        QVERIFY(!QFile::exists(blockFile(page)));
        QVERIFY(!QFile::exists(lockFile(page)));
    }

    void theTerminalsEndIsARequestToStop()
    {
        ScriptedServer server;
        server.hold("/page");
        const QString page = server.address("/page");
        ProgramRun run;
        run.start({option("--url"), page, option("--log")});
        QVERIFY(run.waitForOutput("parsing..."));
        QCOMPARE(::kill(static_cast<pid_t>(run.process().processId()), SIGHUP), 0);
        QVERIFY(run.waitForEnd(20000));
        QVERIFY(run.endedNormally());
        QCOMPARE(run.exitCode(), 0);
        QCOMPARE(run.errorOutput(),
                 parsingLine(page) + fixedLine("exiting...") + fixedLine("detach sharememory"));
        QCOMPARE(run.fileContent(csvPath()).count('\n'), 2);
    }

    void aRunThatIsToOutliveTheTerminalDoes()
    {
        ScriptedServer server;
        server.hold("/page");
        const QString page = server.address("/page");
        ProgramRun run;
        run.setLauncher(
            {option("sh"), option("-c"), option("trap '' HUP; exec \"$@\""), option("nohup")});
        run.start({option("--url"), page});
        QVERIFY(run.waitForOutput("parsing..."));
        QFile status(QStringLiteral("/proc/%1/status").arg(run.process().processId()));
        QVERIFY(status.open(QIODevice::ReadOnly));
        const QRegularExpression ignored(option("SigIgn:\\s*([0-9a-f]+)"));
        const QString mask = ignored.match(QString::fromLatin1(status.readAll())).captured(1);
        QVERIFY(mask.toULongLong(nullptr, 16) & (1U << (SIGHUP - 1)));
        QVERIFY(askToExit(page));
        QVERIFY(run.waitForEnd(20000));
        QVERIFY(run.endedNormally());
    }
};

CLIPWEIR_TEST_MAIN(tst_RunStopFlags)
#include "tst_run_stop_flags.moc"
