#include "HlsPresentation.h"
#include "MediaFiles.h"
#include "MediaLibrary.h"
#include "MediaWriter.h"
#include "Packaged.h"
#include "TestMain.h"
#include "TracksTransfer.h"

#include <algorithm>
#include <functional>
#include <memory>
#include <optional>

Q_DECLARE_METATYPE(RunClass)

namespace {

/// A stream that becomes a file.
struct Fetched
{
    /// @param stopAfter the number of segments that it is stopped after; 0 for none
    explicit Fetched(const QUrl &address, qint64 stopAfter = 0)
    {
        MediaServers servers;
        servers.net.stallMs = 2000;
        const Presentation::Wish wish{address, 0, QString()};
        TracksTransfer::Wish target;
        target.target.folder = folder.path();
        target.target.name = QStringLiteral("out");
        target.cacheFolder = folder.filePath(QStringLiteral("cache"));
        TracksTransfer transfer(std::make_unique<HlsPresentation>(wish, servers),
                                address.toEncoded(), target, servers);
        bool isOver = false;
        QObject::connect(&transfer, &Transfer::ended, &transfer,
                         [this, &isOver](Transfer::Outcome result) {
                             outcome = result;
                             isOver = true;
                         });
        QObject::connect(&transfer, &Transfer::progressed, &transfer,
                         [&transfer, stopAfter](qint64 done) {
                             if (stopAfter > 0 && done >= stopAfter)
                                 transfer.cancel();
                         });
        transfer.start();
        hasEnded = QTest::qWaitFor([&isOver] { return isOver; }, 120 * 1000);
        path = transfer.path();
        missing = transfer.missingSegments();
        failure = transfer.failure();
        runClass = transfer.report(outcome).runClass;
    }

    QTemporaryDir folder;
    bool hasEnded = false;
    Transfer::Outcome outcome = Transfer::Outcome::Failed;
    QString path;
    qint64 missing = -1;
    std::optional<Presentation::Failure> failure;
    RunClass runClass = RunClass::Complete;
};

const QString segmented = QStringLiteral("-c copy -f hls -hls_time 1 -hls_playlist_type vod "
                                         "-hls_segment_filename s%02d.ts x.m3u8");

/// A window of the segments of that, which last a second each.
QByteArray window(int first, int last)
{
    QByteArray text = "#EXTM3U\n#EXT-X-TARGETDURATION:1\n#EXT-X-MEDIA-SEQUENCE:"
        + QByteArray::number(first) + '\n';
    for (int n = first; n <= last; ++n)
        text += "#EXTINF:1,\ns" + QByteArray::number(n).rightJustified(2, '0') + ".ts\n";
    return text;
}

bool rises(const QList<double> &times)
{
    return std::adjacent_find(times.cbegin(), times.cend(), std::greater_equal<double>())
        == times.cend();
}

} // namespace

