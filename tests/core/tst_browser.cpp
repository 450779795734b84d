#include "FakeEngine.h"
#include "MessageCatcher.h"
#include "ScriptedServer.h"
#include "ShareMemoryManager.h"
#include "TestMain.h"
#include "browser.h"
#include "downloader.h"

#include <QDir>
#include <QPointer>
#include <QSignalSpy>
#include <QTemporaryDir>

#include <memory>

namespace {

QString text(const char *latin1)
{
    return QString::fromLatin1(latin1);
}

/// A run of the command line, with an engine that the test plays.
struct Run
{
    FakeEngine *engine;
    Browser browser;

    Run()
        : Run(std::make_unique<FakeEngine>())
    {
    }

    /// The clock of its search.
    [[nodiscard]] SearchClock *clock() const { return browser.findChild<SearchClock *>(); }

    /// Whether it is going to end.
    [[nodiscard]] bool isClosing() const { return !m_closing.isEmpty(); }

private:
    explicit Run(std::unique_ptr<FakeEngine> fake)
        : engine(fake.get())
        , browser(std::move(fake), RunOptions::ofCommandLine())
    {
    }

    const QSignalSpy m_closing{&browser, &Browser::closeWebView};
};

PageSnapshot snapshotOf(const QString &source)
{
    PageSnapshot snapshot;
    snapshot.source = source;
    return snapshot;
}

/// The one file of the record that was sent; null when there is none, or another number of files.
VideoFile onlyFile(const MessageCatcher &catcher)
{
    const QStringList records = catcher.linesWith(text("\"{\"fileList\":"));
    if (records.size() != 1)
        return {};
    ParseData record;
    record.fromJson(records.first().mid(1, records.first().size() - 3).toUtf8());
    return record.fileList.size() == 1 ? record.fileList.first() : VideoFile();
}

} // namespace

class tst_Browser : public QObject
{
    Q_OBJECT

    std::unique_ptr<QTemporaryDir> m_folder;

    void setOptions(const QStringList &more, const QString &url = text("http://127.0.0.1:1/tst"))
    {
        setArguments(
            QStringList{text("--url"), url, text("--saveto"), m_folder->filePath(text("video.mp4"))}
            + more);
    }

    /// A column of the row that a run with "--log" has left; none when there is not one row.
    QString column(int index) const
    {
        const QDir logs(m_folder->filePath(text("logs")));
        const QStringList tables = logs.entryList({text("*.csv")}, QDir::Files);
        QFile table(logs.filePath(tables.value(0)));
        if (tables.size() != 1 || !table.open(QIODevice::ReadOnly))
            return {};
        const QStringList lines = QString::fromUtf8(table.readAll()).split(QLatin1Char('\n'));
        return lines.size() == 3 ? lines.at(1).split(QLatin1Char(',')).value(index) : QString();
    }

    static constexpr int successColumn = 2;
    static constexpr int secondsColumn = 3;

private slots:
    void init()
    {
        m_folder = std::make_unique<QTemporaryDir>();
        setOptions({});
    }

    void f4fAddresses_data()
    {
        QTest::addColumn<QString>("url");
        QTest::addColumn<bool>("isF4f");
        QTest::addColumn<QString>("manifestUrl");
        const QString manifest = text("http://h/v/mainfest.f4m");
        QTest::newRow("fragment") << text("http://h/v/Seg1-Frag5") << true << manifest;
        QTest::newRow("fragment with query")
            << text("http://h/v/Seg1-Frag7?x") << true << manifest + text("?x");
        QTest::newRow("lower case")
            << text("https://h/v/seg12-frag345") << true << text("https://h/v/mainfest.f4m");
        QTest::newRow("manifest") << text("http://h/v/a.f4m") << true << text("http://h/v/a.f4m");
        QTest::newRow("manifest with query")
            << text("http://h/a.f4m?t=1") << true << text("http://h/a.f4m?t=1");
        QTest::newRow("manifest with an empty query")
            << text("http://h/a.f4m?") << false << text("http://h/a.f4m?");
        QTest::newRow("manifest inside a path")
            << text("http://h/a.f4m/b") << false << text("http://h/a.f4m/b");
        QTest::newRow("every occurrence") << text("http://h/Seg1-Frag2/Seg1-Frag2") << true
                                          << text("http://h/mainfest.f4m/mainfest.f4m");
        QTest::newRow("no number")
            << text("http://h/Seg-Frag") << false << text("http://h/Seg-Frag");
        QTest::newRow("another scheme")
            << text("rtmp://h/v/a.f4m") << false << text("rtmp://h/v/a.f4m");
        QTest::newRow("video") << text("http://h/v.mp4") << false << text("http://h/v.mp4");
    }

