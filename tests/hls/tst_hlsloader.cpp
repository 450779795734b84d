#include "HlsLimits.h"
#include "HlsLoader.h"
#include "ScriptedServer.h"
#include "TestMain.h"

#include <memory>

namespace {

using Failure = Presentation::Failure;

const QByteArray playlistText = "#EXTM3U\n#EXTINF:2,\na.ts\n#EXT-X-ENDLIST\n";

/// One playlist on its way.
struct Loading
{
    Loading()
    {
        QObject::connect(&loader, &HlsLoader::loaded, &loader,
                         [this](const HlsPlaylist &list, const QUrl &from) {
                             ++ends;
                             playlist = list;
                             address = from;
                         });
        QObject::connect(&loader, &HlsLoader::failed, &loader,
                         [this](Failure what, const QString &why) {
                             ++ends;
                             failure = what;
                             reason = why;
                         });
    }

    void load(const QVector<QUrl> &addresses)
    {
        loader.load(addresses);
        QVERIFY(ends == 0);
        QTRY_COMPARE_WITH_TIMEOUT(ends, 1, 30000);
    }

    HlsLoader loader{MediaServers()};
    int ends = 0;
    HlsPlaylist playlist;
    QUrl address;
    Failure failure = Failure::Protected;
    QString reason;
};

} // namespace

class tst_HlsLoader : public QObject
{
    Q_OBJECT

private slots:
    void loads()
    {
        ScriptedServer server;
        server.on("/l.m3u8", replyOf(playlistText));
        Loading loading;
        loading.load({server.url("/l.m3u8")});
        QCOMPARE(loading.playlist.segments.size(), std::size_t(1));
        QCOMPARE(loading.address, server.url("/l.m3u8"));
        QCOMPARE(loading.playlist.address, server.url("/l.m3u8"));
    }

    void isRelativeToWhereItCameFrom()
    {
        ScriptedServer server;
        server.on("/l.m3u8", {302, {{"Location", "/elsewhere/x.m3u8?t=1"}}, ""});
        server.on("/elsewhere/x.m3u8", replyOf(playlistText));
        Loading loading;
        loading.load({server.url("/l.m3u8")});
        QCOMPARE(loading.playlist.resolve(QStringLiteral("a.ts")), server.url("/elsewhere/a.ts"));
        QCOMPARE(loading.address, server.url("/l.m3u8"));
    }

    void redirectsToFilesAreNotFollowed()
    {
        ScriptedServer server;
        server.on("/l.m3u8", {302, {{"Location", "file:///etc/passwd"}}, ""});
        Loading loading;
        loading.load({server.url("/l.m3u8")});
        QCOMPARE(loading.failure, Failure::Unreachable);
    }

    void failures_data()
    {
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<int>("status");
        QTest::addColumn<Failure>("failure");
        QTest::addColumn<int>("requests");
        QTest::newRow("page") << QByteArray("<html>") << 200 << Failure::Malformed << 3;
        QTest::newRow("empty") << QByteArray() << 200 << Failure::Malformed << 3;
        QTest::newRow("not there") << QByteArray() << 404 << Failure::Unreachable << 1;
        QTest::newRow("gone") << QByteArray() << 410 << Failure::Unreachable << 1;
        QTest::newRow("in disorder") << QByteArray() << 503 << Failure::Unreachable << 3;
        QTest::newRow("too long") << QByteArray(HlsLimits::playlistBytes + 1, '\n') << 200
                                  << Failure::Unreachable << 3;
    }

    void failures()
    {
        QFETCH(QByteArray, body);
        QFETCH(int, status);
        QFETCH(Failure, failure);
        QFETCH(int, requests);
        ScriptedServer server;
        server.on("/l.m3u8", replyOf(body, status));
        Loading loading;
        loading.load({server.url("/l.m3u8")});
        QCOMPARE(loading.failure, failure);
        QVERIFY(loading.reason.contains(QStringLiteral("/l.m3u8: ")));
        QCOMPARE(server.requests().size(), requests);
    }

    void mayComeInTheEnd()
    {
        ScriptedServer server;
        int requests = 0;
        server.on("/l.m3u8", [&requests](const HttpRequest &) {
            return ++requests < 3 ? replyOf("<html>") : replyOf(playlistText);
        });
        Loading loading;
        loading.load({server.url("/l.m3u8")});
        QCOMPARE(loading.playlist.segments.size(), std::size_t(1));
    }

    void theNextAddressIsTried()
    {
        ScriptedServer server;
        server.on("/b.m3u8", replyOf("<html>"));
        server.on("/c.m3u8", replyOf(playlistText));
        Loading loading;
        loading.load({server.url("/a.m3u8"), server.url("/b.m3u8"), server.url("/c.m3u8")});
        QCOMPARE(loading.address, server.url("/c.m3u8"));
        QCOMPARE(server.requests().size(), 1 + 3 + 1);
    }

    void cancelled()
    {
        ScriptedServer server;
        server.on("/l.m3u8", replyOf(playlistText));
        server.on("/m.m3u8", replyOf(playlistText));
        Loading loading;
        loading.loader.load({server.url("/l.m3u8")});
        loading.loader.cancel();
        QTRY_COMPARE(server.requestsFor("/l.m3u8").size(), 1);
        loading.load({server.url("/m.m3u8")}); // whose end is the only one
        QCOMPARE(loading.address, server.url("/m.m3u8"));
    }

    void credentialsAreNotTold()
    {
        ScriptedServer server;
        QUrl url = server.url("/l.m3u8");
        url.setUserInfo(QStringLiteral("user:secret"));
        Loading loading;
        loading.load({url});
        QVERIFY(!loading.reason.contains(QStringLiteral("secret")));
    }
};

CLIPWEIR_TEST_MAIN(tst_HlsLoader)
#include "tst_hlsloader.moc"
