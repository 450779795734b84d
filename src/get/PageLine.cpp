#include "PageLine.h"

#include "HumanText.h"
#include "TextWidth.h"

#include <QStringList>

#include <cmath>

namespace {

constexpr int leastNameColumns = 12;
constexpr int barColumns = 22;
constexpr int amountColumns = 19;
constexpr int rateColumns = 10;
constexpr int leftColumns = 8;
constexpr double mostLeftS = 360000.0;

QString barOf(double part)
{
    constexpr int inner = barColumns - 2;
    const int full = static_cast<int>(part * inner);
    QString bar(full, QLatin1Char('='));
    if (full < inner)
        bar += QLatin1Char('>');
    return QLatin1Char('[') + bar.leftJustified(inner) + QLatin1Char(']');
}

QString amountOf(const PageProgress &progress)
{
    if (!progress.isInBytes)
        return progress.total > 0
            ? QStringLiteral("%1 of %2 parts").arg(progress.done).arg(progress.total)
            : QStringLiteral("%1 parts").arg(progress.done);
    const QString done = HumanText::bytes(progress.done);
    return progress.total > 0 ? done + QLatin1String(" of ") + HumanText::bytes(progress.total)
                              : done;
}

QString rateOf(const PageProgress &progress)
{
    if (!progress.isInBytes || !(progress.rate > 0))
        return {};
    constexpr double most = 9e15;
    return HumanText::bytes(static_cast<qint64>(std::min(progress.rate, most)))
        + QLatin1String("/s");
}

QString timeLeftOf(const PageProgress &progress)
{
    if (!(progress.rate > 0) || progress.total <= 0)
        return {};
    constexpr double msPerSecond = 1000.0;
    const double seconds =
        static_cast<double>(qMax<qint64>(0, progress.total - progress.done)) / progress.rate;
    return seconds < mostLeftS ? HumanText::duration(static_cast<qint64>(seconds * msPerSecond))
                               : QString();
}

/// What stands behind the name, the most wanted first, each with its columns.
using Column = std::pair<QString, int>;

QList<Column> columnsOf(const PageProgress &progress)
{
    if (progress.phase == PageProgress::Phase::Searching)
        return {{QStringLiteral("searching"), amountColumns}};
    if (progress.phase == PageProgress::Phase::Waiting)
        return {{QStringLiteral("waiting"), amountColumns}};
    const bool isKnown = progress.total > 0;
    const double part = isKnown
        ? qBound(0.0, static_cast<double>(progress.done) / static_cast<double>(progress.total), 1.0)
        : 0.0;
    const QString percent =
        isKnown ? QStringLiteral("%1%").arg(static_cast<int>(std::floor(part * 100))) : QString();
    return {{amountOf(progress), amountColumns},
            {percent.rightJustified(4), 4},
            {isKnown ? barOf(part) : QString(), barColumns},
            {rateOf(progress), rateColumns},
            {timeLeftOf(progress), leftColumns}};
}

} // namespace

QString pageLine(const PageFacts &facts, const PageProgress &progress, int columns)
{
    // They are shown in this order, and find room in that of columnsOf().
    constexpr int shownOrder[] = {2, 1, 0, 3, 4};
    const QList<Column> all = columnsOf(progress);
    int room = columns - leastNameColumns;
    int taken = 0;
    QVector<bool> isShown(all.size(), false);
    for (int i = 0; i < all.size(); ++i) {
        const int needed = all.at(i).second + 1;
        if (needed > room)
            continue;
        isShown[i] = true;
        room -= needed;
        taken += needed;
    }
    QString line = TextWidth::fitted(HumanText::nameOf(facts), columns - taken);
    for (const int i : shownOrder) {
        if (i < all.size() && isShown.at(i))
            line += QLatin1Char(' ') + TextWidth::fitted(all.at(i).first, all.at(i).second);
    }
    return TextWidth::elided(line, columns);
}
