// kvsnmp and its environment, except the data service and snmpd.
#include "check/checks.h"
#include "check/gpiosurvey.h"
#include "check/localexchange.h"
#include "check/subject.h"

#include "app/pidfilehandler.h"
#include "dbus/dbusinterface.h"
#include "snmpdconf/snmpdhost.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QFile>

#include <cstring>
#include <unistd.h>

namespace {

QString busAddress(const Subject &subject)
{
    return subject.variable(systemBusVariable, QLatin1String(defaultSystemBus));
}

/// The path of a "unix:path=..." address; empty for other kinds.
QByteArray busSocket(const QString &address)
{
    const QByteArray first = address.toLocal8Bit().split(';')[0].split(',')[0];
    return first.startsWith("unix:path=") ? first.mid(10) : QByteArray();
}

/// Whether the name has an owner; nothing without an answer of the bus.
std::optional<bool> hasOwner(const QString &address, const char *name, int timeoutMs)
{
    const QString connectionName = QStringLiteral("kvsnmp-check");
    std::optional<bool> answer;
    {
        QDBusConnection bus = QDBusConnection::connectToBus(address, connectionName);
        QDBusMessage question = QDBusMessage::createMethodCall(
            QStringLiteral("org.freedesktop.DBus"), QStringLiteral("/org/freedesktop/DBus"),
            QStringLiteral("org.freedesktop.DBus"), QStringLiteral("NameHasOwner"));
        question.setArguments({QLatin1String(name)});
        const QDBusMessage reply = bus.call(question, QDBus::Block, timeoutMs);
        if (reply.type() == QDBusMessage::ReplyMessage)
            answer = reply.arguments().value(0).toBool();
    }
    QDBusConnection::disconnectFromBus(connectionName);
    return answer;
}

} // namespace

QString restartHint()
{
    return QStringLiteral("create and remove any file in ") + snmpdConfFolder();
}

Outcome stoppedProcess(const Process &process)
{
    return failedByItself(
        QStringLiteral("process %1 is stopped").arg(process.pid),
        QStringLiteral("it received SIGSTOP or is being traced; continue it with kill -CONT %1").arg(process.pid));
}

Outcome checkKvsnmpProcess(Subject &subject)
{
    const std::vector<Process> &running = subject.kvsnmp;
    if (running.size() > 1)
        return failedByItself(QStringLiteral("%1 of them run: %2").arg(running.size()).arg(pidsOf(running)),
                              QStringLiteral("end all but one; two write the same snmpd.conf and restart each other's "
                                             "snmpd"));
    if (running.empty()) {
        const QString start = QStringLiteral("start it (systemctl start kvsnmp, or kvsnmp); in the foreground, "
                                             "kvsnmp -d, it prints why it ends");
        const std::optional<pid_t> pid = pidInFile(QLatin1String(pidFilePath));
        const std::optional<Process> other = pid.value_or(0) > 0 ? processOf(*pid) : std::nullopt;
        if (other)
            return failed(
                QStringLiteral("does not run, and its pid file %1 names process %2, which is %3")
                    .arg(QLatin1String(pidFilePath))
                    .arg(*pid)
                    .arg(QString::fromLocal8Bit(other->name)),
                QStringLiteral("remove the pid file: it makes every start end with \"Already running\"; then ") +
                    start);
        return failed(
            QStringLiteral("does not run") +
                (pid ? QStringLiteral("; a pid file of an earlier one is left, which is harmless") : QString()),
            start);
    }
    const Process &process = running.front();
    if (process.isStopped())
        return stoppedProcess(process);
    return ok(QStringLiteral("process %1 since %2").arg(process.pid).arg(process.started.toString(Qt::ISODate)));
}

Outcome checkKvsnmpPidFile(Subject &subject)
{
    const pid_t running = subject.kvsnmp.front().pid;
    const std::optional<pid_t> pid = pidInFile(QLatin1String(pidFilePath));
    if (!pid)
        return ok(QStringLiteral("none, as in the foreground"));
    if (*pid != running)
        return warning(
            QStringLiteral("%1 names process %2, not %3").arg(QLatin1String(pidFilePath)).arg(*pid).arg(running),
            QStringLiteral("commands that stop kvsnmp by its pid file miss it; restart kvsnmp"));
    return ok(QStringLiteral("names process %1").arg(running));
}

