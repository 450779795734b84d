#ifndef MESSAGELOG_H
#define MESSAGELOG_H

#include <QtGlobal>

/// Writes a message where it belongs: debug messages are the host's and go to standard error, and
/// with logging on every message goes to the run's log file. Called from any thread.
void SimpleLoggingHandler(QtMsgType type, const char *text);

/// Where the toolkit's messages go, with the host's lines among them.
class MessageLog final
{
public:
    MessageLog() = delete;

    /// Hands all messages of the process to SimpleLoggingHandler(), and has a line that nobody
    /// reads or that finds no room fail to be written instead of ending the process.
    static void install();

    /// Lets messages reach the log file, if logging is on. Returns whether the output folder
    /// exists; no log is kept without it, for the log must not make a folder that the caller may
    /// have misspelt.
    /// Which file that is, is asked of the options once, with the first line after this.
    static bool open();

    /// Keeps messages out of the log file until the next open().
    static void close();

    /// Whether a line is on its way to the host, who may let it wait. Safe on any thread.
    [[nodiscard]] static bool isHostWaitedFor();
};

#endif
