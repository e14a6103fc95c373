// One question and its answer over a local socket, with a limit.
#pragma once

#include <QByteArray>

struct LocalExchange {
    bool connected = false;
    int error = 0;    ///< errno of the connection when it failed
    QByteArray reply; ///< at least the asked-for length, or shorter when the limit has passed or the peer has closed
};

/// Connects, sends `request` (which may be empty) and reads until `replySize` bytes are there.
LocalExchange exchange(const QByteArray &socketPath, const QByteArray &request, int replySize, int timeoutMs);
