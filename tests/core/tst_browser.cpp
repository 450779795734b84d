#include "MessageCatcher.h"
#include "ScriptedServer.h"
#include "ShareMemoryManager.h"
#include "TestMain.h"
#include "browser.h"

#include <QSignalSpy>
#include <QTemporaryDir>
#include <QWebFrame>
#include <QWebPage>
#include <QWebView>

#include <memory>

namespace {

QString text(const char *latin1)
{
    return QString::fromLatin1(latin1);
}

VideoFile makeFile(const char *address, qint64 size, const char *contentType = "")
{
    VideoFile file = VideoFile::fromAddress(text(address));
    file.nSize = size;
    file.contentType = text(contentType);
    return file;
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

    /// A browser in the state of analysis, without a page.
    std::unique_ptr<Browser> analysing()
    {
        auto browser = std::make_unique<Browser>();
        browser->m_isAnalysing = true;
        return browser;
    }

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
        const Browser browser;
        QCOMPARE(browser.analyseUrl(url, size, contentType), isAccepted);
    }

    void sizesAreRecordedFromOneMebibyteUp()
    {
        const auto browser = analysing();
        const QString url = text("http://h/a.mp4");
        browser->setVideoUrl(url, 1048575, text("video/mp4"));
        QCOMPARE(browser->m_result.fileList.size(), 1);
        QCOMPARE(browser->m_result.fileList.first().nSize, qint64(0));
        QCOMPARE(browser->m_result.fileList.first().contentType, text("video/mp4"));
        browser->setVideoUrl(url, 1048576, text("video/webm"));
        QCOMPARE(browser->m_result.fileList.size(), 1);
        QCOMPARE(browser->m_result.fileList.first().nSize, qint64(1048576));
        QCOMPARE(browser->m_result.fileList.first().contentType, text("video/webm"));
        browser->m_isAnalysing = false;
        browser->setVideoUrl(text("http://h/b.mp4"), 1048576, text("video/mp4"));
        QCOMPARE(browser->m_result.fileList.size(), 1);
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
        Browser browser;
        QVERIFY(!browser.isVideoFounded());
        browser.m_result.fileList += makeFile("http://h/0", 0);
        QVERIFY(!browser.isVideoFounded());
        browser.m_result.fileList += makeFile("http://h/a", size, contentType.constData());
        QCOMPARE(browser.isVideoFounded(), isFound);
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
        const MessageCatcher catcher;
        Browser browser;
        const QSignalSpy closing(&browser, &Browser::closeWebView);
        const QSignalSpy ended(&browser, &Browser::runEnded);
        browser.getDownloadState(0, Downloader::Video, state);
        QVERIFY(!browser.isEnded()); // whoever reports may stand inside the engine
        browser.getDownloadState(0, Downloader::Video, state);
        browser.onTerminateTimerTimeOut();
        QTRY_VERIFY(browser.isEnded());
        browser.endRun();
        QCOMPARE(closing.count(), 1);
        QCOMPARE(ended.count(), 1);
        QCOMPARE(catcher.lines(), lines);
        QCOMPARE(browser.m_result.succeeded, isSucceeded);
    }

    void theThumbnailsEndLetsTheRunGoOn()
    {
        const MessageCatcher catcher;
        Browser browser;
        for (const int state : {1, 0, -1, 5})
            browser.getDownloadState(-1, Downloader::Thumb, state);
        browser.getDownloadState(0, 9, 1);
        QCOMPARE(catcher.lines(),
                 (QStringList{text("thumb download finished:success "),
                              text("thumb download finished:failed "),
                              text("thumb download finished:canceled ")}));
        QVERIFY(!browser.m_isClosing);
    }

    void severalParts_data()
    {
        QTest::addColumn<int>("lastState");
        QTest::addColumn<QString>("line");
        QTest::addColumn<QByteArray>("merged");
        QTest::newRow("all arrive")
            << 1 << text("video download success ") << QByteArray("firstsecond");
        QTest::newRow("one fails") << 0 << text("video download failed ") << QByteArray();
    }

