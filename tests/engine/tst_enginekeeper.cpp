#include "EngineProcess.h"
#include "Landlock.h"
#include "TestMain.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSignalSpy>
#include <QTemporaryDir>

#include <array>
#include <csignal>

#include <sched.h>

#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr qint64 enoughBytes = qint64(1) << 30;

EngineKeeper::Setup setupFor(const QByteArray &program)
{
    EngineKeeper::Setup setup;
    setup.program = program;
    setup.arguments = {"--one", "--two=2 and more"};
    setup.memoryBytes = enoughBytes;
    return setup;
}

/// The processes whose command line begins with the fake engine's path, those in other namespaces
/// included.
int engineProcesses()
{
    int count = 0;
    const QStringList folders = QDir(QStringLiteral("/proc")).entryList(QDir::Dirs);
    for (const QString &folder : folders) {
        QFile file(QStringLiteral("/proc/%1/cmdline").arg(folder));
        if (file.open(QIODevice::ReadOnly) && file.readAll().startsWith(FAKE_ENGINE))
            ++count;
    }
    return count;
}

/// A run that may make no namespaces: passes on what the engine answers, and ends.
[[noreturn]] void runWithoutNamespaces(int answers)
{
    const auto write = [](const char *path, const QByteArray &text) {
        QFile file(QString::fromLatin1(path));
        return file.open(QIODevice::WriteOnly) && file.write(text) == text.size();
    };
    const QByteArray user = QByteArray::number(::geteuid());
    if (::unshare(CLONE_NEWUSER) != 0 || !write("/proc/self/uid_map", user + ' ' + user + " 1")
        || !write("/proc/sys/user/max_user_namespaces", "0"))
        ::_exit(1);
    const auto keeper = EngineKeeper::fork(setupFor(FAKE_ENGINE));
    keeper->begin();
    static constexpr char words[] = "arguments\0home\0read /etc/shadow\0listen\0end";
    while (::write(keeper->writeFd(), words, sizeof words) != ssize_t(sizeof words))
        ::usleep(1000);
    std::array<char, 4096> text{};
    for (;;) {
        const ssize_t count = ::read(keeper->readFd(), text.data(), text.size());
        if (count == 0 || (count > 0 && ::write(answers, text.data(), size_t(count)) != count))
            break;
        ::usleep(1000);
    }
    const bool isGone = keeper->end() == EngineKeeper::End::OfItself;
    ::_exit(isGone ? 0 : 2);
}

} // namespace

/// The engine's process: how it is started, spoken with, confined and ended.
class tst_EngineKeeper : public QObject
{
    Q_OBJECT

    static std::unique_ptr<EngineProcess> start(qint64 memoryBytes = enoughBytes)
    {
        EngineKeeper::Setup setup = setupFor(FAKE_ENGINE);
        setup.memoryBytes = memoryBytes;
        return std::make_unique<EngineProcess>(EngineKeeper::fork(setup));
    }

    /// What the engine says to a message; empty when it says nothing.
    static QByteArray answerTo(EngineProcess &engine, const QByteArray &message)
    {
        QSignalSpy received(&engine, &EngineProcess::received);
        engine.send(message);
        if (received.isEmpty() && !received.wait(20000))
            return {};
        return received.first().first().toByteArray();
    }

    /// Why the engine has ended.
    static QString endOf(QSignalSpy &ended)
    {
        return !ended.isEmpty() || ended.wait(20000) ? ended.first().first().toString()
                                                     : QStringLiteral("it has not ended");
    }

private slots:
    void cleanup() { QTRY_COMPARE(engineProcesses(), 0); }

    void messagesComeWholeAndInOrder()
    {
        const auto engine = start();
        QSignalSpy received(engine.get(), &EngineProcess::received);
        for (int i = 0; i < 500; ++i)
            engine->send("echo " + QByteArray::number(i));
        engine->send("long 3000000");
        engine->send("echo last");
        QTRY_COMPARE_WITH_TIMEOUT(received.size(), 502, 30000);
        for (int i = 0; i < 500; ++i)
            QCOMPARE(received.at(i).first().toByteArray(), QByteArray::number(i));
        QCOMPARE(received.at(500).first().toByteArray(), QByteArray(3000000, 'x'));
        QCOMPARE(received.at(501).first().toByteArray(), QByteArray("last"));
    }

