// Checks whether a master agent serves its AgentX socket, without becoming a sub-agent.
#pragma once

#include <QByteArray>

struct AgentxAnswer {
    bool connected = false;
    int error = 0;         ///< errno of a failed connection
    bool answered = false; ///< with a response of the protocol
};

AgentxAnswer pingAgentx(const QByteArray &socketPath, int timeoutMs);

/// Number of the master's connections on that socket, from the kernel's list.
int agentxConnections(const QByteArray &unixSockets, const QByteArray &socketPath);
