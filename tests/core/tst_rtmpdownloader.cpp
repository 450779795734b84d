#include "MessageCatcher.h"
#include "Nginx.h"
#include "StandIn.h"
#include "TestMain.h"
#include "rtmpdownloader.h"

#include <QProcess>
#include <QTemporaryDir>

#include <limits>
#include <memory>

namespace {

constexpr int waitMs = 30000;
constexpr int clipSeconds = 20;
constexpr int clipPictures = clipSeconds * 25;

using Params = QMap<QString, QString>;
using Progress = QPair<qint64, qint64>;

QString u(const char *text)
{
    return QString::fromUtf8(text);
}

/// Runs a program to its end and gives what it wrote to standard output; empty when it failed.
QByteArray outputOf(const QString &program, const QStringList &arguments)
{
    QProcess process;
    process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    process.start(program, arguments);
    if (!process.waitForFinished(60000) || process.exitCode() != 0)
        return {};
    return process.readAllStandardOutput();
}

/// The number of pictures in a file, as ffprobe counts them.
int picturesIn(const QString &path)
{
    return outputOf(u("ffprobe"),
                    {u("-v"), u("quiet"), u("-select_streams"), u("v"), u("-count_packets"),
                     u("-show_entries"), u("stream=nb_read_packets"), u("-of"), u("csv=p=0"), path})
        .trimmed()
        .toInt();
}

QByteArray contentOf(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

bool write(const QString &path, const QByteArray &content)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(content) == content.size();
}

/// The first half of an FLV file, up to the end of a tag: header of 9 bytes, then the size of the
/// tag before (4 bytes) and a tag by turns; a tag has its data size in bytes 1 to 3 of its 11.
QByteArray firstHalf(const QByteArray &flv)
{
    int at = 9 + 4;
    while (at < flv.size() / 2) {
        const auto byteAt = [&](int i) { return static_cast<uchar>(flv.at(at + i)); };
        at += 11 + (byteAt(1) << 16 | byteAt(2) << 8 | byteAt(3)) + 4;
    }
    return flv.left(at);
}

/// A downloader with its signals recorded.
struct Download
{
    Download()
    {
        QObject::connect(&downloader, &RtmpDownloader::progress,
                         [this](qint64 received, qint64 total) {
                             progress += {received, total};
                         });
        QObject::connect(&downloader, &RtmpDownloader::finished,
                         [this](int result) { results += result; });
    }

    [[nodiscard]] QProcess *process() const { return downloader.findChild<QProcess *>(); }

    RtmpDownloader downloader;
    QList<Progress> progress;
    QList<int> results;
};

} // namespace

class tst_RtmpDownloader : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanupTestCase();

    void passesArgumentsInOrder_data();
    void passesArgumentsInOrder();
    void writesTheArgumentsToTheHost();
    void reportsProgress_data();
    void reportsProgress();
    void reportsEveryChunk();
    void mergesBothChannels();

    void succeeds();
    void restartsAfterAWriteFailure();
    void restartsAfterEveryWriteFailure();
    void stopsAboveTheSizeLimit_data();
    void stopsAboveTheSizeLimit();
    void stopsOnCancel();
    void cancelWinsOverARestart();
    void cancelWithNothingRunningDoesNothing();
    void aCrashEndsIt();
    void restartsOnceAfterAFailure();
    void staysSilentAfterASecondFailure();
    void anEarlierDownloadUsesUpTheRetry();
    void staysSilentWithoutTheProgram();
    void aRunningProgramEndsWithItsObject();

    void savesARecordedStream();
    void savesALiveStream();
    void continuesAFile();
    void startsAfreshWhereTheServerCannotContinue();
    void stopsARealStreamAboveTheSizeLimit();
    void stopsARealStreamOnCancel();
    void restartsARealStreamAfterAWriteFailure();
    void staysSilentWithoutAServer();

