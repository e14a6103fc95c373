// snmpd: its program, its configuration, its process.
#include "check/checks.h"
#include "check/command.h"
#include "check/subject.h"

#include "snmpdconf/snmpdhost.h"

#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>

#include <set>
#include <sys/socket.h>
#include <unistd.h>

namespace {

const QString confPath = QLatin1String(snmpdConfPath);
constexpr int restartMs = 3000; // snmpd reads a new file after about one second

struct Complaint {
    int line;
    QString text;
};

/// snmpd's complaints about its file, by line.
QList<Complaint> complaintsIn(const QByteArray &output)
{
    static const QRegularExpression pattern(
        QStringLiteral("^%1: line (\\d+): (.*)$").arg(QRegularExpression::escape(confPath)));
    QList<Complaint> complaints;
    for (const QByteArray &line : output.split('\n')) {
        const QRegularExpressionMatch match = pattern.match(QString::fromLocal8Bit(line));
        if (match.hasMatch())
            complaints.append({match.captured(1).toInt(), match.captured(2)});
    }
    return complaints;
}

bool hasIpv6()
{
    const int descriptor = ::socket(AF_INET6, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (descriptor >= 0)
        ::close(descriptor);
    return descriptor >= 0;
}

/// snmpd ends at its start if it cannot listen at an address.
QString refusedAddress(const SnmpdConf &conf)
{
    for (const ListenAddress &address : conf.listenAddresses()) {
        if (!address.port)
            return QStringLiteral("agentAddress %1 has no port of 1 to 65535").arg(QString::fromLatin1(address.text));
        if (address.transport.contains('6') && !hasIpv6())
            return QStringLiteral("agentAddress %1, but this kernel has no IPv6")
                .arg(QString::fromLatin1(address.text));
    }
    return {};
}

/// Whether a UDP port is bound, from the kernel's list.
bool isUdpPortTaken(int port)
{
    const QByteArray wanted = ':' + QByteArray::number(port, 16).toUpper().rightJustified(4, '0');
    for (const char *list : {"/proc/net/udp", "/proc/net/udp6"}) {
        QFile file(QString::fromLatin1(list));
        if (!file.open(QIODevice::ReadOnly))
            continue;
        for (const QByteArray &line : file.readAll().split('\n'))
            if (line.simplified().split(' ').value(1).endsWith(wanted))
                return true;
    }
    return false;
}

/// First words of the lines that only one of the texts has.
std::set<QByteArray> directivesThatDiffer(const QByteArray &a, const QByteArray &b)
{
    const QList<QByteArray> linesA = a.split('\n');
    const QList<QByteArray> linesB = b.split('\n');
    std::set<QByteArray> directives;
    for (const QByteArray &line : linesA)
        if (!linesB.contains(line))
            directives.insert(line.left(line.indexOf(' ')));
    for (const QByteArray &line : linesB)
        if (!linesA.contains(line))
            directives.insert(line.left(line.indexOf(' ')));
    return directives;
}

QString joined(const std::set<QByteArray> &words)
{
    QStringList list;
    for (const QByteArray &word : words)
        list.append(QString::fromUtf8(word));
    return list.join(QStringLiteral(", "));
}

Outcome noSnmpd(const Subject &subject)
{
    const QString hint = QStringLiteral("kvsnmp notices within ten minutes and starts it; at once: ") + restartHint();
    for (const ListenAddress &address : subject.conf.listenAddresses())
        if (address.port && address.transport.startsWith("udp") && isUdpPortTaken(*address.port))
            return failed(QStringLiteral("does not run, and another program has its UDP port %1").arg(*address.port),
                          QStringLiteral("find it (ss -ulpn) and end it, or change snmp_port in the settings; ") +
                              hint);
    if (pidInFile(QLatin1String(snmpdPidPath)))
        return failed(QStringLiteral("does not run; it has left its pid file behind: killed, or crashed"), hint);
    return failed(QStringLiteral("does not run"), hint);
}

} // namespace

Outcome checkSnmpdProgram(Subject &subject)
{
    const QString path = subject.program("snmpd");
    if (path.isEmpty())
        return failed(QStringLiteral("snmpd is not in kvsnmp's PATH, %1")
                          .arg(subject.variable("PATH", QStringLiteral("which is empty"))),
                      QStringLiteral("install snmpd, or correct the PATH of kvsnmp (usually with /usr/sbin)"));
    return ok(path);
}

Outcome checkSnmpdConf(Subject &subject)
{
    QFile file(confPath);
    if (!file.exists())
        return failed(confPath + QStringLiteral(" is not there"),
                      QStringLiteral("kvsnmp writes it as soon as the data service has delivered the SNMP settings; "
                                     "restart kvsnmp"));
    if (!file.open(QIODevice::ReadOnly))
        return failed(confPath + QStringLiteral(" cannot be read: ") + file.errorString(),
                      QStringLiteral("check the file and its file system"));
    subject.confText = file.readAll();
    subject.confTime = QFileInfo(file).lastModified();
    subject.conf = SnmpdConf(subject.confText);
    if (subject.conf.isEmpty())
        return failed(confPath + QStringLiteral(" has no directive"),
                      QStringLiteral("kvsnmp leaves it empty unless access is \"Read\" or \"Disabled\"; if it is, "
                                     "check the space on the disk and restart kvsnmp"));
    if (!subject.conf.isAgentxMaster())
        return failed(confPath + QStringLiteral(" has no line \"master agentx\": snmpd accepts no sub-agent"),
                      QStringLiteral("add that line to a custom file; the file that kvsnmp writes has it: "
                                     "restart kvsnmp"));
    return ok(QStringLiteral("%1 bytes, master agentx").arg(subject.confText.size()));
}

Outcome checkSnmpdConfSettings(Subject &subject)
{
    if (subject.service.customConfig.value_or(false))
        return notApplicable(QStringLiteral("snmpd.conf is custom"));
    const QByteArray wanted = snmpdConfText(subject.service.settings).text;
    if (subject.confText == wanted)
        return ok(QStringLiteral("as the settings give it"));
    const std::set<QByteArray> directives = directivesThatDiffer(subject.confText, wanted);
    if (directives == std::set<QByteArray>{"com2sec6"})
        return warning(QStringLiteral("differs from the settings in com2sec6 alone"),
                       QStringLiteral("a change of only nms_ipv6 is not written until the next change of "
                                      "another setting"));
    return failed(QStringLiteral("differs from the settings in: %1")
                      .arg(directives.empty() ? QStringLiteral("the order of its lines") : joined(directives)),
                  QStringLiteral("changed by hand? Change any SNMP setting or restart kvsnmp, which rewrites the "
                                 "file; if it still differs, check for a read-only disk and read journalctl -t "
                                 "kv-snmp; for a custom file set custom_config to true"));
}

Outcome checkSnmpdConfAccepted(Subject &subject)
{
    const QString refused = refusedAddress(subject.conf);
    if (!refused.isEmpty())
        return failed(QStringLiteral("snmpd ends at its start: ") + refused,
                      QStringLiteral("correct snmp_port in the settings or the custom file; without IPv6 in the kernel "
                                     "use custom_config with a file that names only udp"));

    // -H reads the file, complains, prints the known directives and ends. It opens no port and serves nothing; with a
    // state folder that cannot be created, it writes nothing.
    QProcessEnvironment environment = subject.environment;
    environment.insert(QStringLiteral("MIBS"), QString());
    environment.insert(QStringLiteral("SNMP_PERSISTENT_DIR"), QStringLiteral("/proc/kvsnmp-check"));
    const CommandResult result =
        runCommand(subject.program("snmpd"),
                   {QStringLiteral("-H"), QStringLiteral("-C"), QStringLiteral("-c"), confPath, QStringLiteral("-Le")},
                   environment, subject.timeoutMs);
    const QByteArray output = result.errors + result.output;
    if (!output.contains("directives understood"))
        return skipped(result.finished
                           ? QStringLiteral("this snmpd cannot check it (snmpd -H)")
                           : QStringLiteral("snmpd -H took longer than %1 s").arg(subject.timeoutMs / 1000.0));
    const QList<Complaint> complaints = complaintsIn(output);
    if (complaints.isEmpty())
        return ok(QStringLiteral("snmpd has no complaint"));
    const Complaint &first = complaints.front();
    const QByteArray line = subject.confText.split('\n').value(first.line - 1);
    const QString text =
        QStringLiteral("snmpd refuses line %1, \"%2\": %3%4")
            .arg(first.line)
            .arg(QString::fromUtf8(line), first.text,
                 complaints.size() > 1 ? QStringLiteral(" (and %1 more)").arg(complaints.size() - 1) : QString());
    const QString hint =
        QStringLiteral("snmpd -H -C -c %1 -Le shows all its complaints; correct the setting in the line, "
                       "or the custom file")
            .arg(confPath);
    // The line of an unset IPv6 manager: the rest of the file is valid.
    if (complaints.size() == 1 && line.startsWith("com2sec6"))
        return warning(text, hint);
    return failed(text, hint);
}

Outcome checkSnmpdProcess(Subject &subject)
{
    subject.snmpd = processesNamed("snmpd");
    const std::vector<Process> &running = subject.snmpd;
    if (running.empty())
        return noSnmpd(subject);
    if (running.size() > 1)
        return failedByItself(QStringLiteral("%1 of them run: %2").arg(running.size()).arg(pidsOf(running)),
                              QStringLiteral("only one has the port and the AgentX socket; end the one that kvsnmp has "
                                             "not started and prevent its service from starting again (systemctl mask "
                                             "snmpd)"));
    const Process &process = running.front();
    if (process.isStopped())
        return stoppedProcess(process);
    if (subject.confTime.isValid() && process.started.addMSecs(restartMs) < subject.confTime &&
        subject.confTime.addMSecs(restartMs) < QDateTime::currentDateTime())
        return warning(QStringLiteral("process %1 is older than snmpd.conf").arg(process.pid),
                       QStringLiteral("it still uses the old file; %1, and kvsnmp restarts it").arg(restartHint()));
    return ok(QStringLiteral("process %1 since %2").arg(process.pid).arg(process.started.toString(Qt::ISODate)));
}

Outcome checkSnmpdPidFile(Subject &subject)
{
    const pid_t running = subject.snmpd.front().pid;
    const std::optional<pid_t> pid = pidInFile(QLatin1String(snmpdPidPath));
    if (!pid)
        return warning(QStringLiteral("none: kvsnmp has not started this snmpd"),
                       QStringLiteral("prevent the system's snmpd service from starting (systemctl mask snmpd)"));
    if (*pid == running)
        return ok(QStringLiteral("names process %1").arg(running));
    return failed(QStringLiteral("%1 names process %2, not %3").arg(QLatin1String(snmpdPidPath)).arg(*pid).arg(running),
                  QStringLiteral("remove it: at the next restart kvsnmp kills the process that it names"));
}

Outcome checkHealthProbe(Subject &subject)
{
    const CommandResult result =
        runCommand(subject.program(psProgram), memoryProbe().arguments, subject.environment, subject.timeoutMs);
    const QByteArray text = result.finished ? result.output.simplified() : QByteArray();
    if (text.isEmpty())
        return warning(
            QStringLiteral("ps does not report snmpd's memory: kvsnmp restarts snmpd every ten minutes"),
            QStringLiteral("kvsnmp's PATH has to begin with the folder of a ps that accepts \"-C snmpd\" and \"-o "
                           "rss\" as single words; /usr/libexec/kvsnmp holds one"));
    const int memoryKb = text.toInt();
    if (memoryKb >= snmpdMemoryLimitKb)
        return warning(QStringLiteral("snmpd uses %1 kB: kvsnmp restarts it every ten minutes").arg(memoryKb),
                       QStringLiteral("%1 kB is the limit; start kvsnmp with an empty MIBS in its environment, so that "
                                      "snmpd loads no MIB modules")
                           .arg(snmpdMemoryLimitKb));
    return ok(QStringLiteral("%1 kB").arg(memoryKb));
}
