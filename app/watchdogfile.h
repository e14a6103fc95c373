// The file by which a supervisor sees that the event loop turns.
#pragma once

inline constexpr char watchdogFilePath[] = "/tmp/kvsnmp.watchdogtest";

/// Rewrites the file with its one line. False when it cannot be opened or is anything but a regular file of one name:
/// its folder is open to all, so nothing is written through a link of either kind or into a pipe.
bool updateWatchdogFile(const char *path);
