#include "CsvLog.h"
#include "TestFiles.h"
#include "TestMain.h"
#include "VideoPreference.h"

#include <QDate>
#include <QDir>
#include <QTextCodec>

#include <csignal>
#include <vector>

#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

const QByteArray header("TaskId,Url,State,Time Used(s),FileSize,Duration(s),Width,Height,Title,"
                        "Thumb Path,Video Path\n");
const QByteArray md5("D2E30D023BACB13655CF2F69855DDD49");

ParseData foundRecord(const QString &title)
{
    ParseData data;
    data.pageSource = QStringLiteral("<title>") + title + QStringLiteral("</title>");
    data.startTime = QDateTime::fromMSecsSinceEpoch(1000'000000'000);
    data.endTime = data.startTime.addSecs(12);
    data.add(QStringLiteral("http://h/a.mp4"));
    data.selectedVideo = 0;
    VideoFile &file = data.fileList.first();
    file.nSize = 5000'000000;
    file.duration = 61;
    file.width = 1280;
    file.height = 720;
    return data;
}

void save(ParseData data)
{
    CsvLog(data).saveDownloadResult();
}

} // namespace

class tst_CsvLog : public QObject
{
    Q_OBJECT

private:
    /// The day's file in a work folder.
    static QByteArray csvIn(const TemporaryWorkFolder &work)
    {
        const QDir logs(work.path(QStringLiteral("out/logs")));
        const QStringList names = logs.entryList(QDir::Files | QDir::Hidden);
        return names.size() == 1 ? readFile(logs.filePath(names.constFirst())) : QByteArray();
    }

    /// The paths at a row's end, as they are when neither file exists.
    static QByteArray pathsIn(const TemporaryWorkFolder &work)
    {
        return "\"\",\"X " + work.path(QStringLiteral("out/v.mp4")).toUtf8() + '"';
    }

    static void setOptions(const TemporaryWorkFolder &work, const char *flags = "--log")
    {
        setCommandLine(QStringLiteral("--url http://a/ --saveto ")
                       + work.path(QStringLiteral("out/v.mp4 ")) + QLatin1String(flags));
    }

private slots:
    void headerHasElevenColumns()
    {
        ParseData data;
        QCOMPARE(CsvLog(data).GetCsvHeader().toUtf8() + '\n', header);
        QCOMPARE(header.count(',') + 1, 11);
    }

    void row()
    {
        const TemporaryWorkFolder work;
        setOptions(work);
        ParseData data = foundRecord(QStringLiteral("A film"));
        data.succeeded = true;
        QCOMPARE(CsvLog(data).GetLogMessage().toUtf8(),
                 md5 + ",\"http://a/\",Y,12,5000000000,61,1280,720,\"A film\"," + pathsIn(work));
    }

    void rowWithoutAChosenFileKeepsItsColumns()
    {
        const TemporaryWorkFolder work;
        setOptions(work);
        ParseData data = foundRecord(QString());
        data.selectedVideo = -1;
        data.endTime = QDateTime();
        const QByteArray line = CsvLog(data).GetLogMessage().toUtf8();
        QCOMPARE(line, md5 + ",\"http://a/\",N,0,,,,,\"\"," + pathsIn(work));
        QCOMPARE(line.count(',') + 1, 11);
    }

    void negativeNumbersKeepTheirSign()
    {
        const TemporaryWorkFolder work;
        setOptions(work);
        ParseData data = foundRecord(QString());
        data.endTime = data.startTime.addSecs(-3);
        data.fileList.first().nSize = -1;
        QVERIFY(CsvLog(data).GetLogMessage().contains(QLatin1String(",N,-3,-1,61,")));
    }

    void existingFilesAreNamed_data()
    {
        QTest::addColumn<bool>("isVideoThere");
        QTest::addColumn<bool>("isThumbThere");
        QTest::newRow("neither") << false << false;
        QTest::newRow("video") << true << false;
        QTest::newRow("thumb") << false << true;
        QTest::newRow("both") << true << true;
    }

    void existingFilesAreNamed()
    {
        QFETCH(bool, isVideoThere);
        QFETCH(bool, isThumbThere);
        const TemporaryWorkFolder work;
        setOptions(work);
        const QString video = work.path(QStringLiteral("out/v.mp4"));
        const QString thumb =
            work.path(QStringLiteral("out/") + QString::fromLatin1(md5) + QStringLiteral(".thumb"));
        if (isVideoThere)
            writeFile(video, "v");
        if (isThumbThere)
            writeFile(thumb, "t");
        ParseData data = foundRecord(QString());
        const QString end = QStringLiteral(",\"") + (isThumbThere ? thumb : QString())
            + QStringLiteral("\",\"") + (isVideoThere ? QString() : QStringLiteral("X ")) + video
            + QLatin1Char('"');
        QVERIFY(CsvLog(data).GetLogMessage().endsWith(end));
    }

