#include "CookieCopy.h"
#include "EventReader.h"
#include "FileKind.h"
#include "GetOptions.h"
#include "RunSwitches.h"
#include "TestFiles.h"
#include "TestMain.h"

#include <QRegularExpression>

namespace {

QString text(const char *utf8)
{
    return QString::fromUtf8(utf8);
}

GetOptions parsed(const QString &words)
{
    return GetOptions::parse(words.split(QLatin1Char(' '), Qt::SkipEmptyParts));
}

/// The long options of a text, sorted, each once.
QStringList longOptions(const QString &content)
{
    static const QRegularExpression option(QStringLiteral("--[a-z][a-z-]+"));
    QStringList found;
    auto matches = option.globalMatch(content);
    while (matches.hasNext())
        found += matches.next().captured();
    found.removeDuplicates();
    found.sort();
    return found;
}

} // namespace

/// What the command is told, and what it tells its runs and hears from them.
class tst_GetOptions : public QObject
{
    Q_OBJECT

private slots:
    void defaults()
    {
        const GetOptions options = parsed(text("http://a/1 http://a/2"));
        QCOMPARE(options.wish, GetOptions::Wish::Fetch);
        QCOMPARE(options.addresses, (QStringList{text("http://a/1"), text("http://a/2")}));
        QCOMPARE(options.jobs, 4);
        QCOMPARE(options.perHost, 2);
        QCOMPARE(options.retries, 3);
        QCOMPARE(options.folder, text("."));
    }

    void all()
    {
        const GetOptions options = parsed(
            text("-o {id}.{ext} -d out -i a -i - -j 8 --per-host 3 --archive done --retries 0 "
                 "--quality 720 --format MP4 --language pt-BR --connections 5 --proxy "
                 "socks5://127.0.0.1:1080 --cookies c.txt --thumb --timeout 5 --stall 6 "
                 "--deadline 0 --report r.html --json -q --simulate http://a/"));
        QCOMPARE(options.complaint, QString());
        QCOMPARE(options.lists, (QStringList{text("a"), text("-")}));
        QCOMPARE(options.jobs, 8);
        QCOMPARE(options.perHost, 3);
        QCOMPARE(options.retries, 0);
        QCOMPARE(options.format, 2);
        QCOMPARE(options.proxy, text("1:127.0.0.1:1080"));
        QVERIFY(options.wantsThumb && options.tellsJson && options.isQuiet && options.isSimulation);
        const QStringList switches =
            RunSwitches::forPage(options, text("http://a/"), text("/x/video.mp4"));
        const QString line = switches.join(QLatin1Char(' '));
        for (const char *const part :
             {"--url http://a/", "--saveto /x/video.mp4", "--quality 720", "--format 2",
              "--language pt-BR", "--connections 5", "--proxy 1:127.0.0.1:1080", "--timeout 5",
              "--stall 6", "--engine auto", "--events", "--strict", "--eager", "--streams",
              "--parent", "--partial"})
            QVERIFY2(line.contains(QLatin1String(part)), part);
        QVERIFY(!line.contains(text("--continue")));
        QVERIFY(!line.contains(text("--deadline")));
    }

    void usualSwitches()
    {
        const QStringList switches = RunSwitches::forPage(parsed(text("--thumb http://a/")),
                                                          text("http://a/"), text("/x/video.mp4"));
        for (const char *const name :
             {"--continue", "--retries", "--thumb", "--deadline", "--stall"})
            QVERIFY2(switches.contains(text(name)), name);
        QCOMPARE(switches.value(switches.indexOf(text("--connections")) + 1), text("8"));
        for (const char *const name :
             {"--partial", "--proxy", "--quality", "--format", "--language"})
            QVERIFY2(!switches.contains(text(name)), name);
    }

    void complaints_data()
    {
        QTest::addColumn<QString>("words");
        for (const char *const words : {"--none",
                                        "-j",
                                        "-j 0",
                                        "-j x",
                                        "-j 65",
                                        "--per-host -1",
                                        "--retries 1001",
                                        "--quality 0",
                                        "--format avi",
                                        "--language --log",
                                        "--language /log",
                                        "--language en_",
                                        "--proxy x",
                                        "--proxy socks5://a",
                                        "--proxy http://u:p@a:1",
                                        "--proxy ftp://a:1",
                                        "--proxy http://[::1]:80",
                                        "-o {x}",
                                        "-o ../x",
                                        "--connections 33",
                                        "--timeout 0",
                                        "--deadline 99999999999"})
            QTest::newRow(words) << text(words);
    }

    void complaints()
    {
        QFETCH(QString, words);
        const GetOptions options = parsed(words + text(" http://a/"));
        QCOMPARE(options.wish, GetOptions::Wish::Complain);
        QVERIFY(!options.complaint.isEmpty());
        QVERIFY(firstControl(options.complaint.toUtf8()).isEmpty());
    }

    void papersHaveAllOptions_data()
    {
        QTest::addColumn<QString>("path");
        for (const char *const path :
             {"docs/clipweir-get.1", "packaging/clipweir-get.bash-completion",
              "packaging/clipweir-get.zsh-completion"})
            QTest::newRow(path) << QString::fromLatin1(GET_TOP_DIR) + text(path);
    }

    void papersHaveAllOptions()
    {
        QFETCH(QString, path);
        const QString paper = QString::fromUtf8(readFile(path)).remove(QLatin1Char('\\'));
        QStringList wanted = longOptions(GetOptions::helpText());
        QVERIFY(wanted.size() > 20);
        const QStringList found = longOptions(paper);
        for (const QString &option : wanted)
            QVERIFY2(found.contains(option), qPrintable(option));
    }

