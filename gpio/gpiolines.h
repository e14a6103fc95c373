// The GPIO lines of the station models, the order of their checks, and the meaning of a line's values.
#pragma once

#include "device/models.h"
#include "device/tablerecords.h"

#include <cstdint>
#include <optional>
#include <span>

inline constexpr std::uint32_t maxGpios = controlInputRows; ///< GPIO ids 0 to 13; 0 to 5 without the expanders
inline constexpr std::uint32_t maxRelays = relayRows; ///< relay ids 0 to 3 on single lines, 4 to 11 on the expander

/// The I2C expander of a line.
enum class Expander : std::uint8_t { None, At0x21, At0x22 };

/// Consecutive ids and their lines. Lines on an expander exist only on devices with expanders.
struct LineSet {
    ModelSet models;
    Expander expander;
    std::uint32_t firstId;
    std::span<const int> lines;
};

namespace linenumbers {
// clang-format off
inline constexpr int gpios[]          = {168, 169, 170, 171, 172, 173};
inline constexpr int gpios6891[]      = {504, 505, 506, 507, 508, 509}; // the same lines plus 336
inline constexpr int expanderGpios[]  = {192, 193, 194, 195, 196, 197, 198, 199};
inline constexpr int expanderRelays[] = {176, 177, 178, 179, 180, 181, 182, 183};
inline constexpr int oneRelay[]       = {174};
inline constexpr int oneRelay6891[]   = {510};
inline constexpr int fourRelays[]     = {175, 174, 84, 85};
// clang-format on
} // namespace linenumbers

/// Lines are created in the order of the two tables.
// clang-format off
inline constexpr LineSet gpioLines[] = { // models, expander, first GPIO id, lines
    {{6211, 6214, 6259}, Expander::None,   0, linenumbers::gpios},
    {{6891},             Expander::None,   0, linenumbers::gpios6891},
    {gpioModels,         Expander::At0x22, 6, linenumbers::expanderGpios},
};
inline constexpr LineSet relayLines[] = { // models, expander, first relay id, lines
    {gpioModels,         Expander::At0x21, 4, linenumbers::expanderRelays},
    {{6211},             Expander::None,   0, linenumbers::oneRelay},
    {{6891},             Expander::None,   0, linenumbers::oneRelay6891},
    {fourRelayModels,    Expander::None,   0, linenumbers::fourRelays},
};
// clang-format on

constexpr bool deviceHas(const LineSet &set, std::uint32_t model, bool expanders)
{
    return set.models.contains(model) && (expanders || set.expander == Expander::None);
}

// The check cycle: steps 0 to 13 check the GPIO of that id, steps 14 to 25 the relays 0 to 11.
inline constexpr std::uint32_t firstRelayStep = maxGpios;
inline constexpr std::uint32_t endOfSteps = firstRelayStep + maxRelays;

/// The step after `step` on a device of this model. A cycle starts at step 0 and skips missing lines.
constexpr std::uint32_t nextStep(std::uint32_t step, std::uint32_t model, bool expanders)
{
    constexpr std::uint32_t firstExpanderRelayStep = firstRelayStep + 4;
    switch (step) {
    case 5: // the last GPIO of the controller
        return expanders ? 6 : firstRelayStep;
    case firstRelayStep: // the only single relay of some models
        if (fourRelayModels.contains(model))
            return firstRelayStep + 1;
        return expanders ? firstExpanderRelayStep : 0;
    case firstExpanderRelayStep - 1: // the last of four single relays
        return expanders ? firstExpanderRelayStep : 0;
    default:
        return step + 1 < endOfSteps ? step + 1 : 0;
    }
}

static_assert(
    [] {
        for (const LineSet &set : gpioLines)
            if (set.firstId + set.lines.size() > maxGpios)
                return false;
        for (const LineSet &set : relayLines)
            if (set.firstId + set.lines.size() > maxRelays)
                return false;
        return true;
    }(),
    "every line has an id");

inline constexpr std::uint32_t unknownStatus = 1; ///< also the status of an unused line

/// The status of a line with this value; none for an impossible value.
constexpr std::optional<std::uint32_t> statusOf(std::uint32_t value)
{
    switch (value) {
    case 0:
        return 2;
    case 1:
        return 3;
    case 255: // the line cannot be read
        return unknownStatus;
    default:
        return std::nullopt;
    }
}

/// The use of a GPIO from the data service; 0 until reported.
enum GpioType : std::uint32_t { NotConfigured = 0, Input = 1, Output = 2, NotUsed = 3 };

/// The statuses to report for one GPIO, each only if it has a value; the input's first.
struct GpioReport {
    std::optional<std::uint32_t> input;
    std::optional<std::uint32_t> output;
};

constexpr GpioReport reportOf(std::uint32_t gpioType, std::uint32_t value)
{
    switch (gpioType) {
    case Input:
        return {statusOf(value), std::nullopt};
    case Output:
        return {std::nullopt, statusOf(value)};
    case NotUsed: // regardless of the line's value
        return {unknownStatus, unknownStatus};
    default:
        return {};
    }
}
