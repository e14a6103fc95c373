// One request and its answer over a local socket, with a time limit.
#pragma once

#include <QByteArray>

struct LocalExchange {
    bool connected = false;
    int error = 0;    ///< errno of a failed connection
    QByteArray reply; ///< at least the requested length; shorter after the limit or if the peer has closed
};

/// Connects, sends `request` (which may be empty) and reads until `replySize` bytes have arrived.
LocalExchange exchange(const QByteArray &socketPath, const QByteArray &request, int replySize, int timeoutMs);
