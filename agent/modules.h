// The functions of the MIB modules, by name: what the start calls, what the library calls back, what tests call.
#pragma once

#include "agent/netsnmp.h"

#include <cstdint>

// The library's types, short, for the one-line functions of the modules.
using Handler = netsnmp_mib_handler;
using Registration = netsnmp_handler_registration;
using Info = netsnmp_agent_request_info;
using Request = netsnmp_request_info;
using Index = netsnmp_variable_list;
using Iterator = netsnmp_iterator_info;
using Cache = netsnmp_cache;

// clang-format off
// E.3.4
void init_voltageTable(), initialize_table_voltageTable(), refillVoltageTableEntries(), voltageTable_createEntry(), voltageTable_removeEntry();
Netsnmp_First_Data_Point voltageTable_get_first_data_point, voltageTable_get_next_data_point;
Netsnmp_Node_Handler voltageTable_handler, handle_voltageTableCount;
NetsnmpCacheLoad voltageTable_load;
NetsnmpCacheFree voltageTable_free;
// E.3.2
void init_tempTable(), initialize_table_tempTable(), refillTempTableEntries(), tempTable_createEntry(), tempTable_removeEntry();
Netsnmp_First_Data_Point tempTable_get_first_data_point, tempTable_get_next_data_point;
Netsnmp_Node_Handler tempTable_handler, handle_tempTableCount;
NetsnmpCacheLoad tempTable_load;
NetsnmpCacheFree tempTable_free;
// E.3.3
void init_fanTable(), initialize_table_fanTable(), refillFanTableEntries(), fanTable_createEntry(), fanTable_removeEntry();
Netsnmp_First_Data_Point fanTable_get_first_data_point, fanTable_get_next_data_point;
Netsnmp_Node_Handler fanTable_handler, handle_fanTableCount;
NetsnmpCacheLoad fanTable_load;
NetsnmpCacheFree fanTable_free;
// E.3.7
void init_ampChannelTable(), initialize_table_ampChannelTable(), refillAmpChannelTableEntries(), ampChannelTable_createEntry(), ampChannelTable_removeEntry();
Netsnmp_First_Data_Point ampChannelTable_get_first_data_point, ampChannelTable_get_next_data_point;
Netsnmp_Node_Handler ampChannelTable_handler, handle_ampChannelCount, handle_ampType;
NetsnmpCacheLoad ampChannelTable_load;
NetsnmpCacheFree ampChannelTable_free;
// E.3.10
void init_controlOutputTable(), initialize_table_controlOutputTable(), refillControlOutputTableEntries(), controlOutputTable_createEntry(), controlOutputTable_removeEntry();
Netsnmp_First_Data_Point controlOutputTable_get_first_data_point, controlOutputTable_get_next_data_point;
Netsnmp_Node_Handler controlOutputTable_handler, handle_controlOutputCount;
NetsnmpCacheLoad controlOutputTable_load;
NetsnmpCacheFree controlOutputTable_free;
// E.3.9
void init_controlInputTable(), initialize_table_controlInputTable(), refillControlInputTableEntries(), controlInputTable_createEntry(), controlInputTable_removeEntry();
Netsnmp_First_Data_Point controlInputTable_get_first_data_point, controlInputTable_get_next_data_point;
Netsnmp_Node_Handler controlInputTable_handler, handle_controlInputCount;
NetsnmpCacheLoad controlInputTable_load;
NetsnmpCacheFree controlInputTable_free;
// E.3.1
void init_infoScalars(), copyInfoData();
Netsnmp_Node_Handler handle_infoPackageVersion, handle_infoModelType, handle_infoModelNumber, handle_infoAmplifierType,
    handle_infoKernelVersion, handle_infoDeviceTreeVersion, handle_infoDisablement;
// E.3.8: the letChannel is 1 or 2
void init_letChannelTables(), initialize_table_letChannel1Table(), initialize_table_letChannel2Table();
void refillLetChannelTableEntries(std::uint32_t letChannel), letChannelTable_createEntry(), letChannelTable_removeEntry();
Netsnmp_First_Data_Point letChannel1Table_get_first_data_point, letChannel1Table_get_next_data_point,
    letChannel2Table_get_first_data_point, letChannel2Table_get_next_data_point;
Netsnmp_Node_Handler letChannelTable_handler, handle_letChannel1Count, handle_letChannel2Count;
NetsnmpCacheLoad letChannel1Table_load, letChannel2Table_load;
NetsnmpCacheFree letChannelTable_free;
// E.3.6
void init_lineInTable(), initialize_table_lineInTable(), refillLineInTableEntries(), lineInTable_createEntry(), lineInTable_removeEntry();
Netsnmp_First_Data_Point lineInTable_get_first_data_point, lineInTable_get_next_data_point;
Netsnmp_Node_Handler lineInTable_handler;
NetsnmpCacheLoad lineInTable_load;
NetsnmpCacheFree lineInTable_free;
// E.3.11
void init_ethMonitoringTable(), initialize_table_ethMonitoringTable(), refillEthMonitoringTableEntries(), ethMonitoringTable_createEntry(), ethMonitoringTable_removeEntry();
Netsnmp_First_Data_Point ethMonitoringTable_get_first_data_point, ethMonitoringTable_get_next_data_point;
Netsnmp_Node_Handler ethMonitoringTable_handler;
NetsnmpCacheLoad ethMonitoringTable_load;
NetsnmpCacheFree ethMonitoringTable_free;
// E.3.5
void init_powerTable(), initialize_table_powerTable(), refillPowerTableEntries(), powerTable_createEntry(), powerTable_removeEntry();
Netsnmp_First_Data_Point powerTable_get_first_data_point, powerTable_get_next_data_point;
Netsnmp_Node_Handler powerTable_handler;
NetsnmpCacheLoad powerTable_load;
NetsnmpCacheFree powerTable_free;
// E.3.12
void init_relayTable(), initialize_table_relayTable(), refillRelayTableEntries(), relayTable_createEntry(), relayTable_removeEntry();
Netsnmp_First_Data_Point relayTable_get_first_data_point, relayTable_get_next_data_point;
Netsnmp_Node_Handler relayTable_handler;
NetsnmpCacheLoad relayTable_load;
NetsnmpCacheFree relayTable_free;
// clang-format on

// E.2: the trap sender
int sendTrap(std::uint32_t trapNumber, const char *description, std::int32_t level, const char *time);