    void titleGoesOutAsItIs_data()
    {
        QTest::addColumn<QString>("title");
        QTest::addColumn<QString>("column");
        QTest::newRow("quotes and commas") << "a \"b\", c"
                                           << "a \"b\", c";
        QTest::newRow("place markers") << "%1 %2 %3"
                                       << "%1 %2 %3";
        QTest::newRow("line feed") << "a\nb"
                                   << "a b";
        QTest::newRow("carriage return") << "a\rb"
                                         << "a b";
        QTest::newRow("both are one line break") << "a\r\nb"
                                                 << "a b";
        QTest::newRow("two line breaks") << "a\n\nb"
                                         << "a  b";
    }

    void titleGoesOutAsItIs()
    {
        QFETCH(QString, title);
        QFETCH(QString, column);
        const TemporaryWorkFolder work;
        setOptions(work);
        ParseData data = foundRecord(title);
        QVERIFY(CsvLog(data).GetLogMessage().contains(QLatin1String(",720,\"") + column
                                                      + QLatin1String("\",\"")));
    }

    void theRecordIsCopied()
    {
        const TemporaryWorkFolder work;
        setOptions(work);
        ParseData data = foundRecord(QStringLiteral("A"));
        const CsvLog log(data);
        const QString before = log.GetLogMessage();
        data = ParseData();
        QCOMPARE(log.GetLogMessage(), before);
    }

    void nothingIsWrittenWithoutLogging()
    {
        const TemporaryWorkFolder work;
        setOptions(work, "");
        save(foundRecord(QString()));
        QVERIFY(QDir(work.path()).isEmpty());
    }

    void theFirstRowOfADayFollowsTheHeader()
    {
        const TemporaryWorkFolder work;
        setOptions(work);
        const QByteArray line =
            md5 + ",\"http://a/\",N,12,5000000000,61,1280,720,\"T\"," + pathsIn(work) + '\n';
        save(foundRecord(QStringLiteral("T")));
        QCOMPARE(csvIn(work), header + line);
        save(foundRecord(QStringLiteral("T")));
        QCOMPARE(csvIn(work), header + line + line);
    }

    void theFileIsNamedAfterTheDay()
    {
        const TemporaryWorkFolder work;
        setOptions(work);
        const QDate before = QDate::currentDate();
        save(foundRecord(QString()));
        const QDate after = QDate::currentDate();
        const auto exists = [&work](const QDate &day) {
            return QFile::exists(work.path(QStringLiteral("out/logs/")
                                           + day.toString(QStringLiteral("yyyy-MM-dd"))
                                           + QStringLiteral(".csv")));
        };
        QVERIFY(exists(before) || exists(after));
    }

    void theCallersMaskDecidesWhoMayReadTheFile_data()
    {
        QTest::addColumn<unsigned>("mask");
        QTest::addColumn<unsigned>("mode");
        QTest::newRow("usual") << 0022U << 0644U;
        QTest::newRow("private") << 0077U << 0600U;
        QTest::newRow("for a group") << 0007U << 0660U;
        QTest::newRow("none") << 0U << 0666U;
    }

    void theCallersMaskDecidesWhoMayReadTheFile()
    {
        QFETCH(unsigned, mask);
        QFETCH(unsigned, mode);
        const TemporaryWorkFolder work;
        setOptions(work);
        const mode_t before = ::umask(static_cast<mode_t>(mask));
        save(foundRecord(QString()));
        ::umask(before);
        const QDir logs(work.path(QStringLiteral("out/logs")));
        struct stat info = {};
        const QString path = logs.filePath(logs.entryList(QDir::Files).value(0));
        QCOMPARE(::stat(QFile::encodeName(path).constData(), &info), 0);
        QCOMPARE(static_cast<unsigned>(info.st_mode & 0777U), mode);
    }

    void aLinkThatLeadsNowhereGetsTheHeaderToo()
    {
        const TemporaryWorkFolder work;
        setOptions(work);
        const QString target = work.path(QStringLiteral("elsewhere.csv"));
        const QString path = CVideoPreference::instance()->GetCsvFullPath(QStringLiteral("csv"));
        QVERIFY(QFile::link(target, path));
        save(foundRecord(QStringLiteral("T")));
        QVERIFY(readFile(target).startsWith(header + md5));
        QVERIFY(QFileInfo(path).isSymLink());
    }

    void aFifoThatNobodyReadsDoesNotHoldUpTheEnd()
    {
        const TemporaryWorkFolder work;
        setOptions(work);
        const QString path = CVideoPreference::instance()->GetCsvFullPath(QStringLiteral("csv"));
        QCOMPARE(::mkfifo(QFile::encodeName(path).constData(), 0600), 0);
        save(foundRecord(QString())); // and comes back
        QVERIFY(QFileInfo::exists(path));
    }

