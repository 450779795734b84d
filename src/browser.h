#ifndef BROWSER_H
#define BROWSER_H

#include <QElapsedTimer>
#include <QObject>

#include "HostEvent.h"
#include "MediaRules.h"
#include "PageEngine.h"
#include "PageScan.h"
#include "ParseData.h"
#include "RunLife.h"
#include "RunOptions.h"
#include "RunTransfers.h"
#include "SearchClock.h"
#include "SelectionSite.h"
#include "SizeProbe.h"
#include "StreamAddress.h"
#include "StreamSearch.h"
#include "UntoldSizes.h"
#include "VideoParts.h"
#include "utils.h"

#include <functional>
#include <memory>

/// One page run: has an engine load the page, collects candidates from what it tells of the traffic
/// and the document, decides when to stop looking, downloads what was chosen, reports to the host,
/// and ends.
///
/// Main thread. Size probes wait in nested event loops, so every step that waits looks at the state
/// again afterwards. What the engine reports from inside its own loading code only sets flags;
/// steps that change the page are queued. The run ends once, whatever comes first.
class Browser final : public QObject
{
    Q_OBJECT

public:
    /// @param engine has no page yet
    Browser(std::unique_ptr<PageEngine> engine, const RunOptions &options,
            QObject *parent = nullptr);
    ~Browser() override;

    /// Starts the run.
    void loadPage();

    /// Whether the run has ended: the view is closed and its record is written.
    [[nodiscard]] bool isEnded() const { return m_isEnded; }

    /// Ends the run now, unless it has ended.
    void endRun();

    /// What became of a run that has ended.
    [[nodiscard]] event::RunEnded verdict() const
    {
        return m_life.verdict().ended(m_result, RunClass::Stopped);
    }

    /// Whether an answer makes its address a candidate.
    [[nodiscard]] bool analyseUrl(const QString &url, qint64 size, const QString &contentType) const
    {
        return MediaRules::isCandidate(url, size, contentType);
    }

    /// Whether a candidate is big enough to stop looking for more.
    [[nodiscard]] bool isVideoFounded() const;

    /// Has the document and the page source scanned for further candidates, as soon as the engine
    /// gives a snapshot of them. If that finds the video, the search ends.
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
    [[nodiscard]] static bool IsF4fVideoUrl(const QString &url)
    {
        return StreamAddress::isOne(url);
    }

    /// The manifest's address for a fragment's; other addresses stay as they are.
    [[nodiscard]] static QString urltoF4mUrl(const QString &url)
    {
        return StreamAddress::manifestOf(url);
    }
    [[nodiscard]] static QString getFormat(const QString &url)
    {
        return Utils::getFormatFromUrl(url);
    }

    void setProxy();

    /// Looks whether all parts of a video in several parts have ended.
    void setDownloadCount();

    /// Joins the part files of the video. Returns whether all of them were joined.
    bool mergeVideoFile(int count);

    /// Has the engine lay out the whole page, which makes it load what is seen.
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
    void connectAll();
    void requestClose();
    void endWith(const HostEvent &lastWord);
    bool exitIfAsked();
    void onMemoryFull();
    void onEngineLost(const QString &reason);
    void onSnapshot(const PageSnapshot &snapshot);
    void onLook();
    PageScan pageScan();
    [[nodiscard]] bool hasCandidate() const;
    [[nodiscard]] bool mayBetterCome() const;
    void stopAnalysis();
    bool startF4f(const QString &url);
    void startHulu(const QString &url);
    void onStreamFound(const VideoFile &stream);
    void dropPieces();
    void finishStreams();
    void later(const std::function<void()> &step);
    void reportVideoResult(int state);

    const RunOptions m_options;
    RunLife m_life; ///< early, to watch over the end of those that follow
    std::unique_ptr<PageEngine> m_engine;
    SearchClock m_clock{this};
    const MediaRules m_rules;
    const SizeProbe m_sizeProbe;
    SelectionSite m_site;
    UntoldSizes m_untoldSizes;
    std::unique_ptr<StreamSearch> m_streams; ///< null unless they are wanted
    ParseData m_result;
    QElapsedTimer m_lastCandidate; ///< since the latest one was found
    RunTransfers m_transfers;
    VideoParts m_parts{1}; // no page's video comes in more
    bool m_isLoadedOnce = false;
    bool m_isAnalysing = false;
    bool m_isScanning = false; ///< from the wish for a snapshot to the end of its scan
    bool m_isDownloadStarted = false;
    bool m_isF4fMode = false;
    bool m_isClosing = false; ///< closeWebView() has been emitted
    bool m_isEnded = false;
};

#endif
