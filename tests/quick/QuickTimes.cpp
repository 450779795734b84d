#include "RunTimes.h"

using namespace std::chrono_literals;

const RunTimes &runTimes()
{
    static constexpr RunTimes times{800ms, 20s, 2s, 300ms, 100ms};
    return times;
}
