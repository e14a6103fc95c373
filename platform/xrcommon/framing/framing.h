// The framing of the data service's local protocol: one message is a text followed by one NUL byte.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

/// Longest message, without its NUL.
constexpr std::size_t maxMessageSize = std::size_t{4} * 1024 * 1024;

/// Splits bytes, in chunks of any size, into complete messages. It holds the bytes not yet taken: at most one
/// incomplete message of the maximum size if all messages are taken after each feed().
class MessageFraming {
public:
    enum class Outcome {
        Message,    ///< a complete message was returned
        Incomplete, ///< no message until more bytes are fed
        OverLong,   ///< the message is longer than maxMessageSize; no message until clear()
    };

    void feed(const char *bytes, std::size_t size);

    /// The next complete message, without its NUL; valid until the next call of any other member.
    Outcome next(std::string_view &message);

    /// Resets, for a new connection.
    void clear();

private:
    std::string m_bytes;
    std::size_t m_start = 0;   // first byte of the next message
    std::size_t m_scanned = 0; // no NUL between m_start and here
    bool m_overLong = false;
};
