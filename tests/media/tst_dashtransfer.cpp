#include "CookieStore.h"
#include "DashPresentation.h"
#include "MediaFiles.h"
#include "MediaLibrary.h"
#include "MediaWriter.h"
#include "MessageCatcher.h"
#include "Nginx.h"
#include "ScriptedServer.h"
#include "TestFiles.h"
#include "TestMain.h"
#include "TrackSource.h"
#include "TracksTransfer.h"

#include <QDir>
#include <QFileInfo>
#include <QSignalSpy>
#include <QTemporaryDir>

#include <algorithm>
#include <cmath>
#include <memory>

namespace {

constexpr int patienceMs = 60 * 1000;
constexpr int seconds = 8;

QStringList words(const char *text)
{
    return QString::fromLatin1(text).split(QLatin1Char(' '));
}

/// One transfer, from a manifest to a file in a folder of its own.
class Run final
{
public:
    explicit Run(const QString &address, const Presentation::Wish &wish = {})
    {
        Presentation::Wish full = wish;
        full.address = QUrl(address);
        servers.net.stallMs = 3000;
        auto made = std::make_unique<DashPresentation>(full, servers);
        presentation = made.get();
        TracksTransfer::Wish tracks;
        tracks.target = {folder.path(), QStringLiteral("out"), true};
        tracks.cacheFolder = folder.filePath(QStringLiteral("cache"));
        transfer =
            std::make_unique<TracksTransfer>(std::move(made), address.toUtf8(), tracks, servers);
        QObject::connect(transfer.get(), &Transfer::ended, transfer.get(),
                         [this](Transfer::Outcome outcome) { ended += outcome; });
    }

    /// Fetches, and returns how that has ended.
    Transfer::Outcome fetch()
    {
        transfer->start();
        return wait();
    }

    Transfer::Outcome wait()
    {
        const bool hasEnded = QTest::qWaitFor([this] { return !ended.isEmpty(); }, patienceMs);
        return hasEnded ? ended.constFirst() : Transfer::Outcome::Canceled;
    }

    QTemporaryDir folder;
    MediaServers servers;
    DashPresentation *presentation = nullptr;
    std::unique_ptr<TracksTransfer> transfer;
    QList<Transfer::Outcome> ended;
};

} // namespace

class tst_DashTransfer : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void fetchesWhatPackagersMake_data();
    void fetchesWhatPackagersMake();
    void fetchesFromNginx();
    void choosesByHeightAndLanguage();
    void takesTheLastOneMissingForTheEnd();
    void leavesOutWhatLiesBeyondTheEnd();
    void tellsOfAMissingSegment();
    void asksAnotherBase();
    void asksAgainForWhatCameWrong();
    void cutsRangesOutOfWholeFiles();
    void fetchesWhatAnIndexNames();
    void takesBasesFromWhereTheAnswerCame();
    void joinsPeriods();
    void beginsWithAPeriodThatLacksSomething_data();
    void beginsWithAPeriodThatLacksSomething();
    void asksForNothingThatIsThere();
    void followsALivePresentation();
    void finishesTheFileWhenItIsStopped();
    void makesAFileOfTheLittleThatCame();
    void saysWhyItCannot_data();
    void saysWhyItCannot();
    void opensNoFileOfThisMachine();

private:
    void serve(ScriptedServer &server, const QString &folder);
    void checkFile(const QString &path, const QString &source);
    [[nodiscard]] QByteArray bytes(const QString &name) const
    {
        return readFile(m_folder.filePath(name));
    }

    QTemporaryDir m_folder;
};

void tst_DashTransfer::initTestCase()
{
    MediaLibrary::use(MediaWriter::make);
    QVERIFY(m_folder.isValid());
    const QString folder = m_folder.path();
    MediaFiles::ffmpeg(MediaFiles::testInputs(seconds, QStringLiteral("320x180"))
                           + MediaFiles::usualCodecs() + words("source.mp4"),
                       folder);
    const auto package = [&folder](const char *name, const char *options) {
        QVERIFY(QDir(folder).mkpath(QString::fromLatin1(name)));
        MediaFiles::ffmpeg(words("-i ../source.mp4 -c copy -f dash -seg_duration 2")
                               + words(options) + words("m.mpd"),
                           folder + QLatin1Char('/') + QString::fromLatin1(name));
    };
    package("timeline", "-use_template 1 -use_timeline 1");
    package("numbers", "-use_template 1 -use_timeline 0");
    package("list", "-use_template 0 -use_timeline 0");
    package("single", "-single_file 1 -use_template 0");
}

