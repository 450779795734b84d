#include "EventCheck.h"
#include "TestFiles.h"
#include "TestMain.h"

#include <QCryptographicHash>
#include <QDir>
#include <QJsonArray>
#include <QJsonDocument>
#include <QProcess>
#include <QUrl>

#include <algorithm>
#include <array>
#include <csignal>

#include <fcntl.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

QString text(const char *utf8)
{
    return QString::fromUtf8(utf8);
}

QString page(const char *host, int number, const char *query = "")
{
    return QStringLiteral("http://%1/%2?%3").arg(text(host)).arg(number).arg(text(query));
}

} // namespace

/// The built command over a program that does what the page's address asks for.
class tst_GetPages : public QObject
{
    Q_OBJECT

    std::unique_ptr<TemporaryWorkFolder> m_folder;
    QByteArray m_output;
    QByteArray m_errors;

    static QProcessEnvironment environment(const TemporaryWorkFolder &folder)
    {
        QProcessEnvironment all = QProcessEnvironment::systemEnvironment();
        all.insert(text("CLIPWEIR_PROGRAM"), text(FAKE_PROGRAM));
        all.insert(text("FAKE_LOG"), folder.path(text("log")));
        return all;
    }

    void prepare(QProcess &process, const QStringList &arguments) const
    {
        process.setProcessEnvironment(environment(*m_folder));
        process.setProgram(text(CLIPWEIR_GET));
        process.setArguments(QStringList{text("-d"), m_folder->path(text("out"))} + arguments);
    }

    /// The exit code; negative when the command did not end by itself.
    int get(const QStringList &arguments, const QByteArray &input = QByteArray())
    {
        QProcess process;
        prepare(process, arguments);
        process.start();
        process.write(input);
        process.closeWriteChannel();
        constexpr int patienceMs = 60000;
        const bool hasEnded = process.waitForFinished(patienceMs);
        m_output = process.readAllStandardOutput();
        m_errors = process.readAllStandardError();
        return hasEnded && process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    }

    [[nodiscard]] QList<QJsonObject> log() const
    {
        return EventCheck::eventsOf(readFile(m_folder->path(text("log"))));
    }

    [[nodiscard]] int begins(const QString &address = QString()) const
    {
        const QList<QJsonObject> all = log();
        return static_cast<int>(
            std::count_if(all.cbegin(), all.cend(), [&address](const QJsonObject &entry) {
                return entry.value(text("what")) == text("begin")
                    && (address.isEmpty() || entry.value(text("url")) == address);
            }));
    }

    /// The files that are there for the user.
    [[nodiscard]] QStringList files() const { return filesBelow(m_folder->path(text("out"))); }

    /// Whether all events of the last command are as the papers have them.
    [[nodiscard]] bool areEventsValid() const
    {
        QProcess check;
        check.setProcessChannelMode(QProcess::ForwardedOutputChannel);
        check.start(text("python3"), {text(MERGED_CHECK), text(MERGED_SCHEMA)});
        check.write(m_output);
        check.closeWriteChannel();
        return check.waitForFinished() && check.exitCode() == 0;
    }

    /// The events of a name among those of the last command.
    [[nodiscard]] QList<QJsonObject> events(const char *name) const
    {
        QList<QJsonObject> found;
        for (const QJsonObject &event : EventCheck::eventsOf(m_output)) {
            if (event.value(text("event")) == text(name))
                found += event;
        }
        return found;
    }

    [[nodiscard]] QByteArray content(const char *name) const
    {
        return readFile(m_folder->path(text("out/")) + text(name));
    }

private slots:
    void init() { m_folder = std::make_unique<TemporaryWorkFolder>(); }
    void cleanup() { m_folder.reset(); }

    void onePage()
    {
        QCOMPARE(get({page("a", 1, "title=A%20clip")}), 0);
        QCOMPARE(files(), QStringList{text("A clip.mp4")});
        QCOMPARE(content("A clip.mp4").size(), 5000);
        QVERIFY2(m_output.contains("done "), m_output);
        QVERIFY(m_errors.isEmpty());
    }

