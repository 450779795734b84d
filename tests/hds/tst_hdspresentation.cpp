#include "HdsFixtures.h"
#include "HdsPresentation.h"
#include "MessageCatcher.h"
#include "Opening.h"
#include "PrivateFolder.h"
#include "ScriptedServer.h"
#include "TestMain.h"
#include "TrackSource.h"

#include <cstring>

namespace {

using Failure = Presentation::Failure;

/// Metadata that tells a size.
QByteArray sized(double width, double height)
{
    const auto property = [](const QByteArray &name, double value) {
        quint64 bits = 0;
        std::memcpy(&bits, &value, sizeof bits);
        return hds::int16(static_cast<quint32>(name.size())) + name + '\0' + hds::int64(bits);
    };
    return '\2' + hds::int16(10) + "onMetaData" + '\3' + property("width", width)
        + property("height", height) + hds::int24(9);
}

QByteArray document(const QByteArray &content)
{
    return "<manifest xmlns='http://ns.adobe.com/f4m/2.0'><duration>0.5</duration>" + content
        + "</manifest>";
}

QByteArray liveBootstrap(quint32 first, quint32 last, bool isOver = false)
{
    hds::Bootstrap made;
    made.isLive = true;
    made.segments = {{1, 0xFFFFFFFF}};
    for (quint32 n = first; n <= last; ++n)
        made.fragments += {n, n * 100, 100};
    if (isOver)
        made.fragments += {0, 0, 0, 0};
    return made.abst();
}

/// A server with a manifest and bootstraps of five fragments beside it.
struct Site
{
    explicit Site(const QByteArray &content)
    {
        server.on("/a/m.f4m", replyOf(document(content)));
        for (const char *const path : {"/a/b.abst", "/a/c.abst", "/a/d.abst"})
            server.on(path, replyOf(hds::simpleBootstrap(5)));
    }

    Presentation::Wish wish(int height = 0) const { return {server.url("/a/m.f4m"), height, {}}; }

    ScriptedServer server;
};

const QByteArray three =
    "<media url='low' bitrate='300' height='180' width='320' bootstrapInfoId='b'/>"
    "<media url='high' bitrate='900' height='360' bootstrapInfoId='c'/>"
    "<media url='mid' bitrate='700' height='360' bootstrapInfoId='d'/>"
    "<bootstrapInfo id='b' url='b.abst'/><bootstrapInfo id='c' url='c.abst'/>"
    "<bootstrapInfo id='d' url='d.abst'/>";

QString firstOf(const Presentation &presentation)
{
    return QUrl(presentation.tracks().constFirst()->segment(0).address).path();
}

} // namespace

class tst_HdsPresentation : public QObject
{
    Q_OBJECT

private slots:
    void choices_data()
    {
        QTest::addColumn<int>("height");
        QTest::addColumn<QString>("fragment");
        QTest::addColumn<QByteArray>("bootstrap");
        QTest::newRow("highest, then bandwidth")
            << 0 << "/a/highSeg1-Frag1" << QByteArray("/a/c.abst");
        QTest::newRow("nearest height") << 200 << "/a/lowSeg1-Frag1" << QByteArray("/a/b.abst");
        QTest::newRow("above all") << 1080 << "/a/highSeg1-Frag1" << QByteArray("/a/c.abst");
    }

    void choices()
    {
        QFETCH(int, height);
        QFETCH(QString, fragment);
        QFETCH(QByteArray, bootstrap);
        Site site(three);
        HdsPresentation presentation(site.wish(height), MediaServers());
        QVERIFY(Opening(presentation).isReady);
        QCOMPARE(firstOf(presentation), fragment);
        QCOMPARE(presentation.renditions().size(), 3);
        QCOMPARE(presentation.chosen().size(), 1);
        QCOMPARE(presentation.chosen().constFirst().durationUs, qint64(500000));
        QVERIFY(!presentation.isLive());
        const TrackSource &track = *presentation.tracks().constFirst();
        QVERIFY(track.isEnded());
        QCOMPARE(track.last(), qint64(4));
        QCOMPARE(site.server.requests().size(), 2); // nothing that is not wanted
        QCOMPARE(site.server.requestsFor(bootstrap).size(), 1);
    }

