#include "RunTimes.h"

using namespace std::chrono_literals;

const RunTimes &runTimes()
{
    static constexpr RunTimes times{5s, 20s, 10s, 300ms, 1s};
    return times;
}
