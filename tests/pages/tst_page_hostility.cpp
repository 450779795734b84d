// Whole runs of pages that mean harm to an engine: each ends in order, with what there is to find,
// and leaves nothing.

#include "Leftovers.h"
#include "PageKind.h"
#include "PageRun.h"
#include "PageSite.h"
#include "TestFiles.h"
#include "TestMain.h"
#include "TlsServer.h"

#include <algorithm>
#include <csignal>
#include <cstddef>

namespace {

enum class Outcome { Video, Nothing };

struct HostilePage
{
    const char *name;
    const char *page; ///< of the site, without "hostile-"
    Outcome outcome;
    const char *options = "";
    const char *clip = "clip"; ///< a small one is noted, and the search goes on
};

} // namespace

Q_DECLARE_METATYPE(HostilePage)

namespace {

const HostilePage tricks[] = {
    {"dialogs", "dialogs", Outcome::Video},
    {"dialogs without an end", "dialogs-for-ever", Outcome::Nothing, "--timeout 6"},
    {"windows", "popups", Outcome::Video},
    {"downloads", "downloads", Outcome::Video},
    {"navigation without an end", "navigation", Outcome::Nothing, "--timeout 6"},
    {"history without an end", "history", Outcome::Video},
    {"a script without an end", "endless-script", Outcome::Video, "--timeout 30", "second"},
    {"a script without an end, at once", "endless-at-once", Outcome::Nothing, "--timeout 6"},
    {"fake types", "fake-types", Outcome::Video},
    {"files of the machine", "files", Outcome::Video},
    {"sockets", "sockets", Outcome::Video},
};

/// What fills a machine.
const HostilePage floods[] = {
    {"a document of 1 GB", "document", Outcome::Video, "--timeout 30 --memory 600", "second"},
    {"elements without an end", "elements", Outcome::Video, "--timeout 1000 --memory 600",
     "second"},
    {"a memory bomb", "memory", Outcome::Video, "--timeout 1000 --memory 600", "second"},
    {"workers without an end", "workers", Outcome::Video, "--timeout 1000 --memory 600", "second"},
    {"10,000 requests", "requests", Outcome::Video, "--timeout 400"},
};

/// One text, which a failure shows as a whole.
QString told(const QStringList &list)
{
    return list.join(option(", "));
}

/// All lines of a run, but for progress.
QByteArray linesOf(Outcome outcome, const QString &page, const QByteArray &record)
{
    if (outcome == Outcome::Nothing)
        return parsingLine(page) + fixedLine("parse failed") + fixedLine("detach sharememory");
    return parsingLine(page) + record + fixedLine("start download video ...")
        + fixedLine("video download finished:success") + fixedLine("detach sharememory");
}

/// A page may be beyond its engine before anybody has asked for its title.
QByteArray withoutTitle(QByteArray lines)
{
    const int begin = lines.indexOf("\"title\":\"") + int(qstrlen("\"title\":\""));
    const int end = lines.indexOf("\"}\" \n", begin);
    return end < 0 ? lines : lines.remove(begin, end - begin);
}

HttpReply fakeReply(const HttpRequest &request)
{
    const QByteArray name = request.path().split('/').value(2);
    if (name == "small")
        return mediaReply("no video");
    if (name == "page")
        return mediaReply("<html><script>alert('a page')</script></html>");
    if (name == "sound")
        return mediaReply(QByteArray(1000, '\xff'), "audio/mpeg");
    return mediaReply(QByteArray(1000, '\0'), name == "script" ? "video/mp4" : "text/javascript");
}

} // namespace

class tst_PageHostility : public QObject
{
    Q_OBJECT

    static void serveMore(PageSite &site)
    {
        ScriptedServer &host = site.host();
        for (const char *const path :
             {"/fake/small", "/fake/page", "/fake/sound", "/fake/script", "/fake/picture"})
            host.on(path, fakeReply);
        HttpReply attachment = replyOf(QByteArray(100000, 'x'));
        attachment.headers = {{"Content-Type", "application/octet-stream"},
                              {"Content-Disposition", "attachment; filename=of-the-server.exe"}};
        host.on("/attachment/frame", attachment);
        for (int i = 1; i < 20; i += 2)
            host.on("/attachment/" + QByteArray::number(i), attachment);
        host.on("/many", replyOf("x"));
    }

