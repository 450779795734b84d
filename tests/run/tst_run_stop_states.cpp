#include "HdsFixtures.h"
#include "PageRun.h"
#include "TestMain.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QMultiHash>
#include <QSharedMemory>
#include <QTimer>

#include <cerrno>
#include <csignal>
#include <functional>
#include <memory>
#include <vector>

#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

/// Whether the runs are over an engine in processes of its own.
bool isEngineApart()
{
    return !qEnvironmentVariableIsEmpty("CLIPWEIR_ENGINE");
}

/// A field of a file of proc(5), "stat", counted from the state; -1 when it cannot be read.
qint64 statField(const QString &path, int number)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return -1;
    const QByteArray line = file.readAll();
    return line.mid(line.lastIndexOf(')') + 2).split(' ').value(number).toLongLong();
}

/// The time that a thread or process has spent on its own, in clock ticks.
qint64 ticksOf(const QString &path)
{
    return statField(path, 11);
}

QList<qint64> descendantsOf(qint64 ancestor)
{
    QMultiHash<qint64, qint64> children;
    const QStringList names = QDir(QStringLiteral("/proc")).entryList(QDir::Dirs);
    for (const QString &name : names) {
        if (const qint64 process = name.toLongLong())
            children.insert(statField(QStringLiteral("/proc/%1/stat").arg(process), 1), process);
    }
    QList<qint64> found = children.values(ancestor);
    for (int i = 0; i < found.size(); ++i)
        found += children.values(found.at(i));
    return found;
}

constexpr int videoBytes = 6000000;
constexpr int floodBytes = 1 << 20;
constexpr int reachTimeoutMs = 60000;
constexpr int endTimeoutMs = 10000; // generous: the times that matter are printed

/// A port at which connections are neither taken nor refused: its queue is full.
class FullPort final : public QObject
{
public:
    FullPort()
        : m_listener(::socket(AF_INET, SOCK_STREAM, 0))
    {
        m_address.sin_family = AF_INET;
        m_address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        auto *const address = reinterpret_cast<sockaddr *>(&m_address);
        socklen_t size = sizeof m_address;
        if (::bind(m_listener, address, size) != 0 || ::listen(m_listener, 0) != 0
            || ::getsockname(m_listener, address, &size) != 0)
            qFatal("no port to listen on");
        for (int i = 0; i < 4; ++i) {
            m_callers.push_back(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0));
            if (::connect(m_callers.back(), address, size) != 0 && errno != EINPROGRESS)
                qFatal("no connection to the port");
        }
    }

    ~FullPort() override
    {
        for (const int caller : m_callers)
            ::close(caller);
        ::close(m_listener);
    }

    [[nodiscard]] QByteArray url() const
    {
        return "http://127.0.0.1:" + QByteArray::number(ntohs(m_address.sin_port)) + "/v.mp4";
    }

private:
    int m_listener;
    sockaddr_in m_address{};
    std::vector<int> m_callers;
};

/// One run and what it meets.
struct Scene
{
    ScriptedServer server;
    ProgramRun run;
    std::vector<std::unique_ptr<QObject>> others; ///< further servers
    QString page;
    QStringList options;
    std::function<bool()> isReached;
    qint64 firstTicks = -1; ///< of the main thread's working time
    bool canTell = true; ///< the host reads its lines
    const QByteArray video = testBytes(videoBytes);

    Scene() { page = server.address("/page"); }

    [[nodiscard]] bool isRequested(const QByteArray &path) const
    {
        return !server.requestsFor(path).isEmpty();
    }

    [[nodiscard]] std::function<bool()> requested(const QByteArray &path) const
    {
        return [this, path] { return isRequested(path); };
    }

    /// Whether the main thread has worked for a while since the first look.
    [[nodiscard]] bool isBusy()
    {
        constexpr qint64 busyTicks = 30;
        const qint64 program = run.process().processId();
        qint64 ticks = ticksOf(QStringLiteral("/proc/%1/task/%1/stat").arg(program));
        const QList<qint64> engines = isEngineApart() ? descendantsOf(program) : QList<qint64>();
        for (const qint64 engine : engines)
            ticks += ticksOf(QStringLiteral("/proc/%1/stat").arg(engine));
        if (ticks < 0)
            return false;
        if (firstTicks < 0)
            firstTicks = ticks;
        return ticks > firstTicks + busyTicks;
    }

    [[nodiscard]] bool isAskedByDownloader(const QByteArray &path) const
    {
        for (const HttpRequest &request : server.requestsFor(path)) {
            if (isFromDownloader(request))
                return true;
        }
        return false;
    }

