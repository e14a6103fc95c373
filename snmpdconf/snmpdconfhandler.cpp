// From the SNMP settings to snmpd.conf; snmpdsupervision.cpp handles a changed file.
#include "snmpdconf/snmpdconfhandler.h"

#include "agent/kvagent.h"
#include "app/trace/trace.h"
#include "snmpdconf/configfile.h"
#include "tal/talhandler.h"

#include <QDebug>
#include <QFile>

#include <utility>

#include <syslog.h>

namespace {

constexpr int settingsQuietMs = 300; // a burst of notifications causes one write
constexpr int restartDelayMs = 500;
constexpr int startDelayMs = 500; // gives snmpd time to end and to remove its pid file
constexpr int watchdogIntervalMs = 600000;

} // namespace

SnmpdConfHandler::SnmpdConfHandler(QObject *parent, TalHandler *talHandler, SnmpdHost host)
    : QObject(parent), m_talHandler(talHandler), m_host(std::move(host))
{
    Trace::logs(QStringLiteral("SnmpdConfHandler"), QStringLiteral("SnmpdConfHandler"),
                QStringLiteral("Creating Object"));
    openlog("kv-snmp", LOG_PID | LOG_CONS | LOG_NDELAY, LOG_DAEMON);

    connect(m_talHandler, SIGNAL(signalSnmpdConfMib2Settings(SnmpMib2Settings)), this,
            SLOT(slotSnmpdConfMib2Settings(SnmpMib2Settings)));
    connect(m_talHandler, SIGNAL(signalSnmpdConfAccessSettings(SnmpAccessSettings)), this,
            SLOT(slotSnmpdConfAccessSettings(SnmpAccessSettings)));
    connect(m_talHandler, SIGNAL(signalSnmpdConfTrapSettings(SnmpTrapSettings)), this,
            SLOT(slotSnmpdConfTrapSettings(SnmpTrapSettings)));
    connect(m_talHandler, SIGNAL(signalSnmpdConfVersionSettings(SnmpVersionSettings)), this,
            SLOT(slotSnmpdConfVersionSettings(SnmpVersionSettings)));
    connect(m_talHandler, SIGNAL(signalSnmpdConfUseCustomConfFile(bool)), this,
            SLOT(slotSnmpdConfUseCustomConfFile(bool)));

    m_settingsTimer.setSingleShot(true);
    m_settingsTimer.setInterval(settingsQuietMs);
    connect(&m_settingsTimer, SIGNAL(timeout()), this, SLOT(slotSnmpdConfSysSettingUpdate()));

    m_watchdogTimer.setInterval(watchdogIntervalMs);
    connect(&m_watchdogTimer, SIGNAL(timeout()), this, SLOT(watchdogSnmpd()));

    // Precise: a coarse timer could expire so late that it coincides with the other one.
    m_restartTimer.setSingleShot(true);
    m_restartTimer.setTimerType(Qt::PreciseTimer);
    m_restartTimer.setInterval(restartDelayMs);
    connect(&m_restartTimer, SIGNAL(timeout()), this, SLOT(onRestartSnmpdTimeout()));

    m_startTimer.setSingleShot(true);
    m_startTimer.setTimerType(Qt::PreciseTimer);
    m_startTimer.setInterval(startDelayMs);
    connect(&m_startTimer, SIGNAL(timeout()), this, SLOT(doStartSnmpd()));

    if (!watchConfigFolder())
        qDebug().noquote() << "SnmpdConfHandler"
                           << "Cannot watch" << m_host.configFolder;
    connect(&m_folderWatcher, SIGNAL(directoryChanged(QString)), &m_restartTimer, SLOT(start()));
    connect(&m_parentWatcher, SIGNAL(directoryChanged(QString)), this, SLOT(followConfigFolder()));

    m_restartTimer.start();
    m_watchdogTimer.start();
}

SnmpdConfHandler::~SnmpdConfHandler()
{
    m_settingsTimer.stop();
    m_watchdogTimer.stop();
    m_restartTimer.stop();
    closelog();
}

