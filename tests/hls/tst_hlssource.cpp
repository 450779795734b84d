#include "HlsCipher.h"
#include "HlsRun.h"
#include "HlsSource.h"
#include "TestMain.h"

namespace {

using Failure = Presentation::Failure;
using Role = TrackSegment::Role;

/// A window of segments of a second that are named by their numbers.
QByteArray window(int first, int last, bool isEnded = false)
{
    QByteArray text = "#EXTM3U\n#EXT-X-TARGETDURATION:1\n#EXT-X-MEDIA-SEQUENCE:"
        + QByteArray::number(first) + '\n';
    for (int n = first; n <= last; ++n)
        text += "#EXTINF:1,\ns" + QByteArray::number(n) + ".ts\n";
    return isEnded ? text + "#EXT-X-ENDLIST\n" : text;
}

/// A source whose playlist one server has.
struct Stream
{
    explicit Stream(const QByteArray &playlist, const MediaServers &servers = MediaServers())
        : source(servers, std::make_shared<HlsKeyRing>(servers))
        , opened(&source, &HlsSource::opened)
        , changes(&source, &HlsSource::changed)
    {
        server.on("/d/l.m3u8", [this](const HttpRequest &) {
            return texts.size() > 1 ? texts.takeFirst() : texts.first();
        });
        texts += replyOf(playlist);
        QObject::connect(&source, &HlsSource::failed, &source,
                         [this](Failure what, const QString &) { failures += what; });
    }

    void open() { source.open({server.url("/d/l.m3u8")}, HlsVariables()); }

    void openWell()
    {
        open();
        QTRY_COMPARE_WITH_TIMEOUT(opened.size(), 1, 30000);
    }

    QStringList addresses() const
    {
        QStringList names;
        for (qint64 n = source.first(); n <= source.last(); ++n)
            names += QUrl(source.segment(n).address).path();
        return names;
    }

    ScriptedServer server;
    QList<HttpReply> texts; ///< one after the other; the last one stays
    HlsSource source;
    QSignalSpy opened;
    QSignalSpy changes;
    QList<Failure> failures;
};

} // namespace

class tst_HlsSource : public QObject
{
    Q_OBJECT

private slots:
    void aWholePlaylist()
    {
        Stream stream(window(3, 5, true));
        stream.openWell();
        QVERIFY(stream.source.isEnded());
        QCOMPARE(stream.source.first(), qint64(1));
        QCOMPARE(stream.source.last(), qint64(3));
        QCOMPARE(stream.addresses(),
                 (QStringList{QLatin1String("/d/s3.ts"), QLatin1String("/d/s4.ts"),
                              QLatin1String("/d/s5.ts")}));
        QCOMPARE(stream.source.durationUs(), qint64(3000000));
        const TrackSegment second = stream.source.trackSegment(2);
        QCOMPARE(second.segment.number, qint64(2));
        QCOMPARE(second.startUs, qint64(1000000));
        QCOMPARE(second.durationUs, qint64(1000000));
        QCOMPARE(second.run, 0);
        QVERIFY(!second.isHole && second.role == Role::Media && !second.segment.decode);
        QVERIFY(second.segment.cacheFile.isEmpty() && !second.isClockKnown);
        QVERIFY(second.cacheKey != stream.source.trackSegment(1).cacheKey);
    }

    void aLiveWindow()
    {
        Stream stream(window(3, 4));
        stream.texts += replyOf(window(4, 5));
        stream.texts += replyOf(window(4, 5));
        stream.texts += replyOf("busy", 503);
        stream.texts += replyOf(window(8, 9)); // 6 and 7 were withdrawn unseen
        stream.texts += replyOf(window(9, 10, true));
        stream.openWell();
        QVERIFY(!stream.source.isEnded());
        QTRY_VERIFY_WITH_TIMEOUT(stream.source.isEnded(), 30000);
        QCOMPARE(stream.addresses(),
                 (QStringList{QLatin1String("/d/s3.ts"), QLatin1String("/d/s4.ts"),
                              QLatin1String("/d/s5.ts"), QLatin1String(""), QLatin1String(""),
                              QLatin1String("/d/s8.ts"), QLatin1String("/d/s9.ts"),
                              QLatin1String("/d/s10.ts")}));
        QVERIFY(stream.source.trackSegment(4).isHole && !stream.source.trackSegment(6).isHole);
        QCOMPARE(stream.changes.size(), 3);
        QCOMPARE(stream.server.requests().size(), 6);
    }

