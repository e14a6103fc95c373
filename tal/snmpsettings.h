// The SNMP settings of the data service, in the groups of the signals.
#pragma once

#include <QMetaType>
#include <QString>

/// Their paths in the data service.
inline constexpr char snmpSettingsFolder[] = "/state/config/snmp_settings/";

struct SnmpMib2Settings {
    QString sysName;
    QString sysLocation;
    QString sysContact;
};

inline constexpr char accessDisabled[] = "Disabled";
inline constexpr char accessRead[] = "Read";

struct SnmpAccessSettings {
    QString community;
    QString access; ///< accessDisabled or accessRead; other texts are possible
    QString nmsIp;
    QString nmsIpv6;
    QString snmpPort; ///< the port number as text
};

struct SnmpTrapSettings {
    QString trapAddress;
    QString informAddress;
};

struct SnmpVersionSettings {
    bool version1 = false;
    bool version2c = false;
    bool version3 = false;
};

Q_DECLARE_METATYPE(SnmpMib2Settings)
Q_DECLARE_METATYPE(SnmpAccessSettings)
Q_DECLARE_METATYPE(SnmpTrapSettings)
Q_DECLARE_METATYPE(SnmpVersionSettings)

/// Registers the four records with Qt under their names, for queued connections. May be called more than once.
void registerSnmpSettingsTypes();
