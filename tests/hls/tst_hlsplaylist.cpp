#include "HlsLimits.h"
#include "HlsPlaylist.h"
#include "TestMain.h"

#include <algorithm>
#include <memory>

using Kind = HlsPlaylist::Kind;

namespace {

const char *const address = "http://h.test/dir/list.m3u8?token=a%2Fb&empty=&t2=x";

HlsPlaylist parsed(const QByteArray &text, const HlsVariables &imports = HlsVariables())
{
    return HlsPlaylist::parse("#EXTM3U\n" + text, QUrl(QString::fromLatin1(address)), imports);
}

QString errorOf(const QByteArray &text)
{
    return parsed(text).error;
}

QString addressOf(const HlsPlaylist &playlist, const HlsSegment &segment)
{
    return playlist.resolve(segment.uri).toString(QUrl::FullyEncoded);
}

} // namespace

class tst_HlsPlaylist : public QObject
{
    Q_OBJECT

private slots:
    void media()
    {
        const HlsPlaylist list = parsed("#EXT-X-VERSION:3\n"
                                        "#EXT-X-TARGETDURATION:10\n"
                                        "#EXT-X-MEDIA-SEQUENCE:7\n"
                                        "# a comment\n"
                                        "#EXTINF:9.009,the title\n"
                                        "first.ts\n"
                                        "#EXTINF:3,\n"
                                        "../second.ts?q=1#f\n"
                                        "#EXTINF:2\n"
                                        "http://other.test/third.ts\n"
                                        "#EXT-X-ENDLIST\n");
        QCOMPARE(list.error, QString());
        QCOMPARE(list.kind, Kind::Media);
        QCOMPARE(list.targetDurationS, qint64(10));
        QCOMPARE(list.mediaSequence, qint64(7));
        QVERIFY(list.isEnded && !list.isEvent);
        QCOMPARE(list.segments.size(), std::size_t(3));
        QCOMPARE(list.segments.at(0).durationUs, qint64(9009000));
        QCOMPARE(list.segments.at(0).sequence, qint64(7));
        QCOMPARE(list.segments.at(2).sequence, qint64(9));
        QCOMPARE(addressOf(list, list.segments.at(0)),
                 QStringLiteral("http://h.test/dir/first.ts"));
        QCOMPARE(addressOf(list, list.segments.at(1)),
                 QStringLiteral("http://h.test/second.ts?q=1"));
        QCOMPARE(addressOf(list, list.segments.at(2)),
                 QStringLiteral("http://other.test/third.ts"));
        QCOMPARE(list.durationUs(), qint64(14009000));
        QVERIFY(!list.segments.at(0).key && !list.segments.at(0).map);
    }

    void master()
    {
        const HlsPlaylist list = parsed(
            "#EXT-X-MEDIA:TYPE=AUDIO,GROUP-ID=\"a\",NAME=\"English\",LANGUAGE=\"en\",DEFAULT=YES,"
            "AUTOSELECT=YES,URI=\"en.m3u8\"\n"
            "#EXT-X-MEDIA:TYPE=AUDIO,GROUP-ID=\"a\",NAME=\"Deutsch\",LANGUAGE=\"de\",DEFAULT=NO\n"
            "#EXT-X-MEDIA:TYPE=SUBTITLES,GROUP-ID=\"s\",NAME=\"Text\",URI=\"s.m3u8\"\n"
            "#EXT-X-MEDIA:TYPE=NEW,GROUP-ID=\"n\",NAME=\"?\",URI=\"n.m3u8\"\n"
            "#EXT-X-STREAM-INF:BANDWIDTH=1280000,AVERAGE-BANDWIDTH=1000000,RESOLUTION=1280x720,"
            "CODECS=\"avc1.4d401f,mp4a.40.2\",AUDIO=\"a\"\n"
            "# between\n"
            "\n"
            "720.m3u8\n"
            "#EXT-X-STREAM-INF:BANDWIDTH=64000,CODECS=\"mp4a.40.5\"\n"
            "sound.m3u8\n"
            "#EXT-X-I-FRAME-STREAM-INF:BANDWIDTH=9,URI=\"i.m3u8\"\n");
        QCOMPARE(list.error, QString());
        QCOMPARE(list.kind, Kind::Master);
        QCOMPARE(list.variants.size(), std::size_t(2));
        const HlsVariant &first = list.variants.front();
        QCOMPARE(first.uri, QStringLiteral("720.m3u8"));
        QCOMPARE(first.bandwidth, qint64(1280000));
        QCOMPARE(first.averageBandwidth, qint64(1000000));
        QCOMPARE(first.width, 1280);
        QCOMPARE(first.height, 720);
        QCOMPARE(first.codecs, QStringLiteral("avc1.4d401f,mp4a.40.2"));
        QCOMPARE(first.audioGroup, QStringLiteral("a"));
        QVERIFY(!first.isAudioOnly());
        QVERIFY(list.variants.back().isAudioOnly());
        QCOMPARE(list.iFrameVariants, 1);
        QCOMPARE(list.renditions.size(), std::size_t(3));
        QCOMPARE(list.renditions.at(0).uri, QStringLiteral("en.m3u8"));
        QCOMPARE(list.renditions.at(0).language, QStringLiteral("en"));
        QVERIFY(list.renditions.at(0).isDefault && list.renditions.at(0).isAutoselect);
        QVERIFY(list.renditions.at(1).uri.isEmpty() && !list.renditions.at(1).isDefault);
        QCOMPARE(list.renditions.at(2).type, HlsRendition::Type::Subtitles);
    }

