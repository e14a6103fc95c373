// talctl's side of the control socket; blocking, without an event loop.
#pragma once

#include "simulator/commands.h"

#include <QByteArray>
#include <QStringList>
#include <optional>

namespace simulator {

class ControlClient {
public:
    ControlClient() = default;
    ~ControlClient();
    ControlClient(const ControlClient &) = delete;
    ControlClient &operator=(const ControlClient &) = delete;

    /// Retries until it is connected or the time is over. False, with the reason in `error`, on failure.
    bool connectTo(const QString &path, double waitSeconds, QString &error);

    int descriptor() const { return m_fd; }
    /// False if the service is gone.
    bool send(const QStringList &words);
    /// Sends a line of words, which the service splits; without its line end.
    bool sendLine(QByteArray line);
    /// The next reply; nothing if the service is gone.
    std::optional<Reply> receive();
    /// The next reply, if it is already read.
    std::optional<Reply> takeReceived();
    /// Reads once. False if the service is gone.
    bool read();

private:
    int m_fd = -1;
    QByteArray m_received;
};

} // namespace simulator
