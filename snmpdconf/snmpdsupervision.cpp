// Keeps snmpd running with the current snmpd.conf: restarts after a change, a clean start, a health probe.
#include "snmpdconf/snmpdconfhandler.h"

#include "agent/kvagent.h"

#include <QDebug>
#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <sys/stat.h>
#include <syslog.h>

namespace {

constexpr int startLimitMs = 2000; // a snmpd without a pid file by then has failed
constexpr int probeTimeoutMs = 30000;
constexpr qint64 maxPidLine = 256; // including a terminator

/// The answer of `ps` about snmpd: its resident memory in kB as text, empty without snmpd. Collapses white space and
/// drops everything after a NUL.
QString probeText(QByteArray output)
{
    output = output.simplified();
    const int nul = output.indexOf('\0');
    return QString::fromLatin1(nul < 0 ? output : output.left(nul));
}

/// Device and inode of the folder at a path.
std::optional<std::pair<dev_t, ino_t>> folderAt(const QString &path)
{
    struct stat status {};
    if (stat(QFile::encodeName(path).constData(), &status) != 0)
        return {};
    return std::pair{status.st_dev, status.st_ino};
}

} // namespace

/// A watch follows the folder, not its name. If another folder now has the name, watches that one and returns true. The
/// parent's watch reports a replaced folder at once; a mount, or a change behind a symbolic link, waits for the next
/// call.
bool SnmpdConfHandler::watchConfigFolder()
{
    const QString parent = QFileInfo(QDir::cleanPath(m_host.configFolder)).path();
    if (m_parentWatcher.directories().isEmpty() && QFileInfo::exists(parent))
        m_parentWatcher.addPath(parent);

    // Looked up before it is watched, so that a replacement in between is detected at the next call.
    const auto folder = folderAt(m_host.configFolder);
    if (m_folderWatcher.directories().isEmpty())
        m_watchedFolder.reset(); // it was deleted
    if (folder == m_watchedFolder)
        return false;
    if (m_watchedFolder)
        m_folderWatcher.removePath(m_host.configFolder);
    m_watchedFolder.reset();
    if (folder && m_folderWatcher.addPath(m_host.configFolder))
        m_watchedFolder = folder;
    return m_watchedFolder.has_value();
}

void SnmpdConfHandler::followConfigFolder()
{
    if (watchConfigFolder())
        m_restartTimer.start();
}

void SnmpdConfHandler::onRestartSnmpdTimeout()
{
    if (!m_configSettled || !m_customFlagKnown) {
        m_restartTimer.start();
        return;
    }
    watchConfigFolder();
    if (!QFile::exists(m_host.configFile)) {
        qDebug().noquote() << "SnmpdConfHandler"
                           << "onRestartSnmpdTimeout"
                           << "Cancel restart snmp, no config file";
        return;
    }
    if (isSnmpdStarting()) {
        m_restartTimer.start();
        return;
    }
    qDebug().noquote() << "SnmpdConfHandler"
                       << "onRestartSnmpdTimeout"
                       << "Restarting snmpd";
    m_startLimit = {};
    m_host.run({QLatin1String(killallProgram), {QStringLiteral("snmpd")}});
    setMasterEnding(true); // it still accepts traps, but discards them
    // Also cancels the pending start of an earlier stop.
    m_startTimer.start();
    Q_EMIT signalSnmpdConfFinish(); // does not wait for the new snmpd
}

/// snmpd forks twice on its way to the background, and killall can miss it then. It would keep running until the next
/// start finds its pid file and kills it.
bool SnmpdConfHandler::isSnmpdStarting() const
{
    return !m_startLimit.hasExpired() && !QFileInfo::exists(m_host.pidFile);
}

void SnmpdConfHandler::doStartSnmpd()
{
    if (QFileInfo(m_host.pidFile).isFile())
        killStaleSnmpd();
    m_host.writeSystemLog(LOG_INFO, m_useCustomConfigFile ? "Starting snmpd (custom snmpd.conf)"
                                                          : "Starting snmpd (snmpd.conf from TAL)");
    m_host.startDetached({QStringLiteral("snmpd"), {QStringLiteral("-p"), m_host.pidFile}});
    m_startLimit.setRemainingTime(startLimitMs);
    setMasterEnding(false);
}

/// A snmpd that ended normally has removed its pid file by now.
void SnmpdConfHandler::killStaleSnmpd() const
{
    m_host.writeSystemLog(LOG_ERR, "Snmpd was not properly closed last time");
    QFile file(m_host.pidFile);
    if (file.open(QIODevice::ReadOnly | QIODevice::Text)) {
        QByteArray line = file.readLine(maxPidLine);
        file.close();
        if (line.endsWith('\n'))
            line.chop(1);
        m_host.run({QLatin1String(killProgram), {QStringLiteral("-9"), QString::fromLocal8Bit(line)}});
    }
    m_host.run({QLatin1String(rmProgram), {m_host.pidFile}});
}

void SnmpdConfHandler::watchdogSnmpd()
{
    followConfigFolder();
    const QString text = probeText(m_host.outputOf(memoryProbe(), probeTimeoutMs));

    if (text.isEmpty()) {
        qDebug().noquote() << "SnmpdConfHandler"
                           << "watchdogSnmpd"
                           << "watchdog restarting snmpd, snmpd not running";
        m_host.writeSystemLog(LOG_ERR, "Snmpd health check: snmpd is not running");
        m_restartTimer.start();
        return;
    }
    const int memoryKb = text.toInt(); // 0 for a text that is not one number, for example with two snmpd
    if (memoryKb >= snmpdMemoryLimitKb) {
        qDebug().noquote() << "SnmpdConfHandler"
                           << "watchdogSnmpd"
                           << QLatin1String("watchdog restarting snmpd, memory usage too high: ") + text;
        m_host.writeSystemLog(LOG_ERR,
                              "Snmpd health check: memory usage too high: " + QByteArray::number(memoryKb) + " kB");
        m_restartTimer.start();
    }
}