    void aRowThatFindsNoRoomLeavesNothing()
    {
        const TemporaryWorkFolder work;
        setOptions(work);
        save(foundRecord(QStringLiteral("T")));
        const QByteArray before = csvIn(work);
        const pid_t child = ::fork();
        if (child == 0) {
            const rlimit limit{static_cast<rlim_t>(before.size() + 10), RLIM_INFINITY};
            std::signal(SIGXFSZ, SIG_IGN);
            const bool isLimited = ::setrlimit(RLIMIT_FSIZE, &limit) == 0;
            save(foundRecord(QStringLiteral("T")));
            ::_exit(isLimited ? 0 : 1);
        }
        int status = -1;
        ::waitpid(child, &status, 0);
        QCOMPARE(status, 0);
        QCOMPARE(csvIn(work), before);
    }

    void anExistingFileGetsNoHeader()
    {
        const TemporaryWorkFolder work;
        setOptions(work);
        writeFile(CVideoPreference::instance()->GetCsvFullPath(QStringLiteral("csv")), "old\n");
        save(foundRecord(QStringLiteral("T")));
        QVERIFY(csvIn(work).startsWith("old\n" + md5));
    }

    void utf8InEveryLocale()
    {
        const TemporaryWorkFolder work;
        setOptions(work);
        QTextCodec *const codec = QTextCodec::codecForLocale();
        QTextCodec::setCodecForLocale(QTextCodec::codecForName("ISO-8859-1"));
        save(foundRecord(QString::fromUtf8("\xc3\xa9 \xe4\xb8\xad \xf0\x9f\x8e\xac")));
        QTextCodec::setCodecForLocale(codec);
        QVERIFY(csvIn(work).contains("\"\xc3\xa9 \xe4\xb8\xad \xf0\x9f\x8e\xac\""));
    }

    void aFileThatCannotBeWrittenIsPassedOver_data()
    {
        QTest::addColumn<QString>("obstacle");
        QTest::newRow("the file is a folder") << "out/logs/%1/x";
        QTest::newRow("the log folder is a file") << "out/logs";
    }

    void aFileThatCannotBeWrittenIsPassedOver()
    {
        QFETCH(QString, obstacle);
        const TemporaryWorkFolder work;
        setOptions(work);
        const QString path = CVideoPreference::instance()->GetCsvFullPath(QStringLiteral("csv"));
        QDir(work.path(QStringLiteral("out/logs"))).removeRecursively();
        writeFile(work.path(obstacle.replace(QLatin1String("%1"), QFileInfo(path).fileName())),
                  "x");
        save(foundRecord(QString()));
        QVERIFY(readFile(path).isEmpty());
    }

    void manyWritersGiveOneHeaderAndWholeRows_data()
    {
        QTest::addColumn<int>("round");
        for (int round = 0; round < 5; ++round)
            QTest::newRow(qPrintable(QString::number(round))) << round;
    }

    void manyWritersGiveOneHeaderAndWholeRows()
    {
        constexpr int writers = 20;
        const TemporaryWorkFolder work;
        setOptions(work);
        const QString longTitle(20000, QLatin1Char('t'));
        const ParseData data = foundRecord(longTitle);
        writeAtOnce(writers, data);

        QByteArray content = csvIn(work); // also: no half-made file was left behind
        QVERIFY(content.startsWith(header));
        QList<QByteArray> lines = content.split('\n');
        QCOMPARE(lines.size(), 1 + writers + 1);
        QCOMPARE(lines.takeLast(), QByteArray());
        lines.removeFirst();
        const QByteArray expected = md5 + ",\"http://a/\",N,12,5000000000,61,1280,720,\""
            + longTitle.toUtf8() + "\"," + pathsIn(work);
        for (const QByteArray &line : qAsConst(lines))
            QCOMPARE(line, expected);
    }

private:
    /// Saves the record from so many processes, which all set off at one moment.
    static void writeAtOnce(int writers, const ParseData &data)
    {
        int gate[2];
        QCOMPARE(::pipe(gate), 0);
        std::vector<pid_t> children;
        for (int i = 0; i < writers; ++i) {
            const pid_t child = ::fork();
            if (child == 0) {
                char byte = 0;
                ::close(gate[1]);
                const auto count = ::read(gate[0], &byte, 1); // ends when the gate is closed
                save(data);
                ::_exit(count == 0 ? 0 : 1);
            }
            children.push_back(child);
        }
        ::close(gate[0]);
        ::close(gate[1]);
        for (const pid_t child : children) {
            int status = -1;
            ::waitpid(child, &status, 0);
            QCOMPARE(status, 0);
        }
    }
};

CLIPWEIR_TEST_MAIN(tst_CsvLog)
#include "tst_csvlog.moc"
