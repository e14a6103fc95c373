// The functions of the MIB modules, by name: what the start calls, what the library calls back, what tests call.
#pragma once

#include "agent/netsnmp.h"

#include <cstdint>

// E.3.4
void init_voltageTable();
void initialize_table_voltageTable();
Netsnmp_First_Data_Point voltageTable_get_first_data_point;
Netsnmp_Next_Data_Point voltageTable_get_next_data_point;
Netsnmp_Node_Handler voltageTable_handler;
NetsnmpCacheLoad voltageTable_load;
NetsnmpCacheFree voltageTable_free;
Netsnmp_Node_Handler handle_voltageTableCount;
void refillVoltageTableEntries();
void voltageTable_createEntry();
void voltageTable_removeEntry();

// E.3.2
void init_tempTable();
void initialize_table_tempTable();
Netsnmp_First_Data_Point tempTable_get_first_data_point;
Netsnmp_Next_Data_Point tempTable_get_next_data_point;
Netsnmp_Node_Handler tempTable_handler;
NetsnmpCacheLoad tempTable_load;
NetsnmpCacheFree tempTable_free;
Netsnmp_Node_Handler handle_tempTableCount;
void refillTempTableEntries();
void tempTable_createEntry();
void tempTable_removeEntry();

// E.3.3
void init_fanTable();
void initialize_table_fanTable();
Netsnmp_First_Data_Point fanTable_get_first_data_point;
Netsnmp_Next_Data_Point fanTable_get_next_data_point;
Netsnmp_Node_Handler fanTable_handler;
NetsnmpCacheLoad fanTable_load;
NetsnmpCacheFree fanTable_free;
Netsnmp_Node_Handler handle_fanTableCount;
void refillFanTableEntries();
void fanTable_createEntry();
void fanTable_removeEntry();

// E.3.7
void init_ampChannelTable();
void initialize_table_ampChannelTable();
Netsnmp_First_Data_Point ampChannelTable_get_first_data_point;
Netsnmp_Next_Data_Point ampChannelTable_get_next_data_point;
Netsnmp_Node_Handler ampChannelTable_handler;
NetsnmpCacheLoad ampChannelTable_load;
NetsnmpCacheFree ampChannelTable_free;
Netsnmp_Node_Handler handle_ampChannelCount;
Netsnmp_Node_Handler handle_ampType;
void refillAmpChannelTableEntries();
void ampChannelTable_createEntry();
void ampChannelTable_removeEntry();

// E.3.10
void init_controlOutputTable();
void initialize_table_controlOutputTable();
Netsnmp_First_Data_Point controlOutputTable_get_first_data_point;
Netsnmp_Next_Data_Point controlOutputTable_get_next_data_point;
Netsnmp_Node_Handler controlOutputTable_handler;
NetsnmpCacheLoad controlOutputTable_load;
NetsnmpCacheFree controlOutputTable_free;
Netsnmp_Node_Handler handle_controlOutputCount;
void refillControlOutputTableEntries();
void controlOutputTable_createEntry();
void controlOutputTable_removeEntry();

// E.3.9
void init_controlInputTable();
void initialize_table_controlInputTable();
Netsnmp_First_Data_Point controlInputTable_get_first_data_point;
Netsnmp_Next_Data_Point controlInputTable_get_next_data_point;
Netsnmp_Node_Handler controlInputTable_handler;
NetsnmpCacheLoad controlInputTable_load;
NetsnmpCacheFree controlInputTable_free;
Netsnmp_Node_Handler handle_controlInputCount;
void refillControlInputTableEntries();
void controlInputTable_createEntry();
void controlInputTable_removeEntry();

// E.3.1
void init_infoScalars();
Netsnmp_Node_Handler handle_infoPackageVersion;
Netsnmp_Node_Handler handle_infoModelType;
Netsnmp_Node_Handler handle_infoModelNumber;
Netsnmp_Node_Handler handle_infoAmplifierType;
Netsnmp_Node_Handler handle_infoKernelVersion;
Netsnmp_Node_Handler handle_infoDeviceTreeVersion;
Netsnmp_Node_Handler handle_infoDisablement;
void copyInfoData();

// E.3.8: the letChannel is 1 or 2
void init_letChannelTables();
void initialize_table_letChannel1Table();
void initialize_table_letChannel2Table();
Netsnmp_First_Data_Point letChannel1Table_get_first_data_point;
Netsnmp_Next_Data_Point letChannel1Table_get_next_data_point;
Netsnmp_First_Data_Point letChannel2Table_get_first_data_point;
Netsnmp_Next_Data_Point letChannel2Table_get_next_data_point;
Netsnmp_Node_Handler letChannelTable_handler;
NetsnmpCacheLoad letChannel1Table_load;
NetsnmpCacheLoad letChannel2Table_load;
NetsnmpCacheFree letChannelTable_free;
Netsnmp_Node_Handler handle_letChannel1Count;
Netsnmp_Node_Handler handle_letChannel2Count;
void refillLetChannelTableEntries(std::uint32_t letChannel);
void letChannelTable_createEntry();
void letChannelTable_removeEntry();

// E.3.6
void init_lineInTable();
void initialize_table_lineInTable();
Netsnmp_First_Data_Point lineInTable_get_first_data_point;
Netsnmp_Next_Data_Point lineInTable_get_next_data_point;
Netsnmp_Node_Handler lineInTable_handler;
NetsnmpCacheLoad lineInTable_load;
NetsnmpCacheFree lineInTable_free;
void refillLineInTableEntries();
void lineInTable_createEntry();
void lineInTable_removeEntry();

// E.3.11
void init_ethMonitoringTable();
void initialize_table_ethMonitoringTable();
Netsnmp_First_Data_Point ethMonitoringTable_get_first_data_point;
Netsnmp_Next_Data_Point ethMonitoringTable_get_next_data_point;
Netsnmp_Node_Handler ethMonitoringTable_handler;
NetsnmpCacheLoad ethMonitoringTable_load;
NetsnmpCacheFree ethMonitoringTable_free;
void refillEthMonitoringTableEntries();
void ethMonitoringTable_createEntry();
void ethMonitoringTable_removeEntry();

// E.3.5
void init_powerTable();
void initialize_table_powerTable();
Netsnmp_First_Data_Point powerTable_get_first_data_point;
Netsnmp_Next_Data_Point powerTable_get_next_data_point;
Netsnmp_Node_Handler powerTable_handler;
NetsnmpCacheLoad powerTable_load;
NetsnmpCacheFree powerTable_free;
void refillPowerTableEntries();
void powerTable_createEntry();
void powerTable_removeEntry();

// E.3.12
void init_relayTable();
void initialize_table_relayTable();
Netsnmp_First_Data_Point relayTable_get_first_data_point;
Netsnmp_Next_Data_Point relayTable_get_next_data_point;
Netsnmp_Node_Handler relayTable_handler;
NetsnmpCacheLoad relayTable_load;
NetsnmpCacheFree relayTable_free;
void refillRelayTableEntries();
void relayTable_createEntry();
void relayTable_removeEntry();

// E.2: the trap sender
int sendTrap(std::uint32_t trapNumber, const char *description, std::int32_t level, const char *time);
/// A session to the master opened, over this socket (-1: unknown), or closed.
void setTrapSession(bool open, int socket);
/// True: the gate is closed as without a session, until the session changes. Returns what it was.
bool holdTraps(bool hold);
/// The library runs a pass: traps may be handed over again.
void startTrapPass();
