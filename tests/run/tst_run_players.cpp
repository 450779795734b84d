// Whole runs of pages whose players read playlists. Some of the media framework's plug-ins fetch
// what a playlist names by themselves; whether a machine has them must not be seen.

#include "PageRun.h"
#include "TestMain.h"

#include <QTcpServer>

#include <iterator>

namespace {

/// A playlist and the type by which the engine's player knows it.
struct Playlist
{
    const char *name;
    const char *address;
    const char *type;
    const char *text;
};

const Playlist playlists[] = {
    {"HLS", "/list.m3u8", "application/vnd.apple.mpegurl",
     "#EXTM3U\n#EXT-X-VERSION:3\n#EXT-X-TARGETDURATION:4\n#EXT-X-MEDIA-SEQUENCE:0\n"
     "#EXTINF:4,\n/segment/1\n#EXTINF:4,\n/segment/2\n#EXT-X-ENDLIST\n"},
    {"HLS of variants", "/list.m3u8", "application/x-mpegurl",
     "#EXTM3U\n#EXT-X-STREAM-INF:BANDWIDTH=800000,CODECS=\"avc1.42e01e,mp4a.40.2\"\n/inner.m3u8\n"},
    {"DASH", "/list.mpd", "application/dash+xml",
     "<?xml version='1.0'?><MPD xmlns='urn:mpeg:dash:schema:mpd:2011' type='static' "
     "mediaPresentationDuration='PT8S' minBufferTime='PT2S' "
     "profiles='urn:mpeg:dash:profile:isoff-main:2011'><Period><AdaptationSet "
     "mimeType='video/mp4'><Representation id='1' bandwidth='800000' codecs='avc1.42e01e' "
     "width='64' height='64'><SegmentList duration='4'><SegmentURL media='/segment/1'/>"
     "<SegmentURL media='/segment/2'/></SegmentList></Representation></AdaptationSet></Period>"
     "</MPD>"},
    {"smooth streaming", "/list.ism", "application/vnd.ms-sstr+xml",
     "<SmoothStreamingMedia MajorVersion='2' MinorVersion='0' Duration='80000000'><StreamIndex "
     "Type='video' Chunks='2' QualityLevels='1' Url='segment/{bitrate}/{start time}'><QualityLevel "
     "Index='0' Bitrate='800000' FourCC='H264' MaxWidth='64' MaxHeight='64' "
     "CodecPrivateData='000000016742E01EDA02D0496000000168CE3C80'/><c t='0' d='40000000'/>"
     "<c d='40000000'/></StreamIndex></SmoothStreamingMedia>"},
};

/// A segment in form: packets of an MPEG transport stream, which hold nothing.
QByteArray emptySegment()
{
    constexpr int packetBytes = 188;
    QByteArray packet("\x47\x1f\xff\x10", 4); // sync byte, the packet of no stream
    packet += QByteArray(packetBytes - packet.size(), '\xff');
    return packet.repeated(2000);
}

QByteArray playerOf(const QByteArray &address)
{
    return "<video src='" + address + "' autoplay></video>";
}

} // namespace

class tst_RunPlayers : public QObject
{
    Q_OBJECT

    const QByteArray m_video = testBytes(6 * 1024 * 1024);

    static QByteArray playlistPage(ScriptedServer &server, const Playlist &playlist)
    {
        server.on(playlist.address, mediaReply(playlist.text, playlist.type));
        server.on("/inner.m3u8", mediaReply(playlists[0].text, playlists[0].type));
        server.onOther(
            [](const HttpRequest &) { return mediaReply(emptySegment(), "video/mp2t"); });
        return playerOf(playlist.address);
    }

private slots:
    void aPlaylistAlone_data()
    {
        QTest::addColumn<QStringList>("options");
        QTest::newRow("hidden") << QStringList();
        QTest::newRow("shown") << QStringList{option("--show")};
    }

    /// There is no candidate, which is for the run to say, and not for what ends a lost one.
    void aPlaylistAlone()
    {
        QFETCH(QStringList, options);
        ScriptedServer server;
        const QString page = server.address("/page");
        server.on("/page", htmlReply(playlistPage(server, playlists[0])));
        ProgramRun run;
        QVERIFY(run.run(QStringList{option("--url"), page, option("--timeout"), option("2")}
                        + options));
        QVERIFY(!server.requestsFor(playlists[0].address).isEmpty());
        QCOMPARE(run.errorOutput(),
                 parsingLine(page) + fixedLine("parse failed") + fixedLine("detach sharememory"));
    }

    void aPlaylistBesideAVideo_data()
    {
        QTest::addColumn<int>("playlist");
        QTest::addColumn<QStringList>("options");
        for (int i = 0; i < int(std::size(playlists)); ++i)
            QTest::newRow(playlists[i].name) << i << QStringList();
        QTest::newRow("HLS, shown") << 0 << QStringList{option("--show")};
    }

    void aPlaylistBesideAVideo()
    {
        QFETCH(int, playlist);
        QFETCH(QStringList, options);
        ScriptedServer server;
        const QString page = server.address("/page");
        server.on("/page",
                  htmlReply(playlistPage(server, playlists[playlist]) + playerOf("/v.mp4")));
        server.serve("/v.mp4", m_video, "video/mp4");
        ProgramRun run;
        QVERIFY(run.run(QStringList{option("--url"), page} + options));
        QVERIFY(!server.requestsFor(playlists[playlist].address).isEmpty());
        QCOMPARE(withoutProgress(run.errorOutput()),
                 parsingLine(page) + recordLine(server.address("/v.mp4"), m_video.size(), "mp4")
                     + fixedLine("start download video ...")
                     + fixedLine("video download finished:success")
                     + fixedLine("detach sharememory"));
        const QString name = option("tmp/") + pageHash(page) + option(".mp4");
        QVERIFY(run.fileContent(name) == m_video);
    }

    /// The player has protocols of its own, which would not go by the page's network.
    void otherProtocols()
    {
        ScriptedServer server;
        QTcpServer other;
        QVERIFY(other.listen(QHostAddress::LocalHost));
        QByteArray page;
        for (const char *const scheme : {"rtsp", "rtspt", "rtsph", "rtmp", "icy", "mms", "tcp"})
            page += playerOf(QByteArray(scheme)
                             + "://127.0.0.1:" + QByteArray::number(other.serverPort()) + "/v");
        server.on("/page", htmlReply(page));
        ProgramRun run;
        QVERIFY(run.run({option("--url"), server.address("/page"), option("--timeout"), option("6"),
                         option("--nosandbox")}));
        QVERIFY(!other.hasPendingConnections());
        QCOMPARE(run.errorOutput(),
                 parsingLine(server.address("/page")) + fixedLine("parse failed")
                     + fixedLine("detach sharememory"));
    }
};

CLIPWEIR_TEST_MAIN(tst_RunPlayers)
#include "tst_run_players.moc"
