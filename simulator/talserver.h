// The data service's local socket and its clients.
#pragma once

#include "simulator/session.h"

#include <QLocalServer>
#include <QObject>
#include <vector>

namespace simulator {

class TalServer : public QObject {
    Q_OBJECT

public:
    /// Becomes the tree's listener.
    TalServer(QObject *parent, DataTree &tree);

    /// False, with the reason in `error`, if the socket cannot be served.
    bool listen(const QString &path, QString &error);

    const std::vector<Session *> &sessions() const { return m_sessions; }
    /// Writes waiting bytes to the sockets, as far as they accept them.
    void flush();
    /// Bytes waiting for clients, except slow ones.
    qint64 owed() const;

Q_SIGNALS:
    /// owed() may have decreased.
    void progressed();
    /// A client has made a subscription.
    void subscribed();

private Q_SLOTS:
    void onNewConnection();

private:
    DataTree &m_tree;
    QLocalServer m_server;
    std::vector<Session *> m_sessions; // children of this object
    int m_lastNumber = 0;
};

/// Listens at `path`, readable and writable for all; replaces an abandoned socket.
bool listenAt(QLocalServer &server, const QString &path, QString &error);

} // namespace simulator
