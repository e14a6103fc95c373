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
/// trapGate() is not open.
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
/// Opens the gate for traps again when it was closed by `passFull`.
int kaCheckAndProcess();

/// Replaces the content by every descriptor that the library waits for at present, ascending: its connection to the
/// master and its internal pipes. The set may change in every pass. Empty before the agent is started.
void kaDescriptors(std::vector<int> &descriptors);

/// Told when a session to the master agent opens (true) or closes (false): at the first connection, after a restart of
/// the master and when the library gives a session up. The call comes from inside the library, the first one possibly
/// from inside kaAgentStart(): queue what is to be done, send nothing from here. To be set before kaAgentStart().
using SessionCallback = void (*)(void *context, bool open);
void setSessionCallback(SessionCallback callback, void *context);

/// Most notifications handed to the library between two of its passes. Some 800 in one go fill the socket to the
/// master in both directions and block it and us for ever. Fewer when the master does not keep up with reading.
inline constexpr std::size_t trapsPerPass = 200;

/// Whether the trap sender takes a trap at present, whatever the trap. While it is not `open`, each call returns -1.
enum class TrapGate {
    open,
    noSession, ///< it would be dropped; opens with the session, which the session callback tells
    passFull,  ///< `trapsPerPass` are handed over, or the last call found that the master does not keep up or is gone;
               ///< opens with the next kaCheckAndProcess()
};
TrapGate trapGate();

/// A master that was told to end takes along what it has not read: from `true` on the gate is `noSession`, until the
/// session closes, a new one opens, or `false` is told. With `false` a session that is still open, to a master that did
/// not end, is told to the session callback once more.
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
