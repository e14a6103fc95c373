// Texts with a limited length: copied into a fixed buffer, or truncated.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string_view>

/// Copies the part of `text` that fits before a terminating zero, which is always written.
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

/// The longest beginning of a UTF-8 text with at most `size` bytes and only complete characters.
constexpr std::string_view utf8Prefix(std::string_view text, std::size_t size)
{
    if (text.size() <= size)
        return text;
    constexpr int mask = 0xC0; // of a byte inside a character, 10xxxxxx
    constexpr int inside = 0x80;
    while (size > 0 && (static_cast<unsigned char>(text[size]) & mask) == inside)
        --size;
    return text.substr(0, size);
}
