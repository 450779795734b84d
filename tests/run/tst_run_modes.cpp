#include "PageRun.h"
#include "TestMain.h"

#include <QSharedMemory>

namespace {

const char usage[] = "clipweir: 4.0.0.0001\n"
                     "Usage:\n"
                     "  clipweir --url https://www.example.com/watch/12345\n"
                     "  clipweir --url https://video.example.org/clips/holiday.html\n"
                     "\n"
                     "  --url <url>: page url contains video\n"
                     "  --saveto <fullpath>: save video to full path\n"
                     "  --timeout <wait_time>: timeout for url analysis\n"
                     "  --format mp4: prefer mp4 format(default any)\n"
                     "  --quality 480: prefer 480p format(default 480)\n"
                     "  --proxy: ProxyType:Host:Port\n"
                     "\n"
                     "Flags:\n"
                     "  --thumb: download thumb file\n"
                     "  --partial: only download 100K to save time\n"
                     "  --smartname: use title as filename\n"
                     "  --noresume: disable resume feature, download from beginning\n"
                     "  --keepimage: allow download image in url\n"
                     "  --log: allow log file(video_output_path\\url.log) and csv "
                     "log(video_output_path\\date.csv)\n"
                     "  --show: show webview frame\n"
                     "  --info: show flash version\n"
                     "  --exit: notify the process should exit asap\n"
                     "  --f4f: support f4f video download\n"
                     " --resume\n"
                     " --size size\n";

// Exit codes as a host on this system sees them: the low byte of the program's own.
constexpr int noArguments = 23; // -1001
constexpr int noPageUrl = 14; // -1010
constexpr int noOutputFolder = 13; // -1011

} // namespace

class tst_RunModes : public QObject
{
    Q_OBJECT

private slots:
    void usageWithoutArguments()
    {
        ProgramRun run;
        QVERIFY(run.run({}));
        QCOMPARE(run.errorOutput(), QByteArray(usage));
        QCOMPARE(run.exitCode(), noArguments);
        QCOMPARE(run.standardOutput(), QByteArray());
    }

    void loggingRulesCannotSilenceTheHostsLines()
    {
        ProgramRun run;
        run.setEnvironment(option("QT_LOGGING_RULES"), option("*=false"));
        QVERIFY(run.run({}));
        QCOMPARE(run.errorOutput(), QByteArray(usage));
    }

    void messagePatternsDoNotChangeTheHostsLines()
    {
        ProgramRun run;
        run.setEnvironment(option("QT_MESSAGE_PATTERN"), option("%{time} %{message}"));
        QVERIFY(run.run({}));
        QCOMPARE(run.errorOutput(), QByteArray(usage));
    }

