#ifndef STOPSIGNALS_H
#define STOPSIGNALS_H

/// The signals by which a terminal or a service manager asks the program to stop. After install()
/// the first SIGINT, SIGTERM or SIGHUP is only noted; a second SIGINT or SIGTERM ends the
/// process as usual. A SIGHUP that is ignored already stays ignored.
class StopSignals final
{
public:
    static void install();

    /// From now on the first signal, too, ends the process as usual.
    static void uninstall();

    /// Whether one of the signals has arrived. Safe on any thread.
    [[nodiscard]] static bool areReceived();
};

#endif
