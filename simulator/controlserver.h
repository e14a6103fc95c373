// The control socket: receives talctl's commands and sends replies.
#pragma once

#include "simulator/commandrunner.h"

#include <QLocalServer>
#include <QLocalSocket>
#include <QObject>
#include <QTimer>
#include <deque>

namespace simulator {

/// A request is a line with a JSON list of words, a reply a line like {"code":0,"text":""}. A reply is sent when the
/// command's changes have been delivered to the data service's clients, except slow ones.
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
    QByteArray m_replies; // of finished commands, held until the clients have been served
    QTimer m_nextTurn;    // more work after others have had a turn
};

class ControlServer : public QObject {
    Q_OBJECT

public:
    ControlServer(QObject *parent, Device &device);

    /// False, with the reason in `error`, if the socket cannot be served.
    bool listen(const QString &path, QString &error);

private Q_SLOTS:
    void onNewConnection();

private:
    Device &m_device;
    QLocalServer m_server;
};

} // namespace simulator