    [[nodiscard]] QString file(const char *extension) const
    {
        return option("tmp/") + pageHash(page) + option(extension);
    }

    /// A page with a video; the reply is what the downloader gets.
    void serveVideo(const HttpReply &reply)
    {
        page = servePage(server, video, [reply](const HttpRequest &) { return reply; });
    }

    HttpReply held(qint64 afterBytes) const
    {
        HttpReply reply = mediaReply(video);
        reply.holdAfterBytes = afterBytes;
        return reply;
    }

    void redirectVideoTo(const QByteArray &target)
    {
        HttpReply reply;
        reply.status = 302;
        reply.headers = {{"Location", target}};
        serveVideo(reply);
    }

    /// A page that asks for a stream of so many fragments.
    void serveStream(int fragmentCount, const HttpReply &fragment)
    {
        options += option("--f4f");
        server.on("/page",
                  htmlReply("<script>var x = new XMLHttpRequest();"
                            "x.open('GET', '/s/m.f4m'); x.send();</script>"));
        server.on(
            "/s/m.f4m",
            mediaReply(hds::manifest("stream", hds::simpleBootstrap(fragmentCount)), "video/f4m"));
        server.onOther([fragment](const HttpRequest &request) {
            HttpReply reply = fragment;
            const int at = request.target.indexOf("-Frag");
            if (at < 0)
                reply.status = 404;
            else if (reply.status == 200)
                reply.body = hds::numberedFragment(request.target.mid(at + 5).toInt(), 100000);
            return reply;
        });
    }

    /// Names below "test" are looked up without end.
    void slowNames()
    {
        QDir().mkpath(run.path(option("tmp")));
        run.setEnvironment(option("LD_PRELOAD"), option(SLOW_RESOLVER));
        run.setEnvironment(option("SLOW_RESOLVER_MARK"), run.path(option("tmp/asked")));
        run.setEnvironment(option("ASAN_OPTIONS"), option("verify_asan_link_order=0"));
    }

    [[nodiscard]] bool isNameAsked() const { return QFile::exists(run.path(option("tmp/asked"))); }

    void useProxy(const char *type, quint16 port)
    {
        options += {option("--proxy"), option(type) + QStringLiteral(":127.0.0.1:%1").arg(port)};
    }
};

using Build = std::function<void(Scene &)>;

struct State
{
    const char *name;
    Build build;
};

void buildFlood(Scene &scene)
{
    scene.serveVideo(HttpReply());
    scene.server.onRaw("/v.mp4", [&scene](const HttpRequest &request, QTcpSocket *socket) {
        const bool isFlood = isFromDownloader(request);
        socket->write("HTTP/1.1 200 OK\r\nContent-Type: video/mp4\r\nConnection: close\r\n"
                      "Content-Length: "
                      + QByteArray::number(isFlood ? qint64(1) << 40 : videoBytes) + "\r\n\r\n");
        if (!isFlood) {
            socket->write(scene.video);
            socket->disconnectFromHost();
            return;
        }
        auto *const timer = new QTimer(socket);
        QObject::connect(timer, &QTimer::timeout, socket, [socket] {
            if (socket->bytesToWrite() < floodBytes)
                socket->write(QByteArray(floodBytes, 'x'));
        });
        timer->start(5);
    });
    scene.isReached = [&scene] {
        return QFileInfo(scene.run.path(scene.file(".mp4"))).size() > 4 * floodBytes;
    };
}

void buildThumbnail(Scene &scene)
{
    HttpReply stalled = mediaReply(testBytes(1000), "image/jpeg");
    stalled.holdAfterBytes = 500;
    scene.server.on("/t.jpg", stalled);
    scene.serveVideo(scene.held(0));
    scene.server.on("/page",
                    htmlReply(videoPage("/v.mp4",
                                        "<meta property=\"og:image\" content=\""
                                            + scene.server.address("/t.jpg").toUtf8() + "\">")));
    scene.options += option("--thumb");
    scene.isReached = [&scene] {
        return scene.run.fileContent(scene.file(".thumb")).size() == 500;
    };
}

void buildSiteWait(Scene &scene)
{
    QDir().mkpath(scene.run.path(option("config")));
    QFile settings(scene.run.path(option("config/clipweir.conf")));
    settings.open(QIODevice::WriteOnly);
    settings.write("[hulu]\npagePattern=\"http://127.0.0.1:[0-9]+/watch/([0-9]+)\"\n"
                   "selectionEndpoint=\"/select\"\n");
    settings.close();
    scene.page = scene.server.address("/watch/123");
    scene.server.on("/watch/123",
                    htmlReply("<script>var x = new XMLHttpRequest();"
                              "x.open('GET', '/select?a'); x.send();</script>"));
    scene.server.hold("/select");
    scene.isReached = [&scene] { return scene.isAskedByDownloader("/select"); };
}

