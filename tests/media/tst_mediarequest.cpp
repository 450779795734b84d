#include "MediaRequest.h"
#include "PrivateFolder.h"
#include "ScriptedServer.h"
#include "TestMain.h"

#include <QSignalSpy>

namespace {

constexpr qint64 maxBytes = 1000;

HttpReply partOf(const QByteArray &body, const QByteArray &range)
{
    HttpReply reply = replyOf(body, 206);
    if (!range.isEmpty())
        reply.headers = {{"Content-Range", range}};
    return reply;
}

} // namespace

class tst_MediaRequest : public QObject
{
    Q_OBJECT

private slots:
    void takesBodies_data();
    void takesBodies();
    void sendsWhatItIsToldTo();
    void knowsWhereTheAnswerCameFrom();
    void asksTheWebOnly();
    void endsWhenItIsStopped();
};

void tst_MediaRequest::takesBodies_data()
{
    QTest::addColumn<HttpReply>("reply");
    QTest::addColumn<qint64>("first");
    QTest::addColumn<qint64>("count");
    QTest::addColumn<bool>("hasSucceeded");
    QTest::addColumn<QByteArray>("body");
    const QByteArray ten("0123456789");
    const auto row = [](const char *name, const HttpReply &reply, qint64 first, qint64 count,
                        const char *body) {
        QTest::newRow(name) << reply << first << count << (body != nullptr) << QByteArray(body);
    };
    row("all", replyOf(ten), 0, 0, "0123456789");
    row("in chunks", chunkedReplyOf(ten), 0, 0, "0123456789");
    row("as long as can be", replyOf(QByteArray(maxBytes, 'x')), 0, 0,
        QByteArray(maxBytes, 'x').constData());
    row("too long", replyOf(QByteArray(maxBytes + 1, 'x')), 0, 0, nullptr);
    row("too long, in chunks", chunkedReplyOf(QByteArray(maxBytes + 1, 'x')), 0, 0, nullptr);
    HttpReply cut = replyOf(ten);
    cut.cutAfterBytes = 5;
    row("cut", cut, 0, 0, nullptr);
    row("an error", replyOf(ten, 404), 0, 0, nullptr);
    row("a part though all was asked for", partOf(ten, "bytes 0-9/10"), 0, 0, "0123456789");
    row("a part that does not say which", partOf(ten, ""), 0, 0, "0123456789");
    row("a range", partOf("345", "bytes 3-5/10"), 3, 3, "345");
    row("a range to the end", partOf("789", "bytes 7-9/10"), 7, 0, "789");
    row("another range", partOf("456", "bytes 4-6/10"), 3, 3, nullptr);
    row("a range that does not say which", partOf("345", ""), 3, 3, nullptr);
    row("less than the range", partOf("34", "bytes 3-4/10"), 3, 3, nullptr);
    row("the whole file for a range", replyOf(ten), 3, 3, "345");
    row("the whole file for its beginning", replyOf(ten), 0, 3, "012");
    row("the whole file for its end", replyOf(ten), 7, 3, "789");
    row("the whole file to the end", replyOf(ten), 7, 0, "789");
    row("a file that ends before the range does", replyOf(ten), 8, 3, nullptr);
    row("a long file for a short range", replyOf(ten + QByteArray(100000, 'x')), 3, 3, "345");
}

void tst_MediaRequest::takesBodies()
{
    QFETCH(HttpReply, reply);
    QFETCH(qint64, first);
    QFETCH(qint64, count);
    QFETCH(bool, hasSucceeded);
    ScriptedServer server;
    server.on("/f", reply);
    MediaRequest request{MediaServers()};
    QCOMPARE(request.run({server.url("/f"), first, count, maxBytes}, "left over"), hasSucceeded);
    QCOMPARE(request.hasSucceeded(), hasSucceeded);
    if (hasSucceeded)
        QTEST(request.body(), "body");
    else
        QVERIFY(!request.errorText().isEmpty());
    QCOMPARE(request.isAbsent(), reply.status == 404);
    const QByteArray range = server.requests().constFirst().header("Range");
    QCOMPARE(!range.isEmpty(), first > 0 || count > 0);
}

void tst_MediaRequest::sendsWhatItIsToldTo()
{
    ScriptedServer server;
    server.on("/f", replyOf("x"));
    MediaServers servers;
    servers.headers = {{"Referer", "http://page.test/"}};
    MediaRequest request(servers);
    QVERIFY(request.run({server.url("/f"), 5, 10, maxBytes}) == false);
    QCOMPARE(server.requests().constFirst().header("Referer"), QByteArray("http://page.test/"));
    QCOMPARE(server.requests().constFirst().header("Range"), QByteArray("bytes=5-14"));
}

void tst_MediaRequest::knowsWhereTheAnswerCameFrom()
{
    ScriptedServer other;
    other.on("/b/f", replyOf("found"));
    ScriptedServer server;
    HttpReply redirect = replyOf("moved", 302);
    redirect.headers = {{"Location", other.url("/b/f").toEncoded()}};
    server.on("/a/f", redirect);
    MediaRequest request{MediaServers()};
    QVERIFY(request.run({server.url("/a/f"), 0, 0, maxBytes}));
    QCOMPARE(request.body(), QByteArray("found")); // and nothing of the redirect's
    QCOMPARE(request.url(), other.url("/b/f"));
}

void tst_MediaRequest::asksTheWebOnly()
{
    PrivateFolder folder;
    const QUrl file(folder.address(QStringLiteral("key")));
    ScriptedServer server;
    HttpReply redirect = replyOf("", 302);
    redirect.headers = {{"Location", file.toEncoded()}};
    server.on("/key", redirect);
    (void)folder.opened(); // it has just been made
    for (const QUrl &url : {file, server.url("/key"), QUrl(QStringLiteral("data:,x")), QUrl()}) {
        MediaRequest request{MediaServers()};
        QVERIFY(!request.run({url, 0, 0, maxBytes}));
        QVERIFY(!request.body().contains(PrivateFolder::secret()));
    }
    QVERIFY(folder.opened().isEmpty());
}

void tst_MediaRequest::endsWhenItIsStopped()
{
    ScriptedServer server;
    server.hold("/f");
    const StopFlag stop;
    MediaRequest request(MediaServers(), stop);
    connect(&server, &ScriptedServer::requestReceived, this, [&] { stop.raise(); });
    QVERIFY(!request.run({server.url("/f"), 0, 0, maxBytes}));
    QVERIFY(!request.run({server.url("/f"), 0, 0, maxBytes})); // and asks for nothing any more
    QCOMPARE(server.requests().size(), 1);
}

CLIPWEIR_TEST_MAIN(tst_MediaRequest)

#include "tst_mediarequest.moc"
