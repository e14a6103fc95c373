// Statuses that the device does not report but that follow from others.
#pragma once

#include <cstdint>

/// Status of an amplifier channel: 1 unknown, 2 disabled, 3 ok, 4 class-D fault, 5 monitor fault.
constexpr std::uint32_t channelStatus(std::uint32_t classDStatus, std::uint32_t ampEnable,
                                      std::uint32_t ampMonitorStatus)
{
    if (classDStatus == 1)
        return 4;
    if (classDStatus != 2)
        return 1;
    if (ampEnable == 1)
        return 2;
    if (ampEnable != 2)
        return 1;
    if (ampMonitorStatus == 2)
        return 3;
    return ampMonitorStatus == 1 ? 5 : 1;
}

/// Status of a LET: 1 unknown, as its channel is not ok, 2 not enabled, 3 not reported missing, 4 missing; `current`
/// when the channel status says nothing.
constexpr std::uint32_t letStatus(std::uint32_t ampChannelStatus, std::uint32_t letEnabled, std::uint32_t letPresence,
                                  std::uint32_t current)
{
    if (ampChannelStatus == 3) {
        if (letEnabled != 1)
            return 2;
        return letPresence == 1 ? 4 : 3;
    }
    return ampChannelStatus >= 1 && ampChannelStatus <= 6 ? 1 : current;
}