private:
    [[nodiscard]] QString path(const char *name) const { return m_folder.filePath(u(name)); }
    [[nodiscard]] Params clipParams(const char *name) const;
    [[nodiscard]] bool startServer();
    [[nodiscard]] bool useRealProgram() { return m_program->link(u("/usr/bin/rtmpdump")); }

    QTemporaryDir m_folder;
    std::unique_ptr<StandIn> m_program;
    std::unique_ptr<Nginx> m_server;
    QString m_output;
};

Params tst_RtmpDownloader::clipParams(const char *name) const
{
    return {
        {u("rtmp"), u("rtmp://127.0.0.1:%1/recorded/%2").arg(m_server->secondPort()).arg(u(name))}};
}

/// Starts an RTMP server with the clips as recorded streams and room for a live one.
bool tst_RtmpDownloader::startServer()
{
    const QByteArray folder = m_folder.path().toUtf8();
    m_server = std::make_unique<Nginx>();
    m_server->setOuterText(
        "load_module /usr/lib/nginx/modules/ngx_rtmp_module.so;\n"
        "error_log "
            + folder + "/rtmp.log info;",
        "rtmp {\n"
        "    access_log off;\n"
        "    server {\n"
        "        listen 127.0.0.1:%PORT2%;\n"
        "        application recorded { play "
            + folder
            + "; }\n"
              "        application live {\n"
              "            live on; wait_video on; wait_key on; publish_notify on;\n"
              "        }\n"
              "    }\n"
              "}\n");
    return m_server->start();
}

void tst_RtmpDownloader::initTestCase()
{
    qRegisterMetaType<QProcess::ProcessError>();
    qRegisterMetaType<QProcess::ExitStatus>();
    m_program = std::make_unique<StandIn>(QCoreApplication::applicationDirPath() + u("/rtmpdump"));
    m_output = path("out.flv");
    const auto makeClip = [this](const char *name, const char *picturesPerGroup) {
        outputOf(u("ffmpeg"),
                 {u("-v"),
                  u("error"),
                  u("-f"),
                  u("lavfi"),
                  u("-i"),
                  u("testsrc2=size=320x240:rate=25:duration=%1").arg(clipSeconds),
                  u("-f"),
                  u("lavfi"),
                  u("-i"),
                  u("sine=duration=%1").arg(clipSeconds),
                  u("-c:v"),
                  u("libx264"),
                  u("-preset"),
                  u("veryfast"),
                  u("-g"),
                  u(picturesPerGroup),
                  u("-sc_threshold"),
                  u("0"),
                  u("-pix_fmt"),
                  u("yuv420p"),
                  u("-c:a"),
                  u("aac"),
                  u("-flvflags"),
                  u("add_keyframe_index"),
                  path(name)});
        return picturesIn(path(name)) == clipPictures;
    };
    QVERIFY(makeClip("clip.flv", "25"));
    QVERIFY(makeClip("group.flv", "1000")); // one key picture, at its start
    QVERIFY(startServer());
}

void tst_RtmpDownloader::init()
{
    QFile::remove(m_output);
}

void tst_RtmpDownloader::cleanupTestCase()
{
    m_program->remove();
}

void tst_RtmpDownloader::passesArgumentsInOrder_data()
{
    QTest::addColumn<Params>("params");
    QTest::addColumn<qint64>("resumeOffset");
    QTest::addColumn<QStringList>("expected");
    const Params usual{{u("rtmp"), u("rtmp://h/a")}, {u("playpath"), u("b c")}};
    const QStringList usualList{u("--flv"), m_output,    u("--playpath"),
                                u("b c"),   u("--rtmp"), u("rtmp://h/a")};
    QTest::newRow("from the start") << usual << qint64(0) << usualList;
    QTest::newRow("resume") << usual << qint64(1000) << usualList + QStringList{u("--resume")};
    QTest::newRow("resume below zero")
        << usual << qint64(-1) << usualList + QStringList{u("--resume")};
    QTest::newRow("the path replaces a flv")
        << Params{{u("flv"), u("/other")}} << qint64(0) << QStringList{u("--flv"), m_output};
    QTest::newRow("none") << Params{} << qint64(0) << QStringList{u("--flv"), m_output};
    QTest::newRow("empty value") << Params{{u("live"), QString()}} << qint64(0)
                                 << QStringList{u("--flv"), m_output, u("--live"), QString()};
    QTest::newRow("order of codes, odd letters")
        << Params{{u("a"), u("1")}, {u("Z"), u("2")}, {u("\xc3\xa9"), u("\"'$\xc3\xa9")}}
        << qint64(0) << QStringList{u("--Z"),   u("2"),   u("--a"),        u("1"),
                                    u("--flv"), m_output, u("--\xc3\xa9"), u("\"'$\xc3\xa9")};
}

