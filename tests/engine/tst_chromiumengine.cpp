#include "ChromiumEngineFactory.h"
#include "CookieStore.h"
#include "PageHeaders.h"
#include "ScriptedServer.h"
#include "TestMain.h"

#include <QSignalSpy>
#include <QTcpServer>
#include <QTemporaryDir>
#include <QUdpSocket>

#include <algorithm>
#include <memory>

namespace {

constexpr int patienceMs = 30000;

QString text(const char *latin1)
{
    return QString::fromLatin1(latin1);
}

HttpReply reply(const QByteArray &body, const QByteArray &contentType = "text/html")
{
    HttpReply reply;
    reply.headers = {{"Content-Type", contentType}};
    reply.body = body;
    return reply;
}

} // namespace

/// The current engine as a run sees it.
class tst_ChromiumEngine : public QObject
{
    Q_OBJECT

    struct Reply
    {
        qint64 size = 0;
        QString contentType;
    };

    /// An engine and all that it has told.
    struct Page
    {
        RunOptions options;
        std::unique_ptr<PageEngine> engine;
        QStringList requests;
        QHash<QString, Reply> replies;
        QStringList untold;
        QStringList losses;
        int loads = 0;
        bool isOk = false;

        void listen()
        {
            const PageEngine *const told = engine.get();
            connect(told, &PageEngine::requestSeen, told,
                    [this](const QString &url) { requests += url; });
            connect(told, &PageEngine::replySeen, told,
                    [this](const QString &url, qint64 size, const QString &contentType) {
                        replies.insert(url, {size, contentType});
                    });
            connect(told, &PageEngine::sizeUntold, told,
                    [this](const QString &url) { untold += url; });
            connect(told, &PageEngine::lost, told,
                    [this](const QString &reason) { losses += reason; });
            connect(told, &PageEngine::loaded, told, [this](bool ok) {
                ++loads;
                isOk = ok;
            });
        }

        bool load(const QString &address)
        {
            engine->load(QUrl(address));
            return QTest::qWaitFor([this] { return loads > 0; }, patienceMs);
        }

        PageSnapshot snapshot()
        {
            QSignalSpy told(engine.get(), &PageEngine::snapshot);
            engine->requestSnapshot();
            if (told.isEmpty() && !told.wait(patienceMs))
                return {};
            return told.first().first().value<PageSnapshot>();
        }
    };

    static std::unique_ptr<Page> open(const QString &address, const QString &more = QString())
    {
        setCommandLine(text("--engine chromium --url ") + address + more);
        auto page = std::make_unique<Page>();
        page->options = RunOptions::ofCommandLine();
        ChromiumEngineFactory factory(true);
        factory.prepare(page->options);
        page->engine = factory.make(page->options);
        page->listen();
        return page;
    }

    QTemporaryDir m_folder;

private slots:
    void initTestCase()
    {
        qRegisterMetaType<PageSnapshot>();
        qputenv("CLIPWEIR_COOKIES", m_folder.filePath(text("cookies.txt")).toUtf8());
    }

    void init() { CookieStore::instance().clear(); }

