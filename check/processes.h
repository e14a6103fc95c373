// Processes and pid files, from /proc and /run.
#pragma once

#include <QByteArray>
#include <QDateTime>
#include <QMap>
#include <QString>

#include <optional>
#include <sys/types.h>
#include <vector>

/// A file, or nothing if it cannot be read. Also a file of /proc or /sys, which reports size 0.
QByteArray contentsOf(const QString &path);

struct Process {
    pid_t pid = 0;
    pid_t parent = 0;
    QByteArray name; ///< the kernel's name: at most 15 characters
    char state = '?';
    QDateTime started;

    bool isStopped() const { return state == 'T' || state == 't'; }
};

/// The running processes of that name, ascending, without zombies and without children of each other: until it executes
/// its program, a daemon's child has the daemon's name.
std::vector<Process> processesNamed(const QByteArray &name, const QString &procFolder = QStringLiteral("/proc"));

/// Nothing if no such process runs.
std::optional<Process> processOf(pid_t pid, const QString &procFolder = QStringLiteral("/proc"));

/// The environment at the start of the process; empty if it may not be read.
QMap<QByteArray, QByteArray> environmentOf(pid_t pid, const QString &procFolder = QStringLiteral("/proc"));

/// The number at the start of a pid file: nothing without a file, 0 if it cannot be read or has no number.
std::optional<pid_t> pidInFile(const QString &path);

/// "12" or "12 and 15".
QString pidsOf(const std::vector<Process> &processes);
