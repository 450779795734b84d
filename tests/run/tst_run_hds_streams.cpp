#include "MediaFiles.h"
#include "Packaged.h"
#include "PageRun.h"
#include "TestMain.h"

namespace {

const QString packager = QStringLiteral("-c copy -f hds -min_frag_duration 1000000 .");

/// A page whose script asks for documents, as a player's does, one after the other.
QByteArray pageAskingFor(const QByteArray &addresses)
{
    return "<body><script>function ask(list) { if (!list.length) return;"
           "var x = new XMLHttpRequest(); x.open('GET', list[0]);"
           "x.onloadend = function () { ask(list.slice(1)); }; x.send(); } ask(["
        + addresses + ", '/end']);</script></body>";
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

} // namespace

/// Whole runs with "--streams" over what ffmpeg's packager of HTTP Dynamic Streaming makes.
class tst_RunHdsStreams : public QObject
{
    Q_OBJECT

    static QStringList arguments(const QString &page, const QStringList &more = {})
    {
        return QStringList{option("--url"), page, option("--streams"), option("--events"),
                           option("--strict")}
        + more;
    }

    static QString serve(Packaged &packaged, const QByteArray &html)
    {
        packaged.server.on("/page", htmlReply(html));
        return packaged.server.address("/page");
    }

    static QString outputOf(const ProgramRun &run, const QString &page)
    {
        return run.path(option("tmp/") + pageHash(page) + option(".flv"));
    }

    /// The file has every packet of the source, in order.
    static void checkFile(const QString &path, const QString &source)
    {
        QCOMPARE(MediaFiles::packets(path, "v:0"), MediaFiles::packets(source, "v:0"));
        QCOMPARE(MediaFiles::packets(path, "a:0"), MediaFiles::packets(source, "a:0"));
        QCOMPARE(MediaFiles::complaints(path), QByteArray());
    }

private slots:
    void becomesOneFile_data()
    {
        QTest::addColumn<QByteArray>("html");
        QTest::addColumn<QByteArray>("manifest");
        QTest::addColumn<QStringList>("more");
        const QByteArray player =
            pageAskingFor("'/index.f4m', '/stream0.abst', '/stream0Seg1-Frag1', "
                          "'/stream0Seg1-Frag2'");
        QTest::newRow("a player's requests") << player << QByteArray("/index.f4m") << QStringList();
        QTest::newRow("with the other way of capturing such streams, too")
            << player << QByteArray("/index.f4m") << QStringList{option("--f4f")};
        QTest::newRow("by its type")
            << pageAskingFor("'/play'") << QByteArray("/play") << QStringList();
        QTest::newRow("named in the page")
            << QByteArray("<div data-options='{\"src\": \"/index.f4m\"}'></div>")
            << QByteArray("/index.f4m") << QStringList();
    }

    void becomesOneFile()
    {
        QFETCH(QByteArray, html);
        QFETCH(QByteArray, manifest);
        QFETCH(QStringList, more);
        Packaged packaged(packager, Packaged::Input::Whole);
        QVERIFY(packaged.isMade);
        packaged.server.on("/play",
                           mediaReply(readFile(packaged.path("index.f4m")), "application/f4m+xml"));
        const QString page = serve(packaged, html);
        ProgramRun run;
        QVERIFY(run.run(arguments(page, more)));
        QCOMPARE(result(run, "class").toString(), option("complete"));
        QCOMPARE(run.exitCode(), 0);
        const QJsonArray candidates = candidatesOf(run);
        QCOMPARE(candidates.size(), 1);
        const QJsonObject stream = candidates.at(0).toObject();
        QCOMPARE(stream.value(option("videoUrl")).toString(), packaged.server.address(manifest));
        QCOMPARE(stream.value(option("urlType")).toString(), option("hds"));
        QCOMPARE(stream.value(option("strFormat")).toString(), option("flv"));
        QCOMPARE(stream.value(option("width")).toInt(), 64);
        QCOMPARE(stream.value(option("height")).toInt(), 48);
        QVERIFY(stream.value(option("nSize")).toInt() > 1000);
        const QString path = outputOf(run, page);
        QCOMPARE(result(run, "path").toString(), path);
        checkFile(path, packaged.path("whole.mp4"));
        QVERIFY(run.errorOutput().contains(composedLine("downloaded:6/6")));
        const QByteArray bytes = QByteArray::number(QFileInfo(path).size());
        QVERIFY(run.errorOutput().endsWith(composedLine("downloaded:" + bytes + '/' + bytes)
                                           + fixedLine("video download finished:success")
                                           + fixedLine("detach sharememory")));
        for (const HttpRequest &request : packaged.server.requestsFor("/stream0Seg1-Frag5"))
            QCOMPARE(request.header("Referer"), page.toLatin1());
    }

