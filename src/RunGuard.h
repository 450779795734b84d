#ifndef RUNGUARD_H
#define RUNGUARD_H

#include <QMutex>
#include <QString>
#include <QWaitCondition>

#include "ParseData.h"

#include <chrono>
#include <thread>

/// Ends the process when the main thread no longer can: a page's script that never ends, or a
/// request that blocks the engine, stops every timer of the run. A thread of its own watches that
/// the main thread is alive. While it is, the guard leaves the end to it, unless it is too slow
/// with a stop request. Once it is not, a stop request ends the process in less than a second, and
/// an overdue analysis or a close that hangs ends it after a longer grace. The result row and the
/// stop flag are taken care of, and the host's lines unless the host does not read them.
class RunGuard final
{
public:
    /// @param deadlineMs time of the run's analysis deadline, from now
    explicit RunGuard(qint64 deadlineMs);
    ~RunGuard();
    Q_DISABLE_COPY(RunGuard)

    /// Shows that the main thread is alive, and what the run has found so far.
    void beat(const ParseData &record);

    /// Claims the end of the run for the main thread. Returns only if the guard has not ended the
    /// process instead.
    void claimEnd();

    /// Notes that the result row is written.
    void noteRowWritten();

private:
    using Clock = std::chrono::steady_clock;
    enum class State { Running, EndClaimed, ForcingEnd };

    void watch();
    [[nodiscard]] bool isEndDue(Clock::time_point now) const;
    [[nodiscard]] QString lastLine() const;
    void endProcess(const ParseData &record, bool hasRow, const QString &line);

    QMutex m_mutex; // guards all members below but the thread
    QWaitCondition m_stopped;
    State m_state = State::Running;
    bool m_isStopped = false;
    bool m_isEndAsked = false;
    Clock::time_point m_endAskedAt;
    bool m_isRowWritten = false;
    Clock::time_point m_lastBeat;
    Clock::time_point m_deadline;
    ParseData m_record;
    std::thread m_thread;
};

#endif