/// Fills the pipe to the host once the page has been asked for, and waits until the run is stuck in
/// its next line.
void buildDeafHost(Scene &scene)
{
    const QString path = scene.run.path(option("lines"));
    ::mkfifo(qPrintable(path), 0600);
    const int pipe = ::open(qPrintable(path), O_RDWR | O_NONBLOCK | O_CLOEXEC);
    auto *const owner = new QObject;
    scene.others.emplace_back(owner);
    QObject::connect(owner, &QObject::destroyed, [pipe] { ::close(pipe); });
    scene.run.process().setStandardErrorFile(path);
    scene.canTell = false;
    scene.options += option("--keepimage");
    scene.serveVideo(scene.held(0));
    QObject::connect(&scene.server, &ScriptedServer::requestReceived, owner, [pipe] {
        const QByteArray block(4096, ' ');
        while (::write(pipe, block.constData(), static_cast<size_t>(block.size())) > 0) { }
        while (::write(pipe, " ", 1) > 0) { }
    });
    scene.isReached = [&scene] {
        const auto pid = scene.run.process().processId();
        QFile call(QStringLiteral("/proc/%1/task/%1/syscall").arg(pid));
        return call.open(QIODevice::ReadOnly) && call.readAll().startsWith("1 0x2 "); // write, 2
    };
}

/// A page of a server with a name, which no other process of this test asks for: its runs would
/// share a stop flag.
QString namedPage()
{
    return QStringLiteral("http://run%1.test/page").arg(QCoreApplication::applicationPid());
}

