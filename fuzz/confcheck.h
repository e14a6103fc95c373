// The invariant of every snmpd.conf, for all settings: only the lines that the program intends to write.
#pragma once

#include "support.h"

#include "snmpdconf/snmpdconftext.h"

#include <QByteArrayList>

/// The part of a value that may be in the file.
inline QByteArray writtenPart(const QString &value)
{
    const QByteArray bytes = value.toUtf8();
    const std::string_view whole{bytes.constData(), static_cast<std::size_t>(bytes.size())};
    const std::size_t end = whole.find_first_of(std::string_view{"\n\r\0", 3});
    return end == std::string_view::npos ? bytes : bytes.left(static_cast<int>(end));
}

inline void checkConf(const SnmpdConfSettings &settings)
{
    const SnmpdConfText conf = snmpdConfText(settings);
    const bool isRead = settings.access.access == QLatin1String("Read");
    if (!isRead && settings.access.access != QLatin1String("Disabled")) {
        require(conf.text.isEmpty(), "another access text gives an empty file");
        return;
    }

    struct Line {
        const char *directive;
        const QString *value;
    };
    const Line names[] = {
        {"sysName", &settings.mib2.sysName},         {"sysContact", &settings.mib2.sysContact},
        {"sysLocation", &settings.mib2.sysLocation}, {"informsink", &settings.trap.informAddress},
        {"trap2sink", &settings.trap.trapAddress},
    };
    QByteArrayList expected = {"master agentx"};
    for (const Line &line : names)
        if (const QByteArray value = writtenPart(*line.value); !value.isEmpty())
            expected.append(QByteArray(line.directive) + ' ' + value);
    const QByteArray port = writtenPart(settings.access.snmpPort);
    const QByteArray address = "agentAddress udp6:" + port + ",udp:" + port;
    constexpr char access[] = "access MyROGroup \"\"      any       noauth    prefix  all    none   none";
    if (isRead) {
        const QByteArray community = writtenPart(settings.access.community);
        expected << "com2sec mynetwork " + writtenPart(settings.access.nmsIp) + ' ' + community
                 << "com2sec6 mynetwork " + writtenPart(settings.access.nmsIpv6) + ' ' + community
                 << QByteArray(settings.version.version1 ? "" : "#") + "group MyROGroup v1         mynetwork"
                 << QByteArray(settings.version.version2c ? "" : "#") + "group MyROGroup v2c         mynetwork"
                 << "view all    included .1" << access << address;
    } else {
        expected << "#com2sec"
                 << "#com2sec6"
                 << "#group MyROGroup v1         mynetwork"
                 << "#group MyROGroup v2c         mynetwork"
                 << "#view all    included .1" << QByteArray("#") + access << '#' + address;
    }

    require(conf.text.endsWith('\n'), "the last line is ended");
    require(!conf.text.contains('\0') && !conf.text.contains('\r'), "no NUL and no carriage return");
    require(conf.text.count('\n') == expected.size(), "as many lines as the settings ask for, never one more");
    require(conf.text.chopped(1).split('\n') == expected, "each line is the one that is meant");
}
