// The control socket: talctl's commands come in, replies go out.
#pragma once

#include "simulator/commandrunner.h"

#include <QLocalServer>
#include <QLocalSocket>
#include <QObject>
#include <QTimer>
#include <deque>

namespace simulator {

/// One request is a line with a JSON list of words, one reply a line like {"code":0,"text":""}. A reply goes out when
/// what the command changed has been handed to the clients of the data service that keep up.
class ControlConnection : public QObject {
    Q_OBJECT

public:
    ControlConnection(QObject *parent, QLocalSocket *socket, Device &device);

private Q_SLOTS:
    void onReadyRead();
    void proceed();

private:
    Reply replyTo(const QByteArray &line);

    QLocalSocket *m_socket;
    Device &m_device;
    std::deque<QByteArray> m_requests;
    QByteArray m_replies; // of commands that are done, held until the clients have been served
    QTimer m_nextTurn;    // more to do when everybody else has had a turn
};

class ControlServer : public QObject {
    Q_OBJECT

public:
    ControlServer(QObject *parent, Device &device);

    /// False, with the reason in `error`, when the socket cannot be served.
    bool listen(const QString &path, QString &error);

private Q_SLOTS:
    void onNewConnection();

private:
    Device &m_device;
    QLocalServer m_server;
};

} // namespace simulator