    /// Packagers leave the size to the metadata.
    void heightsOfTheMetadata()
    {
        Site site("<media url='low' bitrate='900'><metadata>" + sized(320, 180).toBase64()
                  + "</metadata></media><media url='high' bitrate='300'><metadata>"
                  + sized(640, 360).toBase64() + "</metadata></media><bootstrapInfo>"
                  + hds::simpleBootstrap(5).toBase64() + "</bootstrapInfo>");
        HdsPresentation presentation(site.wish(), MediaServers());
        QVERIFY(Opening(presentation).isReady);
        QCOMPARE(firstOf(presentation), QStringLiteral("/a/highSeg1-Frag1"));
        QCOMPARE(presentation.chosen().constFirst().width, 640);
        HdsPresentation lower(site.wish(200), MediaServers());
        QVERIFY(Opening(lower).isReady);
        QCOMPARE(firstOf(lower), QStringLiteral("/a/lowSeg1-Frag1"));
    }

    void withoutHeightsTheHighestBandwidth()
    {
        Site site("<media url='1' bitrate='300'/><media url='2' bitrate='900'/><media url='3'/>"
                  "<bootstrapInfo url='b.abst'/>");
        HdsPresentation presentation(site.wish(720), MediaServers());
        QVERIFY(Opening(presentation).isReady);
        QCOMPARE(firstOf(presentation), QStringLiteral("/a/2Seg1-Frag1"));
    }

    void setsOfManifests_data()
    {
        QTest::addColumn<int>("height");
        QTest::addColumn<bool>("areHeightsTold"); // in the set
        QTest::addColumn<QString>("fragment");
        QTest::addColumn<int>("manifests"); // that are read
        QTest::newRow("highest bandwidth") << 0 << false << "/a/x/highSeg1-Frag1" << 2;
        QTest::newRow("nearest height, by what is told")
            << 180 << true << "/a/x/lowSeg1-Frag1" << 2;
        QTest::newRow("nearest height, by looking") << 180 << false << "/a/x/lowSeg1-Frag1" << 3;
    }

    void setsOfManifests()
    {
        QFETCH(int, height);
        QFETCH(bool, areHeightsTold);
        QFETCH(QString, fragment);
        QFETCH(int, manifests);
        const auto told = [areHeightsTold](const char *written) {
            return areHeightsTold ? QByteArray(" height='") + written + '\'' : QByteArray();
        };
        Site site("<media href='x/low.f4m' bitrate='300'" + told("180")
                  + "/><media href='x/high.f4m' bitrate='900'" + told("360") + "/>");
        for (const QByteArray &name : {QByteArray("low"), QByteArray("high")})
            site.server.on("/a/x/" + name + ".f4m",
                           replyOf(document("<media url='" + name + "' height='"
                                            + (name == "low" ? "180" : "360")
                                            + "'/><bootstrapInfo url='../b.abst'/>")));
        HdsPresentation presentation(site.wish(height), MediaServers());
        QVERIFY(Opening(presentation).isReady);
        QCOMPARE(firstOf(presentation), fragment);
        QCOMPARE(site.server.requests().size(), manifests + 1);
        const Rendition chosen = presentation.chosen().constFirst();
        QVERIFY(chosen.bandwidth > 0 && chosen.height > 0);
        // A player asks for them, too: they are pieces of this one.
        QVERIFY(presentation.renditions().constFirst().id.endsWith(QLatin1String("/x/low.f4m")));
        QVERIFY(chosen.id.endsWith(QLatin1String(".f4m")));
    }

