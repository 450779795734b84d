// Whole runs of pages that will not go: what they do when their time is over must not cost the
// video that was found.

#include "PageRun.h"
#include "TestMain.h"

namespace {

const char endless[] = "for(;;);";

QByteArray scriptedPage(const QByteArray &script)
{
    return "<html><body><script>" + script
        + "</script><video src='/v.mp4' autoplay></video></body></html>";
}

} // namespace

class tst_RunUnload : public QObject
{
    Q_OBJECT

private slots:
    void aFoundVideoIsDownloaded_data()
    {
        QTest::addColumn<QByteArray>("script");
        const QByteArray loop(endless);
        QTest::newRow("unload") << "window.onunload=function(){" + loop + "}";
        QTest::newRow("beforeunload")
            << "window.onbeforeunload=function(){" + loop + "return 'stay'}";
        QTest::newRow("unload of a frame")
            << "var f=document.createElement('iframe');document.documentElement.appendChild(f);"
               "f.contentWindow.onunload=function(){"
                + loop + "}";
        QTest::newRow("abort of a request")
            << "addEventListener('load',function(){var r=new XMLHttpRequest();"
               "r.onabort=r.onerror=r.onreadystatechange=function(){if(r.readyState==4){"
                + loop + "}};r.open('GET','/held');r.send()})";
    }

    void aFoundVideoIsDownloaded()
    {
        QFETCH(QByteArray, script);
        ScriptedServer server;
        const QByteArray video = testBytes(6 * 1024 * 1024);
        const QString page = server.address("/page");
        server.on("/page", htmlReply(scriptedPage(script)));
        server.serve("/v.mp4", video, "video/mp4");
        server.hold("/held");
        ProgramRun run;
        QVERIFY(run.run({option("--url"), page, option("--timeout"), option("20")}));
        QCOMPARE(withoutProgress(run.errorOutput()),
                 parsingLine(page) + recordLine(server.address("/v.mp4"), video.size(), "mp4")
                     + fixedLine("start download video ...")
                     + fixedLine("video download finished:success")
                     + fixedLine("detach sharememory"));
        const QString name = option("tmp/") + pageHash(page) + option(".mp4");
        QVERIFY(run.fileContent(name) == video);
    }
};

CLIPWEIR_TEST_MAIN(tst_RunUnload)
#include "tst_run_unload.moc"
