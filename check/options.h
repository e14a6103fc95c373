// The command line of kvsnmp-check.
#pragma once

#include <QByteArray>

#include <optional>

struct CheckOptions {
    bool json = false;
    bool nagios = false;
    int timeoutMs = 3000;
    std::optional<int> exitStatus; ///< end at once with this status: help, version, or an error
};

inline constexpr int exitOk = 0;
inline constexpr int exitFailed = 1;
inline constexpr int exitUsage = 2;

/// The exit statuses with --nagios, those of a monitoring plugin.
enum NagiosStatus { nagiosOk = 0, nagiosWarning = 1, nagiosCritical = 2, nagiosUnknown = 3 };

/// Whether to colour the output: on a terminal that knows colours, unless NO_COLOR is set to a text.
bool wantsColours(bool isTerminal, const QByteArray &noColor, const QByteArray &terminalKind);

/// Prints help and version to standard output, errors to standard error.
CheckOptions parseCheckOptions(int argc, char *argv[]);