void tst_DashTransfer::serve(ScriptedServer &server, const QString &folder)
{
    for (const QString &name : filesBelow(folder)) {
        const QByteArray type =
            name.endsWith(QLatin1String(".mpd")) ? "application/dash+xml" : "video/mp4";
        server.serve('/' + name.toUtf8(), readFile(folder + QLatin1Char('/') + name), type);
    }
}

void tst_DashTransfer::checkFile(const QString &path, const QString &source)
{
    QVERIFY(QFileInfo::exists(path));
    QCOMPARE(MediaFiles::packets(path, "v:0"), MediaFiles::packets(source, "v:0"));
    QCOMPARE(MediaFiles::packets(path, "a:0"), MediaFiles::packets(source, "a:0"));
    QCOMPARE(MediaFiles::complaints(path), QByteArray());
    const double duration = MediaFiles::probe(path, "format=duration").toDouble();
    const double expected = MediaFiles::probe(source, "format=duration").toDouble();
    QVERIFY2(std::abs(duration - expected) <= 0.1, QByteArray::number(duration));
}

void tst_DashTransfer::fetchesWhatPackagersMake_data()
{
    QTest::addColumn<QString>("folder");
    for (const char *const name : {"timeline", "numbers", "list", "single"})
        QTest::newRow(name) << QString::fromLatin1(name);
}

void tst_DashTransfer::fetchesWhatPackagersMake()
{
    QFETCH(QString, folder);
    ScriptedServer server;
    serve(server, m_folder.filePath(folder));
    MessageCatcher messages;
    Run run(server.address("/m.mpd"));
    QCOMPARE(run.fetch(), Transfer::Outcome::Succeeded);
    QCOMPARE(run.transfer->missingSegments(), 0);
    QCOMPARE(run.transfer->path(), run.folder.filePath(QStringLiteral("out.mp4")));
    QCOMPARE(filesBelow(run.folder.path()), {QStringLiteral("out.mp4")}); // no cache is left
    checkFile(run.transfer->path(), m_folder.filePath(QStringLiteral("source.mp4")));
}

void tst_DashTransfer::fetchesFromNginx()
{
    Nginx nginx(m_folder.path());
    QVERIFY(nginx.start());
    Run run(nginx.address(QStringLiteral("/single/m.mpd")));
    QCOMPARE(run.fetch(), Transfer::Outcome::Succeeded);
    checkFile(run.transfer->path(), m_folder.filePath(QStringLiteral("source.mp4")));
}

void tst_DashTransfer::choosesByHeightAndLanguage()
{
    QTemporaryDir made;
    MediaFiles::ffmpeg(
        MediaFiles::testInputs(2, QStringLiteral("320x180"))
            + words("-map 0:v -map 0:v -map 1:a -map 1:a -s:v:0 160x90 -metadata:s:a:0 language=en "
                    "-metadata:s:a:1 language=de")
            + MediaFiles::usualCodecs()
            + QStringList{QStringLiteral("-f"), QStringLiteral("dash"),
                          QStringLiteral("-adaptation_sets"),
                          QStringLiteral("id=0,streams=0,1 id=1,streams=2 id=2,streams=3"),
                          QStringLiteral("m.mpd")},
        made.path());
    ScriptedServer server;
    serve(server, made.path());
    Presentation::Wish wish;
    wish.height = 100;
    wish.language = QStringLiteral("de");
    Run run(server.address("/m.mpd"), wish);
    QCOMPARE(run.fetch(), Transfer::Outcome::Succeeded);
    QCOMPARE(run.presentation->renditions().size(), 4);
    QCOMPARE(run.presentation->chosen().constFirst().height, 90);
    QCOMPARE(run.presentation->chosen().constLast().id, QStringLiteral("3"));
    QCOMPARE(MediaFiles::probe(run.transfer->path(), "stream=height").simplified(),
             QByteArray("90"));
    QVERIFY(server.requestsFor("/init-stream1.m4s").isEmpty());
}

