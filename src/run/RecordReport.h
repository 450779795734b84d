#ifndef RECORDREPORT_H
#define RECORDREPORT_H

#include "ParseData.h"
#include "RunOptions.h"
#include "RunReport.h"
#include "RunVerdict.h"

/// Reports from copies of a run's record and its options.
class RecordReport final : public RunReport
{
public:
    RecordReport(const ParseData &record, const RunOptions &options, const RunVerdict &verdict);

    [[nodiscard]] bool hasCandidates() const override;
    [[nodiscard]] QByteArray record() const override;
    [[nodiscard]] event::RunEnded ended(RunClass otherwise) const override;
    void writeRow() const override;

private:
    const ParseData m_record;
    const RunOptions m_options;
    const RunVerdict m_verdict;
};

#endif
