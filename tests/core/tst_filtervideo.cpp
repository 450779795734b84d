#include "FilterVideo.h"
#include "ParseData.h"
#include "ScriptedServer.h"
#include "TestFiles.h"
#include "TestMain.h"

namespace {

/// A candidate of a known size, so that no server is asked.
struct Candidate
{
    const char *format;
    int height;
    qint64 size;
};
using Candidates = QList<Candidate>;

ParseData recordOf(const Candidates &candidates)
{
    ParseData data;
    for (const Candidate &candidate : candidates) {
        VideoFile file =
            VideoFile::fromAddress(QStringLiteral("http://h/%1").arg(data.fileList.size()));
        file.strFormat = QLatin1String(candidate.format);
        file.height = candidate.height;
        file.nSize = candidate.size;
        data.fileList += file;
    }
    return data;
}

/// A header and a first byte; nobody waits for the others.
HttpReply firstByte()
{
    HttpReply reply;
    reply.body = "x";
    reply.holdAfterBytes = 1;
    reply.withoutLength = true;
    return reply;
}

HttpReply lengthOnly(qint64 size)
{
    HttpReply reply = firstByte();
    reply.headers = {{"Content-Length", QByteArray::number(size)}};
    return reply;
}

} // namespace

Q_DECLARE_METATYPE(Candidates)

class tst_FilterVideo : public QObject
{
    Q_OBJECT

private:
    static void candidateColumns()
    {
        QTest::addColumn<Candidates>("candidates");
        QTest::addColumn<QString>("options");
        QTest::addColumn<int>("selected");
    }

    static void selects()
    {
        QFETCH(Candidates, candidates);
        QFETCH(QString, options);
        setCommandLine(options);
        ParseData data = recordOf(candidates);
        QVERIFY(CFilterVideo(&data).selectVideo());
        QTEST(data.selectedVideo, "selected");
    }

private slots:
    void init() { setArguments({}); }

    void initTestCase()
    {
        qputenv("CLIPWEIR_COOKIES", "/dev/null"); // not the user's
    }

    void anEmptyListSelectsNothing_data()
    {
        QTest::addColumn<QString>("options");
        QTest::newRow("no wish") << "";
        QTest::newRow("every wish") << "--format 2 --quality 480";
    }

    void anEmptyListSelectsNothing()
    {
        QFETCH(QString, options);
        setCommandLine(options);
        ParseData data;
        data.selectedVideo = 5;
        QVERIFY(!CFilterVideo(&data).selectVideo());
        QCOMPARE(data.selectedVideo, 5);
    }

    void sameFormat_data()
    {
        QTest::addColumn<int>("format");
        QTest::addColumn<QString>("text");
        QTest::addColumn<bool>("isSame");
        QTest::newRow("flv") << 1 << "flv" << true;
        QTest::newRow("mp4") << 2 << "mp4" << true;
        QTest::newRow("flv is not mp4") << 1 << "mp4" << false;
        QTest::newRow("letter case counts") << 2 << "MP4" << false;
        QTest::newRow("empty is not flv") << 1 << "" << false;
        QTest::newRow("empty is not mp4") << 2 << "" << false;
        QTest::newRow("an unknown code wants none") << 7 << "" << true;
        QTest::newRow("an unknown code, mp4") << 7 << "mp4" << false;
        QTest::newRow("a negative code wants none") << -1 << "" << true;
        QTest::newRow("any") << 0 << "" << true;
    }

    void sameFormat()
    {
        QFETCH(int, format);
        QFETCH(QString, text);
        ParseData data;
        QTEST(CFilterVideo(&data).isSameFormat(format, text), "isSame");
    }

    void bySize_data()
    {
        candidateColumns();
        const auto row = [](const char *name, const Candidates &candidates, int selected) {
            QTest::newRow(name) << candidates << QString() << selected;
        };
        row("one", {{"mp4", 0, 5}}, 0);
        row("largest", {{"mp4", 0, 5}, {"flv", 0, 9}, {"mp4", 0, 7}}, 1);
        row("tie: the first", {{"mp4", 0, 5}, {"flv", 0, 9}, {"mp4", 0, 9}}, 1);
        row("above 32 bits", {{"mp4", 0, 4294967295}, {"mp4", 0, 4294967297}}, 1);
        row("a negative size loses", {{"mp4", 0, -9}, {"mp4", 0, 1}}, 1);
        row("all negative: the first of all", {{"mp4", 0, -9}, {"mp4", 0, -1}}, 0);
        row("height does not matter without a wish", {{"mp4", 1080, 5}, {"mp4", 0, 6}}, 1);
    }

    void bySize() { selects(); }

    void byFormat_data()
    {
        candidateColumns();
        const auto row = [](const char *name, const char *options, const Candidates &candidates,
                            int selected) {
            QTest::newRow(name) << candidates << QString::fromLatin1(options) << selected;
        };
        const Candidates mixed{{"flv", 0, 9}, {"mp4", 0, 5}, {"", 0, 7}, {"mp4", 0, 6}};
        row("any", "--format 0", mixed, 0);
        row("flv", "--format 1", mixed, 0);
        row("mp4: the larger of two", "--format 2", mixed, 3);
        row("a word means any", "--format mp4", mixed, 0);
        row("an unknown code wants files without an extension", "--format 9", mixed, 2);
        row("nothing matches: the wish is dropped", "--format 2", {{"flv", 0, 5}, {"flv", 0, 9}},
            1);
        row("empty never matches flv", "--format 1", {{"", 0, 5}, {"", 0, 9}}, 1);
    }