    void tellsOfAllThatThePageAsksFor()
    {
        ScriptedServer other(QHostAddress(QStringLiteral("127.0.0.2")));
        other.on("/frame", reply("<script>fetch('/in-frame')</script>"));
        ScriptedServer server;
        server.on("/",
                  reply("<script type=module>await fetch('/module')</script>"
                        "<script>new Worker('/worker.js');"
                        "navigator.serviceWorker.register('/service.js')</script>"
                        "<link rel=stylesheet href=/style.css><img src=/picture.png>"
                        "<iframe src='"
                        + other.url("/frame").toEncoded() + "'></iframe>"));
        server.on("/worker.js", reply("fetch('/in-worker')", "text/javascript"));
        server.on("/service.js", reply("fetch('/in-service')", "text/javascript"));
        HttpReply hop;
        hop.status = 302;
        hop.headers = {{"Location", "/target"}};
        server.on("/module", hop);
        server.on("/target", reply("ok", "text/plain"));

        const auto page = open(server.address("/"));
        QVERIFY(page->load(server.address("/")));
        QVERIFY(page->isOk);
        for (const char *const path : {"/", "/module", "/target", "/worker.js", "/in-worker",
                                       "/service.js", "/in-service", "/style.css", "/picture.png"})
            QTRY_VERIFY2_WITH_TIMEOUT(page->requests.contains(server.address(path)), path,
                                      patienceMs);
        for (const char *const path : {"/frame", "/in-frame"})
            QTRY_VERIFY2_WITH_TIMEOUT(page->requests.contains(other.address(path)), path,
                                      patienceMs);
        QTRY_COMPARE_WITH_TIMEOUT(page->replies.value(server.address("/target")).size, qint64(2),
                                  patienceMs);
        QCOMPARE(page->replies.value(server.address("/target")).contentType, text("text/plain"));
        QVERIFY(server.requestsFor("/picture.png").isEmpty()); // nobody looks at it
        for (const ScriptedServer *const each : {&server, &other}) {
            const QList<HttpRequest> requests = each->requests();
            for (const HttpRequest &request : requests) {
                QVERIFY2(request.header("User-Agent").contains(" Chrome/"),
                         request.target.constData());
                QVERIFY(!request.header("sec-ch-ua").contains("Headless"));
            }
        }
    }

    void picturesAreLoadedWhenTheyAreWanted()
    {
        ScriptedServer server;
        server.on("/", reply("<img src=/picture.png>"));
        const auto page = open(server.address("/"), text(" --keepimage"));
        QVERIFY(page->load(server.address("/")));
        QTRY_COMPARE(server.requestsFor("/picture.png").size(), 1);
    }

    void theDocumentsOfAllFramesAreRead()
    {
        ScriptedServer other(QHostAddress(QStringLiteral("127.0.0.2")));
        other.on("/frame", reply("<p>in the other site's frame</p>"));
        ScriptedServer server;
        server.on("/frame", reply("<p>in the own frame</p>"));
        server.on("/",
                  reply("<!DOCTYPE html><html lang=en><title>The title</title><object>"
                        "<param name=flashvars value='a=b'></object><div id=host></div>"
                        "<video src=relative.mp4></video>"
                        "<script>document.title='Changed';"
                        "host.attachShadow({mode:'open'}).innerHTML='<b>in the shadow</b>"
                        "<video><source src=/shadow.mp4></video>'</script>"
                        "<iframe src=/frame></iframe><iframe src='"
                        + other.url("/frame").toEncoded() + "'></iframe>"));
        const auto page = open(server.address("/"));
        QVERIFY(page->load(server.address("/")));
        const PageSnapshot snapshot = page->snapshot();
        QVERIFY2(snapshot.source.startsWith(text("<!DOCTYPE html><html lang=\"en\">")),
                 qPrintable(snapshot.source));
        for (const char *const part : {"<title>Changed</title>", "in the own frame",
                                       "in the other site's frame", "in the shadow"})
            QVERIFY2(snapshot.source.contains(text(part)), part);
        QVERIFY(snapshot.hasRootAttributes);
        const PageSnapshot::Attributes param{{text("name"), text("flashvars")},
                                             {text("value"), text("a=b")}};
        QCOMPARE(snapshot.params, QVector<PageSnapshot::Attributes>{param});
        QCOMPARE(QSet<QString>(snapshot.media.begin(), snapshot.media.end()),
                 (QSet<QString>{server.address("/relative.mp4"), server.address("/shadow.mp4")}));
        QVERIFY(page->snapshot().source.contains(text("in the other site's frame")));
    }

