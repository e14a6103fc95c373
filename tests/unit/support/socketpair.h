// Two connected sockets: the near end belongs to the code under test, the far end to the test.
#pragma once

#include <QtGlobal>

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

class SocketPair {
public:
    SocketPair()
    {
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, m_ends) != 0)
            qFatal("no socket pair");
    }
    ~SocketPair()
    {
        close(m_ends[0]);
        closeFarEnd();
    }
    Q_DISABLE_COPY(SocketPair)

    int nearEnd() const { return m_ends[0]; }
    bool put() const { return write(m_ends[1], "x", 1) == 1; }
    bool take() const
    {
        char byte = 0;
        return read(m_ends[0], &byte, 1) == 1;
    }
    /// Writes at the near end until it accepts no more.
    void fill() const
    {
        const char unread[1000] = {};
        pollfd writable = {m_ends[0], POLLOUT, 0};
        while (poll(&writable, 1, 0) == 1 && write(m_ends[0], unread, sizeof unread) > 0) {
        }
    }
    void drain() const
    {
        char taken[1000];
        while (m_ends[1] >= 0 && read(m_ends[1], taken, sizeof taken) > 0) {
        }
    }
    void closeFarEnd()
    {
        if (m_ends[1] >= 0)
            close(m_ends[1]);
        m_ends[1] = -1;
    }

private:
    int m_ends[2] = {-1, -1};
};
