#ifndef RUNCLASS_H
#define RUNCLASS_H

#include <QLatin1String>

#include <vector>

/// What became of a page run. The numbers that go with it, its name in events and what it means are
/// in one table, RunClasses::all(), which the papers are compared with.
enum class RunClass {
    Complete,
    NoDisplay,
    NoOutputFolder,
    NoPageUrl,
    NoArguments,
    NothingFound,
    PageUnreached,
    Refused,
    BrokenOff,
    Incomplete,
    Protected,
    Disk,
    Busy,
    Unsupported,
    Stopped,
    Deadline,
    EngineLost,
    EngineMissing
};

/// The table of what can become of a run.
namespace RunClasses {

struct Row
{
    RunClass runClass;
    int exitCode; ///< with "strict"
    QLatin1String name;
    QLatin1String meaning;
};

/// Every class once, in ascending order of the exit codes.
[[nodiscard]] const std::vector<Row> &all();

[[nodiscard]] const Row &rowOf(RunClass runClass);

/// The exit code that tells the class.
[[nodiscard]] int exitCodeOf(RunClass runClass);

} // namespace RunClasses

#endif
