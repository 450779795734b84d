#include "DashPresentation.h"
#include "HlsPresentation.h"
#include "MediaFiles.h"
#include "MediaLibrary.h"
#include "MediaWriter.h"
#include "Nginx.h"
#include "Packaged.h"
#include "TestMain.h"
#include "TracksTransfer.h"

#include <QDir>

#include <algorithm>
#include <cmath>
#include <memory>
#include <optional>

namespace {

constexpr int patienceMs = 120 * 1000;
constexpr double frame = 1 / 25.0;

/// A stream that becomes a file.
struct Fetched
{
    /// @param stopAfter the number of segments that it is stopped after; 0 for none
    explicit Fetched(const QUrl &address, qint64 stopAfter = 0)
    {
        MediaServers servers;
        servers.net.stallMs = 20 * 1000;
        const Presentation::Wish wish{address, 0, QString()};
        std::unique_ptr<Presentation> presentation;
        if (address.path().endsWith(QLatin1String(".mpd")))
            presentation = std::make_unique<DashPresentation>(wish, servers);
        else
            presentation = std::make_unique<HlsPresentation>(wish, servers);
        TracksTransfer::Wish target;
        target.target.folder = folder.path();
        target.target.name = QStringLiteral("out");
        TracksTransfer transfer(std::move(presentation), address.toEncoded(), target, servers);
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
        hasEnded = QTest::qWaitFor([&isOver] { return isOver; }, patienceMs);
        path = transfer.path();
        missing = transfer.missingSegments();
        failure = transfer.failure();
    }

    QTemporaryDir folder;
    bool hasEnded = false;
    Transfer::Outcome outcome = Transfer::Outcome::Failed;
    QString path;
    qint64 missing = -1;
    std::optional<Presentation::Failure> failure;
};

bool rises(const QList<double> &times)
{
    return std::adjacent_find(times.cbegin(), times.cend(), std::greater_equal<double>())
        == times.cend();
}

/// The file is what the rendition is: its packets in their order, from 0 on, and no longer.
/// @param picture, sound files of the same packets
/// @param whole what has been packaged
void checkFile(const QString &path, const QString &picture, const QString &sound,
               const QString &whole)
{
    for (const char *const stream : {"v:0", "a:0"}) {
        const auto packets = MediaFiles::packets(*stream == 'v' ? picture : sound, stream);
        QVERIFY(!packets.isEmpty());
        QCOMPARE(MediaFiles::packets(path, stream).size(), packets.size());
        QCOMPARE(MediaFiles::packets(path, stream), packets);
        const QList<double> times = MediaFiles::times(path, stream);
        QCOMPARE(times.size(), packets.size());
        QVERIFY(rises(times));
        const QList<double> shown = MediaFiles::times(path, stream, true);
        const double first = *std::min_element(shown.cbegin(), shown.cend());
        QVERIFY2(std::abs(first) < 2 * frame, QByteArray::number(first));
    }
    QCOMPARE(MediaFiles::complaints(path), QByteArray());
    const double duration = MediaFiles::probe(path, "format=duration").toDouble();
    const double expected = MediaFiles::probe(whole, "format=duration").toDouble();
    QVERIFY2(std::abs(duration - expected) <= frame,
             QByteArray::number(duration) + " in place of " + QByteArray::number(expected));
}

QByteArray words(const char *text)
{
    return QByteArray(text);
}

} // namespace

/// Streams of packagers that are not of this project, in all their kinds, up to the file.
class tst_Packagers : public QObject
{
    Q_OBJECT

    /// The packets of a transport stream, whose form is not the source's, as another reader has
    /// them.
    static QString readByAnother(const Packaged &packaged, const QStringList &input)
    {
        const QString path = packaged.path("other.mp4");
        MediaFiles::ffmpeg(input + QStringList{QStringLiteral("-c"), QStringLiteral("copy"), path},
                           packaged.folder.path());
        return path;
    }