Outcome checkSystemBus(Subject &subject)
{
    if (!amplifierModels.contains(subject.model))
        return notApplicable(QStringLiteral("a %1 has no amplifier monitor").arg(subject.model));
    const QString address = busAddress(subject);
    const QByteArray path = busSocket(address);
    if (path.isEmpty())
        return skipped(address + QStringLiteral(" is not a local socket"));
    const QString hint =
        QStringLiteral("start the system bus (dbus-daemon --system), then restart kvsnmp, which only "
                       "connects at its start; until then states of channels, inputs, outputs and LETs "
                       "keep their starting values");
    // The start of the bus protocol, so that a hanging bus is detected within the limit.
    const QByteArray opening = QByteArray(1, '\0') + "AUTH EXTERNAL " + QByteArray::number(geteuid()).toHex() + "\r\n";
    const LocalExchange result = exchange(path, opening, 3, subject.timeoutMs);
    if (!result.connected)
        return failed(QStringLiteral("%1: %2").arg(QString::fromLocal8Bit(path),
                                                   QString::fromLocal8Bit(std::strerror(result.error))),
                      hint);
    if (result.reply.isEmpty())
        return failed(QString::fromLocal8Bit(path) + QStringLiteral(" is connected, but does not answer"), hint);
    return ok(QStringLiteral("answers at ") + QString::fromLocal8Bit(path));
}

Outcome checkAmplifierMonitor(Subject &subject)
{
    if (!amplifierModels.contains(subject.model))
        return notApplicable(QStringLiteral("a %1 has no amplifier monitor").arg(subject.model));
    const std::optional<bool> owned = hasOwner(busAddress(subject), monitorName, subject.timeoutMs);
    const QString name = QLatin1String(monitorName);
    if (!owned)
        return failed(QStringLiteral("the system bus does not report the owner of the name ") + name,
                      QStringLiteral("check the system bus's policy and log"));
    if (!*owned)
        return failed(QStringLiteral("nobody has the name %1 on the system bus").arg(name),
                      QStringLiteral("start the amplifier monitor; kvsnmp then receives its announcements"));
    return ok(name + QStringLiteral(" is on the system bus"));
}

Outcome checkGpioTree(Subject &subject)
{
    if (!gpioModels.contains(subject.model))
        return notApplicable(QStringLiteral("a %1 verifies no GPIO lines").arg(subject.model));
    const QString root = subject.variable("XR_GPIO_ROOT", QStringLiteral("/sys/class/gpio"));
    const GpioSurvey tree = surveyGpio(root, subject.model, hasExpanders(subject.modelText.constData()));
    const QString hint = QStringLiteral("statuses of the inputs, outputs and relays behind them stay unknown");
    if (!tree.exists)
        return failed(root + QStringLiteral(" is not there"),
                      QStringLiteral("the kernel needs its GPIO sysfs (CONFIG_GPIO_SYSFS); ") + hint);
    if (!tree.missingChips.isEmpty())
        return failed(QStringLiteral("no GPIO chip in %1 whose label ends in %2")
                          .arg(root, tree.missingChips.join(QStringLiteral(" or "))),
                      QStringLiteral("check the I2C expanders and their drivers; ") + hint);
    if (!tree.unreadable.isEmpty())
        return failed(QStringLiteral("%1 of %2 lines cannot be read: %3")
                          .arg(tree.unreadable.size())
                          .arg(tree.lines)
                          .arg(tree.unreadable.join(QStringLiteral(", "))),
                      QStringLiteral("kvsnmp exports them a few seconds after its start; after that, another "
                                     "driver holds them; ") +
                          hint);
    return ok(QStringLiteral("%1 lines can be read in %2").arg(tree.lines).arg(root));
}

Outcome checkCommands(Subject &subject)
{
    QStringList found;
    QStringList missing;
    for (const char *name : supervisionPrograms)
        (subject.program(name).isEmpty() ? missing : found).append(QLatin1String(name));
    if (missing.isEmpty())
        return ok(QStringLiteral("%1 are there").arg(found.join(QStringLiteral(", "))));
    return failed(QStringLiteral("not in kvsnmp's PATH: ") + missing.join(QStringLiteral(", ")),
                  QStringLiteral("install them (packages psmisc, procps, coreutils), or correct the PATH of kvsnmp: it "
                                 "stops, starts and probes snmpd with them"));
}