    void theManPageHasAllClasses()
    {
        const QByteArray paper =
            readFile(QString::fromLatin1(GET_TOP_DIR) + text("docs/clipweir-get.1"));
        for (const RunClasses::Row &row : RunClasses::all()) {
            if (row.exitCode != 0)
                QVERIFY2(paper.contains("\n.TP\n" + QByteArray::number(row.exitCode) + '\n'),
                         row.name.data());
        }
    }

    void theFishCompletionHasAllOptions()
    {
        const QString paper = QString::fromUtf8(
            readFile(QString::fromLatin1(GET_TOP_DIR) + text("packaging/clipweir-get.fish")));
        const QStringList wanted = longOptions(GetOptions::helpText());
        for (const QString &option : wanted)
            QVERIFY2(paper.contains(text(" -l ") + option.mid(2) + QLatin1Char(' ')),
                     qPrintable(option));
    }

    void eventsInAnyPieces()
    {
        const QByteArray lines =
            "{\"version\":1,\"event\":\"a\"}\nno event\n[1]\n{\"version\":2,"
            "\"event\":\"x\"}\n{\"version\":1}\n{\"version\":1,\"event\":\"b\"}\n"
            "{\"version\":1,\"event\":\"half";
        for (int size = 1; size < lines.size(); ++size) {
            QByteArray names;
            EventReader reader([&names](const QJsonObject &event, const QByteArray &line) {
                names += event.value(text("event")).toString().toLatin1();
                QVERIFY(line.startsWith('{') && line.endsWith('}'));
            });
            for (int i = 0; i < lines.size(); i += size)
                reader.take(lines.mid(i, size));
            QCOMPARE(names, QByteArray("ab"));
        }
    }

    void linesWithoutAnEnd()
    {
        int count = 0;
        EventReader reader([&count](const QJsonObject &, const QByteArray &) { ++count; });
        const QByteArray piece(1024 * 1024, 'x');
        for (int i = 0; i < 100; ++i)
            reader.take(piece);
        reader.take("{\"version\":1,\"event\":\"a\"}\n");
        QCOMPARE(count, 0);
        reader.take("{\"version\":1,\"event\":\"a\"}\n");
        QCOMPARE(count, 1);
    }

    void sessionCookiesGetAnEnd()
    {
        const QByteArray content =
            "# x\n.a\tTRUE\t/\tFALSE\t0\tn\tv\n#HttpOnly_.a\tTRUE\t/\tFALSE\t0\tm\t\n"
            ".a\tTRUE\t/\tFALSE\t77\to\tv\n";
        const QByteArray copied = CookieCopy::withSessions(content, 99);
        QCOMPARE(
            copied,
            QByteArray("# x\n.a\tTRUE\t/\tFALSE\t99\tn\tv\n#HttpOnly_.a\tTRUE\t/\tFALSE\t99\tm\t\n"
                       ".a\tTRUE\t/\tFALSE\t77\to\tv\n"));
    }

    void theCopyIsPrivate()
    {
        const TemporaryWorkFolder folder;
        const QByteArray content = ".a\tTRUE\t/\tFALSE\t77\to\tv\n";
        writeFile(folder.path(text("c.txt")), content);
        CookieCopy copy;
        QVERIFY(!copy.make(folder.path(text("none"))));
        QVERIFY(copy.make(folder.path(text("c.txt"))));
        QCOMPARE(readFile(copy.path()), content);
        const auto shared = QFileDevice::ReadGroup | QFileDevice::ReadOther
            | QFileDevice::WriteGroup | QFileDevice::WriteOther;
        QVERIFY(!(QFile::permissions(copy.path()) & shared));
    }

    void kindsOfFiles_data()
    {
        QTest::addColumn<QByteArray>("head");
        QTest::addColumn<QString>("extension");
        QTest::newRow("empty") << QByteArray() << text("other");
        QTest::newRow("mp4") << QByteArray("\0\0\0\x18"
                                           "ftypisom",
                                           12)
                             << text("mp4");
        QTest::newRow("m4a") << QByteArray("\0\0\0\x18"
                                           "ftypM4A ",
                                           12)
                             << text("m4a");
        QTest::newRow("webm") << QByteArray("\x1a\x45\xdf\xa3\x9f\x42\x82\x84webm") << text("webm");
        QTest::newRow("mkv") << QByteArray("\x1a\x45\xdf\xa3\x9f\x42\x82\x88matroska")
                             << text("mkv");
        QTest::newRow("flv") << QByteArray("FLV\1") << text("flv");
        QTest::newRow("text") << QByteArray("<html>") << text("other");
    }

    void kindsOfFiles()
    {
        QFETCH(QByteArray, head);
        QFETCH(QString, extension);
        const TemporaryWorkFolder folder;
        writeFile(folder.path(text("f")), head);
        QCOMPARE(FileKind::extensionOf(folder.path(text("f")), text("other")), extension);
        QVERIFY(QFile::link(folder.path(text("f")), folder.path(text("l"))));
        QCOMPARE(FileKind::extensionOf(folder.path(text("l")), text("other")), text("other"));
        QVERIFY(FileKind::isPlainFile(folder.path(text("f"))));
        QVERIFY(!FileKind::isPlainFile(folder.path(text("l"))));
    }
};

CLIPWEIR_TEST_MAIN(tst_GetOptions)
#include "tst_getoptions.moc"
