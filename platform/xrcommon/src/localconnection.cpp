// The connection to the data service's local socket.
#include "localconnection.h"

#include <QDebug>
#include <QSocketNotifier>

#include <cerrno>
#include <cstring>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

constexpr int retryIntervalMs = 1000;
// Most bytes read in one turn of the event loop, about 16 single values, so that a flood of notifications does not
// block the rest of the program.
constexpr std::size_t readSize = 4096;

/// A connected socket, or -1 with errno set. A local socket connects at once or never.
int connectedSocket(const QByteArray &path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (static_cast<std::size_t>(path.size()) >= sizeof address.sun_path) {
        errno = ENAMETOOLONG;
        return -1;
    }
    std::memcpy(address.sun_path, path.constData(), static_cast<std::size_t>(path.size()));
    const int socket = ::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (socket < 0)
        return -1;
    if (::connect(socket, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
        const int error = errno;
        ::close(socket);
        errno = error;
        return -1;
    }
    return socket;
}

void retire(QSocketNotifier *&notifier, QObject *receiver)
{
    notifier->setEnabled(false);
    notifier->disconnect(receiver);
    notifier->deleteLater(); // it may be the sender of the current signal
    notifier = nullptr;
}

} // namespace

LocalConnection::LocalConnection(QObject *parent) : QObject(parent), m_path(qgetenv("TAL_SOCKET"))
{
    if (m_path.isEmpty())
        m_path = QByteArrayLiteral("/var/run/tal.sock");
    m_retry.setSingleShot(true);
    connect(&m_retry, &QTimer::timeout, this, &LocalConnection::open);
    m_retry.start(0);
}

LocalConnection::~LocalConnection()
{
    if (isConnected())
        close();
}

void LocalConnection::open()
{
    m_socket = connectedSocket(m_path);
    if (m_socket < 0) {
        if (!m_failureTold)
            qDebug().noquote() << "TalInterface: no connection to" << m_path << "yet:" << std::strerror(errno);
        m_failureTold = true;
        m_retry.start(retryIntervalMs);
        return;
    }
    m_failureTold = false;
    m_readable = new QSocketNotifier(m_socket, QSocketNotifier::Read, this);
    connect(m_readable, &QSocketNotifier::activated, this, &LocalConnection::readSome);
    m_writable = new QSocketNotifier(m_socket, QSocketNotifier::Write, this);
    m_writable->setEnabled(false);
    connect(m_writable, &QSocketNotifier::activated, this, &LocalConnection::writeSome);
    Q_EMIT connected();
}

void LocalConnection::close()
{
    retire(m_readable, this);
    retire(m_writable, this);
    ::close(m_socket);
    m_socket = -1;
    m_unsent = QByteArray();
}

void LocalConnection::lose(const char *reason)
{
    if (!isConnected())
        return;
    qDebug().noquote() << "TalInterface: connection closed:" << reason;
    close();
    m_retry.start(retryIntervalMs);
    Q_EMIT lost();
}

void LocalConnection::readSome()
{
    char bytes[readSize];
    const ssize_t count = ::recv(m_socket, bytes, sizeof bytes, 0);
    if (count > 0)
        Q_EMIT received(bytes, static_cast<std::size_t>(count));
    else if (count == 0)
        lose("by the data service");
    else if (errno != EAGAIN && errno != EINTR)
        lose(std::strerror(errno));
}

bool LocalConnection::send(const QByteArray &bytes)
{
    if (!isConnected())
        return false;
    if (bytes.size() > maxUnsent - m_unsent.size()) {
        lose("the data service does not take its requests");
        return false;
    }
    m_unsent += bytes;
    if (!m_writable->isEnabled())
        writeSome();
    return isConnected();
}

void LocalConnection::writeSome()
{
    const ssize_t count =
        ::send(m_socket, m_unsent.constData(), static_cast<std::size_t>(m_unsent.size()), MSG_NOSIGNAL);
    if (count < 0 && errno != EAGAIN && errno != EINTR)
        return lose(std::strerror(errno));
    if (count > 0)
        m_unsent.remove(0, static_cast<int>(count));
    m_writable->setEnabled(!m_unsent.isEmpty());
}