    void forms_data()
    {
        QTest::addColumn<QByteArray>("text");
        const QByteArray body = "#EXTM3U\n#EXTINF:1,\na.ts\n";
        QTest::newRow("plain") << body;
        QTest::newRow("byte order mark") << "\xef\xbb\xbf" + body;
        QTest::newRow("blank lines before") << "\r\n\r\n" + body;
        QTest::newRow("CRLF") << QByteArray(body).replace("\n", "\r\n");
        QTest::newRow("no line end at the end") << body.chopped(1);
        QTest::newRow("blanks around lines") << QByteArray(body).replace("\n", " \t\n  ");
        QTest::newRow("blank lines") << QByteArray(body).replace("\n", "\n\n\n");
        QTest::newRow("unknown tags")
            << QByteArray("#EXTM3U\n#EXT-X-NEW:A=1\n#EXTINF:1,\n#EXT-X-OTHER\n#EXTINFO:9,\na.ts\n");
        QTest::newRow("parts are left out") << QByteArray(
            "#EXTM3U\n#EXT-X-SERVER-CONTROL:CAN-SKIP-UNTIL=9\n#EXT-X-PART-INF:PART-TARGET=1\n"
            "#EXT-X-PART:DURATION=.5,URI=\"p1\"\n#EXT-X-PART:DURATION=.5,URI=\"p2\"\n"
            "#EXTINF:1,\na.ts\n#EXT-X-PART:DURATION=.5,URI=\"p3\"\n"
            "#EXT-X-PRELOAD-HINT:TYPE=PART,URI=\"p4\"\n"
            "#EXT-X-RENDITION-REPORT:URI=\"o.m3u8\"\n");
    }

    void forms()
    {
        QFETCH(QByteArray, text);
        const HlsPlaylist list =
            HlsPlaylist::parse(text, QUrl(QStringLiteral("http://h.test/x.m3u8")));
        QCOMPARE(list.error, QString());
        QCOMPARE(list.segments.size(), std::size_t(1));
        QCOMPARE(list.segments.front().uri, QStringLiteral("a.ts"));
        QCOMPARE(list.segments.front().durationUs, qint64(1000000));
    }

    void byteRanges()
    {
        const HlsPlaylist list = parsed("#EXTINF:1,\n#EXT-X-BYTERANGE:100@50\na.ts\n"
                                        "#EXTINF:1,\n#EXT-X-BYTERANGE:30\na.ts\n"
                                        "#EXT-X-BYTERANGE:7\n#EXTINF:1,\na.ts\n"
                                        "#EXTINF:1,\n#EXT-X-BYTERANGE:5@0\nb.ts\n"
                                        "#EXTINF:1,\nb.ts\n");
        QCOMPARE(list.error, QString());
        const QVector<QPair<qint64, qint64>> expected{
            {50, 100}, {150, 30}, {180, 7}, {0, 5}, {0, 0}};
        for (int i = 0; i < expected.size(); ++i) {
            const HlsSegment &segment = list.segments.at(std::size_t(i));
            QCOMPARE(qMakePair(segment.firstByte, segment.byteCount), expected.at(i));
        }
    }

