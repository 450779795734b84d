#include "HumanText.h"
#include "JsonOutput.h"
#include "PageLine.h"
#include "Screen.h"
#include "Summary.h"
#include "TestFiles.h"
#include "TestMain.h"
#include "TextWidth.h"

#include <QJsonDocument>

#include <fcntl.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace {

QString text(const char *utf8)
{
    return QString::fromUtf8(utf8);
}

PageFacts pageOf(RunClass runClass, const QString &title = text("A clip"))
{
    PageFacts page;
    page.address = text("http://a/1");
    page.title = title;
    page.runClass = runClass;
    page.begunAt = QDateTime(QDate(2024, 1, 1), QTime(0, 0));
    page.tookMs = 7000;
    if (page.hasArrived()) {
        page.path = text("/x/A clip.mp4");
        page.bytes = 8300000;
    }
    return page;
}

PageProgress halfway()
{
    PageProgress progress;
    progress.phase = PageProgress::Phase::Fetching;
    progress.done = 4000000;
    progress.total = 8000000;
    progress.rate = 1000000;
    return progress;
}

/// A terminal of the test's own, and all that was written to it.
class Terminal final
{
public:
    Terminal(int columns, int rows)
    {
        struct winsize size = {};
        size.ws_col = static_cast<ushort>(columns);
        size.ws_row = static_cast<ushort>(rows);
        QVERIFY(::openpty(&m_master, &m_slave, nullptr, nullptr, &size) == 0);
        QVERIFY(::fcntl(m_master, F_SETFL, O_NONBLOCK) == 0);
    }
    ~Terminal()
    {
        ::close(m_slave);
        ::close(m_master);
    }
    Q_DISABLE_COPY(Terminal)

    [[nodiscard]] int fd() const { return m_slave; }
    void resize(int columns) const
    {
        struct winsize size = {};
        size.ws_col = static_cast<ushort>(columns);
        size.ws_row = 24;
        QVERIFY(::ioctl(m_slave, TIOCSWINSZ, &size) == 0);
    }
    [[nodiscard]] QByteArray written() const
    {
        QByteArray all(65536, '\0');
        const ssize_t count = ::read(m_master, all.data(), static_cast<size_t>(all.size()));
        all.truncate(static_cast<int>(qMax<ssize_t>(0, count)));
        return all.replace("\r\n", "\n");
    }

private:
    int m_master = -1;
    int m_slave = -1;
};

} // namespace

/// What people and programs get to read.
class tst_GetOutput : public QObject
{
    Q_OBJECT

private slots:
    void widths_data()
    {
        QTest::addColumn<QString>("shown");
        QTest::addColumn<int>("columns");
        QTest::newRow("empty") << QString() << 0;
        QTest::newRow("plain") << text("abc") << 3;
        QTest::newRow("accents") << text("é") << 1;
        QTest::newRow("decomposed") << text("e\xcc\x81") << 1;
        QTest::newRow("wide") << text("動画") << 4;
        QTest::newRow("picture") << text("🎬") << 2;
        QTest::newRow("korean") << text("한국") << 4;
        QTest::newRow("full width") << text("Ａ") << 2;
    }

    void widths()
    {
        QFETCH(QString, shown);
        QFETCH(int, columns);
        QCOMPARE(TextWidth::of(shown), columns);
    }

    void fitting()
    {
        QCOMPARE(TextWidth::fitted(text("ab"), 4), text("ab  "));
        QCOMPARE(TextWidth::fitted(text("abcd"), 4), text("abcd"));
        QCOMPARE(TextWidth::fitted(text("abcde"), 4), text("abc…"));
        QCOMPARE(TextWidth::fitted(text("動画動画"), 8), text("動画動画"));
        QCOMPARE(TextWidth::fitted(text("動画動画"), 7), text("動画動…"));
        QCOMPARE(TextWidth::fitted(text("動画動画"), 6), text("動画… "));
        QCOMPARE(TextWidth::fitted(text("e\xcc\x81xyz"), 2), text("e\xcc\x81…"));
        QCOMPARE(TextWidth::elided(text("abc"), 0), QString());
        QCOMPARE(TextWidth::elided(text("動"), 1), text("…"));
    }