    /// A receiver may wait for the answer to another message.
    void aReceiverMayWaitForMore()
    {
        const auto engine = start();
        QByteArrayList heard;
        bool hasAsked = false;
        connect(engine.get(), &EngineProcess::received, this, [&](const QByteArray &message) {
            heard += message;
            if (hasAsked)
                return;
            hasAsked = true;
            engine->send("echo inner");
            QVERIFY(
                engine->waitFor(std::chrono::seconds(20), [&] { return heard.contains("inner"); }));
        });
        for (const char *const message : {"echo 1", "echo 2", "long 200000", "echo 3"})
            engine->send(message);
        QTRY_COMPARE_WITH_TIMEOUT(heard.size(), 5, 20000);
        QCOMPARE(heard.at(0), QByteArray("1"));
        QCOMPARE(heard.at(4), QByteArray("inner"));
    }

    void aReceiverMayEndTheEngine()
    {
        const auto engine = start();
        int count = 0;
        connect(engine.get(), &EngineProcess::received, this, [&] {
            ++count;
            engine->end();
        });
        for (int i = 0; i < 100; ++i)
            engine->send("echo x");
        QTRY_COMPARE(count, 1);
        QCOMPARE(engineProcesses(), 0);
        engine->send("echo x"); // into nothing
        QTest::qWait(0);
        QCOMPARE(count, 1);
    }

    void itGetsItsArgumentsAndNothingElseIsOpen()
    {
        QFile file(QStringLiteral("/dev/null"));
        QVERIFY(file.open(QIODevice::ReadOnly)); // and is not passed on
        const auto engine = start();
        const QByteArray arguments = answerTo(*engine, "arguments");
        QVERIFY2(arguments.contains("--one\n--two=2 and more\n"), arguments.constData());
        QVERIFY2(arguments.contains("--user-data-dir=/"), arguments.constData());
        QCOMPARE(answerTo(*engine, "open"), QByteArray("0 1 2 3 4 "));
    }

    void noFileOfTheUsersIsWithinReach_data()
    {
        QTest::addColumn<QByteArray>("message");
        QTest::addColumn<bool>("isAllowed");
        QTest::newRow("library") << QByteArray("read /usr/lib/os-release") << true;
        QTest::newRow("own home") << QByteArray("write %HOME%/file") << true;
        QTest::newRow("home") << QByteArray("read %FOLDER%/secret") << false;
        QTest::newRow("write") << QByteArray("write %FOLDER%/new") << false;
        QTest::newRow("shadow") << QByteArray("read /etc/shadow") << false;
        QTest::newRow("program") << QByteArray("write /usr/lib/new") << false;
        QTest::newRow("this process") << QByteArray("read /proc/%PID%/environ") << false;
        QTest::newRow("listen") << QByteArray("listen") << false;
    }

    void noFileOfTheUsersIsWithinReach()
    {
        QFETCH(QByteArray, message);
        QFETCH(bool, isAllowed);
        // Not below the engine's own folder, which it may read.
        QTemporaryDir folder(QFileInfo(QStringLiteral(FAKE_ENGINE)).path()
                             + QStringLiteral("/../secretsXXXXXX"));
        QFile secret(folder.filePath(QStringLiteral("secret")));
        QVERIFY(secret.open(QIODevice::WriteOnly));
        const auto engine = start();
        message.replace("%FOLDER%", folder.path().toUtf8());
        message.replace("%PID%", QByteArray::number(::getpid()));
        message.replace("%HOME%", answerTo(*engine, "home"));
        const QByteArray outcome = answerTo(*engine, message);
        QVERIFY(!outcome.isEmpty());
        QCOMPARE(outcome == "done", isAllowed);
    }

    void allThatItHasStartedEndsWithIt()
    {
        const auto engine = start();
        engine->send("children");
        QCOMPARE(answerTo(*engine, "echo ready"), QByteArray("ready"));
        QCOMPARE(engineProcesses(), 3);
        engine->end();
        QCOMPARE(engineProcesses(), 0);
    }

    void itsEndIsTold_data()
    {
        QTest::addColumn<QByteArray>("message");
        QTest::addColumn<QString>("reason");
        QTest::newRow("end") << QByteArray("end") << QStringLiteral("it has ended");
        QTest::newRow("crash") << QByteArray("die") << QStringLiteral("it has ended");
    }