    void keys()
    {
        const HlsPlaylist list =
            parsed("#EXT-X-MEDIA-SEQUENCE:3\n"
                   "#EXTINF:1,\nclear.ts\n"
                   "#EXT-X-KEY:METHOD=AES-128,URI=\"k1\"\n"
                   "#EXTINF:1,\na.ts\n"
                   "#EXT-X-KEY:METHOD=AES-128,URI=\"k2\",IV=0x1F,KEYFORMAT=\"identity\"\n"
                   "#EXTINF:1,\nb.ts\n"
                   "#EXT-X-KEY:METHOD=NONE\n"
                   "#EXTINF:1,\nc.ts\n");
        QCOMPARE(list.error, QString());
        QCOMPARE(list.protection(), QString());
        QVERIFY(!list.segments.at(0).key);
        QCOMPARE(list.segments.at(1).key->uri, QStringLiteral("k1"));
        QVERIFY(list.segments.at(1).key->iv.isEmpty());
        QCOMPARE(list.segments.at(2).key->uri, QStringLiteral("k2"));
        QCOMPARE(list.segments.at(2).key->iv, QByteArray(15, '\0') + '\x1f');
        QVERIFY(!list.segments.at(3).key);
    }

    void protections_data()
    {
        QTest::addColumn<QByteArray>("tags");
        QTest::addColumn<QString>("protection");
        const QByteArray open = "#EXT-X-KEY:METHOD=AES-128,URI=\"k\"\n";
        const QByteArray other = "#EXT-X-KEY:METHOD=AES-128,URI=\"skd://k\",KEYFORMAT=\"com.x\"\n";
        const QByteArray sample =
            "#EXT-X-KEY:METHOD=SAMPLE-AES,URI=\"skd://k\",KEYFORMAT=\"com.y\"\n";
        QTest::newRow("none") << QByteArray() << QString();
        QTest::newRow("a key at an address") << open << QString();
        QTest::newRow("samples, key at an address")
            << QByteArray("#EXT-X-KEY:METHOD=SAMPLE-AES,URI=\"k\"\n") << "SAMPLE-AES";
        QTest::newRow("samples in counter mode")
            << QByteArray("#EXT-X-KEY:METHOD=SAMPLE-AES-CTR,URI=\"k\"\n") << "SAMPLE-AES-CTR";
        QTest::newRow("key without an address")
            << QByteArray("#EXT-X-KEY:METHOD=AES-128\n") << "a key that is not on the web";
        QTest::newRow("key that is not on the web")
            << QByteArray("#EXT-X-KEY:METHOD=AES-128,URI=\"skd://k\"\n")
            << "a key that is not on the web";
        QTest::newRow("unknown method") << QByteArray("#EXT-X-KEY:METHOD=ROT13\n") << "ROT13";
        QTest::newRow("no method") << QByteArray("#EXT-X-KEY:URI=\"k\"\n") << "EXT-X-KEY";
        QTest::newRow("another format") << other << "com.x";
        QTest::newRow("another way to the same key") << open + other << QString();
        QTest::newRow("the other way round") << other + open << QString();
        QTest::newRow("samples after whole segments") << open + sample << "SAMPLE-AES";
        QTest::newRow("lifted") << sample + QByteArray("#EXT-X-KEY:METHOD=NONE\n") << QString();
        QTest::newRow("of the map alone")
            << sample + "#EXT-X-MAP:URI=\"i\"\n#EXT-X-KEY:METHOD=NONE\n"
            << "SAMPLE-AES";
    }

    void protections()
    {
        QFETCH(QByteArray, tags);
        QFETCH(QString, protection);
        const HlsPlaylist list = parsed(tags + "#EXTINF:1,\na.ts\n");
        QCOMPARE(list.error, QString());
        QCOMPARE(list.protection(), protection);
    }