    /// What a run has in its folder beside what it is for.
    static QStringList strayFiles(const ProgramRun &run)
    {
        QStringList files = filesBelow(run.folder());
        const QRegularExpression ownFile(option("^(tmp|tmp/[0-9A-F]{32}\\.mp4|cookies\\.txt.*)$"));
        files.erase(std::remove_if(files.begin(), files.end(),
                                   [&](const QString &file) {
                                       return ownFile.match(file).hasMatch()
                                           || QFileInfo(run.path(file)).isDir();
                                   }),
                    files.end());
        return files;
    }

    template <std::size_t count> static void addRows(const HostilePage (&pages)[count])
    {
        QTest::addColumn<HostilePage>("hostile");
        for (const HostilePage &page : pages)
            QTest::newRow(page.name) << page;
    }

    static void runPage()
    {
        QFETCH(HostilePage, hostile);
        const QByteArray name = QByteArray("hostile-") + hostile.page;
        PageSite site;
        serveMore(site);
        const QString page = site.page(name);
        const Leftovers left;
        ProgramRun run;
        QVERIFY(run.run(engineOptions(option("chromium")) + QStringList{option("--url"), page}
                            + option(hostile.options).split(QLatin1Char(' '), Qt::SkipEmptyParts),
                        400000));

        const QByteArray lines = run.errorOutput();
        const QByteArray clip = PageSite::media(option(hostile.clip) + option(".mp4"));
        const QString address = site.address(QByteArray("/watch/") + hostile.clip);
        const QByteArray record = recordLine(address, clip.size(), "");
        QCOMPARE(withoutTitle(withoutTold(withoutProgress(lines), address)),
                 linesOf(hostile.outcome, page, record));
        QCOMPARE(run.exitCode(), 0);
        if (hostile.outcome == Outcome::Video) {
            QVERIFY(run.fileContent(option("tmp/") + pageHash(page) + option(".mp4")) == clip);
        }
        QCOMPARE(told(left.processes()), QString());
        QCOMPARE(told(strayFiles(run)), QString());
        QTRY_COMPARE(told(left.files()), QString()); // those of other tests come and go
        for (const char *const path : {"/stolen", "/socket", "/socket-of-worker", "/transport"})
            QVERIFY2(site.host().requestsFor(path).isEmpty(), path);
    }

private slots:
    void trickyPages_data() { addRows(tricks); }
    void trickyPages() { runPage(); }

    void floodingPages_data() { addRows(floods); }
    void floodingPages() { runPage(); }

    void certificates()
    {
        TlsServer server;
        QVERIFY(server.start());
        server.put(option("page.html"), videoPage("/v.mp4"));
        server.put(option("v.mp4"), testBytes(6 * 1024 * 1024));
        const QString page = server.https("/page.html");
        const Leftovers left;
        ProgramRun run;
        QVERIFY(run.run(engineOptions(option("chromium"))
                        + QStringList{option("--url"), page, option("--insecure")}));
        QCOMPARE(run.errorOutput(), linesOf(Outcome::Nothing, page, QByteArray()));
        QCOMPARE(told(left.processes()), QString());
    }

    /// Nobody is left who could end the engine but what ends it then.
    void killedRun()
    {
        PageSite site;
        const Leftovers left;
        ProgramRun run;
        run.start(engineOptions(option("chromium"))
                  + QStringList{option("--url"), site.page("hostile-endless-at-once")});
        QTRY_VERIFY_WITH_TIMEOUT(
            !site.host().requestsFor("/hostile-endless-at-once.html").isEmpty(), 30000);
        QVERIFY(left.processes().size() > 1);
        ::kill(pid_t(run.process().processId()), SIGKILL);
        QTRY_COMPARE_WITH_TIMEOUT(told(left.processes()), QString(), 20000);
        QTRY_COMPARE(told(left.files()), QString());
        QVERIFY(run.waitForEnd());
    }
};

CLIPWEIR_TEST_MAIN(tst_PageHostility)
#include "tst_page_hostility.moc"
