// The data service: connection and delivered data.
#include "check/checks.h"
#include "check/localexchange.h"
#include "check/subject.h"

#include "tal/snmpsettings.h"
#include "tal/talhandler.h"

#include <QFile>
#include <QFileInfo>

#include <cstring>

namespace {

QString settingPath(const char *path)
{
    return QLatin1String(snmpSettingsFolder) + QLatin1String(path);
}

bool isPort(const QString &text)
{
    bool isNumber = false;
    const int port = text.trimmed().toInt(&isNumber);
    return isNumber && port >= 1 && port <= 65535;
}

} // namespace

Outcome checkDataService(Subject &subject)
{
    const QString path = subject.variable("TAL_SOCKET", QStringLiteral("/var/run/tal.sock"));
    subject.service = askDataService(subject.model, subject.timeoutMs);
    if (subject.service.connected)
        return ok(QStringLiteral("reached at ") + path);
    const QString hint = QStringLiteral("start the data service, or find out why it has ended; kvsnmp retries every "
                                        "second");
    if (!QFileInfo::exists(path))
        return failed(path + QStringLiteral(" is not there: the data service does not run"), hint);
    const int error = exchange(QFile::encodeName(path), {}, 0, 0).error;
    return failed(path + QStringLiteral(" cannot be reached: ") + QString::fromLocal8Bit(std::strerror(error)), hint);
}

Outcome checkSnmpSettings(Subject &subject)
{
    const ServiceAnswer &service = subject.service;
    QStringList missing;
    for (const QString &group : TalHandler::settingsGroups())
        if (!service.groups.contains(group))
            missing.append(group);
    if (missing.isEmpty())
        return ok(*service.customConfig ? QStringLiteral("all delivered; snmpd.conf is custom (custom_config)")
                                        : QStringLiteral("all delivered; snmpd.conf is written by kvsnmp"));
    if (service.groups.isEmpty())
        return failed(QStringLiteral("the data service takes the connection, but delivers nothing within %1 s")
                          .arg(subject.timeoutMs / 1000.0),
                      QStringLiteral("it hangs, or its tree has no %1; read the data service's log and "
                                     "restart it")
                          .arg(QLatin1String(snmpSettingsFolder)));
    const QString text = QStringLiteral("not delivered: ") + missing.join(QStringLiteral(", "));
    const QString hint =
        QStringLiteral("set the missing values below %1 in the data service").arg(QLatin1String(snmpSettingsFolder));
    if (!service.customConfig)
        return failed(text, hint + QStringLiteral("; without custom_config kvsnmp writes no snmpd.conf and starts no "
                                                  "snmpd"));
    return warning(text, hint);
}

Outcome checkSnmpAccess(Subject &subject)
{
    if (subject.service.customConfig.value_or(false))
        return notApplicable(QStringLiteral("snmpd.conf is custom"));
    const SnmpAccessSettings &access = subject.service.settings.access;
    const SnmpVersionSettings &version = subject.service.settings.version;
    if (access.access == QLatin1String(accessDisabled))
        return failed(QStringLiteral("SNMP access is \"Disabled\" in the settings"),
                      QStringLiteral("set %1 to \"Read\"").arg(settingPath("access_control/access")));
    if (access.access != QLatin1String(accessRead))
        return failed(
            QStringLiteral("SNMP access is \"%1\" in the settings: snmpd.conf is left empty").arg(access.access),
            QStringLiteral("set %1 to \"Read\"").arg(settingPath("access_control/access")));
    if (!version.version1 && !version.version2c)
        return failed(QStringLiteral("no SNMP version is enabled in the settings"),
                      QStringLiteral("set %1 to \"true\"; version_3 alone gives no access")
                          .arg(settingPath("version_control/version_2c")));
    if (access.community.isEmpty())
        return failed(QStringLiteral("the community is empty in the settings"),
                      QStringLiteral("set %1").arg(settingPath("access_control/community")));
    if (access.nmsIp.isEmpty())
        return failed(
            QStringLiteral("the manager's address is empty in the settings: snmpd uses the community instead"),
            QStringLiteral("set %1 to an address, a network or \"default\"").arg(settingPath("access_control/nms_ip")));
    if (!isPort(access.snmpPort))
        return failed(
            QStringLiteral("the port is \"%1\" in the settings: snmpd does not start with it").arg(access.snmpPort),
            QStringLiteral("set %1 to a number from 1 to 65535, normally 161")
                .arg(settingPath("access_control/snmp_port")));
    if (access.nmsIpv6.isEmpty())
        return warning(
            QStringLiteral("read access for %1 on port %2, none over IPv6").arg(access.nmsIp, access.snmpPort),
            QStringLiteral("%1 is empty, so snmpd ignores its line").arg(settingPath("access_control/nms_ipv6")));
    return ok(
        QStringLiteral("read access for %1 and %2 on port %3").arg(access.nmsIp, access.nmsIpv6, access.snmpPort));
}

Outcome checkDeviceValues(Subject &subject)
{
    const ServiceAnswer &service = subject.service;
    const QString messages = QStringLiteral("kvsnmp_sys_messages");
    int values = 0;
    for (auto entry = service.values.begin(); entry != service.values.end(); ++entry)
        if (entry.key() != messages)
            values += entry.value();
    const QString text = QStringLiteral("%1 values in %2 groups, %3 system messages")
                             .arg(values)
                             .arg(service.values.size() - (service.values.contains(messages) ? 1 : 0))
                             .arg(service.values.value(messages));
    if (values == 0)
        return failed(QStringLiteral("the data service delivers no value of this model"),
                      QStringLiteral("the tables serve their starting values; check that the data service runs for "
                                     "model %1")
                          .arg(subject.model));
    if (!service.isComplete)
        return warning(text + QStringLiteral(", not all within %1 s").arg(subject.timeoutMs / 1000.0),
                       QStringLiteral("the data service is slow; try again with a larger --timeout"));
    return ok(text);
}