void SnmpdConfHandler::slotSnmpdConfMib2Settings(SnmpMib2Settings settings)
{
    SnmpMib2Settings &stored = m_settings.mib2;
    if (settings.sysContact != stored.sysContact || settings.sysLocation != stored.sysLocation) {
        // A name that changes together with these is not copied to the agent now: intended.
        stored = std::move(settings);
    } else if (settings.sysName != stored.sysName) {
        stored = std::move(settings);
        if (!m_useCustomConfigFile)
            copySysNameToAgent();
    } else {
        return;
    }
    m_settingsTimer.start();
}

void SnmpdConfHandler::slotSnmpdConfAccessSettings(SnmpAccessSettings settings)
{
    SnmpAccessSettings &stored = m_settings.access;
    // nmsIpv6 is not compared: intended. It is stored with the next change of another field.
    if (settings.access == stored.access && settings.community == stored.community && settings.nmsIp == stored.nmsIp &&
        settings.snmpPort == stored.snmpPort)
        return;
    stored = std::move(settings);
    m_settingsTimer.start();
}

void SnmpdConfHandler::slotSnmpdConfTrapSettings(SnmpTrapSettings settings)
{
    SnmpTrapSettings &stored = m_settings.trap;
    if (settings.informAddress == stored.informAddress && settings.trapAddress == stored.trapAddress)
        return;
    stored = std::move(settings);
    m_settingsTimer.start();
}

void SnmpdConfHandler::slotSnmpdConfVersionSettings(SnmpVersionSettings settings)
{
    SnmpVersionSettings &stored = m_settings.version;
    // version3 is not compared: intended, as nmsIpv6 above.
    if (settings.version1 == stored.version1 && settings.version2c == stored.version2c)
        return;
    stored = settings;
    m_settingsTimer.start();
}

void SnmpdConfHandler::slotSnmpdConfUseCustomConfFile(bool useCustomConfigFile)
{
    if (useCustomConfigFile == m_useCustomConfigFile) {
        m_customFlagKnown = true;
        return;
    }
    m_useCustomConfigFile = useCustomConfigFile;

    if (m_useCustomConfigFile) {
        qDebug().noquote() << "SnmpdConfHandler"
                           << "slotSnmpdConfUseCustomConfFile"
                           << "Device has custom snmpd.conf";
        setSystemName({});
        m_configSettled = true;
        m_customFlagKnown = true;
        return;
    }
    qDebug().noquote() << "SnmpdConfHandler"
                       << "slotSnmpdConfUseCustomConfFile"
                       << "Device uses our generated snmpd.conf";
    copySysNameToAgent();
    m_settingsTimer.start();
    m_customFlagKnown = true;
}

void SnmpdConfHandler::slotSnmpdConfSysSettingUpdate()
{
    m_configSettled = true;
    m_host.writeSystemLog(LOG_INFO, "Tal System Config settled");
    m_settingsTimer.stop();

    if (!m_customFlagKnown)
        return;
    followConfigFolder();
    if (m_useCustomConfigFile && QFile::exists(m_host.configFile)) {
        Q_EMIT signalSnmpdConfFinish();
        return;
    }

    const SnmpdConfText conf = snmpdConfText(m_settings);
    if (!replaceConfigFile(conf.text))
        return;
    for (const QString &setting : conf.cutSettings)
        m_host.writeSystemLog(LOG_WARNING, "Setting " + setting.toLatin1() + " cut at its first line end or NUL");
}

/// Updates the agent's copy for the traps. Does nothing without an agent; the application copies the name later.
void SnmpdConfHandler::copySysNameToAgent() const
{
    const QByteArray name = m_settings.mib2.sysName.toLatin1();
    setSystemName({name.constData(), static_cast<std::size_t>(name.size())});
}

bool SnmpdConfHandler::replaceConfigFile(const QByteArray &text)
{
    using Outcome = ConfigFileResult::Outcome;
    const auto [outcome, complaint] = writeConfigFile(m_host.configFile, text);
    const bool isWritten = outcome == Outcome::Anew || outcome == Outcome::InPlace;
    if (isWritten || outcome == Outcome::Failed)
        qDebug().noquote() << "SnmpdConfHandler"
                           << "slotSnmpdConfSysSettingUpdate"
                           << "Generating new snmpd.conf based on TAL values";
    if (!complaint.isEmpty())
        m_host.writeSystemLog(isWritten ? LOG_WARNING : LOG_ERR, complaint);
    if (outcome == Outcome::InPlace)
        m_restartTimer.start(); // no change of the folder will start it
    return isWritten;
}