void tst_RtmpDownloader::passesArgumentsInOrder()
{
    QVERIFY(m_program->install("pass"));
    QFETCH(Params, params);
    QFETCH(qint64, resumeOffset);
    QFETCH(QStringList, expected);
    Download download;
    download.downloader.download(params, m_output, resumeOffset, 0);
    QTRY_COMPARE_WITH_TIMEOUT(download.results, QList<int>{0}, waitMs);
    QCOMPARE(m_program->runs(), QList<QStringList>{expected});
}

void tst_RtmpDownloader::writesTheArgumentsToTheHost()
{
    QVERIFY(m_program->install("pass"));
    const MessageCatcher catcher;
    Download download;
    download.downloader.download({{u("rtmp"), u("rtmp://h/a")}}, u("/nowhere/a b.flv"), 1, 0);
    QCOMPARE(catcher.lines(),
             QStringList{u(
                 "(\"--flv\", \"/nowhere/a b.flv\", \"--rtmp\", \"rtmp://h/a\", \"--resume\") ")});
    QTRY_COMPARE_WITH_TIMEOUT(download.results, QList<int>{0}, waitMs);
    QCOMPARE(catcher.lines().size(), 1);
}

void tst_RtmpDownloader::reportsProgress_data()
{
    constexpr qint64 most = std::numeric_limits<qint64>::max();
    QTest::addColumn<QByteArray>("chunk"); // inside a Python bytes literal
    QTest::addColumn<QList<Progress>>("expected");
    const auto row = [](const char *name, const char *chunk, const QList<Progress> &expected) {
        QTest::newRow(name) << QByteArray(chunk) << expected;
    };
    row("five percent", "\\r1024.000 kB / 8.00 sec (5.0%)", {{1048576, 20971520}});
    row("three percent", "\\r1024.000 kB / 8.00 sec (3.0%)", {{1048576, 0}});
    row("above three percent", "\\r1024.000 kB / 8.00 sec (3.1%)", {{1048576, 33825032}});
    row("all", "\\r1.500 kB / 8.00 sec (100.0%)", {{1536, 1536}});
    row("part of a byte", "\\r0.001 kB / 8.00 sec (50.0%)", {{1, 2}});
    row("two in a chunk", "\\r1.000 kB (50.0%)\\r2.000 kB (100.0%)", {{1024, 2048}});
    row("no percentage", "\\r1024.000 kB / 8.00 sec", {});
    row("empty percentage", "\\r1024.000 kB (%)", {});
    row("no size", "(50.0%)", {{0, 0}});
    row("size without carriage return", "1024.000 kB (50.0%)", {{0, 0}});
    row("percentage is no number", "\\r1.000 kB (c) 2010 (50.0%)", {{1024, 0}});
    row("below zero", "\\r-1.000 kB (-50.0%)", {{-1024, 0}});
    row("too big", "\\r1e300 kB (50.0%)", {{most, most}});
    row("too small", "\\r-1e300 kB (50.0%)", {{-most - 1, -most - 1}});
    row("infinite", "\\rinf kB (inf%)", {{most, 0}});
    row("no number", "\\rnan kB (nan%)", {{0, 0}});
    row("other text", "Connecting ...", {});
}

void tst_RtmpDownloader::reportsProgress()
{
    QFETCH(QByteArray, chunk);
    QVERIFY(m_program->install("say(b'" + chunk + "')"));
    Download download;
    download.downloader.download({}, m_output, 0, 0);
    QTRY_COMPARE_WITH_TIMEOUT(download.results, QList<int>{0}, waitMs);
    QTEST(download.progress, "expected");
}

