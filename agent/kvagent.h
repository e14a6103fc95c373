// The agent record and its start: how the rest of the program hands its data to the SNMP sub-agent.
// No type of the agent library stands here.
#pragma once

#include "device/infodata.h"
#include "device/tablerecords.h"

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

/// Sends one trap. `trapNumber` is 1 to 20; `level` is sent as it is; `time` is seconds since the epoch as a number,
/// empty for now. Returns 0 when the notification was handed to the library, -1 when it was refused: a bad argument, or
/// trapGate() did not admit it.
using SendTrap = int (*)(std::uint32_t trapNumber, const char *description, std::int32_t level, const char *time);

inline constexpr std::size_t systemNameSize = 256;

/// The one agent record. It owns nothing that its pointers point at; all of that lives as long as the process.
struct KvAgent {
    std::uint32_t modelNumber; ///< decides whether the MIB is registered and which rows exist
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

/// Null until the agent is started.
extern KvAgent *kvAgent;

/// Fills the record, registers the MIB modules of the model and connects to the master agent. To be called once.
void kaAgentStart(std::uint32_t modelNumber, std::uint8_t ampType, const char *modelText);

/// One non-blocking pass of the agent library. Above 0: it handled something; 0: nothing to do; below 0: an error.
/// Ends a pass of trapGate().
int kaCheckAndProcess();

/// Replaces the content by every descriptor that the library waits for at present, ascending: its connection to the
/// master and its internal pipes. The set may change in every pass. Empty before the agent is started.
void kaDescriptors(std::vector<int> &descriptors);

/// Call with `true` when snmpd was ordered to end, with `false` when the next one was started. Traps wait in between.
void setMasterEnding(bool ending);

/// Cuts the name to 256 bytes and terminates it. Does nothing before the agent is started.
void setSystemName(std::string_view latin1);

// Each setter stores the pointer and copies the values into the table's rows at once, the power and the relay setter
// excepted: those only store it. To be called after kaAgentStart().
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

/// Copies the information record, whose address was set in `infoData`, into the agent's own copy.
void initInfoScalars();
