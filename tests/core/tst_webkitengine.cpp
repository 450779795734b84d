#include "CookieStore.h"
#include "ScriptedServer.h"
#include "TestMain.h"
#include "WebkitEngineFactory.h"

#include <QApplication>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QWidget>

#include <memory>

namespace {

QString text(const char *latin1)
{
    return QString::fromLatin1(latin1);
}

HttpReply html(const QByteArray &body)
{
    HttpReply reply;
    reply.headers = {{"Content-Type", "text/html"}};
    reply.body = body;
    return reply;
}

QStringList firsts(const QSignalSpy &spy)
{
    QStringList texts;
    for (const QList<QVariant> &arguments : spy)
        texts += arguments.first().toString();
    return texts;
}

} // namespace

/// An engine as a run sees it.
class tst_WebkitEngine : public QObject
{
    Q_OBJECT

    WebkitEngineFactory m_factory;

    [[nodiscard]] std::unique_ptr<PageEngine> makeEngine(const QStringList &options = {})
    {
        setArguments(QStringList{text("--url"), text("http://127.0.0.1:1/page")} + options);
        return m_factory.make(RunOptions::ofCommandLine());
    }

    /// Loads the page and waits until that is told.
    static bool load(PageEngine &engine, const QUrl &url)
    {
        QSignalSpy loaded(&engine, &PageEngine::loaded);
        engine.load(url);
        return (!loaded.isEmpty() || loaded.wait()) && loaded.first().first().toBool();
    }

    static PageSnapshot snapshotOf(PageEngine &engine)
    {
        PageSnapshot result;
        int count = 0;
        QObject context;
        connect(&engine, &PageEngine::snapshot, &context, [&](const PageSnapshot &snapshot) {
            result = snapshot;
            ++count;
        });
        engine.requestSnapshot();
        return count == 1 ? result : PageSnapshot(); // told before the request returned
    }

private slots:
    void tellsOfRequestsAndReplies()
    {
        ScriptedServer server;
        server.on("/",
                  html("<script>var x = new XMLHttpRequest(); x.open('GET', '/data');"
                       "x.send();</script>"));
        HttpReply data;
        data.headers = {{"Content-Type", "application/x-data"}};
        data.body = QByteArray(1234, 'd');
        server.on("/data", data);
        const auto engine = makeEngine();
        const QSignalSpy requests(engine.get(), &PageEngine::requestSeen);
        const QSignalSpy replies(engine.get(), &PageEngine::replySeen);
        const QSignalSpy ends(engine.get(), &PageEngine::replyEnded);
        QVERIFY(load(*engine, server.url("/")));
        QTRY_VERIFY(ends.count() >= 2);
        QCOMPARE(firsts(requests), (QStringList{server.address("/"), server.address("/data")}));
        const QList<QVariant> last{server.address("/data"), qint64(1234),
                                   text("application/x-data")};
        QVERIFY(replies.contains(last));
    }

    void tellsOfMediaWithoutASize()
    {
        ScriptedServer server;
        server.on("/",
                  html("<script>var x = new XMLHttpRequest(); x.open('GET', '/v');"
                       "x.send();</script>"));
        HttpReply video;
        video.headers = {{"Content-Type", "video/mp4"}};
        video.body = QByteArray(6000000, 'v');
        video.withoutLength = true;
        server.on("/v", video);
        const auto engine = makeEngine();
        const QSignalSpy untold(engine.get(), &PageEngine::sizeUntold);
        QVERIFY(load(*engine, server.url("/")));
        QTRY_COMPARE(firsts(untold), QStringList{server.address("/v")});
    }

    void tellsThatAPageCannotBeLoaded()
    {
        const auto engine = makeEngine();
        QVERIFY(!load(*engine, QUrl(text("http://127.0.0.1:1/"))));
    }

    void givesSnapshots()
    {
        ScriptedServer server;
        server.on("/",
                  html("<html lang=en><title>A film</title><object>"
                       "<param name=flashvars value='a=1'></object>"));
        const auto engine = makeEngine();
        QVERIFY(!snapshotOf(*engine).source.contains(text("film")));
        QVERIFY(load(*engine, server.url("/")));
        const PageSnapshot snapshot = snapshotOf(*engine);
        QVERIFY(snapshot.source.contains(text("<title>A film</title>")));
        QVERIFY(snapshot.hasRootAttributes);
        QCOMPARE(snapshot.params.size(), 1);
        QCOMPARE(snapshot.params.first().at(1), qMakePair(text("value"), text("a=1")));
    }

    void laysOutWhatCannotBeSeen()
    {
        ScriptedServer server;
        server.on("/",
                  html("<body onresize=\"document.title = innerHeight\">"
                       "<div style='height: 5000px'>"));
        const auto engine = makeEngine();
        QVERIFY(load(*engine, server.url("/")));
        engine->layOutWhole();
        QTRY_VERIFY(snapshotOf(*engine).source.contains(text("<title>50")));
    }

