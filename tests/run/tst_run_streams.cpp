#include "MediaFiles.h"
#include "Packaged.h"
#include "PageRun.h"
#include "TestMain.h"

#include <QCryptographicHash>
#include <QRandomGenerator>

#include <algorithm>
#include <functional>

namespace {

constexpr int kills = 5;

const QString hls = QStringLiteral("-c copy -f hls -hls_time 1 -hls_playlist_type vod ");
const QString fmp4 = QStringLiteral("-hls_segment_type fmp4 ");
const QString plainHls = hls + QLatin1String("-hls_segment_filename s%02d.ts l.m3u8");

/// A page whose script asks for documents, as a player's does, one after the other.
QByteArray pageAskingFor(const QList<QByteArray> &addresses)
{
    QByteArray script = "<body><script>function ask(list) { if (!list.length) return;"
                        "var x = new XMLHttpRequest(); x.open('GET', list[0]);"
                        "x.onloadend = function () { ask(list.slice(1)); }; x.send(); } ask([";
    for (const QByteArray &address : addresses)
        script += "'" + address + "',";
    return script + "'/end']);</script></body>";
}

QStringList arguments(const QString &page, const QStringList &more = {})
{
    return QStringList{option("--url"), page, option("--streams"), option("--events"),
                       option("--strict")}
    + more;
}

QJsonValue result(const ProgramRun &run, const char *name)
{
    return run.events("result").value(0).value(QLatin1String(name));
}

/// The files of the record.
QJsonArray candidatesOf(const ProgramRun &run)
{
    return run.events("record")
        .value(0)
        .value(option("record"))
        .toObject()
        .value(option("fileList"))
        .toArray();
}

/// The only period of a manifest, with how long it lasts in place of where it begins.
QByteArray periodOf(const QByteArray &manifest, int seconds)
{
    const int begin = manifest.indexOf("<Period");
    const int end = manifest.indexOf("</Period>") + 9;
    QByteArray period = manifest.mid(begin, end - begin);
    period.replace(R"(start="PT0.0S")", "duration=\"PT" + QByteArray::number(seconds) + "S\"");
    return period;
}

bool rises(const QList<double> &times)
{
    return std::adjacent_find(times.cbegin(), times.cend(), std::greater_equal<double>())
        == times.cend();
}

QByteArray sumOf(const QString &path)
{
    return QCryptographicHash::hash(readFile(path), QCryptographicHash::Sha256).toHex();
}

/// How many segments the cache holds.
int wholeIn(const QString &cache)
{
    constexpr int nameLength = 64; // of one that has been written to its end
    const QStringList names = QDir(cache).entryList(QDir::Files);
    return static_cast<int>(std::count_if(names.cbegin(), names.cend(), [](const QString &name) {
        return name.size() == nameLength;
    }));
}

/// A window of the segments of plainHls, which last a second each.
QByteArray window(int first, int last)
{
    QByteArray text = "#EXTM3U\n#EXT-X-TARGETDURATION:1\n#EXT-X-MEDIA-SEQUENCE:"
        + QByteArray::number(first) + '\n';
    for (int n = first; n <= last; ++n)
        text += "#EXTINF:1,\ns" + QByteArray::number(n).rightJustified(2, '0') + ".ts\n";
    return text;
}

} // namespace

/// Whole runs with "--streams".
class tst_RunStreams : public QObject
{
    Q_OBJECT

    static QString serve(Packaged &packaged, const QByteArray &html)
    {
        packaged.server.on("/page", htmlReply(html));
        return packaged.server.address("/page");
    }

    static QString outputOf(const ProgramRun &run, const QString &page)
    {
        return run.path(option("tmp/") + pageHash(page) + option(".mp4"));
    }