/// What the duration implies and nothing else names need not be there.
void tst_DashTransfer::takesTheLastOneMissingForTheEnd()
{
    ScriptedServer server;
    serve(server, m_folder.filePath(QStringLiteral("numbers")));
    QByteArray manifest = bytes(QStringLiteral("numbers/m.mpd"));
    const int at = manifest.indexOf("mediaPresentationDuration=\"PT8.0S\"");
    QVERIFY(at > 0);
    manifest.replace("mediaPresentationDuration=\"PT8.0S\"",
                     "mediaPresentationDuration=\"PT8.5S\"");
    server.serve("/m.mpd", manifest, "application/dash+xml");
    Run run(server.address("/m.mpd"));
    QCOMPARE(run.fetch(), Transfer::Outcome::Succeeded);
    QCOMPARE(run.transfer->missingSegments(), 0);
    QCOMPARE(server.requestsFor("/chunk-stream0-00005.m4s").size(), 1); // is believed
}

/// A part of a longer presentation, whose segments go on.
void tst_DashTransfer::leavesOutWhatLiesBeyondTheEnd()
{
    ScriptedServer server;
    serve(server, m_folder.filePath(QStringLiteral("numbers")));
    QByteArray manifest = bytes(QStringLiteral("numbers/m.mpd"));
    manifest.replace("mediaPresentationDuration=\"PT8.0S\"", "mediaPresentationDuration=\"PT4S\"");
    server.serve("/m.mpd", manifest, "application/dash+xml");
    Run run(server.address("/m.mpd"));
    QCOMPARE(run.fetch(), Transfer::Outcome::Succeeded);
    QCOMPARE(run.transfer->missingSegments(), 0);
    QCOMPARE(MediaFiles::packets(run.transfer->path(), "v:0").size(), 100);
    const QList<double> sounds = MediaFiles::times(run.transfer->path(), "a:0");
    QVERIFY2(std::abs(sounds.constLast() - 4) < 0.1, QByteArray::number(sounds.constLast()));
}

void tst_DashTransfer::tellsOfAMissingSegment()
{
    ScriptedServer server;
    serve(server, m_folder.filePath(QStringLiteral("timeline")));
    server.on("/chunk-stream0-00002.m4s", replyOf("gone", 500));
    Run run(server.address("/m.mpd"));
    QCOMPARE(run.fetch(), Transfer::Outcome::Succeeded);
    QCOMPARE(run.transfer->missingSegments(), 1);
    QVERIFY(server.requestsFor("/chunk-stream0-00002.m4s").size() > 3);
    const QList<double> shown = MediaFiles::times(run.transfer->path(), "v:0", true);
    QCOMPARE(shown.size(), 150);
    QVERIFY(*std::max_element(shown.begin(), shown.end()) > 7.9);
    QCOMPARE(MediaFiles::packets(run.transfer->path(), "a:0"),
             MediaFiles::packets(m_folder.filePath(QStringLiteral("source.mp4")), "a:0"));
}

void tst_DashTransfer::asksAnotherBase()
{
    ScriptedServer other;
    serve(other, m_folder.filePath(QStringLiteral("timeline")));
    ScriptedServer server;
    QByteArray manifest = bytes(QStringLiteral("timeline/m.mpd"));
    manifest.replace("<Period",
                     "<BaseURL>" + server.url("/nothing/").toEncoded() + "</BaseURL><BaseURL>"
                         + other.url("/").toEncoded() + "</BaseURL><Period");
    server.serve("/m.mpd", manifest, "application/dash+xml");
    Run run(server.address("/m.mpd"));
    QCOMPARE(run.fetch(), Transfer::Outcome::Succeeded);
    QCOMPARE(run.transfer->missingSegments(), 0);
    checkFile(run.transfer->path(), m_folder.filePath(QStringLiteral("source.mp4")));
}

