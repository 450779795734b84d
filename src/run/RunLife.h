#ifndef RUNLIFE_H
#define RUNLIFE_H

#include "ParseData.h"
#include "RunGuard.h"
#include "RunOptions.h"
#include "RunVerdict.h"

#include <QObject>
#include <QTimer>

#include <memory>

/// The signs of life of a run: keeps its guard told of what was found and done, and looks at the
/// run at short intervals for what nothing else would notice. Main thread. Before begin() there is
/// no guard, and all of this does nothing.
class RunLife final : public QObject
{
    Q_OBJECT

public:
    /// @param record not owned; what the guard reports in the run's place
    RunLife(const ParseData &record, const RunOptions &options, QObject *parent = nullptr);

    void begin(qint64 deadlineMs);

    /// Tells the guard that this thread is alive and what it knows.
    void show();
    void note(RunGuard::Step step);

    /// What becomes of the run.
    [[nodiscard]] RunVerdict &verdict() { return m_verdict; }
    [[nodiscard]] const RunVerdict &verdict() const { return m_verdict; }

    /// From here on the end is the main thread's: the guard only sees to it that it comes.
    void claimEnd();

signals:
    /// Comes a few times a second, nested event loops included.
    void looked();

    /// The page takes more memory than it may.
    void memoryFull();

private:
    const ParseData &m_record;
    const RunOptions m_options;
    RunVerdict m_verdict;
    std::unique_ptr<RunGuard> m_guard;
    QTimer m_timer;
};

#endif
