#ifndef RUNTIMES_H
#define RUNTIMES_H

#include <chrono>

/// The times that a page run goes by. The tests build a program with shorter ones.
struct RunTimes
{
    std::chrono::milliseconds analysisTick; ///< between two looks at what has been found
    std::chrono::milliseconds quietPeriod; ///< a loaded page that is quiet for so long has no more
    std::chrono::milliseconds stuckGrace; ///< a heavy page may keep the engine busy for so long
    /// A page that has shown its video and asks for no more media for so long has no better one.
    std::chrono::milliseconds eagerPause;
    std::chrono::milliseconds retryPause; ///< the first of those between two attempts
};

/// The times of this program.
[[nodiscard]] const RunTimes &runTimes();

#endif
