#include "HlsRun.h"
#include "PrivateFolder.h"
#include "TestMain.h"

namespace {

const QByteArray media = "#EXTM3U\n#EXT-X-KEY:METHOD=AES-128,URI=\"k\"\n#EXT-X-MAP:URI=\"i\"\n"
                         "#EXTINF:1,\ns\n#EXT-X-ENDLIST\n";

/// Opens what lies at an address and fetches all of it, whatever comes of that.
QByteArray fetched(const QUrl &address)
{
    MediaServers servers;
    servers.net.stallMs = 1000;
    HlsPresentation presentation({address, 0, QString()}, servers);
    QByteArray all;
    if (Opening(presentation).isReady) {
        for (TrackSource *track : presentation.tracks())
            all += fetchAll(*track, servers).values().join();
    }
    return all;
}

} // namespace

/// A stream whose server names files of this machine wherever it can name an address.
class tst_HlsLocalFiles : public QObject
{
    Q_OBJECT

    PrivateFolder m_private;

private slots:
    void playlists_data()
    {
        QTest::addColumn<QByteArray>("text");
        QTest::newRow("variant") << QByteArray("#EXTM3U\n#EXT-X-STREAM-INF:BANDWIDTH=1\n%1\n");
        QTest::newRow("sound") << QByteArray(
            "#EXTM3U\n#EXT-X-MEDIA:TYPE=AUDIO,GROUP-ID=\"a\",NAME=\"a\",URI=\"%1\"\n"
            "#EXT-X-STREAM-INF:BANDWIDTH=1,AUDIO=\"a\"\nmedia.m3u8\n");
        QTest::newRow("segment") << QByteArray("#EXTM3U\n#EXTINF:1,\n%1\n#EXT-X-ENDLIST\n");
        QTest::newRow("range") << QByteArray(
            "#EXTM3U\n#EXTINF:1,\n#EXT-X-BYTERANGE:4@0\n%1\n#EXT-X-ENDLIST\n");
        QTest::newRow("map") << QByteArray(
            "#EXTM3U\n#EXT-X-MAP:URI=\"%1\"\n#EXTINF:1,\ns\n#EXT-X-ENDLIST\n");
        QTest::newRow("key") << QByteArray(
            "#EXTM3U\n#EXT-X-KEY:METHOD=AES-128,URI=\"%1\"\n#EXTINF:1,\ns\n#EXT-X-ENDLIST\n");
        QTest::newRow("variable") << QByteArray(
            "#EXTM3U\n#EXT-X-DEFINE:NAME=\"f\",VALUE=\"%1\"\n#EXTINF:1,\n{$f}\n#EXT-X-ENDLIST\n");
    }

    void playlists()
    {
        QFETCH(QByteArray, text);
        ScriptedServer server;
        server.on("/media.m3u8", replyOf("#EXTM3U\n#EXTINF:1,\ns\n#EXT-X-ENDLIST\n"));
        server.on("/s", replyOf(QByteArray(32, 's')));
        const QByteArray file = m_private.address(QStringLiteral("f")).toUtf8();
        const QByteArray web = server.address("/named").toUtf8();
        server.on("/file.m3u8", replyOf(QByteArray(text).replace("%1", file)));
        server.on("/web.m3u8", replyOf(QByteArray(text).replace("%1", web)));
        QVERIFY(!fetched(server.url("/file.m3u8")).contains(PrivateFolder::secret()));
        QCOMPARE(m_private.opened(), QStringList());
        fetched(server.url("/web.m3u8"));
        QVERIFY(!server.requestsFor("/named").isEmpty());
    }

    void redirects_data()
    {
        QTest::addColumn<QByteArray>("path");
        for (const char *path : {"/m.m3u8", "/v.m3u8", "/k", "/i", "/s"})
            QTest::newRow(path) << QByteArray(path);
    }

    void redirects()
    {
        QFETCH(QByteArray, path);
        ScriptedServer server;
        server.on("/m.m3u8", replyOf("#EXTM3U\n#EXT-X-STREAM-INF:BANDWIDTH=1\nv.m3u8\n"));
        server.on("/v.m3u8", replyOf(media));
        server.on("/k", replyOf("0123456789abcdef"));
        server.on("/i", replyOf(QByteArray(32, 'i')));
        server.on("/s", replyOf(QByteArray(32, 's')));
        const QByteArray file = m_private.address(QStringLiteral("f")).toUtf8();
        server.on(path, {302, {{"Location", file}}, ""});
        QVERIFY(!fetched(server.url("/m.m3u8")).contains(PrivateFolder::secret()));
        QVERIFY(!server.requestsFor(path).isEmpty());
        QCOMPARE(m_private.opened(), QStringList());
    }

    void aPlaylistThatIsAFile()
    {
        QVERIFY(fetched(QUrl(m_private.address(QStringLiteral("m.m3u8")))).isEmpty());
        QCOMPARE(m_private.opened(), QStringList());
    }
};

CLIPWEIR_TEST_MAIN(tst_HlsLocalFiles)
#include "tst_hlslocalfiles.moc"
