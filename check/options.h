// The command line of kvsnmp-check.
#pragma once

#include <optional>

struct CheckOptions {
    bool json = false;
    int timeoutMs = 3000;
    std::optional<int> exitStatus; ///< end at once with it: help, version, or a mistake
};

inline constexpr int exitOk = 0;
inline constexpr int exitFailed = 1;
inline constexpr int exitUsage = 2;

/// Help and version go to standard output, what is wrong to standard error.
CheckOptions parseCheckOptions(int argc, char *argv[]);
