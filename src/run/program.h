#ifndef PROGRAM_H
#define PROGRAM_H

/// Exit codes of runs that do not begin.
enum ExitCode {
    NoArguments = -1001,
    NoPageUrl = -1010,
    NoOutputFolder = -1011,
    NoDisplay = -1012,
    NoEngine = -1013
};

/// Everything that the program does with the engine. It lives in a module of its own, for loading
/// the engine takes several times as long as all that can be done without it.
extern "C" __attribute__((visibility("default"))) int runProgram(int argc, char *argv[]);

#endif