    void maps()
    {
        const HlsPlaylist list = parsed("#EXT-X-MAP:URI=\"i1\",BYTERANGE=\"720@10\"\n"
                                        "#EXT-X-MEDIA-SEQUENCE:5\n"
                                        "#EXTINF:1,\na\n#EXTINF:1,\nb\n"
                                        "#EXT-X-KEY:METHOD=AES-128,URI=\"k\",IV=0x1\n"
                                        "#EXT-X-MAP:URI=\"i2\"\n"
                                        "#EXTINF:1,\nc\n");
        QCOMPARE(list.error, QString());
        const auto first = list.segments.at(0).map;
        QCOMPARE(first->uri, QStringLiteral("i1"));
        QCOMPARE(first->firstByte, qint64(10));
        QCOMPARE(first->byteCount, qint64(720));
        QCOMPARE(first->sequence, qint64(5));
        QVERIFY(!first->key);
        QCOMPARE(list.segments.at(1).map, first);
        QCOMPARE(list.segments.at(2).map->uri, QStringLiteral("i2"));
        QCOMPARE(list.segments.at(2).map->sequence, qint64(7));
        QCOMPARE(list.segments.at(2).map->key->uri, QStringLiteral("k"));
    }

    void marks()
    {
        const HlsPlaylist list =
            parsed("#EXT-X-DISCONTINUITY-SEQUENCE:4\n#EXT-X-PLAYLIST-TYPE:EVENT\n"
                   "#EXT-X-PROGRAM-DATE-TIME:2020-02-03T04:05:06.789Z\n#EXTINF:1,\na\n"
                   "#EXT-X-DISCONTINUITY\n#EXT-X-GAP\n#EXTINF:1,\nb\n"
                   "#EXTINF:1,\nc\n");
        QCOMPARE(list.error, QString());
        QVERIFY(list.isEvent && !list.isEnded);
        QCOMPARE(list.segments.at(0).dateMs, qint64(1580702706789));
        QCOMPARE(list.segments.at(0).discontinuity, qint64(4));
        QCOMPARE(list.segments.at(1).discontinuity, qint64(5));
        QVERIFY(list.segments.at(1).isGap && !list.segments.at(0).isGap);
        QVERIFY(!list.segments.at(2).isGap);
        QCOMPARE(list.segments.at(2).discontinuity, qint64(5));
        QCOMPARE(list.segments.at(2).dateMs, qint64(0));
    }

    void typeVodNeverGrows()
    {
        QVERIFY(parsed("#EXT-X-PLAYLIST-TYPE:VOD\n#EXTINF:1,\na\n").isEnded);
    }

    void variables()
    {
        const HlsPlaylist master = parsed("#EXT-X-DEFINE:NAME=\"host\",VALUE=\"cdn.test\"\n"
                                          "#EXT-X-STREAM-INF:BANDWIDTH=1\nhttp://{$host}/v.m3u8\n");
        QCOMPARE(master.error, QString());
        QCOMPARE(master.variants.front().uri, QStringLiteral("http://cdn.test/v.m3u8"));
        const HlsPlaylist list = parsed("#EXT-X-DEFINE:IMPORT=\"host\"\n"
                                        "#EXT-X-DEFINE:QUERYPARAM=\"token\"\n"
                                        "#EXT-X-DEFINE:NAME=\"iv\",VALUE=\"ab\"\n"
                                        "#EXT-X-KEY:METHOD=AES-128,URI=\"{$host}/k\",IV=0x{$iv}\n"
                                        "#EXTINF:1,\nhttp://{$host}/a.ts?{$token}\n",
                                        master.variables);
        QCOMPARE(list.error, QString());
        QCOMPARE(list.segments.front().uri, QStringLiteral("http://cdn.test/a.ts?a%2Fb"));
        QCOMPARE(list.segments.front().key->uri, QStringLiteral("cdn.test/k"));
        QCOMPARE(list.segments.front().key->iv, QByteArray(15, '\0') + '\xab');
    }

