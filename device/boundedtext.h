// The one way to copy a text into a fixed buffer.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string_view>

/// Copies as much of `text` as fits before a terminating zero, which is always written.
/// Returns the number of characters copied, without the terminator.
template <std::size_t size>
constexpr std::uint32_t copyBounded(char (&buffer)[size], std::string_view text)
{
    static_assert(size > 0);
    const std::size_t length = std::min(text.size(), size - 1);
    std::copy_n(text.data(), length, buffer);
    buffer[length] = '\0';
    return static_cast<std::uint32_t>(length);
}
