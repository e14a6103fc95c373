// The text of snmpd.conf from the SNMP settings: settings in, text out.
#pragma once

#include "tal/snmpsettings.h"

#include <QByteArray>
#include <QStringList>

/// The settings as received.
struct SnmpdConfSettings {
    SnmpAccessSettings access;
    SnmpMib2Settings mib2;
    SnmpTrapSettings trap;
    SnmpVersionSettings version;
};

struct SnmpdConfText {
    QByteArray text;         ///< UTF-8 in every locale, so that snmpd serves a name with unchanged bytes
    QStringList cutSettings; ///< names of the settings that were truncated at a line end or NUL
};

/// The whole file. Values are inserted without quotes or escapes, but truncated at the first line feed, carriage return
/// or NUL, so that they cannot inject a directive. An access text other than "Disabled" and "Read" gives an empty file.
SnmpdConfText snmpdConfText(const SnmpdConfSettings &settings);
