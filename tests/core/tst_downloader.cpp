#include "CookieStore.h"
#include "MessageCatcher.h"
#include "ScriptedServer.h"
#include "ShareMemoryManager.h"
#include "TestFiles.h"
#include "TestMain.h"
#include "VideoPreference.h"
#include "downloader.h"

#include <memory>

namespace {

constexpr int endTimeoutMs = 30000;

using Ends = QList<QVariantList>;

/// Long enough for the toolkit to report progress in between.
HttpReply slow(const QByteArray &body)
{
    HttpReply reply = replyOf(body);
    reply.pieceBytes = body.size() / 100;
    reply.pieceDelayMs = 5;
    return reply;
}

QString progressLine(qint64 received, qint64 total)
{
    return QStringLiteral("\"downloaded:%1/%2\" ").arg(received).arg(total);
}

bool reaches(const QString &path, qint64 size)
{
    return QTest::qWaitFor([&] { return QFileInfo(path).size() >= size; }, endTimeoutMs);
}

} // namespace

class tst_Downloader : public QObject
{
    Q_OBJECT

private:
    const QString m_pageUrl = uniquePageUrl();
    std::unique_ptr<TemporaryWorkFolder> m_work;
    std::unique_ptr<ScriptedServer> m_server;
    std::unique_ptr<Downloader> m_downloader;
    std::unique_ptr<QSignalSpy> m_ends;
    std::unique_ptr<MessageCatcher> m_lines;
    QString m_video;
    QString m_thumb;

    void setOptions(const char *options)
    {
        setCommandLine(QStringLiteral("--url %1 %2").arg(m_pageUrl, QLatin1String(options)));
    }

    /// All ends so far; waits for the first one.
    Ends ends()
    {
        const bool hasEnded = !m_ends->isEmpty() || m_ends->wait(endTimeoutMs);
        QCoreApplication::processEvents();
        return hasEnded ? Ends(*m_ends) : Ends();
    }

    static Ends end(int rangeNo, int type, int result) { return {{rangeNo, type, result}}; }

private slots:
    void initTestCase() { qputenv("CLIPWEIR_COOKIES", "/dev/null"); }

    void init()
    {
        setOptions("");
        m_work = std::make_unique<TemporaryWorkFolder>();
        m_lines = std::make_unique<MessageCatcher>();
        m_server = std::make_unique<ScriptedServer>();
        m_downloader = std::make_unique<Downloader>();
        m_ends = std::make_unique<QSignalSpy>(m_downloader.get(), &Downloader::finished);
        m_video = m_work->path(QStringLiteral("v.mp4"));
        m_thumb = CVideoPreference::instance()->GetThumbFullPath();
    }

    void cleanup()
    {
        m_downloader.reset();
        m_server.reset();
        ShareMemoryManager::GetInstance()->DeleteShareMemData();
        ShareMemoryManager::GetInstance()->SetExitFlag(false);
        ShareMemoryManager::GetInstance()->detach();
        m_lines.reset();
        m_work.reset();
    }

    void video()
    {
        m_server->on("/v", replyOf(QByteArray(700, 'b')));
        m_downloader->downloadVideo(m_server->address("/v"), m_video, 700, 3, 1);
        QCOMPARE(ends(), end(3, 1, 1));
        QCOMPARE(readFile(m_video), QByteArray(700, 'b'));
        QVERIFY(!m_server->requests().at(0).hasHeader("Range"));
        QCOMPARE(m_lines->lines(), (QStringList{progressLine(0, 700), progressLine(700, 700)}));
    }

    void progressCountsFromTheFilesBeginning()
    {
        setOptions("--size 5000");
        writeFile(m_video, QByteArray(3000, 'a'));
        m_server->serve("/v", QByteArray(5000, 'a'), "video/mp4");
        m_downloader->downloadVideo(m_server->address("/v"), m_video, 5000, 0, 1);
        QCOMPARE(ends(), end(0, 1, 1));
        QCOMPARE(m_server->requests().at(0).header("Range"), QByteArray("bytes=3000-"));
        QCOMPARE(readFile(m_video), QByteArray(5000, 'a'));
        QCOMPARE(m_lines->lines(),
                 (QStringList{progressLine(3000, 5000), progressLine(5000, 5000)}));
    }

