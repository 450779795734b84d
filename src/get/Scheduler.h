#ifndef SCHEDULER_H
#define SCHEDULER_H

#include "HostQueue.h"
#include "PageTask.h"

class Archive;

/// Takes all pages to their ends, some at once.
class Scheduler final : public QObject
{
    Q_OBJECT

public:
    /// The options, the place and the archive must outlive the scheduler.
    Scheduler(const GetOptions &options, const RunPlace &place, const QStringList &addresses,
              Archive &archive, QObject *parent = nullptr);
    ~Scheduler() override;

    void start();

    /// Ends all pages in order, and begins no more. Legal at any time and again.
    void stop();

    [[nodiscard]] int pageCount() const { return m_pageCount; }
    [[nodiscard]] const std::vector<PageTask *> &atWork() const { return m_atWork; }

signals:
    void pageBegun(const PageTask *page);
    void pageChanged(const PageTask *page);
    void pageEvent(const PageTask *page, const QByteArray &line);
    void pageRetried(const PageTask *page, int attempt, int most, qint64 pauseMs, RunClass cause);

    /// Once for each page, those that were skipped or never began included.
    /// @param result the event by which its run told its end; empty when there was none
    void pageEnded(const PageFacts &facts, const QJsonObject &result);

    /// The archive could not be written.
    void archiveFailed();

    /// Once, when all pages have ended.
    void ended();

private:
    void fill();
    void begin(int page);
    void finishPage(PageTask *task, int page);
    [[nodiscard]] PageFacts idleFacts(int page) const;

    const GetOptions &m_options;
    const RunPlace &m_place;
    Archive &m_archive;
    HostQueue m_queue;
    const int m_pageCount;
    std::vector<PageTask *> m_atWork; ///< children; in the order of their begins
    bool m_isStopping = false;
    bool m_isFilling = false;
    bool m_hasEnded = false;
};

#endif
