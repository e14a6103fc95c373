// The command line of kvsnmp-check.
#pragma once

#include <optional>

struct CheckOptions {
    bool json = false;
    int timeoutMs = 3000;
    std::optional<int> exitStatus; ///< end at once with this status: help, version, or an error
};

inline constexpr int exitOk = 0;
inline constexpr int exitFailed = 1;
inline constexpr int exitUsage = 2;

/// Prints help and version to standard output, errors to standard error.
CheckOptions parseCheckOptions(int argc, char *argv[]);
