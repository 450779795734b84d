#include "HlsRun.h"
#include "MessageCatcher.h"
#include "TestMain.h"

namespace {

using Failure = Presentation::Failure;
using Kind = Rendition::Kind;

const QByteArray mediaText =
    "#EXTM3U\n#EXT-X-TARGETDURATION:2\n#EXTINF:2,\ns1\n#EXTINF:2,\ns2\n#EXT-X-ENDLIST\n";

const QByteArray masterText =
    "#EXTM3U\n"
    "#EXT-X-MEDIA:TYPE=AUDIO,GROUP-ID=\"lo\",NAME=\"English\",LANGUAGE=\"en\",DEFAULT=YES,"
    "URI=\"lo/en.m3u8\"\n"
    "#EXT-X-MEDIA:TYPE=AUDIO,GROUP-ID=\"lo\",NAME=\"Deutsch\",LANGUAGE=\"de\","
    "URI=\"lo/de.m3u8\"\n"
    "#EXT-X-MEDIA:TYPE=AUDIO,GROUP-ID=\"hi\",NAME=\"English\",LANGUAGE=\"en\",DEFAULT=YES,"
    "URI=\"hi/en.m3u8\"\n"
    "#EXT-X-MEDIA:TYPE=AUDIO,GROUP-ID=\"hi\",NAME=\"Deutsch\",LANGUAGE=\"de\"\n"
    "#EXT-X-MEDIA:TYPE=SUBTITLES,GROUP-ID=\"s\",NAME=\"Untertitel\",LANGUAGE=\"de\","
    "URI=\"sub.m3u8\"\n"
    "#EXT-X-STREAM-INF:BANDWIDTH=800000,RESOLUTION=640x360,AUDIO=\"lo\"\n360/l.m3u8\n"
    "#EXT-X-STREAM-INF:BANDWIDTH=3000000,RESOLUTION=1280x720,AUDIO=\"hi\"\n720/l.m3u8\n"
    "#EXT-X-STREAM-INF:BANDWIDTH=2000000,RESOLUTION=1280x720,AUDIO=\"lo\"\n720b/l.m3u8\n"
    "#EXT-X-STREAM-INF:BANDWIDTH=64000,CODECS=\"mp4a.40.2\"\nsound/l.m3u8\n"
    "#EXT-X-I-FRAME-STREAM-INF:BANDWIDTH=9,URI=\"i.m3u8\"\n";

/// A server with a master, where everything else is the same media playlist.
struct Site
{
    explicit Site(const QByteArray &master = masterText)
    {
        server.on("/m/master.m3u8", replyOf(master));
        server.onOther([](const HttpRequest &request) {
            return request.path().endsWith(".m3u8") ? replyOf(mediaText) : replyOf("", 404);
        });
    }

    Presentation::Wish wish(int height = 0, const QString &language = QString()) const
    {
        return {server.url("/m/master.m3u8"), height, language};
    }

    /// The paths of what is fetched.
    QStringList pathsOf(const Presentation &presentation) const
    {
        QStringList paths;
        for (const Rendition &one : presentation.chosen())
            paths += QUrl(one.id).path();
        return paths;
    }

    ScriptedServer server;
};

} // namespace

class tst_HlsPresentation : public QObject
{
    Q_OBJECT

private slots:
    void choices_data()
    {
        QTest::addColumn<int>("height");
        QTest::addColumn<QString>("language");
        QTest::addColumn<QStringList>("paths");
        QTest::newRow("highest, then bandwidth")
            << 0 << ""
            << QStringList{QLatin1String("/m/720/l.m3u8"), QLatin1String("/m/hi/en.m3u8")};
        QTest::newRow("nearest height")
            << 400 << ""
            << QStringList{QLatin1String("/m/360/l.m3u8"), QLatin1String("/m/lo/en.m3u8")};
        QTest::newRow("language") << 360 << "de"
                                  << QStringList{QLatin1String("/m/360/l.m3u8"),
                                                 QLatin1String("/m/lo/de.m3u8")};
        QTest::newRow("language without an address lies in the variant")
            << 720 << "de" << QStringList{QLatin1String("/m/720/l.m3u8")};
        QTest::newRow("unknown language")
            << 360 << "fr"
            << QStringList{QLatin1String("/m/360/l.m3u8"), QLatin1String("/m/lo/en.m3u8")};
    }