const std::vector<State> &states()
{
    static const std::vector<State> all{
        {"page, name being looked up",
         [](Scene &scene) {
             scene.slowNames();
             scene.page = namedPage();
             scene.isReached = [&scene] { return scene.isNameAsked(); };
         }},
        {"page, before the first byte",
         [](Scene &scene) {
             scene.server.hold("/page");
             scene.isReached = scene.requested("/page");
         }},
        {"page, midway",
         [](Scene &scene) {
             HttpReply reply = htmlReply("<img src=/seen>" + QByteArray(4000, ' ') + "<p>end");
             reply.holdAfterBytes = 3000;
             scene.server.on("/page", reply);
             scene.isReached = scene.requested("/seen");
         }},
        {"page, redirect hop held",
         [](Scene &scene) {
             HttpReply reply;
             reply.status = 302;
             reply.headers = {{"Location", "/held"}};
             scene.server.on("/page", reply);
             scene.server.hold("/held");
             scene.isReached = scene.requested("/held");
         }},
        {"page, endless script",
         [](Scene &scene) {
             // An engine that can end a script does so when it reads the page: it comes again.
             scene.server.on("/page",
                             htmlReply("<body onload=\"var i = new Image();"
                                       " i.onerror = function() {"
                                       " setInterval(function() { for (;;) { } }, 0) };"
                                       " i.src = '/missing'\">"));
             scene.isReached = [&scene] { return scene.isRequested("/missing") && scene.isBusy(); };
         }},
        {"page, synchronous request",
         [](Scene &scene) {
             scene.server.on("/page",
                             htmlReply("<script>var x = new XMLHttpRequest();"
                                       "x.open('GET', '/held', false); x.send();</script>"));
             scene.server.hold("/held");
             scene.isReached = scene.requested("/held");
         }},
        {"page, synchronous request with --stall",
         [](Scene &scene) {
             scene.server.on("/page",
                             htmlReply("<script>var x = new XMLHttpRequest();"
                                       "x.open('GET', '/held', false); x.send();</script>"));
             scene.server.hold("/held");
             scene.options += {option("--stall"), option("600")};
             scene.isReached = scene.requested("/held");
         }},
        {"page, HTTP proxy held",
         [](Scene &scene) {
             scene.page = namedPage();
             scene.server.onRaw(scene.page.toUtf8(), [](const HttpRequest &, QTcpSocket *) {});
             scene.useProxy("3", scene.server.port());
             scene.isReached = scene.requested(scene.page.toUtf8());
         }},
        {"page, SOCKS proxy held",
         [](Scene &scene) {
             auto *const proxy = new QTcpServer;
             scene.others.emplace_back(proxy);
             proxy->listen(QHostAddress::LocalHost);
             scene.useProxy("1", proxy->serverPort());
             scene.isReached = [proxy] { return proxy->hasPendingConnections(); };
         }},
        {"analysis, idle",
         [](Scene &scene) {
             scene.server.on("/page",
                             htmlReply("<body onload=\"setTimeout(function() {"
                                       " new Image().src = '/idle'; }, 0)\">"));
             scene.isReached = scene.requested("/idle");
         }},
        {"analysis, probe of a scan held",
         [](Scene &scene) {
             scene.server.hold("/held.mp4");
             scene.server.on(
                 "/page",
                 htmlReply("<p title='" + scene.server.address("/held.mp4").toUtf8() + "'>"));
             scene.isReached = scene.requested("/held.mp4");
         }},
        {"selection, probe held",
         [](Scene &scene) {
             scene.server.on("/page", htmlReply(videoPage("/v.mp4")));
             scene.server.onRaw("/v.mp4", [&scene](const HttpRequest &, QTcpSocket *socket) {
                 if (scene.server.requestsFor("/v.mp4").size() == 1)
                     socket->abort(); // the engine's; the size stays unknown
             });
             scene.options += {option("--timeout"), option("2")};
             scene.isReached = [&scene] { return scene.isAskedByDownloader("/v.mp4"); };
         }},
        {"site's selection held", buildSiteWait},
        {"thumbnail stalled", buildThumbnail},
        {"video, not yet connected",
         [](Scene &scene) {
             auto *const port = new FullPort;
             scene.others.emplace_back(port);
             scene.redirectVideoTo(port->url());
             scene.isReached = [&scene] { return scene.isAskedByDownloader("/v.mp4"); };
         }},
        {"video, redirect hop held",
         [](Scene &scene) {
             scene.redirectVideoTo("/held");
             scene.server.hold("/held");
             scene.isReached = scene.requested("/held");
         }},
        {"video, header held",
         [](Scene &scene) {
             HttpReply reply = scene.held(0);
             reply.delayMs = 1000000;
             scene.serveVideo(reply);
             scene.isReached = [&scene] { return scene.isAskedByDownloader("/v.mp4"); };
         }},
        {"video, stalled",
         [](Scene &scene) {
             scene.serveVideo(scene.held(300000));
             scene.isReached = [&scene] {
                 return scene.run.fileContent(scene.file(".mp4")).size() == 300000;
             };
         }},
        {"video, flowing fast", buildFlood},
        {"stream, just recognised",
         [](Scene &scene) {
             scene.serveStream(3, HttpReply());
             scene.server.hold("/s/m.f4m");
             scene.isReached = scene.requested("/s/m.f4m");
         }},
        {"stream, manifest held",
         [](Scene &scene) {
             scene.serveStream(3, HttpReply());
             scene.server.hold("/s/m.f4m");
             scene.isReached = [&scene] {
                 return scene.run.errorOutput().contains("Get page:")
                     && scene.isAskedByDownloader("/s/m.f4m");
             };
         }},
        {"stream, bootstrap held",
         [](Scene &scene) {
             scene.serveStream(3, HttpReply());
             scene.server.on("/s/m.f4m",
                             mediaReply("<manifest><bootstrapInfo id=\"b\" url=\"s.abst\"/>"
                                        "<media url=\"stream\" bootstrapInfoId=\"b\"/></manifest>",
                                        "video/f4m"));
             scene.server.hold("/s/s.abst");
             scene.isReached = scene.requested("/s/s.abst");
         }},
        {"stream, fragments held",
         [](Scene &scene) {
             HttpReply fragment;
             fragment.delayMs = 1000000;
             scene.serveStream(40, fragment);
             scene.isReached = scene.requested("/s/streamSeg1-Frag8");
         }},
        {"stream, fragments flowing",
         [](Scene &scene) {
             scene.serveStream(100000, HttpReply());
             scene.isReached = scene.requested("/s/streamSeg1-Frag40");
         }},
        {"stream, fragments fail again and again",
         [](Scene &scene) {
             HttpReply fragment;
             fragment.status = 503;
             fragment.delayMs = 300;
             scene.serveStream(40, fragment);
             scene.isReached = [&scene] {
                 return scene.server.requestsFor("/s/streamSeg1-Frag1").size() > 3;
             };
         }},
        {"host does not read its lines", buildDeafHost},
    };
    return all;
}

