// Confinement is for good, so every test enters it in a process of its own: this program again,
// which plays the child when SANDBOX_CHILD is set.

#include "Attempts.h"
#include "ConfinedPlaces.h"
#include "ExpectedErrors.h"
#include "Sandbox.h"
#include "TestMain.h"

#include <QProcess>

#include <atomic>
#include <cstdio>
#include <thread>

#include <fcntl.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>

namespace {

QString u(const char *text)
{
    return QString::fromUtf8(text);
}

struct Call
{
    const char *name;
    long number;
};

// With the arguments that they get here each would fail even if it were let through.
constexpr Call calls[] = {{"unshare", SYS_unshare},
                          {"setns", SYS_setns},
                          {"mount", SYS_mount},
                          {"umount2", SYS_umount2},
                          {"move_mount", SYS_move_mount},
                          {"open_tree", SYS_open_tree},
                          {"fsopen", SYS_fsopen},
                          {"pivot_root", SYS_pivot_root},
                          {"chroot", SYS_chroot},
                          {"open_by_handle_at", SYS_open_by_handle_at},
                          {"io_uring_setup", SYS_io_uring_setup},
                          {"process_vm_readv", SYS_process_vm_readv},
                          {"process_vm_writev", SYS_process_vm_writev},
                          {"pidfd_getfd", SYS_pidfd_getfd},
                          {"init_module", SYS_init_module},
                          {"finit_module", SYS_finit_module},
                          {"delete_module", SYS_delete_module},
                          {"kexec_load", SYS_kexec_load},
                          {"bpf", SYS_bpf},
                          {"perf_event_open", SYS_perf_event_open},
                          {"userfaultfd", SYS_userfaultfd},
                          {"add_key", SYS_add_key},
                          {"request_key", SYS_request_key},
                          {"keyctl", SYS_keyctl},
                          {"reboot", SYS_reboot},
                          {"swapon", SYS_swapon},
                          {"swapoff", SYS_swapoff},
                          {"acct", SYS_acct},
                          {"settimeofday", SYS_settimeofday},
                          {"execve", SYS_execve},
                          {"execveat", SYS_execveat},
                          {"fchmodat", SYS_fchmodat},
                          {"fchownat", SYS_fchownat},
                          {"setxattr", SYS_setxattr}};

void say(const std::string &text)
{
    std::fwrite(text.data(), 1, text.size(), stdout);
}

void sayCalls()
{
    constexpr long bad = -1;
    for (const Call &call : calls) {
        ::syscall(call.number, bad, bad, bad, bad, bad, bad);
        say(std::string(call.name) + ' ' + std::to_string(errno) + '\n');
    }
    ::syscall(SYS_clone, CLONE_NEWUSER | CLONE_FS, 0, 0, 0, 0);
    say("clone-namespace " + std::to_string(errno) + '\n');
    ::syscall(SYS_clone3, nullptr, 0);
    say("clone3 " + std::to_string(errno) + '\n');
    for (const int family : {AF_PACKET, AF_ALG, AF_VSOCK, AF_UNSPEC, AF_BLUETOOTH}) {
        ::socket(family, SOCK_STREAM, 0);
        say("socket-" + std::to_string(family) + ' ' + std::to_string(errno) + '\n');
    }
}

/// The line of a thread's status file that begins so.
QByteArray statusLine(const QString &task, const char *name)
{
    for (const QByteArray &line :
         readFile(u("/proc/self/task/") + task + u("/status")).split('\n')) {
        if (line.startsWith(name))
            return line.simplified();
    }
    return {};
}

void sayThreads()
{
    const QStringList tasks =
        QDir(u("/proc/self/task")).entryList(QDir::Dirs | QDir::NoDotAndDotDot);
    for (const QString &task : tasks)
        say((statusLine(task, "NoNewPrivs:") + ' ' + statusLine(task, "Seccomp:") + '\n')
                .toStdString());
}

/// What becomes of reading the one file that may be read, what lies beside it, and of changing it.
void sayNeighbours()
{
    const QByteArray file = qgetenv("SANDBOX_READABLE");
    const QByteArray other = file + ".other";
    const QByteArray folder = file.left(file.lastIndexOf('/'));
    const auto attempt = [](const char *name, const QByteArray &path, int flags) {
        errno = 0;
        ::open(path.constData(), flags | O_CLOEXEC);
        say(std::string(name) + ' ' + std::to_string(errno) + '\n');
    };
    attempt("read", file, O_RDONLY);
    attempt("write", file, O_WRONLY);
    attempt("other", other, O_RDONLY);
    attempt("folder", folder, O_RDONLY | O_DIRECTORY);
}

int playChild(int argc, char *argv[])
{
    const QCoreApplication application(argc, argv);
    const QStringList words = qEnvironmentVariable("SANDBOX_CHILD").split(QLatin1Char(' '));
    std::atomic_bool isOver{false};
    std::thread early;
    if (words.contains(u("early-thread")))
        early = std::thread([&isOver] {
            while (!isOver)
                std::this_thread::yield();
        });
    if (!words.contains(u("free"))) {
        Sandbox sandbox(qEnvironmentVariable("SANDBOX_OUTPUT"), words.contains(u("display")));
        const QStringList links = qEnvironmentVariable("SANDBOX_LINKS").split(QLatin1Char(' '));
        for (const QString &link : links)
            sandbox.allowLinkTarget(link);
        if (qEnvironmentVariableIsSet("SANDBOX_PROXY"))
            sandbox.confineToProxy(
                static_cast<quint16>(qEnvironmentVariableIntValue("SANDBOX_PROXY")));
        sandbox.allowReading(qEnvironmentVariable("SANDBOX_READABLE"));
        const QStringList gaps = sandbox.confine();
        for (const QString &gap : gaps)
            say("gap: " + gap.toStdString() + '\n');
    }
    if (words.contains(u("neighbours")))
        sayNeighbours();
    if (words.contains(u("attempts")))
        say(runAttempts("child"));
    if (words.contains(u("thread")))
        std::thread([] { say(runAttempts("thread")); }).join();
    if (words.contains(u("calls")))
        sayCalls();
    if (words.contains(u("threads")))
        sayThreads();
    isOver = true;
    if (early.joinable())
        early.join();
    std::fflush(stdout);
    return 0;
}

} // namespace