    static QString readPlaylistByAnother(const Packaged &packaged, const QByteArray &playlist)
    {
        return readByAnother(packaged,
                             {QStringLiteral("-allowed_extensions"), QStringLiteral("ALL"),
                              QStringLiteral("-i"), QString::fromLatin1(playlist)});
    }

    /// @param endless the number of segments where the manifest never says that it is over
    static void becomesOneFile(const Packaged &packaged, const QByteArray &manifest, bool isTs,
                               int endless = 0)
    {
        const Fetched fetched(packaged.server.url('/' + manifest), endless);
        QVERIFY(fetched.hasEnded);
        QCOMPARE(fetched.outcome,
                 endless > 0 ? Transfer::Outcome::Canceled : Transfer::Outcome::Succeeded);
        QCOMPARE(fetched.missing, qint64(0));
        const QString whole = packaged.path("whole.mp4");
        QVERIFY(fetched.path.endsWith(QLatin1String("out.mp4")));
        if (isTs)
            QCOMPARE(MediaFiles::frames(fetched.path, "v:0"), MediaFiles::frames(whole, "v:0"));
        checkFile(fetched.path, isTs ? readPlaylistByAnother(packaged, manifest) : whole, whole,
                  whole);
    }

    /// Runs the other packager in the folder. A bar stands for a blank.
    static bool package(const Packaged &packaged, const QByteArray &options)
    {
        QStringList arguments = QString::fromLatin1(options).split(QLatin1Char(' '));
        arguments += QStringLiteral("--segment_duration=1");
        arguments += QStringLiteral("--quiet");
        QProcess process;
        process.setWorkingDirectory(packaged.folder.path());
        process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        process.start(QStringLiteral(PACKAGER), arguments);
        return process.waitForFinished(patienceMs) && process.exitCode() == 0;
    }

    /// It leaves out the last packet of the sound, so what its manifest names tells which ones
    /// there are.
    static void packageWebM(const Packaged &packaged, bool isSingle)
    {
        QVERIFY(packaged.runs(QLatin1String("-i w.webm -c copy -f dash -seg_duration 1 "
                                            "-dash_segment_type webm ")
                              + QLatin1String(isSingle ? "-single_file 1 -use_template 0 " : "")
                              + QLatin1String("m.mpd")));
        const QByteArray manifest = readFile(packaged.path("m.mpd"));
        const auto join = [&](const char *name, const QByteArray &number) {
            const int set = manifest.indexOf("<AdaptationSet id=\"" + number);
            const int range = manifest.lastIndexOf('-', manifest.indexOf("</SegmentList>", set));
            const int end =
                manifest.mid(range + 1, manifest.indexOf('"', range) - range - 1).toInt();
            const QString stream = QLatin1String("-stream") + QString::fromLatin1(number);
            writeFile(
                packaged.path(name),
                isSingle ? readFile(packaged.path("m-stream" + number + ".webm")).left(end + 1)
                         : packaged.filesOf(QLatin1String("init") + stream + QLatin1String("*"))
                        + packaged.filesOf(QLatin1String("chunk") + stream + QLatin1String("*")));
        };
        join("picture.webm", "0");
        join("sound.webm", "1");
    }

private slots:
    void initTestCase() { MediaLibrary::use(MediaWriter::make); }