    /// The file has every packet of the source, in order.
    static void checkFile(const QString &path, const Packaged &packaged)
    {
        const QString source = packaged.path("whole.mp4");
        QCOMPARE(MediaFiles::frames(path, "v:0"), MediaFiles::frames(source, "v:0"));
        QCOMPARE(MediaFiles::packets(path, "a:0"), MediaFiles::packets(source, "a:0"));
        QCOMPARE(MediaFiles::complaints(path), QByteArray());
        QVERIFY(rises(MediaFiles::times(path, "v:0")));
        QVERIFY(rises(MediaFiles::times(path, "a:0")));
    }

private slots:
    void becomesOneFile_data()
    {
        QTest::addColumn<QString>("output"); // what the packager is told
        QTest::addColumn<QByteArray>("manifest");
        const QString separate = QStringLiteral(
            "-map 0:v -map 0:a -master_pl_name m.m3u8 -hls_segment_filename s%v-%02d "
            "-var_stream_map v:0,agroup:g|a:0,agroup:g,default:yes l%v.m3u8");
        QTest::newRow("transport stream") << plainHls << QByteArray("/l.m3u8");
        QTest::newRow("fragmented MP4")
            << hls + fmp4 + QLatin1String("l.m3u8") << QByteArray("/l.m3u8");
        QTest::newRow("encrypted")
            << hls + QLatin1String("-hls_key_info_file k.info l.m3u8") << QByteArray("/l.m3u8");
        QTest::newRow("separate sound") << hls + separate << QByteArray("/m.m3u8");
        QTest::newRow("DASH") << QStringLiteral("-c copy -f dash -seg_duration 2 m.mpd")
                              << QByteArray("/m.mpd");
    }

    void becomesOneFile()
    {
        QFETCH(QString, output);
        QFETCH(QByteArray, manifest);
        Packaged packaged(output, Packaged::Input::Whole);
        QVERIFY(packaged.isMade);
        const QString page = serve(packaged, pageAskingFor({manifest}));
        ProgramRun run;
        QVERIFY(run.run(arguments(page)));
        QCOMPARE(result(run, "class").toString(), option("complete"));
        QCOMPARE(run.exitCode(), 0);
        const QString path = outputOf(run, page);
        QCOMPARE(result(run, "path").toString(), path);
        checkFile(path, packaged);
        QCOMPARE(result(run, "sha256").toString().toLatin1(), sumOf(path));
        const QString address = packaged.server.address(manifest);
        QCOMPARE(run.events("candidate").value(0).value(option("url")).toString(), address);
        QVERIFY(run.errorOutput().startsWith(parsingLine(page)));
        QVERIFY(run.errorOutput().contains("\"videoUrl\":\"" + address.toUtf8() + '"'));
        QVERIFY(run.errorOutput().contains(fixedLine("start download video ...")));
        const QByteArray bytes = QByteArray::number(QFileInfo(path).size());
        QVERIFY(run.errorOutput().endsWith(composedLine("downloaded:" + bytes + '/' + bytes)
                                           + fixedLine("video download finished:success")
                                           + fixedLine("detach sharememory")));
    }

    /// What a player fetches of a stream is none of the candidates, however it is called.
    void piecesAreNoCandidates()
    {
        Packaged packaged(hls + fmp4
                              + QLatin1String("-master_pl_name m.m3u8 -hls_segment_filename "
                                              "s%02d.mp4 l.m3u8"),
                          Packaged::Input::Whole);
        QVERIFY(packaged.isMade);
        const QString page = serve(
            packaged, pageAskingFor({"/m.m3u8", "/l.m3u8", "/init.mp4", "/s00.mp4", "/s01.mp4"}));
        ProgramRun run;
        QVERIFY(run.run(arguments(page)));
        QCOMPARE(run.exitCode(), 0);
        const QJsonArray candidates = candidatesOf(run);
        QCOMPARE(candidates.size(), 1);
        const QJsonObject stream = candidates.at(0).toObject();
        QCOMPARE(stream.value(option("videoUrl")).toString(), packaged.server.address("/m.m3u8"));
        QCOMPARE(stream.value(option("urlType")).toString(), option("hls"));
        QCOMPARE(stream.value(option("width")).toInt(), 64);
        QCOMPARE(stream.value(option("height")).toInt(), 48);
        QCOMPARE(stream.value(option("strFormat")).toString(), option("mp4"));
        QVERIFY(stream.value(option("nSize")).toInt() > 1000);
        checkFile(outputOf(run, page), packaged);
    }

    void namedInThePage_data()
    {
        QTest::addColumn<QByteArray>("html");
        QTest::newRow("JSON") << QByteArray(
            "<script>var options = {\"file\": \"http:\\/\\/HOST\\/l.m3u8?a=1\\u0026b=2\"};"
            "</script>");
        QTest::newRow("an attribute")
            << QByteArray("<div data-options='{\"src\": \"/l.m3u8?a=1&amp;b=2\"}'></div>");
    }