void tst_RtmpDownloader::reportsEveryChunk()
{
    QVERIFY(m_program->install("say(b'\\r1.000 kB (10.0%)')\n"
                               "say(b'\\r2.000 kB (')\n"
                               "say(b'20.0%)')\n"
                               "say(b'\\r3.000 kB (30.0%)')"));
    Download download;
    download.downloader.download({}, m_output, 0, 0);
    QTRY_COMPARE_WITH_TIMEOUT(download.results, QList<int>{0}, waitMs);
    QCOMPARE(download.progress, (QList<Progress>{{1024, 10240}, {3072, 10240}}));
}

void tst_RtmpDownloader::mergesBothChannels()
{
    QVERIFY(m_program->install("os.write(2, b'\\r1.000 kB (10.0%)')"));
    Download download;
    download.downloader.download({}, m_output, 0, 0);
    QTRY_COMPARE_WITH_TIMEOUT(download.results, QList<int>{0}, waitMs);
    QCOMPARE(download.progress, (QList<Progress>{{1024, 10240}}));
}

void tst_RtmpDownloader::succeeds()
{
    QVERIFY(m_program->install("os.write(1, b'\\r1.000 kB (10.0%)')"));
    Download download;
    download.downloader.download({}, m_output, 0, 0);
    QTRY_COMPARE_WITH_TIMEOUT(download.results, QList<int>{0}, waitMs);
    QCOMPARE(download.progress.size(), 1); // what came last is read before the end is told
}

void tst_RtmpDownloader::restartsAfterAWriteFailure()
{
    QVERIFY(m_program->install("path = args[1]\n"
                               "if run == 1:\n"
                               "    say(b'ERROR: Download: Failed writing, exiting!\\n')\n"
                               "    hang()\n"
                               "open(path + '.seen', 'w').write(str(os.path.exists(path)))\n"
                               "say(b'\\r9.000 kB (10.0%)')"));
    QVERIFY(write(m_output, "left over"));
    Download download;
    download.downloader.download({}, m_output, 9, 1024);
    QTRY_COMPARE_WITH_TIMEOUT(download.results, QList<int>{0}, waitMs);
    const QStringList afresh{u("--flv"), m_output};
    QCOMPARE(m_program->runs(), (QList<QStringList>{afresh + QStringList{u("--resume")}, afresh}));
    QCOMPARE(contentOf(m_output + u(".seen")), QByteArray("False"));
    QCOMPARE(download.progress, (QList<Progress>{{9216, 92160}})); // above the limit of the start
}

void tst_RtmpDownloader::restartsAfterEveryWriteFailure()
{
    QVERIFY(m_program->install("if run == 4: sys.exit(0)\n"
                               "say(b'Failed writing Failed writing')\n"
                               "if run == 1: hang()\n"
                               "os.write(1, b'Failed writing')\n"
                               "sys.exit(run - 2)"));
    Download download;
    download.downloader.download({}, m_output, 0, 0);
    QTRY_COMPARE_WITH_TIMEOUT(download.results, QList<int>{0}, waitMs);
    QCOMPARE(m_program->runs().size(), 4);
}

void tst_RtmpDownloader::stopsAboveTheSizeLimit_data()
{
    QTest::addColumn<qint64>("limit");
    QTest::addColumn<bool>("isStopped");
    QTest::newRow("above") << qint64(1023) << true;
    QTest::newRow("equal") << qint64(1024) << false;
    QTest::newRow("below") << qint64(1025) << false;
    QTest::newRow("none") << qint64(0) << false;
    QTest::newRow("none, below zero") << qint64(-1) << false;
}

