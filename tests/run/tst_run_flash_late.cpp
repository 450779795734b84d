#include "PageRun.h"
#include "TestMain.h"

#include <QElapsedTimer>

/// The Flash version, when the page that asks for it does not finish.
class tst_RunFlashLate : public QObject
{
    Q_OBJECT

private slots:
    void theVersionIsEmptyAfterOneSecond()
    {
        constexpr int patienceMs = 1000;
        ProgramRun run;
        const QString preload = qEnvironmentVariable("LD_PRELOAD");
        run.setEnvironment(option("LD_PRELOAD"),
                           preload.isEmpty() ? option(SILENT_FRAME)
                                             : preload + QLatin1Char(':') + option(SILENT_FRAME));
        run.setEnvironment(option("ASAN_OPTIONS"), option("verify_asan_link_order=0"));
        QElapsedTimer timer;
        timer.start();
        QVERIFY(run.run({option("--info")}));
        QVERIFY(timer.elapsed() >= patienceMs);
        QVERIFY(run.endedNormally());
        QCOMPARE(run.exitCode(), 0);
        QCOMPARE(run.errorOutput(), QByteArray("You have Flash player  installed\n"));
    }
};

CLIPWEIR_TEST_MAIN(tst_RunFlashLate)
#include "tst_run_flash_late.moc"