    void severalParts()
    {
        QFETCH(int, lastState);
        QFETCH(QString, line);
        QFETCH(QByteArray, merged);
        const QList<QByteArray> parts{"first", "second"};
        for (int i = 0; i < parts.size(); ++i) {
            QFile part(m_folder->filePath(QStringLiteral("video.mp4_%1").arg(i)));
            QVERIFY(part.open(QIODevice::WriteOnly));
            part.write(parts.at(i));
        }
        const MessageCatcher catcher;
        Browser browser;
        browser.m_expectedParts = 2;
        browser.getDownloadState(0, Downloader::Video, 1);
        QVERIFY(catcher.lines().isEmpty());
        browser.getDownloadState(1, Downloader::Video, lastState);
        QCOMPARE(catcher.lines(), (QStringList{line, text("video download finished ")}));
        QTRY_VERIFY(browser.isEnded());
        QFile video(m_folder->filePath(text("video.mp4")));
        QCOMPARE(video.open(QIODevice::ReadOnly) ? video.readAll() : QByteArray(), merged);
    }

    void mergingNeedsAnOutput()
    {
        setArguments({text("--saveto"), text("/proc/self/none/video.mp4")});
        Browser browser;
        QVERIFY(!browser.mergeVideoFile(2));
    }

    void theDeadlineWithoutACandidateEndsTheRun()
    {
        const MessageCatcher catcher;
        const auto browser = analysing();
        browser->onTerminateTimerTimeOut();
        QTRY_VERIFY(browser->isEnded());
        QCOMPARE(catcher.lines(), QStringList{text("parse failed ")});
        QVERIFY(!browser->m_result.endTime.isNull());
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
        Browser browser;
        browser.loadPage();
        for (const QTimer *const timer :
             {&browser.m_firstTerminateTimer, &browser.m_secondTerminateTimer}) {
            QCOMPARE(timer->isActive(), isBounded);
            if (isBounded)
                QCOMPARE(timer->interval(), intervalMs);
        }
        browser.endRun();
    }

    void aSearchWithoutALimitEndsByItselfOnceThePageIsQuiet()
    {
        setOptions({text("--timeout"), text("-1")});
        Browser browser;
        browser.loadPage();
        browser.loadFinished(true);
        QCOMPARE(browser.m_secondTerminateTimer.interval(), 20000);
        QVERIFY(browser.m_secondTerminateTimer.isActive());
        browser.endRun();
    }

    void analysisEndsWithABlankPageAndNoTraffic()
    {
        ScriptedServer server;
        HttpReply page;
        page.headers = {{"Content-Type", "text/html"}};
        page.body = "<title>before</title>";
        server.on("/", page);
        setOptions({}, server.address("/"));
        Browser browser;
        browser.loadPage();
        QTRY_VERIFY(browser.m_isLoadedOnce);
        browser.m_isF4fMode = true; // whose deadline only ends analysis
        browser.onTerminateTimerTimeOut();
        const QWebFrame *const frame = reinterpret_cast<QWebPage *>(browser.m_page)->mainFrame();
        QTRY_COMPARE(frame->url(), QUrl(text("about:blank")));
        QVERIFY(!browser.m_analysisTimer.isActive());
        QVERIFY(!browser.m_firstTerminateTimer.isActive());
        QVERIFY(!browser.m_secondTerminateTimer.isActive());
        QVERIFY(!browser.isEnded());
    }

    void theQuietPeriodFollowsMediaReplies()
    {
        const auto browser = analysing();
        browser->setVideoUrl(text("http://h/x"), 0, QString());
        QVERIFY(!browser->m_secondTerminateTimer.isActive());
        browser->loadFinished(true);
        QVERIFY(browser->m_isLoadedOnce);
        QCOMPARE(browser->m_secondTerminateTimer.interval(), 20000);
        browser->m_secondTerminateTimer.stop();
        browser->loadFinished(true); // only the first one counts
        QVERIFY(!browser->m_secondTerminateTimer.isActive());
        browser->setVideoUrl(text("http://h/manifest"), 0, text("video/f4m"));
        QVERIFY(!browser->m_secondTerminateTimer.isActive());
        browser->setVideoUrl(text("http://h/x"), 0, QString());
        QVERIFY(browser->m_secondTerminateTimer.isActive());
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
        Browser browser;
        browser.loadPage();
        QVERIFY(ShareMemoryManager::GetInstance()->SetExitFlag(true));
        for (int i = 0; i < 2; ++i) { // seen twice, it still ends the run once
            switch (where) {
            case 0:
                browser.setVideoUrl(text("http://h/x"));
                break;
            case 1:
                browser.setVideoUrl(text("http://h/x"), 1, text("video/mp4"));
                break;
            case 2:
                browser.loadFinished(true);
                break;
            case 3:
                browser.replyFinished();
                break;
            case 4:
                browser.onAnalysisTimerTimeOut();
                break;
            case 5:
                browser.getDownloadState(0, Downloader::Video, 1);
                break;
            case 6:
                browser.onDownloadFinishedF4f(1);
                break;
            default:
                browser.onWatchTimerTimeOut();
            }
        }
        QVERIFY(browser.m_isClosing);
        QTRY_VERIFY(browser.isEnded());
        QCOMPARE(catcher.linesWith(text("exiting")), QStringList{text("exiting... ")});
        QVERIFY(catcher.linesWith(text("finished")).isEmpty());
        ShareMemoryManager::GetInstance()->SetExitFlag(false);
        ShareMemoryManager::GetInstance()->DeleteShareMemData();
    }