void tst_DashTransfer::asksAgainForWhatCameWrong()
{
    ScriptedServer server;
    serve(server, m_folder.filePath(QStringLiteral("timeline")));
    int pages = 0;
    const QByteArray segment = bytes(QStringLiteral("timeline/chunk-stream0-00002.m4s"));
    server.on("/chunk-stream0-00002.m4s", [&](const HttpRequest &) {
        HttpReply page = replyOf("<html>try later</html>");
        page.headers = {{"Content-Type", "text/html"}};
        return ++pages == 1 ? page : replyOf(segment);
    });
    int cuts = 0;
    const QByteArray next = bytes(QStringLiteral("timeline/chunk-stream0-00003.m4s"));
    server.on("/chunk-stream0-00003.m4s", [&](const HttpRequest &) {
        HttpReply cut = replyOf(next);
        if (++cuts == 1)
            cut.cutAfterBytes = next.size() / 2;
        return cut;
    });
    Run run(server.address("/m.mpd"));
    QCOMPARE(run.fetch(), Transfer::Outcome::Succeeded);
    checkFile(run.transfer->path(), m_folder.filePath(QStringLiteral("source.mp4")));
}

void tst_DashTransfer::cutsRangesOutOfWholeFiles()
{
    ScriptedServer server;
    const QString folder = m_folder.filePath(QStringLiteral("single"));
    for (const QString &name : filesBelow(folder))
        server.on('/' + name.toUtf8(), replyOf(readFile(folder + QLatin1Char('/') + name)));
    Run run(server.address("/m.mpd"));
    QCOMPARE(run.fetch(), Transfer::Outcome::Succeeded);
    checkFile(run.transfer->path(), m_folder.filePath(QStringLiteral("source.mp4")));
}

void tst_DashTransfer::fetchesWhatAnIndexNames()
{
    QTemporaryDir made;
    // One file for each track, with an index before the first segment.
    for (const char *const map : {"v", "a"}) {
        const QString name = QString::fromLatin1(map) + QStringLiteral(".mp4");
        MediaFiles::ffmpeg(
            QStringList{QStringLiteral("-i"), m_folder.filePath(QStringLiteral("source.mp4")),
                        QStringLiteral("-map"), QStringLiteral("0:") + QString::fromLatin1(map)}
                + words("-c copy -movflags frag_keyframe+empty_moov+global_sidx+default_base_moof "
                        "-frag_duration 2000000")
                + QStringList{name},
            made.path());
    }
    const auto representation = [&made](const char *track, const char *type) {
        const QByteArray file =
            readFile(made.filePath(QString::fromLatin1(track) + QLatin1String(".mp4")));
        const int index = file.indexOf("sidx") - 4;
        const int size = quint8(file.at(index + 2)) << 8 | quint8(file.at(index + 3));
        const QByteArray range =
            QByteArray::number(index) + '-' + QByteArray::number(index + size - 1);
        return "<AdaptationSet mimeType=\"" + QByteArray(type) + "/mp4\"><Representation id=\""
            + track + "\"><BaseURL>" + track + ".mp4</BaseURL><SegmentBase indexRange=\"" + range
            + "\"/></Representation></AdaptationSet>";
    };
    ScriptedServer server;
    serve(server, made.path());
    int asked = 0; // once in vain
    const QByteArray picture = readFile(made.filePath(QStringLiteral("v.mp4")));
    server.on("/v.mp4", [&](const HttpRequest &request) {
        return ++asked == 1 ? replyOf("", 503)
                            : ScriptedServer::rangeReply(request, picture, "video/mp4");
    });
    server.on("/m.mpd",
              replyOf("<MPD mediaPresentationDuration=\"PT8S\"><Period>"
                      + representation("v", "video") + representation("a", "audio")
                      + "</Period></MPD>"));
    Run run(server.address("/m.mpd"));
    QCOMPARE(run.fetch(), Transfer::Outcome::Succeeded);
    QVERIFY(server.requestsFor("/v.mp4").size() > 3); // segments, not the whole file
    checkFile(run.transfer->path(), m_folder.filePath(QStringLiteral("source.mp4")));
}