    void linesFitAnyTerminal_data()
    {
        QTest::addColumn<QString>("title");
        QTest::newRow("plain") << text("A clip of some length that has to be cut at some place");
        QTest::newRow("wide") << text("長い名前の動画は端末の幅に合わせて切られなければなりません");
        QTest::newRow("mixed") << text("🎬 a動b画c e\xcc\x81 ").repeated(9);
        QTest::newRow("none") << QString();
    }

    void linesFitAnyTerminal()
    {
        QFETCH(QString, title);
        PageProgress all[] = {PageProgress(), halfway(), halfway(), halfway(), halfway()};
        all[2].isInBytes = false;
        all[3].total = 0;
        all[4].done = 9007199254740992;
        all[4].total = 9007199254740992;
        all[4].rate = 1e300;
        for (const PageProgress &progress : all) {
            for (int columns = 1; columns < 200; ++columns) {
                const QString line = pageLine(pageOf(RunClass::Stopped, title), progress, columns);
                QVERIFY2(TextWidth::of(line) <= columns, qPrintable(line));
            }
        }
    }

    void aLineTellsAll()
    {
        const QString line = pageLine(pageOf(RunClass::Stopped), halfway(), 100);
        for (const char *const part :
             {"A clip ", "[=========", " 50% ", "4.0 MB of 8.0 MB", "1.0 MB/s", "0:04"})
            QVERIFY2(line.contains(text(part)), qPrintable(line));
        QVERIFY(pageLine(pageOf(RunClass::Stopped), {}, 100).contains(text("searching")));
        // The less room there is, the less is told; the name comes first.
        QVERIFY(!pageLine(pageOf(RunClass::Stopped), halfway(), 60).contains(text("0:04")));
        QCOMPARE(pageLine(pageOf(RunClass::Stopped), halfway(), 10), text("A clip    "));
    }

    void hostileTitlesDoNothing()
    {
        const QString title = text("a\x1b[2J\x1b]0;x\x07\xc2\x9b"
                                   "2J\r\n\x7f");
        const QString line = pageLine(pageOf(RunClass::Stopped, title), halfway(), 80);
        QVERIFY(firstControl(line.toUtf8()).isEmpty());
        PageFacts failed = pageOf(RunClass::Refused, title);
        failed.reason = title;
        QVERIFY(firstControl(HumanText::reasonOf(failed).toUtf8()).isEmpty());
        Summary summary;
        summary.add(failed);
        const QStringList table = summary.table(80, 0);
        for (const QString &row : table)
            QVERIFY(firstControl(row.toUtf8()).isEmpty());
    }

    void numbers()
    {
        QCOMPARE(HumanText::bytes(0), text("0 B"));
        QCOMPARE(HumanText::bytes(999), text("999 B"));
        QCOMPARE(HumanText::bytes(1000), text("1.0 kB"));
        QCOMPARE(HumanText::bytes(999949), text("999.9 kB"));
        QCOMPARE(HumanText::bytes(999950), text("1.0 MB"));
        QCOMPARE(HumanText::bytes(8335433), text("8.3 MB"));
        QCOMPARE(HumanText::duration(-1), text("0:00"));
        QCOMPARE(HumanText::duration(59499), text("0:59"));
        QCOMPARE(HumanText::duration(3599500), text("1:00:00"));
        QCOMPARE(HumanText::duration(3723000), text("1:02:03"));
    }

    void aScreen()
    {
        const Terminal terminal(40, 24);
        Screen screen(terminal.fd());
        QCOMPARE(screen.columns(), 40);
        QCOMPARE(screen.rows(), 24);
        screen.draw({}, {text("one"), text("two")});
        QCOMPARE(terminal.written(), QByteArray("\r\x1b[Jone\ntwo\n"));
        screen.draw({text("stays")}, {text("three")});
        QCOMPARE(terminal.written(), QByteArray("\x1b[2A\r\x1b[Jstays\nthree\n"));
        screen.draw({}, {});
        QCOMPARE(terminal.written(), QByteArray("\x1b[1A\r\x1b[J"));
        QVERIFY(screen.isThere());
    }