    void anEventGrows()
    {
        Stream stream(window(0, 0));
        stream.texts += replyOf(window(0, 1));
        stream.texts += replyOf(window(0, 1, true)); // nothing new but that it is over
        stream.openWell();
        QTRY_VERIFY_WITH_TIMEOUT(stream.source.isEnded(), 30000);
        QCOMPARE(stream.source.last(), qint64(2));
        QCOMPARE(stream.changes.size(), 2);
    }

    void waitsForTheFirstSegment()
    {
        Stream stream(window(0, -1));
        stream.texts += replyOf(window(0, 0, true));
        stream.openWell();
        QCOMPARE(stream.source.last(), qint64(1));
        QVERIFY(stream.failures.isEmpty());
    }

    void finishing()
    {
        Stream stream(window(0, 1));
        stream.openWell();
        stream.source.finish();
        QVERIFY(stream.source.isEnded());
        QCOMPARE(stream.changes.size(), 1);
        stream.source.finish();
        QCOMPARE(stream.changes.size(), 1);
        QCOMPARE(stream.source.last(), qint64(2));
    }

    void finishingBeforeItIsOpen()
    {
        Stream stream(window(0, 1));
        stream.open();
        stream.source.finish();
        QTRY_COMPARE(stream.server.requests().size(), 1);
        Stream other(window(0, 1));
        other.openWell(); // by then the first one's answer has come, too
        QVERIFY(stream.opened.isEmpty() && stream.changes.isEmpty() && stream.failures.isEmpty());
    }

    void aPlaylistThatVanishesEndsTheStream()
    {
        MediaServers servers;
        servers.net.stallMs = 100;
        Stream stream(window(0, 1), servers);
        stream.texts += replyOf("", 404);
        stream.openWell();
        QTRY_VERIFY_WITH_TIMEOUT(stream.source.isEnded(), 30000);
        QCOMPARE(stream.source.last(), qint64(2));
        QVERIFY(stream.failures.isEmpty());
    }

    void protectionInTheCourseOfAStreamIsItsEnd()
    {
        Stream stream(window(0, 1));
        stream.texts += replyOf(window(0, 1)
                                + "#EXT-X-KEY:METHOD=SAMPLE-AES,URI=\"skd://x\"\n"
                                  "#EXTINF:1,\ns2.ts\n");
        stream.openWell();
        QTRY_VERIFY_WITH_TIMEOUT(stream.source.isEnded(), 30000);
        QCOMPARE(stream.source.last(), qint64(2));
    }

    void failures_data()
    {
        QTest::addColumn<QByteArray>("text");
        QTest::addColumn<Failure>("failure");
        QTest::newRow("protected") << QByteArray(
            "#EXTM3U\n#EXT-X-KEY:METHOD=SAMPLE-AES,URI=\"k\"\n#EXTINF:1,\na\n#EXT-X-ENDLIST\n")
                                   << Failure::Protected;
        QTest::newRow("protected from the middle on") << QByteArray(
            "#EXTM3U\n#EXTINF:1,\na\n#EXT-X-KEY:METHOD=SAMPLE-AES-CTR,URI=\"k\"\n#EXTINF:1,\nb\n")
                                                      << Failure::Protected;
        QTest::newRow("a master") << QByteArray("#EXTM3U\n#EXT-X-STREAM-INF:BANDWIDTH=1\nl.m3u8\n")
                                  << Failure::Unsupported;
        QTest::newRow("no segments")
            << QByteArray("#EXTM3U\n#EXT-X-TARGETDURATION:1\n#EXT-X-ENDLIST\n")
            << Failure::Unsupported;
        QTest::newRow("key frames")
            << QByteArray("#EXTM3U\n#EXT-X-I-FRAMES-ONLY\n#EXTINF:1,\na\n#EXT-X-ENDLIST\n")
            << Failure::Unsupported;
        QTest::newRow("no playlist") << QByteArray("<html>") << Failure::Malformed;
    }

    void failures()
    {
        QFETCH(QByteArray, text);
        QFETCH(Failure, failure);
        Stream stream(text);
        stream.open();
        QTRY_COMPARE_WITH_TIMEOUT(stream.failures.size(), 1, 30000);
        QCOMPARE(stream.failures.first(), failure);
        QVERIFY(stream.opened.isEmpty());
    }