    void runsAreApart()
    {
        QCOMPARE(get({page("a", 1)}), 0);
        const QJsonObject begin = log().value(0);
        QCOMPARE(begin.value(text("group")).toInt(), begin.value(text("pid")).toInt());
        QVERIFY(begin.value(text("arguments")).toArray().contains(text("--parent")));
    }

    void aPictureGoesAlong()
    {
        QCOMPARE(get({text("--thumb"), page("a", 1, "title=A.b")}), 0);
        QCOMPARE(files(), (QStringList{text("A.b.mp4"), text("A.b.png")}));
    }

    void noFileIsReplaced()
    {
        QVERIFY(QDir().mkpath(m_folder->path(text("out"))));
        writeFile(m_folder->path(text("out/T.mp4")), "mine");
        QVERIFY(QFile::link(text("/none"), m_folder->path(text("out/T (2).mp4"))));
        QCOMPARE(get({text("-j"), text("8"), text("--per-host"), text("8"),
                      page("a", 1, "title=T&bytes=100"), page("a", 2, "title=T&bytes=200"),
                      page("b", 3, "title=T&bytes=300")}),
                 0);
        QCOMPARE(content("T.mp4"), QByteArray("mine"));
        QList<int> sizes{content("T (3).mp4").size(), content("T (4).mp4").size(),
                         content("T (5).mp4").size()};
        std::sort(sizes.begin(), sizes.end());
        QCOMPARE(sizes, (QList<int>{100, 200, 300}));
    }

    void manyPagesOfOneName()
    {
        QByteArray list;
        for (int i = 0; i < 30; ++i)
            list += page("a", i, "title=T&bytes=50").toUtf8() + '\n';
        QCOMPARE(get({text("-i"), text("-"), text("-q"), text("--per-host"), text("4")}, list), 0);
        QCOMPARE(files().size(), 30);
    }

    void folders()
    {
        QCOMPARE(get({text("-o"), text("{host}/{title}-{height}.{ext}"),
                      page("a", 1, "title=../../x&height=480")}),
                 0);
        QCOMPARE(files(), (QStringList{text("a"), text("a/_._.._x-480.mp4")}));
    }

    void theWorstClassIsTheEnd()
    {
        QCOMPARE(get({page("a", 1), page("a", 2, "do=fail&class=nothingFound"),
                      page("a", 3, "do=fail&class=refused"),
                      page("a", 4, "do=fail&class=pageUnreached"), text("--retries"), text("0")}),
                 33);
        QVERIFY2(m_output.contains("1 arrived, 1 nothingFound, 1 pageUnreached, 1 refused"),
                 m_output);
        QCOMPARE(files().size(), 1);
    }

    void classes_data()
    {
        QTest::addColumn<QByteArray>("name");
        QTest::addColumn<int>("exitCode");
        QTest::addColumn<int>("runs");
        // Where another run may do better there is one.
        QTest::newRow("found nothing") << QByteArray("nothingFound") << 31 << 1;
        QTest::newRow("unreached") << QByteArray("pageUnreached") << 32 << 2;
        QTest::newRow("refused") << QByteArray("refused") << 33 << 1;
        QTest::newRow("broken off") << QByteArray("brokenOff") << 34 << 1;
        QTest::newRow("incomplete") << QByteArray("incomplete") << 35 << 2;
        QTest::newRow("protected") << QByteArray("protected") << 36 << 1;
        QTest::newRow("disk") << QByteArray("disk") << 37 << 1;
        QTest::newRow("busy") << QByteArray("busy") << 38 << 2;
        QTest::newRow("unsupported") << QByteArray("unsupported") << 39 << 1;
        QTest::newRow("deadline") << QByteArray("deadline") << 41 << 1;
        QTest::newRow("engine lost") << QByteArray("engineLost") << 42 << 2;
        QTest::newRow("no engine") << QByteArray("engineMissing") << 11 << 1;
    }

