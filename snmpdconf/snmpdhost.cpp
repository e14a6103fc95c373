// The outside of the snmpd supervision: files, commands, the system log.
#include "snmpdconf/snmpdhost.h"

#include <QFileInfo>
#include <QProcess>
#include <QProcessEnvironment>

#include <memory>

#include <syslog.h>

namespace {

/// Removed for snmpd: it would report its start and end to our service manager as if they were ours.
QProcessEnvironment environmentWithoutServiceManager()
{
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    for (const char *name : {"NOTIFY_SOCKET", "WATCHDOG_PID", "WATCHDOG_USEC"})
        environment.remove(QLatin1String(name));
    return environment;
}

/// Discards output: a stalled reader of our output could block the commands, and us.
void prepare(QProcess &process, const Command &command)
{
    process.setProgram(command.program);
    process.setArguments(command.arguments);
    process.setProcessEnvironment(environmentWithoutServiceManager());
    process.setStandardInputFile(QProcess::nullDevice());
    process.setStandardErrorFile(QProcess::nullDevice());
}

void run(const Command &command)
{
    QProcess process;
    prepare(process, command);
    process.setStandardOutputFile(QProcess::nullDevice());
    process.start();
    process.waitForFinished(-1);
}

void startDetached(const Command &command)
{
    QProcess process;
    prepare(process, command);
    process.setStandardOutputFile(QProcess::nullDevice());
    process.startDetached();
}

/// Parent of killed processes that may still exist. Never deleted, because deleting a process waits for it.
QObject *killedProcesses()
{
    static auto *const parent = new QObject;
    return parent;
}

QByteArray outputOf(const Command &command, int timeoutMs)
{
    auto process = std::make_unique<QProcess>();
    prepare(*process, command);
    process->start(QIODevice::ReadOnly);
    if (process->waitForFinished(timeoutMs))
        return process->readAllStandardOutput();
    if (process->state() != QProcess::NotRunning) {
        // Killed without waiting, because it may hang in the kernel; the event loop reaps it.
        QObject::connect(process.get(), QOverload<int, QProcess::ExitStatus>::of(&QProcess::finished), process.get(),
                         &QObject::deleteLater);
        process->setParent(killedProcesses());
        process.release()->kill();
    }
    return {};
}

void writeSystemLog(int priority, const QByteArray &text)
{
    syslog(priority, "%s", text.constData());
}

} // namespace

QString snmpdConfFolder()
{
    return QFileInfo(QLatin1String(snmpdConfPath)).path();
}

SnmpdHost deviceHost()
{
    return {
        QLatin1String(snmpdConfPath),
        snmpdConfFolder() + QLatin1Char('/'),
        QLatin1String(snmpdPidPath),
        run,
        startDetached,
        outputOf,
        writeSystemLog,
    };
}