    void ffmpegHls_data()
    {
        QTest::addColumn<QByteArray>("options");
        QTest::addColumn<QByteArray>("playlist");
        QTest::addColumn<bool>("isTs");
        const auto add = [](const char *name, const char *options, const char *playlist = "l.m3u8",
                            bool isTs = true) {
            QTest::newRow(name) << QByteArray(options) << QByteArray(playlist) << isTs;
        };
        add("transport stream", "-hls_playlist_type vod l.m3u8");
        add("ranges of one file", "-hls_playlist_type vod -hls_flags single_file l.m3u8");
        add("pieces of a size", "-hls_playlist_type vod -hls_segment_size 15000 l.m3u8");
        add("fragmented MP4", "-hls_playlist_type vod -hls_segment_type fmp4 l.m3u8", "l.m3u8",
            false);
        add("ranges of one MP4",
            "-hls_playlist_type vod -hls_segment_type fmp4 -hls_flags single_file l.m3u8", "l.m3u8",
            false);
        add("an event that is over", "-hls_playlist_type event -start_number 90 l.m3u8");
        add("segments that stand alone, with the time of day",
            "-hls_playlist_type vod -hls_flags "
            "independent_segments+program_date_time+round_durations+discont_start l.m3u8");
        add("cut where no key frame is",
            "-hls_time 0.7 -hls_list_size 0 -hls_flags split_by_time "
            "l.m3u8");
        add("encrypted", "-hls_playlist_type vod -hls_key_info_file k.info l.m3u8");
        add("encrypted, IV told", "-hls_playlist_type vod -hls_key_info_file iv.info l.m3u8");
        add("encrypted, the key told anew",
            "-hls_list_size 0 -hls_key_info_file k.info -hls_flags periodic_rekey l.m3u8");
        add("separate sound",
            "-map 0:v -map 0:a -hls_playlist_type vod -master_pl_name m.m3u8 "
            "-var_stream_map v:0,agroup:g|a:0,agroup:g,default:yes l%v.m3u8",
            "m.m3u8");
        add("separate sound, MP4",
            "-map 0:v -map 0:a -hls_playlist_type vod -hls_segment_type fmp4 -master_pl_name "
            "m.m3u8 -hls_fmp4_init_filename i%v.mp4 "
            "-var_stream_map v:0,agroup:g|a:0,agroup:g,default:yes l%v.m3u8",
            "m.m3u8", false);
        add("two sounds to choose from",
            "-map 0:v -map 0:a -map 0:a -hls_playlist_type vod -hls_segment_type fmp4 "
            "-master_pl_name m.m3u8 -hls_fmp4_init_filename i%v.mp4 -var_stream_map "
            "v:0,agroup:g|a:0,agroup:g,language:de,default:yes|a:1,agroup:g,language:en l%v.m3u8",
            "m.m3u8", false);
        add("picture and sound together, twice",
            "-map 0:v -map 0:a -map 0:v -map 0:a -hls_playlist_type vod -master_pl_name m.m3u8 "
            "-var_stream_map v:0,a:0|v:1,a:1 l%v.m3u8",
            "m.m3u8");
    }

    void ffmpegHls()
    {
        QFETCH(QByteArray, options);
        QFETCH(QByteArray, playlist);
        QFETCH(bool, isTs);
        const Packaged packaged(QStringLiteral("-c copy -f hls -hls_time 1 ")
                                    + QString::fromLatin1(options),
                                Packaged::Input::Whole);
        QVERIFY(packaged.isMade);
        becomesOneFile(packaged, playlist, isTs);
    }

    void ffmpegDash_data()
    {
        QTest::addColumn<QByteArray>("options");
        QTest::addColumn<QByteArray>("manifest");
        const auto add = [](const char *name, const char *options, const char *manifest = "m.mpd") {
            QTest::newRow(name) << QByteArray(options) << QByteArray(manifest);
        };
        add("timeline", "-use_template 1 -use_timeline 1 m.mpd");
        add("numbers", "-use_template 1 -use_timeline 0 m.mpd");
        add("list", "-use_template 0 -use_timeline 0 m.mpd");
        add("list with times", "-use_template 0 -use_timeline 1 m.mpd");
        add("ranges of one file", "-single_file 1 -use_template 0 m.mpd");
        add("ranges of one file with an index",
            "-single_file 1 -global_sidx 1 -use_template 0 m.mpd");
        add("in fragments", "-streaming 1 -frag_type duration -frag_duration 0.2 m.mpd");
        add("low latency", "-streaming 1 -ldash 1 -use_timeline 0 m.mpd");
        add("several sets",
            "-map 0:v -map 0:a -map 0:v -map 0:a -adaptation_sets "
            "id=0,streams=0,2|id=1,streams=1|id=2,streams=3 m.mpd");
        add("HLS of it, too", "-hls_playlist 1 m.mpd", "master.m3u8");
    }