    void itsEndIsTold()
    {
        QFETCH(QByteArray, message);
        const auto engine = start();
        QSignalSpy ended(engine.get(), &EngineProcess::ended);
        engine->send("children");
        engine->send(message);
        QTEST(endOf(ended), "reason");
        QCOMPARE(engineProcesses(), 0);
        QCOMPARE(ended.size(), 1);
    }

    void oneThatTakesTooMuchMemoryIsEnded()
    {
        const auto engine = start(qint64(256) << 20);
        QSignalSpy ended(engine.get(), &EngineProcess::ended);
        engine->send("memory");
        QCOMPARE(endOf(ended), QStringLiteral("it takes more memory than it may"));
    }

    void oneThatIsNotThereEndsAtOnce()
    {
        EngineProcess engine(EngineKeeper::fork(setupFor("/nonexistent/engine")));
        QSignalSpy ended(&engine, &EngineProcess::ended);
        QCOMPARE(endOf(ended), QStringLiteral("it cannot be started"));
    }

    void withoutAKeeperItEndsAtOnce()
    {
        EngineProcess engine(nullptr);
        QSignalSpy ended(&engine, &EngineProcess::ended);
        QCOMPARE(endOf(ended), QStringLiteral("it cannot be started"));
    }

    void aKeeperThatIsNeverNeededGoes()
    {
        const auto keeper = EngineKeeper::fork(setupFor(FAKE_ENGINE));
        QVERIFY(keeper);
        QCOMPARE(engineProcesses(), 0);
        QCOMPARE(keeper->end(), EngineKeeper::End::Asked);
        QCOMPARE(::waitpid(-1, nullptr, WNOHANG), -1); // no child is left
    }

    /// What else confines the engine holds.
    void whereNamespacesAreForbiddenItRunsWithoutThem()
    {
        std::array<int, 2> ends{};
        QCOMPARE(::pipe(ends.data()), 0);
        const pid_t run = ::fork();
        if (run == 0) {
            ::close(ends[0]);
            runWithoutNamespaces(ends[1]);
        }
        ::close(ends[1]);
        QFile answers;
        QVERIFY(answers.open(ends[0], QIODevice::ReadOnly, QFileDevice::AutoCloseHandle));
        const QByteArrayList said = answers.readAll().split('\0');
        int status = 0;
        ::waitpid(run, &status, 0);
        QCOMPARE(status, 0);
        QVERIFY(said.size() >= 4);
        QVERIFY2(said.at(0).contains("--no-sandbox\n"), said.at(0).constData());
        const QByteArray home = said.at(1);
        QVERIFY(!QDir(QString::fromUtf8(home)).exists());
        QVERIFY2(home.startsWith(QDir::tempPath().toUtf8() + "/engine-"), home.constData());
        QVERIFY2(Landlock::offeredVersion() == 0 || said.at(2) == "Permission denied",
                 said.at(2).constData());
        QCOMPARE(said.at(3), QByteArray("Operation not permitted"));
    }

    /// Whatever the run dies of.
    void theEngineEndsWithTheRun()
    {
        std::array<int, 2> ends{};
        QCOMPARE(::pipe(ends.data()), 0);
        const pid_t run = ::fork();
        if (run == 0) {
            const auto keeper = EngineKeeper::fork(setupFor(FAKE_ENGINE));
            keeper->begin();
            const QByteArray message("children\0echo ready", 20);
            while (::write(keeper->writeFd(), message.constData(), 20) != 20) { }
            char c = 0;
            while (::read(keeper->readFd(), &c, 1) != 1)
                ::usleep(1000);
            [[maybe_unused]] const ssize_t count = ::write(ends[1], &c, 1);
            for (;;)
                ::pause();
        }
        char c = 0;
        QCOMPARE(::read(ends[0], &c, 1), ssize_t(1));
        QCOMPARE(engineProcesses(), 3);
        ::kill(run, SIGKILL);
        ::waitpid(run, nullptr, 0);
        ::close(ends[0]);
        ::close(ends[1]);
        QTRY_COMPARE(engineProcesses(), 0);
    }
};

CLIPWEIR_TEST_MAIN(tst_EngineKeeper)
#include "tst_enginekeeper.moc"
