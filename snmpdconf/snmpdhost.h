// The outside of the snmpd supervision: files, commands, the system log.
#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <functional>

inline constexpr char snmpdConfPath[] = "/etc/snmp/snmpd.conf";
inline constexpr char snmpdPidPath[] = "/var/run/snmpd.pid";
/// The programs that the supervision runs beside snmpd.
inline constexpr char killallProgram[] = "killall";
inline constexpr char killProgram[] = "kill";
inline constexpr char rmProgram[] = "rm";
inline constexpr char psProgram[] = "ps";
inline constexpr const char *supervisionPrograms[] = {killallProgram, killProgram, rmProgram, psProgram};
inline constexpr int snmpdMemoryLimitKb = 10240; ///< snmpd is restarted at this size

/// A command line.
struct Command {
    QString program;
    QStringList arguments;
};

inline bool operator==(const Command &a, const Command &b)
{
    return a.program == b.program && a.arguments == b.arguments;
}

/// The command that prints the resident memory of each snmpd in kB. Its options are single words with a blank inside,
/// as the device's ps expects.
inline Command memoryProbe()
{
    return {QLatin1String(psProgram),
            {QStringLiteral("--noheaders"), QStringLiteral("-C snmpd"), QStringLiteral("-o rss")}};
}

struct SnmpdHost {
    QString configFile;
    QString configFolder;
    QString pidFile;
    std::function<void(const Command &)> run;                                 ///< returns when the command has exited
    std::function<void(const Command &)> startDetached;                       ///< a command that keeps running
    std::function<QByteArray(const Command &, int timeoutMs)> outputOf;       ///< empty if it has not finished by then
    std::function<void(int priority, const QByteArray &text)> writeSystemLog; ///< priority as for syslog()
};

/// The folder of snmpdConfPath, without a slash at its end.
QString snmpdConfFolder();

/// The device's paths, child processes and syslog().
SnmpdHost deviceHost();