    void namedInThePage()
    {
        QFETCH(QByteArray, html);
        Packaged packaged(plainHls, Packaged::Input::Whole);
        QVERIFY(packaged.isMade);
        html.replace("HOST", "127.0.0.1:" + QByteArray::number(packaged.server.port()));
        const QString page = serve(packaged, html);
        ProgramRun run;
        QVERIFY(run.run(arguments(page)));
        QCOMPARE(run.exitCode(), 0);
        QCOMPARE(candidatesOf(run).at(0).toObject().value(option("videoUrl")).toString(),
                 packaged.server.address("/l.m3u8?a=1&b=2"));
        checkFile(outputOf(run, page), packaged);
    }

    /// The name alone makes no stream.
    void whatOnlyLooksLikeOne()
    {
        Packaged packaged(plainHls, Packaged::Input::Whole);
        QVERIFY(packaged.isMade);
        packaged.server.on("/x.m3u8", htmlReply("<html>no playlist</html>"));
        packaged.server.on("/x.mpd", mediaReply("<a><MPD/></a>", "application/dash+xml"));
        const QString page = serve(packaged, pageAskingFor({"/x.m3u8", "/x.mpd", "/none.m3u8"}));
        ProgramRun run;
        QVERIFY(run.run(arguments(page, {option("--timeout"), option("3")})));
        QCOMPARE(result(run, "class").toString(), option("nothingFound"));
        QCOMPARE(run.exitCode(), 31);
    }

    /// Servers are asked as the page asks them.
    void asksLikeThePage()
    {
        Packaged packaged(plainHls, Packaged::Input::Whole);
        QVERIFY(packaged.isMade);
        HttpReply reply = htmlReply(pageAskingFor({"/l.m3u8"}));
        reply.headers += qMakePair(QByteArray("Set-Cookie"), QByteArray("pass=1"));
        packaged.server.on("/page", reply);
        const QString page = packaged.server.address("/page");
        ProgramRun run;
        QVERIFY(run.run(arguments(page)));
        QCOMPARE(run.exitCode(), 0);
        const auto requests =
            packaged.server.requestsFor("/l.m3u8") + packaged.server.requestsFor("/s03.ts");
        QVERIFY(requests.size() > 2);
        for (const HttpRequest &request : requests) {
            QCOMPARE(request.header("Referer"), page.toLatin1());
            QCOMPARE(request.header("Cookie"), QByteArray("pass=1"));
        }
    }

    void quality_data()
    {
        QTest::addColumn<QByteArray>("quality");
        QTest::addColumn<int>("height");
        QTest::newRow("none: the highest") << QByteArray() << 96;
        QTest::newRow("the lower one") << QByteArray("40") << 48;
        QTest::newRow("the nearest one") << QByteArray("80") << 96;
    }

    void quality()
    {
        QFETCH(QByteArray, quality);
        QFETCH(int, height);
        Packaged packaged(plainHls, Packaged::Input::Whole);
        QVERIFY(packaged.isMade);
        QVERIFY(packaged.runs(QStringLiteral("-i whole.mp4 -vf scale=128:96 -c:v libx264 -g 25 "
                                             "-c:a copy -f hls -hls_time 1 -hls_playlist_type vod "
                                             "big.m3u8")));
        packaged.server.on(
            "/m.m3u8",
            mediaReply("#EXTM3U\n#EXT-X-STREAM-INF:BANDWIDTH=100000,RESOLUTION=64x48\nl.m3u8\n"
                       "#EXT-X-STREAM-INF:BANDWIDTH=300000,RESOLUTION=128x96\nbig.m3u8\n",
                       "application/x-mpegURL; charset=utf-8"));
        const QString page = serve(packaged, pageAskingFor({"/m.m3u8"}));
        ProgramRun run;
        QStringList more;
        if (!quality.isEmpty())
            more = QStringList{option("--quality"), QString::fromLatin1(quality)};
        QVERIFY(run.run(arguments(page, more)));
        QCOMPARE(run.exitCode(), 0);
        QCOMPARE(candidatesOf(run).at(0).toObject().value(option("height")).toInt(), height);
        QCOMPARE(MediaFiles::probe(outputOf(run, page), "stream=height").trimmed(),
                 QByteArray::number(height));
    }

    void language_data()
    {
        QTest::addColumn<QByteArray>("language");
        QTest::addColumn<QByteArray>("source");
        QTest::newRow("none: the default one") << QByteArray() << QByteArray("de.mp4");
        QTest::newRow("the other one") << QByteArray("fr") << QByteArray("fr.mp4");
    }

