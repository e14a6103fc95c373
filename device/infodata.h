// The information record: the device's identity. The application fills it, the information scalars serve it.
#pragma once

#include <cstdint>

/// A text served with its stored length. The application keeps it NUL-terminated (at most 127 characters).
struct InfoText {
    char text[128];
    std::uint32_t length; ///< characters, without a terminator
};

struct InfoNumber {
    std::int32_t value;
    std::uint32_t length; ///< bytes of `value`: 4, or 0 while nothing is stored
};

struct InfoData {
    InfoText packageVersion;
    InfoText modelType;
    InfoNumber modelNumber;
    InfoText amplifierType;
    InfoText kernelVersion;
    InfoText deviceTreeVersion;
    InfoNumber disablement;
};
