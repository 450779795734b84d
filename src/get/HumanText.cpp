#include "HumanText.h"

#include "SafeText.h"

QString HumanText::bytes(qint64 count)
{
    constexpr double step = 1000.0;
    if (count < static_cast<qint64>(step))
        return QStringLiteral("%1 B").arg(count);
    double value = static_cast<double>(count);
    const char *unit = "";
    for (const char *const next : {"kB", "MB", "GB", "TB", "PB"}) {
        if (value < step - 0.05)
            break;
        value /= step;
        unit = next;
    }
    return QStringLiteral("%1 %2").arg(value, 0, 'f', 1).arg(QLatin1String(unit));
}

QString HumanText::duration(qint64 ms)
{
    constexpr qint64 perMinute = 60;
    constexpr qint64 perHour = 3600;
    constexpr qint64 msPerSecond = 1000;
    const qint64 seconds = (qMax<qint64>(0, ms) + msPerSecond / 2) / msPerSecond;
    const auto two = [](qint64 number) {
        return QStringLiteral("%1").arg(number, 2, 10, QLatin1Char('0'));
    };
    if (seconds < perHour)
        return QStringLiteral("%1:%2").arg(seconds / perMinute).arg(two(seconds % perMinute));
    return QStringLiteral("%1:%2:%3")
        .arg(seconds / perHour)
        .arg(two(seconds % perHour / perMinute), two(seconds % perMinute));
}

QString HumanText::nameOf(const PageFacts &page)
{
    const QString title = SafeText::line(page.title);
    return title.isEmpty() ? SafeText::line(page.address) : title;
}

QString HumanText::reasonOf(const PageFacts &page)
{
    const QString meaning = RunClasses::rowOf(page.runClass).meaning;
    const QString more = SafeText::line(page.reason);
    return more.isEmpty() ? meaning : meaning + QStringLiteral(" (%1)").arg(more);
}
