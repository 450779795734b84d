#include "OutcomeTable.h"

#include "TestFiles.h"

namespace {

QByteArray lineOf(const QVector<const char *> &cells)
{
    QByteArray line("|");
    for (const char *cell : cells)
        line += ' ' + QByteArray(cell) + " |";
    return line + '\n';
}

} // namespace

const char *OutcomeTable::expected(const QByteArray &fault, int column) const
{
    for (const Row &row : rows) {
        if (fault == row.fault)
            return row.outcomes.value(column, nullptr);
    }
    return nullptr;
}

QByteArray OutcomeTable::toMarkdown() const
{
    QByteArray text = lineOf(QVector<const char *>{corner} + columns);
    text += QByteArray("|---").repeated(columns.size() + 1) + "|\n";
    for (const Row &row : rows)
        text += lineOf(QVector<const char *>{row.fault} + row.outcomes);
    return text;
}

bool isDocumented(const OutcomeTable &table)
{
    const QByteArray text = table.toMarkdown();
    if (readFile(QStringLiteral(FAULTS_PAPER)).contains(text))
        return true;
    qWarning("the papers lack this table:\n%s", text.constData());
    return false;
}
