// The file by which a supervisor sees that the event loop turns.
#pragma once

inline constexpr char watchdogFilePath[] = "/tmp/kvsnmp.watchdogtest";

/// Rewrites the file with its one line. Its folder is open to all, so only a regular file of this process's user, with
/// one name, is written; anything else there but a folder is replaced by a new file. False when that fails.
bool updateWatchdogFile(const char *path);
