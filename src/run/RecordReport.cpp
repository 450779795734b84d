#include "RecordReport.h"

#include "CsvLog.h"

RecordReport::RecordReport(const ParseData &record, const RunOptions &options)
    : m_record(record)
    , m_options(options)
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

void RecordReport::writeRow() const
{
    CsvLog(m_record, m_options).saveDownloadResult();
}