    void choices()
    {
        QFETCH(int, height);
        QFETCH(QString, language);
        QFETCH(QStringList, paths);
        Site site;
        HlsPresentation presentation(site.wish(height, language), MediaServers());
        QVERIFY(Opening(presentation).isReady);
        QCOMPARE(site.pathsOf(presentation), paths);
        QCOMPARE(presentation.tracks().size(), paths.size());
        QVERIFY(!presentation.isLive());
        // Nothing is asked for that is not wanted.
        QCOMPARE(site.server.requests().size(), 1 + paths.size());
        for (int i = 0; i < paths.size(); ++i) {
            const QUrl first(presentation.tracks().at(i)->segment(1).address);
            QCOMPARE(first.path(), QUrl(paths.at(i)).resolved(QUrl(QStringLiteral("s1"))).path());
        }
    }

    void allAreListed()
    {
        Site site;
        const MessageCatcher messages;
        HlsPresentation presentation(site.wish(), MediaServers());
        QVERIFY(Opening(presentation).isReady);
        const QVector<Rendition> all = presentation.renditions();
        QCOMPARE(all.size(), 9);
        QCOMPARE(all.at(1).height, 720);
        QCOMPARE(all.at(1).bandwidth, qint64(3000000));
        QCOMPARE(all.at(1).durationUs, qint64(4000000));
        QCOMPARE(all.at(1).estimatedBytes(), qint64(1500000));
        QVERIFY(all.at(3).kind == Kind::Sound);
        QVERIFY(all.at(4).kind == Kind::Sound && all.at(4).isDefault);
        QCOMPARE(all.at(4).language, QStringLiteral("en"));
        QVERIFY(all.at(8).kind == Kind::Text);
        QCOMPARE(presentation.chosen().constFirst().durationUs, qint64(4000000));
    }

    void aMediaPlaylistAlone()
    {
        Site site(mediaText);
        HlsPresentation presentation(site.wish(720, QStringLiteral("de")), MediaServers());
        QVERIFY(Opening(presentation).isReady);
        QCOMPARE(site.server.requests().size(), 1);
        QCOMPARE(site.pathsOf(presentation), QStringList{QLatin1String("/m/master.m3u8")});
        QCOMPARE(presentation.tracks().constFirst()->last(), qint64(2));
        QCOMPARE(presentation.renditions().size(), 1);
    }

    void soundAlone()
    {
        Site site("#EXTM3U\n#EXT-X-STREAM-INF:BANDWIDTH=1,CODECS=\"mp4a.40.2\"\na.m3u8\n"
                  "#EXT-X-STREAM-INF:BANDWIDTH=2,CODECS=\"mp4a.40.2\"\nb.m3u8\n");
        HlsPresentation presentation(site.wish(720), MediaServers());
        QVERIFY(Opening(presentation).isReady);
        QCOMPARE(site.pathsOf(presentation), QStringList{QLatin1String("/m/b.m3u8")});
    }

    void aSoundThatMayBeTakenUnasked()
    {
        Site site("#EXTM3U\n#EXT-X-MEDIA:TYPE=AUDIO,GROUP-ID=\"a\",NAME=\"1\",URI=\"1.m3u8\"\n"
                  "#EXT-X-MEDIA:TYPE=AUDIO,GROUP-ID=\"a\",NAME=\"2\",AUTOSELECT=YES,"
                  "URI=\"2.m3u8\"\n#EXT-X-STREAM-INF:BANDWIDTH=1,AUDIO=\"a\"\nv.m3u8\n");
        HlsPresentation presentation(site.wish(), MediaServers());
        QVERIFY(Opening(presentation).isReady);
        QCOMPARE(site.pathsOf(presentation),
                 (QStringList{QLatin1String("/m/v.m3u8"), QLatin1String("/m/2.m3u8")}));
    }

    void theSameSoundTwiceIsOneTrack()
    {
        Site site("#EXTM3U\n#EXT-X-MEDIA:TYPE=AUDIO,GROUP-ID=\"a\",NAME=\"1\",URI=\"/m/v.m3u8\"\n"
                  "#EXT-X-STREAM-INF:BANDWIDTH=1,CODECS=\"mp4a\",AUDIO=\"a\"\nv.m3u8\n");
        HlsPresentation presentation(site.wish(), MediaServers());
        QVERIFY(Opening(presentation).isReady);
        QCOMPARE(site.pathsOf(presentation), QStringList{QLatin1String("/m/v.m3u8")});
    }

    void redundantStreams()
    {
        Site site("#EXTM3U\n#EXT-X-STREAM-INF:BANDWIDTH=1,RESOLUTION=2x2\na/l.m3u8\n"
                  "#EXT-X-STREAM-INF:BANDWIDTH=1,RESOLUTION=2x2\nb/l.m3u8\n");
        site.server.on("/m/a/l.m3u8", replyOf("", 404));
        HlsPresentation presentation(site.wish(), MediaServers());
        QVERIFY(Opening(presentation).isReady);
        QCOMPARE(QUrl(presentation.tracks().constFirst()->segment(1).address).path(),
                 QStringLiteral("/m/b/s1"));
    }

