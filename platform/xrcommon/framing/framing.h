// The framing of the data service's local protocol: one message is a text followed by one NUL byte.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

/// A message without its NUL may not be longer than this.
constexpr std::size_t maxMessageSize = 4 * 1024 * 1024;

/// Fed with bytes in any chunking, it gives whole messages back. It holds what was fed and not yet taken: at most one
/// unfinished message of the greatest size when all messages are taken after each feed().
class MessageFraming {
public:
    enum class Outcome {
        Message,    ///< a whole message was given
        Incomplete, ///< nothing more until more bytes are fed
        OverLong,   ///< the message is longer than maxMessageSize; nothing more is given until clear()
    };

    void feed(const char *bytes, std::size_t size);

    /// The next whole message, without its NUL; it is valid until the next call of any other member.
    Outcome next(std::string_view &message);

    /// Forgets everything, as for a new connection.
    void clear();

private:
    std::string m_bytes;
    std::size_t m_start = 0;   // first byte of the message that comes next
    std::size_t m_scanned = 0; // no NUL stands between m_start and here
    bool m_overLong = false;
};