    void language()
    {
        QFETCH(QByteArray, language);
        QFETCH(QByteArray, source);
        Packaged packaged(hls + QLatin1String("-an l.m3u8"), Packaged::Input::Whole);
        QVERIFY(packaged.isMade);
        for (const char *const name : {"de", "fr"}) {
            const QString file = option(name);
            const QString tone = file == option("de") ? option("300") : option("500");
            QVERIFY(packaged.runs(QStringLiteral("-f lavfi -i sine=frequency=%1 -t 6 -c:a aac %2")
                                      .arg(tone, file + option(".mp4"))));
            QVERIFY(packaged.runs(QStringLiteral("-i %1.mp4 ").arg(file) + hls + file
                                  + option(".m3u8")));
        }
        packaged.server.on(
            "/m.m3u8",
            mediaReply("#EXTM3U\n#EXT-X-MEDIA:TYPE=AUDIO,GROUP-ID=\"a\",NAME=\"D\",LANGUAGE=\"de\","
                       "DEFAULT=YES,URI=\"de.m3u8\"\n"
                       "#EXT-X-MEDIA:TYPE=AUDIO,GROUP-ID=\"a\",NAME=\"F\",LANGUAGE=\"fr\","
                       "URI=\"fr.m3u8\"\n"
                       "#EXT-X-STREAM-INF:BANDWIDTH=100000,AUDIO=\"a\"\nl.m3u8\n",
                       "audio/mpegurl"));
        const QString page = serve(packaged, pageAskingFor({"/m.m3u8"}));
        ProgramRun run;
        QStringList more;
        if (!language.isEmpty())
            more = QStringList{option("--language"), QString::fromLatin1(language)};
        QVERIFY(run.run(arguments(page, more)));
        QCOMPARE(run.exitCode(), 0);
        QCOMPARE(MediaFiles::packets(outputOf(run, page), "a:0"),
                 MediaFiles::packets(packaged.path(source), "a:0"));
    }

    void besideAFile_data()
    {
        QTest::addColumn<int>("bandwidth"); // the stream lasts 6 seconds
        QTest::addColumn<bool>("isFileChosen");
        QTest::newRow("a larger one") << 1000000 << true;
        QTest::newRow("a smaller one") << 90000000 << false;
    }

    /// By the size that the manifest lets expect.
    void besideAFile()
    {
        QFETCH(int, bandwidth);
        QFETCH(bool, isFileChosen);
        Packaged packaged(plainHls, Packaged::Input::Whole);
        QVERIFY(packaged.isMade);
        const QByteArray video = testBytes(6 * 1024 * 1024);
        packaged.server.on("/m.m3u8",
                           mediaReply("#EXTM3U\n#EXT-X-STREAM-INF:BANDWIDTH="
                                          + QByteArray::number(bandwidth) + "\nl.m3u8\n",
                                      "application/x-mpegURL"));
        packaged.server.serve("/v.mp4", video, "video/mp4");
        const QString page =
            serve(packaged, pageAskingFor({"/m.m3u8"}) + "<video src=/v.mp4></video>");
        ProgramRun run;
        QVERIFY(run.run(arguments(page)));
        QCOMPARE(run.exitCode(), 0);
        QCOMPARE(candidatesOf(run).size(), 2);
        if (isFileChosen)
            QVERIFY(readFile(outputOf(run, page)) == video);
        else
            checkFile(outputOf(run, page), packaged);
    }

    void liveUntilItsEnd()
    {
        Packaged packaged(plainHls, Packaged::Input::Whole);
        QVERIFY(packaged.isMade);
        int windows = 0; // since the segments of the first one have been asked for
        packaged.server.on("/l.m3u8", [&](const HttpRequest &) {
            windows += packaged.server.requestsFor("/s01.ts").isEmpty() ? 0 : 1;
            return mediaReply(windows == 0       ? window(0, 1)
                                  : windows == 1 ? window(1, 3)
                                                 : window(3, 5) + "#EXT-X-ENDLIST\n",
                              "application/vnd.apple.mpegurl");
        });
        const QString page = serve(packaged, pageAskingFor({"/l.m3u8"}));
        ProgramRun run;
        QVERIFY(run.run(arguments(page)));
        QCOMPARE(result(run, "class").toString(), option("complete"));
        QVERIFY(run.errorOutput().contains("/0\" \n"));
        checkFile(outputOf(run, page), packaged);
    }

