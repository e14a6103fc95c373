// The connection to the data service's local socket: it opens, reopens, reads and writes, and knows nothing of
// messages.
#pragma once

#include <QByteArray>
#include <QObject>
#include <QTimer>

#include <cstddef>

class QSocketNotifier;

/// Connects from the event loop, and after a failure or a loss again every second, for ever. Nothing here blocks.
class LocalConnection : public QObject {
    Q_OBJECT

public:
    /// What the service has not yet taken. A service that lets more than this pile up is given up, and the connection
    /// opened anew: whoever is told of that asks again for what it needs, which silently dropped requests never are.
    static constexpr int maxUnsent = 8 * 1024 * 1024;

    explicit LocalConnection(QObject *parent);
    ~LocalConnection() override;

    bool isConnected() const { return m_socket >= 0; }

    /// Hands the bytes to the service, now or as soon as it takes them. False when they were dropped.
    bool send(const QByteArray &bytes);

    /// Closes the connection; it is opened anew a second later.
    void lose(const char *reason);

Q_SIGNALS:
    void connected();
    void received(const char *bytes, std::size_t size);
    void lost();

private:
    void open();
    void close();
    void readSome();
    void writeSome();

    QByteArray m_path;
    QTimer m_retry;
    int m_socket = -1;
    QSocketNotifier *m_readable = nullptr;
    QSocketNotifier *m_writable = nullptr;
    QByteArray m_unsent;
    bool m_failureTold = false; // a service that stays away is told of once
};