    void classes()
    {
        QFETCH(QByteArray, name);
        QFETCH(int, exitCode);
        QFETCH(int, runs);
        const QString address = page("a", 1, "do=fail&class=" + name);
        QCOMPARE(get({address, text("--retries"), text("1"), text("--json")}), exitCode);
        QCOMPARE(begins(), runs);
        QCOMPARE(events("result").size(), 1);
        QCOMPARE(events("result").value(0).value(text("class")).toString(),
                 QString::fromLatin1(name));
        QCOMPARE(events("pageRetry").size(), runs - 1);
        QVERIFY(areEventsValid());
        QCOMPARE(events("summary").value(0).value(text("exitCode")).toInt(), exitCode);
        QVERIFY(files().isEmpty());
    }

    void anotherRunDoesBetter()
    {
        QCOMPARE(get({page("a", 1, "do=crash&times=1&title=T")}), 0);
        QCOMPARE(begins(), 2);
        QCOMPARE(files(), QStringList{text("T.mp4")});
    }

    void runsWithoutAResult_data()
    {
        QTest::addColumn<QByteArray>("wish");
        QTest::newRow("crash") << QByteArray("crash");
        QTest::newRow("silent") << QByteArray("silent");
    }

    void runsWithoutAResult()
    {
        QFETCH(QByteArray, wish);
        QCOMPARE(get({page("a", 1, "do=" + wish), text("--retries"), text("0")}), 42);
        QVERIFY(firstControl(m_output).isEmpty());
        QVERIFY(wish != "crash" || m_output.contains("out of luck"));
    }

    void outputThatIsNoEvent()
    {
        QCOMPARE(get({page("a", 1, "do=junk&title=T")}), 0);
        QCOMPARE(files(), QStringList{text("T.mp4")});
    }

    void aLinkIsNoVideo()
    {
        QCOMPARE(get({page("a", 1, "do=link")}), 37);
        const QStringList left = files();
        for (const QString &name : left)
            QVERIFY2(name.startsWith(text(".")), qPrintable(name));
    }

    void hostileTextsAreShownClean()
    {
        const char *const title = "title=%1b[2J%1b]0;x%07%c2%9bA%e2%80%ae%0d%0aB";
        QCOMPARE(get({page("a", 1, title), page("a", 2, "do=fail&class=refused&reason=%1b[2J%07")}),
                 33);
        QVERIFY(firstControl(m_output).isEmpty());
        QVERIFY2(m_output.contains("[2J]0;xA B.mp4"), m_output);
        QCOMPARE(get({text("--json"), page("b", 1, title)}), 0);
        QVERIFY(firstControl(m_output).isEmpty());
    }

    void hostsAreSpared()
    {
        QStringList pages{text("-j"), text("6"), text("--per-host"), text("2"), text("-q")};
        for (int i = 0; i < 12; ++i)
            pages += page(i % 4 == 0 ? "b" : "a", i, "bytes=10");
        QCOMPARE(get(pages), 0);
        QHash<QString, int> atWork;
        for (const QJsonObject &entry : log()) {
            const QString host = QUrl(entry.value(text("url")).toString()).host();
            atWork[host] += entry.value(text("what")) == text("begin") ? 1 : -1;
            QVERIFY(atWork.value(host) <= 2);
        }
        QCOMPARE(begins(), 12);
    }

    void aList()
    {
        writeFile(m_folder->path(text("list")),
                  "# two\n" + page("a", 1, "title=One").toUtf8() + "  # first\n\n"
                      + page("a", 2, "title=Two").toUtf8());
        QCOMPARE(get({text("-i"), m_folder->path(text("list")), page("a", 1, "title=One")}), 0);
        QCOMPARE(files(), (QStringList{text("One.mp4"), text("Two.mp4")}));
        QCOMPARE(begins(), 2);
    }