    void liveUntilAStop_data()
    {
        QTest::addColumn<bool>("hasDeadline");
        QTest::newRow("asked for") << false;
        QTest::newRow("by the deadline") << true;
    }

    /// The file is finished with what has come.
    void liveUntilAStop()
    {
        QFETCH(bool, hasDeadline);
        Packaged packaged(plainHls, Packaged::Input::Whole);
        QVERIFY(packaged.isMade);
        packaged.server.on("/l.m3u8", mediaReply(window(0, 3), "application/vnd.apple.mpegurl"));
        const QString page = serve(packaged, pageAskingFor({"/l.m3u8"}));
        ProgramRun run;
        QStringList more;
        if (hasDeadline)
            more = QStringList{option("--deadline"), option("8")};
        run.start(arguments(page, more));
        QVERIFY(run.waitForOutput("\"downloaded:4/0\""));
        if (!hasDeadline)
            QVERIFY(askToExit(page));
        QVERIFY(run.waitForEnd());
        QVERIFY(run.endedNormally());
        QCOMPARE(result(run, "class").toString(), option(hasDeadline ? "deadline" : "stopped"));
        QCOMPARE(run.exitCode(), hasDeadline ? 41 : 40);
        const QString path = outputOf(run, page);
        QCOMPARE(result(run, "path").toString(), path);
        QCOMPARE(MediaFiles::complaints(path), QByteArray());
        const auto all = MediaFiles::frames(packaged.path("whole.mp4"), "v:0");
        const auto came = MediaFiles::frames(path, "v:0");
        QVERIFY(came.size() >= 75 && came.size() < all.size());
        QCOMPARE(came, all.mid(0, came.size()));
    }

    void protectedOnes_data()
    {
        QTest::addColumn<QByteArray>("address");
        QTest::addColumn<QByteArray>("text");
        QTest::newRow("HLS") << QByteArray("/p.m3u8")
                             << QByteArray("#EXTM3U\n#EXT-X-TARGETDURATION:1\n#EXT-X-KEY:"
                                           "METHOD=SAMPLE-AES,URI=\"skd://1\",KEYFORMAT="
                                           "\"com.apple.streamingkeydelivery\"\n#EXTINF:1,\n"
                                           "s00.ts\n#EXT-X-ENDLIST\n");
        QTest::newRow("DASH")
            << QByteArray("/p.mpd")
            << QByteArray(
                   "<MPD xmlns='urn:mpeg:dash:schema:mpd:2011' type='static' "
                   "mediaPresentationDuration='PT2S'><Period><AdaptationSet mimeType='video/mp4'>"
                   "<ContentProtection schemeIdUri='urn:mpeg:dash:mp4protection:2011' "
                   "value='cenc'/><SegmentTemplate media='$Number$.mp4' initialization='i.mp4' "
                   "duration='1'/><Representation id='1' bandwidth='1000' codecs='avc1.42e01e'/>"
                   "</AdaptationSet></Period></MPD>");
    }

    void protectedOnes()
    {
        QFETCH(QByteArray, address);
        QFETCH(QByteArray, text);
        Packaged packaged(plainHls, Packaged::Input::Whole);
        QVERIFY(packaged.isMade);
        packaged.server.on(address, mediaReply(text, Packaged::typeOf(address)));
        const QString page = serve(packaged, pageAskingFor({address}));
        ProgramRun run;
        QVERIFY(run.run(arguments(page, {option("--timeout"), option("3")})));
        QCOMPARE(result(run, "class").toString(), option("protected"));
        QCOMPARE(run.exitCode(), 36);
        QVERIFY(run.errorOutput().contains("\nstream refused: \""));
        QVERIFY(run.errorOutput().contains(fixedLine("video download finished:failed")));
        QCOMPARE(run.events("streamRefused").value(0).value(option("cause")).toString(),
                 option("protected"));
        QVERIFY(!QFile::exists(outputOf(run, page)));
        QVERIFY(packaged.server.requestsFor("/s00.ts").isEmpty());
    }

