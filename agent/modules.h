// The MIB modules by name: the functions for the start, the setters and the tests. The library's callbacks are in the
// tables' records.
#pragma once

#include "agent/tablecore.h"

#include <cstdint>

// Short names of the library's types, for the one-line functions of the modules.
using Handler = netsnmp_mib_handler;
using Registration = netsnmp_handler_registration;
using Info = netsnmp_agent_request_info;
using Request = netsnmp_request_info;
using Index = netsnmp_variable_list;
using Iterator = netsnmp_iterator_info;
using Cache = netsnmp_cache;

extern const TableModule voltageTable, tempTable, fanTable, ampChannelTable, controlOutputTable, controlInputTable,
    letChannel1Table, letChannel2Table, lineInTable, ethMonitoringTable, powerTable, relayTable;

void init_voltageTable();
void init_tempTable();
void init_fanTable();
void init_ampChannelTable();
void init_controlOutputTable();
void init_controlInputTable();
void init_infoScalars();
void init_letChannelTables();
void init_lineInTable();
void init_ethMonitoringTable();
void init_powerTable();
void init_relayTable();

Netsnmp_Node_Handler handle_ampType, handle_infoPackageVersion, handle_infoModelType, handle_infoModelNumber,
    handle_infoAmplifierType, handle_infoKernelVersion, handle_infoDeviceTreeVersion, handle_infoDisablement;

void copyInfoData();
void refillLetChannelTableEntries(std::uint32_t letChannel); ///< 1 or 2

// E.2: the trap sender
int sendTrap(std::uint32_t trapNumber, const char *description, std::int32_t level, const char *time);
