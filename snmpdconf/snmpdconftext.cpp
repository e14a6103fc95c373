// The text of snmpd.conf from the SNMP settings: settings in, text out.
#include "snmpdconf/snmpdconftext.h"

#include <QString>

#include <array>
#include <span>
#include <string_view>

namespace {

/// Values of the access lines. The two flags are empty, or the "#" that makes a line a comment.
enum class Value : std::uint8_t { None, Community, NmsIp, NmsIpv6, SnmpPort, Version1, Version2c };

/// One access line; each %1 and %2 is a place for a value.
struct AccessLine {
    std::string_view text;
    std::array<Value, 2> values = {Value::None, Value::None};
};

// clang-format off
constexpr AccessLine disabledLines[] = {
    {"#com2sec"},
    {"#com2sec6"},
    {"#group MyROGroup v1         mynetwork"},
    {"#group MyROGroup v2c         mynetwork"},
    {"#view all    included .1"},
    {"#access MyROGroup \"\"      any       noauth    prefix  all    none   none"},
    {"#agentAddress udp6:%1,udp:%1", {Value::SnmpPort}},
};
constexpr AccessLine readLines[] = {
    {"com2sec mynetwork %1 %2",               {Value::NmsIp, Value::Community}},
    {"com2sec6 mynetwork %1 %2",              {Value::NmsIpv6, Value::Community}},
    {"%1group MyROGroup v1         mynetwork",  {Value::Version1}},
    {"%1group MyROGroup v2c         mynetwork", {Value::Version2c}},
    {"view all    included .1"},
    {"access MyROGroup \"\"      any       noauth    prefix  all    none   none"},
    {"agentAddress udp6:%1,udp:%1",           {Value::SnmpPort}},
};
// clang-format on

/// Composes the lines and records the truncated settings.
class Writer {
public:
    explicit Writer(const SnmpdConfSettings &settings) : m_settings(settings) {}

    void addLine(const QByteArray &line) { m_result.text += line + '\n'; }

    /// A directive with one value; no line without a value.
    void addSetting(const char *directive, const char *setting, const QString &value)
    {
        const QByteArray written = oneLine(setting, value);
        if (!written.isEmpty())
            addLine(QByteArray(directive) + ' ' + written);
    }

    /// Inserts the values in a single pass over the line, so that a "%1" inside a value stays unchanged.
    void addAccessLine(const AccessLine &line)
    {
        const QByteArray values[] = {valueOf(line.values[0]), valueOf(line.values[1])};
        QByteArray text;
        for (std::size_t i = 0; i < line.text.size(); ++i) {
            if (line.text[i] == '%')
                text += values[line.text[++i] - '1'];
            else
                text += line.text[i];
        }
        addLine(text);
    }

    const SnmpdConfText &result() const { return m_result; }

private:
    QByteArray valueOf(Value value)
    {
        switch (value) {
        case Value::Community:
            return oneLine("community", m_settings.access.community);
        case Value::NmsIp:
            return oneLine("nmsIp", m_settings.access.nmsIp);
        case Value::NmsIpv6:
            return oneLine("nmsIpv6", m_settings.access.nmsIpv6);
        case Value::SnmpPort:
            return oneLine("snmpPort", m_settings.access.snmpPort);
        case Value::Version1:
            return m_settings.version.version1 ? "" : "#";
        case Value::Version2c:
            return m_settings.version.version2c ? "" : "#";
        case Value::None:
            break;
        }
        return {};
    }

    /// The value up to its first line end or NUL: anything after it could inject a directive.
    QByteArray oneLine(const char *setting, const QString &value)
    {
        QByteArray text = value.toUtf8();
        const std::string_view whole{text.constData(), static_cast<std::size_t>(text.size())};
        const std::size_t end = whole.find_first_of(std::string_view{"\n\r\0", 3});
        if (end == std::string_view::npos)
            return text;
        const QString name = QString::fromLatin1(setting);
        if (!m_result.cutSettings.contains(name))
            m_result.cutSettings.append(name);
        return text.left(static_cast<int>(end));
    }

    const SnmpdConfSettings &m_settings;
    SnmpdConfText m_result;
};

/// No lines for any other access text.
std::span<const AccessLine> accessLines(const QString &access)
{
    if (access == QLatin1String(accessDisabled))
        return disabledLines;
    if (access == QLatin1String(accessRead))
        return readLines;
    return {};
}

} // namespace

SnmpdConfText snmpdConfText(const SnmpdConfSettings &settings)
{
    const std::span<const AccessLine> access = accessLines(settings.access.access);
    if (access.empty())
        return {};

    Writer writer(settings);
    writer.addLine("master agentx");
    writer.addSetting("sysName", "sysName", settings.mib2.sysName);
    writer.addSetting("sysContact", "sysContact", settings.mib2.sysContact);
    writer.addSetting("sysLocation", "sysLocation", settings.mib2.sysLocation);
    writer.addSetting("informsink", "informAddress", settings.trap.informAddress);
    writer.addSetting("trap2sink", "trapAddress", settings.trap.trapAddress);
    for (const AccessLine &line : access)
        writer.addAccessLine(line);
    return writer.result();
}