    void mapsRangesAndGaps()
    {
        Stream stream("#EXTM3U\n#EXT-X-MAP:URI=\"f\",BYTERANGE=\"10@0\"\n"
                      "#EXTINF:1,\n#EXT-X-BYTERANGE:20@10\nf\n"
                      "#EXT-X-GAP\n#EXTINF:1,\ng\n"
                      "#EXT-X-DISCONTINUITY\n#EXT-X-MAP:URI=\"/e/i\"\n#EXTINF:1,\nh\n"
                      "#EXTINF:1,\nfile:///etc/passwd\n#EXT-X-ENDLIST\n");
        stream.openWell();
        QCOMPARE(stream.addresses(),
                 (QStringList{QLatin1String("/d/f"), QLatin1String("/d/f"), QLatin1String(""),
                              QLatin1String("/e/i"), QLatin1String("/d/h"), QLatin1String("")}));
        const TrackSegment map = stream.source.trackSegment(1);
        QVERIFY(map.role == Role::Initialisation);
        QCOMPARE(qMakePair(map.segment.firstByte, map.segment.byteCount),
                 qMakePair(qint64(0), qint64(10)));
        const TrackSegment media = stream.source.trackSegment(2);
        QCOMPARE(qMakePair(media.segment.firstByte, media.segment.byteCount),
                 qMakePair(qint64(10), qint64(20)));
        QVERIFY(stream.source.trackSegment(3).isHole);
        QCOMPARE(stream.source.trackSegment(3).startUs, qint64(1000000));
        QCOMPARE(stream.source.trackSegment(4).run, 1);
        QVERIFY(!stream.source.trackSegment(6).isHole);
    }

    void origin()
    {
        Stream stream("#EXTM3U\n#EXT-X-DISCONTINUITY-SEQUENCE:9\n"
                      "#EXT-X-PROGRAM-DATE-TIME:2020-01-01T00:00:00Z\n"
                      "#EXTINF:1,\na\n#EXT-X-ENDLIST\n");
        stream.openWell();
        QCOMPARE(stream.source.firstRun(), qint64(9));
        QCOMPARE(stream.source.firstDateMs(), qint64(1577836800000));
        stream.source.setOrigin(7, 500);
        QCOMPARE(stream.source.trackSegment(1).run, 2);
        QCOMPARE(stream.source.trackSegment(1).startUs, qint64(500));
    }

    void keysRotate()
    {
        const QByteArray keys[] = {"0123456789abcdef", "fedcba9876543210"};
        Stream stream("#EXTM3U\n#EXT-X-MEDIA-SEQUENCE:5\n#EXTINF:1,\nclear\n"
                      "#EXT-X-KEY:METHOD=AES-128,URI=\"k0\"\n#EXTINF:1,\na\n"
                      "#EXT-X-KEY:METHOD=AES-128,URI=\"k1\",IV=0x7\n#EXTINF:1,\nb\n"
                      "#EXT-X-KEY:METHOD=AES-128,URI=\"none\"\n#EXTINF:1,\nc\n#EXT-X-ENDLIST\n");
        // "clear" under k0 with the IV 6, and under k1 with the IV 7, both by openssl.
        stream.server.on("/d/clear", replyOf("clear"));
        stream.server.on("/d/a", replyOf(QByteArray::fromHex("ab8500e64652f11a89d6313fe3566f88")));
        stream.server.on("/d/b", replyOf(QByteArray::fromHex("71f318ba039aae6b2166e5adf6771c8e")));
        stream.server.on("/d/c", replyOf(QByteArray::fromHex("71f318ba039aae6b2166e5adf6771c8e")));
        stream.server.on("/d/k0", replyOf(keys[0]));
        stream.server.on("/d/k1", replyOf(keys[1]));
        stream.openWell();
        const auto parts = fetchAll(stream.source, MediaServers());
        QCOMPARE(parts.values(), (QList<QByteArray>{"clear", "clear", "clear", ""}));
        QCOMPARE(stream.server.requestsFor("/d/k0").size(), 1);
        QVERIFY(stream.source.trackSegment(2).cacheKey.contains("/d/k0"));
    }
};

CLIPWEIR_TEST_MAIN(tst_HlsSource)
#include "tst_hlssource.moc"
