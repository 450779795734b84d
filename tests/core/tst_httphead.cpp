#include "Nginx.h"
#include "StandIn.h"
#include "TestMain.h"
#include "httpHead.h"

#include <QProcess>
#include <QTemporaryDir>

#include <limits>
#include <memory>

namespace {

constexpr int waitMs = 30000;

QString u(const char *text)
{
    return QString::fromUtf8(text);
}

/// Makes a media file with ffmpeg.
bool makeClip(const QString &path, const QStringList &options)
{
    QProcess ffmpeg;
    ffmpeg.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    ffmpeg.start(u("ffmpeg"), QStringList{u("-v"), u("error"), u("-y")} << options << path);
    return ffmpeg.waitForFinished(60000) && ffmpeg.exitStatus() == QProcess::NormalExit
        && ffmpeg.exitCode() == 0;
}

QStringList picture(const char *size, int seconds)
{
    return {u("-f"), u("lavfi"), u("-i"),
            u("testsrc=size=%1:rate=10:duration=%2").arg(u(size)).arg(seconds)};
}

QStringList tone(int seconds)
{
    return {u("-f"), u("lavfi"), u("-i"), u("sine=duration=%1").arg(seconds)};
}

} // namespace

class tst_HttpHead : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanupTestCase();

    void readsFiles_data();
    void readsFiles();
    void readsAnAddress();
    void readsOnlyAPartOfALongFile();
    void endsWithoutValuesWhenThereIsNothingToRead_data();
    void endsWithoutValuesWhenThereIsNothingToRead();

    void passesTheAddressOnAsItIs();
    void readsOutput_data();
    void readsOutput();
    void aMatchAcrossChunksIsNotFound();
    void aLineInSmallPiecesIsOneChunk();
    void endlessOutputIsReadPieceByPiece();
    void theFirstValuesStay();
    void endsWhateverTheExitCode_data();
    void endsWhateverTheExitCode();
    void missingProgramEndsWithoutASignal();
    void aRunningProgramEndsWithItsObject();

private:
    [[nodiscard]] QString path(const char *name) const { return m_folder.filePath(u(name)); }
    [[nodiscard]] bool useRealProgram() const { return m_program->link(u("/usr/bin/ffmpeg")); }

    QTemporaryDir m_folder;
    QString m_folderBefore;
    std::unique_ptr<StandIn> m_program;
};

void tst_HttpHead::initTestCase()
{
    m_folderBefore = QDir::currentPath();
    qRegisterMetaType<QProcess::ProcessError>();
    QVERIFY(QDir::setCurrent(m_folder.path()));
    m_program = std::make_unique<StandIn>(path("import/bin/ffmpeg"));
    QVERIFY(makeClip(path("video.mp4"), picture("640x360", 7) + tone(7)));
    QVERIFY(makeClip(path("audio.mp3"), tone(65)));
    // Raw pictures: big, and with the index at the end of the file.
    QVERIFY(makeClip(path("long.mov"),
                     picture("320x240", 20)
                         + QStringList{u("-c:v"), u("rawvideo"), u("-pix_fmt"), u("rgb24")}));
    QVERIFY(makeClip(path("two.mkv"),
                     picture("320x240", 3) + picture("160x120", 3)
                         + QStringList{u("-map"), u("0"), u("-map"), u("1")}));
    QVERIFY(makeClip(path("short.avi"), picture("200x100", 1) + QStringList{u("-t"), u("0.5")}));
    QVERIFY(
        makeClip(path("live.h264"), picture("176x144", 2) + QStringList{u("-c:v"), u("libx264")}));
}

void tst_HttpHead::cleanupTestCase()
{
    QDir::setCurrent(m_folderBefore);
}

void tst_HttpHead::readsFiles_data()
{
    QTest::addColumn<QString>("file");
    QTest::addColumn<int>("duration");
    QTest::addColumn<QSize>("size");
    QTest::newRow("picture and sound") << u("video.mp4") << 7 << QSize(640, 360);
    QTest::newRow("sound only, over a minute") << u("audio.mp3") << 65 << QSize(0, 0);
    QTest::newRow("several pictures, the first counts") << u("two.mkv") << 3 << QSize(320, 240);
    QTest::newRow("duration N/A") << u("live.h264") << 0 << QSize(176, 144);
    QTest::newRow("less than a second") << u("short.avi") << 0 << QSize(200, 100);
}