    void f4fAddresses()
    {
        QFETCH(QString, url);
        QFETCH(bool, isF4f);
        QFETCH(QString, manifestUrl);
        QCOMPARE(Browser::IsF4fVideoUrl(url), isF4f);
        QCOMPARE(Browser::urltoF4mUrl(url), manifestUrl);
    }

    void formats()
    {
        QCOMPARE(Browser::getFormat(text("http://h/v.mp4?x")), text("mp4"));
        QCOMPARE(Browser::getFormat(text("http://h/v.MP4")), QString());
    }

    void analysis_data()
    {
        QTest::addColumn<QString>("url");
        QTest::addColumn<qint64>("size");
        QTest::addColumn<QString>("contentType");
        QTest::addColumn<bool>("isAccepted");
        QTest::newRow("media of 1 MiB")
            << text("http://h/a") << qint64(1048576) << text("video/mp4") << true;
        QTest::newRow("media below")
            << text("http://h/a") << qint64(1048575) << text("video/mp4") << false;
        QTest::newRow("small media by its name")
            << text("http://h/a.mp4") << qint64(1048575) << text("video/mp4") << true;
        QTest::newRow("sound") << text("http://h/a") << qint64(1048576) << text("audio/ogg")
                               << true;
        QTest::newRow("upper case type")
            << text("http://h/a") << qint64(1048576) << text("Video/mp4") << false;
        QTest::newRow("anything of 1 GiB")
            << text("http://h/a") << qint64(1073741824) << QString() << true;
        QTest::newRow("anything below")
            << text("http://h/a") << qint64(1073741823) << QString() << false;
        QTest::newRow("by name alone")
            << text("http://h/a.flv?x") << qint64(0) << QString() << true;
        QTest::newRow("a picture")
            << text("http://h/a.png") << qint64(0) << text("image/png") << false;
    }

    void analysis()
    {
        QFETCH(QString, url);
        QFETCH(qint64, size);
        QFETCH(QString, contentType);
        QFETCH(bool, isAccepted);
        const Run run;
        QCOMPARE(run.browser.analyseUrl(url, size, contentType), isAccepted);
    }

    void sizesAreRecordedFromOneMebibyteUp_data()
    {
        QTest::addColumn<qint64>("size");
        QTest::addColumn<qint64>("recorded");
        QTest::newRow("below") << qint64(1048575) << qint64(0);
        QTest::newRow("1 MiB") << qint64(1048576) << qint64(1048576);
    }

    void sizesAreRecordedFromOneMebibyteUp()
    {
        QFETCH(qint64, size);
        QFETCH(qint64, recorded);
        const MessageCatcher catcher;
        Run run;
        run.browser.loadPage();
        const QString url = text("http://127.0.0.1:1/a.mp4");
        emit run.engine->replySeen(url, 0, text("video/mp4"));
        emit run.engine->replySeen(url, size, text("video/mp4"));
        emit run.engine->replySeen(url, 0, text("video/mp4"));
        run.browser.onTerminateTimerTimeOut();
        QCOMPARE(onlyFile(catcher).address(), url);
        QCOMPARE(onlyFile(catcher).nSize, recorded);
    }

    void theLastTypeCounts()
    {
        Run run;
        run.browser.loadPage();
        const QString url = text("http://h/a.mp4");
        emit run.engine->replySeen(url, 6000000, text("text/plain"));
        QVERIFY(!run.browser.isVideoFounded());
        emit run.engine->replySeen(url, 0, text("video/webm"));
        QVERIFY(run.browser.isVideoFounded());
    }

