// Limits the length of messages on the connection to the master agent.
#include "agentlib/streamlimit.h"

#include "agentlib/innersessions.h"
#include "agentlib/masterconnection.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <utility>

#include <sys/socket.h>

namespace {
// AgentX (RFC 2741): each message begins with version, type, flags, a reserved byte, and four numbers of 4 bytes:
// session, transaction, packet, and the length of the rest.
constexpr std::size_t headerSize = 20;
constexpr std::size_t lengthAt = 16;
constexpr u_char firstRequest = 5; // Get, GetNext, GetBulk, TestSet: all PDUs with names and an answer
constexpr u_char lastRequest = 8;
constexpr u_char notify = 12;
constexpr u_char response = 18;
constexpr u_char networkByteOrder = 0x10;

constexpr bool isRequest(u_char type)
{
    return type >= firstRequest && type <= lastRequest;
}

bool isBigEndian(const u_char *header)
{
    return (header[2] & networkByteOrder) != 0;
}

std::uint64_t messageSize(const u_char *header)
{
    std::uint32_t length = 0;
    for (std::size_t place = 0; place < sizeof(length); ++place)
        length = length << 8 | header[lengthAt + (isBigEndian(header) ? place : sizeof(length) - 1 - place)];
    return headerSize + std::uint64_t{length};
}

/// The single connection: the library's functions, and the progress of the current incoming message.
struct Connection {
    decltype(netsnmp_transport::f_recv) receive;
    decltype(netsnmp_transport::f_send) send;
    u_char header[headerSize];
    std::size_t held;   // bytes of an incomplete header, not yet passed to the library
    std::uint64_t left; // bytes still to come
    bool refused;       // do not pass them to the library
    int unanswered;     // questions in a row
    std::size_t taken;  // bytes since the library was last idle
    netsnmp_session *session;
};
Connection connection = {};

/// The answer to a request with this header, or the replacement of an answer with this header.
void sendRefusal(netsnmp_transport *transport, const u_char *header)
{
    const bool bigEndian = isBigEndian(header);
    u_char refusal[headerSize + 8] = {}; // after the header: the sender's uptime, the error, the number of a name
    std::copy_n(header, lengthAt, refusal);
    refusal[1] = response;
    refusal[2] = bigEndian ? networkByteOrder : 0;
    refusal[lengthAt + (bigEndian ? 3 : 0)] = sizeof(refusal) - headerSize;
    refusal[headerSize + (bigEndian ? 5 : 4)] = SNMP_ERR_TOOBIG;
    refusal[headerSize + (bigEndian ? 7 : 6)] = 1;
    void *opaque = nullptr;
    int opaqueLength = 0;
    connection.send(transport, refusal, sizeof(refusal), &opaque, &opaqueLength);
}

/// As the library does for each request that it receives: it shows that the master is alive.
void postponePing()
{
    // The library keeps the number of the alarm in this field.
    if (connection.session != nullptr && connection.session->securityModel != SNMP_DEFAULT_SECMODEL)
        snmp_alarm_reset(static_cast<unsigned>(connection.session->securityModel));
}

/// Removes the refused messages from the data and returns the size of the rest.
std::size_t withoutRefused(netsnmp_transport *transport, u_char *data, std::size_t size)
{
    std::size_t kept = 0;
    for (std::size_t at = 0; at < size;) {
        if (connection.left == 0) {
            if (size - at < headerSize) {
                connection.held = size - at;
                std::copy_n(data + at, connection.held, connection.header);
                break;
            }
            std::copy_n(data + at, headerSize, connection.header);
            connection.left = messageSize(connection.header);
            if (connection.left > INT32_MAX) { // the library takes the length for a negative or a small one
                shutdown(transport->sock, SHUT_RDWR);
                return kept;
            }
            connection.refused =
                connection.left > longestMessage || (isRequest(connection.header[1]) && queuedOutput() > mostQueued);
            if (connection.header[1] == response)
                connection.unanswered = 0;
        }
        const std::size_t part = std::min<std::uint64_t>(connection.left, size - at);
        if (!connection.refused) {
            std::memmove(data + kept, data + at, part);
            kept += part;
        }
        at += part;
        connection.left -= part;
        if (connection.left == 0 && connection.refused && isRequest(connection.header[1])) {
            sendRefusal(transport, connection.header);
            postponePing();
        }
    }
    return kept;
}

/// The library takes one pending request in a pass, but reads new ones in each. Unread ones make the master wait.
bool mustWait()
{
    if (connection.taken < mostPending)
        return false;
    const bool pending = hasInnerMessages();
    if (!pending)
        connection.taken = 0;
    return pending;
}

int receiveLimited(netsnmp_transport *transport, void *buffer, int size, void **opaque, int *opaqueLength)
{
    auto *const data = static_cast<u_char *>(buffer);
    flushOutput(); // the library also reads while it waits for an answer
    if (mustWait()) {
        transport->flags |= NETSNMP_TRANSPORT_FLAG_EMPTY_PKT; // not the end of the stream
        return 0;
    }
    const std::size_t held = connection.held;
    std::copy_n(connection.header, held, data);
    const int received =
        connection.receive(transport, data + held, size - static_cast<int>(held), opaque, opaqueLength);
    if (received <= 0)
        return received;
    connection.held = 0;
    const std::size_t kept = withoutRefused(transport, data, held + static_cast<std::size_t>(received));
    connection.taken += kept;
    if (kept == 0) { // data was removed; not the end of the stream
        transport->flags |= NETSNMP_TRANSPORT_FLAG_EMPTY_PKT;
        SNMP_FREE(*opaque); // the library frees it only after a message
        *opaqueLength = 0;
    }
    return static_cast<int>(kept);
}

int sendLimited(netsnmp_transport *transport, const void *message, int size, void **opaque, int *opaqueLength)
{
    const auto *const data = static_cast<const u_char *>(message);
    const u_char type = data[1];
    if (type != response && type != notify && ++connection.unanswered > mostUnanswered) {
        shutdown(transport->sock, SHUT_RDWR);
        return -1;
    }
    if (size <= static_cast<int>(longestMessage) || type != response)
        return connection.send(transport, message, size, opaque, opaqueLength);
    sendRefusal(transport, data);
    return size;
}
} // namespace

void limitStream(netsnmp_transport &transport, netsnmp_session *session)
{
    connection = {};
    connection.session = session;
    connection.receive = std::exchange(transport.f_recv, receiveLimited);
    connection.send = std::exchange(transport.f_send, sendLimited);
}