    void ffmpegDash()
    {
        QFETCH(QByteArray, options);
        QFETCH(QByteArray, manifest);
        const Packaged packaged(QStringLiteral("-c copy -f dash -seg_duration 1 ")
                                    + QString::fromLatin1(options),
                                Packaged::Input::Whole);
        QVERIFY(packaged.isMade);
        becomesOneFile(packaged, manifest, false);
    }

    void webM_data()
    {
        QTest::addColumn<QByteArray>("options");
        QTest::newRow("an index of cues")
            << words("in=w.webm,stream=audio,output=a.webm in=w.webm,stream=video,output=v.webm "
                     "--mpd_output=m.mpd");
        QTest::newRow("pieces with times")
            << words("in=w.webm,stream=audio,init_segment=ai.webm,segment_template=a-$Time$.webm "
                     "in=w.webm,stream=video,init_segment=vi.webm,segment_template=v-$Time$.webm "
                     "--generate_static_live_mpd --mpd_output=m.mpd");
        QTest::newRow("ffmpeg, pieces") << QByteArray();
        QTest::newRow("ffmpeg, one file each") << QByteArray();
    }

    void webM()
    {
        QFETCH(QByteArray, options);
        const Packaged packaged(
            QStringLiteral("-c:v libvpx-vp9 -g 25 -deadline realtime -cpu-used 8 -c:a libopus "
                           "w.webm"),
            Packaged::Input::Whole);
        QVERIFY(packaged.isMade);
        QString picture = packaged.path("w.webm");
        QString sound = picture;
        if (options.isEmpty()) {
            const bool isSingle = QTest::currentDataTag() != words("ffmpeg, pieces");
            packageWebM(packaged, isSingle);
            picture = packaged.path("picture.webm");
            sound = packaged.path("sound.webm");
        } else {
            QVERIFY2(package(packaged, options), "run scripts/fetch-players.sh");
        }
        const Fetched fetched(packaged.server.url("/m.mpd"));
        QCOMPARE(fetched.outcome, Transfer::Outcome::Succeeded);
        QCOMPARE(fetched.missing, qint64(0));
        QVERIFY(fetched.path.endsWith(QLatin1String("out.webm")));
        checkFile(fetched.path, picture, sound, packaged.path("w.webm"));
    }

    void shaka_data()
    {
        QTest::addColumn<QByteArray>("options");
        QTest::addColumn<QByteArray>("manifest");
        QTest::addColumn<bool>("isTs");
        QTest::addColumn<int>("endless");
        const QByteArray pieces =
            "in=whole.mp4,stream=audio,init_segment=ai.mp4,segment_template=a-$Number$.m4s,"
            "playlist_name=a.m3u8,hls_group_id=g "
            "in=whole.mp4,stream=video,init_segment=vi.mp4,segment_template=v-$Number$.m4s,"
            "playlist_name=v.m3u8 ";
        const QByteArray files =
            "in=whole.mp4,stream=audio,output=a.mp4,playlist_name=a.m3u8,hls_group_id=g "
            "in=whole.mp4,stream=video,output=v.mp4,playlist_name=v.m3u8 ";
        const QByteArray dash = "--mpd_output=m.mpd ";
        const QByteArray hls = "--hls_master_playlist_output=m.m3u8 ";
        const QByteArray live = "--generate_static_live_mpd ";
        QByteArray byTime = pieces;
        byTime.replace("$Number$", "$Time$");
        QTest::newRow("DASH by number") << pieces + live + dash << words("m.mpd") << false << 0;
        QTest::newRow("DASH by time") << byTime + live + dash << words("m.mpd") << false << 0;
        QTest::newRow("DASH, one file each") << files + dash << words("m.mpd") << false << 0;
        QTest::newRow("DASH, a list of ranges")
            << files + "--dash_force_segment_list " + dash << words("m.mpd") << false << 0;
        QTest::newRow("DASH of fragments")
            << pieces + "--fragment_duration=0.2 " + live + dash << words("m.mpd") << false << 0;
        QTest::newRow("HLS by number") << pieces + hls << words("m.m3u8") << false << 0;
        QTest::newRow("HLS by time") << byTime + hls << words("m.m3u8") << false << 0;
        QTest::newRow("HLS, one file each") << files + hls << words("m.m3u8") << false << 0;
        QTest::newRow("HLS, an event")
            << pieces + "--hls_playlist_type=EVENT " + hls << words("m.m3u8") << false << 14;
        QTest::newRow("HLS, transport stream and packed sound")
            << QByteArray("in=whole.mp4,stream=audio,segment_template=a-$Number$.aac,"
                          "playlist_name=a.m3u8,hls_group_id=g "
                          "in=whole.mp4,stream=video,segment_template=v-$Number$.ts,"
                          "playlist_name=v.m3u8 ")
                + hls
            << words("m.m3u8") << true << 0;
        QTest::newRow("HLS, transport streams")
            << QByteArray("in=whole.mp4,stream=audio,segment_template=a-$Number$.ts,"
                          "playlist_name=a.m3u8,hls_group_id=g "
                          "in=whole.mp4,stream=video,segment_template=v-$Number$.ts,"
                          "playlist_name=v.m3u8 ")
                + hls
            << words("m.m3u8") << true << 0;
    }