    /// Nothing that a page asks for is left out, but long media comes in part.
    void longMediaIsCut()
    {
        const QByteArray video(8 << 20, 'v');
        ScriptedServer server;
        server.on("/",
                  reply("<script>onload = async () => { const r = await fetch('/v.mp4');"
                        "const b = await r.arrayBuffer(); document.title = b.byteLength;"
                        "}</script>"));
        server.serve("/v.mp4", video, "video/mp4");
        const auto page = open(server.address("/"));
        QVERIFY(page->load(server.address("/")));
        QTRY_COMPARE_WITH_TIMEOUT(page->replies.value(server.address("/v.mp4")).size,
                                  qint64(video.size()), patienceMs);
        QTRY_VERIFY_WITH_TIMEOUT(page->snapshot().source.contains(text("<title>65536</title>")),
                                 patienceMs);
    }

    void mediaOfUntoldLengthIsCounted()
    {
        ScriptedServer server;
        server.on("/", reply("<script>fetch('/v'); fetch('/w')</script>"));
        HttpReply endless = reply(QByteArray(64 << 20, 'v'), "video/mp4");
        endless.withoutLength = true;
        server.on("/v", endless);
        HttpReply small = reply(QByteArray(300000, 'v'), "video/mp4");
        small.withoutLength = true;
        server.on("/w", small);
        const auto page = open(server.address("/"));
        QVERIFY(page->load(server.address("/")));
        QTRY_COMPARE_WITH_TIMEOUT(page->untold, QStringList{server.address("/v")}, patienceMs);
        QVERIFY(page->replies.value(server.address("/v")).size >= 1 << 20);
        QTRY_COMPARE_WITH_TIMEOUT(page->replies.value(server.address("/w")).size, qint64(300000),
                                  patienceMs);
    }

    void piecesAreOneFile()
    {
        ScriptedServer server;
        server.on("/",
                  reply("<script>for (const q of ['?id=1&range=0-99', '?id=1&range=100-199'])"
                        "fetch('/v' + q); fetch('/r', {headers: {Range: 'bytes=5-9'}})"
                        "</script>"));
        server.on("/v", reply(QByteArray(100, 'v'), "video/mp4"));
        server.serve("/r", QByteArray(3 << 20, 'r'), "video/mp4");
        const auto page = open(server.address("/"));
        QVERIFY(page->load(server.address("/")));
        const QString whole = server.address("/v?id=1");
        QTRY_COMPARE_WITH_TIMEOUT(page->untold, (QStringList{whole, whole}), patienceMs);
        QTRY_COMPARE_WITH_TIMEOUT(page->replies.value(server.address("/r")).size, qint64(3 << 20),
                                  patienceMs);
        QVERIFY(!page->requests.contains(server.address("/v?id=1&range=0-99")));
    }

    /// One that the engine does not want neither keeps it from the others nor is lost by it.
    void anOddCookieCostsNoOther()
    {
        ScriptedServer server;
        server.on("/", reply("<p>"));
        const auto insert = [](const QByteArray &name, const QString &domain) {
            QNetworkCookie cookie(name, "1");
            cookie.setDomain(domain);
            cookie.setPath(text("/"));
            return CookieStore::instance().insert(cookie);
        };
        QVERIFY(insert("good", text("127.0.0.1")));
        QVERIFY(insert("odd\x01", text("127.0.0.1")));
        QVERIFY(insert("strange", text("no host")));
        QVERIFY(insert("__Host-insecure", text("127.0.0.1")));
        const QList<QNetworkCookie> given = CookieStore::instance().cookies();
        const auto page = open(server.address("/"));
        QVERIFY(page->load(server.address("/")));
        QCOMPARE(server.requestsFor("/").first().header("Cookie"), QByteArray("good=1"));
        page->engine->stop();
        for (const QNetworkCookie &cookie : given)
            QVERIFY(CookieStore::instance().cookies().contains(cookie));
    }

