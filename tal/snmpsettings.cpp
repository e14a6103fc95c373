// The SNMP settings: each group is read leaf by leaf, stored, and passed on as a whole.
#include "tal/snmpsettings.h"

#include "tal/keystep.h"
#include "tal/talhandler.h"

#include <xrcommon/TalInterface.h>

#include <QXmlStreamReader>

#include <algorithm>

namespace {

template <typename Record, typename Value>
struct Leaf {
    std::string_view path;
    Value Record::*field;
};

// clang-format off
constexpr Leaf<SnmpMib2Settings, QString> mib2Leaves[] = {
    {"/state/config/snmp_settings/mib_2_settings/sys_name",     &SnmpMib2Settings::sysName},
    {"/state/config/snmp_settings/mib_2_settings/sys_location", &SnmpMib2Settings::sysLocation},
    {"/state/config/snmp_settings/mib_2_settings/sys_contact",  &SnmpMib2Settings::sysContact},
};
constexpr Leaf<SnmpAccessSettings, QString> accessLeaves[] = {
    {"/state/config/snmp_settings/access_control/community", &SnmpAccessSettings::community},
    {"/state/config/snmp_settings/access_control/access",    &SnmpAccessSettings::access},
    {"/state/config/snmp_settings/access_control/nms_ip",    &SnmpAccessSettings::nmsIp},
    {"/state/config/snmp_settings/access_control/nms_ipv6",  &SnmpAccessSettings::nmsIpv6},
    {"/state/config/snmp_settings/access_control/snmp_port", &SnmpAccessSettings::snmpPort},
};
constexpr Leaf<SnmpTrapSettings, QString> trapLeaves[] = {
    {"/state/config/snmp_settings/trap_settings/trap_address",   &SnmpTrapSettings::trapAddress},
    {"/state/config/snmp_settings/trap_settings/inform_address", &SnmpTrapSettings::informAddress},
};
constexpr Leaf<SnmpVersionSettings, bool> versionLeaves[] = {
    {"/state/config/snmp_settings/version_control/version_1",  &SnmpVersionSettings::version1},
    {"/state/config/snmp_settings/version_control/version_2c", &SnmpVersionSettings::version2c},
    {"/state/config/snmp_settings/version_control/version_3",  &SnmpVersionSettings::version3},
};
constexpr std::string_view customConfigPath = "/state/config/snmp_settings/custom_config";
// clang-format on

template <std::size_t count, typename Record, typename Value>
constexpr bool areSettings(const Leaf<Record, Value> (&leaves)[count])
{
    return std::ranges::all_of(leaves, [](const auto &leaf) { return leaf.path.starts_with(snmpSettingsFolder); });
}
static_assert(areSettings(mib2Leaves) && areSettings(accessLeaves) && areSettings(trapLeaves));
static_assert(areSettings(versionLeaves) && customConfigPath.starts_with(snmpSettingsFolder));

bool readLeaf(const Notification &n, const QString &path, QString &text)
{
    return TalInterface::xpathGetTextNode(text, path, n.sPath, n.rPath, n.data);
}

/// A value of only blanks is empty; blanks around a value are kept.
void takeText(const Notification &n, const QString &text, QString &field)
{
    switch (operationOf(n)) {
    case Operation::Delete:
        field = QString();
        break;
    case Operation::Change:
        field = text.trimmed().isEmpty() ? QString() : text;
        break;
    case Operation::Unexpected:
        break;
    }
}

template <typename Record>
void readTexts(const Notification &n, std::span<const Leaf<Record, QString>> leaves, Record &record)
{
    for (const auto &leaf : leaves) {
        QString text;
        if (readLeaf(n, latin1(leaf.path), text))
            takeText(n, text, record.*leaf.field);
    }
}

bool isTrue(const QString &text)
{
    return text == QLatin1String("true");
}

} // namespace

void registerSnmpSettingsTypes()
{
    qRegisterMetaType<SnmpMib2Settings>("SnmpMib2Settings");
    qRegisterMetaType<SnmpAccessSettings>("SnmpAccessSettings");
    qRegisterMetaType<SnmpTrapSettings>("SnmpTrapSettings");
    qRegisterMetaType<SnmpVersionSettings>("SnmpVersionSettings");
}

void TalHandler::parseMib2Settings(const Notification &n)
{
    readTexts<SnmpMib2Settings>(n, mib2Leaves, m_mib2Settings);
    Q_EMIT signalSnmpdConfMib2Settings(m_mib2Settings);
}

void TalHandler::parseAccessSettings(const Notification &n)
{
    readTexts<SnmpAccessSettings>(n, accessLeaves, m_accessSettings);
    Q_EMIT signalSnmpdConfAccessSettings(m_accessSettings);
}

void TalHandler::parseTrapSettings(const Notification &n)
{
    readTexts<SnmpTrapSettings>(n, trapLeaves, m_trapSettings);
    readEnabledTraps(n);
    if (n.op == QLatin1String("create"))
        readEnabledTrapList(n.data);
    Q_EMIT signalSnmpdConfTrapSettings(m_trapSettings);
    Q_EMIT signalUpdateEnabledSnmpTraps(m_enabledTraps);
}

// Only "replace" sets a flag here; "create" clears its flags and then reads them from the list.
void TalHandler::readEnabledTraps(const Notification &n)
{
    const bool isReplace = n.op == QLatin1String("replace");
    for (auto trap = m_enabledTraps.begin(); trap != m_enabledTraps.end(); ++trap) {
        QString text;
        const QString path =
            QStringLiteral("/state/config/snmp_settings/trap_settings/traps/trap[name='%1']/enabled").arg(trap.key());
        if (readLeaf(n, path, text))
            trap.value() = isReplace && isTrue(text);
    }
}

// In the list the first two elements of a trap, "name..." and "enabled", identify it; others are skipped.
void TalHandler::readEnabledTrapList(const QString &xml)
{
    QXmlStreamReader reader(xml);
    while (!reader.atEnd()) {
        if (reader.readNext() != QXmlStreamReader::StartElement || reader.name() != QLatin1String("trap"))
            continue;
        if (reader.readNext() != QXmlStreamReader::StartElement || !reader.name().startsWith(QLatin1String("name")))
            continue;
        const auto trap = m_enabledTraps.find(reader.readElementText());
        if (reader.hasError() || trap == m_enabledTraps.end())
            continue;
        if (reader.readNext() != QXmlStreamReader::StartElement || reader.name() != QLatin1String("enabled"))
            continue;
        const bool enabled = isTrue(reader.readElementText());
        if (!reader.hasError())
            trap.value() = enabled;
    }
}

void TalHandler::parseVersionSettings(const Notification &n)
{
    const bool isChange = operationOf(n) == Operation::Change;
    for (const auto &leaf : versionLeaves) {
        QString text;
        if (readLeaf(n, latin1(leaf.path), text))
            m_versionSettings.*leaf.field = isChange && isTrue(text);
    }
    Q_EMIT signalSnmpdConfVersionSettings(m_versionSettings);
}

void TalHandler::parseCustomConfig(const Notification &n)
{
    QString text;
    if (readLeaf(n, latin1(customConfigPath), text))
        Q_EMIT signalSnmpdConfUseCustomConfFile(operationOf(n) == Operation::Change && isTrue(text));
}
