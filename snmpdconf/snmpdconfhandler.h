// Turns the SNMP settings into snmpd.conf and keeps snmpd running with it.
#pragma once

#include "snmpdconf/snmpdconftext.h"
#include "snmpdconf/snmpdhost.h"
#include "tal/snmpsettings.h"

#include <QDeadlineTimer>
#include <QFileSystemWatcher>
#include <QObject>
#include <QString>
#include <QTimer>

#include <optional>
#include <utility>

#include <sys/types.h>

class TalHandler;

class SnmpdConfHandler : public QObject {
    Q_OBJECT

public:
    /// `talHandler` is the source of the settings and has to outlive this object. `host` has the device's paths and
    /// commands, except in tests.
    SnmpdConfHandler(QObject *parent, TalHandler *talHandler, SnmpdHost host = deviceHost());
    /// snmpd continues to run.
    ~SnmpdConfHandler() override;

    /// True while the device uses a custom snmpd.conf.
    bool useCustomConfigFile() const { return m_useCustomConfigFile; }
    /// As received from the data service.
    QString sysName() const { return m_settings.mib2.sysName; }

Q_SIGNALS:
    /// snmpd is configured; it may still be starting.
    void signalSnmpdConfFinish();

public Q_SLOTS:
    void slotSnmpdConfMib2Settings(SnmpMib2Settings settings);
    void slotSnmpdConfAccessSettings(SnmpAccessSettings settings);
    void slotSnmpdConfTrapSettings(SnmpTrapSettings settings);
    void slotSnmpdConfVersionSettings(SnmpVersionSettings settings);
    void slotSnmpdConfUseCustomConfFile(bool useCustomConfigFile);
    /// Writes the file when the settings have been quiet for a while.
    void slotSnmpdConfSysSettingUpdate();

    /// Stops snmpd and starts it again half a second later.
    void onRestartSnmpdTimeout();
    void doStartSnmpd();
    /// Restarts snmpd if it is not running or too large.
    void watchdogSnmpd();
    /// If another folder has replaced the one with snmpd.conf, watches the new one and restarts snmpd.
    void followConfigFolder();

private:
    void copySysNameToAgent() const;
    bool replaceConfigFile(const QByteArray &text);
    bool watchConfigFolder();
    bool isSnmpdStarting() const;
    void killStaleSnmpd() const;

    TalHandler *m_talHandler;
    QTimer m_settingsTimer{this};
    QTimer m_watchdogTimer{this};
    QTimer m_restartTimer{this}; ///< to the stop
    QTimer m_startTimer{this};   ///< from the last stop to the start
    QDeadlineTimer m_startLimit; ///< for the pid file of the last started snmpd, unless stopped since
    QFileSystemWatcher m_folderWatcher{this};
    QFileSystemWatcher m_parentWatcher{this};               ///< only the parent reports a folder that is moved away
    std::optional<std::pair<dev_t, ino_t>> m_watchedFolder; ///< device and inode
    SnmpdConfSettings m_settings;                           ///< access, names, receivers, versions
    bool m_useCustomConfigFile = false;
    bool m_configSettled = false;   ///< the settings have been applied at least once
    bool m_customFlagKnown = false; ///< the data service has reported whether there is a custom file
    SnmpdHost m_host;
};
