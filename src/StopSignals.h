#ifndef STOPSIGNALS_H
#define STOPSIGNALS_H

/// The signals by which a terminal or a service manager asks the program to stop. After install()
/// the first SIGINT or SIGTERM is only noted; a second one ends the process as usual.
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
