// The bytes of one input, read from the front, so that a change does not affect the bytes before it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

class Input {
public:
    explicit Input(std::string_view bytes) : m_rest(bytes) {}

    bool isEmpty() const { return m_rest.empty(); }

    /// A number of this many bytes; after the end of the input all bytes are zero.
    std::uint32_t number(std::size_t bytes = 1)
    {
        std::uint32_t value = 0;
        for (std::size_t i = 0; i < bytes; ++i) {
            const std::string_view byte = take(1);
            value = value << 8U | (byte.empty() ? 0U : static_cast<std::uint8_t>(byte[0]));
        }
        return value;
    }

    /// One byte as a number from 0 to `limit` - 1; `limit` is at most 256.
    std::uint32_t below(std::uint32_t limit) { return number() % limit; }

    /// Its length, a byte, and the text.
    std::string_view text() { return take(number()); }

private:
    std::string_view take(std::size_t length)
    {
        const std::string_view taken = m_rest.substr(0, length);
        m_rest.remove_prefix(taken.size());
        return taken;
    }

    std::string_view m_rest;
};
