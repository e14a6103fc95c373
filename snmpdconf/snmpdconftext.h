// The text of snmpd.conf from the SNMP settings: settings in, text out.
#pragma once

#include "tal/snmpsettings.h"

#include <QByteArray>
#include <QStringList>

/// The settings as they were received.
struct SnmpdConfSettings {
    SnmpAccessSettings access;
    SnmpMib2Settings mib2;
    SnmpTrapSettings trap;
    SnmpVersionSettings version;
};

struct SnmpdConfText {
    QByteArray text;         ///< UTF-8, whatever the locale: a name is answered by snmpd in the bytes it came in
    QStringList cutSettings; ///< names of the settings of which only the part before a line end or NUL was written
};

/// The whole file. Values are put in as they are, without quotes or escapes, but each is cut at its first line feed,
/// carriage return or NUL, so that it cannot start a directive of its own. An access text other than "Disabled" and
/// "Read" gives an empty file.
SnmpdConfText snmpdConfText(const SnmpdConfSettings &settings);
