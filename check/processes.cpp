// Processes and pid files, from /proc and /run.
#include "check/processes.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QStringList>

#include <algorithm>
#include <unistd.h>

namespace {
/// Start of the system in seconds since the epoch; 0 if unknown.
qint64 bootTime(const QString &procFolder)
{
    for (const QByteArray &line : contentsOf(procFolder + QStringLiteral("/stat")).split('\n'))
        if (line.startsWith("btime "))
            return line.mid(6).toLongLong();
    return 0;
}

QDateTime startTime(qint64 ticks, const QString &procFolder)
{
    const qint64 sinceBootMs = ticks * 1000 / sysconf(_SC_CLK_TCK);
    return QDateTime::fromMSecsSinceEpoch(bootTime(procFolder) * 1000 + sinceBootMs);
}

} // namespace

QByteArray contentsOf(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

std::optional<Process> processOf(pid_t pid, const QString &procFolder)
{
    // "12 (snmpd) S ...": the name may contain blanks and brackets, so it ends at the last bracket.
    const QByteArray stat = contentsOf(QStringLiteral("%1/%2/stat").arg(procFolder).arg(pid));
    const int open = stat.indexOf('(');
    const int close = stat.lastIndexOf(')');
    if (open < 0 || close < open)
        return std::nullopt;
    const QList<QByteArray> fields = stat.mid(close + 2).split(' ');
    constexpr int startField = 19; // the 22nd field, counted from the state, which is the third
    if (fields.size() <= startField || fields[0].isEmpty())
        return std::nullopt;
    const char state = fields[0][0];
    if (state == 'Z' || state == 'X')
        return std::nullopt;
    return Process{pid, fields[1].toInt(), stat.mid(open + 1, close - open - 1), state,
                   startTime(fields[startField].toLongLong(), procFolder)};
}

std::vector<Process> processesNamed(const QByteArray &name, const QString &procFolder)
{
    std::vector<Process> found;
    for (const QString &entry : QDir(procFolder).entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
        bool isNumber = false;
        const pid_t pid = entry.toInt(&isNumber);
        if (!isNumber)
            continue;
        const std::optional<Process> process = processOf(pid, procFolder);
        if (process && process->name == name)
            found.push_back(*process);
    }
    const std::vector<Process> all = found;
    found.erase(std::remove_if(found.begin(), found.end(),
                               [&all](const Process &process) {
                                   return std::any_of(all.begin(), all.end(), [&process](const Process &other) {
                                       return other.pid == process.parent;
                                   });
                               }),
                found.end());
    std::sort(found.begin(), found.end(), [](const Process &a, const Process &b) { return a.pid < b.pid; });
    return found;
}

QMap<QByteArray, QByteArray> environmentOf(pid_t pid, const QString &procFolder)
{
    QMap<QByteArray, QByteArray> variables;
    for (const QByteArray &entry : contentsOf(QStringLiteral("%1/%2/environ").arg(procFolder).arg(pid)).split('\0')) {
        const int equals = entry.indexOf('=');
        if (equals > 0)
            variables.insert(entry.left(equals), entry.mid(equals + 1));
    }
    return variables;
}

std::optional<pid_t> pidInFile(const QString &path)
{
    if (!QFileInfo::exists(path))
        return std::nullopt;
    const QByteArray line = contentsOf(path).split('\n').value(0).trimmed();
    return line.toInt(); // 0 if not a number
}

QString pidsOf(const std::vector<Process> &processes)
{
    QStringList pids;
    for (const Process &process : processes)
        pids.append(QString::number(process.pid));
    return pids.join(QStringLiteral(" and "));
}
