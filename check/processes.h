// Processes and pid files, as /proc and /run tell.
#pragma once

#include <QByteArray>
#include <QDateTime>
#include <QMap>
#include <QString>

#include <optional>
#include <sys/types.h>
#include <vector>

struct Process {
    pid_t pid = 0;
    QByteArray name; ///< as the kernel keeps it: at most 15 characters
    char state = '?';
    QDateTime started;

    bool isStopped() const { return state == 'T' || state == 't'; }
};

/// The running processes of that name, ascending; what has ended and is only not yet reaped does not count.
std::vector<Process> processesNamed(const QByteArray &name, const QString &procFolder = QStringLiteral("/proc"));

/// Nothing when no such process runs.
std::optional<Process> processOf(pid_t pid, const QString &procFolder = QStringLiteral("/proc"));

/// The environment that the process was started with; empty when it may not be read.
QMap<QByteArray, QByteArray> environmentOf(pid_t pid, const QString &procFolder = QStringLiteral("/proc"));

/// The number at the start of a pid file: nothing when there is no file, 0 when it cannot be read or holds none.
std::optional<pid_t> pidInFile(const QString &path);

/// "12" or "12 and 15".
QString pidsOf(const std::vector<Process> &processes);
