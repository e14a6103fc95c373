// The IETF's sensor tables: the setting, the registration, the time of the last change.
#include "agent/standard/standardsensors.h"

#include "agent/modules.h"
#include "agent/standard/entities.h"

#include <string_view>

namespace {
constexpr char token[] = "kvStandardSensors";
bool wanted = false;
std::uint32_t lastChange = 0; // sysUpTime, in hundredths of a second

void readSetting(const char *, char *text)
{
    const std::string_view value = text;
    wanted = value == "yes";
    if (!wanted && value != "no")
        config_perror("expected yes or no");
}

/// The library's uptime is that of the master, which it reports when it opens the session.
int sessionOpened(int, int, void *, void *)
{
    lastChange = static_cast<std::uint32_t>(netsnmp_get_agent_uptime());
    return 0;
}

int handle_entLastChangeTime(Handler *, Registration *, Info *info, Request *requests)
{
    return serveScalar("handle_entLastChangeTime", ASN_TIMETICKS, cellOf(lastChange), info, requests);
}
} // namespace

void readStandardSensorsSetting(const char *application)
{
    wanted = false;
    register_config_handler(application, token, readSetting, nullptr, "yes|no");
}

void registerStandardSensors()
{
    if (!wanted)
        return;
    makeEntities();
    sessionOpened(0, 0, nullptr, nullptr); // init_snmp() may have opened one
    snmp_register_callback(SNMP_CALLBACK_APPLICATION, SNMPD_CALLBACK_INDEX_START, sessionOpened, nullptr);
    initializeTable(entPhysicalTable);
    initializeTable(entPhySensorTable);
    registerScalar({"handle_entLastChangeTime", {{1, 3, 6, 1, 2, 1, 47, 1, 4, 1}, 10}, handle_entLastChangeTime});
}
