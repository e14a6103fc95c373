// The pid file: the running instance, and whether another one may start.
#pragma once

#include <sys/types.h>

inline constexpr char pidFilePath[] = "/var/run/kvsnmp.pid";

/// The file is locked only while it is written; `checkPid()` prevents a second instance.
class PidFileHandler {
public:
    /// `path` is borrowed and must outlive the handler.
    explicit PidFileHandler(const char *path);
    ~PidFileHandler();
    PidFileHandler(const PidFileHandler &) = delete;
    PidFileHandler &operator=(const PidFileHandler &) = delete;

    /// The number in the file; 0 without one.
    pid_t readPid() const;
    /// The pid of another running instance, or 0. errno is that of the check: 0, or EPERM for another user's process.
    pid_t checkPid() const;
    /// Writes and returns the process's pid; 0, with errno set, if the file cannot be written.
    pid_t writePid() const;
    /// Removes the file, even if another process wrote it.
    void removePid() const;

private:
    const char *m_path;
};