    void twinsStandIn()
    {
        Site site("#EXTM3U\n#EXT-X-STREAM-INF:BANDWIDTH=1,RESOLUTION=2x2\na/l.m3u8\n"
                  "#EXT-X-STREAM-INF:BANDWIDTH=1,RESOLUTION=2x2\nb/l.m3u8\n"
                  "#EXT-X-STREAM-INF:BANDWIDTH=1,RESOLUTION=2x2,FRAME-RATE=60\nc/l.m3u8\n");
        const QByteArray map = "#EXT-X-MAP:URI=\"i\"\n";
        site.server.on("/m/a/l.m3u8", replyOf(QByteArray(mediaText).insert(8, map)));
        site.server.on("/m/b/l.m3u8",
                       replyOf(QByteArray(mediaText).replace("s1", "other").insert(8, map)));
        HlsPresentation presentation(site.wish(), MediaServers());
        QVERIFY(Opening(presentation).isReady);
        const TrackSource &track = *presentation.tracks().constFirst();
        QTRY_VERIFY(!track.segment(1).otherAddresses.isEmpty());
        QCOMPARE(track.segment(1).otherAddresses, QStringList{site.server.address("/m/b/i")});
        QCOMPARE(track.segment(2).otherAddresses, QStringList{site.server.address("/m/b/other")});
        QCOMPARE(track.segment(3).otherAddresses, QStringList{site.server.address("/m/b/s2")});
        QVERIFY(site.server.requestsFor("/m/c/l.m3u8").isEmpty());
    }

    void strangersDoNotStandIn_data()
    {
        QTest::addColumn<QByteArray>("other");
        QTest::newRow("shorter") << QByteArray(mediaText).replace("#EXTINF:2,\ns2\n", "");
        QTest::newRow("longer") << QByteArray(mediaText).replace("#EXT-X-END",
                                                                 "#EXTINF:2,\ns3\n#EXT-X-END");
        QTest::newRow("other numbers")
            << QByteArray(mediaText).insert(8, "#EXT-X-MEDIA-SEQUENCE:1\n");
        QTest::newRow("other durations") << QByteArray(mediaText).replace("INF:2", "INF:1.9");
        QTest::newRow("other ranges")
            << QByteArray(mediaText).replace("s1", "#EXT-X-BYTERANGE:5@0\ns1");
        QTest::newRow("encrypted")
            << QByteArray(mediaText).insert(8, "#EXT-X-KEY:METHOD=AES-128,URI=\"k\"\n");
        QTest::newRow("with a map") << QByteArray(mediaText).insert(8, "#EXT-X-MAP:URI=\"i\"\n");
        QTest::newRow("a master") << QByteArray("#EXTM3U\n#EXT-X-STREAM-INF:BANDWIDTH=1\nv\n");
    }

    void strangersDoNotStandIn()
    {
        QFETCH(QByteArray, other);
        Site site("#EXTM3U\n#EXT-X-STREAM-INF:BANDWIDTH=1,RESOLUTION=2x2\na/l.m3u8\n"
                  "#EXT-X-STREAM-INF:BANDWIDTH=1,RESOLUTION=2x2\nb/l.m3u8\n");
        site.server.on("/m/b/l.m3u8", replyOf(other));
        HlsPresentation presentation(site.wish(), MediaServers());
        QVERIFY(Opening(presentation).isReady);
        QTRY_COMPARE(site.server.requestsFor("/m/b/l.m3u8").size(), 1);
        Site later; // by the time that this one is ready the other's answer has come
        HlsPresentation third(later.wish(), MediaServers());
        QVERIFY(Opening(third).isReady);
        QVERIFY(presentation.tracks().constFirst()->segment(1).otherAddresses.isEmpty());
    }

    void variablesOfTheMaster()
    {
        Site site("#EXTM3U\n#EXT-X-DEFINE:NAME=\"x\",VALUE=\"/y\"\n"
                  "#EXT-X-STREAM-INF:BANDWIDTH=1\nv.m3u8\n");
        site.server.on("/m/v.m3u8",
                       replyOf("#EXTM3U\n#EXT-X-DEFINE:IMPORT=\"x\"\n#EXTINF:1,\n{$x}/s\n"
                               "#EXT-X-ENDLIST\n"));
        HlsPresentation presentation(site.wish(), MediaServers());
        QVERIFY(Opening(presentation).isReady);
        QCOMPARE(QUrl(presentation.tracks().constFirst()->segment(1).address).path(),
                 QStringLiteral("/y/s"));
    }