    void shaka()
    {
        QFETCH(QByteArray, options);
        QFETCH(QByteArray, manifest);
        QFETCH(bool, isTs);
        QFETCH(int, endless);
        const Packaged packaged(QString(), Packaged::Input::Whole);
        QVERIFY(packaged.isMade);
        QVERIFY2(package(packaged, options.trimmed()), "run scripts/fetch-players.sh");
        becomesOneFile(packaged, manifest, isTs, endless);
    }

    void encryptedByShaka_data()
    {
        QTest::addColumn<QByteArray>("scheme");
        QTest::addColumn<QByteArray>("manifest");
        for (const char *const scheme : {"cenc", "cbcs"}) {
            for (const char *const manifest : {"m.mpd", "m.m3u8"})
                QTest::addRow("%s, %s", scheme, manifest)
                    << QByteArray(scheme) << QByteArray(manifest);
        }
    }

    void encryptedByShaka()
    {
        QFETCH(QByteArray, scheme);
        QFETCH(QByteArray, manifest);
        const Packaged packaged(QString(), Packaged::Input::Whole);
        QVERIFY(packaged.isMade);
        QVERIFY(package(
            packaged,
            "in=whole.mp4,stream=video,output=v.mp4,playlist_name=v.m3u8 --clear_lead=0 "
            "--enable_raw_key_encryption --keys=label=:key_id=00000000000000000000000000000001:"
            "key=00000000000000000000000000000002 --mpd_output=m.mpd "
            "--hls_master_playlist_output=m.m3u8 --protection_scheme="
                + scheme));
        const Fetched fetched(packaged.server.url('/' + manifest));
        QCOMPARE(fetched.outcome, Transfer::Outcome::Failed);
        QVERIFY(fetched.failure == Presentation::Failure::Protected);
        QVERIFY(!QFile::exists(fetched.path));
    }

    void ffmpegAtWork_data()
    {
        QTest::addColumn<QByteArray>("options");
        QTest::addColumn<QByteArray>("manifest");
        QTest::addColumn<bool>("isTs");
        QTest::newRow("HLS, a window whose past is deleted")
            << words("-f hls -hls_time 1 -hls_list_size 5 -hls_flags delete_segments l.m3u8")
            << words("l.m3u8") << true;
        QTest::newRow("DASH") << words("-f dash -seg_duration 1 -streaming 1 -window_size 5 "
                                       "-extra_window_size 5 m.mpd")
                              << words("m.mpd") << false;
    }