    void aCompleteFileIsNotAskedFor()
    {
        setOptions("--size 5000");
        writeFile(m_video, QByteArray(5000, 'a'));
        m_downloader->downloadVideo(m_server->address("/v"), m_video, 5000, 0, 1);
        QCOMPARE(m_ends->count(), 1); // from inside the call
        QCOMPARE(ends(), end(0, 1, 1));
        QCOMPARE(m_server->requests().size(), 0);
        QCOMPARE(m_lines->lines(), QStringList{progressLine(5000, 5000)});
    }

    void howMuchIsOnDisk_data()
    {
        QTest::addColumn<QString>("options");
        QTest::addColumn<qint64>("onDisk");
        QTest::addColumn<qint64>("totalSize");
        QTest::addColumn<QByteArray>("range");
        QTest::addColumn<QByteArray>("content"); // "new" is what the server sends
        const auto row = [](const char *name, const char *options, qint64 onDisk, qint64 total,
                            const QByteArray &range, const QByteArray &content) {
            QTest::newRow(name) << QString::fromLatin1(options) << onDisk << total << range
                                << content;
        };
        row("part of it", "--size 5", 2, 5, "bytes=2-", "aanew");
        row("nothing", "--size 5", -1, 5, "", "new");
        row("an empty file of unknown size", "", 0, 0, "", "new");
        row("an empty file, size 0 asked for", "--size 0", 0, 0, "", "new");
        row("more than the whole", "--size 5", 6, 5, "bytes=6-", "aaaaaanew");
        row("size not given: appended from the start", "", 2, 5, "", "aanew");
        row("resume off", "--noresume --size 5", 2, 5, "", "new");
        row("resume off, complete", "--noresume --size 5", 5, 5, "", "new");
        row("negative size", "--size -5", 2, 5, "", "aanew");
    }

    void howMuchIsOnDisk()
    {
        QFETCH(QString, options);
        QFETCH(qint64, onDisk);
        QFETCH(qint64, totalSize);
        QFETCH(QByteArray, range);
        QFETCH(QByteArray, content);
        setOptions(qPrintable(options));
        if (onDisk >= 0)
            writeFile(m_video, QByteArray(static_cast<int>(onDisk), 'a'));
        m_server->on("/v", [&range](const HttpRequest &) {
            HttpReply reply = replyOf("new");
            reply.status = range.isEmpty() ? 200 : 206;
            return reply;
        });
        m_downloader->downloadVideo(m_server->address("/v"), m_video, totalSize, 0, 1);
        QCOMPARE(ends(), end(0, 1, 1));
        QCOMPARE(m_server->requests().at(0).header("Range"), range);
        QCOMPARE(readFile(m_video), content);
    }

    void aFileAboveTwoGibibytesCountsAsNothing_data()
    {
        QTest::addColumn<qint64>("size");
        QTest::addColumn<int>("counted");
        QTest::newRow("largest that counts") << qint64(2147483647) << 2147483647;
        QTest::newRow("one above") << qint64(2147483648) << 0;
        QTest::newRow("whole multiple") << qint64(4294967297) << 0;
    }

    void aFileAboveTwoGibibytesCountsAsNothing()
    {
        QFETCH(qint64, size);
        QFETCH(int, counted);
        setOptions("--size 9000000000");
        QFile file(m_video);
        QVERIFY(file.open(QIODevice::WriteOnly) && file.resize(size)); // takes no room on disk
        file.close();
        m_server->hold("/v");
        m_downloader->downloadVideo(m_server->address("/v"), m_video, 9000000000, 0, 1);
        QCOMPARE(m_downloader->getDownloadedFileSize(), counted);
        QCOMPARE(m_lines->lines(), QStringList{progressLine(counted, 9000000000)});
        QTRY_COMPARE(m_server->requests().size(), 1);
        QCOMPARE(m_server->requests().at(0).header("Range"),
                 counted == 0 ? QByteArray() : QByteArray("bytes=2147483647-"));
    }

