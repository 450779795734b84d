#include "Summary.h"

#include "HumanText.h"
#include "SafeText.h"
#include "TextWidth.h"

#include <QFileInfo>

#include <algorithm>

namespace {

/// Longer tables are not read; the sums hold for all.
constexpr size_t mostRows = 40;
constexpr int outcomeColumns = 14;
constexpr int sizeColumns = 9;
constexpr int timeColumns = 8;

/// Below this a name would have no room.
constexpr int fewColumns = 60;

/// A row of the table; on narrow terminals without numbers.
QString rowText(const QString &outcome, const QString &size, const QString &time,
                const QString &name, int columns)
{
    if (columns < fewColumns)
        return TextWidth::fitted(outcome, outcomeColumns) + QLatin1Char(' ') + name;
    return TextWidth::fitted(outcome, outcomeColumns) + QLatin1Char(' ')
        + size.rightJustified(sizeColumns) + QLatin1Char(' ') + time.rightJustified(timeColumns)
        + QLatin1String("  ") + name;
}

} // namespace

void Summary::add(const PageFacts &page)
{
    if (page.isSkipped) {
        ++m_skipped;
        return;
    }
    Row row;
    row.hasArrived = page.hasArrived();
    row.outcome = RunClasses::rowOf(page.runClass).name;
    row.size = page.bytes >= 0 ? HumanText::bytes(page.bytes) : QString();
    row.time = page.begunAt.isValid() ? HumanText::duration(page.tookMs) : QString();
    row.name = page.hasArrived() ? SafeText::line(QFileInfo(page.path).fileName())
                                 : HumanText::nameOf(page);
    if (page.hasArrived()) {
        ++m_arrived;
        m_bytes += qMax<qint64>(0, page.bytes);
        if (m_rows.size() < mostRows)
            m_rows.push_back(row);
        return;
    }
    ++m_failures[page.runClass];
    // Those that never began would hide those that did.
    if (page.begunAt.isValid() && m_failedRows.size() < mostRows)
        m_failedRows.push_back(row);
}

void Summary::addFailure(RunClass runClass)
{
    if (RunClasses::exitCodeOf(runClass) > RunClasses::exitCodeOf(m_own))
        m_own = runClass;
}

int Summary::exitCode() const
{
    int highest = RunClasses::exitCodeOf(m_own);
    for (const auto &[runClass, count] : m_failures)
        highest = std::max(highest, RunClasses::exitCodeOf(runClass));
    return highest;
}

int Summary::failed() const
{
    int count = 0;
    for (const auto &[runClass, pages] : m_failures)
        count += pages;
    return count;
}

QStringList Summary::table(int columns, qint64 tookMs) const
{
    QStringList lines{rowText(QStringLiteral("Result"), QStringLiteral("Size"),
                              QStringLiteral("Time"), QStringLiteral("Name"), columns)};
    const bool isWhole = m_rows.size() + m_failedRows.size() <= mostRows
        && static_cast<size_t>(m_arrived) == m_rows.size();
    if (isWhole) {
        for (const Row &row : m_rows)
            lines += rowText(row.outcome, row.size, row.time, row.name, columns);
    }
    for (const Row &row : m_failedRows)
        lines += rowText(row.outcome, row.size, row.time, row.name, columns);
    if (lines.size() == 1)
        lines.clear();
    lines += sums(tookMs);
    for (QString &line : lines)
        line = TextWidth::elided(line, columns);
    return lines;
}

QString Summary::sums(qint64 tookMs) const
{
    QString text = QString::number(m_arrived)
        + QLatin1String(m_isSimulation ? " would be fetched" : " arrived");
    if (m_skipped > 0)
        text += QStringLiteral(", %1 skipped").arg(m_skipped);
    for (const auto &[runClass, count] : m_failures)
        text += QStringLiteral(", %1 %2").arg(count).arg(RunClasses::rowOf(runClass).name);
    if (m_isSimulation)
        return text;
    return text
        + QStringLiteral("; %1 in %2").arg(HumanText::bytes(m_bytes), HumanText::duration(tookMs));
}