void tst_HttpHead::readsFiles()
{
    QVERIFY(useRealProgram());
    QFETCH(QString, file);
    HttpHead probe(file);
    QSignalSpy spy(&probe, &HttpHead::getHeadInfoFinished);
    probe.callffmpeg();
    QVERIFY(spy.wait(waitMs));
    QTEST(probe.getVideoDuration(), "duration");
    QTEST(probe.getVideoSolution(), "size");
}

void tst_HttpHead::readsAnAddress()
{
    QVERIFY(useRealProgram());
    Nginx server(m_folder.path());
    QVERIFY(server.start());
    HttpHead probe(server.address(u("/video.mp4?a=b&c")));
    QSignalSpy spy(&probe, &HttpHead::getHeadInfoFinished);
    probe.callffmpeg();
    QVERIFY(spy.wait(waitMs));
    QCOMPARE(probe.getVideoDuration(), 7);
    QCOMPARE(probe.getVideoSolution(), QSize(640, 360));
    QVERIFY(server.accessLog().join('\n').contains("GET /video.mp4?a=b&c "));
}

void tst_HttpHead::readsOnlyAPartOfALongFile()
{
    QVERIFY(useRealProgram());
    const qint64 fileBytes = QFileInfo(path("long.mov")).size();
    QVERIFY(fileBytes > 40'000'000);
    Nginx server(m_folder.path());
    const QString log =
        path("part.log"); // a line: address - user [time] "request" status bytes ...
    server.setServerText("location = /long.mov { access_log " + log.toUtf8() + " combined; }");
    QVERIFY(server.start());
    HttpHead probe(server.address(u("/long.mov")));
    QSignalSpy spy(&probe, &HttpHead::getHeadInfoFinished);
    probe.callffmpeg();
    QVERIFY(spy.wait(waitMs));
    QCOMPARE(probe.getVideoDuration(), 20);
    QCOMPARE(probe.getVideoSolution(), QSize(320, 240));

    // What was left in the sockets counts as sent, hence no closer limit.
    server.stop();
    QFile file(log);
    QVERIFY(file.open(QIODevice::ReadOnly));
    qint64 sentBytes = 0;
    int requests = 0;
    for (const QByteArray &line : file.readAll().split('\n')) {
        const QByteArray rest = line.mid(line.indexOf("\" 20") + 2);
        sentBytes += rest.split(' ').value(1).toLongLong();
        requests += rest.startsWith("20") ? 1 : 0;
    }
    QVERIFY(requests >= 2);
    QVERIFY2(sentBytes > 0 && sentBytes < fileBytes / 2, qPrintable(QString::number(sentBytes)));
}

void tst_HttpHead::endsWithoutValuesWhenThereIsNothingToRead_data()
{
    QTest::addColumn<QString>("address");
    QTest::newRow("no such file") << u("missing.mp4");
    QTest::newRow("not a media file") << u("import/bin/../../notes.txt");
    QTest::newRow("empty") << QString();
    QTest::newRow("looks like an option") << u("-version");
    QTest::newRow("nobody listens") << u("http://127.0.0.1:1/a.mp4");
    QTest::newRow("no address") << u("http://[");
}

void tst_HttpHead::endsWithoutValuesWhenThereIsNothingToRead()
{
    QVERIFY(useRealProgram());
    QFile notes(path("notes.txt"));
    QVERIFY(notes.open(QIODevice::WriteOnly) && notes.write("Nothing to see.\n") > 0);
    notes.close();
    QFETCH(QString, address);
    HttpHead probe(address);
    QSignalSpy spy(&probe, &HttpHead::getHeadInfoFinished);
    probe.callffmpeg();
    QVERIFY(spy.wait(waitMs));
    QCOMPARE(probe.getVideoDuration(), 0);
    QCOMPARE(probe.getVideoSolution(), QSize(0, 0));
}

void tst_HttpHead::passesTheAddressOnAsItIs()
{
    QVERIFY(m_program->install("pass"));
    const QString address = u("http://h/a b?\"c\" $d %20\xc3\xa9 'e'");
    HttpHead probe(address);
    QSignalSpy spy(&probe, &HttpHead::getHeadInfoFinished);
    probe.callffmpeg();
    QVERIFY(spy.wait(waitMs));
    QCOMPARE(m_program->runs(), QList<QStringList>{(QStringList{u("-i"), address})});
}

