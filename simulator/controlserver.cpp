// The control socket.
#include "simulator/controlserver.h"

#include "simulator/messages.h"
#include "simulator/talserver.h"
#include "simulator/words.h"

#include <QJsonDocument>
#include <QJsonObject>

namespace simulator {

namespace {

constexpr qint64 maxLine = qint64{16} * 1024 * 1024; // a message of the greatest size, escaped
constexpr qint64 maxOwed = qint64{1024} * 1024; // with more than this waiting for clients, the next command also waits
constexpr int commandsPerTurn = 256;            // then others get a turn
constexpr std::size_t maxRequests = 65536;      // read ahead of the current command

QByteArray replyLine(const Reply &reply)
{
    const QJsonObject object{{QStringLiteral("code"), reply.code}, {QStringLiteral("text"), reply.text}};
    return QJsonDocument(object).toJson(QJsonDocument::Compact) + '\n';
}

} // namespace

ControlConnection::ControlConnection(QObject *parent, QLocalSocket *socket, Device &device)
    : QObject(parent), m_socket(socket), m_device(device)
{
    m_socket->setParent(this);
    m_socket->setReadBufferSize(maxLine);
    connect(m_socket, &QLocalSocket::readyRead, this, &ControlConnection::onReadyRead);
    connect(m_socket, &QLocalSocket::disconnected, this, &QObject::deleteLater);
    connect(&m_device.server, &TalServer::progressed, this, &ControlConnection::proceed, Qt::QueuedConnection);
    m_nextTurn.setSingleShot(true);
    connect(&m_nextTurn, &QTimer::timeout, this, &ControlConnection::onReadyRead);
    m_nextTurn.start();
}

void ControlConnection::onReadyRead()
{
    while (m_socket->canReadLine() && m_requests.size() < maxRequests)
        m_requests.push_back(m_socket->readLine());
    if (m_socket->bytesAvailable() >= maxLine && !m_socket->canReadLine()) {
        say(QStringLiteral("control connection closed: a line of more than %1 bytes").arg(maxLine));
        m_socket->abort();
        return;
    }
    proceed();
}

/// Runs waiting commands while the clients keep up, and sends the replies when the clients have been served.
void ControlConnection::proceed()
{
    for (int i = 0; i < commandsPerTurn && !m_requests.empty() && m_device.server.owed() <= maxOwed; ++i) {
        const QByteArray line = m_requests.front();
        m_requests.pop_front();
        m_replies += replyLine(replyTo(line));
    }
    m_device.server.flush();
    if (m_device.server.owed() == 0 && !m_replies.isEmpty()) {
        m_socket->write(m_replies);
        m_socket->flush();
        m_replies.clear();
    }
    if (m_requests.empty() ? !m_socket->canReadLine() : m_device.server.owed() > maxOwed)
        return; // the next bytes, or a client's progress, call this again
    m_nextTurn.start();
}

Reply ControlConnection::replyTo(const QByteArray &line)
{
    QString error;
    const std::optional<QStringList> words = splitWords(QString::fromUtf8(line), error);
    return words ? runCommand(m_device, *words) : Reply{Reply::Usage, error};
}

ControlServer::ControlServer(QObject *parent, Device &device) : QObject(parent), m_device(device)
{
    connect(&m_server, &QLocalServer::newConnection, this, &ControlServer::onNewConnection);
}

bool ControlServer::listen(const QString &path, QString &error)
{
    return listenAt(m_server, path, error);
}

void ControlServer::onNewConnection()
{
    while (QLocalSocket *socket = m_server.nextPendingConnection())
        new ControlConnection(this, socket, m_device);
}

} // namespace simulator
