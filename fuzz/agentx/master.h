// The master agent that the fuzz target plays: it opens its socket, answers what the sub-agent asks of it, well or
// badly, sends what it is given, and keeps the account of which request was answered by what.
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

/// How the master answers one PDU of the sub-agent that expects an answer.
enum class Reply : std::uint8_t {
    good,
    error,
    silence,
    hangUp,
    twice,
    wrongPacketFirst, ///< then the right one
    requestFirst,     ///< a GetNext comes before the answer
    inPieces,         ///< in two writes
    malformed,        ///< a varbind list that breaks off
    withVarbinds,
    otherByteOrder,
};
inline constexpr std::size_t replies = 11;

/// Requests below have numbers of the input's own choice, which can stand for two.
inline constexpr std::uint32_t firstUniquePacket = 0x40000000;

/// A request that went out whole.
struct Asked {
    Pdu request;
    bool must; ///< it has to be answered exactly once; otherwise it may be
    std::optional<Pdu> answer;
};

class Master {
public:
    explicit Master(const std::string &socketPath);
    Master(const Master &) = delete;
    Master &operator=(const Master &) = delete;

    /// Accepts a connection, writes the next chunk, reads and answers what came. To be called whenever the sub-agent
    /// looks for something to read.
    void serve();

    /// Queues bytes that go out in one write (as far as they fit into the socket).
    void send(std::string_view chunk);
    bool hasSentAll() const { return m_chunks.empty(); }

    bool hasSession() const { return m_session != 0; }
    std::uint32_t session() const { return m_session; }

    void hangUp();

    /// The next answers; after the last one all are good again.
    void setReplies(std::deque<Reply> plan) { m_plan = std::move(plan); }

    /// False while half a PDU is out, and from a broken length to the next connection.
    bool isInStep() const { return m_connection >= 0 && m_inStep && m_sent.empty(); }

    /// The sub-agent waited in vain, so the library may have dropped what it had in hand.
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
    std::string m_sent; ///< the part of a PDU that went out without its rest
    std::string m_received;
    bool m_inStep = true;
    bool m_kept = true; ///< nothing was done on this connection that gives a reason to close it
    std::vector<Asked> m_asked;
    std::vector<Pdu> m_notifications;
};