    void whatComesAfterTheSearchIsNoCandidate()
    {
        const MessageCatcher catcher;
        Run run;
        ScriptedServer server;
        server.on("/a.mp4", [&run](const HttpRequest &) { // while its size is asked for
            emit run.engine->replySeen(text("http://h/b.mp4"), 2000000, text("video/mp4"));
            return HttpReply();
        });
        run.browser.loadPage();
        emit run.engine->replySeen(server.address("/a.mp4"), 0, text("video/mp4"));
        run.browser.onTerminateTimerTimeOut();
        QCOMPARE(onlyFile(catcher).address(), server.address("/a.mp4"));
    }

    void found_data()
    {
        QTest::addColumn<QStringList>("options");
        QTest::addColumn<qint64>("size");
        QTest::addColumn<QByteArray>("contentType");
        QTest::addColumn<bool>("isFound");
        const QStringList none;
        const QStringList sized{text("--size"), text("7000000")};
        QTest::newRow("10 MiB") << none << qint64(10485760) << QByteArray() << true;
        QTest::newRow("below") << none << qint64(10485759) << QByteArray() << false;
        QTest::newRow("media of 5 MiB") << none << qint64(5242880) << QByteArray("video/x") << true;
        QTest::newRow("media below") << none << qint64(5242879) << QByteArray("audio/x") << false;
        QTest::newRow("wanted size") << sized << qint64(7000000) << QByteArray() << true;
        QTest::newRow("another size")
            << sized << qint64(20000000) << QByteArray("video/x") << false;
        QTest::newRow("another size, no resume")
            << sized + QStringList{text("--noresume")} << qint64(20000000) << QByteArray() << true;
    }

    void found()
    {
        QFETCH(QStringList, options);
        QFETCH(qint64, size);
        QFETCH(QByteArray, contentType);
        QFETCH(bool, isFound);
        setOptions(options);
        Run run;
        run.browser.loadPage();
        QVERIFY(!run.browser.isVideoFounded());
        emit run.engine->replySeen(text("http://h/0.mp4"), 0, QString());
        QVERIFY(!run.browser.isVideoFounded());
        emit run.engine->replySeen(text("http://h/a.mp4"), size, QString::fromLatin1(contentType));
        QCOMPARE(run.browser.isVideoFounded(), isFound);
    }

    void theEndIsReportedAndClosesOnce_data()
    {
        QTest::addColumn<int>("state");
        QTest::addColumn<QStringList>("lines");
        QTest::addColumn<bool>("isSucceeded");
        QTest::newRow("success") << 1 << QStringList{text("video download finished:success ")}
                                 << true;
        QTest::newRow("failed") << 0 << QStringList{text("video download finished:failed ")}
                                << false;
        QTest::newRow("canceled") << -1 << QStringList{text("video download finished:canceled ")}
                                  << false;
        QTest::newRow("unknown") << 7 << QStringList() << false;
    }

    void theEndIsReportedAndClosesOnce()
    {
        QFETCH(int, state);
        QFETCH(QStringList, lines);
        QFETCH(bool, isSucceeded);
        setOptions({text("--log")});
        const MessageCatcher catcher;
        Run run;
        const QSignalSpy closing(&run.browser, &Browser::closeWebView);
        const QSignalSpy ended(&run.browser, &Browser::runEnded);
        run.browser.getDownloadState(0, Downloader::Video, state);
        QVERIFY(!run.browser.isEnded()); // whoever reports may stand inside the engine
        run.browser.getDownloadState(0, Downloader::Video, state);
        run.browser.onTerminateTimerTimeOut();
        QTRY_VERIFY(run.browser.isEnded());
        run.browser.endRun();
        QCOMPARE(closing.count(), 1);
        QCOMPARE(ended.count(), 1);
        QCOMPARE(catcher.lines(), lines);
        QCOMPARE(column(successColumn), isSucceeded ? text("Y") : text("N"));
        QCOMPARE(*run.engine->calls(), QStringList{text("close")});
    }

    void theThumbnailsEndLetsTheRunGoOn()
    {
        const MessageCatcher catcher;
        Run run;
        for (const int state : {1, 0, -1, 5})
            run.browser.getDownloadState(-1, Downloader::Thumb, state);
        run.browser.getDownloadState(0, 9, 1);
        QCOMPARE(catcher.lines(),
                 (QStringList{text("thumb download finished:success "),
                              text("thumb download finished:failed "),
                              text("thumb download finished:canceled ")}));
        QVERIFY(!run.isClosing());
    }

