// talctl's side of the control socket; it blocks, and needs no event loop.
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

    /// Tries until it is connected or the time is up. False, with the reason in `error`.
    bool connectTo(const QString &path, double waitSeconds, QString &error);

    int descriptor() const { return m_fd; }
    /// False when the service has gone.
    bool send(const QStringList &words);
    /// A line of words, as the service splits them; without its line end.
    bool sendLine(QByteArray line);
    /// The next reply; nothing when the service has gone.
    std::optional<Reply> receive();
    /// The next reply if it can be had without another read.
    std::optional<Reply> takeReceived();
    /// Reads once. False when the service has gone.
    bool read();

private:
    int m_fd = -1;
    QByteArray m_received;
};

} // namespace simulator
