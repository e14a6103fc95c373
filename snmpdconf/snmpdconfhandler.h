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
    /// `talHandler` is the source of the settings and outlives this object. Paths and commands of `host` are the
    /// device's own unless a test puts others in their place.
    SnmpdConfHandler(QObject *parent, TalHandler *talHandler, SnmpdHost host = deviceHost());
    /// snmpd goes on running.
    ~SnmpdConfHandler() override;

    /// True while the device has a snmpd.conf of its own, made by hand.
    bool useCustomConfigFile() const { return m_useCustomConfigFile; }
    /// As received from the data service.
    QString sysName() const { return m_settings.mib2.sysName; }

Q_SIGNALS:
    /// snmpd is to be considered configured; it may still be starting.
    void signalSnmpdConfFinish();

public Q_SLOTS:
    void slotSnmpdConfMib2Settings(SnmpMib2Settings settings);
    void slotSnmpdConfAccessSettings(SnmpAccessSettings settings);
    void slotSnmpdConfTrapSettings(SnmpTrapSettings settings);
    void slotSnmpdConfVersionSettings(SnmpVersionSettings settings);
    void slotSnmpdConfUseCustomConfFile(bool useCustomConfigFile);
    /// Writes the file, when no setting has changed for a while.
    void slotSnmpdConfSysSettingUpdate();

    /// Stops snmpd and has it started again half a second later.
    void onRestartSnmpdTimeout();
    void doStartSnmpd();
    /// Restarts snmpd when it is gone or too big.
    void watchdogSnmpd();
    /// Restarts snmpd when another folder has taken the place of the one with snmpd.conf, and watches that one.
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
    QDeadlineTimer m_startLimit; ///< for the pid file of the snmpd that was started last and not stopped since
    QFileSystemWatcher m_folderWatcher{this};
    QFileSystemWatcher m_parentWatcher{this}; ///< a folder that is moved away is an event of its parent alone
    std::optional<std::pair<dev_t, ino_t>> m_watchedFolder; ///< device and inode
    SnmpdConfSettings m_settings;                           ///< access, names, receivers, versions
    bool m_useCustomConfigFile = false;
    bool m_configSettled = false;   ///< the settings have been applied once
    bool m_customFlagKnown = false; ///< the data service has told whether there is a custom file
    SnmpdHost m_host;
};
