// The agent library's headers, in the required order. Only sources here and in agent/ include them.
#pragma once

#include <net-snmp/net-snmp-config.h>
// keep net-snmp-config.h first
#include <net-snmp/net-snmp-includes.h>
// keep net-snmp-includes.h before the agent's own
#include <net-snmp/agent/net-snmp-agent-includes.h>

#include <net-snmp/agent/agent_callbacks.h>
#include <net-snmp/library/large_fd_set.h>
#include <net-snmp/library/snmp_alarm.h>
#include <net-snmp/library/snmp_service.h>

extern "C" {
/// snmpTrapOID.0, 11 sub-identifiers. The library exports it but no public header declares it.
extern const oid snmptrap_oid[];
extern const std::size_t snmptrap_oid_len;
/// Null when there is no alarm of that number. Not declared either.
snmp_alarm *sa_find_specific(unsigned number);
}
