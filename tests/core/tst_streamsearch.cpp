#include "HdsFixtures.h"
#include "ScriptedServer.h"
#include "StreamSearch.h"
#include "TestMain.h"

#include <QSignalSpy>

namespace {

const QByteArray hlsType = "application/vnd.apple.mpegurl";

HttpReply reply(const QByteArray &body, const QByteArray &type = hlsType)
{
    HttpReply made = replyOf(body);
    made.headers = {{"Content-Type", type}};
    return made;
}

/// A master of two variants, each with two segments of a second.
void serveMaster(ScriptedServer &server)
{
    server.on("/m.m3u8",
              reply("#EXTM3U\n#EXT-X-STREAM-INF:BANDWIDTH=800000,RESOLUTION=64x48\nlow/l.m3u8\n"
                    "#EXT-X-STREAM-INF:BANDWIDTH=1600000,RESOLUTION=128x96\nhigh/l.m3u8\n"));
    for (const char *const path : {"/low/l.m3u8", "/high/l.m3u8"})
        server.on(path,
                  reply("#EXTM3U\n#EXT-X-TARGETDURATION:1\n#EXTINF:1,\ns1.mp4\n#EXTINF:1,\n"
                        "s2.mp4\n#EXT-X-ENDLIST\n"));
}

} // namespace

class tst_StreamSearch : public QObject
{
    Q_OBJECT

    RunOptions m_options;

    /// Streams that have been found.
    struct Finds
    {
        explicit Finds(StreamSearch &search)
        {
            QObject::connect(&search, &StreamSearch::found, &search,
                             [this](const VideoFile &stream) { list += stream; });
        }
        QList<VideoFile> list;
    };

private slots:
    void init()
    {
        qputenv("CLIPWEIR_COOKIES", "/dev/null"); // not the user's
        m_options = RunOptions();
        m_options.pageUrl = QStringLiteral("http://127.0.0.1/page");
    }

    void tellsWhatAManifestTells()
    {
        ScriptedServer server;
        serveMaster(server);
        StreamSearch search(m_options);
        const Finds finds(search);
        search.note(server.address("/m.m3u8"), QString());
        QVERIFY(search.isJudging());
        QTRY_VERIFY(!search.isJudging());
        QCOMPARE(finds.list.size(), 1);
        const VideoFile &stream = finds.list.constFirst();
        QCOMPARE(stream.address(), server.address("/m.m3u8"));
        QCOMPARE(stream.urlType, QStringLiteral("hls"));
        QVERIFY(stream.isStream());
        QCOMPARE(stream.width, 128);
        QCOMPARE(stream.height, 96);
        QCOMPARE(stream.duration, 2);
        QCOMPARE(stream.nSize, qint64(400000));
        QCOMPARE(stream.strFormat, QStringLiteral("mp4"));
        QVERIFY(server.requestsFor("/low/l.m3u8").isEmpty());
        for (const HttpRequest &request : server.requests())
            QCOMPARE(request.header("Referer"), QByteArray("http://127.0.0.1/page"));
    }

    void anHdsStream()
    {
        ScriptedServer server;
        server.on("/v/set.f4m",
                  reply("<manifest xmlns='http://ns.adobe.com/f4m/2.0'><duration>2</duration>"
                        "<media href='high.f4m' bitrate='800'/><media href='low.f4m' bitrate='80'/>"
                        "</manifest>",
                        "application/f4m+xml"));
        server.on("/v/high.f4m",
                  reply(hds::manifest("high", hds::simpleBootstrap(20))
                            .replace("<media", "<media width='64' height='48'")));
        StreamSearch search(m_options);
        const Finds finds(search);
        QVERIFY(!search.knowsHds());
        search.note(server.address("/v/set.f4m"), QString());
        search.note(server.address("/v/low.f4m"), QString());
        QVERIFY(search.knowsHds());
        QTRY_VERIFY(!search.isJudging());
        QCOMPARE(finds.list.size(), 1);
        const VideoFile &stream = finds.list.constFirst();
        QCOMPARE(stream.address(), server.address("/v/set.f4m"));
        QCOMPARE(stream.urlType, QStringLiteral("hds"));
        QCOMPARE(stream.strFormat, QStringLiteral("flv"));
        QCOMPARE(stream.width, 64);
        QCOMPARE(stream.height, 48);
        QCOMPARE(stream.duration, 2);
        QCOMPARE(stream.nSize, qint64(200000));
        for (const char *const piece :
             {"/v/low.f4m", "/v/high.f4m", "/v/highSeg1-Frag3", "/v/highSeg7-Frag30"})
            QVERIFY2(search.isPiece(server.address(piece), QString()), piece);
        QVERIFY(search.isPiece(server.address("/v/lowSeg1-Frag1"), QStringLiteral("video/f4f")));
        QVERIFY(!search.isPiece(server.address("/v/set.f4m"), QString()));
    }

