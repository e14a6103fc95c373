// A short command of the device, run with a limit.
#pragma once

#include <QByteArray>
#include <QProcessEnvironment>
#include <QString>
#include <QStringList>

struct CommandResult {
    bool finished = false; ///< by itself, within the limit
    int status = -1;
    QByteArray output; ///< standard output
    QByteArray errors; ///< standard error
};

/// The first executable file of that name in a search path as PATH holds it; empty when there is none.
QString programIn(const QString &searchPath, const QString &name);

/// Runs `program`, a whole path, and waits at most so long; after that the command, and only that, is killed.
CommandResult runCommand(const QString &program, const QStringList &arguments, const QProcessEnvironment &environment,
                         int timeoutMs);