class tst_Sandbox : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void attemptsInside_data();
    void attemptsInside();
    void attemptsOutside();
    void systemCalls();
    void threadsThatRunAlready();
    void displaysNeedLocalSockets();
    void proxies_data();
    void proxies();
    void olderKernels_data();
    void olderKernels();
    void wideFolders_data();
    void wideFolders();
    void linksOfTheOutputFolder();
    void oneFileThatMayBeRead_data();
    void oneFileThatMayBeRead();
    void foldersThatAreMissing();
    void cookieFileThatIsADevice();

private:
    QByteArray runChild(const char *words, const QMap<QString, QString> &variables = {});
    static QStringList gapsIn(const QByteArray &output);
    static Errors attemptsIn(const QByteArray &output);

    std::unique_ptr<QTemporaryDir> m_folder;
    std::unique_ptr<ConfinedPlaces> m_places;
};

void tst_Sandbox::init()
{
    m_folder = std::make_unique<QTemporaryDir>();
    m_places = std::make_unique<ConfinedPlaces>(m_folder->path());
}

/// What the child says. Variables are added to those of the places, or replace them; a null text
/// takes one away.
QByteArray tst_Sandbox::runChild(const char *words, const QMap<QString, QString> &variables)
{
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    QMap<QString, QString> all = m_places->variables();
    all.insert(u("SANDBOX_CHILD"), u(words));
    all.insert(u("SANDBOX_OUTPUT"), m_places->path("out"));
    for (auto it = variables.begin(); it != variables.end(); ++it)
        all.insert(it.key(), it.value());
    for (auto it = all.begin(); it != all.end(); ++it) {
        environment.insert(it.key(), it.value());
        if (it.value().isNull())
            environment.remove(it.key());
    }
    QProcess child;
    child.setProcessEnvironment(environment);
    child.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    child.start(QCoreApplication::applicationFilePath(), QStringList());
    if (!child.waitForFinished(60000) || child.exitStatus() != QProcess::NormalExit)
        return "the child failed: " + child.errorString().toUtf8();
    return child.readAllStandardOutput();
}

QStringList tst_Sandbox::gapsIn(const QByteArray &output)
{
    QStringList gaps;
    for (const QByteArray &line : output.split('\n')) {
        if (line.startsWith("gap: "))
            gaps += QString::fromUtf8(line.mid(5));
    }
    return gaps;
}

Errors tst_Sandbox::attemptsIn(const QByteArray &output)
{
    QByteArray rest;
    for (const QByteArray &line : output.split('\n')) {
        if (!line.startsWith("gap: "))
            rest += line + '\n';
    }
    return errorsOf(rest);
}

