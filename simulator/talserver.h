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
    /// What one client may let pile up.
    static constexpr qint64 defaultMaxQueue = qint64{32} * 1024 * 1024;

    /// Becomes the tree's listener.
    TalServer(QObject *parent, DataTree &tree, qint64 maxQueue = defaultMaxQueue);

    /// False, with the reason in `error`, when the socket cannot be served.
    bool listen(const QString &path, QString &error);

    const std::vector<Session *> &sessions() const { return m_sessions; }
    /// Hands what waits to the sockets, as far as they take it.
    void flush();
    /// Bytes waiting for the clients that keep up.
    qint64 owed() const;

Q_SIGNALS:
    /// owed() may have become less.
    void progressed();

private Q_SLOTS:
    void onNewConnection();

private:
    DataTree &m_tree;
    qint64 m_maxQueue;
    QLocalServer m_server;
    std::vector<Session *> m_sessions; // children of this object
    int m_lastNumber = 0;
};

/// Listens at `path`, readable and writable for all; a socket that nobody serves any more is taken over.
bool listenAt(QLocalServer &server, const QString &path, QString &error);

} // namespace simulator
