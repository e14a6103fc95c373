// A data service for tests: it keeps the received messages and sends what a test wants.
#pragma once

#include <QByteArray>
#include <QByteArrayList>
#include <QLocalServer>
#include <QPointer>
#include <QString>
#include <QTemporaryDir>

#include "platform/xrcommon/framing/framing.h"

class QLocalSocket;

/// Listens on a socket in a temporary folder and sets TAL_SOCKET to it. It reads from the newest connection only.
/// Nothing here blocks; the test waits, with QTRY_COMPARE and the like.
class TalPeer {
public:
    enum class Start { Listening, NotListening };

    explicit TalPeer(Start start = Start::Listening);
    ~TalPeer();
    Q_DISABLE_COPY(TalPeer)

    bool listen();   ///< as a data service that starts
    void shutDown(); ///< as a data service that ends: no connection, no socket in the file system

    int connections() const { return m_connections; } ///< accepted so far
    bool isConnected() const;
    void drop(); ///< closes the connection, not the socket

    void readNothing(); ///< from now on, as a data service that hangs; until readAgain()
    void readAgain();
    const QByteArrayList &messages() const { return m_messages; } ///< received, without their NUL, over all connections
    QByteArrayList takeMessages();

    void sendRaw(const QByteArray &bytes);   ///< without waiting, as far as the kernel accepts it
    void sendMessage(const QByteArray &xml); ///< the text and its NUL

private:
    void accept();
    void read();

    QTemporaryDir m_folder;
    QString m_path;
    QLocalServer m_server;
    QPointer<QLocalSocket> m_socket;
    MessageFraming m_framing;
    QByteArrayList m_messages;
    int m_connections = 0;
    bool m_reading = true;
};