void tst_HttpHead::readsOutput_data()
{
    QTest::addColumn<QByteArray>("output"); // inside a Python bytes literal
    QTest::addColumn<int>("duration");
    QTest::addColumn<QSize>("size");
    const auto row = [](const char *name, const char *output, int duration, QSize size = {0, 0}) {
        QTest::newRow(name) << QByteArray(output) << duration << size;
    };
    row("minutes", "  Duration: 00:03:25.12, start: 0.000000, bitrate: 900 kb/s", 205);
    row("an hour", "  Duration: 01:00:00.00, start: 0.000000", 3600);
    row("days", "Duration: 100:00:01.99,", 360001);
    row("N/A", "  Duration: N/A, bitrate: N/A", 0);
    row("nothing behind it", "Duration:, Duration: 00:00:04.00,", 4);
    row("no comma", "Duration: 00:00:04.00", 4);
    row("spaces for colons", "Duration: 1 30,", 90);
    row("four parts", "Duration: 1:0:0:0,", 216000);
    row("empty parts", "Duration: :1::,", 3600);
    row("point first", "Duration: .5,", 0);
    row("other letter case", "duration: 00:00:04.00,", 0);
    row("too big a number", "Duration: 99999999999:07,", 7);
    row("beyond the range", "Duration: 2000000000:00:00,", std::numeric_limits<int>::max());
    row("many parts", "Duration: 9' + 9000 * b':9' + b',", std::numeric_limits<int>::max());
    row("picture", "Video: h264 (avc1 / 0x31637661), yuv420p, 640x360 [SAR 1:1]", 0, {640, 360});
    row("between a comma and a bracket", ",640x360[", 0, {640, 360});
    row("after a colon", "size:320x240", 0, {320, 240});
    row("one digit wide", "0x100", 0);
    row("one digit high", "100x1", 0);
    row("two digits", "10x10", 0, {10, 10});
    row("nine digits", "123456789x987654321", 0, {123456789, 987654321});
    row("ten digits", "1234567890x12345678901", 0, {234567890, 123456789});
    row("first of several", "640x360, 10 fps\\n320x240", 0, {640, 360});
    row("both", "Duration: 00:00:04.00, start\\n Video: rawvideo, 64x48,", 4, {64, 48});
    row("behind a NUL byte", "a\\0Duration: 00:00:04.00, 64x48", 0);
    row("before a NUL byte", "Duration: 00:00:04.00, 64x48\\0", 4, {64, 48});
    row("no ASCII", "\\xff\\xfe Duration: 00:00:04.00, \\xe9 64x48", 4, {64, 48});
    row("nothing", "", 0);
}

void tst_HttpHead::readsOutput()
{
    QFETCH(QByteArray, output);
    QVERIFY(m_program->install("text = b'" + output + "'\nif text: say(text)\n"));
    HttpHead probe(u("any"));
    QSignalSpy spy(&probe, &HttpHead::getHeadInfoFinished);
    probe.callffmpeg();
    QVERIFY(spy.wait(waitMs));
    QTEST(probe.getVideoDuration(), "duration");
    QTEST(probe.getVideoSolution(), "size");
}

void tst_HttpHead::aMatchAcrossChunksIsNotFound()
{
    QVERIFY(m_program->install("say(b'64x48, Dura')\n"
                               "wait()\n"
                               "say(b'tion: 00:00:04.00, start')\n"));
    HttpHead probe(u("any"));
    QSignalSpy spy(&probe, &HttpHead::getHeadInfoFinished);
    probe.callffmpeg();
    QTRY_COMPARE(probe.getVideoSolution(), QSize(64, 48));
    m_program->proceed();
    QVERIFY(spy.wait(waitMs));
    QCOMPARE(probe.getVideoDuration(), 0);
}

void tst_HttpHead::aLineInSmallPiecesIsOneChunk()
{
    QVERIFY(m_program->install("for piece in b'  Duration: ', b'00:00:04', b'.00', b', start: ', "
                               "b'\\n 6', b'4x', b'48':\n    os.write(1, piece)\n"));
    HttpHead probe(u("any"));
    QSignalSpy spy(&probe, &HttpHead::getHeadInfoFinished);
    probe.callffmpeg();
    QVERIFY(spy.wait(waitMs));
    QCOMPARE(probe.getVideoDuration(), 4);
    QCOMPARE(probe.getVideoSolution(), QSize(64, 48));
}