    /// Each rendition has a bootstrap of its own.
    void quality_data()
    {
        QTest::addColumn<QByteArray>("quality");
        QTest::addColumn<int>("height");
        QTest::newRow("none: the highest") << QByteArray() << 96;
        QTest::newRow("the lower one") << QByteArray("40") << 48;
    }

    void quality()
    {
        QFETCH(QByteArray, quality);
        QFETCH(int, height);
        Packaged packaged(QStringLiteral("-vf scale=128:96 -c:v libx264 -preset ultrafast -g 25 "
                                         "-c:a copy big.mp4"),
                          Packaged::Input::Whole);
        QVERIFY(packaged.isMade
                && packaged.runs(QStringLiteral("-i whole.mp4 -i big.mp4 -map 0:v -map 0:a "
                                                "-map 1:v -map 1:a ")
                                 + packager));
        const QString page = serve(packaged, pageAskingFor("'/index.f4m'"));
        QStringList more;
        if (!quality.isEmpty())
            more = QStringList{option("--quality"), QString::fromLatin1(quality)};
        ProgramRun run;
        QVERIFY(run.run(arguments(page, more)));
        QCOMPARE(run.exitCode(), 0);
        QCOMPARE(candidatesOf(run).at(0).toObject().value(option("height")).toInt(), height);
        checkFile(outputOf(run, page), packaged.path(height == 48 ? "whole.mp4" : "big.mp4"));
    }

    void protectedOnes()
    {
        Packaged packaged(packager, Packaged::Input::Whole);
        QVERIFY(packaged.isMade);
        QByteArray text = readFile(packaged.path("index.f4m"));
        text.replace("<media ",
                     "<drmAdditionalHeader id=\"d\" url=\"d.drm\"/><media "
                     "drmAdditionalHeaderId=\"d\" ");
        packaged.server.on("/index.f4m", mediaReply(text, "application/f4m+xml"));
        const QString page = serve(packaged, pageAskingFor("'/index.f4m'"));
        ProgramRun run;
        QVERIFY(run.run(arguments(page, {option("--timeout"), option("3")})));
        QCOMPARE(result(run, "class").toString(), option("protected"));
        QCOMPARE(run.exitCode(), 36);
        QVERIFY(run.errorOutput().contains("\nstream refused: \""));
        QVERIFY(!QFile::exists(outputOf(run, page)));
        QVERIFY(packaged.server.requestsFor("/stream0Seg1-Frag1").isEmpty());
    }

    /// There is a file of the rest, which is no success for a strict caller.
    void aMissingFragment()
    {
        Packaged packaged(packager, Packaged::Input::Whole);
        QVERIFY(packaged.isMade);
        packaged.server.on("/stream0Seg1-Frag3", replyOf("", 404));
        const QString page = serve(packaged, pageAskingFor("'/index.f4m'"));
        ProgramRun run;
        QVERIFY(run.run(arguments(page, {option("--stall"), option("2")})));
        QCOMPARE(result(run, "class").toString(), option("incomplete"));
        QCOMPARE(run.exitCode(), 35);
        QCOMPARE(run.events("partsMissing").value(0).value(option("missing")).toInt(), 1);
        QCOMPARE(MediaFiles::packets(outputOf(run, page), "v:0").size(), 125);
    }

    /// Asked to stop while a live one goes on: the file is finished with what has come.
    void liveUntilAStop()
    {
        Packaged packaged(packager, Packaged::Input::Whole);
        QVERIFY(packaged.isMade);
        QByteArray bootstrap = readFile(packaged.path("stream0.abst"));
        bootstrap[16] = 0x20; // live
        packaged.server.on("/stream0.abst", replyOf(bootstrap));
        const QString page = serve(packaged, pageAskingFor("'/index.f4m'"));
        ProgramRun run;
        run.start(arguments(page));
        QVERIFY(run.waitForOutput("\"downloaded:6/0\""));
        QVERIFY(askToExit(page));
        QVERIFY(run.waitForEnd());
        QCOMPARE(result(run, "class").toString(), option("stopped"));
        checkFile(outputOf(run, page), packaged.path("whole.mp4"));
    }
};

CLIPWEIR_TEST_MAIN(tst_RunHdsStreams)
#include "tst_run_hds_streams.moc"