    void whatStandsBeforeTheMark()
    {
        const QByteArray list = "#EXTM3U\n#EXTINF:1,\na\n";
        const QUrl from(QString::fromLatin1(address));
        QCOMPARE(HlsPlaylist::parse(" \t\r\n" + list, from).error, QString());
        for (const char *other : {"\f", "\v", "\xa0", "x", "\xef\xbb", "\xff\xfe"})
            QVERIFY(!HlsPlaylist::parse(other + list, from).error.isEmpty());
    }

    /// Bytes that end where no zero follows them, as those of a larger memory may.
    void bytesThatNoZeroEnds()
    {
        const QByteArray memory = "\xef\xbb\xbf#EXTM3U\n#EXTINF:1,\na";
        for (int bytes = 0; bytes <= memory.size(); ++bytes) {
            const auto exact = std::make_unique<char[]>(std::size_t(bytes));
            std::copy_n(memory.constData(), bytes, exact.get());
            const HlsPlaylist list = HlsPlaylist::parse(QByteArray::fromRawData(exact.get(), bytes),
                                                        QUrl(QString::fromLatin1(address)));
            QCOMPARE(list.error.isEmpty(), bytes == memory.size() || list.kind == Kind::Media);
        }
    }

    void refusals_data()
    {
        QTest::addColumn<QByteArray>("text");
        QTest::newRow("nothing") << QByteArray();
        QTest::newRow("only addresses") << QByteArray("a.mp3\nb.mp3\n");
        QTest::newRow("segments and variants")
            << QByteArray("#EXTINF:1,\na\n#EXT-X-STREAM-INF:BANDWIDTH=1\nb\n");
        QTest::newRow("variants and segments")
            << QByteArray("#EXT-X-STREAM-INF:BANDWIDTH=1\nb\n#EXTINF:1,\na\n");
        QTest::newRow("sequence number too large")
            << QByteArray("#EXT-X-MEDIA-SEQUENCE:9223372036854775807\n#EXTINF:1,\na\n");
        QTest::newRow("negative sequence number")
            << QByteArray("#EXT-X-MEDIA-SEQUENCE:-1\n#EXTINF:1,\na\n");
        QTest::newRow("late sequence number")
            << QByteArray("#EXTINF:1,\na\n#EXT-X-MEDIA-SEQUENCE:5\n");
        QTest::newRow("discontinuity sequence number")
            << QByteArray("#EXT-X-DISCONTINUITY-SEQUENCE:99999999999999999999\n#EXTINF:1,\na\n");
        QTest::newRow("range of nothing") << QByteArray("#EXT-X-BYTERANGE:0@5\n#EXTINF:1,\na\n");
        QTest::newRow("range without a number") << QByteArray("#EXT-X-BYTERANGE:\n#EXTINF:1,\na\n");
        QTest::newRow("range with half a place")
            << QByteArray("#EXT-X-BYTERANGE:5@\n#EXTINF:1,\na\n");
        QTest::newRow("negative range") << QByteArray("#EXT-X-BYTERANGE:-5@1\n#EXTINF:1,\na\n");
        QTest::newRow("range past the last number")
            << QByteArray("#EXT-X-BYTERANGE:9223372036854775807@1\n#EXTINF:1,\na\n");
        QTest::newRow("range that goes on past the last number")
            << QByteArray("#EXT-X-BYTERANGE:9223372036854775806@0\n#EXTINF:1,\na\n"
                          "#EXT-X-BYTERANGE:9223372036854775806\n#EXTINF:1,\na\n");
        QTest::newRow("range that goes on from nothing")
            << QByteArray("#EXT-X-BYTERANGE:5\n#EXTINF:1,\na\n");
        QTest::newRow("range that goes on from another file") << QByteArray(
            "#EXT-X-BYTERANGE:5@0\n#EXTINF:1,\na\n#EXT-X-BYTERANGE:5\n#EXTINF:1,\nb\n");
        QTest::newRow("range that goes on from a whole file")
            << QByteArray("#EXTINF:1,\na\n#EXT-X-BYTERANGE:5\n#EXTINF:1,\na\n");
        QTest::newRow("duration of 10^9 s") << QByteArray("#EXTINF:1000000000,\na\n");
        QTest::newRow("duration beyond all numbers")
            << "#EXTINF:" + QByteArray(400, '9') + ",\na\n";
        QTest::newRow("IV too long") << "#EXT-X-KEY:METHOD=AES-128,URI=\"k\",IV=0x"
                + QByteArray(33, '1') + "\n#EXTINF:1,\na\n";
        QTest::newRow("IV of no digits")
            << QByteArray("#EXT-X-KEY:METHOD=AES-128,URI=\"k\",IV=0x\n#EXTINF:1,\na\n");
        QTest::newRow("IV of other signs")
            << QByteArray("#EXT-X-KEY:METHOD=AES-128,URI=\"k\",IV=0xxy\n#EXTINF:1,\na\n");
        QTest::newRow("map without an address")
            << QByteArray("#EXT-X-MAP:BYTERANGE=\"1@0\"\n#EXTINF:1,\na\n");
        QTest::newRow("map of a bad range")
            << QByteArray("#EXT-X-MAP:URI=\"i\",BYTERANGE=\"x\"\n#EXTINF:1,\na\n");
        QTest::newRow("update of another")
            << QByteArray("#EXT-X-SKIP:SKIPPED-SEGMENTS=3\n#EXTINF:1,\na\n");
        QTest::newRow("undefined variable") << QByteArray("#EXTINF:1,\n{$a}\n");
        QTest::newRow("undefined variable of a key")
            << QByteArray("#EXT-X-KEY:METHOD=AES-128,URI=\"{$a}\"\n#EXTINF:1,\na\n");
        QTest::newRow("import of nothing")
            << QByteArray("#EXT-X-DEFINE:IMPORT=\"a\"\n#EXTINF:1,\na\n");
        QTest::newRow("query without the name")
            << QByteArray("#EXT-X-DEFINE:QUERYPARAM=\"oken\"\n#EXTINF:1,\na\n");
        QTest::newRow("query without a value")
            << QByteArray("#EXT-X-DEFINE:QUERYPARAM=\"empty\"\n#EXTINF:1,\na\n");
        QTest::newRow("defined twice")
            << QByteArray("#EXT-X-DEFINE:NAME=\"a\",VALUE=\"1\"\n"
                          "#EXT-X-DEFINE:NAME=\"a\",VALUE=\"1\"\n#EXTINF:1,\na\n");
        QTest::newRow("line too long")
            << "#EXTINF:1,\n" + QByteArray(HlsLimits::lineBytes + 1, 'a') + "\n";
        QByteArray formats;
        for (int i = 0; i <= int(HlsLimits::keyFormats); ++i)
            formats += "#EXT-X-KEY:METHOD=AES-128,KEYFORMAT=\"" + QByteArray::number(i) + "\"\n";
        QTest::newRow("too many formats of keys") << formats + "#EXTINF:1,\na\n";
    }