    void mergingNeedsAnOutput()
    {
        setArguments({text("--saveto"), text("/proc/self/none/video.mp4")});
        Run run;
        QVERIFY(!run.browser.mergeVideoFile(2));
    }

    void theDeadlineWithoutACandidateEndsTheRun()
    {
        setOptions({text("--timeout"), text("1"), text("--log")});
        const MessageCatcher catcher;
        Run run;
        run.browser.loadPage();
        QTRY_VERIFY(run.browser.isEnded());
        QCOMPARE(
            catcher.linesWith(text("pars")),
            (QStringList{text("\"http://127.0.0.1:1/tst\" parsing... "), text("parse failed ")}));
        QVERIFY(column(secondsColumn).toInt() >= 1);
    }

    void theTimeOutBoundsTheSearch_data()
    {
        QTest::addColumn<QString>("timeout");
        QTest::addColumn<bool>("isBounded");
        QTest::addColumn<int>("intervalMs");
        QTest::newRow("given") << text("2000000") << true << 2000000000;
        QTest::newRow("longer than a timer takes") << text("2147483647") << false << 0;
        QTest::newRow("negative") << text("-1") << false << 0;
        QTest::newRow("most negative") << text("-2147483648") << false << 0;
    }

    void theTimeOutBoundsTheSearch()
    {
        QFETCH(QString, timeout);
        QFETCH(bool, isBounded);
        QFETCH(int, intervalMs);
        setOptions({text("--timeout"), timeout});
        Run run;
        run.browser.loadPage();
        const auto left = run.clock()->timeLeft();
        QCOMPARE(left.has_value(), isBounded);
        if (isBounded)
            QVERIFY(left->count() <= intervalMs && left->count() > intervalMs - 60000);
        run.browser.endRun();
    }

    void aSearchWithoutALimitEndsByItselfOnceThePageIsQuiet()
    {
        setOptions({text("--timeout"), text("-1")});
        Run run;
        run.browser.loadPage();
        emit run.engine->loaded(true);
        const auto left = run.clock()->timeLeft();
        QVERIFY(left.has_value());
        QVERIFY(left->count() <= 20000 && left->count() > 10000);
        run.browser.endRun();
    }

    void theSearchEndsWithAStoppedPage()
    {
        setOptions({text("--f4f")});
        Run run;
        QStringList calls;
        bool isSearching = true;
        bool isEnded = true;
        ScriptedServer server;
        server.on("/a.f4m", [&](const HttpRequest &) { // while the stream begins
            calls = *run.engine->calls();
            isSearching = run.clock()->timeLeft().has_value();
            isEnded = run.browser.isEnded();
            return HttpReply();
        });
        run.browser.loadPage();
        emit run.engine->loaded(true);
        emit run.engine->requestSeen(server.address("/a.f4m"));
        QTRY_VERIFY(run.browser.isEnded());
        QCOMPARE(calls,
                 (QStringList{text("hide"), text("load http://127.0.0.1:1/tst"),
                              text("layOutWhole"), text("hide"), text("stop")}));
        QVERIFY(!isSearching);
        QVERIFY(!isEnded);
    }

    void theQuietPeriodFollowsMediaReplies()
    {
        setOptions({text("--timeout"), text("-1")});
        Run run;
        run.browser.loadPage();
        const auto isWaiting = [&run] { return run.clock()->timeLeft().has_value(); };
        emit run.engine->replySeen(text("http://h/x"), 0, QString());
        QVERIFY(!isWaiting());
        emit run.engine->loaded(true);
        QVERIFY(isWaiting());
        run.clock()->stop();
        emit run.engine->loaded(true); // only the first one counts
        QVERIFY(!isWaiting());
        emit run.engine->replySeen(text("http://h/manifest"), 0, text("video/f4m"));
        QVERIFY(!isWaiting());
        emit run.engine->replySeen(text("http://h/x"), 0, QString());
        QVERIFY(isWaiting());
        QCOMPARE(run.engine->calls()->count(text("layOutWhole")), 1);
    }

    void theProxyGoesToTheEngine_data()
    {
        QTest::addColumn<QString>("proxy");
        QTest::addColumn<int>("port");
        QTest::newRow("a proxy") << text("3:127.0.0.1:8080") << 8080;
        QTest::newRow("none of any use") << text("2:127.0.0.1:8080") << 0;
    }