void tst_RtmpDownloader::stopsAboveTheSizeLimit()
{
    QFETCH(qint64, limit);
    QFETCH(bool, isStopped);
    QVERIFY(m_program->install(QByteArray("say(b'\\r1.000 kB (50.0%)')\n")
                               + (isStopped ? "hang()" : "say(b'more')")));
    Download download;
    download.downloader.download({}, m_output, 0, limit);
    QTRY_COMPARE_WITH_TIMEOUT(download.results, QList<int>{isStopped ? -1 : 0}, waitMs);
    QCOMPARE(download.progress, (QList<Progress>{{1024, 2048}}));
    QCOMPARE(m_program->runs().size(), 1);
}

void tst_RtmpDownloader::stopsOnCancel()
{
    QVERIFY(m_program->install("say(b'\\r1.000 kB (50.0%)')\nhang()"));
    Download download;
    download.downloader.download({}, m_output, 0, 0);
    QTRY_COMPARE_WITH_TIMEOUT(download.progress.size(), 1, waitMs);
    download.downloader.cancel();
    download.downloader.cancel();
    QTRY_COMPARE_WITH_TIMEOUT(download.results, QList<int>{-1}, waitMs);
    QCOMPARE(m_program->runs().size(), 1);
}

void tst_RtmpDownloader::cancelWinsOverARestart()
{
    QVERIFY(m_program->install("say(b'\\r1.000 kB (50.0%) Failed writing')\nsys.exit(1)"));
    QVERIFY(write(m_output, "kept"));
    Download download;
    QObject::connect(&download.downloader, &RtmpDownloader::progress, &download.downloader,
                     &RtmpDownloader::cancel);
    download.downloader.download({}, m_output, 0, 0);
    QTRY_COMPARE_WITH_TIMEOUT(download.results, QList<int>{-1}, waitMs);
    QCOMPARE(m_program->runs().size(), 1);
    QCOMPARE(contentOf(m_output), QByteArray("kept"));
}

void tst_RtmpDownloader::cancelWithNothingRunningDoesNothing()
{
    QVERIFY(m_program->install("sys.exit(0 if run == 2 else 1)"));
    Download download;
    download.downloader.cancel();
    download.downloader.download({}, m_output, 0, 0);
    QTRY_COMPARE_WITH_TIMEOUT(download.results, QList<int>{0}, waitMs);
    download.downloader.cancel();
    QCOMPARE(download.results, QList<int>{0});
    QCOMPARE(m_program->runs().size(), 2);
}

void tst_RtmpDownloader::aCrashEndsIt()
{
    QVERIFY(m_program->install("os.write(1, b'\\r1.000 kB (50.0%)')\nos.abort()"));
    Download download;
    download.downloader.download({}, m_output, 0, 0);
    QTRY_COMPARE_WITH_TIMEOUT(download.results, QList<int>{-1}, waitMs);
    QCOMPARE(download.progress, (QList<Progress>{{1024, 2048}}));
    QCOMPARE(m_program->runs().size(), 1);
}

void tst_RtmpDownloader::restartsOnceAfterAFailure()
{
    QVERIFY(m_program->install("path = args[1]\n"
                               "if run == 1: sys.exit(2)\n"
                               "open(path + '.seen', 'w').write(str(os.path.exists(path)))\n"
                               "say(b'\\r9.000 kB (10.0%)')"));
    QVERIFY(write(m_output, "left over"));
    Download download;
    download.downloader.download({}, m_output, 9, 1024);
    QTRY_COMPARE_WITH_TIMEOUT(download.results, QList<int>{0}, waitMs);
    const QStringList afresh{u("--flv"), m_output};
    QCOMPARE(m_program->runs(), (QList<QStringList>{afresh + QStringList{u("--resume")}, afresh}));
    QCOMPARE(contentOf(m_output + u(".seen")), QByteArray("True"));
    QCOMPARE(download.progress, (QList<Progress>{{9216, 92160}}));
}

void tst_RtmpDownloader::staysSilentAfterASecondFailure()
{
    QVERIFY(m_program->install("sys.exit(run)"));
    Download download;
    QSignalSpy ends(download.process(),
                    QOverload<int, QProcess::ExitStatus>::of(&QProcess::finished));
    download.downloader.download({}, m_output, 0, 0);
    QTRY_COMPARE_WITH_TIMEOUT(ends.count(), 2, waitMs);
    QCOMPARE(download.process()->state(), QProcess::NotRunning);
    QCOMPARE(download.results, QList<int>{});
    QCOMPARE(m_program->runs().size(), 2);
}