    /// From the first manifest to the last one, while they are made.
    void ffmpegAtWork()
    {
        QFETCH(QByteArray, options);
        QFETCH(QByteArray, manifest);
        QFETCH(bool, isTs);
        const Packaged packaged(QStringLiteral("-c copy whole.ts"), Packaged::Input::Whole);
        QVERIFY(packaged.isMade);
        QProcess packager;
        packager.setWorkingDirectory(packaged.folder.path());
        packager.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        packager.start(QStringLiteral("ffmpeg"),
                       QString::fromLatin1("-v error -re -i whole.mp4 -c copy " + options)
                           .split(QLatin1Char(' ')));
        QTRY_VERIFY_WITH_TIMEOUT(QFile::exists(packaged.path(manifest)), 30000);
        const Fetched fetched(packaged.server.url('/' + manifest));
        QCOMPARE(fetched.outcome, Transfer::Outcome::Succeeded);
        QCOMPARE(fetched.missing, qint64(0));
        QVERIFY(packaged.server.requestsFor('/' + manifest).size() > 2);
        const QString whole = packaged.path("whole.mp4");
        QCOMPARE(MediaFiles::frames(fetched.path, "v:0"), MediaFiles::frames(whole, "v:0"));
        const QString picture = isTs
            ? readByAnother(packaged, {QStringLiteral("-i"), QStringLiteral("whole.ts")})
            : whole;
        checkFile(fetched.path, picture, whole, whole);
        QTRY_COMPARE(packager.state(), QProcess::NotRunning);
    }

    void nginxRtmp_data()
    {
        QTest::addColumn<QByteArray>("manifest");
        QTest::addColumn<int>("segments");
        QTest::newRow("HLS") << words("hls/s.m3u8") << 6;
        QTest::newRow("DASH") << words("dash/s.mpd") << 14;
    }

    /// The server never says that it is over.
    void nginxRtmp()
    {
        QFETCH(QByteArray, manifest);
        QFETCH(int, segments);
        const Packaged packaged(QString(), Packaged::Input::Whole);
        QVERIFY(packaged.isMade);
        const QByteArray folder = packaged.folder.path().toUtf8();
        Nginx nginx(packaged.folder.path());
        nginx.setOuterText("load_module /usr/lib/nginx/modules/ngx_rtmp_module.so;",
                           "rtmp { access_log off; server { listen 127.0.0.1:%PORT2%;"
                           " application live { live on;"
                           " hls on; hls_path "
                               + folder
                               + "/hls; hls_fragment 1s; hls_playlist_length 60s; hls_cleanup off;"
                                 " dash on; dash_path "
                               + folder
                               + "/dash; dash_fragment 1s; dash_playlist_length 60s;"
                                 " dash_cleanup off; } } }");
        QVERIFY(nginx.start());
        QVERIFY(
            packaged.runs(QStringLiteral("-i whole.mp4 -c copy -f flv rtmp://127.0.0.1:%1/live/s")
                              .arg(nginx.secondPort())));
        QTRY_VERIFY_WITH_TIMEOUT(readFile(packaged.path("dash/s.mpd")).count("<S ") == 12, 30000);
        QTRY_VERIFY_WITH_TIMEOUT(readFile(packaged.path("hls/s.m3u8")).count("#EXTINF") == 6,
                                 30000);
        const Fetched fetched(QUrl(nginx.address(QString::fromLatin1('/' + manifest))), segments);
        QVERIFY(fetched.hasEnded);
        QCOMPARE(fetched.outcome, Transfer::Outcome::Canceled);
        QCOMPARE(fetched.missing, qint64(0));
        const QString whole = packaged.path("whole.mp4");
        QCOMPARE(MediaFiles::frames(fetched.path, "v:0"), MediaFiles::frames(whole, "v:0"));
        if (manifest.endsWith(".mpd")) {
            checkFile(fetched.path, whole, whole, whole);
            return;
        }
        QByteArray all;
        for (int n = 0; n < segments; ++n)
            all += readFile(packaged.path("hls/s-" + QByteArray::number(n) + ".ts"));
        writeFile(packaged.path("all.ts"), all);
        const QString other =
            readByAnother(packaged, {QStringLiteral("-i"), QStringLiteral("all.ts")});
        checkFile(fetched.path, other, other, whole);
    }
};

CLIPWEIR_TEST_MAIN(tst_Packagers)
#include "tst_packagers.moc"