    void anArchive()
    {
        const QStringList wanted{text("--archive"), m_folder->path(text("done")), page("a", 1),
                                 page("a", 2, "do=fail&class=refused&times=1"), page("a", 3)};
        QCOMPARE(get(wanted), 33);
        QCOMPARE(begins(), 3);
        QCOMPARE(get(wanted + QStringList{text("--json")}), 0);
        QCOMPARE(begins(), 4);
        QCOMPARE(events("skipped").size(), 2);
        QVERIFY(areEventsValid());
        const QJsonObject summary = events("summary").value(0);
        QCOMPARE(summary.value(text("arrived")).toInt(), 1);
        QCOMPARE(summary.value(text("skipped")).toInt(), 2);
        QCOMPARE(readFile(m_folder->path(text("done"))).count('\n'), 3);
    }

    void aMoveThatWasNotEnded()
    {
        const QString address = page("a", 1, "title=T");
        const QString hash = QString::fromLatin1(
            QCryptographicHash::hash(address.toUtf8(), QCryptographicHash::Md5).toHex().toUpper());
        const QString own = m_folder->path(text("out/.clipweir-get/")) + hash;
        QVERIFY(QDir().mkpath(own));
        writeFile(own + text("/video.mp4"), "whole");
        writeFile(own + text(".name"), "T.mp4");
        QCOMPARE(get({address}), 0);
        QCOMPARE(begins(), 0);
        QCOMPARE(content("T.mp4"), QByteArray("whole"));
        QCOMPARE(files(), QStringList{text("T.mp4")});
        // Killed after the move, and before it was put down.
        QVERIFY(QDir().mkpath(own));
        writeFile(own + text(".name"), "T.mp4");
        QCOMPARE(get({address, text("--archive"), m_folder->path(text("done"))}), 0);
        QCOMPARE(begins(), 0);
        QCOMPARE(files(), QStringList{text("T.mp4")});
        QCOMPARE(readFile(m_folder->path(text("done"))), address.toUtf8() + '\n');
        // Killed after that, too.
        QVERIFY(QDir().mkpath(own));
        writeFile(own + text(".name"), "T.mp4");
        QCOMPARE(get({address, text("--archive"), m_folder->path(text("done"))}), 0);
        QCOMPARE(begins(), 0);
        QCOMPARE(files(), QStringList{text("T.mp4")});
    }

    void mergedEvents()
    {
        const QString one = page("a", 1, "title=One");
        QCOMPARE(get({text("--json"), one, page("b", 2, "title=Two")}), 0);
        QVERIFY(m_errors.isEmpty());
        const QList<QJsonObject> all = EventCheck::eventsOf(m_output);
        QByteArray ofOne;
        for (const QJsonObject &event : all) {
            QVERIFY(!event.isEmpty());
            QJsonObject own = event;
            own.remove(text("page"));
            own.remove(text("thumbPath"));
            if (event.value(text("page")) == one)
                ofOne += QJsonDocument(own).toJson(QJsonDocument::Compact) + '\n';
        }
        // Without what the command adds they are a run's.
        QVERIFY(EventCheck::isValid(ofOne));
        QCOMPARE(all.constLast().value(text("event")).toString(), text("summary"));
        for (const QJsonObject &result : events("result"))
            QVERIFY(QFile::exists(result.value(text("path")).toString()));
    }

    void aSimulation()
    {
        QCOMPARE(get({text("--simulate"), page("a", 1, "title=T&height=720&bytes=1000"),
                      page("a", 2, "do=fail&class=nothingFound")}),
                 31);
        QVERIFY2(m_output.contains("T.mp4 (mp4, 720p, 1.0 kB) from http://a/1"), m_output);
        QVERIFY(!QFile::exists(m_folder->path(text("out"))));
    }

