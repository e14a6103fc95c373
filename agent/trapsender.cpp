// Sends one fault as one SNMPv2 notification through the master agent.
#include "agent/modules.h"
#include "agent/trapgate.h"
#include "device/boundedtext.h"
#include "device/trapcatalogue.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <span>
#include <string_view>

#include <unistd.h>

namespace {
constexpr Oid productOid = enterpriseOid(2, 4, 1, 0);
constexpr Oid hostNameOid = enterpriseOid(2, 4, 2, 0);
constexpr oid sysNameOid[] = {1, 3, 6, 1, 2, 1, 1, 5}; // the object, without an instance: intended
constexpr Oid levelOid = enterpriseOid(2, 4, 3, 0);
constexpr Oid timeOid = enterpriseOid(2, 4, 4, 0);
constexpr Oid descriptionOid = enterpriseOid(2, 4, 5, 0);

constexpr std::string_view productText = "Orvane IPKiosk";
constexpr std::string_view unknownHost = "not configured";

/// The longest description in bytes. snmpd refuses an AgentX message above 65,536 bytes and cannot send more than
/// 65,487 over UDP on IPv6. Everything else takes less than 1,000 bytes of either, with the longest names and SNMPv3.
constexpr std::size_t maxDescription = 64000;

/// The variables of one notification.
class VarList {
public:
    VarList() = default;
    VarList(const VarList &) = delete;
    VarList &operator=(const VarList &) = delete;
    ~VarList() { snmp_free_varbind(m_first); }

    void add(std::span<const oid> name, u_char type, const void *value, std::size_t length)
    {
        snmp_varlist_add_variable(&m_first, name.data(), name.size(), type, value, length);
    }

    void add(std::span<const oid> name, std::string_view text) { add(name, ASN_OCTET_STR, text.data(), text.size()); }

    netsnmp_variable_list *first() const { return m_first; }

private:
    netsnmp_variable_list *m_first = nullptr;
};

const char *formatted(std::time_t stamp)
{
    const std::tm *local = std::localtime(&stamp);
    return local != nullptr ? std::asctime(local) : nullptr;
}

/// "Sat Jun  1 10.02.03 2024" and a line feed, which is kept. A time outside the calendar becomes the epoch.
void writeTimeText(char (&text)[128], const char *time)
{
    const std::time_t stamp =
        *time != '\0' ? static_cast<std::time_t>(std::strtoul(time, nullptr, 0)) : std::time(nullptr);
    const char *calendar = formatted(stamp);
    copyBounded(text, calendar != nullptr ? calendar : formatted(0));
    std::replace(text, text + std::strlen(text), ':', '.');
}

std::string_view cutDescription(std::string_view whole)
{
    const std::string_view cut = utf8Prefix(whole, maxDescription);
    if (cut.size() < whole.size())
        snmp_log(LOG_WARNING, "sendTrap: description cut from %zu to %zu bytes\n", whole.size(), cut.size());
    return cut;
}
} // namespace

int sendTrap(std::uint32_t trapNumber, const char *description, std::int32_t level, const char *time)
{
    if (time == nullptr || description == nullptr || trapNumber < 1 || trapNumber > std::size(trapCatalogue))
        return -1;
    if (!trapGate().admit())
        return -1;

    const Oid notification = enterpriseOid(2, 8, trapCatalogue[trapNumber - 1].arc);
    char hostName[256] = {};
    if (gethostname(hostName, sizeof(hostName)) != 0)
        copyBounded(hostName, unknownHost);
    hostName[sizeof(hostName) - 1] = '\0';
    char timeText[128];
    writeTimeText(timeText, time);

    VarList variables;
    variables.add({snmptrap_oid, snmptrap_oid_len}, ASN_OBJECT_ID, notification.arcs,
                  notification.length * sizeof(oid));
    variables.add(productOid, productText);
    variables.add(hostNameOid, hostName);
    if (kvAgent != nullptr && kvAgent->systemName[0] != '\0')
        variables.add(sysNameOid, kvAgent->systemName);
    variables.add(levelOid, ASN_INTEGER, &level, sizeof(level));
    variables.add(timeOid, timeText);
    variables.add(descriptionOid, cutDescription(description));
    send_v2trap(variables.first());
    return 0;
}