void tst_DashTransfer::takesBasesFromWhereTheAnswerCame()
{
    ScriptedServer files;
    serve(files, m_folder.filePath(QStringLiteral("timeline")));
    ScriptedServer server;
    HttpReply redirect = replyOf("", 302);
    redirect.headers = {{"Location", files.url("/m.mpd").toEncoded()}};
    server.on("/elsewhere/m.mpd", redirect);
    Run run(server.address("/elsewhere/m.mpd"));
    QCOMPARE(run.fetch(), Transfer::Outcome::Succeeded);
    QCOMPARE(server.requests().size(), 1);
}

void tst_DashTransfer::joinsPeriods()
{
    ScriptedServer server;
    serve(server, m_folder.filePath(QStringLiteral("timeline")));
    QByteArray manifest = bytes(QStringLiteral("timeline/m.mpd"));
    const int begin = manifest.indexOf("<Period");
    const int end = manifest.indexOf("</Period>") + 9;
    QByteArray period = manifest.mid(begin, end - begin);
    period.replace("start=\"PT0.0S\"", "duration=\"PT8S\"");
    QByteArray second = period;
    second.replace("<Period id=\"0\"", "<Period id=\"1\"");
    manifest.replace(begin, end - begin, period + second);
    manifest.replace("mediaPresentationDuration=\"PT8.0S\"", "");
    server.serve("/m.mpd", manifest, "application/dash+xml");
    Run run(server.address("/m.mpd"));
    QCOMPARE(run.fetch(), Transfer::Outcome::Succeeded);
    const QString source = m_folder.filePath(QStringLiteral("source.mp4"));
    for (const QByteArray &stream : {QByteArray("v:0"), QByteArray("a:0")}) {
        const QList<QByteArray> once = MediaFiles::packets(source, stream);
        QCOMPARE(MediaFiles::packets(run.transfer->path(), stream), once + once);
        const QList<double> times = MediaFiles::times(run.transfer->path(), stream);
        QVERIFY(std::is_sorted(times.begin(), times.end()));
        QVERIFY(std::abs(times.constLast() - 15.95) < 0.2);
    }
    QCOMPARE(MediaFiles::complaints(run.transfer->path()), QByteArray());
}

void tst_DashTransfer::beginsWithAPeriodThatLacksSomething_data()
{
    QTest::addColumn<QByteArray>("lack"); // a part of what begins the set that is left out
    QTest::newRow("sound") << QByteArray("contentType=\"audio\"");
    QTest::newRow("picture") << QByteArray("contentType=\"video\"");
    QTest::newRow("everything") << QByteArray();
}

void tst_DashTransfer::beginsWithAPeriodThatLacksSomething()
{
    QFETCH(QByteArray, lack);
    ScriptedServer server;
    serve(server, m_folder.filePath(QStringLiteral("timeline")));
    QByteArray manifest = bytes(QStringLiteral("timeline/m.mpd"));
    const int begin = manifest.indexOf("<Period");
    QByteArray first = manifest.mid(begin, manifest.indexOf("</Period>") + 9 - begin);
    first.replace("start=\"PT0.0S\"", "duration=\"PT8S\"")
        .replace("<Period id=\"0\"", "<Period id=\"a\"");
    for (int set = first.indexOf("<AdaptationSet"); set >= 0;
         set = first.indexOf("<AdaptationSet", set + 1)) {
        const int end = first.indexOf("</AdaptationSet>", set) + 16;
        if (first.mid(set, first.indexOf('>', set) - set).contains(lack)) {
            first.remove(set, end - set);
            --set;
        }
    }
    manifest.insert(begin, first);
    manifest.replace("start=\"PT0.0S\"", "");
    manifest.replace("mediaPresentationDuration=\"PT8.0S\"", "mediaPresentationDuration=\"PT16S\"");
    server.serve("/m.mpd", manifest, "application/dash+xml");
    Run run(server.address("/m.mpd"));
    QCOMPARE(run.fetch(), Transfer::Outcome::Succeeded);
    const QString source = m_folder.filePath(QStringLiteral("source.mp4"));
    for (const auto &[stream, kind] : {std::pair{"v:0", "video"}, std::pair{"a:0", "audio"}}) {
        const QList<QByteArray> once = MediaFiles::packets(source, stream);
        QCOMPARE(MediaFiles::packets(run.transfer->path(), stream),
                 lack.isEmpty() || lack.contains(kind) ? once : once + once);
    }
    QCOMPARE(MediaFiles::complaints(run.transfer->path()), QByteArray());
}

