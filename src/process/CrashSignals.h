#ifndef CRASHSIGNALS_H
#define CRASHSIGNALS_H

/// The signals by which a process crashes, and those by which it ends itself. The thread that
/// crashes is held for some seconds, so that another one can tidy up; then the process ends by the
/// signal as if nobody had listened. Under the sanitizers, which report crashes, nothing is
/// installed.
class CrashSignals final
{
public:
    CrashSignals() = delete;

    /// Listens from now on. The calling thread may even have run out of stack when it crashes.
    static void install();

    /// From now on a crash ends the process at once.
    static void uninstall();

    /// The signal by which a thread has crashed; 0 while none has. Safe on any thread.
    [[nodiscard]] static int received();

    /// Ends the process by the signal that was received.
    [[noreturn]] static void endProcess();
};

#endif