    void byFormat() { selects(); }

    void byQuality_data()
    {
        candidateColumns();
        const auto row = [](const char *name, const char *options, const Candidates &candidates,
                            int selected) {
            QTest::newRow(name) << candidates << QString::fromLatin1(options) << selected;
        };
        row("nearest", "--quality 480", {{"mp4", 720, 9}, {"mp4", 360, 1}}, 1);
        row("tie: the first", "--quality 480", {{"mp4", 400, 1}, {"mp4", 560, 9}}, 0);
        row("tie the other way round", "--quality 480", {{"mp4", 560, 1}, {"mp4", 400, 9}}, 0);
        row("exact", "--quality 480", {{"mp4", 479, 9}, {"mp4", 480, 1}}, 1);
        row("unknown height never wins", "--quality 1", {{"mp4", 0, 9}, {"mp4", 2000, 1}}, 1);
        row("negative height never wins", "--quality 1", {{"mp4", -1, 9}, {"mp4", 2000, 1}}, 1);
        row("no height known: by size", "--quality 480", {{"mp4", 0, 1}, {"mp4", 0, 9}}, 1);
        row("9999 away is near enough", "--quality 1", {{"mp4", 0, 9}, {"mp4", 10000, 1}}, 1);
        row("10000 away is not", "--quality 1", {{"mp4", 0, 9}, {"mp4", 10001, 1}}, 0);
        row("negative wish", "--quality -1", {{"mp4", 0, 9}, {"mp4", 9998, 1}}, 1);
        row("largest wish", "--quality 2147483647", {{"mp4", 2147483647, 1}, {"mp4", 1, 9}}, 0);
        row("lowest wish", "--quality -2147483648", {{"mp4", 2147483647, 1}, {"mp4", 0, 9}}, 1);
        row("among those of the wanted format", "--quality 480 --format 2",
            {{"flv", 480, 9}, {"mp4", 720, 1}, {"mp4", 1080, 5}}, 1);
        row("a nearest file of a negative size", "--quality 480",
            {{"mp4", 720, 9}, {"mp4", 480, -1}}, 0);
    }

    void byQuality() { selects(); }

    void unknownSizesAreAskedOfTheServer()
    {
        ScriptedServer server;
        server.on("/small.mp4", lengthOnly(1000));
        server.on("/large.mp4", lengthOnly(5000000000));
        server.on("/unknown.mp4", firstByte());
        ParseData data;
        for (const char *path : {"/small.mp4", "/unknown.mp4", "/large.mp4", "/known.mp4"})
            data.add(server.address(path));
        data.fileList.last().nSize = 2000;
        QVERIFY(CFilterVideo(&data).selectVideo());
        QCOMPARE(data.selectedVideo, 2);
        QCOMPARE(data.fileList.at(0).nSize, qint64(1000));
        QCOMPARE(data.fileList.at(1).nSize, qint64(0));
        QCOMPARE(data.fileList.at(2).nSize, qint64(5000000000));
        QCOMPARE(server.requests().size(), 3);
        QCOMPARE(server.requestsFor("/known.mp4").size(), 0);
    }

    void everySizeUnknownSelectsTheFirst()
    {
        ScriptedServer server;
        server.onOther([](const HttpRequest &) { return firstByte(); });
        ParseData data;
        data.add(server.address("/1"));
        data.add(server.address("/2"));
        data.add(QStringLiteral("rtmp://127.0.0.1/3"));
        QVERIFY(CFilterVideo(&data).selectVideo());
        QCOMPARE(data.selectedVideo, 0);
        QCOMPARE(server.requests().size(), 2);
    }

    void candidatesThatArriveDuringAProbeCount()
    {
        ScriptedServer server;
        server.on("/1.mp4", lengthOnly(1000));
        ParseData data;
        data.add(server.address("/1.mp4"));
        connect(&server, &ScriptedServer::requestReceived, this, [&data] {
            for (int i = 0; i < 100; ++i) // enough to move the list in memory
                data.add(QStringLiteral("rtmp://h/%1").arg(i));
            data.fileList.last().nSize = 5000;
        });
        QVERIFY(CFilterVideo(&data).selectVideo());
        QCOMPARE(data.fileList.at(0).nSize, qint64(1000));
        QCOMPARE(data.selectedVideo, 100);
    }

    /// No server is asked for the size of what its manifest does not tell.
    void streamsOfUnknownSize()
    {
        ScriptedServer server;
        ParseData data = recordOf({{"mp4", 0, 5000}});
        VideoFile stream = VideoFile::fromAddress(server.address("/l.m3u8"));
        stream.manifest = ManifestAddress::Kind::Hls;
        stream.weight = 4999;
        data.fileList += stream;
        QVERIFY(CFilterVideo(&data).selectVideo());
        QCOMPARE(data.selectedVideo, 0);
        data.fileList[1].weight = 5001;
        QVERIFY(CFilterVideo(&data).selectVideo());
        QCOMPARE(data.selectedVideo, 1);
        QCOMPARE(data.fileList.at(1).nSize, qint64(0));
        QVERIFY(server.requests().isEmpty());
    }
};

CLIPWEIR_TEST_MAIN(tst_FilterVideo)
#include "tst_filtervideo.moc"
