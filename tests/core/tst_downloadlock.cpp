#include "OutputFile.h"
#include "PageRun.h"
#include "TestFiles.h"
#include "TestMain.h"
#include "VideoPreference.h"
#include "downloader.h"

#include <QRegularExpression>

/// Downloads of a file that another run is writing.
class tst_DownloadLock : public QObject
{
    Q_OBJECT

    std::unique_ptr<TemporaryWorkFolder> m_folder;
    ScriptedServer m_server;

    /// Starts a download and returns the result that it reports.
    template <typename Start> static int resultOf(Start start)
    {
        Downloader downloader;
        QSignalSpy finished(&downloader, &Downloader::finished);
        start(downloader);
        if (finished.isEmpty())
            finished.wait();
        return finished.value(0).value(2).toInt();
    }

    /// Makes the test fail if the log is not told.
    static void expectWarning()
    {
        QTest::ignoreMessage(QtWarningMsg,
                             QRegularExpression(option(": another run is writing it$")));
    }

private slots:
    void init()
    {
        m_folder = std::make_unique<TemporaryWorkFolder>();
        qputenv("CLIPWEIR_COOKIES", m_folder->path(option("cookies.txt")).toUtf8());
        m_server.on("/t.jpg", mediaReply("picture", "image/jpeg"));
        m_server.on("/v.mp4", mediaReply("video"));
    }

    void thumbnail_data()
    {
        QTest::addColumn<bool>("isResumed");
        QTest::newRow("taken as it is") << true;
        QTest::newRow("afresh") << false;
    }

    void thumbnail()
    {
        QFETCH(bool, isResumed);
        setArguments(QStringList{option("--url"), uniquePageUrl()}
                     + (isResumed ? QStringList() : QStringList{option("--noresume")}));
        const auto start = [this](Downloader &downloader) {
            downloader.downloadThumb(m_server.address("/t.jpg"));
        };
        const QString path = CVideoPreference::instance()->GetThumbFullPath();
        OutputFile other;
        QVERIFY(other.open(path, OutputFile::Mode::Replace));
        QVERIFY(other.write("half", 4));
        expectWarning();
        QCOMPARE(resultOf(start), int(Downloader::Failed));
        QCOMPARE(readFile(path), QByteArray("half"));

        other.close();
        QCOMPARE(resultOf(start), int(Downloader::Succeeded));
        QCOMPARE(readFile(path), QByteArray(isResumed ? "half" : "picture"));
    }

    void video()
    {
        setArguments({option("--url"), uniquePageUrl()});
        const QString path = m_folder->path(option("v.mp4"));
        OutputFile other;
        QVERIFY(other.open(path, OutputFile::Mode::Append));
        expectWarning();
        QCOMPARE(resultOf([&](Downloader &downloader) {
                     downloader.downloadVideo(m_server.address("/v.mp4"), path, 5, 0, 1);
                 }),
                 int(Downloader::Failed));
        QVERIFY(m_server.requestsFor("/v.mp4").isEmpty());
    }
};

CLIPWEIR_TEST_MAIN(tst_DownloadLock)
#include "tst_downloadlock.moc"