    void cookiesGoBothWays()
    {
        ScriptedServer server;
        HttpReply first = reply("<script>document.cookie = 'fromScript=2;max-age=1000';"
                                "document.cookie = 'old=; max-age=0'</script>");
        first.headers += qMakePair(QByteArray("Set-Cookie"),
                                   QByteArray("fromServer=1; Path=/; Max-Age=1000; HttpOnly"));
        server.on("/", first);
        QNetworkCookie cookie("old", "0");
        cookie.setDomain(text("127.0.0.1"));
        cookie.setPath(text("/"));
        QVERIFY(CookieStore::instance().insert(cookie));
        const auto page = open(server.address("/"));
        QVERIFY(page->load(server.address("/")));
        page->engine->stop();
        QCOMPARE(server.requestsFor("/").first().header("Cookie"), QByteArray("old=0"));
        QByteArrayList names;
        const QList<QNetworkCookie> cookies = CookieStore::instance().cookies();
        for (const QNetworkCookie &each : cookies) {
            names += each.name();
            QCOMPARE(each.domain(), text("127.0.0.1"));
        }
        std::sort(names.begin(), names.end());
        QCOMPARE(names, (QByteArrayList{"fromScript", "fromServer"}));
    }

    void theHeadersOfThePageAreKept()
    {
        ScriptedServer server;
        server.on("/page", reply("<script>fetch('/v.mp4')</script>"));
        const auto page = open(server.address("/page"));
        QVERIFY(page->load(server.address("/page")));
        QTRY_VERIFY(page->requests.contains(server.address("/v.mp4")));
        QHash<QByteArray, QByteArray> headers;
        const PageHeaders::Headers lines = page->options.pageHeaders->of(server.url("/v.mp4"));
        for (const auto &line : lines)
            headers.insert(line.first.toLower(), line.second);
        QCOMPARE(headers.value("referer"), server.url("/page").toEncoded());
        QVERIFY(headers.value("user-agent").contains(" Chrome/"));
    }

    void aPageThatCannotBeHadIsTold()
    {
        const auto page = open(text("http://127.0.0.1:1/"));
        QVERIFY(page->load(text("http://127.0.0.1:1/")));
        QVERIFY(!page->isOk);
    }

    /// A page of this machine is read here, and leads to no other file.
    void aFileIsReadAlone()
    {
        ScriptedServer server;
        QFile file(m_folder.filePath(text("page.html")));
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write("<title>A file</title><iframe src=other.html></iframe><img src='"
                   + server.url("/picture").toEncoded()
                   + "'><script>fetch('other.html')</script>"
                     "<iframe src=file:///etc/hostname></iframe>");
        file.close();
        QFile other(m_folder.filePath(text("other.html")));
        QVERIFY(other.open(QIODevice::WriteOnly));
        other.write("a secret");
        other.close();
        const QString address = QUrl::fromLocalFile(file.fileName()).toString();
        const auto page = open(address);
        QVERIFY(page->load(address));
        const PageSnapshot snapshot = page->snapshot();
        QVERIFY(snapshot.source.contains(text("<title>A file</title>")));
        QVERIFY(!snapshot.source.contains(text("a secret")));
        QVERIFY(page->requests.contains(server.address("/picture")));
    }

    void aPageOfTheWebReachesNoFile()
    {
        ScriptedServer server;
        server.on("/",
                  reply("<iframe src=file:///etc/hostname></iframe><script>"
                        "setTimeout(() => location = 'file:///etc/hostname', 0)</script>"));
        const auto page = open(server.address("/"));
        QVERIFY(page->load(server.address("/")));
        QVERIFY(page->snapshot().source.contains(text("iframe")));
    }

    void scriptsThatNeverEndHoldNothingUp()
    {
        ScriptedServer server;
        server.on("/",
                  reply("<title>Busy</title><script>onload = () => setTimeout("
                        "() => { for (;;); }, 0)</script>"));
        const auto page = open(server.address("/"));
        QVERIFY(page->load(server.address("/")));
        QTest::qWait(50); // into the loop
        QVERIFY(page->snapshot().source.contains(text("<title>Busy</title>")));
        QVERIFY(page->losses.isEmpty());
    }