    void aWindowThatTheUserClosesEndsTheRunWithItsRow()
    {
        setOptions({text("--show"), text("--log")});
        const MessageCatcher catcher;
        Browser browser;
        browser.loadPage();
        QVERIFY(browser.m_view->isVisible());
        // The application looks at its windows only while its own loop runs.
        connect(&browser, &Browser::runEnded, qApp, &QCoreApplication::quit);
        QTimer::singleShot(0, browser.m_view.get(), &QWidget::close);
        QTimer::singleShot(20000, qApp, &QCoreApplication::quit);
        QCoreApplication::exec();
        QVERIFY(browser.isEnded());
        QCOMPARE(catcher.lines(), QStringList{text("\"http://127.0.0.1:1/tst\" parsing... ")});
        const QDir logs(m_folder->filePath(text("logs")));
        QCOMPARE(logs.entryList({text("*.csv")}, QDir::Files).size(), 1);
    }

    void aStreamIsTakenOnce()
    {
        setOptions({text("--f4f")});
        const MessageCatcher catcher;
        const auto browser = analysing();
        browser->setVideoUrl(text("http://127.0.0.1:1/a.f4m"));
        browser->setVideoUrl(text("http://127.0.0.1:1/b.f4m"));
        browser->setVideoUrl(text("http://127.0.0.1:1/c.f4m"), 10, text("video/f4m"));
        QVERIFY(browser->m_isF4fMode);
        QVERIFY(!browser->m_isAnalysing);
        QVERIFY(catcher.lines().isEmpty()); // the engine may be in the middle of a request
        QTRY_VERIFY(browser->isEnded());
        QCOMPARE(catcher.linesWith(text("Get page:")),
                 QStringList{text("Get page: \"http://127.0.0.1:1/a.f4m\" ")});
        QCOMPARE(catcher.linesWith(text("finished")),
                 QStringList{text("video download finished:failed ")});
    }

    void aRunThatEndsBeforeTheLoopStaysEnded()
    {
        Browser browser;
        browser.loadPage();
        browser.endRun();
        QVERIFY(browser.isEnded());
        browser.onTerminateTimerTimeOut();
        browser.onAnalysisTimerTimeOut();
        browser.download();
        QVERIFY(!browser.m_isDownloadStarted || browser.isEnded());
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
        Browser browser;
        settings.remove();
        browser.loadPage();
        QVERIFY(browser.m_isHuluPage);
        browser.setVideoUrl(server.address("/other.mp4"));
        QVERIFY(browser.m_result.fileList.isEmpty());
        browser.setVideoUrl(server.address("/select?a"));
        browser.setVideoUrl(server.address("/select?b"));
        QVERIFY(server.requestsFor("/select").isEmpty()); // not from inside the engine's call
        QTRY_VERIFY(browser.isEnded());
        QCOMPARE(server.requestsFor("/select").size(), 1);
        QCOMPARE(catcher.linesWith(text("parse failed")).size(), 1);
    }

    void withoutAnEndpointThatSitesPagesRunAsOthers()
    {
        setOptions({}, text("http://www.hulu.com/watch/12345"));
        Browser browser;
        QVERIFY(browser.m_siteSettings.huluSelectionEndpoint.isEmpty());
        browser.m_isHuluPage = true;
        browser.m_isAnalysing = true;
        browser.setVideoUrl(text("http://h/anything"));
        QVERIFY(browser.m_huluSelectionUrl.isEmpty());
        browser.setVideoUrl(text("http://h/a.mp4"), 2000000, text("video/mp4"));
        QCOMPARE(browser.m_result.fileList.size(), 1);
    }
};

CLIPWEIR_TEST_MAIN(tst_Browser)
#include "tst_browser.moc"
