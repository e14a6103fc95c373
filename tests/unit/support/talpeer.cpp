// A data service for tests.
#include "support/talpeer.h"

#include <QLocalSocket>

TalPeer::TalPeer(Start start) : m_path(m_folder.filePath(QStringLiteral("tal.sock")))
{
    qputenv("TAL_SOCKET", m_path.toLocal8Bit());
    QObject::connect(&m_server, &QLocalServer::newConnection, &m_server, [this] { accept(); });
    if (start == Start::Listening)
        listen();
}

TalPeer::~TalPeer()
{
    shutDown();
    qunsetenv("TAL_SOCKET");
}

bool TalPeer::listen()
{
    return m_server.listen(m_path);
}

void TalPeer::shutDown()
{
    m_server.close();
    drop();
}

bool TalPeer::isConnected() const
{
    return m_socket && m_socket->state() == QLocalSocket::ConnectedState;
}

void TalPeer::drop()
{
    if (m_socket) {
        m_socket->disconnect(&m_server);
        m_socket->abort();
        m_socket->deleteLater();
    }
    m_socket = nullptr;
}

void TalPeer::readNothing()
{
    m_reading = false;
    if (m_socket)
        m_socket->setReadBufferSize(1);
}

void TalPeer::readAgain()
{
    m_reading = true;
    if (m_socket)
        m_socket->setReadBufferSize(0);
    read();
}

QByteArrayList TalPeer::takeMessages()
{
    return std::exchange(m_messages, {});
}

void TalPeer::sendRaw(const QByteArray &bytes)
{
    if (!isConnected())
        return;
    m_socket->write(bytes);
    m_socket->flush();
}

void TalPeer::sendMessage(const QByteArray &xml)
{
    sendRaw(xml + '\0');
}

void TalPeer::accept()
{
    drop();
    m_framing.clear();
    m_socket = m_server.nextPendingConnection();
    ++m_connections;
    if (!m_reading)
        m_socket->setReadBufferSize(1);
    QObject::connect(m_socket, &QLocalSocket::readyRead, &m_server, [this] { read(); });
    read();
}

void TalPeer::read()
{
    if (!m_socket || !m_reading)
        return;
    const QByteArray bytes = m_socket->readAll();
    m_framing.feed(bytes.constData(), static_cast<std::size_t>(bytes.size()));
    std::string_view message;
    while (m_framing.next(message) == MessageFraming::Outcome::Message)
        m_messages << QByteArray(message.data(), static_cast<int>(message.size()));
}
