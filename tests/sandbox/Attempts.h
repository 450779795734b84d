#ifndef ATTEMPTS_H
#define ATTEMPTS_H

#include <string>

/// The port of this machine that an attempt connects to; whether somebody listens there makes no
/// difference.
constexpr unsigned short attemptedPort = 6099;

/// What code that has taken over a page run would try. Plain system calls, so that it can be built
/// into anything.
///
/// The places come from the environment: ATTEMPTS_OUTPUT, the output folder; ATTEMPTS_OUTSIDE, a
/// folder beside it that holds the files "kept", "victim-<who>" and "moved-<who>";
/// ATTEMPTS_PRIVATE, a file in the home folder.
///
/// @param who a name for the thread, to tell the files of several apart
/// @returns a line for each attempt: its name, a space, and the error number, 0 for success
std::string runAttempts(const std::string &who);

/// Has every thread of the process try to write a file outside, and returns a line with an error
/// number for each; "silent" for a thread that does not answer.
std::string runAttemptOfEveryThread();

/// Writes a file as a whole, its name last, so that it is complete once it is seen.
void writeReport(const std::string &path, const std::string &text);

#endif