    /// There is a file of the rest, which is no success for a strict caller.
    void aMissingSegment()
    {
        Packaged packaged(plainHls, Packaged::Input::Whole);
        QVERIFY(packaged.isMade);
        packaged.server.on("/s02.ts", replyOf("", 404));
        const QString page = serve(packaged, pageAskingFor({"/l.m3u8"}));
        ProgramRun run;
        QVERIFY(run.run(arguments(page, {option("--stall"), option("2")})));
        QCOMPARE(result(run, "class").toString(), option("incomplete"));
        QCOMPARE(run.exitCode(), 35);
        QVERIFY(run.errorOutput().contains(fixedLine("video download finished:failed")));
        QCOMPARE(run.events("partsMissing").value(0).value(option("missing")).toInt(), 1);
        const QString path = outputOf(run, page);
        QVERIFY(rises(MediaFiles::times(path, "v:0")));
        QCOMPARE(MediaFiles::packets(path, "v:0").size(),
                 MediaFiles::packets(packaged.path("whole.mp4"), "v:0").size() - 25);
    }

    void soundOfAnotherFormat_data()
    {
        QTest::addColumn<bool>("hasPicture");
        QTest::newRow("beside a picture, which goes on") << true;
        QTest::newRow("alone, which is the end") << false;
    }

    /// Behind a discontinuity, where the rate is another one, and back again.
    void soundOfAnotherFormat()
    {
        QFETCH(bool, hasPicture);
        const QString kinds = hasPicture ? QString() : QStringLiteral("-vn ");
        Packaged packaged(hls + kinds + QLatin1String("-hls_segment_filename s%02d.ts l.m3u8"),
                          Packaged::Input::Whole);
        QVERIFY(packaged.isMade);
        QVERIFY(packaged.runs(QLatin1String("-i whole.mp4 ") + kinds
                              + QLatin1String("-c:v copy -ar 22050 -c:a aac -t 2 other.ts")));
        packaged.server.on(
            "/x.m3u8",
            mediaReply("#EXTM3U\n#EXT-X-TARGETDURATION:2\n#EXTINF:1,\ns00.ts\n#EXTINF:1,\ns01.ts\n"
                       "#EXT-X-DISCONTINUITY\n#EXTINF:2,\nother.ts\n#EXT-X-DISCONTINUITY\n"
                       "#EXTINF:1,\ns02.ts\n#EXTINF:1,\ns03.ts\n#EXT-X-ENDLIST\n",
                       "application/vnd.apple.mpegurl"));
        const QString page = serve(packaged, pageAskingFor({"/x.m3u8"}));
        ProgramRun run;
        QVERIFY(run.run(arguments(page, {option("--log")})));
        QCOMPARE(result(run, "class").toString(), option("incomplete"));
        QCOMPARE(run.exitCode(), 35);
        QVERIFY(run.errorOutput().contains(fixedLine("video download finished:failed")));
        const QByteArray log =
            readFile(run.path(option("tmp/logs/") + pageHash(page) + option(".log")));
        QVERIFY(log.contains("the sound changes its format"));
        const QString path = outputOf(run, page);
        QCOMPARE(result(run, "path").toString(), path);
        QCOMPARE(MediaFiles::complaints(path), QByteArray());
        const QList<double> sounds = MediaFiles::times(path, "a:0");
        QVERIFY(rises(sounds));
        if (hasPicture) {
            const int other = MediaFiles::packets(packaged.path("other.ts"), "v:0").size();
            QCOMPARE(MediaFiles::packets(path, "v:0").size(), 4 * 25 + other);
            QVERIFY(sounds.constLast() > 5.8);
        } else {
            QVERIFY(sounds.constLast() > 1.8 && sounds.constLast() < 2.2);
        }
    }

