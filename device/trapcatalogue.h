// The twenty traps: number, last arc of the notification, name, message identifiers. Three readers share the table:
// the data-service client (names), the fault handler (identifiers) and the trap sender (arcs).
#pragma once

#include <cstdint>
#include <iterator>
#include <span>
#include <string_view>

/// One trap that the agent can send.
struct Trap {
    std::uint32_t number;                     ///< 1 to 20, the fault handler's number
    std::uint32_t arc;                        ///< last sub-identifier of the notification; not always the number
    std::string_view name;                    ///< key of the enabled-trap map
    std::span<const std::string_view> msgIds; ///< identifiers of the system messages that raise it
};

namespace trapmessages {
// clang-format off
inline constexpr std::string_view coolingFan[]     = {"fan_not_running", "fan_speed_slow", "fan_speed_high"};
inline constexpr std::string_view missingModule[]  = {"amplifier_module_missing"};
inline constexpr std::string_view psuVoltage[]     = {"voltage_limit_high_alert", "voltage_limit_low_alert",
                                                      "voltage_limit_high_warning", "voltage_limit_low_warning"};
inline constexpr std::string_view lineVoltage[]    = {"line_voltage_fault"};
inline constexpr std::string_view let[]            = {"let_fail"};
inline constexpr std::string_view ampShutdown[]    = {"audio_channel_failed"};
inline constexpr std::string_view ampDisabled[]    = {"audio_channel_disabled"};
inline constexpr std::string_view speakerLine[]    = {"line_uncalibrated", "slm_com_fail", "incorrect_slm_version", "line_fault"};
inline constexpr std::string_view fuse[]           = {"fuse_broken"};
inline constexpr std::string_view controlOutput[]  = {"control_output_active_fail", "control_output_not_active_fail"};
inline constexpr std::string_view controlInput[]   = {"control_input_shorted", "control_input_disconnected"};
inline constexpr std::string_view dcPower[]        = {"dc_power_disconnected", "dc_power_not_monitored"};
inline constexpr std::string_view acPower[]        = {"ac_power_disconnected", "ac_power_not_monitored"};
inline constexpr std::string_view ethPort[]        = {"switch_port_1_down", "switch_port_2_down", "switch_port_down"};
inline constexpr std::string_view microphone[]     = {"station_mic_status", "phantom_mic_fail"};
inline constexpr std::string_view missingEmbdr[]   = {"expansion_module_missing"};
inline constexpr std::string_view software[]       = {"software_reboot"};
inline constexpr std::string_view temperature[]    = {"temp_fan_max_on", "temp_graceful_degradation_on",
                                                      "temp_alarm_high_on", "temp_warn_on"};
inline constexpr std::string_view custom[]         = {"custom_msg"};
inline constexpr std::string_view lineIn[]         = {"line_in_disconnected"};
// clang-format on
} // namespace trapmessages

// clang-format off
inline constexpr Trap trapCatalogue[] = { // numbers 7 to 10 and 20 differ from their arcs: intended
    { 1,  1, "Cooling Fan Fault",             trapmessages::coolingFan},
    { 2,  2, "Missing Amplifier Module",      trapmessages::missingModule},
    { 3,  3, "PSU Voltage Fault",             trapmessages::psuVoltage},
    { 4,  4, "Selected Line Voltage Fault",   trapmessages::lineVoltage},
    { 5,  5, "LET Fault",                     trapmessages::let},
    { 6,  6, "Amplifier Shutdown",            trapmessages::ampShutdown},
    { 7,  9, "Amplifier Disabled",            trapmessages::ampDisabled},
    { 8,  7, "Speaker Line Monitoring Fault", trapmessages::speakerLine},
    { 9,  8, "Fuse Broken",                   trapmessages::fuse},
    {10, 11, "RCO Fault",                     trapmessages::controlOutput},
    {11, 12, "RCI Fault",                     trapmessages::controlInput},
    {12, 13, "DC Power Fault",                trapmessages::dcPower},
    {13, 14, "AC Power Fault",                trapmessages::acPower},
    {14, 15, "ETH Port Disconnected",         trapmessages::ethPort},
    {15, 16, "Microphone Error",              trapmessages::microphone},
    {16, 17, "Missing EMBDR Module",          trapmessages::missingEmbdr},
    {17, 18, "Software Fault",                trapmessages::software},
    {18, 19, "Overtemperature",               trapmessages::temperature},
    {19, 20, "Custom Fault",                  trapmessages::custom},
    {20, 10, "Line In Fault",                 trapmessages::lineIn},
};
// clang-format on

static_assert(std::size(trapCatalogue) == 20);
static_assert(
    [] {
        for (std::uint32_t i = 0; i < std::size(trapCatalogue); ++i)
            if (trapCatalogue[i].number != i + 1)
                return false;
        return true;
    }(),
    "a trap's number is its place in the catalogue");