    void aTerminalThatShrinks()
    {
        const Terminal terminal(40, 24);
        Screen screen(terminal.fd());
        screen.draw({}, {QString(30, QLatin1Char('x')), text("動").repeated(10), text("y")});
        terminal.resize(10);
        QVERIFY(!terminal.written().isEmpty());
        QCOMPARE(screen.columns(), 10);
        screen.draw({}, {text("z")});
        QCOMPARE(terminal.written(), QByteArray("\x1b[6A\r\x1b[Jz\n")); // 3 + 2 + 1 rows
    }

    void noTerminal()
    {
        const int fd = ::open("/dev/full", O_WRONLY | O_CLOEXEC);
        Screen screen(fd);
        QCOMPARE(screen.columns(), 80);
        screen.draw({text("x")}, {});
        QVERIFY(!screen.isThere());
        ::close(fd);
    }

    void theWorstClassCounts()
    {
        Summary summary;
        QCOMPARE(summary.exitCode(), 0);
        summary.add(pageOf(RunClass::Complete));
        QCOMPARE(summary.exitCode(), 0);
        summary.add(pageOf(RunClass::Refused));
        summary.add(pageOf(RunClass::NothingFound));
        summary.add(pageOf(RunClass::NothingFound));
        QCOMPARE(summary.exitCode(), 33);
        PageFacts skipped = pageOf(RunClass::Complete);
        skipped.isSkipped = true;
        summary.add(skipped);
        QCOMPARE(summary.arrived(), 1);
        QCOMPARE(summary.skipped(), 1);
        QCOMPARE(summary.failed(), 3);
        QCOMPARE(summary.bytes(), qint64(8300000));
        QCOMPARE(summary.sums(61000),
                 text("1 arrived, 1 skipped, 2 nothingFound, 1 refused; 8.3 MB in 1:01"));
        summary.addFailure(RunClass::Disk);
        QCOMPARE(summary.exitCode(), 37);
    }

    void tables()
    {
        Summary summary;
        summary.add(pageOf(RunClass::Complete));
        summary.add(pageOf(RunClass::Refused, text("動画").repeated(60)));
        const QStringList table = summary.table(60, 0);
        QCOMPARE(table.size(), 4);
        QCOMPARE(table.at(1), text("complete          8.3 MB     0:07  A clip.mp4"));
        for (const QString &row : table)
            QVERIFY2(TextWidth::of(row) <= 60, qPrintable(row));
        for (int i = 0; i < 100; ++i)
            summary.add(pageOf(RunClass::Complete));
        // Where there are many, those that failed are told, and the sums.
        QCOMPARE(summary.table(60, 0).size(), 3);
    }

    void mergedLines()
    {
        const QByteArray line = "{\"event\":\"x\",\"title\":\"a\x7f"
                                "b\xc2\x9b"
                                "c\xc3\x9b\"}";
        const QByteArray merged = JsonOutput::withPage(line, text("http://a/\"\\"));
        QCOMPARE(merged,
                 QByteArray("{\"page\":\"http://a/\\\"\\\\\",\"event\":\"x\",\"title\":"
                            "\"a\\u007fb\\u009bc\xc3\x9b\"}"));
        const QJsonObject event = QJsonDocument::fromJson(merged).object();
        QCOMPARE(event.value(text("title")).toString(),
                 text("a\x7f"
                      "b\xc2\x9b"
                      "cÛ"));
    }

    void results()
    {
        const QJsonObject arrived = JsonOutput::resultOf(pageOf(RunClass::Complete), {}, 5);
        QCOMPARE(arrived.value(text("path")).toString(), text("/x/A clip.mp4"));
        QCOMPARE(arrived.value(text("exitCode")).toInt(), 0);
        const QJsonObject lost = JsonOutput::resultOf(pageOf(RunClass::EngineLost), {}, 5);
        QCOMPARE(lost.value(text("class")).toString(), text("engineLost"));
        QCOMPARE(lost.value(text("classCode")).toInt(), 42);
        QVERIFY(lost.value(text("path")).isNull() && lost.value(text("bytes")).isNull());
    }
};

CLIPWEIR_TEST_MAIN(tst_GetOutput)
#include "tst_getoutput.moc"
