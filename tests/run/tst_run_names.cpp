#include "HdsFixtures.h"
#include "PageRun.h"
#include "TestFiles.h"
#include "TestMain.h"

#include <vector>

namespace {

/// Headers by which a server proposes a name of its own.
HttpReply named(HttpReply reply)
{
    reply.headers += qMakePair(QByteArray("Content-Disposition"),
                               QByteArray("attachment; filename=\"../../evil.sh\""));
    reply.headers += qMakePair(QByteArray("Content-Location"), QByteArray("/../../evil.sh"));
    return reply;
}

HttpReply redirectTo(const QByteArray &address)
{
    HttpReply reply;
    reply.status = 302;
    reply.headers = {{"Location", address}};
    return named(reply);
}

/// The files below a run's working folder, without the folders that the program and the toolkit
/// keep of their own.
QStringList written(const ProgramRun &run)
{
    QStringList paths;
    for (const QString &path : filesBelow(run.folder())) {
        if (QFileInfo(run.path(path)).isFile() && !path.startsWith(QLatin1String("cookies.txt"))
            && !path.startsWith(QLatin1String("data/")) && !path.startsWith(QLatin1String("cache/"))
            && !path.startsWith(QLatin1String("config/")) && !path.startsWith(QLatin1Char('.')))
            paths += path;
    }
    return paths;
}

} // namespace

/// Names that pages, manifests and servers propose, and where files end up.
class tst_RunNames : public QObject
{
    Q_OBJECT

private slots:
    /// Titles as names, all at once. Each run may write one file, in the output folder.
    void titles()
    {
        const QList<QPair<QByteArray, QString>> rows{
            {"../../evil", option(".._.._evil.mp4")},
            {"/etc/cron.d/evil", option("_etc_cron.d_evil.mp4")},
            {"..", option("...mp4")},
            {"..\\..\\evil", option(".._.._evil.mp4")},
            {".bashrc", option(".bashrc.mp4")},
            {"-rf", option("-rf.mp4")},
            {"&#0;../evil", QString::fromUtf8("\xef\xbf\xbd.._evil.mp4")},
            {"CON", option("CON.mp4")},
            {"\xe2\x80\xae"
             "4pm.evil",
             QString::fromUtf8("\xe2\x80\xae"
                               "4pm.evil.mp4")},
            {QByteArray(5000, 'n'), QString(251, QLatin1Char('n')) + option(".mp4")},
            {QByteArray("\xe4\xb8\xad").repeated(500),
             QString::fromUtf8("\xe4\xb8\xad").repeated(83) + option(".mp4")},
            {"a&#10;&#27;[2Jb", option("a[2Jb.mp4")},
            {"%2e%2e%2fevil", option("%2e%2e%2fevil.mp4")},
        };
        ScriptedServer server;
        const QByteArray video = testBytes(5300000);
        server.on("/v.mp4", named(mediaReply(video)));
        std::vector<std::unique_ptr<ProgramRun>> runs;
        for (int i = 0; i < rows.size(); ++i) {
            const QByteArray path = "/page" + QByteArray::number(i);
            server.on(path,
                      htmlReply(videoPage("/v.mp4", "<title>" + rows.at(i).first + "</title>")));
            runs.push_back(std::make_unique<ProgramRun>());
            runs.back()->start({option("--url"), server.address(path), option("--smartname")});
        }
        for (int i = 0; i < rows.size(); ++i) {
            ProgramRun &run = *runs.at(static_cast<size_t>(i));
            QVERIFY(run.waitForEnd(120000));
            QVERIFY2(run.errorOutput().contains(fixedLine("video download finished:success")),
                     run.errorOutput());
            QCOMPARE(written(run), QStringList{option("tmp/") + rows.at(i).second});
        }
    }

    void headersAndRedirects()
    {
        ScriptedServer server;
        const QByteArray video = testBytes(6000000);
        server.on("/page",
                  htmlReply(videoPage("/v.mp4",
                                      "<title>/x/y</title><meta property=\"og:image\" content=\""
                                          + server.address("/t.png").toUtf8() + "\">")));
        server.on("/v.mp4", [&](const HttpRequest &request) {
            return isFromDownloader(request) ? redirectTo("/%2e%2e/..%2f../evil.sh")
                                             : named(mediaReply(video));
        });
        server.on("/t.png", redirectTo("/evil.png"));
        server.on("/evil.png", named(mediaReply("picture", "image/png")));
        server.onOther([&](const HttpRequest &) { return named(mediaReply(video)); });
        const QString page = server.address("/page");
        ProgramRun run;
        QVERIFY(run.run({option("--url"), page, option("--thumb"), option("--log")}));
        QVERIFY(run.errorOutput().contains(fixedLine("video download finished:success")));
        const QString name = option("tmp/") + pageHash(page);
        QStringList expected{name + option(".mp4"), csvPath(),
                             option("tmp/logs/") + pageHash(page) + option(".log")};
        expected.sort();
        QStringList paths = written(run);
        paths.removeAll(name + option(".thumb")); // the run does not wait for it
        QCOMPARE(paths, expected);
    }

