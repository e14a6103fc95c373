// The simulated master agent.
#include "agentx/master.h"

#include "support.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {
constexpr std::uint16_t notOpen = 257;
constexpr std::size_t longestPdu = 65536; // a master drops longer ones

std::string response(const Header &request, std::uint32_t session, std::uint16_t error, std::string_view varbinds = {})
{
    Header header = request;
    header.type = PduType::response;
    header.flags = request.flags & networkByteOrder;
    header.session = session;
    PduWriter writer(header);
    writer.number(1); // sysUpTime
    writer.number(error, 2);
    writer.number(0, 2);
    writer.raw(varbinds);
    return writer.finish();
}

bool isRequestToAnswer(const Pdu &pdu)
{
    return !pdu.ranges.empty() && pdu.header.packet >= firstUniquePacket; // a Get, GetNext or GetBulk
}

void trace(const char *who, std::string_view frame)
{
    static const bool isWanted = std::getenv("KVSNMP_FUZZ_TRACE") != nullptr;
    if (isWanted)
        std::fprintf(stderr, "%s%s\n", who,
                     describe(parsePdu(frame).value_or(Pdu{.header = parseHeader(frame)})).c_str());
}

bool isSet(const Header &header)
{
    return header.type >= PduType::testSet && header.type <= PduType::cleanupSet;
}
} // namespace

Master::Master(const std::string &socketPath) : m_listener(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0))
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    require(socketPath.size() < sizeof address.sun_path, "the path of the socket is short enough");
    std::memcpy(address.sun_path, socketPath.data(), socketPath.size());
    require(bind(m_listener, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0 &&
                listen(m_listener, 4) == 0,
            "the socket can be made");
}

void Master::serve()
{
    acceptConnection();
    readAgent(); // its answers are read before the next chunk
    writeChunk();
}

void Master::send(std::string_view chunk)
{
    if (m_connection >= 0 && !chunk.empty())
        m_chunks.emplace_back(chunk);
}

void Master::hangUp()
{
    if (m_connection >= 0) {
        // With unread data the sub-agent would get an error instead of the end, and the library would then leak an
        // address.
        char buffer[65536];
        while (recv(m_connection, buffer, sizeof buffer, 0) > 0)
            ;
        close(m_connection);
    }
    m_connection = -1;
    reset();
}

void Master::reset()
{
    m_session = 0;
    m_chunks.clear();
    m_isAccounted = false;
    m_sent.clear();
    m_received.clear();
    m_inStep = true;
    m_kept = true;
    m_asked.clear();
}

void Master::noteLapse()
{
    for (Asked &asked : m_asked)
        asked.must = false;
}

std::vector<Asked> Master::takeAsked()
{
    return std::exchange(m_asked, {});
}

std::vector<Pdu> Master::takeNotifications()
{
    return std::exchange(m_notifications, {});
}

void Master::acceptConnection()
{
    const int connection = accept4(m_listener, nullptr, nullptr, SOCK_NONBLOCK);
    if (connection < 0)
        return;
    hangUp();
    m_connection = connection;
}

void Master::writeChunk()
{
    if (m_chunks.empty())
        return;
    std::string &chunk = m_chunks.front();
    if (!m_isAccounted && !account(chunk)) {
        hangUp();
        return;
    }
    m_isAccounted = true;
    const ssize_t count = ::send(m_connection, chunk.data(), chunk.size(), MSG_NOSIGNAL);
    if (count < 0) {
        if (errno != EAGAIN)
            hangUp();
        return;
    }
    chunk.erase(0, static_cast<std::size_t>(count));
    if (chunk.empty()) {
        m_chunks.pop_front();
        m_isAccounted = false;
    }
}

/// PDUs for which the library misbehaves. Its master is trusted, and snmpd sends none of them.
bool Master::isUnbearable(std::string_view frame) const
{
    // A context name with a zero: the library copies the name up to the zero and later reads its whole length.
    const std::optional<std::string> context = contextOf(frame);
    if (context && context->find('\0') != std::string::npos)
        return true;
    // A part of a set before the answer to the previous one: if that ends the set, the library writes to freed memory.
    const Header header = parseHeader(frame);
    return isSet(header) && std::any_of(m_asked.begin(), m_asked.end(), [&header](const Asked &asked) {
               return isSet(asked.request.header) && asked.request.header.transaction == header.transaction &&
                      !asked.answer;
           });
}