void tst_RtmpDownloader::anEarlierDownloadUsesUpTheRetry()
{
    QVERIFY(m_program->install("sys.exit(run - 1)"));
    Download download;
    QSignalSpy ends(download.process(),
                    QOverload<int, QProcess::ExitStatus>::of(&QProcess::finished));
    download.downloader.download({}, m_output, 0, 0);
    QTRY_COMPARE_WITH_TIMEOUT(download.results, QList<int>{0}, waitMs);
    download.downloader.download({}, m_output, 0, 0);
    QTRY_COMPARE_WITH_TIMEOUT(ends.count(), 2, waitMs);
    QCOMPARE(download.process()->state(), QProcess::NotRunning);
    QCOMPARE(download.results, QList<int>{0});
}

void tst_RtmpDownloader::staysSilentWithoutTheProgram()
{
    m_program->remove();
    Download download;
    QSignalSpy errors(download.process(), &QProcess::errorOccurred);
    download.downloader.download({}, m_output, 0, 0);
    QTRY_COMPARE_WITH_TIMEOUT(errors.count(), 1, waitMs);
    QCOMPARE(errors.first().first().value<QProcess::ProcessError>(), QProcess::FailedToStart);
    QCOMPARE(download.results, QList<int>{});
}

void tst_RtmpDownloader::aRunningProgramEndsWithItsObject()
{
    QVERIFY(m_program->install("say(b'\\r1.000 kB (50.0%)')\nhang()"));
    QString processFolder;
    {
        Download download;
        download.downloader.download({}, m_output, 0, 0);
        QTRY_COMPARE_WITH_TIMEOUT(download.progress.size(), 1, waitMs);
        processFolder = u("/proc/%1").arg(download.process()->processId());
        QVERIFY(QFile::exists(processFolder));
    }
    QVERIFY(!QFile::exists(processFolder));
}

void tst_RtmpDownloader::savesARecordedStream()
{
    QVERIFY(useRealProgram());
    Download download;
    download.downloader.download(clipParams("clip.flv"), m_output, 0, 0);
    QTRY_COMPARE_WITH_TIMEOUT(download.results, QList<int>{0}, waitMs);
    QCOMPARE(picturesIn(m_output), clipPictures);
    QVERIFY(!download.progress.isEmpty());
    const qint64 received = download.progress.last().first;
    QVERIFY(received > 0 && received <= QFileInfo(m_output).size());
}

void tst_RtmpDownloader::savesALiveStream()
{
    QVERIFY(useRealProgram());
    const QString address = u("rtmp://127.0.0.1:%1/live/stream").arg(m_server->secondPort());
    Download download;
    download.downloader.download({{u("rtmp"), address}, {u("live"), QString()}}, m_output, 0, 0);
    QTRY_VERIFY_WITH_TIMEOUT(contentOf(path("rtmp.log")).contains("play: name='stream'"), waitMs);
    QProcess feeder;
    feeder.start(u("ffmpeg"),
                 {u("-v"), u("error"), u("-i"), path("clip.flv"), u("-c"), u("copy"), u("-f"),
                  u("flv"), address});
    QTRY_COMPARE_WITH_TIMEOUT(download.results, QList<int>{0}, waitMs);
    QTRY_COMPARE_WITH_TIMEOUT(feeder.state(), QProcess::NotRunning, waitMs);
    QCOMPARE(picturesIn(m_output), clipPictures);
}

void tst_RtmpDownloader::continuesAFile()
{
    QVERIFY(useRealProgram());
    const QByteArray part = firstHalf(contentOf(path("group.flv")));
    QVERIFY(write(m_output, part));
    const int picturesBefore = picturesIn(m_output);
    QVERIFY(picturesBefore > 0 && picturesBefore < clipPictures);
    const MessageCatcher catcher;
    Download download;
    download.downloader.download(clipParams("group.flv"), m_output, part.size(), 0);
    QTRY_COMPARE_WITH_TIMEOUT(download.results, QList<int>{0}, waitMs);
    QCOMPARE(catcher.linesWith(u("--resume")).size(), 1);
    QCOMPARE(catcher.lines().size(), 1);
    QCOMPARE(picturesIn(m_output), clipPictures);
}