    void theProxyGoesToTheEngine()
    {
        QFETCH(QString, proxy);
        QFETCH(int, port);
        setOptions({text("--proxy"), proxy});
        if (port == 0)
            QTest::ignoreMessage(QtWarningMsg,
                                 QRegularExpression(text("proxy setting is ignored")));
        Run run;
        run.browser.loadPage();
        QCOMPARE(run.engine->calls()->contains(text("setProxy")), port > 0);
        QCOMPARE(int(run.engine->proxy().port()), port);
    }

    void cookiesAreKeptWithEveryReport()
    {
        Run run;
        run.browser.loadPage();
        emit run.engine->requestSeen(text("http://h/a"));
        const int afterTheRequest = run.engine->savesOfCookies();
        QVERIFY(afterTheRequest > 0);
        emit run.engine->replySeen(text("http://h/a"), 0, QString());
        QVERIFY(run.engine->savesOfCookies() > afterTheRequest);
    }

    void aSnapshotThatComesLateIsAskedForOnce()
    {
        const MessageCatcher catcher;
        ScriptedServer server;
        HttpReply video;
        video.body = QByteArray(1048576, 'v');
        server.on("/v.mp4", video);
        Run run;
        run.browser.loadPage();
        run.browser.onAnalysisTimerTimeOut();
        run.browser.onAnalysisTimerTimeOut();
        QCOMPARE(run.engine->calls()->count(text("requestSnapshot")), 1);
        const QString address = server.address("/v.mp4");
        emit run.engine->snapshot(snapshotOf(text("<a href='%1'>").arg(address)));
        QCOMPARE(catcher.linesWith(text("videoUrl:")),
                 QStringList{text("videoUrl: \"%1\" ").arg(address)});
        run.browser.onAnalysisTimerTimeOut();
        QCOMPARE(run.engine->calls()->count(text("requestSnapshot")), 2);
        run.browser.onTerminateTimerTimeOut();
        emit run.engine->snapshot(snapshotOf(text("<title>late</title>")));
        QTRY_VERIFY(run.browser.isEnded());
        QCOMPARE(onlyFile(catcher).nSize, qint64(1048576));
        QCOMPARE(catcher.linesWith(text("late")), QStringList());
    }

    void whatIsFoundIsDownloaded()
    {
        ScriptedServer server;
        const QByteArray video(10485760, 'v');
        server.serve("/v.mp4", video, "video/mp4");
        setOptions({text("--log")});
        const MessageCatcher catcher;
        Run run;
        run.engine->answerWith(snapshotOf(text("<title>T</title>")));
        run.browser.loadPage();
        emit run.engine->replySeen(server.address("/v.mp4"), video.size(), text("video/mp4"));
        run.browser.onAnalysisTimerTimeOut();
        QTRY_VERIFY(run.browser.isEnded());
        QStringList calls = *run.engine->calls();
        calls.removeDuplicates(); // a tick may come by itself
        QCOMPARE(calls,
                 (QStringList{text("hide"), text("load http://127.0.0.1:1/tst"),
                              text("requestSnapshot"), text("stop"), text("close")}));
        QCOMPARE(onlyFile(catcher).nSize, qint64(video.size()));
        QCOMPARE(catcher.lines().last(), text("video download finished:success "));
        QFile file(m_folder->filePath(text("video.mp4")));
        QVERIFY(file.open(QIODevice::ReadOnly));
        QVERIFY(file.readAll() == video);
        QCOMPARE(column(successColumn), text("Y"));
    }

    void anUntoldSizeIsAskedFor_data()
    {
        QTest::addColumn<bool>("isTold");
        QTest::newRow("told to the probe") << true;
        QTest::newRow("told to nobody") << false;
    }

    void anUntoldSizeIsAskedFor()
    {
        QFETCH(bool, isTold);
        ScriptedServer server;
        HttpReply video;
        video.body = QByteArray(3000000, 'v');
        video.withoutLength = !isTold;
        server.on("/v.mp4", video);
        const MessageCatcher catcher;
        Run run;
        run.browser.loadPage();
        emit run.engine->sizeUntold(server.address("/v.mp4"));
        emit run.engine->replySeen(server.address("/v.mp4"), 5242880, text("video/mp4"));
        QVERIFY(run.browser.isVideoFounded());
        run.browser.onTerminateTimerTimeOut();
        QCOMPARE(onlyFile(catcher).address(), server.address("/v.mp4"));
        QCOMPARE(onlyFile(catcher).nSize, qint64(isTold ? 3000000 : 0));
    }