/// What an earlier run has fetched is taken from where it left it.
void tst_DashTransfer::asksForNothingThatIsThere()
{
    ScriptedServer server;
    serve(server, m_folder.filePath(QStringLiteral("timeline")));
    const QByteArray last = bytes(QStringLiteral("timeline/chunk-stream0-00004.m4s"));
    bool isHeld = true;
    server.on("/chunk-stream0-00004.m4s",
              [&](const HttpRequest &) { return isHeld ? heldReplyOf(last, 0) : replyOf(last); });
    Run run(server.address("/m.mpd"));
    run.transfer->start();
    QTRY_VERIFY_WITH_TIMEOUT(filesBelow(run.folder.filePath(QStringLiteral("cache"))).size() >= 10,
                             patienceMs);
    run.transfer->cancel();
    QCOMPARE(run.wait(), Transfer::Outcome::Canceled);

    isHeld = false;
    server.clearRequests();
    Run again(server.address("/m.mpd"));
    QVERIFY(QDir().rename(run.folder.filePath(QStringLiteral("cache")),
                          again.folder.filePath(QStringLiteral("cache"))));
    QCOMPARE(again.fetch(), Transfer::Outcome::Succeeded);
    QCOMPARE(server.requests().size(), 2); // the manifest and the one that was missing
    checkFile(again.transfer->path(), m_folder.filePath(QStringLiteral("source.mp4")));
}

void tst_DashTransfer::followsALivePresentation()
{
    ScriptedServer server;
    serve(server, m_folder.filePath(QStringLiteral("timeline")));
    int asked = 0;
    const QByteArray whole = bytes(QStringLiteral("timeline/m.mpd"));
    server.on("/m.mpd", [&](const HttpRequest &) {
        ++asked;
        if (asked > 3)
            return replyOf(whole);
        QByteArray part = whole;
        part.replace("type=\"static\"",
                     "type=\"dynamic\" minimumUpdatePeriod=\"PT0.5S\" "
                     "availabilityStartTime=\"2020-01-01T00:00:00Z\"");
        part.replace("mediaPresentationDuration=\"PT8.0S\"", "");
        part.replace("r=\"3\"", "r=\"" + QByteArray::number(asked - 1) + '"');
        // Of the sound the first ones of five.
        int at = part.indexOf("timescale=\"44100\"");
        at = part.indexOf("<S ", at);
        const int end = part.indexOf("</SegmentTimeline>", at);
        part.replace(at, end - at, "<S t=\"0\" d=\"84992\"/>");
        return replyOf(part);
    });
    Run run(server.address("/m.mpd"));
    QList<qint64> totals;
    QObject::connect(run.transfer.get(), &Transfer::progressed, run.transfer.get(),
                     [&](qint64, qint64 total) { totals += total; });
    QCOMPARE(run.fetch(), Transfer::Outcome::Succeeded);
    QVERIFY(asked >= 4);
    QCOMPARE(totals.constFirst(), 0);
    checkFile(run.transfer->path(), m_folder.filePath(QStringLiteral("source.mp4")));
}

void tst_DashTransfer::finishesTheFileWhenItIsStopped()
{
    ScriptedServer server;
    serve(server, m_folder.filePath(QStringLiteral("timeline")));
    server.hold("/chunk-stream0-00003.m4s");
    Run run(server.address("/m.mpd"));
    QSignalSpy progressed(run.transfer.get(), &Transfer::progressed);
    run.transfer->start();
    // Two beginnings and twice two segments.
    QTRY_VERIFY_WITH_TIMEOUT(
        !progressed.isEmpty() && progressed.constLast().constFirst().toLongLong() >= 6, patienceMs);
    run.transfer->cancel();
    QCOMPARE(run.wait(), Transfer::Outcome::Canceled);
    QCOMPARE(
        MediaFiles::packets(run.transfer->path(), "v:0"),
        MediaFiles::packets(m_folder.filePath(QStringLiteral("source.mp4")), "v:0").mid(0, 100));
    QCOMPARE(MediaFiles::complaints(run.transfer->path()), QByteArray());
}