void tst_HttpHead::endlessOutputIsReadPieceByPiece()
{
    QVERIFY(m_program->install("text = b'Duration: 00:00:04.00, 64x48' + b' ' * 5000\n"
                               "while True: os.write(1, text)\n"));
    HttpHead probe(u("any"));
    QSignalSpy spy(&probe, &HttpHead::getHeadInfoFinished);
    probe.callffmpeg();
    QTRY_COMPARE(probe.getVideoSolution(), QSize(64, 48));
    QCOMPARE(probe.getVideoDuration(), 4);
    QCOMPARE(spy.count(), 0);
}

void tst_HttpHead::theFirstValuesStay()
{
    QVERIFY(m_program->install("say(b'Duration: N/A, 1x1')\n"
                               "wait()\n"
                               "say(b'Duration: 00:00:04.00, 1x1')\n"
                               "wait()\n"
                               "say(b'Duration: 00:00:05.00, 64x48')\n"
                               "wait()\n"
                               "say(b'Duration: 00:00:06.00, 32x24')\n"));
    HttpHead probe(u("any"));
    QCOMPARE(probe.getVideoDuration(), 0);
    QCOMPARE(probe.getVideoSolution(), QSize(0, 0));
    QSignalSpy spy(&probe, &HttpHead::getHeadInfoFinished);
    probe.callffmpeg();
    auto *const pause = probe.findChild<QTimer *>();
    QSignalSpy chunks(pause, &QTimer::timeout);
    QTRY_COMPARE(chunks.count(), 1);
    m_program->proceed();
    QTRY_COMPARE(probe.getVideoDuration(), 4);
    m_program->proceed();
    QTRY_COMPARE(probe.getVideoSolution(), QSize(64, 48));
    m_program->proceed();
    QVERIFY(spy.wait(waitMs));
    QCOMPARE(probe.getVideoDuration(), 4);
    QCOMPARE(probe.getVideoSolution(), QSize(64, 48));
    QCOMPARE(spy.count(), 1);
}

void tst_HttpHead::endsWhateverTheExitCode_data()
{
    QTest::addColumn<QByteArray>("end");
    QTest::newRow("success") << QByteArray("sys.exit(0)");
    QTest::newRow("error") << QByteArray("sys.exit(1)");
    QTest::newRow("crash") << QByteArray("os.abort()");
    QTest::newRow("standard error only") << QByteArray("os.dup2(2, 1)");
}

void tst_HttpHead::endsWhateverTheExitCode()
{
    QFETCH(QByteArray, end);
    QVERIFY(m_program->install("os.write(2, b'Duration: 00:00:04.00,')\n" + end));
    HttpHead probe(u("any"));
    QSignalSpy spy(&probe, &HttpHead::getHeadInfoFinished);
    probe.callffmpeg();
    QVERIFY(spy.wait(waitMs));
    QCOMPARE(probe.getVideoDuration(), 4);
}

void tst_HttpHead::missingProgramEndsWithoutASignal()
{
    m_program->remove();
    HttpHead probe(u("any"));
    QSignalSpy spy(&probe, &HttpHead::getHeadInfoFinished);
    QSignalSpy errors(probe.findChild<QProcess *>(), &QProcess::errorOccurred);
    probe.callffmpeg();
    QTRY_COMPARE(errors.count(), 1);
    QCOMPARE(errors.first().first().value<QProcess::ProcessError>(), QProcess::FailedToStart);
    QCOMPARE(spy.count(), 0);
}

void tst_HttpHead::aRunningProgramEndsWithItsObject()
{
    QVERIFY(m_program->install("say(b'Duration: 00:00:04.00,')\nhang()"));
    qint64 processId = 0;
    {
        HttpHead probe(u("any"));
        QSignalSpy spy(&probe, &HttpHead::getHeadInfoFinished);
        probe.callffmpeg();
        QTRY_COMPARE(probe.getVideoDuration(), 4);
        processId = probe.findChild<QProcess *>()->processId();
        QVERIFY(QFile::exists(u("/proc/%1").arg(processId)));
        QCOMPARE(spy.count(), 0);
    }
    QVERIFY(!QFile::exists(u("/proc/%1").arg(processId)));
}

CLIPWEIR_TEST_MAIN(tst_HttpHead)
#include "tst_httphead.moc"
