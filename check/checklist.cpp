// The checks, in the order of their dependencies.
#include "check/checks.h"

namespace {

// clang-format off
constexpr Check checks[] = { // id, title, needs, follows, function
    {"model-number",         "Model number",              {}, {}, checkModelNumber},
    {"model-text",           "Model text",                {}, {}, checkModelText},
    {"amplifier-type",       "Amplifier type",            {"model-number"}, {}, checkAmplifierType},
    {"package-version",      "Package version",           {}, {}, checkPackageVersion},
    {"kernel-version",       "Kernel version",            {}, {}, checkKernelVersion},
    {"device-tree-version",  "Device-tree version",       {}, {}, checkDeviceTreeVersion},

    {"data-service",         "Data service",              {}, {}, checkDataService},
    {"snmp-settings",        "SNMP settings",             {"data-service"}, {}, checkSnmpSettings},
    {"snmp-access",          "SNMP access",               {"snmp-settings"}, {}, checkSnmpAccess},
    {"device-values",        "Values of the device",      {"model-number", "snmp-settings"}, {}, checkDeviceValues},

    {"kvsnmp-process",       "kvsnmp runs",               {}, {"model-number"}, checkKvsnmpProcess},
    {"kvsnmp-pid-file",      "kvsnmp's pid file",         {"kvsnmp-process"}, {}, checkKvsnmpPidFile},
    {"system-bus",           "System bus",                {"model-number"}, {}, checkSystemBus},
    {"amplifier-monitor",    "Amplifier monitor",         {"model-number", "system-bus"}, {}, checkAmplifierMonitor},
    {"gpio-tree",            "GPIO lines",                {"model-number"}, {"kvsnmp-process"}, checkGpioTree},
    {"commands",             "Commands of the supervision", {}, {}, checkCommands},

    {"snmpd-program",        "snmpd installed",           {}, {}, checkSnmpdProgram},
    {"snmpd-conf",           "snmpd.conf",                {}, {"kvsnmp-process", "snmp-settings", "snmp-access"}, checkSnmpdConf},
    {"snmpd-conf-settings",  "snmpd.conf and settings",   {"snmpd-conf", "snmp-settings"}, {"kvsnmp-process"}, checkSnmpdConfSettings},
    {"snmpd-conf-accepted",  "snmpd.conf accepted",       {"snmpd-program", "snmpd-conf"}, {"snmp-access", "snmpd-conf-settings"}, checkSnmpdConfAccepted},
    {"snmpd-process",        "snmpd runs",                {}, {"snmpd-program", "kvsnmp-process", "commands", "snmpd-conf", "snmp-access", "snmpd-conf-accepted"}, checkSnmpdProcess},
    {"snmpd-pid-file",       "snmpd's pid file",          {"snmpd-process"}, {}, checkSnmpdPidFile},
    {"health-probe",         "Health probe",              {"snmpd-process", "commands"}, {}, checkHealthProbe},

    {"snmpd-answer",         "snmpd answers",             {"snmpd-process", "snmpd-conf"}, {"snmp-access", "snmpd-conf-settings", "snmpd-conf-accepted"}, checkSnmpdAnswer},
    {"agentx-socket",        "AgentX socket",             {}, {"snmpd-process", "snmpd-conf", "snmpd-conf-settings"}, checkAgentxSocket},
    {"sub-agent",            "Sub-agent registered",      {}, {"kvsnmp-process", "agentx-socket", "snmpd-answer"}, checkSubAgent},
    {"model-number-served",  "Model number served",       {"model-number", "snmpd-answer"}, {"kvsnmp-process", "sub-agent"}, checkModelNumberServed},

    {"traps-enabled",        "Traps enabled",             {"snmp-settings"}, {}, checkTrapsEnabled},
    {"trap-receivers",       "Trap receivers",            {"snmp-settings"}, {}, checkTrapReceivers},
};
// clang-format on

static_assert(isInOrder(checks));

} // namespace

std::span<const Check> checkList()
{
    return checks;
}