/// Splits outgoing bytes into PDUs like the sub-agent, and records the requests. False if one of the PDUs makes the
/// library misbehave.
bool Master::account(std::string_view chunk)
{
    m_sent.append(chunk);
    while (m_inStep && m_sent.size() >= headerSize) {
        const std::size_t size = headerSize + payloadLength(m_sent);
        m_inStep = size <= INT32_MAX; // otherwise the sub-agent closes the connection
        if (!m_inStep || size > m_sent.size())
            break;
        const std::string frame = m_sent.substr(0, size);
        m_sent.erase(0, frame.size());
        trace("master: ", frame);
        if (isUnbearable(frame))
            return false;
        const std::optional<Pdu> pdu = parsePdu(frame);
        const bool must = pdu && isRequestToAnswer(*pdu);
        if (parseHeader(frame).type != PduType::response)
            m_asked.push_back({pdu.value_or(Pdu{.header = parseHeader(frame)}), must, {}});
    }
    return true;
}

void Master::readAgent()
{
    char buffer[65536];
    while (m_connection >= 0) {
        const ssize_t count = recv(m_connection, buffer, sizeof buffer, 0);
        if (count < 0 && errno == EAGAIN)
            break;
        if (count <= 0) {
            require(!m_kept || !isInStep(), "the sub-agent keeps a session in which nothing was broken");
            hangUp();
            break;
        }
        m_received.append(buffer, static_cast<std::size_t>(count));
        while (m_received.size() >= headerSize && m_received.size() - headerSize >= payloadLength(m_received)) {
            const std::string frame = m_received.substr(0, headerSize + payloadLength(m_received));
            m_received.erase(0, frame.size());
            handle(frame); // may close the connection
        }
    }
}

void Master::handle(std::string_view frame)
{
    const std::optional<Pdu> pdu = parsePdu(frame);
    trace("sub-agent: ", frame);
    require(pdu.has_value(), "every PDU of the sub-agent is well formed");
    if (pdu->header.type == PduType::response) {
        require(frame.size() <= longestPdu, "no answer is longer than a master takes");
        take(*pdu);
        return;
    }
    if (pdu->header.type == PduType::notify)
        m_notifications.push_back(*pdu);
    answer(*pdu);
}

void Master::take(const Pdu &response)
{
    bool known = false;
    for (Asked &asked : m_asked) {
        if (asked.request.header.packet != response.header.packet)
            continue;
        known = true;
        if (!asked.answer) {
            asked.answer = response;
            return;
        }
        known = !asked.must; // the library repeats a request after its timeout
    }
    require(known, "each answer belongs to a request that has none yet");
}

void Master::answer(const Pdu &request)
{
    Reply reply = Reply::good;
    if (!m_plan.empty()) {
        reply = m_plan.front();
        m_plan.pop_front();
    }
    m_kept = m_kept && reply == Reply::good;
    static std::uint32_t lastSession = 0;
    if (request.header.type == PduType::open)
        m_session = ++lastSession;
    Header header = request.header;
    switch (reply) {
    case Reply::good:
        send(response(header, m_session, 0));
        break;
    case Reply::error:
        send(response(header, m_session, notOpen));
        break;
    case Reply::silence:
        break;
    case Reply::hangUp:
        hangUp();
        break;
    case Reply::twice:
        send(response(header, m_session, 0) + response(header, m_session, 0));
        break;
    case Reply::wrongPacketFirst:
        ++header.packet;
        send(response(header, m_session, 0));
        send(response(request.header, m_session, 0));
        break;
    case Reply::requestFirst: {
        header.type = PduType::getNext;
        header.packet = 0x0FFFFFFF;
        PduWriter writer(header);
        writer.range({{1, 3, 6, 1, 4, 1, 52717}, nullName, false});
        send(writer.finish() + response(request.header, m_session, 0));
        break;
    }
    case Reply::inPieces: {
        const std::string whole = response(header, m_session, 0);
        send(whole.substr(0, headerSize + 2));
        send(whole.substr(headerSize + 2));
        break;
    }
    case Reply::malformed:
        send(response(header, m_session, 0, std::string_view("\0\2\0\0\7", 5)));
        break;
    case Reply::withVarbinds:
        send(response(header, m_session, 0, std::string(2, '\0') + std::string("\0\0\0\0\0\0\0", 7)));
        break;
    case Reply::otherByteOrder:
        header.flags ^= networkByteOrder;
        send(response(header, m_session, 0));
        break;
    }
}
