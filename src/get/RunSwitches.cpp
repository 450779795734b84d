#include "RunSwitches.h"

namespace {

/// A switch with its value, if it has one.
QStringList with(const char *name, const QString &value)
{
    return value.isEmpty() ? QStringList() : QStringList{QString::fromLatin1(name), value};
}

QStringList with(const char *name, int number)
{
    return number > 0 ? with(name, QString::number(number)) : QStringList();
}

} // namespace

QStringList RunSwitches::forPage(const GetOptions &options, const QString &address,
                                 const QString &videoPath)
{
    // What makes the run fit for a caller that reads events, and proof against what pages do.
    QStringList switches{QStringLiteral("--events"), QStringLiteral("--strict"),
                         QStringLiteral("--eager"),  QStringLiteral("--streams"),
                         QStringLiteral("--parent"), QStringLiteral("--engine"),
                         QStringLiteral("auto")};
    switches += with("--url", address) + with("--saveto", videoPath);
    switches += with("--timeout", options.timeoutS) + with("--stall", options.stallS)
        + with("--deadline", options.deadlineS);
    switches += with("--quality", options.quality) + with("--format", options.format)
        + with("--language", options.language) + with("--connections", options.connections)
        + with("--proxy", options.proxy);
    // A simulation is stopped as soon as it is known what would be fetched, and brings little
    // where that comes too late.
    if (options.isSimulation)
        return switches + QStringList{QStringLiteral("--partial")};
    switches += QStringList{QStringLiteral("--continue")} + with("--retries", options.retries);
    if (options.wantsThumb)
        switches += QStringLiteral("--thumb");
    return switches;
}
