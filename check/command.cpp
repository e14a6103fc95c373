// Runs a short command of the device with a time limit.
#include "check/command.h"

#include <QProcess>
#include <QStandardPaths>

QString programIn(const QString &searchPath, const QString &name)
{
    return QStandardPaths::findExecutable(name, searchPath.split(QLatin1Char(':'), Qt::SkipEmptyParts));
}

CommandResult runCommand(const QString &program, const QStringList &arguments, const QProcessEnvironment &environment,
                         int timeoutMs)
{
    constexpr int killTimeoutMs = 500;
    QProcess process;
    process.setProcessEnvironment(environment);
    process.setStandardInputFile(QProcess::nullDevice());
    process.start(program, arguments, QIODevice::ReadOnly);
    CommandResult result;
    result.finished = process.waitForFinished(timeoutMs) && process.exitStatus() == QProcess::NormalExit;
    if (process.state() != QProcess::NotRunning) {
        process.kill();
        process.waitForFinished(killTimeoutMs);
    }
    result.status = result.finished ? process.exitCode() : -1;
    result.output = process.readAllStandardOutput();
    result.errors = process.readAllStandardError();
    return result;
}
