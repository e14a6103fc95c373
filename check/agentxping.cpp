// Checks whether a master agent serves its AgentX socket, without becoming a sub-agent.
#include "check/agentxping.h"

#include "check/localexchange.h"

#include <QList>

namespace {

// The header of RFC 2741: version, type, flags, reserved, then session, transaction, packet and payload length. A ping
// for a session that was never opened: the master answers that it is not open, and stores nothing.
constexpr char ping[] = "\x01\x0d\x10\x00" // version 1, Ping-PDU, network byte order
                        "\x00\x00\x00\x00"
                        "\x00\x00\x00\x00"
                        "\x00\x00\x00\x01"
                        "\x00\x00\x00\x00";
constexpr int pingSize = sizeof ping - 1;
constexpr int headerSize = 20;
constexpr char version1 = 1;
constexpr char responsePdu = 18;

} // namespace

AgentxAnswer pingAgentx(const QByteArray &socketPath, int timeoutMs)
{
    const LocalExchange result = exchange(socketPath, QByteArray(ping, pingSize), headerSize, timeoutMs);
    const bool answered =
        result.reply.size() >= headerSize && result.reply[0] == version1 && result.reply[1] == responsePdu;
    return {result.connected, result.error, answered};
}

int agentxConnections(const QByteArray &unixSockets, const QByteArray &socketPath)
{
    // Num RefCount Protocol Flags Type St Inode Path; the master's ends have its path; state 03 is connected.
    constexpr int stateField = 5;
    constexpr int pathField = 7;
    int count = 0;
    for (const QByteArray &line : unixSockets.split('\n')) {
        const QList<QByteArray> fields = line.simplified().split(' ');
        if (fields.size() > pathField && fields[stateField] == "03" && fields[pathField] == socketPath)
            ++count;
    }
    return count;
}