void tst_Sandbox::attemptsInside_data()
{
    QTest::addColumn<QByteArray>("who");
    QTest::newRow("the thread that put them up") << QByteArray("attempts");
    QTest::newRow("a thread that it started later") << QByteArray("thread");
}

void tst_Sandbox::attemptsInside()
{
    QFETCH(QByteArray, who);
    const int version = Landlock::offeredVersion();
    const QByteArray output = runChild(who.constData());
    QCOMPARE(differences(attemptsIn(output), expectedErrors(version, true)), QByteArray());
    QCOMPARE(gapsIn(output),
             version > 0 ? Landlock::gapsOf(version)
                         : QStringList{u("all files are within reach (no Landlock)")});
    QCOMPARE(readFile(m_places->path("outside/kept")), QByteArray("kept"));
}

void tst_Sandbox::attemptsOutside()
{
    const QByteArray output = runChild("free attempts");
    QCOMPARE(differences(attemptsIn(output), expectedErrors(0, false)), QByteArray());
}

void tst_Sandbox::oneFileThatMayBeRead_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QString>("lacks");
    for (const char *const lacks : {"", "landlock"}) {
        QTest::addRow("a file, %s", *lacks ? "no Landlock" : "this kernel")
            << u("page/file") << u(lacks);
        QTest::addRow("a folder, %s", *lacks ? "no Landlock" : "this kernel")
            << u("page") << u(lacks);
    }
}

void tst_Sandbox::oneFileThatMayBeRead()
{
    QFETCH(QString, name);
    QFETCH(QString, lacks);
    const QString path = m_places->path("outside/") + name;
    QVERIFY(QDir().mkpath(m_places->path("outside/page")));
    writeFile(m_places->path("outside/page/file"), "file");
    writeFile(path + u(".other"), "other");
    QMap<QString, QString> variables = kernelVariables(u(OLDER_KERNEL), lacks);
    variables.insert(u("SANDBOX_READABLE"), path);
    const Errors errors = attemptsIn(runChild("neighbours", variables));
    const bool isFile = QFileInfo(path).isFile();
    const bool hasLandlock = lacks.isEmpty() && Landlock::offeredVersion() > 0;
    const int refused = hasLandlock ? EACCES : 0;
    QCOMPARE(errors.size(), 4);
    QCOMPARE(errors.value("read"), isFile ? 0 : refused);
    QCOMPARE(errors.value("write"), isFile ? refused : EISDIR);
    QCOMPARE(errors.value("other"), refused);
    QCOMPARE(errors.value("folder"), refused);
}

void tst_Sandbox::systemCalls()
{
    const Errors errors = attemptsIn(runChild("calls"));
    QVERIFY(errors.size() > 30);
    QByteArray wrong;
    for (auto it = errors.begin(); it != errors.end(); ++it) {
        if (it.value() != (it.key() == "clone3" ? ENOSYS : EPERM))
            wrong += it.key() + ' ' + QByteArray::number(it.value()) + "; ";
    }
    QCOMPARE(wrong, QByteArray());
}

void tst_Sandbox::threadsThatRunAlready()
{
    const QByteArray output = runChild("early-thread threads");
    const QByteArray confined = "NoNewPrivs: 1 Seccomp: 2\n";
    QVERIFY2(output.count(confined) >= 2, output.constData());
    QCOMPARE(output.count("NoNewPrivs:"), output.count(confined));
#ifndef __SANITIZE_THREAD__
    QVERIFY(gapsIn(output).contains(u("threads that run already reach all files")));
#endif
}

void tst_Sandbox::displaysNeedLocalSockets()
{
    Errors expected = expectedErrors(Landlock::offeredVersion(), true);
    expected["local-socket"] = 0;
    QCOMPARE(differences(attemptsIn(runChild("display attempts")), expected), QByteArray());
}

void tst_Sandbox::proxies_data()
{
    QTest::addColumn<QByteArray>("words");
    QTest::addColumn<int>("proxyPort");
    QTest::addColumn<QString>("display");
    QTest::addColumn<int>("newest");
    QTest::addColumn<bool>("isOpen");
    constexpr int other = attemptedPort + 1;
    constexpr int all = 1000;
    const QString display = u(":%1").arg(attemptedPort - 6000);
    QTest::newRow("another port") << QByteArray("attempts") << other << QString() << all << false;
    QTest::newRow("in a thread") << QByteArray("thread") << other << QString() << all << false;
    QTest::newRow("the proxy's port")
        << QByteArray("attempts") << int(attemptedPort) << QString() << all << true;
    QTest::newRow("a display over the network")
        << QByteArray("display attempts") << other << u("localhost") + display + u(".0") << all
        << true;
    QTest::newRow("the same for a hidden run")
        << QByteArray("attempts") << other << u("localhost") + display << all << false;
    QTest::newRow("a display of this machine")
        << QByteArray("display attempts") << other << display << all << false;
    QTest::newRow("the same by its kind")
        << QByteArray("display attempts") << other << u("unix") + display << all << false;
    QTest::newRow("an older kernel") << QByteArray("attempts") << other << QString() << 3 << true;
}

