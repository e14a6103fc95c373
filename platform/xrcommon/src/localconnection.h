// The connection to the data service's local socket: opens, reopens, reads and writes it, without knowledge of
// messages.
#pragma once

#include <QByteArray>
#include <QObject>
#include <QTimer>

#include <cstddef>

class QSocketNotifier;

/// Connects from the event loop and retries every second after a failure or a loss, without limit. Never blocks.
class LocalConnection : public QObject {
    Q_OBJECT

public:
    /// Most unread bytes of the service. Above this the connection is closed and reopened: a client repeats its
    /// requests after a new connection, but not after silently dropped requests.
    static constexpr int maxUnsent = 8 * 1024 * 1024;

    explicit LocalConnection(QObject *parent);
    ~LocalConnection() override;

    bool isConnected() const { return m_socket >= 0; }

    /// Sends the bytes to the service, now or as soon as it reads. False if they were dropped.
    bool send(const QByteArray &bytes);

    /// Closes the connection and reopens it a second later.
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
    bool m_failureTold = false; // a missing service is logged once
};
