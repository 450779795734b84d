#ifndef OUTCOMETABLE_H
#define OUTCOMETABLE_H

#include <QByteArray>
#include <QString>
#include <QVector>

/// What is expected of every cell of a matrix: the table that the tests go by and that the papers
/// show.
struct OutcomeTable
{
    struct Row
    {
        const char *fault;
        QVector<const char *> outcomes; ///< one for each column
    };

    const char *corner; ///< heading of the first column
    QVector<const char *> columns;
    QVector<Row> rows;

    /// The expected outcome of a cell; null when there is no such cell.
    [[nodiscard]] const char *expected(const QByteArray &fault, int column) const;

    /// The table as the papers show it.
    [[nodiscard]] QByteArray toMarkdown() const;
};

/// Whether the page of the papers on faults has a table, to the letter. What it should hold is
/// written to the log when it does not.
[[nodiscard]] bool isDocumented(const OutcomeTable &table);

#endif