void tst_Sandbox::proxies()
{
    QFETCH(QByteArray, words);
    QFETCH(int, proxyPort);
    QFETCH(QString, display);
    QFETCH(int, newest);
    QFETCH(bool, isOpen);
    const int version = qMin(newest, Landlock::offeredVersion());
    QMap<QString, QString> variables =
        kernelVariables(u(OLDER_KERNEL), u("landlock-above-%1").arg(newest));
    variables.insert(u("SANDBOX_PROXY"), QString::number(proxyPort));
    variables.insert(u("DISPLAY"), display);
    const QByteArray output = runChild(words.constData(), variables);

    Errors expected = expectedErrorsBehindProxy(version, true);
    if (isOpen)
        expected["connect"] = 0;
    if (words.contains("display"))
        expected["local-socket"] = 0;
    QCOMPARE(differences(attemptsIn(output), expected), QByteArray());
    QCOMPARE(gapsIn(output).contains(u("connections may go round the proxy")), version < 4);
}

void tst_Sandbox::olderKernels_data()
{
    QTest::addColumn<QString>("lacks");
    QTest::addColumn<int>("version");
    QTest::addColumn<bool>("hasFilter");
    QTest::addColumn<QStringList>("gaps");

    const int offered = Landlock::offeredVersion();
    const QStringList offeredGaps = Landlock::gapsOf(offered);
    const QString noLandlock = u("all files are within reach (no Landlock)");
    const QString noFilter = u("all system calls may be made (no seccomp)");
    const QString cutting = u("files may be cut short anywhere");
    const QString serving = u("TCP ports may be served");
    const QString devices = u("devices may be controlled");
    const QString signals_ = u("signals may be sent to other processes");
    const auto upTo = [offered](int version) { return qMin(version, offered); };

    QTest::newRow("no Landlock") << u("landlock") << 0 << true << QStringList{noLandlock};
    QTest::newRow("the first Landlock") << u("landlock-above-1") << upTo(1) << true
                                        << QStringList{cutting, serving, devices, signals_};
    QTest::newRow("without truncation") << u("landlock-above-2") << upTo(2) << true
                                        << QStringList{cutting, serving, devices, signals_};
    QTest::newRow("without TCP") << u("landlock-above-3") << upTo(3) << true
                                 << QStringList{serving, devices, signals_};
    QTest::newRow("without devices")
        << u("landlock-above-4") << upTo(4) << true << QStringList{devices, signals_};
    QTest::newRow("without scopes")
        << u("landlock-above-5") << upTo(5) << true << QStringList{signals_};
    QTest::newRow("no filter") << u("seccomp") << offered << false
                               << offeredGaps + QStringList{noFilter};
    QTest::newRow("neither") << u("landlock seccomp") << 0 << false
                             << QStringList{noLandlock, noFilter};
    // Without that promise the kernel confines for root only.
    const bool isRoot = ::geteuid() == 0;
    QTest::newRow("privileges cannot be given up")
        << u("no-new-privileges") << (isRoot ? offered : 0) << false
        << QStringList{u("new privileges may be gained")}
            + (isRoot ? offeredGaps : QStringList{noLandlock}) + QStringList{noFilter};
}

void tst_Sandbox::olderKernels()
{
    QFETCH(QString, lacks);
    QFETCH(int, version);
    QFETCH(bool, hasFilter);
    QFETCH(QStringList, gaps);
    const QByteArray output = runChild("attempts", kernelVariables(u(OLDER_KERNEL), lacks));
    QCOMPARE(gapsIn(output), gaps);
    QCOMPARE(differences(attemptsIn(output), expectedErrors(version, hasFilter)), QByteArray());
}

