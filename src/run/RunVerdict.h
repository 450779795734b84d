#ifndef RUNVERDICT_H
#define RUNVERDICT_H

#include "HostEvent.h"
#include "ParseData.h"
#include "RunOptions.h"
#include "Transfer.h"

#include <optional>

/// What becomes of a run: collects what tells it while the run goes on. What is decided first
/// counts. Copies are handed to the guard, which ends a run that cannot end itself.
class RunVerdict final
{
public:
    explicit RunVerdict(const RunOptions &options);

    void notePageSeen(); ///< something of the page, or for it, has come
    void noteSearchEnded() { m_isSearchOver = true; } ///< what comes now is no page's
    void noteEngineLost() { m_isEngineLost = true; }

    /// The video begins to come. @param path where it goes
    void noteVideoBegun(const QString &path) { m_path = path; }

    /// The video's transfer has ended.
    void noteVideoEnded(Transfer::Outcome outcome, const TransferReport &report);

    /// The search has ended and brought nothing.
    void noteNothingFound();

    /// The run ends for a reason of another kind.
    void decide(RunClass runClass);

    /// The event that tells it. @param otherwise the class of a run of which nothing is decided
    [[nodiscard]] event::RunEnded ended(const ParseData &record, RunClass otherwise) const;

private:
    bool m_isStrict;
    bool m_isPageSeen = false;
    bool m_isSearchOver = false;
    bool m_isEngineLost = false;
    QString m_path;
    TransferReport m_report;
    std::optional<RunClass> m_class;
};

#endif
