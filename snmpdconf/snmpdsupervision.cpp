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

constexpr int startLimitMs = 2000; // a snmpd without a pid file after that has failed
constexpr int probeTimeoutMs = 30000;
constexpr qint64 maxPidLine = 256; // one of them for a terminator

/// What `ps` tells about snmpd: its resident memory in kB as text, empty when there is none. White space is
/// collapsed; what follows a NUL is dropped.
QString probeText(QByteArray output)
{
    output = output.simplified();
    const int nul = output.indexOf('\0');
    return QString::fromLatin1(nul < 0 ? output : output.left(nul));
}

/// Device and inode of the folder that stands at a path.
std::optional<std::pair<dev_t, ino_t>> folderAt(const QString &path)
{
    struct stat status {};
    if (stat(QFile::encodeName(path).constData(), &status) != 0)
        return {};
    return std::pair{status.st_dev, status.st_ino};
}

} // namespace

/// A watch follows the folder, not its name. True when the folder at the name is not the one that was watched before
/// and is watched now. The parent reports when the folder is replaced; only a mount, or a change behind a symbolic
/// link, waits for the next call.
bool SnmpdConfHandler::watchConfigFolder()
{
    const QString parent = QFileInfo(QDir::cleanPath(m_host.configFolder)).path();
    if (m_parentWatcher.directories().isEmpty() && QFileInfo::exists(parent))
        m_parentWatcher.addPath(parent);

    // Looked up before it is watched: replaced in between it is taken for another once more, and not missed.
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
    m_host.run({QStringLiteral("killall"), {QStringLiteral("snmpd")}});
    setMasterEnding(true); // it still takes traps for a moment, but sends none of them on
    // Also cancels the start that an earlier stop has left pending.
    m_startTimer.start();
    Q_EMIT signalSnmpdConfFinish(); // does not wait for the new snmpd
}

/// On its way to the background snmpd forks twice, and killall can miss it. It would then run on until the next start
/// found its pid file and killed it.
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

/// A snmpd that was stopped properly has removed its pid file by now.
void SnmpdConfHandler::killStaleSnmpd() const
{
    m_host.writeSystemLog(LOG_ERR, "Snmpd was not properly closed last time");
    QFile file(m_host.pidFile);
    if (file.open(QIODevice::ReadOnly | QIODevice::Text)) {
        QByteArray line = file.readLine(maxPidLine);
        file.close();
        if (line.endsWith('\n'))
            line.chop(1);
        m_host.run({QStringLiteral("kill"), {QStringLiteral("-9"), QString::fromLocal8Bit(line)}});
    }
    m_host.run({QStringLiteral("rm"), {m_host.pidFile}});
}

void SnmpdConfHandler::watchdogSnmpd()
{
    followConfigFolder();
    // The options are single words with a blank in them, as the device's ps takes them.
    const QString text = probeText(m_host.outputOf(
        {QStringLiteral("ps"), {QStringLiteral("--noheaders"), QStringLiteral("-C snmpd"), QStringLiteral("-o rss")}},
        probeTimeoutMs));

    if (text.isEmpty()) {
        qDebug().noquote() << "SnmpdConfHandler"
                           << "watchdogSnmpd"
                           << "watchdog restarting snmpd, snmpd not running";
        m_host.writeSystemLog(LOG_ERR, "Snmpd health check: snmpd is not running");
        m_restartTimer.start();
        return;
    }
    const int memoryKb = text.toInt(); // 0 for a text that is not one number, as when two snmpd answer
    if (memoryKb >= snmpdMemoryLimitKb) {
        qDebug().noquote() << "SnmpdConfHandler"
                           << "watchdogSnmpd"
                           << QLatin1String("watchdog restarting snmpd, memory usage too high: ") + text;
        m_host.writeSystemLog(LOG_ERR,
                              "Snmpd health check: memory usage too high: " + QByteArray::number(memoryKb) + " kB");
        m_restartTimer.start();
    }
}