void tst_Sandbox::wideFolders_data()
{
    QTest::addColumn<QString>("variable");
    QTest::addColumn<QString>("value");
    QTest::addColumn<QString>("gap");
    const QString open = u("files go to %1, so that all files in it are within reach");
    QTest::newRow("output to the home folder")
        << u("SANDBOX_OUTPUT") << u("%1/home") << open.arg(u("%1/home"));
    QTest::newRow("output to the folder above it")
        << u("SANDBOX_OUTPUT") << u("%1") << open.arg(u("%1"));
    QTest::newRow("output to the root folder") << u("SANDBOX_OUTPUT") << u("/") << open.arg(u("/"));
    QTest::newRow("output beside it") << u("SANDBOX_OUTPUT") << u("%1/out") << QString();
    QTest::newRow("output below it") << u("SANDBOX_OUTPUT") << u("%1/home/videos") << QString();
    QTest::newRow("cookies in the home folder")
        << u("CLIPWEIR_COOKIES") << u("%1/home/cookies.txt") << open.arg(u("%1/home"));
    QTest::newRow("temporary files above it")
        << u("TMPDIR") << u("%1") << u("files can be removed below %1");
}

void tst_Sandbox::wideFolders()
{
    QFETCH(QString, variable);
    QFETCH(QString, value);
    QFETCH(QString, gap);
    const QString folder = m_folder->path();
    QDir().mkpath(folder + u("/home/videos"));
    const auto placed = [&folder](QString text) { return text.replace(u("%1"), folder); };
    const QStringList gaps = gapsIn(runChild("", {{variable, placed(value)}}));
    QStringList expected = gapsIn(runChild(""));
    if (!gap.isEmpty())
        expected.prepend(placed(gap));
    QCOMPARE(gaps, expected);
}

/// A link that the user has put in the place of one of the run's files leads where it did before.
void tst_Sandbox::linksOfTheOutputFolder()
{
    QDir().mkpath(m_places->path("outside/logs"));
    QVERIFY(QFile::link(m_places->path("outside/logs"), m_places->path("out/logs")));
    QVERIFY(QFile::link(m_places->path("outside/kept"), m_places->path("out/v.mp4")));
    const QMap<QString, QString> links{
        {u("SANDBOX_LINKS"), m_places->path("out/logs") + u(" ") + m_places->path("out/v.mp4")}};

    Errors errors = attemptsIn(runChild("attempts", links));
    QCOMPARE(errors.value("change-outside"), 0); // the target of the second link
    QCOMPARE(errors.value("truncate-outside"), 0);
    QCOMPARE(errors.value("write-outside"), // in the folder that holds the targets
             expectedErrors(Landlock::offeredVersion(), true).value("write-outside"));
    QMap<QString, QString> inLinkedFolder = links;
    inLinkedFolder.insert(u("ATTEMPTS_OUTPUT"), m_places->path("out/logs"));
    errors = attemptsIn(runChild("thread", inLinkedFolder));
    QCOMPARE(errors.value("needed-write"), 0);
    QCOMPARE(errors.value("needed-read"), 0);
}

void tst_Sandbox::foldersThatAreMissing()
{
    const QByteArray output = runChild("attempts");
    QVERIFY2(!output.startsWith("the child failed"), output.constData());
    QVERIFY(QDir(m_places->path("home/cookies")).exists());
    QVERIFY(QDir(m_places->path("home/.cache/clipweir")).exists());

    // Where they cannot be made there is nothing to open.
    const QMap<QString, QString> nowhere{{u("HOME"), u("/proc/none")},
                                         {u("XDG_CACHE_HOME"), u("/proc/none/cache")},
                                         {u("CLIPWEIR_COOKIES"), u("/proc/none/cookies.txt")}};
    QCOMPARE(differences(attemptsIn(runChild("thread", nowhere)),
                         expectedErrors(Landlock::offeredVersion(), true)),
             QByteArray());
    const QMap<QString, QString> unset{{u("HOME"), QString()}};
    QVERIFY(!runChild("calls", unset).startsWith("the child failed"));
}

/// It is opened alone, without its folder.
void tst_Sandbox::cookieFileThatIsADevice()
{
    const QString path = m_places->path("outside/cookies");
    QCOMPARE(::mkfifo(QFile::encodeName(path).constData(), 0600), 0);
    QCOMPARE(differences(attemptsIn(runChild("attempts", {{u("CLIPWEIR_COOKIES"), path}})),
                         expectedErrors(Landlock::offeredVersion(), true)),
             QByteArray());
}

int main(int argc, char *argv[])
{
    if (qEnvironmentVariableIsSet("SANDBOX_CHILD"))
        return playChild(argc, argv);
    return runTest([] { return std::make_unique<tst_Sandbox>(); }, argc, argv);
}

#include "tst_sandbox.moc"
