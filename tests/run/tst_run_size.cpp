#include "PageRun.h"
#include "TestMain.h"

/// A size that no file of the page has.
class tst_RunSize : public QObject
{
    Q_OBJECT

private slots:
    void aFileOfAnotherSizeIsTakenAtTheDeadlineOnly()
    {
        constexpr int timeoutS = 7; // the first look that could find the file comes after 5
        const QByteArray video = testBytes(11000000); // enough for every other rule
        ScriptedServer server;
        server.on("/v.mp4", mediaReply(video));
        server.on("/page", htmlReply(videoPage("/v.mp4")));
        const QString page = server.address("/page");
        ProgramRun run;
        QVERIFY(run.run({option("--url"), page, option("--size"), option("123"),
                         option("--timeout"), QString::number(timeoutS), option("--log")}));
        QCOMPARE(withoutProgress(run.errorOutput()),
                 parsingLine(page) + recordLine(server.address("/v.mp4"), video.size(), "mp4")
                     + fixedLine("start download video ...")
                     + fixedLine("video download finished:success")
                     + fixedLine("detach sharememory"));
        QVERIFY(run.fileContent(option("tmp/") + pageHash(page) + option(".mp4")) == video);
        const QByteArray row = run.fileContent(csvPath()).split('\n').value(1);
        QVERIFY2(row.split(',').value(3).toInt() >= timeoutS, row.constData());
    }
};

CLIPWEIR_TEST_MAIN(tst_RunSize)
#include "tst_run_size.moc"