    void aStoppedPageIsBlankAndHasNoNetwork()
    {
        ScriptedServer server;
        server.on("/", html("<body onunload=\"new Image().src = '/gone'\"><p>text"));
        const auto engine = makeEngine();
        QVERIFY(load(*engine, server.url("/")));
        engine->stop();
        QTRY_VERIFY(!snapshotOf(*engine).source.contains(text("text")));
        const QSignalSpy requests(engine.get(), &PageEngine::requestSeen);
        QVERIFY(!load(*engine, server.url("/")));
        QCOMPARE(firsts(requests), QStringList{server.address("/")}); // told, but refused
        QCOMPARE(server.requests().size(), 1);
    }

    void showsHidesAndCloses()
    {
        const auto engine = makeEngine();
        const auto shown = [] {
            const QWidgetList windows = QApplication::topLevelWidgets();
            return std::count_if(windows.cbegin(), windows.cend(),
                                 [](const QWidget *window) { return window->isVisible(); });
        };
        engine->setShown(false);
        QCOMPARE(shown(), 0);
        engine->setShown(true);
        QCOMPARE(shown(), 1);
        engine->setShown(false);
        QCOMPARE(shown(), 0);
        engine->setShown(true);
        engine->close();
        QCOMPARE(shown(), 0);
    }

    void tellsThatTheUserClosesTheWindow()
    {
        const auto engine = makeEngine();
        engine->setShown(true);
        const QSignalSpy closed(engine.get(), &PageEngine::windowClosed);
        // The application looks at its windows only while its own loop runs.
        connect(engine.get(), &PageEngine::windowClosed, qApp, &QCoreApplication::quit);
        QTimer::singleShot(0, engine.get(), [] {
            const QWidgetList windows = QApplication::topLevelWidgets();
            for (QWidget *const window : windows) {
                if (window->isVisible())
                    window->close();
            }
        });
        QTimer::singleShot(20000, qApp, &QCoreApplication::quit);
        QCoreApplication::exec();
        QCOMPARE(closed.count(), 1);
    }

    void scriptsDoNotSeeAClosedPageGo()
    {
        ScriptedServer server;
        server.on("/", html("<body onunload=\"new Image().src = '/gone'\"><p>text"));
        {
            const auto engine = makeEngine();
            QVERIFY(load(*engine, server.url("/")));
            engine->close();
        }
        const auto after = makeEngine();
        server.on("/after", html("<p>after"));
        QVERIFY(load(*after, server.url("/after")));
        QVERIFY(server.requestsFor("/gone").isEmpty());
    }

    void allGoesThroughTheProxy()
    {
        ScriptedServer proxy;
        proxy.on("http://site.test/page",
                 html("<script>document.title = typeof WebSocket</script>"));
        const auto engine = makeEngine();
        engine->setProxy(QNetworkProxy(QNetworkProxy::HttpProxy, text("127.0.0.1"), proxy.port()));
        QVERIFY(load(*engine, QUrl(text("http://site.test/page"))));
        QVERIFY(snapshotOf(*engine).source.contains(text("<title>undefined</title>")));
    }

    void keepsCookies()
    {
        const QTemporaryDir folder;
        const QString path = folder.filePath(text("cookies.txt"));
        qputenv("CLIPWEIR_COOKIES", QFile::encodeName(path));
        ScriptedServer server;
        HttpReply page = html("<p>x");
        page.headers += qMakePair(QByteArray("Set-Cookie"), QByteArray("a=kept; Max-Age=1000"));
        server.on("/", page);
        const auto engine = makeEngine();
        QVERIFY(load(*engine, server.url("/")));
        engine->saveCookies();
        QFile file(path);
        QVERIFY(file.open(QIODevice::ReadOnly));
        QVERIFY(file.readAll().contains("kept"));
        CookieStore::instance().clear();
        qunsetenv("CLIPWEIR_COOKIES");
    }

    void aPageMayGoWhileItLoads()
    {
        ScriptedServer server;
        server.hold("/");
        auto engine = makeEngine();
        engine->load(server.url("/"));
        QTRY_COMPARE(server.requests().size(), 1);
        engine.reset();
    }

    void theMediaFrameworkIsToldWhatItMayNotUse_data()
    {
        QTest::addColumn<bool>("isShown");
        QTest::newRow("hidden") << false;
        QTest::newRow("shown") << true;
    }

    void theMediaFrameworkIsToldWhatItMayNotUse()
    {
        QFETCH(bool, isShown);
        const QByteArray before = qgetenv("GST_PLUGIN_FEATURE_RANK");
        qputenv("GST_PLUGIN_FEATURE_RANK", "mine:256");
        RunOptions options;
        options.isShown = isShown;
        m_factory.prepare(options);
        const QByteArray ranks = qgetenv("GST_PLUGIN_FEATURE_RANK");
        QVERIFY(ranks.startsWith("mine:256,hlsdemux:NONE,"));
        QCOMPARE(ranks.contains("alsasink:NONE"), !isShown);
        qputenv("GST_PLUGIN_FEATURE_RANK", before);
    }
};

CLIPWEIR_TEST_MAIN(tst_WebkitEngine)
#include "tst_webkitengine.moc"
