// The file that shows a supervisor that the event loop runs.
#pragma once

inline constexpr char watchdogFilePath[] = "/tmp/kvsnmp.watchdogtest";

/// Rewrites the file with its one line. Its folder is writable for all, so it writes only a regular file with one name
/// of this process's user; it replaces anything else except a folder by a new file. False on failure.
bool updateWatchdogFile(const char *path);
