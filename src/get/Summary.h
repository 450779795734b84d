#ifndef SUMMARY_H
#define SUMMARY_H

#include "PageFacts.h"

#include <QStringList>

#include <map>
#include <vector>

/// What became of all pages together.
class Summary final
{
public:
    explicit Summary(bool isSimulation = false)
        : m_isSimulation(isSimulation)
    {
    }

    void add(const PageFacts &page);

    /// Something of the command's own has failed, though the pages may have arrived.
    void addFailure(RunClass runClass);

    /// 0 when every page has arrived or was done before; else the highest number of the classes of
    /// those that have not.
    [[nodiscard]] int exitCode() const;

    [[nodiscard]] int arrived() const { return m_arrived; }
    [[nodiscard]] int skipped() const { return m_skipped; }
    [[nodiscard]] int failed() const; ///< those that never began included
    [[nodiscard]] qint64 bytes() const { return m_bytes; }
    [[nodiscard]] const std::map<RunClass, int> &failures() const { return m_failures; }

    /// A table of pages, those that failed at the least, with a line of the sums below it, no wider
    /// than so many columns.
    [[nodiscard]] QStringList table(int columns, qint64 tookMs) const;

    /// The line of the sums.
    [[nodiscard]] QString sums(qint64 tookMs) const;

private:
    struct Row
    {
        QString outcome;
        QString size;
        QString time;
        QString name;
        bool hasArrived = false;
    };

    const bool m_isSimulation;
    int m_arrived = 0;
    int m_skipped = 0;
    qint64 m_bytes = 0;
    std::map<RunClass, int> m_failures;
    RunClass m_own = RunClass::Complete; ///< of a failure of the command's own
    std::vector<Row> m_rows; ///< of the first pages that arrived
    std::vector<Row> m_failedRows; ///< of the first ones that failed
};

#endif