/// Playlists and what may be the matter with them, up to the file that they become.
class tst_HlsTransfer : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { MediaLibrary::use(MediaWriter::make); }

    void mapsThatChangeInMidStream()
    {
        const QString hls = QStringLiteral("-c copy -f hls -hls_time 1 -hls_playlist_type vod "
                                           "-hls_segment_type fmp4 ");
        Packaged packaged(hls + QLatin1String("l.m3u8"), Packaged::Input::Whole);
        QVERIFY(packaged.isMade);
        const QString text = QString::fromUtf8(readFile(packaged.path("l.m3u8")));
        QString second = text.mid(text.indexOf(QLatin1String("#EXT-X-MAP")));
        const QString first = QString(text).remove(QStringLiteral("#EXT-X-ENDLIST\n"));
        second.replace(QLatin1String("init.mp4"), QLatin1String("init2.mp4"));
        writeFile(packaged.path("init2.mp4"), readFile(packaged.path("init.mp4")));
        packaged.server.on(
            "/l.m3u8",
            replyOf((first + QLatin1String("#EXT-X-DISCONTINUITY\n") + second).toUtf8()));
        const Fetched fetched(packaged.server.url("/l.m3u8"));
        QCOMPARE(fetched.outcome, Transfer::Outcome::Succeeded);
        const auto frames = MediaFiles::frames(packaged.path("whole.mp4"), "v:0");
        QCOMPARE(MediaFiles::frames(fetched.path, "v:0"), frames + frames);
        QVERIFY(rises(MediaFiles::times(fetched.path, "v:0")));
        QCOMPARE(MediaFiles::complaints(fetched.path), QByteArray());
    }

    void aGapIsNoEnd()
    {
        Packaged packaged(QStringLiteral("-c copy -f hls -hls_time 1 -hls_playlist_type vod "
                                         "-hls_segment_filename s%02d.ts l.m3u8"),
                          Packaged::Input::Whole);
        QVERIFY(packaged.isMade);
        QString text = QString::fromUtf8(readFile(packaged.path("l.m3u8")));
        text.replace(QLatin1String("s02.ts"), QLatin1String("#EXT-X-GAP\ns02.ts"));
        packaged.server.on("/l.m3u8", replyOf(text.toUtf8()));
        const Fetched fetched(packaged.server.url("/l.m3u8"));
        QCOMPARE(fetched.outcome, Transfer::Outcome::Succeeded);
        QCOMPARE(fetched.missing, qint64(1));
        QVERIFY(packaged.server.requestsFor("/s02.ts").isEmpty());
        QVERIFY(rises(MediaFiles::times(fetched.path, "v:0")));
        const int frames = MediaFiles::frames(packaged.path("whole.mp4"), "v:0").size();
        QVERIFY(MediaFiles::packets(fetched.path, "v:0").size() < frames);
    }

    void aWindowThatMovesOn()
    {
        Packaged packaged(segmented, Packaged::Input::Whole);
        QVERIFY(packaged.isMade);
        QList<QByteArray> windows{window(0, 1), window(1, 3), window(2, 4),
                                  window(4, 5) + "#EXT-X-ENDLIST\n"};
        packaged.server.on("/l.m3u8", [&windows](const HttpRequest &) {
            return replyOf(windows.size() > 1 ? windows.takeFirst() : windows.first());
        });
        const Fetched fetched(packaged.server.url("/l.m3u8"));
        QCOMPARE(fetched.outcome, Transfer::Outcome::Succeeded);
        QCOMPARE(fetched.missing, qint64(0));
        const QString source = packaged.path("whole.mp4");
        QCOMPARE(MediaFiles::frames(fetched.path, "v:0"), MediaFiles::frames(source, "v:0"));
        QCOMPARE(MediaFiles::packets(fetched.path, "a:0"), MediaFiles::packets(source, "a:0"));
    }

    /// From its first playlist to its last one, while it makes them.
    void aPackagerAtWork()
    {
        Packaged packaged(QStringLiteral("-c copy copy.mp4"), Packaged::Input::Whole);
        QVERIFY(packaged.isMade);
        QProcess packager;
        packager.setWorkingDirectory(packaged.folder.path());
        packager.start(QStringLiteral("ffmpeg"),
                       QStringLiteral("-v error -re -i whole.mp4 -c copy -f hls -hls_time 1 "
                                      "-hls_list_size 0 -hls_flags program_date_time l.m3u8")
                           .split(QLatin1Char(' ')));
        QTRY_VERIFY_WITH_TIMEOUT(QFile::exists(packaged.path("l.m3u8")), 30000);
        QVERIFY(packager.state() == QProcess::Running);
        const Fetched fetched(packaged.server.url("/l.m3u8"));
        QCOMPARE(fetched.outcome, Transfer::Outcome::Succeeded);
        QCOMPARE(fetched.missing, qint64(0));
        QVERIFY(packaged.server.requestsFor("/l.m3u8").size() > 2);
        const QString source = packaged.path("whole.mp4");
        QCOMPARE(MediaFiles::frames(fetched.path, "v:0"), MediaFiles::frames(source, "v:0"));
        QCOMPARE(MediaFiles::packets(fetched.path, "a:0"), MediaFiles::packets(source, "a:0"));
        QTRY_COMPARE(packager.state(), QProcess::NotRunning);
    }

    /// The file is what came up to then.
    void stoppedInTheMidst()
    {
        Packaged packaged(segmented, Packaged::Input::Whole);
        QVERIFY(packaged.isMade);
        packaged.server.on("/l.m3u8", replyOf(window(0, 2)));
        const Fetched fetched(packaged.server.url("/l.m3u8"), 3);
        QCOMPARE(fetched.outcome, Transfer::Outcome::Canceled);
        const auto frames = MediaFiles::frames(packaged.path("whole.mp4"), "v:0");
        QCOMPARE(MediaFiles::frames(fetched.path, "v:0"), frames.mid(0, 75));
        QCOMPARE(MediaFiles::complaints(fetched.path), QByteArray());
    }

    void whatLeftTheWindowIsAHole()
    {
        Packaged packaged(segmented, Packaged::Input::Whole);
        QVERIFY(packaged.isMade);
        QList<QByteArray> windows{window(0, 1), window(4, 5) + "#EXT-X-ENDLIST\n"};
        packaged.server.on("/l.m3u8", [&windows](const HttpRequest &) {
            return replyOf(windows.size() > 1 ? windows.takeFirst() : windows.first());
        });
        const Fetched fetched(packaged.server.url("/l.m3u8"));
        QCOMPARE(fetched.outcome, Transfer::Outcome::Succeeded);
        QCOMPARE(fetched.missing, qint64(2));
        QVERIFY(rises(MediaFiles::times(fetched.path, "v:0")));
        const double duration = MediaFiles::probe(fetched.path, "format=duration").toDouble();
        QVERIFY2(qAbs(duration - 6) < 0.2, QByteArray::number(duration));
    }

    void packedSound_data()
    {
        QTest::addColumn<QString>("output");
        QTest::addColumn<bool>("hasHeaders");
        QTest::newRow("ADTS") << "-map 0:a -c copy -f segment -segment_format adts" << true;
        QTest::newRow("MP3") << "-map 0:a -c:a libmp3lame -f segment -segment_format mp3 "
                                "-segment_format_options write_xing=0"
                             << false;
        QTest::newRow("AC-3") << "-map 0:a -c:a ac3 -f segment -segment_format ac3" << false;
    }

    void packedSound()
    {
        QFETCH(QString, output);
        QFETCH(bool, hasHeaders);
        Packaged packaged(output + QLatin1String(" -segment_time 1 s%02d.ts"),
                          Packaged::Input::Whole);
        QVERIFY(packaged.isMade);
        const int count = QDir(packaged.folder.path()).entryList({QStringLiteral("s*.ts")}).size();
        QVERIFY(count > 3);
        packaged.server.on("/l.m3u8", replyOf(window(0, count - 1) + "#EXT-X-ENDLIST\n"));
        const Fetched fetched(packaged.server.url("/l.m3u8"));
        QCOMPARE(fetched.outcome, Transfer::Outcome::Succeeded);
        QCOMPARE(fetched.missing, qint64(0));
        QList<QByteArray> packets;
        for (int n = 0; n < count; ++n)
            packets += MediaFiles::packets(
                packaged.folder.filePath(QStringLiteral("s0%1.ts").arg(n)), "a:0");
        if (hasHeaders) // which each of its packets loses
            QCOMPARE(MediaFiles::packets(fetched.path, "a:0").size(), packets.size());
        else
            QCOMPARE(MediaFiles::packets(fetched.path, "a:0"), packets);
        QVERIFY(rises(MediaFiles::times(fetched.path, "a:0")));
        QCOMPARE(MediaFiles::complaints(fetched.path), QByteArray());
    }

    void aPageInASegmentsPlace_data()
    {
        QTest::addColumn<QString>("options");
        QTest::newRow("in the clear") << QString();
        QTest::newRow("encrypted") << "-hls_key_info_file k.info ";
    }

    /// For once; the segment comes the next time.
    void aPageInASegmentsPlace()
    {
        QFETCH(QString, options);
        Packaged packaged(QString(segmented).replace(QLatin1String("-hls_time"),
                                                     options + QLatin1String("-hls_time")),
                          Packaged::Input::Whole);
        QVERIFY(packaged.isMade);
        int requests = 0;
        packaged.server.on("/s02.ts", [&](const HttpRequest &) {
            HttpReply page = replyOf("<html>busy</html>");
            page.headers = {{"Content-Type", "text/html"}};
            return ++requests == 1 ? page : replyOf(readFile(packaged.path("s02.ts")));
        });
        const Fetched fetched(packaged.server.url("/x.m3u8"));
        QCOMPARE(fetched.outcome, Transfer::Outcome::Succeeded);
        QCOMPARE(fetched.missing, qint64(0));
        QCOMPARE(MediaFiles::frames(fetched.path, "v:0"),
                 MediaFiles::frames(packaged.path("whole.mp4"), "v:0"));
    }

    void whatNeverComesIsMissing()
    {
        Packaged packaged(segmented, Packaged::Input::Whole);
        QVERIFY(packaged.isMade);
        packaged.server.on("/s02.ts", replyOf("", 404));
        const Fetched fetched(packaged.server.url("/x.m3u8"));
        QCOMPARE(fetched.outcome, Transfer::Outcome::Succeeded);
        QCOMPARE(fetched.missing, qint64(1));
        QVERIFY(rises(MediaFiles::times(fetched.path, "v:0")));
    }

    void refusedByTheServer_data()
    {
        QTest::addColumn<QByteArray>("ending"); // of what it does not give
        QTest::addColumn<int>("status");
        QTest::addColumn<RunClass>("runClass");
        QTest::newRow("the master") << QByteArray("m.m3u8") << 403 << RunClass::Refused;
        QTest::newRow("the playlist of the variant")
            << QByteArray("l.m3u8") << 403 << RunClass::Refused;
        QTest::newRow("the key") << QByteArray("k.key") << 403 << RunClass::Refused;
        QTest::newRow("all segments") << QByteArray(".ts") << 403 << RunClass::Refused;
        QTest::newRow("some segments") << QByteArray("2.ts") << 403 << RunClass::Incomplete;
        QTest::newRow("a master that is not there")
            << QByteArray("m.m3u8") << 404 << RunClass::Refused;
        QTest::newRow("it hangs up") << QByteArray("m.m3u8") << 200 << RunClass::BrokenOff;
    }

    void refusedByTheServer()
    {
        QFETCH(QByteArray, ending);
        QFETCH(int, status);
        Packaged packaged(QStringLiteral("-c copy -f hls -hls_time 1 -hls_playlist_type vod "
                                         "-hls_key_info_file k.info -master_pl_name m.m3u8 l.m3u8"),
                          Packaged::Input::Whole);
        QVERIFY(packaged.isMade);
        packaged.server.onOther([&](const HttpRequest &request) {
            const QByteArray path = request.path();
            HttpReply reply = replyOf("no", status);
            reply.cutAfterBytes = status == 200 ? 0 : -1;
            return path.endsWith(ending) ? reply : replyOf(readFile(packaged.path(path.mid(1))));
        });
        const Fetched fetched(packaged.server.url("/m.m3u8"));
        QVERIFY(fetched.hasEnded);
        QTEST(fetched.runClass, "runClass");
    }

    void protectedIsRefused()
    {
        Packaged packaged(QStringLiteral("-c copy -f hls -hls_playlist_type vod l.m3u8"),
                          Packaged::Input::Whole);
        QString text = QString::fromUtf8(readFile(packaged.path("l.m3u8")));
        text.replace(QLatin1String("#EXTINF"),
                     QLatin1String("#EXT-X-KEY:METHOD=SAMPLE-AES,URI=\"k\"\n#EXTINF"));
        packaged.server.on("/l.m3u8", replyOf(text.toUtf8()));
        const Fetched fetched(packaged.server.url("/l.m3u8"));
        QCOMPARE(fetched.outcome, Transfer::Outcome::Failed);
        QVERIFY(fetched.failure == Presentation::Failure::Protected);
        QCOMPARE(packaged.server.requests().size(), 1);
    }
};

CLIPWEIR_TEST_MAIN(tst_HlsTransfer)
#include "tst_hlstransfer.moc"
