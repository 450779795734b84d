#ifndef RECORDREPORT_H
#define RECORDREPORT_H

#include "ParseData.h"
#include "RunOptions.h"
#include "RunReport.h"

/// Reports from copies of a run's record and its options.
class RecordReport final : public RunReport
{
public:
    RecordReport(const ParseData &record, const RunOptions &options);

    [[nodiscard]] bool hasCandidates() const override;
    [[nodiscard]] QByteArray record() const override;
    void writeRow() const override;

private:
    const ParseData m_record;
    const RunOptions m_options;
};

#endif
