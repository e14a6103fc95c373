// The device models: their numbers, sets of them, and the station description check.
#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <iterator>
#include <string_view>

/// Every model number that the program accepts, ascending.
inline constexpr std::uint32_t knownModels[] = {
    6211, 6214, 6259, 6410, 6420, 6425, 6601, 6602, 6720, 6764, 6891, 6913, 6914,
};

/// Index of a model number in `knownModels`, or the number of known models for an unknown one.
constexpr std::size_t placeOfModel(std::uint32_t model)
{
    std::size_t place = 0;
    while (place < std::size(knownModels) && knownModels[place] != model)
        ++place;
    return place;
}

constexpr bool isKnownModel(std::uint32_t model)
{
    return placeOfModel(model) < std::size(knownModels);
}

/// A fixed set of known models. A number that is not a known model does not compile.
class ModelSet {
public:
    consteval ModelSet(std::initializer_list<std::uint32_t> models)
    {
        for (const std::uint32_t model : models) {
            if (!isKnownModel(model))
                throw "not a known model number";
            m_bits |= std::uint32_t{1} << placeOfModel(model);
        }
    }

    /// Instead of a test: contains every number, even an unknown one.
    static consteval ModelSet any()
    {
        ModelSet set{};
        set.m_any = true;
        return set;
    }

    /// False for an unknown model, except with any().
    constexpr bool contains(std::uint32_t model) const
    {
        return m_any || (isKnownModel(model) && ((m_bits >> placeOfModel(model)) & 1U) != 0);
    }

private:
    std::uint32_t m_bits = 0;
    bool m_any = false;
};

inline constexpr ModelSet noModelTest = ModelSet::any();

// clang-format off
inline constexpr ModelSet ampTypeModels      {6420, 6425, 6720, 6764};       ///< an amplifier or power type file is read
inline constexpr ModelSet gpioModels         {6211, 6214, 6259, 6891};       ///< GPIO lines and relays are verified
inline constexpr ModelSet fourRelayModels    {6214, 6259};                   ///< four relays without the expanders; other models have one
inline constexpr ModelSet twoChannelModels   {6420, 6425, 6720, 6764};       ///< two amplifier channels
inline constexpr ModelSet singleOutputModels {6211, 6214, 6259, 6601, 6602, 6891}; ///< one amplifier output, no channel data
inline constexpr ModelSet amplifierModels    {6410, 6420, 6425, 6720, 6764}; ///< measured values, an amplifier monitor on the bus
inline constexpr ModelSet letModels          {6420, 6720, 6764};             ///< line end transponders
inline constexpr ModelSet ethMonitoringModels{6214, 6259, 6410, 6420, 6425, 6601, 6602, 6720, 6764, 6913, 6914};
inline constexpr ModelSet pilotToneModels    {6410, 6420, 6425};             ///< line inputs monitored by a pilot tone
inline constexpr ModelSet microphoneModels   {6214, 6259, 6601, 6602};       ///< microphones instead of line inputs
inline constexpr ModelSet bothPowerModels    {6410, 6420};                   ///< an AC and a DC power source
inline constexpr ModelSet acPowerOnlyModels  {6720, 6764};                   ///< only the AC one
inline constexpr ModelSet dcPowerOnlyModels  {6425};                         ///< only the DC one
inline constexpr ModelSet powerTypeModels    {6764};                         ///< the type is that of the power supply
// clang-format on

/// True when the model text is exactly one of the two station descriptions that have the external relay and input
/// expanders. Null is not one of them.
constexpr bool hasExpanders(const char *modelText)
{
    if (modelText == nullptr)
        return false;
    const std::string_view text{modelText};
    return text == "Orvane Brisel Compact - IP-QRM-B" || text == "Orvane Brisel Extended - IP-QRM-B";
}
