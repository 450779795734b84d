#include "RecordReport.h"

#include "CsvLog.h"

RecordReport::RecordReport(const ParseData &record)
    : m_record(record)
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
    ParseData record = m_record;
    CsvLog(record).saveDownloadResult();
}