    /// What the engine is asked to save is not saved.
    void aDownloadThatThePageForces_data()
    {
        QTest::addColumn<QByteArray>("page");
        QTest::newRow("link and frame")
            << QByteArray("<a id=a href='/evil.bin' download='../../evil.sh'>x</a>"
                          "<script>document.getElementById('a').click()</script>"
                          "<iframe src='/evil.bin'></iframe>");
        QTest::newRow("frame") << QByteArray("<iframe src='/evil.bin'></iframe>");
        QTest::newRow("script") << QByteArray("<script>location='/evil.bin'</script>");
    }

    void aDownloadThatThePageForces()
    {
        QFETCH(QByteArray, page);
        ScriptedServer server;
        server.onOther([](const HttpRequest &) {
            return named(mediaReply("evil", "application/octet-stream"));
        });
        server.on("/page", htmlReply(page));
        ProgramRun run;
        run.start({option("--url"), server.address("/page")});
        QVERIFY(QTest::qWaitFor([&] { return !server.requestsFor("/evil.bin").isEmpty(); }, 60000));
        run.process().terminate();
        QVERIFY(run.waitForEnd());
        QCOMPARE(written(run), QStringList());
    }

    void streams_data()
    {
        QTest::addColumn<QByteArray>("media");
        QTest::newRow("up") << QByteArray("../../../evil");
        QTest::newRow("root") << QByteArray("/etc/evil");
        QTest::newRow("up only") << QByteArray("s/..");
        QTest::newRow("Windows") << QByteArray("..\\..\\evil");
        QTest::newRow("escaped") << QByteArray("..%2f..%2fevil");
        QTest::newRow("long") << QByteArray(5000, 'n');
        QTest::newRow("line break") << QByteArray("a&#10;b");
        QTest::newRow("dash") << QByteArray("-rf");
        QTest::newRow("direction") << QByteArray("&#x202e;4pm");
        QTest::newRow("tilde") << QByteArray("~/evil");
        QTest::newRow("end of a folder") << QByteArray("evil/");
    }

    void streams()
    {
        QFETCH(QByteArray, media);
        ScriptedServer server;
        server.on("/s/m.f4m",
                  named(mediaReply(hds::manifest(media, hds::simpleBootstrap(2)), "video/f4m")));
        server.on("/page",
                  htmlReply("<script>var x=new XMLHttpRequest();"
                            "x.open('GET','/s/m.f4m?--outDir=/etc&--outFile=../evil');"
                            "x.send()</script>"));
        server.onOther([](const HttpRequest &request) {
            HttpReply reply;
            if (request.target.contains("Frag1"))
                reply.body = hds::numberedFragment(1);
            else if (request.target.contains("Frag2"))
                reply.body = hds::numberedFragment(2);
            else
                reply.status = 404;
            return named(reply);
        });
        const QString page = server.address("/page");
        ProgramRun run;
        QVERIFY(run.run({option("--url"), page, option("--f4f")}));
        QVERIFY2(run.errorOutput().contains(fixedLine("video download finished:success")),
                 run.errorOutput());
        QStringList paths = written(run);
        QCOMPARE(paths.removeAll(option("tmp/") + pageHash(page) + option(".flv")), 1);
        QCOMPARE(paths.size(), 2);
        for (const QString &path : qAsConst(paths)) {
            QVERIFY2(path.startsWith(option("tmp/f4ftmp/")), qPrintable(path));
            const QString name = path.mid(option("tmp/f4ftmp/").size());
            QVERIFY2(!name.contains(QLatin1Char('/')) && !name.contains(QLatin1Char('\\')),
                     qPrintable(name));
        }
    }

    /// Fragments replace what lies in the cache under their names, links included: nothing outside
    /// is written through them.
    void aLinkInTheCache()
    {
        ScriptedServer server;
        server.on("/s/m.f4m", mediaReply(hds::manifest("s", hds::simpleBootstrap(1)), "video/f4m"));
        server.on("/s/sSeg1-Frag1", mediaReply(hds::numberedFragment(1)));
        const QString page = server.address("/s/m.f4m");
        ProgramRun run;
        const QString outside = run.path(option("outside"));
        writeFile(outside, QByteArray());
        const QString link =
            run.path(option("tmp/f4ftmp/")) + pageHash(page) + option("_sSeg1-Frag1");
        QVERIFY(QDir().mkpath(run.path(option("tmp/f4ftmp"))));
        QVERIFY(QFile::link(outside, link));
        QVERIFY(run.run({option("--url"), page, option("--f4f")}));
        QVERIFY(run.errorOutput().contains(fixedLine("video download finished:success")));
        QCOMPARE(readFile(outside), QByteArray(""));
        QVERIFY(!QFileInfo(link).isSymLink());
        QCOMPARE(readFile(link), hds::numberedFragment(1));
    }
};

CLIPWEIR_TEST_MAIN(tst_RunNames)
#include "tst_run_names.moc"