    /// In a period of its own, whose picture goes on, and the first one's once more.
    void soundOfAnotherFormatInAPeriod()
    {
        const QString dash = QStringLiteral("-seg_duration 1 -f dash ");
        Packaged packaged(QLatin1String("-c copy ") + dash + QLatin1String("m.mpd"),
                          Packaged::Input::Whole);
        QVERIFY(packaged.isMade);
        QVERIFY(packaged.runs(
            QStringLiteral("-i whole.mp4 -c:v copy -ar 22050 -c:a aac -t 2 other.mp4")));
        QVERIFY(
            packaged.runs(QLatin1String("-i other.mp4 -c copy ") + dash
                          + QLatin1String("-init_seg_name o$RepresentationID$.m4s -media_seg_name "
                                          "o$RepresentationID$-$Number$.m4s o.mpd")));
        const QByteArray whole = periodOf(readFile(packaged.path("m.mpd")), 6);
        packaged.server.serve("/p.mpd",
                              R"(<MPD xmlns="urn:mpeg:dash:schema:mpd:2011" type="static">)" + whole
                                  + periodOf(readFile(packaged.path("o.mpd")), 2) + whole
                                  + "</MPD>",
                              "application/dash+xml");
        const QString page = serve(packaged, pageAskingFor({"/p.mpd"}));
        ProgramRun run;
        QVERIFY(run.run(arguments(page, {option("--log")})));
        QCOMPARE(result(run, "class").toString(), option("incomplete"));
        QCOMPARE(run.exitCode(), 35);
        QVERIFY(run.errorOutput().contains(fixedLine("video download finished:failed")));
        const QByteArray log =
            readFile(run.path(option("tmp/logs/") + pageHash(page) + option(".log")));
        QVERIFY(log.contains("the sound changes its format"));
        const QString path = outputOf(run, page);
        QCOMPARE(MediaFiles::complaints(path), QByteArray());
        QVERIFY(rises(MediaFiles::times(path, "v:0")));
        const int other = MediaFiles::packets(packaged.path("other.mp4"), "v:0").size();
        QCOMPARE(MediaFiles::packets(path, "v:0").size(), 150 + other + 150);
        const QList<double> sounds = MediaFiles::times(path, "a:0");
        QVERIFY(rises(sounds));
        QVERIFY(sounds.constLast() > 13.8);
        QVERIFY(std::none_of(sounds.cbegin(), sounds.cend(),
                             [](double time) { return time > 6.2 && time < 7.8; }));
    }

    void beginningOnly_data()
    {
        QTest::addColumn<QString>("output");
        QTest::addColumn<QByteArray>("manifest");
        QTest::newRow("HLS") << plainHls << QByteArray("/l.m3u8");
        QTest::newRow("DASH") << QStringLiteral("-c copy -f dash -seg_duration 1 m.mpd")
                              << QByteArray("/m.mpd");
    }

    void beginningOnly()
    {
        QFETCH(QString, output);
        QFETCH(QByteArray, manifest);
        Packaged packaged(output, Packaged::Input::Whole);
        QVERIFY(packaged.isMade);
        const QString page = serve(packaged, pageAskingFor({manifest}));
        ProgramRun run;
        QVERIFY(run.run(arguments(page, {option("--partial")})));
        QCOMPARE(result(run, "class").toString(), option("stopped"));
        QCOMPARE(run.exitCode(), 40);
        QVERIFY(run.errorOutput().contains(fixedLine("video download finished:failed")));
        const QString path = outputOf(run, page);
        QCOMPARE(result(run, "path").toString(), path);
        QVERIFY(QFileInfo(path).size() > 10240);
        QCOMPARE(MediaFiles::complaints(path), QByteArray());
        const auto whole = MediaFiles::frames(packaged.path("whole.mp4"), "v:0");
        const auto came = MediaFiles::frames(path, "v:0");
        QVERIFY(came.size() >= 25 && came.size() <= 75);
        QCOMPARE(came, whole.mid(0, came.size()));
        for (const char *const late : {"/s04.ts", "/s05.ts", "/chunk-stream0-00005.m4s"})
            QVERIFY(packaged.server.requestsFor(late).isEmpty());
    }

    void refused_data()
    {
        QTest::addColumn<QString>("output");
        QTest::addColumn<QByteArray>("manifest");
        QTest::addColumn<QByteArray>("pattern"); // of what the server does not give
        const QString dash = QStringLiteral("-c copy -f dash -seg_duration 2 m.mpd");
        const QString master = hls + QLatin1String("-master_pl_name m.m3u8 l.m3u8");
        QTest::newRow("HLS, the master")
            << master << QByteArray("/m.m3u8") << QByteArray("/m.m3u8");
        QTest::newRow("HLS, the key") << hls + QLatin1String("-hls_key_info_file k.info l.m3u8")
                                      << QByteArray("/l.m3u8") << QByteArray("/k.key");
        QTest::newRow("DASH, the manifest") << dash << QByteArray("/m.mpd") << QByteArray("/m.mpd");
    }

    void refused()
    {
        QFETCH(QString, output);
        QFETCH(QByteArray, manifest);
        QFETCH(QByteArray, pattern);
        Packaged packaged(output, Packaged::Input::Whole);
        QVERIFY(packaged.isMade);
        const QString page = serve(packaged, pageAskingFor({manifest}));
        packaged.server.onOther([&](const HttpRequest &request) {
            const QByteArray path = request.path();
            return path.endsWith(pattern)
                ? replyOf("<p>no</p>", 403)
                : mediaReply(readFile(packaged.path(path.mid(1))), Packaged::typeOf(path));
        });
        ProgramRun run;
        QVERIFY(run.run(
            arguments(page, {option("--timeout"), option("6"), option("--stall"), option("1")})));
        QCOMPARE(result(run, "class").toString(), option("refused"));
        QCOMPARE(run.exitCode(), 33);
        QVERIFY(run.errorOutput().contains(fixedLine("video download finished:failed")));
        QVERIFY(!QFile::exists(outputOf(run, page)));
    }

