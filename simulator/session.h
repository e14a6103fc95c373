// One client of the data service: its requests, its subscriptions and its outgoing queue.
#pragma once

#include "platform/xrcommon/framing/framing.h"
#include "simulator/subscriptions.h"

#include <QLocalSocket>
#include <QObject>
#include <QTimer>

namespace simulator {

class Session : public QObject {
    Q_OBJECT

public:
    /// Takes ownership of the socket. Drops a client with more than 32 MiB unread.
    Session(QObject *parent, QLocalSocket *socket, DataTree &tree, int number);

    int number() const { return m_number; }
    const std::vector<Subscription> &subscriptions() const { return m_subscriptions; }
    /// Bytes that the client has not yet read.
    qint64 queued() const { return m_dropped ? 0 : m_socket->bytesToWrite(); }
    /// False while the client reads nothing: commands do not wait for it.
    bool keepsUp() const { return !m_lagging; }

    void notify(const Change &change);
    void flush();
    /// Closes the connection and prints `reason`.
    void drop(const QString &reason);

Q_SIGNALS:
    void ended();
    void subscribed();
    /// The client has read something, or commands no longer wait for it.
    void progressed();

private Q_SLOTS:
    void onReadyRead();
    void onBytesWritten(qint64 bytes);
    void onLagCheck();

private:
    void serve(std::string_view message);
    void subscribe(const std::string &ref, pugi::xml_node request);
    void edit(pugi::xml_node request);
    void send(const std::string &message);

    QLocalSocket *m_socket;
    DataTree &m_tree;
    int m_number;
    MessageFraming m_framing;
    std::vector<Subscription> m_subscriptions;
    QTimer m_lagTimer;
    qint64 m_takenSinceCheck = 0;
    bool m_lagging = false;
    bool m_dropped = false;
};

} // namespace simulator
