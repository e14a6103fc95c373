// Runs a short command of the device with a time limit.
#pragma once

#include <QByteArray>
#include <QProcessEnvironment>
#include <QString>
#include <QStringList>

struct CommandResult {
    bool finished = false; ///< ended within the limit
    int status = -1;
    QByteArray output; ///< standard output
    QByteArray errors; ///< standard error
};

/// The first executable file of that name in a search path like PATH; empty without one.
QString programIn(const QString &searchPath, const QString &name);

/// Runs `program`, a complete path, and waits at most this long; then kills only this process.
CommandResult runCommand(const QString &program, const QStringList &arguments, const QProcessEnvironment &environment,
                         int timeoutMs);
