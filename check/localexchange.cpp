// One request and its answer over a local socket, with a time limit.
#include "check/localexchange.h"

#include <QElapsedTimer>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

class Socket {
public:
    Socket() : m_descriptor(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)) {}
    ~Socket()
    {
        if (m_descriptor >= 0)
            ::close(m_descriptor);
    }
    Socket(const Socket &) = delete;
    Socket &operator=(const Socket &) = delete;

    int descriptor() const { return m_descriptor; }

private:
    int m_descriptor;
};

/// errno; 0 when connected.
int connectTo(const Socket &socket, const QByteArray &path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (static_cast<std::size_t>(path.size()) >= sizeof address.sun_path)
        return ENAMETOOLONG;
    std::memcpy(address.sun_path, path.constData(), static_cast<std::size_t>(path.size()));
    const auto *generic = reinterpret_cast<const sockaddr *>(&address);
    return ::connect(socket.descriptor(), generic, sizeof address) == 0 ? 0 : errno;
}

} // namespace

LocalExchange exchange(const QByteArray &socketPath, const QByteArray &request, int replySize, int timeoutMs)
{
    LocalExchange result;
    const Socket socket;
    result.error = connectTo(socket, socketPath);
    if (result.error != 0)
        return result;
    result.connected = true;
    // A few bytes fit into an empty socket, unless the peer is gone.
    if (::send(socket.descriptor(), request.constData(), static_cast<std::size_t>(request.size()), MSG_NOSIGNAL) !=
        request.size())
        return result;

    QElapsedTimer elapsed;
    elapsed.start();
    while (result.reply.size() < replySize) {
        const int leftMs = std::max(0, timeoutMs - static_cast<int>(elapsed.elapsed()));
        pollfd waiting{socket.descriptor(), POLLIN, 0};
        const int ready = ::poll(&waiting, 1, leftMs);
        if (ready < 0 && errno == EINTR)
            continue;
        char bytes[512];
        const ssize_t size = ready > 0 ? ::recv(socket.descriptor(), bytes, sizeof bytes, 0) : 0;
        if (size <= 0)
            break;
        result.reply.append(bytes, static_cast<int>(size));
    }
    return result;
}
