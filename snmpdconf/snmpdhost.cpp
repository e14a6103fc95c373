// What the snmpd supervision touches outside the program: files, commands, the system log.
#include "snmpdconf/snmpdhost.h"

#include <QProcess>
#include <QProcessEnvironment>

#include <memory>

#include <syslog.h>

namespace {

/// snmpd reports its start and its end to the service manager that it finds here, which would take them for ours.
QProcessEnvironment environmentWithoutServiceManager()
{
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    for (const char *name : {"NOTIFY_SOCKET", "WATCHDOG_PID", "WATCHDOG_USEC"})
        environment.remove(QLatin1String(name));
    return environment;
}

/// Nobody reads what these commands print; on our own output a reader that has stopped could block them, and us.
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

/// Parent of the processes that were killed and may not be gone yet. Never deleted: to delete one is to wait for it.
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
        // Killed, and reaped by the event loop when it is gone: a process that hangs in the kernel may take its time.
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

SnmpdHost deviceHost()
{
    return {
        QLatin1String(snmpdConfPath),
        QStringLiteral("/etc/snmp/"),
        QLatin1String(snmpdPidPath),
        run,
        startDetached,
        outputOf,
        writeSystemLog,
    };
}