    /// What a master names is known even if it was noted before the master was read.
    void piecesOfAMaster()
    {
        ScriptedServer server;
        serveMaster(server);
        StreamSearch search(m_options);
        const Finds finds(search);
        search.note(server.address("/m.m3u8"), QString());
        search.note(server.address("/low/l.m3u8"), QString());
        QTRY_VERIFY(!search.isJudging());
        QCOMPARE(finds.list.size(), 1);
        for (const char *const piece : {"/low/l.m3u8", "/high/l.m3u8", "/high/s1.mp4",
                                        "/high/s77.mp4", "/low/s2.mp4?a=1", "/x.ts"})
            QVERIFY2(search.isPiece(server.address(piece), QString()), piece);
        for (const char *const other : {"/m.m3u8", "/s1.mp4", "/high/film.mp4", "/other/s1.mp4"})
            QVERIFY2(!search.isPiece(server.address(other), QString()), other);
        QVERIFY(search.isPiece(server.address("/other"), QStringLiteral("video/MP2T; x=1")));
    }

    void aPlaylistBeforeItsMaster()
    {
        ScriptedServer server;
        serveMaster(server);
        StreamSearch search(m_options);
        const Finds finds(search);
        search.note(server.address("/low/l.m3u8"), QString());
        search.note(server.address("/m.m3u8"), QString());
        QTRY_COMPARE(finds.list.size(), 2);
        QVERIFY(search.isPiece(finds.list.at(0).address(), QString()));
        QVERIFY(!search.isPiece(finds.list.at(1).address(), QString()));
    }

    void oneDocumentIsOneStream()
    {
        ScriptedServer server;
        serveMaster(server);
        HttpReply redirect = replyOf("", 302);
        redirect.headers = {{"Location", "/m.m3u8"}};
        server.on("/r.m3u8", redirect);
        StreamSearch search(m_options);
        const Finds finds(search);
        search.note(server.address("/r.m3u8"), QString());
        search.note(server.address("/m.m3u8"), QString());
        search.note(server.address("/r.m3u8"), QString());
        QTRY_VERIFY(!search.isJudging());
        QCOMPARE(finds.list.size(), 1);
    }

    void noStreams_data()
    {
        QTest::addColumn<QByteArray>("body");
        QTest::newRow("a page") << QByteArray("<html></html>");
        QTest::newRow("nothing") << QByteArray();
        QTest::newRow("a file") << QByteArray(3000000, 'x');
    }

    void noStreams()
    {
        QFETCH(QByteArray, body);
        ScriptedServer server;
        server.on("/x.m3u8", reply(body));
        StreamSearch search(m_options);
        const Finds finds(search);
        search.note(server.address("/x.m3u8"), QString());
        search.note(server.address("/video"), QStringLiteral("video/mp4"));
        search.note(QStringLiteral("file:///etc/passwd.m3u8"), QString());
        QTRY_VERIFY(!search.isJudging());
        QVERIFY(finds.list.isEmpty());
        QVERIFY(!search.refused());
        QCOMPARE(server.requests().size(), 1);
    }

    /// What is protected says more than what is not to be had.
    void refusedOnes()
    {
        ScriptedServer server;
        server.on("/1.m3u8", reply("#EXTM3U\n#EXT-X-STREAM-INF:BANDWIDTH=1\nnone.m3u8\n"));
        server.on("/2.m3u8",
                  reply("#EXTM3U\n#EXT-X-TARGETDURATION:1\n#EXT-X-KEY:METHOD=SAMPLE-AES,"
                        "URI=\"k\"\n#EXTINF:1,\ns1.ts\n#EXT-X-ENDLIST\n"));
        StreamSearch search(m_options);
        const Finds finds(search);
        search.note(server.address("/1.m3u8"), QString());
        search.note(server.address("/2.m3u8"), QString());
        search.finish([] { return false; });
        QVERIFY(!search.isJudging());
        QVERIFY(finds.list.isEmpty());
        QVERIFY(search.refused().has_value());
        QCOMPARE(search.refused()->address(), server.address("/2.m3u8"));
    }

    void stopsAtOnce()
    {
        ScriptedServer server;
        server.hold("/m.m3u8");
        StreamSearch search(m_options);
        search.note(server.address("/m.m3u8"), QString());
        QTRY_VERIFY(!server.requests().isEmpty());
        search.finish([] { return true; }); // does not wait for the server
        QVERIFY(search.isJudging());
        search.stop();
        QVERIFY(!search.isJudging());
        search.note(server.address("/other.m3u8"), QString());
        QVERIFY(!search.isJudging());
    }

    /// A page may name as many as it likes.
    void boundedNumber()
    {
        ScriptedServer server;
        StreamSearch search(m_options);
        PageSnapshot snapshot;
        for (int i = 0; i < 1000; ++i)
            snapshot.media += server.address("/" + QByteArray::number(i) + ".mpd");
        search.scan(snapshot);
        QTRY_VERIFY(!search.isJudging());
        QCOMPARE(server.requests().size(), 64);
    }
};

CLIPWEIR_TEST_MAIN(tst_StreamSearch)
#include "tst_streamsearch.moc"
