// The client of the device's data service: subscribes, receives notifications, keeps the table records.
#pragma once

#include "device/tablerecords.h"
#include "tal/notification.h"
#include "tal/snmpsettings.h"

#include <QMap>
#include <QObject>
#include <QString>
#include <QStringList>

#include <cstddef>
#include <cstdint>

class DbusInterface;

class TalHandler : public QObject {
    Q_OBJECT

public:
    /// `modelDescription` is owned by the application object and must outlive the handler.
    TalHandler(QObject *parent, uint modelNumber, const char *modelDescription);
    ~TalHandler() override;

    /// References of the subscriptions to the settings, in the order of their requests.
    static QStringList settingsGroups();

    /// The records that the agent serves; owned by the handler, valid as long as it lives.
    TableRecords &tableRecords() { return m_records; }
    const TableRecords &tableRecords() const { return m_records; }

    /// Sends this program's name and version to the data service. Part of the class's interface; nothing calls it.
    void publishSoftwareVersion();

Q_SIGNALS:
    void signalSnmpdConfMib2Settings(SnmpMib2Settings snmpMib2Settings);
    void signalSnmpdConfAccessSettings(SnmpAccessSettings snmpAccessSettings);
    void signalSnmpdConfTrapSettings(SnmpTrapSettings snmpTrapSettings);
    void signalSnmpdConfVersionSettings(SnmpVersionSettings snmpVersionSettings);
    void signalSnmpdConfUseCustomConfFile(bool useCustomConfigFile);
    void signalSetGpioType(uint gpioId, uint gpioType);
    void signalReportFault(QString reporter, QString repRef, QString msgData, QString infoText, QString timeStamp,
                           QString level, bool active);
    void signalUpdateEnabledSnmpTraps(QMap<QString, bool> &enabledTraps);

public Q_SLOTS:
    /// Subscribes to the SNMP settings.
    void slotTalReady();
    /// Routes one notification to the parser that owns its reference; an unknown reference is dropped.
    void talHandlerNotifySlot(const QString refStr, const QString op, const QString rPath, const QString sPath,
                              const QString data);
    /// Subscribes to the data paths of this model.
    void slotStartSubscribe();
    void slotGpoUpdate(uint id, QString state, QString systemState);
    void slotGpiUpdate(uint id, QString state);
    void slotAmpChannelStatusUpdate(uint channel, uint status);
    void slotSetControlInputStatus(uint id, uint status);
    void slotSetControlOutputStatus(uint id, uint status);
    void slotLetPrecenseUpdate(uint channel, uint let, uint presence);
    void slotSetRelayStatus(uint relayId, uint status);

private:
    /// The last value of each kind of parser. A row may get it again: see keepScratch in keystep.h.
    struct Scratch {
        std::uint32_t voltage;
        std::uint32_t powerLive;
        std::uint32_t gpioType;
        std::uint32_t controlInputMonitored;
        std::uint32_t powerMonitored;
        std::uint32_t relayIdleMode;
        std::uint32_t relayDelay;
        std::uint32_t pilotTone;
        std::uint32_t micStatus;
        std::uint32_t lineInMonitoring;
        std::uint32_t ethMonitoring;
    };
    struct Tables; // the routes, in subscriptions.cpp

    void setStartingValues();
    void fillEnabledTraps();

    // measurements.cpp
    void parseVoltage(const Notification &n);
    void parseTemp(const Notification &n);
    void parseFan(const Notification &n);
    void parseClassDStatus(const Notification &n);
    void parsePowerLive(const Notification &n);
    void deriveAmpChannelStatus(std::size_t channel);

    // configuration.cpp
    void parseRelayDelay(const Notification &n);
    void parseRelayIdleMode(const Notification &n);
    void parseGpioType(const Notification &n);
    void parseControlInputMonitored(const Notification &n);
    void parsePowerMonitored(const Notification &n);

    // lines.cpp; channels and LETs are counted from 0
    void parseLineChannelState(const Notification &n);
    void parseAmpEnable(const Notification &n);
    void parseLetEnable(const Notification &n);
    void parseLetDescription(const Notification &n);
    void parseLetHwVersion(const Notification &n);
    void parseLetSwVersion(const Notification &n);
    void parseLetVoltage(const Notification &n);
    void parseLineInMonitoring(const Notification &n);
    void parseLineInStatus(const Notification &n);
    void parseEthMonitoring(const Notification &n);
    void deriveLetStatus(std::size_t channel, std::size_t let);

    // snmpsettings.cpp
    void parseMib2Settings(const Notification &n);
    void parseAccessSettings(const Notification &n);
    void parseTrapSettings(const Notification &n);
    void parseVersionSettings(const Notification &n);
    void parseCustomConfig(const Notification &n);
    void readEnabledTraps(const Notification &n);
    void readEnabledTrapList(const QString &xml);

    // systemmessages.cpp
    void parseSysMessages(const Notification &n);
    void reportActiveFault(const Notification &n);
    void reportEndedFault(const Notification &n);

    uint m_modelNumber;
    const char *m_modelDescription;
    TableRecords m_records{};
    std::uint32_t m_classDStatus = 0; ///< 0 until reported, 1 fault, 2 ok
    Scratch m_scratch{};
    SnmpMib2Settings m_mib2Settings;
    SnmpAccessSettings m_accessSettings;
    SnmpTrapSettings m_trapSettings;
    SnmpVersionSettings m_versionSettings;
    QMap<QString, bool> m_enabledTraps;       ///< every trap of the catalogue by name; never another
    DbusInterface *m_dbusInterface = nullptr; ///< child of this object
};
