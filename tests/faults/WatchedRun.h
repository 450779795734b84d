#ifndef WATCHEDRUN_H
#define WATCHEDRUN_H

#include "ProgramRun.h"

#include <QDeadlineTimer>

#include <memory>
#include <vector>

/// A run of the program whose end is judged: in time, in order, with the right last lines, and with
/// nothing left in the system. Its temporary and runtime folders are its own.
class WatchedRun final
{
public:
    WatchedRun();

    /// Takes away what a run that had to be broken left in the system.
    ~WatchedRun();
    Q_DISABLE_COPY(WatchedRun)

    [[nodiscard]] ProgramRun &program() { return m_program; }
    [[nodiscard]] const ProgramRun &program() const { return m_program; }

    void start(const QStringList &arguments);

    /// Whether the run is over. To be called again and again: it kills a run that is late, and
    /// notes how much memory a living one has used.
    [[nodiscard]] bool hasEnded();

    /// Asks the run to end, once.
    void stop();

    /// The result that the run reported: "success", "failed", "canceled", "parse failed" or
    /// "stopped"; otherwise what is wrong with its end, which begins with "BROKEN".
    /// @param hasStopFlag whether the line on the stop flag is expected at the end
    [[nodiscard]] QString result(bool hasStopFlag = true) const;

    /// What the run left behind that it should not: files in its temporary folder, processes and
    /// shared memory; empty when there is nothing.
    [[nodiscard]] QString leftovers() const;

    /// The most memory that the run was seen to use.
    [[nodiscard]] qint64 peakBytes() const;

private:
    ProgramRun m_program;
    QDeadlineTimer m_limit;
    qint64 m_pid = 0;
    qint64 m_startSeconds = 0; ///< since 1970
    qint64 m_peakBytes = 0;
    bool m_isLate = false;
    bool m_isStopped = false;
};

/// One cell of a matrix: a run and what becomes of it.
class FaultCell
{
public:
    FaultCell() = default;
    virtual ~FaultCell() = default;
    Q_DISABLE_COPY(FaultCell)

    virtual void begin() = 0;

    /// Called again and again until it returns true: the cell is done.
    [[nodiscard]] virtual bool watch() { return m_run.hasEnded(); }

    /// What became of the run, in the words of the matrix.
    [[nodiscard]] virtual QString outcome() const = 0;

    [[nodiscard]] const WatchedRun &watchedRun() const { return m_run; }

protected:
    WatchedRun m_run;
};

/// Runs cells, several at a time, until all are done.
void runTogether(const std::vector<std::unique_ptr<FaultCell>> &cells);

#endif