    void cookiesArePrivate()
    {
        const QByteArray cookies = ".a\tTRUE\t/\tFALSE\t4102444800\tn\tv\n";
        const QString path = m_folder->path(text("cookies.txt"));
        writeFile(path, cookies);
        QCOMPARE(get({text("--cookies"), path, page("a", 1)}), 0);
        const QString copy = log().value(0).value(text("cookies")).toString();
        QVERIFY(!copy.isEmpty() && copy != path);
        QVERIFY(!QFile::exists(copy));
        QCOMPARE(readFile(path), cookies);
    }

    void quiet()
    {
        QCOMPARE(get({text("-q"), page("a", 1), page("a", 2, "do=fail&class=refused")}), 33);
        QVERIFY(m_output.isEmpty());
        QCOMPARE(m_errors.count('\n'), 1);
        QVERIFY(m_errors.contains("refused"));
    }

    void misuse_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<int>("exitCode");
        QTest::newRow("nothing") << QStringList() << 14;
        QTest::newRow("option") << QStringList{text("--none")} << 2;
        QTest::newRow("address") << QStringList{text("file:///etc/passwd")} << 2;
        QTest::newRow("list") << QStringList{text("-i"), text("/none")} << 2;
        QTest::newRow("cookies") << QStringList{text("--cookies"), text("/none"), text("http://a/")}
                                 << 2;
        QTest::newRow("folder") << QStringList{text("-d"), text("/dev/null/x"), text("http://a/")}
                                << 13;
        QTest::newRow("archive") << QStringList{text("--archive"), text("/none/x"),
                                                text("http://a/")}
                                 << 37;
        QTest::newRow("report") << QStringList{text("--report"), text("/none/x"), text("http://a/")}
                                << 37;
    }

    void misuse()
    {
        QFETCH(QStringList, arguments);
        QFETCH(int, exitCode);
        QCOMPARE(get(arguments), exitCode);
        QVERIFY(m_errors.startsWith("clipweir-get: "));
        QCOMPARE(begins(), 0);
    }

    void anEmptyListIsDone() { QCOMPARE(get({text("-i"), text("-")}, "# nothing\n"), 0); }

    void aStopInOrder_data()
    {
        QTest::addColumn<int>("signal");
        QTest::newRow("Ctrl-C") << SIGINT;
        QTest::newRow("SIGTERM") << SIGTERM;
        QTest::newRow("SIGHUP") << SIGHUP;
    }

    void aStopInOrder()
    {
        QFETCH(int, signal);
        QProcess process;
        prepare(process,
                {text("--json"), text("-j"), text("2"), page("a", 1, "do=hang&times=1&title=One"),
                 page("a", 2, "do=hang&times=1&title=Two"), page("a", 3)});
        process.start();
        QByteArray output;
        QVERIFY(QTest::qWaitFor(
            [&] {
                output += process.readAllStandardOutput();
                return output.count("\"progress\"") == 2;
            },
            30000));
        ::kill(static_cast<pid_t>(process.processId()), signal);
        QVERIFY(process.waitForFinished());
        m_output = output + process.readAllStandardOutput();
        QCOMPARE(process.exitCode(), 40);
        QCOMPARE(begins(), 2);
        QCOMPARE(log().size(), 4); // both were asked, and told their ends
        QCOMPARE(events("result").size(), 3);
        QCOMPARE(events("summary")
                     .value(0)
                     .value(text("failures"))
                     .toObject()
                     .value(text("stopped"))
                     .toInt(),
                 3);
        QCOMPARE(files().filter(text(".part")).size(), 2);
        // A second start goes on.
        QCOMPARE(get({page("a", 1, "do=hang&times=1&title=One"),
                      page("a", 2, "do=hang&times=1&title=Two"), page("a", 3)}),
                 0);
        QCOMPARE(files().size(), 3);
    }

    void aSecondCtrlCWaitsForNobody()
    {
        QProcess process;
        prepare(process, {page("a", 1, "do=stubborn")});
        process.start();
        QByteArray output;
        const auto isTold = [&process, &output](const char *what) {
            return QTest::qWaitFor(
                [&] {
                    output += process.readAllStandardOutput();
                    return output.contains(what);
                },
                30000);
        };
        QVERIFY(isTold("begin"));
        QTRY_COMPARE_WITH_TIMEOUT(begins(), 1, 30000);
        const auto run = static_cast<pid_t>(log().value(0).value(text("pid")).toInt());
        const auto isDeaf = [run] { // to SIGTERM
            const QByteArray status = readFile(QStringLiteral("/proc/%1/status").arg(run));
            const int mask = status.indexOf("SigIgn:");
            constexpr int digits = 16;
            const QByteArray bits = status.mid(mask + 8, digits);
            return mask >= 0 && ((bits.toULongLong(nullptr, digits) >> (SIGTERM - 1)) & 1U) != 0;
        };
        QTRY_VERIFY_WITH_TIMEOUT(isDeaf(), 30000);
        ::kill(static_cast<pid_t>(process.processId()), SIGINT);
        QVERIFY(isTold("Stopping"));
        QCOMPARE(process.state(), QProcess::Running);
        ::kill(static_cast<pid_t>(process.processId()), SIGINT);
        QVERIFY(process.waitForFinished());
        QCOMPARE(process.exitCode(), 40);
        QVERIFY(::kill(run, 0) != 0 && errno == ESRCH);
    }

    void aReaderThatGoes()
    {
        QProcess process;
        prepare(process, {text("--json"), page("a", 1, "do=hang")});
        process.start();
        QVERIFY(process.waitForReadyRead());
        process.closeReadChannel(QProcess::StandardOutput);
        QTRY_COMPARE_WITH_TIMEOUT(begins(), 1, 30000);
        ::kill(static_cast<pid_t>(process.processId()), SIGTERM);
        QVERIFY(process.waitForFinished());
        QCOMPARE(process.exitStatus(), QProcess::NormalExit);
        QCOMPARE(log().size(), 2);
    }

    void aTerminal()
    {
        int master = -1;
        struct winsize size = {};
        size.ws_col = 60;
        size.ws_row = 24;
        const pid_t child = ::forkpty(&master, nullptr, nullptr, &size);
        QVERIFY(child >= 0);
        if (child == 0) {
            ::setenv("TERM", "xterm", 1);
            ::setenv("NO_COLOR", "1", 1);
            ::setenv("CLIPWEIR_PROGRAM", FAKE_PROGRAM, 1);
            const QByteArray folder = m_folder->path(text("out")).toUtf8();
            const QByteArray log = m_folder->path(text("log")).toUtf8();
            ::setenv("FAKE_LOG", log.constData(), 1);
            ::execl(CLIPWEIR_GET, CLIPWEIR_GET, "-d", folder.constData(),
                    "http://a/1?do=hang&title=%E5%8B%95%E7%94%BB", "http://a/2?title=Two", nullptr);
            ::_exit(127);
        }
        QByteArray shown;
        const auto readOn = [&shown, master] {
            std::array<char, 4096> buffer{};
            const ssize_t count = ::read(master, buffer.data(), buffer.size());
            if (count > 0)
                shown.append(buffer.data(), static_cast<int>(count));
            return count > 0;
        };
        while (!shown.contains("4 B of 5.0 kB") && readOn()) { }
        QVERIFY2(shown.contains("動画"), shown);
        size.ws_col = 30;
        shown.clear();
        QVERIFY(::ioctl(master, TIOCSWINSZ, &size) == 0);
        while (!shown.contains("1 of 2 done") && readOn()) { } // it is drawn again
        // The terminal's Ctrl-C reaches the command, which asks the run to end.
        QCOMPARE(::write(master, "\x03", 1), ssize_t(1));
        while (readOn()) { }
        int status = 0;
        QCOMPARE(::waitpid(child, &status, 0), child);
        ::close(master);
        QVERIFY(WIFEXITED(status));
        QCOMPARE(WEXITSTATUS(status), 40);
        QVERIFY2(shown.contains("Stopping."), shown);
        QVERIFY2(!shown.contains("\x1b[31m") && !shown.contains("\x1b[32m"), shown);
        QVERIFY2(shown.contains("1 arrived, 1 stopped"), shown);
    }

    void aReport()
    {
        const QString path = m_folder->path(text("r.html"));
        QCOMPARE(get({text("--report"), path, text("--thumb"),
                      page("a", 1, "title=%3Cscript%3Ex%3C/script%3E&height=720"),
                      page("a", 2, "do=fail&class=refused&reason=%3Cb%3E")}),
                 33);
        const QByteArray html = readFile(path);
        QCOMPARE(html.count("<article>"), 2);
        QVERIFY(!html.contains("<script") && !html.contains("<b>"));
        QVERIFY(html.contains("&lt;script&gt;x&lt;/script&gt;"));
        QVERIFY(html.contains("data:image/png;base64,"));
        QVERIFY(html.contains("&lt;b&gt;"));
        QVERIFY(html.contains("720p") && html.contains("refused")
                && html.contains("1 arrived, 1 refused"));
        QVERIFY(html.trimmed().endsWith("</html>"));
    }

    /// What a browser makes of the page.
    void aReportInABrowser()
    {
        const QString browser = text("/usr/lib/chromium/chromium-headless-shell");
        QVERIFY2(QFile::exists(browser), "scripts/setup.sh installs it");
        const QString path = m_folder->path(text("r.html"));
        const char *const title =
            "title=%22%3E%3Cimg%20src=x%20onerror=document.body.id='bad'%3E%3C/h2%3E";
        QCOMPARE(get({text("--report"), path, text("--thumb"), page("a", 1, title),
                      page("a", 2, "do=fail&class=refused")}),
                 33);
        QProcess process;
        process.start(browser,
                      {text("--no-sandbox"), text("--disable-gpu"), text("--dump-dom"),
                       text("--user-data-dir=") + m_folder->path(text("browser")),
                       QUrl::fromLocalFile(path).toString()});
        QVERIFY(process.waitForFinished(60000));
        const QByteArray document = process.readAllStandardOutput();
        QCOMPARE(document.count("<article>"), 2);
        QCOMPARE(document.count("<h1>"), 1);
        QCOMPARE(document.count("<h2>"), 2);
        QCOMPARE(document.count("<img"), 1); // the picture
        QVERIFY(document.contains("&lt;img"));
        QVERIFY(!document.contains("id=\"bad\""));
    }

    void memoryAndFilesStayFlat()
    {
        // The log of the many runs is long; what counts is what the command itself holds.
        QByteArray list;
        constexpr int count = 60;
        for (int i = 0; i < count; ++i)
            list += page(i % 2 == 0 ? "a" : "b", i, "bytes=20").toUtf8() + '\n';
        QProcess process;
        prepare(process, {text("-i"), text("-"), text("-j"), text("4"), text("--json")});
        process.start();
        process.write(list);
        process.closeWriteChannel();
        int most = 0;
        int ended = 0;
        while (process.state() != QProcess::NotRunning) {
            process.waitForReadyRead(1000);
            ended += process.readAllStandardOutput().count("\"event\":\"result\"");
            const QDir open(QStringLiteral("/proc/%1/fd").arg(process.processId()));
            most =
                qMax(most,
                     open.entryList(QDir::AllEntries | QDir::System | QDir::NoDotAndDotDot).size());
        }
        QCOMPARE(process.exitCode(), 0);
        QVERIFY2(most > 5 && most < 60, qPrintable(QString::number(most)));
        QCOMPARE(files().size(), count);
        QVERIFY(ended > 0);
    }
};

CLIPWEIR_TEST_MAIN(tst_GetPages)
#include "tst_getpages.moc"
