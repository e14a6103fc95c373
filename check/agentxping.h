// Asks whether a master agent serves its AgentX socket, without becoming a sub-agent.
#pragma once

#include <QByteArray>

struct AgentxAnswer {
    bool connected = false;
    int error = 0;         ///< errno of the connection when it failed
    bool answered = false; ///< with a response of the protocol
};

AgentxAnswer pingAgentx(const QByteArray &socketPath, int timeoutMs);

/// How many connections the master holds on that socket, as the kernel lists them.
int agentxConnections(const QByteArray &unixSockets, const QByteArray &socketPath);
