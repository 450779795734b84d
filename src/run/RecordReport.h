#ifndef RECORDREPORT_H
#define RECORDREPORT_H

#include "ParseData.h"
#include "RunReport.h"

/// Reports from a copy of a run's record.
class RecordReport final : public RunReport
{
public:
    explicit RecordReport(const ParseData &record);

    [[nodiscard]] bool hasCandidates() const override;
    [[nodiscard]] QByteArray record() const override;
    void writeRow() const override;

private:
    const ParseData m_record;
};

#endif
