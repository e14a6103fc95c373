// Converts a constant of the tables for Qt. The only header of this room that needs Qt.
#pragma once

#include <QLatin1String>

#include <string_view>

inline QLatin1String latin1(std::string_view text)
{
    return QLatin1String(text.data(), static_cast<int>(text.size()));
}
