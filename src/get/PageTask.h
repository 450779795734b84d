#ifndef PAGETASK_H
#define PAGETASK_H

#include "GetOptions.h"
#include "PageFacts.h"
#include "PageFolder.h"

#include <QElapsedTimer>
#include <QJsonObject>
#include <QObject>
#include <QProcessEnvironment>
#include <QTimer>

#include <memory>

class ChildRun;

/// How far a page is.
struct PageProgress
{
    enum class Phase { Searching, Fetching, Waiting };
    Phase phase = Phase::Searching;
    bool isInBytes = true; ///< else in fragments
    qint64 done = 0;
    qint64 total = 0; ///< 0 when that is not known
    double rate = 0; ///< a second; 0 when that is not known
};

/// How page runs are started.
struct RunPlace
{
    QString program;
    QProcessEnvironment environment;
    QString scratchFolder; ///< where simulations work
    int firstPauseMs = 1000; ///< before a page is tried again; it doubles each time
};

/// One page from its begin to its end: its run, further runs where another may do better, and the
/// name that its file gets.
class PageTask final : public QObject
{
    Q_OBJECT

public:
    /// The options and the place must outlive the task.
    PageTask(const GetOptions &options, const RunPlace &place, int number, const QString &address,
             QObject *parent = nullptr);
    ~PageTask() override;

    void start();

    /// Ends the page in order; ended() follows. Legal at any time.
    void stop();

    /// Removes what the page's run left beside the file. Until then the next command takes a page
    /// that has arrived for done.
    void forget() const;

    [[nodiscard]] const PageFacts &facts() const { return m_facts; }
    [[nodiscard]] const PageProgress &progress() const { return m_progress; }

    /// The event by which the last run told its end; empty when it told none.
    [[nodiscard]] const QJsonObject &result() const { return m_result; }

signals:
    /// An event of the run, but for its result.
    void eventCame(const QByteArray &line);

    /// The address, the title or the progress has changed.
    void changed();

    /// The page is tried again.
    void retried(int attempt, int most, qint64 pauseMs, RunClass cause);

    /// Once, last; facts() are settled.
    void ended();

private:
    void beginRun();
    void takeEvent(const QJsonObject &event);
    void takeRecord(const QJsonObject &record);
    void takeProgress(const QJsonObject &event);
    void judgeRun();
    [[nodiscard]] RunClass classOfRun() const;
    [[nodiscard]] bool tryAgain();
    void deliver();
    void finish(RunClass runClass);

    const GetOptions &m_options;
    const RunPlace &m_place;
    const QString m_target; ///< the folder of the files
    const PageFolder m_folder;
    PageFacts m_facts;
    PageProgress m_progress;
    QJsonObject m_result;
    std::unique_ptr<ChildRun> m_run;
    QTimer m_pause;
    QElapsedTimer m_clock;
    int m_attempts = 0;
    bool m_isStopping = false;
    bool m_hasSeenChoice = false; ///< a video was chosen
    bool m_hasEnded = false;
};

#endif
