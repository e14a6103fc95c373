// The table records: the latest values of the device, written by the data-service client, read by the agent.
// Plain arrays; rows and channels count from 0. The agent and the client share one thread, so there are no locks.
#pragma once

#include <cstddef>
#include <cstdint>

inline constexpr std::size_t voltageSlots = 20;
inline constexpr std::size_t tempRows = 7;
inline constexpr std::size_t fanRows = 2;
inline constexpr std::size_t ampChannels = 2;
inline constexpr std::size_t controlOutputRows = 6;
inline constexpr std::size_t controlInputRows = 14;
inline constexpr std::size_t letsPerChannel = 10;
inline constexpr std::size_t lineInRows = 2;
inline constexpr std::size_t ethPorts = 2;
inline constexpr std::size_t powerSources = 2;
inline constexpr std::size_t relayRows = 12;

/// The origin of a measured value.
enum class Reading : std::uint8_t {
    None,     ///< not reported yet, deleted, or with more decimals than the record has
    Number,   ///< the data service has reported this number
    TooLarge, ///< it has reported a larger number than the record can hold
    NoNumber, ///< it has reported another text; the value is what its digits give
};

struct Measured {
    std::uint32_t value;
    Reading reading;
};

/// Thousandths of a volt, by the data service's voltage-line number.
struct VoltageRecord {
    Measured values[voltageSlots];
};

/// Tenths of a degree.
struct TempRow {
    Measured current;
    std::uint32_t peak;
    std::uint32_t average;
};

struct TempRecord {
    TempRow rows[tempRows];
};

/// Revolutions per minute.
struct FanRecord {
    Measured values[fanRows];
};

struct AmpChannelRow {
    std::uint32_t status;           ///< derived: 1 unknown, 2 disabled, 3 ok, 4 class-D fault, 5 monitor fault
    std::uint32_t lineState;        ///< 0 until reported, then 1 to 15
    std::uint32_t ampEnable;        ///< 0 until reported, 1 disabled, 2 enabled
    std::uint32_t ampMonitorStatus; ///< 3 until reported, then 1 or 2 from the amplifier monitor
};

struct AmpChannelRecord {
    AmpChannelRow rows[ampChannels];
};

struct ControlOutputRecord {
    std::uint32_t status[controlOutputRows];
};

struct ControlInputRow {
    std::uint32_t status;
    std::uint32_t monitored;
};

struct ControlInputRecord {
    ControlInputRow rows[controlInputRows];
};

/// The values of a LET entry stored since the agent's last copy: 1 changed, 0 not.
struct LetChanges {
    std::uint8_t status;
    std::uint8_t description;
    std::uint8_t softwareVersion;
    std::uint8_t hardwareVersion;
    std::uint8_t voltage;
};

/// One line end transponder (LET).
struct LetEntry {
    std::uint32_t letStatus;   ///< derived: 1 unknown, 2 not enabled, 3 not reported missing, 4 missing
    std::uint32_t letPresence; ///< 0 until reported; from the amplifier monitor: 1 missing, 2 present
    std::uint32_t letEnabled;  ///< 0 until reported, 1 enabled, 2 not
    char description[128];
    char softwareVersion[20];
    char hardwareVersion[20];
    std::uint32_t letVoltage; ///< thousandths of a volt
    LetChanges changed;
};

struct LetRecord {
    LetEntry lets[ampChannels][letsPerChannel];
};

struct LineInRow {
    std::uint32_t lineInStatus; ///< pilot tone state
    std::uint32_t micStatus;
    std::uint32_t lineInMonitoring;
};

struct LineInRecord {
    LineInRow rows[lineInRows];
};

struct EthMonitoringRecord {
    std::uint32_t monitored[ethPorts];
};

struct PowerRow {
    std::uint32_t liveStatus; ///< 1 unknown, 2 not live, 3 live
    std::uint32_t monitored;
};

/// Row 0 is the source "ac_power", row 1 "dc_power".
struct PowerRecord {
    PowerRow rows[powerSources];
};

struct RelayRow {
    std::uint32_t status;
    std::uint32_t idleMode;
    std::uint32_t delay; ///< in the data service's unit
};

struct RelayRecord {
    RelayRow rows[relayRows];
};

/// All records; the data-service client owns them.
struct TableRecords {
    VoltageRecord voltage;
    TempRecord temp;
    FanRecord fan;
    AmpChannelRecord ampChannel;
    ControlOutputRecord controlOutput;
    ControlInputRecord controlInput;
    LetRecord let;
    LineInRecord lineIn;
    EthMonitoringRecord ethMonitoring;
    PowerRecord power;
    RelayRecord relay;
};
