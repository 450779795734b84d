#include "RunVerdict.h"

#include <QFileInfo>

RunVerdict::RunVerdict(const RunOptions &options)
    : m_isStrict(options.isStrict)
{
}

void RunVerdict::notePageSeen()
{
    m_isPageSeen = m_isPageSeen || !m_isSearchOver;
}

void RunVerdict::noteVideoEnded(Transfer::Outcome outcome, const TransferReport &report)
{
    if (m_class)
        return;
    m_report = report;
    decide(outcome == Transfer::Outcome::Canceled ? RunClass::Stopped : report.runClass);
}

void RunVerdict::noteNothingFound()
{
    if (m_isEngineLost)
        decide(RunClass::EngineLost);
    else
        decide(m_isPageSeen ? RunClass::NothingFound : RunClass::PageUnreached);
}

void RunVerdict::decide(RunClass runClass)
{
    if (!m_class)
        m_class = runClass;
}

event::RunEnded RunVerdict::ended(const ParseData &record, RunClass otherwise) const
{
    event::RunEnded result;
    result.runClass = m_class.value_or(otherwise);
    result.exitCode = m_isStrict ? RunClasses::exitCodeOf(result.runClass) : 0;
    const QString path = m_report.path.isEmpty() ? m_path : m_report.path;
    const QFileInfo file(path);
    if (!path.isEmpty() && file.exists()) {
        result.path = path;
        result.bytes = file.size();
    }
    if (result.runClass == RunClass::Complete)
        result.sha256 = m_report.sha256;
    result.startedAt = record.startTime;
    result.analysedAt = record.endTime;
    result.endedAt = QDateTime::currentDateTime();
    return result;
}
