#ifndef RUNLIMITS_H
#define RUNLIMITS_H

#include "RunClass.h"

/// What ends a run besides the host's wish: its deadline, and the death of the host that started
/// it, as far as the command line asks for them. Reaching one of them counts as a stop request.
class RunLimits final
{
public:
    RunLimits() = delete;

    /// Notes the time from which the deadline counts, and the host. The first step of the program.
    static void noteStart();

    /// Takes the limits of the command line. Where the process has still not ended some seconds
    /// after its deadline, it is ended without any tidying. Needs an application object.
    static void install();

    /// The class of a run that ends now because its end is asked for, by whomever. Safe on any
    /// thread.
    [[nodiscard]] static RunClass stopClass();

    /// Whether one of the limits is reached. Safe on any thread; waits for nothing.
    [[nodiscard]] static bool areReached();
};

#endif
