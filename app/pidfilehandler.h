// The pid file: who runs, and may another instance start.
#pragma once

#include <sys/types.h>

inline constexpr char pidFilePath[] = "/var/run/kvsnmp.pid";

/// The file is locked only while it is written; what keeps a second instance out is `checkPid()`.
class PidFileHandler {
public:
    /// `path` is borrowed and must outlive the handler.
    explicit PidFileHandler(const char *path);
    ~PidFileHandler();
    PidFileHandler(const PidFileHandler &) = delete;
    PidFileHandler &operator=(const PidFileHandler &) = delete;

    /// The number in the file; 0 when there is none.
    pid_t readPid() const;
    /// The pid of another running instance, or 0. errno is then that of the check: 0, or EPERM for another user's.
    pid_t checkPid() const;
    /// Writes the own pid and returns it; 0, with errno set, when the file cannot be written.
    pid_t writePid() const;
    /// Removes the file, whoever wrote it.
    void removePid() const;

private:
    const char *m_path;
};
