#include "PageRun.h"
#include "TestMain.h"

#include <QSharedMemory>

namespace {

constexpr int noPageUrl = 14;
constexpr int noOutputFolder = 13;
constexpr int noDisplay = 12;
constexpr int success = 0;

} // namespace

/// Runs whose display is named and not there.
class tst_RunDisplay : public QObject
{
    Q_OBJECT

private slots:
    void aDeadDisplay_data()
    {
        QTest::addColumn<QString>("variable");
        QTest::addColumn<QString>("platform");
        QTest::addColumn<QStringList>("options");
        QTest::addColumn<int>("exitCode");
        const QString platform = option("QT_QPA_PLATFORM");
        const QStringList show{option("--show")};
        QTest::newRow("X, hidden") << option("DISPLAY") << QString() << QStringList() << success;
        QTest::newRow("X, shown") << option("DISPLAY") << QString() << show << noDisplay;
        QTest::newRow("Wayland, hidden")
            << option("WAYLAND_DISPLAY") << QString() << QStringList() << success;
        QTest::newRow("Wayland, shown")
            << option("WAYLAND_DISPLAY") << QString() << show << noDisplay;
        QTest::newRow("X by order, hidden")
            << option("DISPLAY") << option("xcb") << QStringList() << noDisplay;
        QTest::newRow("not looked at, shown")
            << option("DISPLAY") << option("offscreen") << show << success;
        QTest::newRow("info") << option("DISPLAY") << QString() << QStringList{option("--info")}
                              << success;
        QTest::newRow("missing folder, shown")
            << option("DISPLAY") << QString()
            << QStringList{option("--show"), option("--saveto"), option("missing/v.mp4")}
            << noOutputFolder;
    }

    void aDeadDisplay()
    {
        QFETCH(QString, variable);
        QFETCH(QString, platform);
        QFETCH(QStringList, options);
        QFETCH(int, exitCode);
        const QString page = option("http://127.0.0.1:1/display");
        ProgramRun run;
        for (const char *const name : {"DISPLAY", "WAYLAND_DISPLAY"})
            run.setEnvironment(option(name), QString());
        run.setEnvironment(option("QT_QPA_PLATFORM"), platform);
        run.setEnvironment(variable, option(":4711"));
        QVERIFY(run.run(QStringList{option("--url"), page, option("--timeout"), option("0")}
                        + options));
        QVERIFY(run.endedNormally());
        QCOMPARE(run.exitCode(), exitCode);
        if (exitCode == noDisplay)
            QCOMPARE(run.errorOutput(), fixedLine("no display can be reached"));
        else if (exitCode == noOutputFolder)
            QCOMPARE(run.errorOutput(), QByteArray());
        else if (!options.contains(option("--info")))
            QCOMPARE(run.errorOutput(),
                     parsingLine(page) + fixedLine("parse failed")
                         + fixedLine("detach sharememory"));
        QVERIFY(!QSharedMemory(QStringLiteral("SM_") + pageHash(page)).attach());
    }

    void withoutAPageNothingIsSaid()
    {
        ProgramRun run;
        run.setEnvironment(option("QT_QPA_PLATFORM"), QString());
        run.setEnvironment(option("DISPLAY"), option(":4711"));
        QVERIFY(run.run({option("--show")}));
        QCOMPARE(run.exitCode(), noPageUrl);
        QCOMPARE(run.errorOutput(), QByteArray());
    }
};

CLIPWEIR_TEST_MAIN(tst_RunDisplay)
#include "tst_run_display.moc"
