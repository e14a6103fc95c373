// Limits the length of messages on the connection to the master agent.
#include "agentlib/streamlimit.h"

#include "agentlib/masterconnection.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <utility>
#include <vector>

#include <poll.h>
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

constexpr int roundsAtOnce = 16; // before other work gets a turn

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
    std::size_t open;   // requests without an answer
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
            if (isRequest(connection.header[1]) && !connection.refused)
                ++connection.open;
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

/// Whether requests are pending in the library, which passes each to itself through pipes.
bool hasPendingRequests()
{
    static std::vector<pollfd> polled;
    polled.clear();
    for (const int pipe : internalPipes())
        polled.push_back({.fd = pipe, .events = POLLIN, .revents = 0});
    return poll(polled.data(), polled.size(), 0) > 0;
}

/// Lets the library read one descriptor. False if it was an empty pipe.
bool readFrom(int descriptor)
{
    static netsnmp_large_fd_set set = [] {
        netsnmp_large_fd_set empty;
        netsnmp_large_fd_set_init(&empty, FD_SETSIZE);
        return empty;
    }();
    NETSNMP_LARGE_FD_ZERO(&set);
    NETSNMP_LARGE_FD_SET(descriptor, &set);
    snmp_read2(&set); // removes a pipe that held a message
    return netsnmp_large_fd_is_set(descriptor, &set) == 0;
}

/// The library takes one pending request in a pass, but reads new ones in each. Unread ones make the master wait.
bool mustWait()
{
    if (connection.taken < mostPending)
        return false;
    const bool pending = hasPendingRequests();
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
    if (type == response && connection.open > 0)
        --connection.open;
    if (size <= static_cast<int>(longestMessage) || type != response)
        return connection.send(transport, message, size, opaque, opaqueLength);
    sendRefusal(transport, data);
    return size;
}
} // namespace

bool serveReadable(int descriptor)
{
    if (!neverWaits(descriptor))
        return false;
    readFrom(descriptor);
    serveTaken();
    return true;
}

void serveTaken()
{
    bool found = true;
    for (int round = 0; round < roundsAtOnce && found && connection.open > 0; ++round) {
        found = false;
        // In the order of their creation: first that of the requests. A request may end the session.
        for (std::size_t at = 0; connection.open > 0 && at < internalPipes().size(); ++at)
            found = readFrom(internalPipes()[at]) || found;
    }
}

void limitStream(netsnmp_transport &transport, netsnmp_session *session)
{
    connection = {};
    connection.session = session;
    connection.receive = std::exchange(transport.f_recv, receiveLimited);
    connection.send = std::exchange(transport.f_send, sendLimited);
}