    void aManifestOfASetThatIsMissing()
    {
        const MessageCatcher messages;
        Site site("<media href='x.f4m' bitrate='900'/><media url='s' bitrate='300'/>"
                  "<bootstrapInfo url='b.abst'/>");
        HdsPresentation presentation(site.wish(), MediaServers());
        QVERIFY(Opening(presentation).isReady);
        QCOMPARE(firstOf(presentation), QStringLiteral("/a/sSeg1-Frag1"));
        QVERIFY(site.server.requestsFor("/a/x.f4m").size() > 1); // tried again
    }

    void asksAgain()
    {
        Site site(three);
        int asked = 0;
        site.server.on("/a/c.abst", [&asked](const HttpRequest &) {
            return ++asked < 3 ? replyOf("", 503) : replyOf(hds::simpleBootstrap(5));
        });
        HdsPresentation presentation(site.wish(), MediaServers());
        QVERIFY(Opening(presentation).isReady);
        QCOMPARE(asked, 3);
    }

    void addressesFromWhereTheAnswerCame()
    {
        Site site(three);
        HttpReply moved = replyOf("", 302);
        moved.headers = {{"Location", "/a/m.f4m?k=2"}};
        site.server.on("/old/m.f4m", moved);
        site.server.on("/a/m.f4m?k=2", replyOf(document(three)));
        site.server.onOther([](const HttpRequest &) { return replyOf(hds::simpleBootstrap(5)); });
        HdsPresentation presentation({site.server.url("/old/m.f4m"), 0, {}}, MediaServers());
        QVERIFY(Opening(presentation).isReady);
        QCOMPARE(presentation.tracks().constFirst()->segment(0).address,
                 site.server.address("/a/highSeg1-Frag1?k=2"));
    }

    void fails_data()
    {
        QTest::addColumn<QByteArray>("content");
        QTest::addColumn<Failure>("failure");
        const QByteArray inside =
            "<bootstrapInfo>" + hds::simpleBootstrap(5).toBase64() + "</bootstrapInfo>";
        hds::Bootstrap headed;
        headed.segments = {{1, 5}};
        headed.fragments = {{1, 0, 100}};
        headed.drmData = "header";
        QTest::newRow("no renditions") << QByteArray() << Failure::Malformed;
        QTest::newRow("not well-formed") << QByteArray("<media url='s'>") << Failure::Malformed;
        QTest::newRow("no bootstrap") << QByteArray("<media url='s'/>") << Failure::Unsupported;
        QTest::newRow("a bootstrap that is missing")
            << QByteArray("<media url='s'/><bootstrapInfo url='none.abst'/>")
            << Failure::Unreachable;
        QTest::newRow("a bootstrap that is none")
            << QByteArray("<media url='s'/><bootstrapInfo url='m.f4m'/>") << Failure::Malformed;
        QTest::newRow("another protocol")
            << "<media url='rtmp://h.test/s'/>" + inside << Failure::Unsupported;
        QTest::newRow("only what goes with others")
            << "<media url='s' alternate='true' type='audio'/>" + inside << Failure::Unsupported;
        QTest::newRow("protected")
            << "<drmAdditionalHeader id='d' url='x'/><media url='s' drmAdditionalHeaderId='d'/>"
                + inside
            << Failure::Protected;
        QTest::newRow("protected by its bootstrap")
            << "<media url='s'/><bootstrapInfo>" + headed.abst().toBase64() + "</bootstrapInfo>"
            << Failure::Protected;
        QTest::newRow("a set that names itself")
            << QByteArray("<media href='m.f4m'/>") << Failure::Unsupported;
        QTest::newRow("a set that never ends")
            << QByteArray("<media href='none.f4m'/>").repeated(100) << Failure::Malformed;
    }

    void fails()
    {
        QFETCH(QByteArray, content);
        QFETCH(Failure, failure);
        const MessageCatcher messages;
        Site site(content);
        if (content.contains("none.f4m")) // of each a rendition that no bootstrap is for
            site.server.on("/a/none.f4m", replyOf(document("<media href='more.f4m'/>")));
        HdsPresentation presentation(site.wish(), MediaServers());
        const Opening opening(presentation);
        QVERIFY(opening.hasFailed);
        QCOMPARE(opening.failure, failure);
        QVERIFY(!opening.reason.isEmpty());
        QVERIFY(site.server.requests().size() < 70);
    }