    void sizeOnDiskIsThatOfTheCurrentKind()
    {
        writeFile(m_thumb, "abc");
        QCOMPARE(m_downloader->getDownloadedFileSize(), 3); // none begun: the thumbnail's
        m_downloader->downloadVideo(m_server->address("/v"), m_video, 0, 0, 1);
        QCOMPARE(m_downloader->getDownloadedFileSize(), 0);
        QFile::remove(m_thumb);
        m_downloader->downloadThumb(m_server->address("/t"));
        QCOMPARE(m_downloader->getDownloadedFileSize(), 0);
    }

    void anAddressThatIsNotHttpFailsAtOnce_data()
    {
        QTest::addColumn<QString>("url");
        QTest::newRow("rtmp") << "rtmp://127.0.0.1/v";
        QTest::newRow("ftp") << "ftp://127.0.0.1/v";
        QTest::newRow("letter case counts") << "HTTP://127.0.0.1/v";
        QTest::newRow("file") << "file:///etc/passwd";
        QTest::newRow("empty") << "";
    }

    void anAddressThatIsNotHttpFailsAtOnce()
    {
        QFETCH(QString, url);
        m_downloader->downloadVideo(url, m_video, 5, 4, 1);
        m_downloader->downloadThumb(url);
        // The kind stays that of a fresh object.
        QCOMPARE(ends(), end(4, -1, 0) + end(0, -1, 0));
        QCOMPARE(m_downloader->getUrlFileSize(url), qint64(0));
        QCOMPARE(m_lines->lines(), QStringList());
        QVERIFY(!QFile::exists(m_video));
    }

    void theKindOfTheLastTransferIsCarriedByEarlyFailures()
    {
        m_server->on("/t", replyOf("t"));
        m_downloader->downloadThumb(m_server->address("/t"));
        QCOMPARE(ends(), end(-1, 0, 1));
        m_downloader->downloadVideo(QStringLiteral("rtmp://h/"), m_video, 0, 2, 1);
        QCOMPARE(Ends(*m_ends), end(-1, 0, 1) + end(2, 0, 0));
    }

    void videoFailure_data()
    {
        QTest::addColumn<QString>("path");
        QTest::addColumn<QByteArray>("target");
        QTest::newRow("file cannot be opened") << "none/v.mp4" << QByteArray("/v");
        QTest::newRow("missing") << "v.mp4" << QByteArray("/none");
        QTest::newRow("short") << "v.mp4" << QByteArray("/short");
    }

    void videoFailure()
    {
        QFETCH(QString, path);
        QFETCH(QByteArray, target);
        HttpReply cut = replyOf("body");
        cut.cutAfterBytes = 2;
        m_server->on("/short", cut);
        m_downloader->downloadVideo(m_server->address(target), m_work->path(path), 4, 5, 1);
        QCOMPARE(ends(), end(5, 1, 0));
        QCOMPARE(readFile(m_video), QByteArray(target == "/short" ? "bo" : ""));
    }

    void thumb()
    {
        m_server->on("/t", slow(QByteArray(1000, 't')));
        m_downloader->downloadThumb(m_server->address("/t"));
        QCOMPARE(ends(), end(-1, 0, 1));
        QCOMPARE(readFile(m_thumb), QByteArray(1000, 't'));
        QCOMPARE(m_lines->lines(), QStringList()); // no progress
    }

    void aSilentServerFailsAThumb()
    {
        setOptions("--stall 1");
        m_server->on("/t", heldReplyOf(QByteArray(700, 'b'), 300));
        m_downloader->downloadThumb(m_server->address("/t"));
        QCOMPARE(ends(), end(-1, Downloader::Thumb, Downloader::Failed));
        QVERIFY(!QFile::exists(m_thumb));
    }

    void aThumbThatIsThereIsNotAskedFor()
    {
        writeFile(m_thumb, "old");
        m_downloader->downloadThumb(m_server->address("/t"));
        QCOMPARE(ends(), end(0, 0, 1));
        QCOMPARE(m_server->requests().size(), 0);
        QCOMPARE(readFile(m_thumb), QByteArray("old"));
    }

    void withoutResumeTheThumbIsReplaced()
    {
        setOptions("--noresume");
        writeFile(m_thumb, "something old");
        m_server->on("/t", replyOf("new"));
        m_downloader->downloadThumb(m_server->address("/t"));
        QCOMPARE(ends(), end(-1, 0, 1));
        QCOMPARE(readFile(m_thumb), QByteArray("new"));
    }

