#ifndef RUNGUARD_H
#define RUNGUARD_H

#include <QMutex>
#include <QWaitCondition>

#include "HostEvent.h"
#include "RunReport.h"

#include <chrono>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

/// Ends the process when the main thread no longer can: a page's script that never ends, or a
/// request that blocks the engine, stops every timer of the run. A thread of its own watches that
/// the main thread is alive. While it is, the guard leaves the end to it, unless it is too slow
/// with a stop request. Once it is not, a stop request ends the process in less than a second, and
/// an overdue analysis or a close that hangs ends it after a longer grace. As soon as a download
/// has begun, nothing but a stop request counts: a disk or a host may take its time.
///
/// The guard also sees to it that a page does not take more memory than it may, and that a crash
/// ends in order. The result row and the stop flag are always taken care of, and so are the host's
/// last lines unless the host does not read them.
class RunGuard final
{
public:
    /// What the main thread has done, so that it need not be done in its place. A stream has no
    /// record that could be sent, which is as good as having sent it.
    enum Step {
        MemoryHeeded = 1, ///< the analysis is being ended over its memory
        DownloadBegun = 2,
        RecordSent = 4,
        LastLineSent = 8,
        RowWritten = 16
    };

    /// @param deadlineMs time of the run's analysis deadline, from now
    /// @param memoryBytes what the process may take while it analyses; 0 or less for no limit
    /// @param endAnalysis called on the guard's thread, once, when it takes more: is to have the
    /// main thread go on with what was found
    RunGuard(qint64 deadlineMs, qint64 memoryBytes, std::function<void()> endAnalysis);
    ~RunGuard();
    Q_DISABLE_COPY(RunGuard)

    /// Shows that the main thread is alive, and what the run has found so far.
    void beat(std::shared_ptr<const RunReport> report);

    /// Notes that the main thread has done something.
    void note(Step step);

    /// Claims the end of the run for the main thread. Returns only if the guard has not ended the
    /// process instead.
    void claimEnd();

private:
    using Clock = std::chrono::steady_clock;
    enum class State { Running, EndClaimed, ForcingEnd };

    /// What can be seen from outside the main thread.
    struct Signs
    {
        bool isEndAsked = false;
        bool isHostWaitedFor = false; ///< some thread waits in a line to the host
        qint64 memoryBytes = 0; ///< of the process
    };

    void watch();
    [[nodiscard]] Signs look() const;
    void noteSigns(const Signs &signs, Clock::time_point now);
    void startAnew(Clock::time_point now);
    void endAnalysisOverMemory(QMutexLocker &locker);
    [[nodiscard]] bool has(Step step) const { return (m_steps & step) != 0; }
    [[nodiscard]] bool isEndDue(Clock::time_point now) const;
    [[nodiscard]] bool isStopIgnored(Clock::time_point now) const;
    [[nodiscard]] bool isAnalysisOverdue(Clock::time_point now) const;
    [[nodiscard]] bool isSilent(Clock::time_point now) const;
    [[nodiscard]] std::vector<HostEvent> lastEvents() const;
    [[noreturn]] void endProcess(QMutexLocker &locker);

    const qint64 m_memoryLimit;
    const std::function<void()> m_endAnalysis;
    QMutex m_mutex; // guards all members below but the thread
    QWaitCondition m_stopped;
    State m_state = State::Running;
    int m_steps = 0; // of Step
    bool m_isStopped = false;
    bool m_isEndAsked = false;
    bool m_isMemoryFull = false;
    Clock::time_point m_endAskedAt;
    Clock::time_point m_memoryFullAt;
    Clock::time_point m_lastBeat;
    Clock::time_point m_lastHeldUp; // by a host that does not read
    Clock::time_point m_deadline;
    std::shared_ptr<const RunReport> m_report; ///< null before the first beat
    std::thread m_thread;
};

#endif