    void refusals()
    {
        QFETCH(QByteArray, text);
        const HlsPlaylist list = parsed(text);
        QVERIFY(!list.error.isEmpty() && !list.error.contains(QLatin1Char('\n')));
        QCOMPARE(list.kind, Kind::None);
        QVERIFY(list.segments.empty() && list.variants.empty());
    }

    void takesOddNumbersForNone_data()
    {
        QTest::addColumn<QByteArray>("inf");
        for (const char *inf : {"-1,x", "nan", "inf", "1e5", "", ",", ".", "1.2.3", "0x10", "1,5"})
            QTest::newRow(inf) << QByteArray(inf);
    }

    void takesOddNumbersForNone()
    {
        QFETCH(QByteArray, inf);
        const HlsPlaylist list = parsed("#EXT-X-TARGETDURATION:x\n#EXTINF:" + inf + "\na\n");
        QCOMPARE(list.error, QString());
        QCOMPARE(list.targetDurationS, qint64(0));
        QVERIFY(list.segments.front().durationUs == 0 || inf == "1,5");
    }

    void limits()
    {
        const QByteArray one = "#EXTINF:1,\na\n";
        QCOMPARE(parsed(one.repeated(int(HlsLimits::segments))).segments.size(),
                 HlsLimits::segments);
        QVERIFY(!errorOf(one.repeated(int(HlsLimits::segments) + 1)).isEmpty());
        const QByteArray variant = "#EXT-X-STREAM-INF:BANDWIDTH=1\na\n";
        QCOMPARE(errorOf(variant.repeated(int(HlsLimits::variants))), QString());
        QVERIFY(!errorOf(variant.repeated(int(HlsLimits::variants) + 1)).isEmpty());
        const QByteArray rendition = "#EXT-X-MEDIA:TYPE=AUDIO,GROUP-ID=\"a\"\n";
        QVERIFY(!errorOf(rendition.repeated(int(HlsLimits::variants) + 1)).isEmpty());
        QVERIFY(!errorOf(one + QByteArray(HlsLimits::playlistBytes, '\n')).isEmpty());
        QCOMPARE(errorOf("#EXTINF:604800,\na\n"), QString());
        QVERIFY(!errorOf("#EXTINF:604801,\na\n").isEmpty());
    }