    void aThumbCutOffIsRemoved_data()
    {
        QTest::addColumn<QByteArray>("target");
        QTest::newRow("missing") << QByteArray("/none");
        QTest::newRow("short") << QByteArray("/short");
    }

    void aThumbCutOffIsRemoved()
    {
        QFETCH(QByteArray, target);
        HttpReply cut = replyOf("body");
        cut.cutAfterBytes = 2;
        m_server->on("/short", cut);
        m_downloader->downloadThumb(m_server->address(target));
        QCOMPARE(ends(), end(-1, 0, 0));
        QVERIFY(!QFile::exists(m_thumb));
    }

    void aThumbIsRemovedWhenTheRunEndsFirst_data()
    {
        QTest::addColumn<bool>("isCanceled");
        QTest::newRow("canceled") << true;
        QTest::newRow("destroyed") << false;
    }

    void aThumbIsRemovedWhenTheRunEndsFirst()
    {
        QFETCH(bool, isCanceled);
        m_server->on("/t", heldReplyOf("body", 2));
        m_downloader->downloadThumb(m_server->address("/t"));
        QVERIFY(reaches(m_thumb, 2));
        if (isCanceled)
            m_downloader->cancel();
        else
            m_downloader.reset();
        QVERIFY(!QFile::exists(m_thumb));
        QCOMPARE(Ends(*m_ends), isCanceled ? end(-1, 0, 0) : Ends());
    }

    void aThumbThatCannotBeOpenedStays()
    {
        setOptions("--noresume");
        QVERIFY(QDir().mkpath(m_thumb)); // a folder stands in its place
        m_downloader->downloadThumb(m_server->address("/t"));
        QCOMPARE(m_ends->count(), 1);
        QCOMPARE(ends(), end(-1, 0, 0));
        m_downloader.reset();
        QVERIFY(QDir(m_thumb).exists());
        QCOMPARE(m_server->requests().size(), 0);
    }

    void aWholeThumbOutlivesTheDownloader()
    {
        m_server->on("/t", replyOf("t"));
        m_downloader->downloadThumb(m_server->address("/t"));
        QCOMPARE(ends(), end(-1, 0, 1));
        m_downloader->cancel();
        m_downloader.reset();
        QCOMPARE(readFile(m_thumb), QByteArray("t"));
    }

    void oneObjectFetchesThumbAndVideo()
    {
        m_server->on("/t", replyOf("thumb"));
        m_server->on("/v", replyOf("video"));
        m_downloader->downloadThumb(m_server->address("/t"));
        QCOMPARE(ends(), end(-1, 0, 1));
        m_downloader->downloadVideo(m_server->address("/v"), m_video, 0, 0, 1);
        QTRY_COMPARE_WITH_TIMEOUT(m_ends->count(), 2, endTimeoutMs);
        m_downloader->downloadVideo(m_server->address("/v"), m_video, 0, 1, 1);
        QTRY_COMPARE_WITH_TIMEOUT(m_ends->count(), 3, endTimeoutMs);
        QCOMPARE(Ends(*m_ends), end(-1, 0, 1) + end(0, 1, 1) + end(1, 1, 1));
        QCOMPARE(readFile(m_thumb), QByteArray("thumb"));
        QCOMPARE(readFile(m_video), QByteArray("videovideo")); // resume on, size unknown: appended
    }

    void theVideoMayBeginInsideTheThumbsEnd_data()
    {
        QTest::addColumn<QByteArray>("target");
        QTest::addColumn<int>("result");
        QTest::newRow("success") << QByteArray("/t") << 1;
        QTest::newRow("failure") << QByteArray("/none") << 0;
    }

    void theVideoMayBeginInsideTheThumbsEnd()
    {
        QFETCH(QByteArray, target);
        QFETCH(int, result);
        m_server->on("/t", replyOf("thumb"));
        m_server->on("/v", replyOf("video"));
        connect(m_downloader.get(), &Downloader::finished, this, [this](int, int type) {
            if (type == Downloader::Thumb)
                m_downloader->downloadVideo(m_server->address("/v"), m_video, 5, 0, 1);
        });
        m_downloader->downloadThumb(m_server->address(target));
        QTRY_COMPARE_WITH_TIMEOUT(m_ends->count(), 2, endTimeoutMs);
        QCOMPARE(Ends(*m_ends), end(-1, 0, result) + end(0, 1, 1));
        QCOMPARE(readFile(m_video), QByteArray("video"));
    }

