// The command line of the daemon.
#pragma once

#include <cstdio>

struct Options {
    bool daemon = true;    ///< false: stay in the foreground and write no pid file
    bool talDebug = false; ///< the data-service library prints its messages
};

/// Reads the command line. Ends the process after -h (0) and on an unknown option (1); aborts on an option that is
/// accepted but not implemented.
Options parseOptions(int argc, char *argv[]);

/// Writes the usage text and exits with `status`.
[[noreturn]] void printUsage(std::FILE *stream, int status);