    void aLostEngineEndsTheSearch()
    {
        const MessageCatcher catcher;
        Run run;
        run.browser.loadPage();
        QTest::ignoreMessage(QtWarningMsg, "the page's engine is lost: it crashed");
        emit run.engine->lost(text("it crashed"));
        QVERIFY(!run.isClosing()); // whoever tells it may stand inside the engine
        QTRY_VERIFY(run.browser.isEnded());
        QCOMPARE(catcher.lines().last(), text("parse failed "));
    }

    void theExitFlagEndsTheRunWhereverItIsSeen_data()
    {
        QTest::addColumn<int>("where");
        const QList<const char *> places{"request", "reply",    "page loaded", "reply finished",
                                         "tick",    "download", "stream",      "watch"};
        for (int i = 0; i < places.size(); ++i)
            QTest::newRow(places.at(i)) << i;
    }

    void theExitFlagEndsTheRunWhereverItIsSeen()
    {
        QFETCH(int, where);
        const MessageCatcher catcher;
        Run run;
        run.browser.loadPage();
        QVERIFY(ShareMemoryManager::GetInstance()->SetExitFlag(true));
        for (int i = 0; i < 2; ++i) { // seen twice, it still ends the run once
            switch (where) {
            case 0:
                emit run.engine->requestSeen(text("http://h/x"));
                break;
            case 1:
                emit run.engine->replySeen(text("http://h/x"), 1, text("video/mp4"));
                break;
            case 2:
                emit run.engine->loaded(true);
                break;
            case 3:
                emit run.engine->replyEnded();
                break;
            case 4:
                run.browser.onAnalysisTimerTimeOut();
                break;
            case 5:
                run.browser.getDownloadState(0, Downloader::Video, 1);
                break;
            case 6:
                run.browser.onDownloadFinishedF4f(1);
                break;
            default: // by itself
                QTRY_VERIFY(run.isClosing());
            }
        }
        QVERIFY(run.isClosing());
        QTRY_VERIFY(run.browser.isEnded());
        QCOMPARE(catcher.linesWith(text("exiting")), QStringList{text("exiting... ")});
        QVERIFY(catcher.linesWith(text("finished")).isEmpty());
        ShareMemoryManager::GetInstance()->SetExitFlag(false);
        ShareMemoryManager::GetInstance()->DeleteShareMemData();
    }

    void nothingOfADownloadIsToldOnceTheRunEnds()
    {
        static constexpr int pieceBytes = 1 << 20;
        ScriptedServer server;
        QPointer<QTcpSocket> flood;
        server.onRaw("/v.mp4", [&flood](const HttpRequest &, QTcpSocket *socket) {
            socket->write("HTTP/1.1 200 OK\r\nContent-Length: 1000000000\r\n\r\n");
            auto *const timer = new QTimer(socket);
            connect(timer, &QTimer::timeout, socket, [socket] {
                if (socket->bytesToWrite() < pieceBytes)
                    socket->write(QByteArray(pieceBytes, 'v'));
            });
            timer->start(1);
            flood = socket;
        });
        const MessageCatcher catcher;
        Run run;
        run.browser.loadPage();
        emit run.engine->replySeen(server.address("/v.mp4"), 1000000000, text("video/mp4"));
        run.browser.onTerminateTimerTimeOut();
        QTRY_VERIFY(catcher.linesWith(text("downloaded:")).size() > 1);
        QVERIFY(ShareMemoryManager::GetInstance()->SetExitFlag(true));
        emit run.engine->replyEnded();
        QCOMPARE(catcher.lines().last(), text("exiting... "));
        // More of the video arrives before anybody closes its connection.
        QTRY_VERIFY(!flood || flood->state() == QTcpSocket::UnconnectedState);
        QVERIFY(run.browser.isEnded());
        QCOMPARE(catcher.lines().last(), text("exiting... "));
        ShareMemoryManager::GetInstance()->SetExitFlag(false);
        ShareMemoryManager::GetInstance()->DeleteShareMemData();
    }

