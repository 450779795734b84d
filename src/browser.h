#ifndef BROWSER_H
#define BROWSER_H

#include <QObject>
#include <QSet>
#include <QTimer>

#include "AdobeCookieJar.h"
#include "AdobeDownloader.h"
#include "NetworkReplyProxy.h"
#include "ParseData.h"
#include "RunGuard.h"
#include "SiteSettings.h"
#include "downloader.h"

#include <functional>
#include <memory>

class NetDomManager;
struct PageSnapshot;
class QWebPageProxy;
class QWebView;

/// One page run: loads the page, collects candidates from its traffic and its document, decides
/// when to stop looking, downloads what was chosen, reports to the host, and ends.
///
/// Main thread. Size probes wait in nested event loops, so every step that waits looks at the state
/// again afterwards. What the engine reports from inside its own loading code only sets flags;
/// steps that change the page are queued. The run ends once, whatever comes first.
class Browser final : public QObject
{
    Q_OBJECT

public:
    explicit Browser(QObject *parent = nullptr);
    ~Browser() override;

    /// Starts the run.
    void loadPage();

    /// Whether the run has ended: the view is closed and its record is written.
    [[nodiscard]] bool isEnded() const;

    /// Ends the run now, unless it has ended.
    void endRun();

    [[nodiscard]] bool analyseUrl(const QString &url, qint64 size,
                                  const QString &contentType) const;

    /// Whether a candidate is big enough to stop looking for more.
    [[nodiscard]] bool isVideoFounded() const;

    /// Scans the document and the page source for further candidates.
    void findMedia();

    /// Scans the "param" elements of the document. Returns the number of all candidates.
    int parseDomParam(const PageSnapshot &snapshot);

    /// Selects a candidate and starts the downloads, once.
    void download();

    /// Starts the download of a stream; the manifest is read in nested event loops. Returns 0 when
    /// nothing could be started, which also ends the run.
    int DownloadF4f(const QString &f4mUrl);

    /// Asks a selection endpoint of that site. Always ends the run without a video.
    void DownloadHulu(const QString &url);

    /// Whether the address names a stream's manifest or fragment.
    [[nodiscard]] static bool IsF4fVideoUrl(const QString &url);

    /// The manifest's address for a fragment's; other addresses stay as they are.
    [[nodiscard]] static QString urltoF4mUrl(const QString &url);
    [[nodiscard]] static QString getFormat(const QString &url);

    void setProxy();

    /// Looks whether all parts of a video in several parts have ended.
    void setDownloadCount();

    /// Joins the part files of the video. Returns whether all of them were joined.
    bool mergeVideoFile(int count);

    /// Paints the whole page once, which makes the engine lay it out and load what is seen.
    void saveHtmlToImage();
    void writeDownloadLog();

    /// Stops listening to the page, the timers and the file downloads.
    void disConnect();

signals:
    /// The run is to end. Emitted once.
    void closeWebView();

    /// The run has ended.
    void runEnded();

public slots:
    void loadFinished(bool isOk);
    void setVideoUrl(const QString &strUrl, qint64 contentLength, const QString &contentType);
    void setVideoUrl(const QString &strUrl);
    void onAnalysisTimerTimeOut();
    void onTerminateTimerTimeOut();
    void replyFinished();
    void getDownloadState(int rangeNo, int downType, int state);
    void onDownloadFinishedF4f(int ret);
    void webViewClose();

    /// Cancels a stream's download when the host has asked for the end of the run.
    void onF4fCheckExit(bool bActive);

private:
    friend class tst_Browser;

    void createView();
    void connectAll();
    void requestClose();
    void claimEnd();
    void endWithoutVideo();
    bool exitIfAsked();
    void showLife();
    void note(RunGuard::Step step);
    void onMemoryFull();
    void onWatchTimerTimeOut();
    void stopAnalysis();
    bool startF4f(const QString &url);
    void startHulu(const QString &url);
    void askForUntoldSizes();
    void forgetUntoldSizes();
    void later(const std::function<void()> &step);
    void scan(const PageSnapshot &snapshot, const std::function<ParseData(NetDomManager &)> &scanner);
    void reportVideoResult(int state);

    std::unique_ptr<RunGuard> m_guard; ///< first, to watch over the end of all others
    QTimer m_analysisTimer;
    QTimer m_firstTerminateTimer; ///< the deadline
    QTimer m_secondTerminateTimer; ///< as the first; once the page has loaded, a quiet period
    std::unique_ptr<QWebView> m_view;
    QWebPageProxy *m_page = nullptr; ///< child of the view
    std::unique_ptr<NetworkAccessManagerProxy> m_networkManager;
    CAdobeCookieJar m_cookieJar;
    QSet<QString> m_untoldSizes; ///< addresses whose sizes are only what had come of them
    bool m_isLoadedOnce = false;
    bool m_isAnalysing = false;
    bool m_isDownloadStarted = false;
    bool m_isF4fMode = false;
    bool m_isHuluPage = false;
    QString m_huluSelectionUrl;
    Downloader m_videoDownloader;
    Downloader m_thumbDownloader;
    CAdobeDownloader m_hdsDownloader;
    bool m_isHdsRunning = false;
    int m_expectedParts = 1;
    int m_succeededParts = 0;
    int m_failedParts = 0;
    ParseData m_result;

    SiteSettings m_siteSettings;
    QTimer m_watchTimer; ///< sees the stop flag during waits in which nothing else happens
    bool m_isScanning = false;
    bool m_isClosing = false; ///< closeWebView() has been emitted
    bool m_isEnded = false;
};

#endif