    void dialogsArePassed()
    {
        ScriptedServer server;
        server.on("/",
                  reply("<script>alert(1); document.title = confirm('?') + '|' + prompt('?')"
                        "</script>"));
        const auto page = open(server.address("/"));
        QVERIFY(page->load(server.address("/")));
        QVERIFY(page->snapshot().source.contains(text("<title>true|null</title>")));
    }

    void theVideoIsAskedForAsAVisitorWould_data()
    {
        QTest::addColumn<QByteArray>("body");
        const QByteArray play = "fetch('/v.mp4')";
        const QByteArray box = "<div style='position:relative;width:640px;height:360px' ";
        QTest::newRow("button") << "<button onclick=\"" + play + "\">Play</button>";
        QTest::newRow("label") << box
                + "id=player><div role=button aria-label='Watch now' onclick=\"" + play
                + "\" style='width:80px;height:80px'></div></div>";
        QTest::newRow("shape") << box + "><span class='vjs-big-play-button' onclick=\"" + play
                + "\" style='display:block;width:80px;height:80px'></span></div>";
        QTest::newRow("in a shadow tree")
            << QByteArray("<div id=host></div><script>const r = host.attachShadow({mode: 'open'});"
                          "r.innerHTML = '<button>Play</button>';"
                          "r.firstChild.onclick = () => fetch('/v.mp4')</script>");
        QTest::newRow("largest") << "<button>Play trailer</button><button onclick=\"" + play
                + "\" style='width:200px;height:100px'>Play</button>";
        QTest::newRow("overlay") << box + "id=player><button onclick=\"" + play
                + "\">Play</button></div><div id=over style='position:fixed;inset:0;"
                  "background:white'><button>Manage</button><button onclick='over.remove()'>"
                  "Accept all cookies</button></div>";
        QTest::newRow("element") << QByteArray("<video src=/v.mp4 preload=none width=640>"
                                               "</video>");
        QTest::newRow("player without a name")
            << box + "class=video-box onclick=\"" + play + "\"></div>";
        QTest::newRow("out of view")
            << "<div style='height:30000px'></div><div class=player id=p style='width:640px;"
               "height:360px'></div><script>new IntersectionObserver((e) => {"
               "if (e[0].isIntersecting) "
                + play + "}).observe(p)</script>";
    }

    void theVideoIsAskedForAsAVisitorWould()
    {
        QFETCH(QByteArray, body);
        ScriptedServer server;
        server.on("/", reply("<!DOCTYPE html>" + body));
        const auto page = open(server.address("/"));
        const QString video = server.address("/v.mp4");
        page->engine->setCandidateCheck([&] { return page->requests.contains(video); });
        QVERIFY(page->load(server.address("/")));
        QTRY_VERIFY_WITH_TIMEOUT(page->requests.contains(video), patienceMs);
    }

    void nothingIsPressedOnceThereIsACandidate_data()
    {
        QTest::addColumn<QString>("option");
        QTest::addColumn<bool>("hasCandidate");
        QTest::newRow("candidate") << QString() << true;
        QTest::newRow("forbidden") << text(" --no-click") << false;
    }

    void nothingIsPressedOnceThereIsACandidate()
    {
        QFETCH(QString, option);
        QFETCH(bool, hasCandidate);
        ScriptedServer server;
        server.on("/",
                  reply("<button onclick=\"fetch('/pressed')\">Play</button><script>"
                        "setTimeout(() => fetch('/late'), 2500)</script>"));
        const auto page = open(server.address("/"), option);
        page->engine->setCandidateCheck([=] { return hasCandidate; });
        QVERIFY(page->load(server.address("/")));
        QTRY_VERIFY_WITH_TIMEOUT(page->requests.contains(server.address("/late")), patienceMs);
        QVERIFY(!page->requests.contains(server.address("/pressed")));
    }