    void aWindowThatTheUserClosesEndsTheRunWithItsRow()
    {
        setOptions({text("--show"), text("--log")});
        const MessageCatcher catcher;
        Run run;
        run.browser.loadPage();
        QVERIFY(run.engine->calls()->contains(text("show")));
        emit run.engine->windowClosed();
        QTRY_VERIFY(run.browser.isEnded());
        QCOMPARE(catcher.lines(), QStringList{text("\"http://127.0.0.1:1/tst\" parsing... ")});
        QCOMPARE(column(successColumn), text("N"));
    }

    void aStreamIsTakenOnce()
    {
        setOptions({text("--f4f")});
        const MessageCatcher catcher;
        Run run;
        run.browser.loadPage();
        emit run.engine->requestSeen(text("http://127.0.0.1:1/a.f4m"));
        emit run.engine->requestSeen(text("http://127.0.0.1:1/b.f4m"));
        emit run.engine->replySeen(text("http://127.0.0.1:1/c.f4m"), 10, text("video/f4m"));
        QCOMPARE(catcher.lines().size(), 1); // the engine may be in the middle of a request
        QTRY_VERIFY(run.browser.isEnded());
        QCOMPARE(catcher.linesWith(text("Get page:")),
                 QStringList{text("Get page: \"http://127.0.0.1:1/a.f4m\" ")});
        QCOMPARE(catcher.linesWith(text("finished")),
                 QStringList{text("video download finished:failed ")});
    }

    void aRunThatEndsBeforeTheLoopStaysEnded()
    {
        const MessageCatcher catcher;
        Run run;
        run.browser.loadPage();
        emit run.engine->replySeen(text("http://127.0.0.1:1/a.mp4"), 20000000, text("video/mp4"));
        run.browser.endRun();
        QVERIFY(run.browser.isEnded());
        run.browser.onTerminateTimerTimeOut();
        run.browser.onAnalysisTimerTimeOut();
        QCOMPARE(catcher.lines().size(), 1);
        QCOMPARE(run.engine->calls()->last(), text("close"));
    }

    void theSiteWithASelectionEndpointAlwaysEndsWithoutAVideo()
    {
        ScriptedServer server;
        HttpReply answer;
        answer.body = "<selection/>";
        server.on("/select", answer);
        QDir().mkpath(qEnvironmentVariable("XDG_CONFIG_HOME"));
        QFile settings(qEnvironmentVariable("XDG_CONFIG_HOME") + text("/clipweir.conf"));
        QVERIFY(settings.open(QIODevice::WriteOnly));
        settings.write("[hulu]\npagePattern=\"http://127.0.0.1:[0-9]+/watch/([0-9]+)\"\n"
                       "selectionEndpoint=127.0.0.1:"
                       + QByteArray::number(server.port()) + "/select\n");
        settings.close();

        const QString page = server.address("/watch/12345");
        setOptions({}, page);
        const MessageCatcher catcher;
        Run run;
        settings.remove();
        run.browser.loadPage();
        emit run.engine->requestSeen(server.address("/other.mp4"));
        emit run.engine->requestSeen(server.address("/select?a"));
        emit run.engine->requestSeen(server.address("/select?b"));
        QVERIFY(server.requestsFor("/select").isEmpty()); // not from inside the engine's call
        QTRY_VERIFY(run.browser.isEnded());
        QCOMPARE(server.requestsFor("/select").size(), 1);
        QCOMPARE(catcher.linesWith(text("parse failed")).size(), 1);
    }

    void withoutAnEndpointThatSitesPagesRunAsOthers()
    {
        setOptions({}, text("http://www.hulu.com/watch/12345"));
        const MessageCatcher catcher;
        Run run;
        run.browser.loadPage();
        emit run.engine->requestSeen(text("http://127.0.0.1:1/anything.mp4"));
        emit run.engine->replySeen(text("http://127.0.0.1:1/a.mp4"), 2000000, text("video/mp4"));
        QVERIFY(!run.isClosing());
        run.browser.onTerminateTimerTimeOut();
        QCOMPARE(onlyFile(catcher).address(), text("http://127.0.0.1:1/a.mp4"));
    }
};

CLIPWEIR_TEST_MAIN(tst_Browser)
#include "tst_browser.moc"
