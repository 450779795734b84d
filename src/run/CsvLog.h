#ifndef CSVLOG_H
#define CSVLOG_H

#include "ParseData.h"
#include "RunOptions.h"

/// The row that a run leaves in the result file of its day. UTF-8; nothing in quoted columns is
/// escaped, so rows are split by position.
class CsvLog final
{
public:
    /// Copies the record. The options are those of the command line.
    explicit CsvLog(ParseData &data);

    CsvLog(const ParseData &data, const RunOptions &options);

    [[nodiscard]] QString GetCsvHeader() const;

    /// The row, without line end; a line break inside a text becomes a space.
    [[nodiscard]] QString GetLogMessage() const;

    /// Appends the row if logging is on; a new file begins with the header. A file that cannot be
    /// written is not reported.
    void saveDownloadResult();

private:
    const ParseData m_data;
    const RunOptions m_options;
};

#endif
