#include "PageRun.h"
#include "TestMain.h"

/// Goes before all other runs, which begin with what this one has learnt.
class tst_FirstRun : public QObject
{
    Q_OBJECT

private slots:
    void learnsAboutMediaPlugins()
    {
        const QByteArray video = testBytes(6000000);
        ScriptedServer server;
        const QString page =
            servePage(server, video, [&video](const HttpRequest &) { return mediaReply(video); });
        ProgramRun run;
#ifdef CLIPWEIR_SANITIZED
        // All plug-ins are loaded, and at the end of some of them no leak report can be made.
        run.setEnvironment(option("ASAN_OPTIONS"), option("detect_leaks=0"));
#endif
        QVERIFY(run.run({option("--url"), page}));
        QVERIFY2(run.errorOutput().contains("finished:success"), run.errorOutput());
        QVERIFY(run.shareRegistry());
    }
};

CLIPWEIR_TEST_MAIN(tst_FirstRun)
#include "tst_first_run.moc"
