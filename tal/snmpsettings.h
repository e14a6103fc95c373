// The SNMP settings as the data service holds them, grouped as they are handed on.
#pragma once

#include <QMetaType>
#include <QString>

/// Where the data service holds them.
inline constexpr char snmpSettingsFolder[] = "/state/config/snmp_settings/";

struct SnmpMib2Settings {
    QString sysName;
    QString sysLocation;
    QString sysContact;
};

struct SnmpAccessSettings {
    QString community;
    QString access; ///< "Disabled" or "Read"; other texts are possible
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

/// Makes the four records known to Qt under their own names, for queued connections. May be called more than once.
void registerSnmpSettingsTypes();