    void theCallersName()
    {
        Packaged packaged(plainHls, Packaged::Input::Whole);
        QVERIFY(packaged.isMade);
        const QString page = serve(packaged, pageAskingFor({"/l.m3u8"}));
        ProgramRun run;
        const QString path = run.path(option("named.video"));
        QVERIFY(run.run(arguments(page, {option("--saveto"), path})));
        QCOMPARE(run.exitCode(), 0);
        QCOMPARE(result(run, "path").toString(), path);
        checkFile(path, packaged);
    }

    /// The part of the program that writes streams lies beside it.
    void aPartOfTheProgramIsMissing()
    {
        Packaged packaged(plainHls, Packaged::Input::Whole);
        QVERIFY(packaged.isMade);
        const QString page = serve(packaged, pageAskingFor({"/l.m3u8"}));
        ProgramRun run;
        const QFileInfo whole(ProgramRun::program());
        const QStringList files = whole.dir().entryList({whole.fileName(), option("*program*")});
        QCOMPARE(files.size(), 2);
        for (const QString &file : files)
            QVERIFY(QFile::copy(whole.dir().filePath(file), run.path(file)));
        run.startOther(run.path(whole.fileName()), arguments(page));
        QVERIFY(run.waitForEnd());
        QCOMPARE(run.exitCode(), 39); // "unsupported"
        QVERIFY(run.errorOutput().endsWith(fixedLine("video download finished:failed")
                                           + fixedLine("detach sharememory")));
        QVERIFY(!QFile::exists(outputOf(run, page)));
    }

    /// Runs that are killed leave what they have fetched to the next one, and nothing else that
    /// would show in the file.
    void killed()
    {
        Packaged packaged(plainHls, Packaged::Input::Whole);
        QVERIFY(packaged.isMade);
        const QString page = serve(packaged, pageAskingFor({"/l.m3u8"}));
        ProgramRun whole;
        QVERIFY(whole.run(arguments(page)));
        const QByteArray expected = readFile(outputOf(whole, page));
        QVERIFY(!expected.isEmpty());
        for (int n = 0; n < 6; ++n) {
            const QByteArray name = "/s0" + QByteArray::number(n) + ".ts";
            HttpReply reply = mediaReply(readFile(packaged.path(name.mid(1))), "video/mp2t");
            reply.pieceBytes = reply.body.size() / 4 + 1;
            reply.pieceDelayMs = 60;
            packaged.server.on(name, reply);
        }
        QRandomGenerator random(7);
        const QStringList all =
            arguments(page, {option("--continue"), option("--connections"), option("2")});
        ProgramRun run;
        for (int i = 0; i < kills; ++i) {
            run.start(all);
            QVERIFY(run.waitForOutput("start download video"));
            QTest::qWait(static_cast<int>(random.bounded(500)));
            run.process().kill();
            (void)run.waitForEnd(); // its events break off
        }
        // On a busy machine one of them may have come to its end, which leaves nothing: the next
        // one cannot.
        const QString cache = run.path(option("tmp/streamtmp"));
        HttpReply last = mediaReply(readFile(packaged.path("s05.ts")), "video/mp2t");
        last.holdAfterBytes = 0;
        packaged.server.on("/s05.ts", last);
        run.start(all);
        QTRY_VERIFY_WITH_TIMEOUT(wholeIn(cache) >= 2, 30000);
        run.process().kill();
        (void)run.waitForEnd();
        packaged.server.serve("/s05.ts", last.body, "video/mp2t");
        packaged.server.clearRequests();
        QVERIFY(run.run(all));
        QCOMPARE(run.exitCode(), 0);
        QVERIFY(readFile(outputOf(run, page)) == expected);
        int asked = 0;
        for (int n = 0; n < 6; ++n)
            asked += packaged.server.requestsFor("/s0" + QByteArray::number(n) + ".ts").size();
        QVERIFY(asked < 6);
    }
};

CLIPWEIR_TEST_MAIN(tst_RunStreams)
#include "tst_run_streams.moc"
