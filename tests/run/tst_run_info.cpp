#include "PageRun.h"
#include "TestMain.h"

namespace {

#ifdef CLIPWEIR_WEBKIT
const char pluginLine[] = "You have Flash player 32.0.465 installed\n";
#else
const char pluginLine[] = "You have Flash player 0.0.0 installed\n"; // no engine could use it
#endif

} // namespace

/// What the program says of the Flash plug-in, and pages that embed one.
class tst_RunInfo : public QObject
{
    Q_OBJECT

    /// The program gives the engine one second to answer; on a busy machine that may be too short,
    /// and the program then says so with an empty version. Another try is fair.
    static bool printsAVersion(ProgramRun &run)
    {
        for (int attempt = 0; attempt < 10; ++attempt) {
            if (!run.run({option("--info")}))
                return false;
            if (run.errorOutput() != "You have Flash player  installed\n")
                return true;
        }
        return false;
    }

private slots:
    void infoWithoutAPlugin()
    {
        ProgramRun run;
        QVERIFY(printsAVersion(run));
        QCOMPARE(run.errorOutput(), QByteArray("You have Flash player 0.0.0 installed\n"));
        QCOMPARE(run.exitCode(), 0);
        QVERIFY(QDir(run.folder()).entryList({option("tmp")}).isEmpty());
    }

    void infoWithAPlugin()
    {
        ProgramRun run;
        run.setEnvironment(option("MOZ_PLUGIN_PATH"), option(TEST_PLUGIN_DIR));
        QVERIFY(printsAVersion(run));
        QCOMPARE(run.errorOutput(), QByteArray(pluginLine));
        QCOMPARE(run.exitCode(), 0);
    }

#ifdef CLIPWEIR_WEBKIT
    void aPageThatEmbedsAPluginRunsWithoutADisplay()
    {
        ProgramRun run;
        run.setEnvironment(option("MOZ_PLUGIN_PATH"), option(TEST_PLUGIN_DIR));
        ScriptedServer server;
        server.on("/page",
                  htmlReply("<embed type='application/x-shockwave-flash' src='/p.swf'>"
                            "<object type='application/x-shockwave-flash'></object>"));
        const QString page = server.address("/page");
        QVERIFY(run.run({option("--url"), page, option("--timeout"), option("2")}));
        QCOMPARE(run.errorOutput(),
                 parsingLine(page) + fixedLine("parse failed") + fixedLine("detach sharememory"));
        QVERIFY(run.endedNormally());
    }
#endif
};

CLIPWEIR_TEST_MAIN(tst_RunInfo)
#include "tst_run_info.moc"
