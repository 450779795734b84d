#ifndef ENDTIMER_H
#define ENDTIMER_H

#include <chrono>

/// The last resort: ends the process once a time has passed, whatever its threads are doing or
/// waiting for, without any tidying. Takes the process's alarm signal for itself.
class EndTimer final
{
public:
    /// What happens when the time has passed.
    enum class AtTheEnd {
        EndAtOnce,
        WaitOnce, ///< the process may have been stopped meanwhile, and gets a moment to tidy up
        WaitUnlessHeldUp ///< as long again, a few times, but for a host that does not read
    };

    /// Ends the process with the exit code after the given time. Of several times that are set, the
    /// earliest counts, with its code. Safe on any thread.
    static void endWithin(std::chrono::milliseconds time, int exitCode,
                          AtTheEnd atTheEnd = AtTheEnd::EndAtOnce);

    /// Leaves the toolkit a moment to clean up at the end of the program: it would wait for name
    /// servers that do not answer. Under the sanitizers, which take a last look, the moment is
    /// longer.
    static void endSoon(int exitCode);
};

#endif
