#include "RunClass.h"

#include <algorithm>

namespace {

RunClasses::Row row(RunClass runClass, int exitCode, const char *name, const char *meaning)
{
    return {runClass, exitCode, QLatin1String(name), QLatin1String(meaning)};
}

} // namespace

const std::vector<RunClasses::Row> &RunClasses::all()
{
    static const std::vector<Row> table{
        row(RunClass::Complete, 0, "complete", "the whole video arrived"),
        row(RunClass::EngineMissing, 11, "engineMissing", "the engine is not installed"),
        row(RunClass::NoDisplay, 12, "noDisplay", "a display is asked for and cannot be reached"),
        row(RunClass::NoOutputFolder, 13, "noOutputFolder",
            "the output folder does not exist, or the path of --saveto is not UTF-8"),
        row(RunClass::NoPageUrl, 14, "noPageUrl", "no page address"),
        row(RunClass::NoArguments, 23, "noArguments", "no arguments at all"),
        row(RunClass::NothingFound, 31, "nothingFound", "the page showed no video in time"),
        row(RunClass::PageUnreached, 32, "pageUnreached", "the page could not be loaded"),
        row(RunClass::Refused, 33, "refused", "the video's server refused to give it"),
        row(RunClass::BrokenOff, 34, "brokenOff",
            "the video's server could not be reached, broke off or fell silent"),
        row(RunClass::Incomplete, 35, "incomplete",
            "parts of the video are missing, or it is shorter than announced or another one"),
        row(RunClass::Protected, 36, "protected", "the video is protected against copying"),
        row(RunClass::Disk, 37, "disk", "the file could not be written"),
        row(RunClass::Busy, 38, "busy", "another run is writing the same file"),
        row(RunClass::Unsupported, 39, "unsupported",
            "the chosen address is of a kind that cannot be fetched"),
        row(RunClass::Stopped, 40, "stopped", "the run was asked to stop, or called off"),
        row(RunClass::Deadline, 41, "deadline", "the time of --deadline was over"),
        row(RunClass::EngineLost, 42, "engineLost", "the engine hung, crashed or was lost"),
    };
    return table;
}

const RunClasses::Row &RunClasses::rowOf(RunClass runClass)
{
    const std::vector<Row> &table = all();
    const auto found = std::find_if(table.cbegin(), table.cend(), [runClass](const Row &entry) {
        return entry.runClass == runClass;
    });
    Q_ASSERT(found != table.cend());
    return *found;
}

int RunClasses::exitCodeOf(RunClass runClass)
{
    return rowOf(runClass).exitCode;
}
