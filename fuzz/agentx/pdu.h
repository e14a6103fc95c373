// Writes and reads AgentX PDUs (RFC 2741) like a master, but stricter than the agent library.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// An object identifier. The order of vectors is that of object identifiers.
using Name = std::vector<std::uint32_t>;

/// The null identifier of the protocol; as the end of a range it means no end.
inline const Name nullName{0, 0};

enum class PduType : std::uint8_t {
    open = 1,
    close,
    enroll, ///< Register, which is a keyword
    unregister,
    get,
    getNext,
    getBulk,
    testSet,
    commitSet,
    undoSet,
    cleanupSet,
    notify,
    ping,
    indexAllocate,
    indexDeallocate,
    addAgentCaps,
    removeAgentCaps,
    response,
};

inline constexpr std::uint8_t nonDefaultContext = 0x08;
inline constexpr std::uint8_t networkByteOrder = 0x10;

namespace syntax {
inline constexpr std::uint16_t integer = 2;
inline constexpr std::uint16_t octetString = 4;
inline constexpr std::uint16_t null = 5;
inline constexpr std::uint16_t objectIdentifier = 6;
inline constexpr std::uint16_t ipAddress = 64;
inline constexpr std::uint16_t counter = 65;
inline constexpr std::uint16_t gauge = 66;
inline constexpr std::uint16_t timeTicks = 67;
inline constexpr std::uint16_t opaque = 68;
inline constexpr std::uint16_t counter64 = 70;
inline constexpr std::uint16_t unsigned32 = 71; ///< only in the library
inline constexpr std::uint16_t noSuchObject = 128;
inline constexpr std::uint16_t noSuchInstance = 129;
inline constexpr std::uint16_t endOfMibView = 130;
} // namespace syntax

struct Range {
    Name start;
    Name end = nullName;
    bool include = false;
};

struct Varbind {
    std::uint16_t type;
    Name name;
    std::string value; ///< numbers and arcs in network byte order, regardless of the PDU's

    bool operator==(const Varbind &) const = default;
};

struct Header {
    PduType type = PduType::response;
    std::uint8_t flags = networkByteOrder;
    std::uint32_t session = 0;
    std::uint32_t transaction = 0;
    std::uint32_t packet = 0;
};

inline constexpr std::size_t headerSize = 20;

/// Writes one PDU.
class PduWriter {
public:
    explicit PduWriter(const Header &header, std::string_view context = {});

    void number(std::uint32_t value, std::size_t bytes = 4);
    void name(const Name &name, bool include = false);
    void text(std::string_view bytes); ///< a length, the bytes, the padding
    void raw(std::string_view bytes) { m_bytes.append(bytes); }
    void range(const Range &range);

    /// The PDU with its length, or with another length.
    std::string finish(std::optional<std::uint32_t> length = {});

private:
    std::string numberBytes(std::uint32_t value, std::size_t bytes) const;

    std::string m_bytes;
    bool m_networkOrder;
};

/// A parsed PDU: its used members depend on its type.
struct Pdu {
    Header header;
    std::string context;
    std::uint16_t error = 0;          ///< of a response
    std::uint16_t index = 0;          ///< of a response
    std::uint16_t nonRepeaters = 0;   ///< of a GetBulk
    std::uint16_t maxRepetitions = 0; ///< of a GetBulk
    std::vector<Range> ranges;        ///< of a Get, GetNext, GetBulk
    std::vector<Varbind> varbinds;    ///< of a response, TestSet, Notify
};

/// The length in the header, which does not count the header.
std::uint32_t payloadLength(std::string_view frame);

Header parseHeader(std::string_view frame);

/// The PDU in a line, to analyse a finding.
std::string describe(const Pdu &pdu);

/// The context in a frame, complete or truncated; nothing without one.
std::optional<std::string> contextOf(std::string_view frame);

/// Nothing if `frame` is not one whole PDU. Ignores the payloads of types without a member in Pdu.
std::optional<Pdu> parsePdu(std::string_view frame);