bool raiseFlag(const QString &page)
{
    QSharedMemory block(QStringLiteral("SM_") + pageHash(page));
    if (!block.attach() || !block.lock())
        return false;
    *static_cast<char *>(block.data()) = 1;
    return block.unlock();
}

} // namespace

/// Asks runs to end in every state that a run may be in, by the flag and by a signal. They must end
/// in order, and how long that takes is printed.
class tst_RunStopStates : public QObject
{
    Q_OBJECT

    qint64 m_longestMs = 0;
    QByteArray m_longestName;

    static void addStates(bool isSecondHalf)
    {
        QTest::addColumn<int>("state");
        const size_t middle = states().size() / 2;
        const size_t end = isSecondHalf ? states().size() : middle;
        for (size_t i = isSecondHalf ? middle : 0; i < end; ++i)
            // Such an engine has its names looked up by processes that are not the test's to slow.
            if (!isEngineApart() || !QByteArray(states().at(i).name).contains("looked up"))
                QTest::addRow("%s", states().at(i).name) << int(i);
    }

    /// Asks the run of the row to end, by a signal or else by the flag.
    void endsSoon(bool isSignal)
    {
        QFETCH(int, state);
        Scene scene;
        states().at(static_cast<size_t>(state)).build(scene);
        ProgramRun &run = scene.run;
        run.start(QStringList{option("--url"), scene.page, option("--log")} + scene.options);
        QTRY_VERIFY_WITH_TIMEOUT(scene.isReached(), reachTimeoutMs);

        QElapsedTimer clock;
        clock.start();
        if (isSignal)
            QCOMPARE(::kill(static_cast<pid_t>(run.process().processId()), SIGTERM), 0);
        else
            QVERIFY(raiseFlag(scene.page));
        QVERIFY(run.waitForEnd(endTimeoutMs));
        const qint64 elapsedMs = clock.elapsed();
        qInfo("%4lld ms  %s", static_cast<long long>(elapsedMs), QTest::currentDataTag());
        if (elapsedMs > m_longestMs) {
            m_longestMs = elapsedMs;
            m_longestName = QTest::currentDataTag();
        }

        QVERIFY(run.endedNormally());
        QCOMPARE(run.exitCode(), 0);
        const QByteArray ending = fixedLine("exiting...") + fixedLine("detach sharememory");
        if (scene.canTell)
            QVERIFY2(run.errorOutput().endsWith(ending), run.errorOutput());
        QCOMPARE(run.errorOutput().count("exiting..."), scene.canTell ? 1 : 0);
        QVERIFY(!run.errorOutput().contains("finished"));
        QCOMPARE(run.fileContent(csvPath()).count('\n'), 2);
        QVERIFY(!raiseFlag(scene.page)); // the block is gone
        QVERIFY(!QFile::exists(run.path(scene.file(".thumb"))));
    }

private slots:
    void atTheFlag_data() { addStates(false); }
    void atTheFlag() { endsSoon(false); }
    void atTheFlagLater_data() { addStates(true); }
    void atTheFlagLater() { endsSoon(false); }
    void atTheSignal_data() { addStates(false); }
    void atTheSignal() { endsSoon(true); }
    void atTheSignalLater_data() { addStates(true); }
    void atTheSignalLater() { endsSoon(true); }

    /// The toolkit waits for lookups that are under way before a program of it ends.
    void endsWithTheSignalWhileItCleansUp()
    {
        Scene scene;
        scene.slowNames();
        scene.server.on("/page", htmlReply("<img src=http://slow.test/picture>"));
        scene.run.start({option("--url"), scene.page, option("--timeout"), option("3")});
        QVERIFY(scene.run.waitForOutput("detach sharememory", reachTimeoutMs));
        QVERIFY(scene.isNameAsked());
        QCOMPARE(scene.run.process().state(), QProcess::Running);
        QElapsedTimer clock;
        clock.start();
        // The last line comes a moment before the signal is left to its usual effect.
        const auto hasEnded = [&scene] {
            scene.run.process().terminate();
            return scene.run.process().state() != QProcess::Running;
        };
        QTRY_VERIFY_WITH_TIMEOUT(hasEnded(), endTimeoutMs);
        qInfo("%4lld ms  closing; signal", static_cast<long long>(clock.elapsed()));
        QVERIFY(scene.run.waitForEnd(endTimeoutMs));
    }

    void cleanupTestCase()
    {
        qInfo("longest: %lld ms  %s", static_cast<long long>(m_longestMs),
              m_longestName.constData());
    }
};

CLIPWEIR_TEST_MAIN(tst_RunStopStates)
#include "tst_run_stop_states.moc"