    void windowsAreAlignedByTheTimeOfDay()
    {
        Site site("#EXTM3U\n#EXT-X-MEDIA:TYPE=AUDIO,GROUP-ID=\"a\",NAME=\"1\",URI=\"a.m3u8\"\n"
                  "#EXT-X-STREAM-INF:BANDWIDTH=1,AUDIO=\"a\"\nv.m3u8\n");
        site.server.on("/m/v.m3u8",
                       replyOf("#EXTM3U\n#EXT-X-DISCONTINUITY-SEQUENCE:4\n"
                               "#EXT-X-PROGRAM-DATE-TIME:2020-01-01T00:00:02Z\n#EXTINF:2,\ns\n"));
        site.server.on("/m/a.m3u8",
                       replyOf("#EXTM3U\n#EXT-X-DISCONTINUITY-SEQUENCE:3\n"
                               "#EXT-X-PROGRAM-DATE-TIME:2020-01-01T00:00:00Z\n#EXTINF:2,\ns\n"));
        HlsPresentation presentation(site.wish(), MediaServers());
        QVERIFY(Opening(presentation).isReady);
        QVERIFY(presentation.isLive());
        QCOMPARE(presentation.tracks().at(0)->trackSegment(1).startUs, qint64(2000000));
        QCOMPARE(presentation.tracks().at(0)->trackSegment(1).run, 1);
        QCOMPARE(presentation.tracks().at(1)->trackSegment(1).startUs, qint64(0));
        QCOMPARE(presentation.tracks().at(1)->trackSegment(1).run, 0);
        QCOMPARE(presentation.chosen().constFirst().durationUs, qint64(0));
        presentation.finish();
        QVERIFY(!presentation.isLive());
    }

    void failures_data()
    {
        QTest::addColumn<QByteArray>("master");
        QTest::addColumn<QByteArray>("media");
        QTest::addColumn<Failure>("failure");
        const QByteArray one = "#EXTM3U\n#EXT-X-STREAM-INF:BANDWIDTH=1\nv.m3u8\n";
        QTest::newRow("page") << QByteArray("<html>") << mediaText << Failure::Malformed;
        QTest::newRow("only files")
            << QByteArray("#EXTM3U\n#EXT-X-STREAM-INF:BANDWIDTH=1\nfile:///etc/passwd\n")
            << mediaText << Failure::Unsupported;
        QTest::newRow("only key frames")
            << QByteArray("#EXTM3U\n#EXT-X-I-FRAME-STREAM-INF:BANDWIDTH=1,URI=\"i\"\n") << mediaText
            << Failure::Unsupported;
        QTest::newRow("masters in a loop") << one << one << Failure::Unsupported;
        QTest::newRow("protected")
            << one << QByteArray("#EXTM3U\n#EXT-X-KEY:METHOD=SAMPLE-AES,URI=\"k\"\n#EXTINF:1,\na\n")
            << Failure::Protected;
        QTest::newRow("page in a playlist's place")
            << one << QByteArray("<html>") << Failure::Malformed;
    }

    void failures()
    {
        QFETCH(QByteArray, master);
        QFETCH(QByteArray, media);
        QFETCH(Failure, failure);
        Site site(master);
        site.server.on("/m/v.m3u8", replyOf(media));
        HlsPresentation presentation(site.wish(), MediaServers());
        const Opening opening(presentation);
        QVERIFY(opening.hasFailed && !opening.isReady);
        QCOMPARE(opening.failure, failure);
        QVERIFY(!opening.reason.isEmpty() && !opening.reason.contains(QLatin1Char('\n')));
        QVERIFY(site.server.requests().size() <= 4);
    }

    void finishedBeforeItIsReady()
    {
        Site site;
        site.server.hold("/m/hi/en.m3u8");
        HlsPresentation presentation(site.wish(), MediaServers());
        QSignalSpy ready(&presentation, &Presentation::ready);
        QSignalSpy failed(&presentation, &Presentation::failed);
        presentation.open();
        QTRY_COMPARE(site.server.requests().size(), 3);
        presentation.finish();
        HlsPresentation other(site.wish(360), MediaServers());
        QVERIFY(Opening(other).isReady);
        QVERIFY(ready.isEmpty() && failed.isEmpty());
    }

    void destroyedWhileItOpens()
    {
        for (int requests = 0; requests <= 3; ++requests) {
            Site site;
            auto presentation = std::make_unique<HlsPresentation>(site.wish(), MediaServers());
            presentation->open();
            QTRY_VERIFY(site.server.requests().size() >= requests);
            presentation.reset();
        }
    }
};

CLIPWEIR_TEST_MAIN(tst_HlsPresentation)
#include "tst_hlspresentation.moc"
