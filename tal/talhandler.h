// The client of the device's data service: subscribes, receives notifications, keeps the table records.
#pragma once

#include "device/tablerecords.h"
#include "tal/notification.h"
#include "tal/snmpsettings.h"

#include <QMap>
#include <QObject>
#include <QString>

class DbusInterface;

class TalHandler : public QObject {
    Q_OBJECT

public:
    /// `modelDescription` is borrowed: it belongs to the application object and must outlive the handler.
    TalHandler(QObject *parent, uint modelNumber, const char *modelDescription);
    ~TalHandler() override;

    /// The records that the agent serves; owned by the handler, valid as long as it lives.
    TableRecords &tableRecords() { return m_records; }
    const TableRecords &tableRecords() const { return m_records; }

    /// Tells the data service this program's name and version. Part of the class's interface; nothing calls it.
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
    TableRecords m_records{};
};