    /// Variables that each double the one before would fill any memory.
    void variablesOfVariables()
    {
        QByteArray text = "#EXT-X-DEFINE:NAME=\"v0\",VALUE=\"xxxxxxxx\"\n";
        for (int i = 1; i < 64; ++i) {
            const QByteArray before = "{$v" + QByteArray::number(i - 1) + '}';
            text += "#EXT-X-DEFINE:NAME=\"v" + QByteArray::number(i) + "\",VALUE=\"" + before
                + before + "\"\n";
        }
        QVERIFY(!errorOf(text + "#EXTINF:1,\n{$v63}\n").isEmpty());
    }

    void addressesOfOtherKinds_data()
    {
        QTest::addColumn<QString>("uri");
        for (const char *uri : {"file:///etc/passwd", "ftp://h.test/a", "data:text/plain,a",
                                "skd://k", "http:///a", "c:\\a"})
            QTest::newRow(uri) << QString::fromLatin1(uri);
    }

    void addressesOfOtherKinds()
    {
        QFETCH(QString, uri);
        const HlsPlaylist list = parsed("#EXTINF:1,\na\n");
        QVERIFY(list.resolve(uri).isEmpty());
    }

    void cutAtEveryByte_data()
    {
        QTest::addColumn<QByteArray>("text");
        QTest::newRow("media") << QByteArray(
            "#EXTM3U\n#EXT-X-MEDIA-SEQUENCE:5\n#EXT-X-DEFINE:NAME=\"a\",VALUE=\"b\"\n"
            "#EXT-X-MAP:URI=\"{$a}\",BYTERANGE=\"5@1\"\n#EXTINF:1.5,t\n#EXT-X-BYTERANGE:5@2\n{$a}\n"
            "#EXT-X-KEY:METHOD=AES-128,URI=\"{$a}\",IV=0x12\n#EXT-X-DISCONTINUITY\n"
            "#EXT-X-PROGRAM-DATE-TIME:2020-02-03T04:05:06.789Z\n#EXTINF:1,\nc\n#EXT-X-ENDLIST\n");
        QTest::newRow("master") << QByteArray(
            "#EXTM3U\n#EXT-X-MEDIA:TYPE=AUDIO,GROUP-ID=\"a\",URI=\"x\",DEFAULT=YES\n"
            "#EXT-X-STREAM-INF:BANDWIDTH=12,RESOLUTION=1x2,CODECS=\"mp4a\",AUDIO=\"a\"\nv.m3u8\n");
    }

    void cutAtEveryByte()
    {
        QFETCH(QByteArray, text);
        const QUrl from(QString::fromLatin1(address));
        const HlsPlaylist whole = HlsPlaylist::parse(text, from);
        QCOMPARE(whole.error, QString());
        for (int bytes = 0; bytes < text.size(); ++bytes) {
            const HlsPlaylist cut = HlsPlaylist::parse(text.left(bytes), from);
            QCOMPARE(cut.kind == Kind::None, !cut.error.isEmpty());
            QVERIFY(cut.segments.size() <= whole.segments.size());
            QVERIFY(cut.variants.size() <= whole.variants.size());
        }
    }
};

CLIPWEIR_TEST_MAIN(tst_HlsPlaylist)
#include "tst_hlsplaylist.moc"
