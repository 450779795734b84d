#include "PageRun.h"
#include "TestMain.h"

namespace {

QByteArray parseFailed(const QString &page)
{
    return parsingLine(page) + fixedLine("parse failed") + fixedLine("detach sharememory");
}

} // namespace

/// Whole runs against pages and their servers that mean no good. Each must end in order, with the
/// lines a host knows.
class tst_RunPages : public QObject
{
    Q_OBJECT

    /// Serves the page of the row to a run, which must not find anything on it.
    static void findNothing()
    {
        QFETCH(HttpReply, reply);
        ScriptedServer server;
        server.on("/page", reply);
        const QString page = server.address("/page");
        ProgramRun run;
        // Long enough for one scan of what the page holds.
        QVERIFY(run.run({option("--url"), page, option("--timeout"), option("2")}));
        QCOMPARE(run.errorOutput(), parseFailed(page));
        QCOMPARE(run.exitCode(), 0);
        QVERIFY(run.endedNormally());
        QVERIFY(!server.requests().isEmpty());
    }

private slots:
    void addressesThatAreNone_data()
    {
        QTest::addColumn<QString>("address");
        QTest::newRow("words") << option("not an address");
        QTest::newRow("scheme only") << option("http://");
        QTest::newRow("unknown scheme") << option("gopher-ish:thing");
        QTest::newRow("no server there") << option("http://127.0.0.1:1/");
        QTest::newRow("port too high") << option("http://127.0.0.1:99999/");
        QTest::newRow("broken brackets") << option("http://[::1/");
        QTest::newRow("only percent signs") << option("%%%");
        QTest::newRow("script") << option("javascript:for(;;);");
        QTest::newRow("very long")
            << option("http://127.0.0.1:1/") + QString(100000, QLatin1Char('a'));
        QTest::newRow("missing file") << option("file:///nonexistent/page.html");
    }

    void addressesThatAreNone()
    {
        QFETCH(QString, address);
        ProgramRun run;
        QVERIFY(run.run({option("--url"), address, option("--timeout"), option("1")}));
        QCOMPARE(run.errorOutput(), parseFailed(address));
        QCOMPARE(run.exitCode(), 0);
        QVERIFY(run.endedNormally());
    }

    void repliesWithoutAVideo_data()
    {
        QTest::addColumn<HttpReply>("reply");
        HttpReply missing = htmlReply("<title>gone</title>");
        missing.status = 404;
        QTest::newRow("404") << missing;
        HttpReply broken = htmlReply("<title>broken</title>");
        broken.status = 503;
        QTest::newRow("503") << broken;
        QTest::newRow("empty") << htmlReply("");
        QTest::newRow("NUL bytes")
            << htmlReply(QByteArray("<title>a|b</title>||<p>|").replace('|', '\0'));
        HttpReply utf16 = htmlReply(QByteArray("\xff\xfe<|p|>|").replace('|', '\0'));
        utf16.headers = {{"Content-Type", "text/html; charset=utf-16"}};
        QTest::newRow("UTF-16") << utf16;
        HttpReply nonsense = htmlReply("<p>\xff\xc3\x28\xa0");
        nonsense.headers = {{"Content-Type", "text/html; charset=nonsense"}};
        QTest::newRow("unknown encoding") << nonsense;
        HttpReply flood = htmlReply("<p>");
        for (int i = 0; i < 20000; ++i)
            flood.headers += qMakePair("X-" + QByteArray::number(i), QByteArray(100, 'x'));
        QTest::newRow("header flood") << flood;
        HttpReply cut = htmlReply(QByteArray(100000, 'x'));
        cut.cutAfterBytes = 5000;
        QTest::newRow("cut page") << cut;
        HttpReply loop;
        loop.status = 302;
        loop.headers = {{"Location", "/page"}};
        QTest::newRow("redirect loop") << loop;
    }

    void repliesWithoutAVideo() { findNothing(); }

    void textWithoutAVideo_data()
    {
        QTest::addColumn<HttpReply>("reply");
        QTest::newRow("20 MB of quotes") << htmlReply("<p>" + QByteArray(20000000, '"'));
        QTest::newRow("20 MB of tags")
            << htmlReply(QByteArray("<i>\"'&#x<title og:image").repeated(900000).left(5000000));
        QTest::newRow("boundless picture")
            << htmlReply("<div style='width:99999999px;height:99999999px'>x</div>");
        QTest::newRow("deep nesting") << htmlReply(QByteArray("<div>").repeated(100000));
        QTest::newRow("picture address only")
            << htmlReply("<meta property=\"og:image\" content=\"/t.jpg\">");
        QTest::newRow("bad player description")
            << htmlReply("<html lang=en><object><param name=flashvars value='sequence=%7B%22a'>"
                         "<param name=flashvars value='sequence=[[[[&sequence=%FF%00'></object>");
    }

    void textWithoutAVideo() { findNothing(); }

    void scriptsWithoutAVideo_data()
    {
        QTest::addColumn<HttpReply>("reply");
        QTest::newRow("dialogs") << htmlReply("<script>alert(1); confirm(2); prompt(3); print();"
                                              "onbeforeunload = function() { return 'stay' };"
                                              "</script>");
        QTest::newRow("windows") << htmlReply("<script>for (var i = 0; i < 50; i++)"
                                              "window.open('/page'); window.close();</script>");
        QTest::newRow("navigates") << htmlReply(
            "<script>setTimeout(function() { location = '/page?' + Math.random() }, 10)</script>");
        QTest::newRow("reloads in the head") << htmlReply("<meta http-equiv=refresh content=0>");
        QTest::newRow("frames in frames") << htmlReply("<iframe src='/page?a'></iframe>"
                                                       "<iframe src='/page?b'></iframe>");
        QTest::newRow("requests without end")
            << htmlReply("<script>setInterval(function() { for (var i = 0; i < 20; i++)"
                         "new Image().src = '/x' + Math.random(); }, 10)</script>");
    }

    void scriptsWithoutAVideo() { findNothing(); }

    void pageServerThatHangsUp_data()
    {
        QTest::addColumn<QByteArray>("answer");
        QTest::newRow("at once") << QByteArray();
        QTest::newRow("in the status line") << QByteArray("HTTP/1.");
        QTest::newRow("after the status line") << QByteArray("HTTP/1.1 200 OK\r\n");
        QTest::newRow("in a header") << QByteArray("HTTP/1.1 200 OK\r\nContent-Le");
        QTest::newRow("before the body")
            << QByteArray("HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\n");
        QTest::newRow("no HTTP at all") << QByteArray("SSH-2.0-nonsense\r\n");
        QTest::newRow("broken chunk")
            << QByteArray("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\nzz\r\nhello\r\n");
    }

    void pageServerThatHangsUp()
    {
        QFETCH(QByteArray, answer);
        ScriptedServer server;
        server.onRaw("/page", [answer](const HttpRequest &, QTcpSocket *socket) {
            socket->write(answer);
            socket->disconnectFromHost();
        });
        const QString page = server.address("/page");
        ProgramRun run;
        QVERIFY(run.run({option("--url"), page, option("--timeout"), option("1")}));
        QCOMPARE(run.errorOutput(), parseFailed(page));
        QVERIFY(run.endedNormally());
    }
};

CLIPWEIR_TEST_MAIN(tst_RunPages)
#include "tst_run_pages.moc"
