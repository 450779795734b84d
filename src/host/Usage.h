#ifndef USAGE_H
#define USAGE_H

/// Sends the usage text to the host.
void printUsage();

#endif
