// talctl's side of the control socket.
#include "simulator/controlclient.h"

#include <QElapsedTimer>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <cerrno>
#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

namespace simulator {

ControlClient::~ControlClient()
{
    if (m_fd >= 0)
        ::close(m_fd);
}

bool ControlClient::connectTo(const QString &path, double waitSeconds, QString &error)
{
    const QByteArray name = QFile::encodeName(path);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (static_cast<std::size_t>(name.size()) >= sizeof address.sun_path) {
        error = QStringLiteral("the path of the control socket is too long: %1").arg(path);
        return false;
    }
    std::memcpy(address.sun_path, name.constData(), static_cast<std::size_t>(name.size()));

    constexpr std::chrono::milliseconds pause{20};
    QElapsedTimer timer;
    timer.start();
    for (;;) {
        m_fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (m_fd >= 0 && ::connect(m_fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0)
            return true;
        error = QStringLiteral("no service at %1: %2").arg(path, QString::fromLocal8Bit(std::strerror(errno)));
        if (m_fd >= 0)
            ::close(m_fd);
        m_fd = -1;
        if (static_cast<double>(timer.elapsed()) >= waitSeconds * 1000)
            return false;
        std::this_thread::sleep_for(pause);
    }
}

bool ControlClient::send(const QStringList &words)
{
    return sendLine(QJsonDocument(QJsonArray::fromStringList(words)).toJson(QJsonDocument::Compact));
}

bool ControlClient::sendLine(QByteArray line)
{
    line += '\n';
    for (int sent = 0; sent < line.size();) {
        const ssize_t size =
            ::send(m_fd, line.constData() + sent, static_cast<std::size_t>(line.size() - sent), MSG_NOSIGNAL);
        if (size < 0 && errno != EINTR)
            return false;
        sent += size > 0 ? static_cast<int>(size) : 0;
    }
    return true;
}

std::optional<Reply> ControlClient::receive()
{
    for (;;) {
        if (std::optional<Reply> reply = takeReceived())
            return reply;
        if (!read())
            return std::nullopt;
    }
}

std::optional<Reply> ControlClient::takeReceived()
{
    const int end = m_received.indexOf('\n');
    if (end < 0)
        return std::nullopt;
    const QJsonObject object = QJsonDocument::fromJson(m_received.left(end)).object();
    m_received.remove(0, end + 1);
    return Reply{object[QStringLiteral("code")].toInt(Reply::NoService), object[QStringLiteral("text")].toString()};
}

bool ControlClient::read()
{
    char bytes[64 * 1024];
    ssize_t size = 0;
    do
        size = ::recv(m_fd, bytes, sizeof bytes, 0);
    while (size < 0 && errno == EINTR);
    if (size > 0)
        m_received.append(bytes, static_cast<int>(size));
    return size > 0;
}

} // namespace simulator