    /// They could not be looked at.
    void socketsLeadNowhere()
    {
        ScriptedServer server;
        server.on("/",
                  reply("<script>const s = new WebSocket(location.href.replace('http', 'ws')"
                        " + 'socket'); s.onerror = () => document.title = 'refused'; s.onopen "
                        "= () => document.title = 'open'</script>"));
        const auto page = open(server.address("/"));
        QVERIFY(page->load(server.address("/")));
        QTRY_VERIFY_WITH_TIMEOUT(page->snapshot().source.contains(text("<title>refused</title>")),
                                 patienceMs);
        QVERIFY(server.requestsFor("/socket").isEmpty());
    }

    void peersAreNotReached()
    {
        QUdpSocket datagrams;
        QVERIFY(datagrams.bind(QHostAddress::LocalHost));
        QTcpServer streams;
        QVERIFY(streams.listen(QHostAddress::LocalHost));
        const QByteArray stun = "stun:127.0.0.1:" + QByteArray::number(datagrams.localPort());
        const QByteArray turn =
            "turn:127.0.0.1:" + QByteArray::number(streams.serverPort()) + "?transport=tcp";
        ScriptedServer server;
        const QByteArray transport =
            "https://127.0.0.1:" + QByteArray::number(datagrams.localPort()) + "/";
        server.on("/",
                  reply("<script>setTimeout(() => fetch('/late'), 2000);"
                        "new Worker('/worker.js');"
                        "try { new WebTransport('"
                        + transport
                        + "').ready.catch(() => {}) } catch (e) {}"
                          "const c = new RTCPeerConnection({iceServers: [{urls: '"
                        + stun + "'}, {urls: '" + turn
                        + "', username: 'u', credential: 'p'}]}); c.createDataChannel('d');"
                          "c.createOffer().then((o) => c.setLocalDescription(o))</script>"));
        server.on("/worker.js", reply("new WebTransport('" + transport + "')", "text/javascript"));
        const auto page = open(server.address("/"));
        QVERIFY(page->load(server.address("/")));
        QTRY_COMPARE_WITH_TIMEOUT(server.requestsFor("/late").size(), 1, patienceMs);
        QVERIFY(!datagrams.hasPendingDatagrams());
        QVERIFY(!streams.hasPendingConnections());
    }

    void aCrashIsTold()
    {
        ScriptedServer server;
        server.on("/", reply("<title>x</title>"));
        const auto page = open(server.address("/"));
        QVERIFY(page->load(server.address("/")));
        page->engine->load(QUrl(text("chrome://crash"))); // no page of the web gets there
        QTRY_COMPARE_WITH_TIMEOUT(page->losses.size(), 1, patienceMs);
        QCOMPARE(page->snapshot().source, QString());
        page->engine->stop();
        page->engine->close();
    }

    void itMayBeStoppedAtAnyTime()
    {
        ScriptedServer server;
        server.on("/", reply("<title>x</title>"));
        server.hold("/held");
        const auto unused = open(server.address("/"));
        unused->engine->stop();
        const auto begun = open(server.address("/"));
        begun->engine->load(server.url("/"));
        begun->engine->stop();
        begun->engine->stop();
        const auto waiting = open(server.address("/held"));
        waiting->engine->load(server.url("/held"));
        QTRY_COMPARE_WITH_TIMEOUT(server.requestsFor("/held").size(), 1, patienceMs);
        QSignalSpy told(waiting->engine.get(), &PageEngine::snapshot);
        waiting->engine->requestSnapshot();
        waiting->engine->stop();
        QVERIFY(waiting->losses.isEmpty());
        const auto snapped = open(server.address("/"));
        QVERIFY(snapped->load(server.address("/")));
        connect(snapped->engine.get(), &PageEngine::snapshot, this,
                [&] { snapped->engine->stop(); });
        QVERIFY(snapped->snapshot().source.contains(text("<title>x</title>")));
    }
};

CLIPWEIR_TEST_MAIN(tst_ChromiumEngine)
#include "tst_chromiumengine.moc"
