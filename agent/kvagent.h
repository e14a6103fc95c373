// The agent record and its start: the interface of the rest of the program to the SNMP sub-agent.
// It uses no type of the agent library.
#pragma once

#include "device/infodata.h"
#include "device/tablerecords.h"

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

/// Sends one trap. `trapNumber` is 1 to 20; `level` is sent unchanged; `time` is seconds since the epoch as a number,
/// empty for now. Returns 0 when the library has accepted the notification, -1 for a bad argument or a refusal of
/// trapGate().
using SendTrap = int (*)(std::uint32_t trapNumber, const char *description, std::int32_t level, const char *time);

inline constexpr std::size_t systemNameSize = 256;

/// The single agent record. Its pointers do not own their targets, which live as long as the process.
struct KvAgent {
    std::uint32_t modelNumber; ///< determines whether the MIB is registered, and its rows
    const char *modelText;     ///< the model text, for the station description check
    std::uint8_t ampType;
    const VoltageRecord *talVoltageTableData;
    const TempRecord *talTempTableData;
    const FanRecord *talFanTableData;
    const AmpChannelRecord *talAmpChannelTableData;
    const ControlOutputRecord *talControlOutputTableData;
    const ControlInputRecord *talControlInputTableData;
    LetRecord *talLetChannelTableData; ///< writable: a refill clears the change flags
    const LineInRecord *talLineInTableData;
    const EthMonitoringRecord *talEthMonitoringTableData;
    const PowerRecord *talPowerTableData;
    const RelayRecord *talRelayTableData;
    const InfoData *infoData;
    SendTrap sendTrap;                   ///< null until the start installs it
    char systemName[systemNameSize + 1]; ///< Latin-1, always terminated; empty: traps carry no sysName
};

/// Null until the start of the agent.
extern KvAgent *kvAgent;

/// Fills the record, registers the MIB modules of the model and connects to the master agent. Call once.
void kaAgentStart(std::uint32_t modelNumber, std::uint8_t ampType, const char *modelText);

/// One non-blocking pass of the agent library, or only the descriptor that is known to be `readable`: that takes less
/// time. Returns above 0 if it handled something, 0 for nothing to do, below 0 for an error. Ends a pass of trapGate().
int kaCheckAndProcess(int readable = -1);

/// Replaces the content by all descriptors that the library currently waits for, ascending: its connection to the
/// master and its internal pipes. Empty before the start of the agent.
void kaDescriptors(std::vector<int> &descriptors);

/// True if the descriptors may have changed since the last call. Ask after every pass.
bool kaDescriptorsChanged();

/// Call with `true` after the order to stop snmpd, with `false` after the next start. Traps wait in between.
void setMasterEnding(bool ending);

/// Cuts the name to 256 bytes and terminates it. Does nothing before the start of the agent.
void setSystemName(std::string_view latin1);

// Each setter stores the pointer and copies the values into the table's rows at once. The power and the relay setter
// only store the pointer. Call them after kaAgentStart().
void setTalVoltageTableData(const VoltageRecord *data);
void setTalTempTableData(const TempRecord *data);
void setTalFanTableData(const FanRecord *data);
void setTalAmpChannelTableData(const AmpChannelRecord *data);
void setTalControlOutputTableData(const ControlOutputRecord *data);
void setTalControlInputTableData(const ControlInputRecord *data);
void setTalLetChannelTableData(LetRecord *data);
void setTalLineInTableData(const LineInRecord *data);
void setTalEthMonitoringTableData(const EthMonitoringRecord *data);
void setTalPowerTableData(const PowerRecord *data);
void setTalRelayTableData(const RelayRecord *data);

/// Calls all setters above.
void setTalTableData(TableRecords &records);

/// Copies the information record at `infoData` into the agent's copy.
void initInfoScalars();
