// Whole runs of pages with real players, in the versions that the folder "players" pins.

#include "PageKind.h"
#include "PageRun.h"
#include "PageSite.h"
#include "TestMain.h"

class tst_PagePlayers : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        if (!QFile::exists(option(PAGE_PLAYERS "/fetched")))
            QFAIL("the players are missing in " PAGE_PLAYERS ": run scripts/fetch-players.sh");
    }

    void files_data()
    {
        addPageKinds({
            {"video.js", "player-videojs", "/media/clip.mp4", "clip.mp4"},
            {"video.js, waits", "player-videojs-waits", "/watch/clip", "clip.mp4",
             Engines::Chromium, 1, true},
            {"Plyr", "player-plyr", "/media/clip.mp4", "clip.mp4"},
            {"Plyr, waits", "player-plyr-waits", "/watch/clip", "clip.mp4", Engines::Chromium, 1,
             true},
            {"MediaElement", "player-mediaelement", "/media/clip.mp4", "clip.mp4"},
            {"MediaElement, waits", "player-mediaelement-waits", "/watch/clip", "clip.mp4",
             Engines::Chromium, 1, true},
            {"Shaka Player", "player-shaka", "/media/clip.mp4", "clip.mp4"},
            {"hls.js, then a file", "player-hlsjs-fallback", "/media/clip.mp4", "clip.mp4"},
        });
    }

    void files() { runPageKind(); }

    void streams_data()
    {
        QTest::addColumn<QByteArray>("page");
        QTest::addColumn<QByteArray>("manifest");
        const QByteArray hls = "/media/hls/list.m3u8";
        const QByteArray dash = "/media/dash/list.mpd";
        QTest::newRow("hls.js") << QByteArray("player-hlsjs") << hls;
        QTest::newRow("video.js, HLS") << QByteArray("player-videojs-hls") << hls;
        QTest::newRow("Shaka Player, HLS") << QByteArray("player-shaka-hls") << hls;
        QTest::newRow("Shaka Player, DASH") << QByteArray("player-shaka-dash") << dash;
        QTest::newRow("dash.js") << QByteArray("player-dashjs") << dash;
    }

    /// What the player begins with is a candidate; its segments are none.
    void streams()
    {
        QFETCH(QByteArray, page);
        QFETCH(QByteArray, manifest);
        PageSite site;
        ProgramRun run;
        QVERIFY(run.run(engineOptions(option("chromium"))
                        + QStringList{option("--streams"), option("--url"), site.page(page)}));
        QVERIFY(!site.host().requestsFor(manifest).isEmpty());
        QCOMPARE(candidatesOf(recordOf(run.errorOutput())), QStringList{site.address(manifest)});
    }
};

CLIPWEIR_TEST_MAIN(tst_PagePlayers)
#include "tst_page_players.moc"
