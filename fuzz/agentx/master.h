// The master agent that the fuzz target simulates: it opens its socket, answers the sub-agent's requests correctly or
// not, sends given bytes, and records the answer to each request.
#pragma once

#include "agentx/pdu.h"

#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

/// The master's answer to one PDU of the sub-agent that requires an answer.
enum class Reply : std::uint8_t {
    good,
    error,
    silence,
    hangUp,
    twice,
    wrongPacketFirst, ///< then the right number
    requestFirst,     ///< a GetNext precedes the answer
    inPieces,         ///< in two writes
    malformed,        ///< a truncated varbind list
    withVarbinds,
    otherByteOrder,
};
inline constexpr std::size_t replies = 11;

/// Requests below have numbers from the input, which can repeat.
inline constexpr std::uint32_t firstUniquePacket = 0x40000000;

/// A completely sent request.
struct Asked {
    Pdu request;
    bool must; ///< it has to be answered exactly once; otherwise at most once
    std::optional<Pdu> answer;
};

class Master {
public:
    explicit Master(const std::string &socketPath);
    Master(const Master &) = delete;
    Master &operator=(const Master &) = delete;

    /// Accepts a connection, writes the next chunk, reads and answers received PDUs. Call whenever the sub-agent
    /// checks for data to read.
    void serve();

    /// Queues bytes for one write (as far as they fit into the socket).
    void send(std::string_view chunk);
    bool hasSentAll() const { return m_chunks.empty(); }

    bool hasSession() const { return m_session != 0; }
    std::uint32_t session() const { return m_session; }

    void hangUp();

    /// The next answers; after the last one all are correct.
    void setReplies(std::deque<Reply> plan) { m_plan = std::move(plan); }

    /// False after half a PDU, and from a broken length to the next connection.
    bool isInStep() const { return m_connection >= 0 && m_inStep && m_sent.empty(); }

    /// The sub-agent waited in vain, so the library may have dropped its current message.
    void noteLapse();

    std::vector<Asked> takeAsked();
    std::vector<Pdu> takeNotifications();

private:
    void acceptConnection();
    void writeChunk();
    bool account(std::string_view chunk);
    bool isUnbearable(std::string_view frame) const;
    void readAgent();
    void handle(std::string_view frame);
    void take(const Pdu &response);
    void answer(const Pdu &request);
    void reset();

    int m_listener;
    int m_connection = -1;
    std::uint32_t m_session = 0;
    std::deque<std::string> m_chunks;
    bool m_isAccounted = false; ///< the first chunk
    std::deque<Reply> m_plan;
    std::string m_sent; ///< the sent part of an incomplete PDU
    std::string m_received;
    bool m_inStep = true;
    bool m_kept = true; ///< this connection had no event that is a reason to close it
    std::vector<Asked> m_asked;
    std::vector<Pdu> m_notifications;
};