/// The file waits for the beginning of the sound, which does not come before the stop.
void tst_DashTransfer::makesAFileOfTheLittleThatCame()
{
    ScriptedServer server;
    serve(server, m_folder.filePath(QStringLiteral("timeline")));
    server.hold("/chunk-stream1-00001.m4s");
    Run run(server.address("/m.mpd"));
    QSignalSpy progressed(run.transfer.get(), &Transfer::progressed);
    run.transfer->start();
    QTRY_VERIFY_WITH_TIMEOUT(
        !progressed.isEmpty() && progressed.constLast().constFirst().toLongLong() >= 3, patienceMs);
    run.transfer->cancel();
    QCOMPARE(run.wait(), Transfer::Outcome::Canceled);
    QCOMPARE(MediaFiles::packets(run.transfer->path(), "v:0").size(), 50);
    QCOMPARE(MediaFiles::complaints(run.transfer->path()), QByteArray());
}

void tst_DashTransfer::saysWhyItCannot_data()
{
    QTest::addColumn<HttpReply>("reply");
    QTest::addColumn<Presentation::Failure>("failure");
    using Failure = Presentation::Failure;
    const auto manifest = [](const QByteArray &set) {
        return replyOf("<MPD mediaPresentationDuration=\"PT1S\"><Period>" + set
                       + "</Period></MPD>");
    };
    QTest::newRow("not there") << replyOf("", 404) << Failure::Unreachable;
    QTest::newRow("not given") << replyOf("", 403) << Failure::Unreachable;
    QTest::newRow("a page") << replyOf("<html></html>") << Failure::Malformed;
    QTest::newRow("nothing offered") << manifest("") << Failure::Unsupported;
    QTest::newRow("protected") << manifest(
        "<AdaptationSet mimeType=\"video/mp4\"><ContentProtection/><Representation id=\"v\"/>"
        "</AdaptationSet>") << Failure::Protected;
    QTest::newRow("only the sound protected") << manifest(
        "<AdaptationSet mimeType=\"video/mp4\"><Representation id=\"v\"/></AdaptationSet>"
        "<AdaptationSet mimeType=\"audio/mp4\"><Representation id=\"a\"><ContentProtection/>"
        "</Representation></AdaptationSet>") << Failure::Protected;
    QTest::newRow("xlink") << replyOf("<MPD xmlns:xlink=\"http://www.w3.org/1999/xlink\"><Period "
                                      "xlink:href=\"http://x.test/\"/></MPD>")
                           << Failure::Unsupported;
}

void tst_DashTransfer::saysWhyItCannot()
{
    QFETCH(HttpReply, reply);
    ScriptedServer server;
    server.on("/m.mpd", reply);
    Run run(server.address("/m.mpd"));
    QCOMPARE(run.fetch(), Transfer::Outcome::Failed);
    QVERIFY(run.transfer->failure());
    QTEST(*run.transfer->failure(), "failure");
    const bool isRefused = reply.status >= 400;
    QCOMPARE(run.transfer->report(Transfer::Outcome::Failed).runClass == RunClass::Refused,
             isRefused);
    QCOMPARE(run.ended.size(), 1);
    QVERIFY(filesBelow(run.folder.path()).isEmpty());
}

void tst_DashTransfer::opensNoFileOfThisMachine()
{
    const QString folder = m_folder.filePath(QStringLiteral("timeline"));
    ScriptedServer server;
    QByteArray manifest = bytes(QStringLiteral("timeline/m.mpd"));
    manifest.replace("<Period", "<BaseURL>file://" + folder.toUtf8() + "/</BaseURL><Period");
    server.serve("/m.mpd", manifest, "application/dash+xml");
    Run run(server.address("/m.mpd"));
    QCOMPARE(run.fetch(), Transfer::Outcome::Failed);
    QVERIFY(!QFileInfo::exists(run.folder.filePath(QStringLiteral("out.mp4"))));
    QCOMPARE(server.requests().size(), 1);
}

CLIPWEIR_TEST_MAIN(tst_DashTransfer)

#include "tst_dashtransfer.moc"