void tst_RtmpDownloader::startsAfreshWhereTheServerCannotContinue()
{
    // This server does not start at the key picture that is asked for, which rtmpdump refuses.
    QVERIFY(useRealProgram());
    const QByteArray part = firstHalf(contentOf(path("clip.flv")));
    QVERIFY(write(m_output, part));
    const MessageCatcher catcher;
    Download download;
    download.downloader.download(clipParams("clip.flv"), m_output, part.size(), 0);
    QTRY_COMPARE_WITH_TIMEOUT(download.results, QList<int>{0}, waitMs);
    QCOMPARE(catcher.linesWith(u("--resume")).size(), 1);
    QCOMPARE(catcher.lines().size(), 2);
    QCOMPARE(picturesIn(m_output), clipPictures);
}

void tst_RtmpDownloader::stopsARealStreamAboveTheSizeLimit()
{
    QVERIFY(useRealProgram());
    Params params = clipParams("clip.flv");
    params[u("buffer")] = u("1000"); // ms; the server then sends about as fast as the clip plays
    const qint64 clipBytes = QFileInfo(path("clip.flv")).size();
    Download download;
    download.downloader.download(params, m_output, 0, clipBytes / 10);
    QTRY_COMPARE_WITH_TIMEOUT(download.results, QList<int>{-1}, waitMs);
    const Progress last = download.progress.last();
    QVERIFY(last.first > clipBytes / 10);
    QVERIFY(last.second > clipBytes / 2 && last.second < clipBytes * 2);
    QVERIFY(picturesIn(m_output) > 0);
    QVERIFY(picturesIn(m_output) < clipPictures);
}

void tst_RtmpDownloader::stopsARealStreamOnCancel()
{
    QVERIFY(useRealProgram());
    Params params = clipParams("clip.flv");
    params[u("buffer")] = u("1000");
    Download download;
    download.downloader.download(params, m_output, 0, 0);
    QTRY_VERIFY_WITH_TIMEOUT(!download.progress.isEmpty() && download.progress.last().first > 0,
                             waitMs);
    download.downloader.cancel();
    QTRY_COMPARE_WITH_TIMEOUT(download.results, QList<int>{-1}, waitMs);
}

void tst_RtmpDownloader::restartsARealStreamAfterAWriteFailure()
{
    // Only the link is removed, and a file takes its place.
    QVERIFY(useRealProgram());
    QVERIFY(QFile::link(u("/dev/full"), m_output));
    const MessageCatcher catcher;
    Download download;
    download.downloader.download(clipParams("clip.flv"), m_output, 0, 0);
    QTRY_COMPARE_WITH_TIMEOUT(download.results, QList<int>{0}, waitMs);
    QCOMPARE(catcher.lines().size(), 2);
    QVERIFY(!QFileInfo(m_output).isSymLink());
    QCOMPARE(picturesIn(m_output), clipPictures);
    QVERIFY(QFile::exists(u("/dev/full")));
}

void tst_RtmpDownloader::staysSilentWithoutAServer()
{
    QVERIFY(useRealProgram());
    Download download;
    QSignalSpy ends(download.process(),
                    QOverload<int, QProcess::ExitStatus>::of(&QProcess::finished));
    download.downloader.download({{u("rtmp"), u("rtmp://127.0.0.1:1/recorded/clip.flv")}}, m_output,
                                 0, 0);
    QTRY_COMPARE_WITH_TIMEOUT(ends.count(), 2, waitMs);
    QCOMPARE(download.process()->state(), QProcess::NotRunning);
    QCOMPARE(download.results, QList<int>{});
}

CLIPWEIR_TEST_MAIN(tst_RtmpDownloader)
#include "tst_rtmpdownloader.moc"