    void noPageAddress_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::newRow("options only")
            << QStringList{option("--thumb"), option("--timeout"), option("3")};
        QTest::newRow("url is the last argument") << QStringList{option("--log"), option("--url")};
        QTest::newRow("empty url") << QStringList{option("--url"), QString()};
    }

    void noPageAddress()
    {
        QFETCH(QStringList, arguments);
        ProgramRun run;
        QVERIFY(run.run(arguments));
        QCOMPARE(run.exitCode(), noPageUrl);
        QCOMPARE(run.errorOutput(), QByteArray());
        QVERIFY(QDir(run.folder()).isEmpty());
    }

    void missingOutputFolder_data()
    {
        QTest::addColumn<bool>("withLog");
        QTest::newRow("without log") << false;
        QTest::newRow("with log") << true;
    }

    void missingOutputFolder()
    {
        QFETCH(bool, withLog);
        const QString url = option("http://127.0.0.1:1/missing-output-folder");
        ProgramRun run;
        QStringList arguments{option("--url"), url, option("--saveto"),
                              run.path(option("missing/v.mp4"))};
        if (withLog)
            arguments += option("--log");
        QVERIFY(run.run(arguments));
        QCOMPARE(run.exitCode(), noOutputFolder);
        QCOMPARE(run.errorOutput(), QByteArray());
        QVERIFY(QDir(run.folder()).isEmpty());
        QSharedMemory block(QStringLiteral("SM_") + pageHash(url));
        QVERIFY(!block.attach());
    }

    void exitModeComesBeforeAllOthers()
    {
        ProgramRun run;
        QVERIFY(run.run({option("--exit"), option("--info"), option("--url"),
                         option("http://127.0.0.1:1/exit-mode")}));
        QCOMPARE(run.exitCode(), 0);
        QCOMPARE(run.errorOutput(), fixedLine("set ExitFlag"));
        QVERIFY(QDir(run.folder()).isEmpty());
    }

    void exitModeNeedsNobodyToReadItsLine()
    {
        const QString closedPipe = option("import os, subprocess, sys; r, w = os.pipe(); "
                                          "os.close(r); "
                                          "sys.exit(subprocess.call(sys.argv[1:], stderr=w))");
        QCOMPARE(
            QProcess::execute(option("python3"),
                              {option("-c"), closedPipe, ProgramRun::program(), option("--exit"),
                               option("--url"), option("http://127.0.0.1:1/nobody-reads")}),
            0);
    }

    void everyLetterCaseAndPrefixWorks()
    {
        ProgramRun run;
        QVERIFY(run.run({option("/EXIT"), option("-Url"), option("http://127.0.0.1:1/prefix")}));
        QCOMPARE(run.errorOutput(), fixedLine("set ExitFlag"));
        QCOMPARE(run.exitCode(), 0);
    }

    void theProgramsPathIsLookedAtToo_data()
    {
        QTest::addColumn<QString>("path");
        QTest::addColumn<QByteArray>("line");
        QTest::newRow("exit") << option("/exit") << fixedLine("set ExitFlag");
        QTest::newRow("info") << option("/Info")
                              << QByteArray("You have Flash player 0.0.0 installed\n");
    }

    void theProgramsPathIsLookedAtToo()
    {
        QFETCH(QString, path);
        QFETCH(QByteArray, line);
        ProgramRun run;
        run.setLauncher({option("bash"), option("-c"), option("exec -a \"$0\" \"$@\""), path});
        QVERIFY(run.run({option("--url"), option("http://127.0.0.1:1/path")}));
        QCOMPARE(run.exitCode(), 0);
        if (run.errorOutput() != "You have Flash player  installed\n") // not said in time
            QCOMPARE(run.errorOutput(), line);
    }

    void defaultFolderIsMadeInTheWorkingFolder()
    {
        ProgramRun run;
        const QString url = option("http://127.0.0.1:1/default-folder");
        QVERIFY(run.run({option("--url"), url, option("--timeout"), option("0"), option("--log")}));
        QCOMPARE(run.exitCode(), 0);
        QCOMPARE(run.errorOutput(),
                 parsingLine(url) + fixedLine("parse failed") + fixedLine("detach sharememory"));
        QVERIFY(QFile::exists(run.path(option("tmp/logs/") + pageHash(url) + option(".log"))));
    }

    void documentsFolderServesWhenThatCannotBeMade()
    {
        ProgramRun run;
        QFile blocker(run.path(option("tmp")));
        QVERIFY(blocker.open(QIODevice::WriteOnly));
        const QString url = option("http://127.0.0.1:1/documents-folder");
        QVERIFY(run.run({option("--url"), url, option("--timeout"), option("0"), option("--log")}));
        QCOMPARE(run.exitCode(), 0);
        QVERIFY(QFile::exists(
            run.path(option("Documents/reelsnare/logs/") + pageHash(url) + option(".log"))));
    }

    void logRepeatsEveryLineWithItsTime()
    {
        ProgramRun run;
        const QString url = option("http://127.0.0.1:1/log-lines");
        QVERIFY(run.run({option("--url"), url, option("--timeout"), option("0"), option("--log")}));
        QList<QByteArray> lines =
            run.fileContent(option("tmp/logs/") + pageHash(url) + option(".log")).split('\n');
        QCOMPARE(lines.takeLast(), QByteArray());
        QByteArray debugLines;
        const QRegularExpression timed(option("^[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3} "
                                              "(Debug|Warning|Critical|Info): "));
        for (const QByteArray &line : qAsConst(lines)) {
            const auto match = timed.match(QString::fromUtf8(line));
            QVERIFY2(match.hasMatch(), line.constData());
            if (match.captured(1) == option("Debug"))
                debugLines += line.mid(match.capturedLength()) + '\n';
        }
        QCOMPARE(debugLines, run.errorOutput());
    }

    void textIsUtf8InEveryLocale_data()
    {
        QTest::addColumn<QString>("locale");
        QTest::newRow("C") << option("C");
        QTest::newRow("POSIX") << option("POSIX");
        QTest::newRow("unknown") << option("xx_YY.ISO-8859-1");
    }

    void textIsUtf8InEveryLocale()
    {
        QFETCH(QString, locale);
        const QString url =
            QString::fromUtf8("http://127.0.0.1:1/caf\xc3\xa9/\xe4\xb8\xad\xf0\x9f\x8e\xac");
        ProgramRun run;
        run.setEnvironment(option("LC_ALL"), locale);
        const QString saveTo = run.path(QString::fromUtf8("caf\xc3\xa9/v.mp4"));
        QVERIFY(QDir(run.folder()).mkdir(QString::fromUtf8("caf\xc3\xa9")));
        QVERIFY(run.run({option("--url"), url, option("--timeout"), option("0"), option("--log"),
                         option("--saveto"), saveTo}));
        QCOMPARE(run.exitCode(), 0);
        QCOMPARE(run.errorLines().constFirst() + '\n', parsingLine(url));
        const QString logs = QString::fromUtf8("caf\xc3\xa9/logs/");
        QVERIFY(run.fileContent(logs + pageHash(url) + option(".log")).contains(url.toUtf8()));
        const QString csv = logs + QDate::currentDate().toString(Qt::ISODate) + option(".csv");
        QVERIFY(run.fileContent(csv).contains('"' + url.toUtf8() + "\",N,"));
    }

    void aLineBreakInTheAddressStaysOneLine()
    {
        const QString url = option("http://127.0.0.1:1/a\nexiting... ");
        ProgramRun run;
        QVERIFY(run.run({option("--url"), url, option("--timeout"), option("0")}));
        QCOMPARE(run.errorLines().constFirst(),
                 QByteArray("\"http://127.0.0.1:1/a\\nexiting... \" parsing... "));
        QCOMPARE(run.errorLines().size(), 3);
    }

    void runsWithoutADisplay()
    {
        ProgramRun run;
        run.setEnvironment(option("QT_QPA_PLATFORM"), QString());
        run.setEnvironment(option("DISPLAY"), QString());
        run.setEnvironment(option("WAYLAND_DISPLAY"), QString());
        QVERIFY(run.run({}));
        QCOMPARE(run.exitCode(), noArguments);
    }
};

CLIPWEIR_TEST_MAIN(tst_RunModes)
#include "tst_run_modes.moc"