    void followsALiveOne_data()
    {
        QTest::addColumn<bool>("isApart");
        QTest::newRow("by its bootstrap") << true;
        QTest::newRow("by its manifest") << false;
    }

    void followsALiveOne()
    {
        QFETCH(bool, isApart);
        int asked = 0;
        const auto bootstrap = [&asked] {
            ++asked;
            return asked == 1 ? liveBootstrap(3, 4)
                : asked == 2  ? QByteArray("none for a moment")
                : asked == 3  ? liveBootstrap(4, 6)
                              : liveBootstrap(8, 9, true);
        };
        Site site("<media url='s'/><bootstrapInfo url='b.abst'/>");
        if (isApart)
            site.server.on("/a/b.abst", [&](const HttpRequest &) { return replyOf(bootstrap()); });
        else
            site.server.on("/a/m.f4m", [&](const HttpRequest &) {
                return replyOf(document("<media url='s'/><bootstrapInfo>" + bootstrap().toBase64()
                                        + "</bootstrapInfo>"));
            });
        HdsPresentation presentation(site.wish(), MediaServers());
        QVERIFY(Opening(presentation).isReady);
        QVERIFY(presentation.isLive());
        QCOMPARE(presentation.chosen().constFirst().durationUs, qint64(0));
        const TrackSource &track = *presentation.tracks().constFirst();
        QCOMPARE(track.last(), qint64(1));
        QVERIFY(!track.isEnded());
        QTRY_VERIFY_WITH_TIMEOUT(track.isEnded(), 30000);
        QVERIFY(!presentation.isLive());
        QCOMPARE(track.last(), qint64(6)); // from 3 to 9
        QVERIFY(track.segment(4).address.isEmpty()); // the seventh is gone
        QVERIFY(track.segment(5).address.endsWith(QLatin1String("-Frag8")));
    }

    void finishes()
    {
        Site site("<media url='s'/><bootstrapInfo url='b.abst'/>");
        site.server.on("/a/b.abst", replyOf(liveBootstrap(1, 2)));
        HdsPresentation presentation(site.wish(), MediaServers());
        QVERIFY(Opening(presentation).isReady);
        presentation.finish();
        QVERIFY(!presentation.isLive());
        QVERIFY(presentation.tracks().constFirst()->isEnded());
        HdsPresentation another(site.wish(), MediaServers());
        another.finish(); // before it begins
        another.open();
        QVERIFY(another.tracks().isEmpty());
    }

    /// Wherever an address may stand, that of a file of this machine is nothing.
    void filesOfThisMachine_data()
    {
        QTest::addColumn<QByteArray>("content");
        QTest::newRow("rendition") << QByteArray("<media url='%1'/><bootstrapInfo url='b.abst'/>");
        QTest::newRow("manifest") << QByteArray("<media href='%1'/>");
        QTest::newRow("bootstrap") << QByteArray("<media url='s'/><bootstrapInfo url='%1'/>");
        QTest::newRow("base") << QByteArray(
            "<baseURL>%1</baseURL><media url='s'/><bootstrapInfo url='b.abst'/>");
    }

    void filesOfThisMachine()
    {
        QFETCH(QByteArray, content);
        const MessageCatcher messages;
        PrivateFolder folder;
        Site site(content.replace("%1", folder.address(QStringLiteral("f")).toUtf8()));
        HdsPresentation presentation(site.wish(), MediaServers());
        QVERIFY(Opening(presentation).hasFailed);
        QCOMPARE(folder.opened(), QStringList());
    }
};

CLIPWEIR_TEST_MAIN(tst_HdsPresentation)
#include "tst_hdspresentation.moc"
