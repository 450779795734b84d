#include "RecordReport.h"

#include "CsvLog.h"

RecordReport::RecordReport(const ParseData &record, const RunOptions &options,
                           const RunVerdict &verdict)
    : m_record(record)
    , m_options(options)
    , m_verdict(verdict)
{
}

bool RecordReport::hasCandidates() const
{
    return !m_record.fileList.isEmpty();
}

QByteArray RecordReport::record() const
{
    return m_record.toJson();
}

event::RunEnded RecordReport::ended(RunClass otherwise) const
{
    return m_verdict.ended(m_record, otherwise);
}

void RecordReport::writeRow() const
{
    CsvLog(m_record, m_options).saveDownloadResult();
}