    void cancelEndsInTheErrorSlot()
    {
        m_server->on("/v", heldReplyOf("body", 2));
        m_downloader->downloadVideo(m_server->address("/v"), m_video, 4, 6, 1);
        QVERIFY(reaches(m_video, 2));
        m_downloader->cancel();
        m_downloader->cancel();
        QCOMPARE(ends(), end(6, 1, 0));
        QCOMPARE(readFile(m_video), QByteArray("bo"));
    }

    void cancelWithAReportComesFirst()
    {
        m_server->on("/v", heldReplyOf("body", 2));
        m_downloader->downloadVideo(m_server->address("/v"), m_video, 4, 6, 1);
        QVERIFY(reaches(m_video, 2));
        m_downloader->cancel(8, 1);
        QCOMPARE(m_ends->at(0), (QVariantList{8, 1, -1}));
        QCOMPARE(ends(), end(8, 1, -1) + end(6, 1, 0));
    }

    void cancelWithAReportAndNoTransfer()
    {
        m_downloader->cancel();
        m_downloader->cancel(8, 0);
        QCOMPARE(ends(), end(8, 0, -1));
    }

    void theExitFlagIsSeenAtProgress()
    {
        QVERIFY(ShareMemoryManager::GetInstance()->SetExitFlag(true));
        HttpReply reply = slow(QByteArray(100000, 'v'));
        reply.holdAfterBytes = 90000; // the end can only come from the flag
        m_server->on("/v", reply);
        m_downloader->downloadVideo(m_server->address("/v"), m_video, 100000, 2, 1);
        QCOMPARE(ends(), end(2, 1, 0));
        // The start, the report that saw the flag and perhaps a last one from the end it brought.
        QVERIFY(m_lines->lines().size() == 2 || m_lines->lines().size() == 3);
        const qint64 onDisk = QFileInfo(m_video).size();
        QVERIFY(onDisk > 0 && onDisk <= 90000);
        QVERIFY(m_lines->lines().at(1).startsWith(QLatin1String("\"downloaded:")));
        QVERIFY(m_lines->lines().at(1).endsWith(QLatin1String("/100000\" ")));
    }

    void theExitFlagIsNotSeenByAThumb()
    {
        QVERIFY(ShareMemoryManager::GetInstance()->SetExitFlag(true));
        m_server->on("/t", slow(QByteArray(10000, 't')));
        m_downloader->downloadThumb(m_server->address("/t"));
        QCOMPARE(ends(), end(-1, 0, 1));
    }

    void destructionKeepsAVideosPart()
    {
        m_server->on("/v", heldReplyOf("body", 2));
        m_downloader->downloadVideo(m_server->address("/v"), m_video, 4, 0, 1);
        QVERIFY(reaches(m_video, 2));
        m_downloader.reset();
        QCOMPARE(readFile(m_video), QByteArray("bo"));
        QCOMPARE(m_ends->count(), 0);
    }

    void urlFileSize()
    {
        m_server->on("/v", replyOf(QByteArray(1234, 'v')));
        QCOMPARE(m_downloader->getUrlFileSize(m_server->address("/v")), qint64(1234));
        QCOMPARE(m_downloader->getUrlFileSize(QStringLiteral("http://")), qint64(0));
    }

    void urlFileSizeUsesTheProxy()
    {
        setOptions(qPrintable(QStringLiteral("--proxy 3:127.0.0.1:%1").arg(m_server->port())));
        m_server->onOther([](const HttpRequest &) { return replyOf("12345"); });
        const QString url = QStringLiteral("http://media.test/v");
        QCOMPARE(m_downloader->getUrlFileSize(url), qint64(5));
        QCOMPARE(m_server->requests().at(0).target, url.toUtf8());
    }
};

CLIPWEIR_TEST_MAIN(tst_Downloader)
#include "tst_downloader.moc"
