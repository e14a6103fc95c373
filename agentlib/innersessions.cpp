// How the agent library passes requests of the master to its agent, and the answers back.
#include "agentlib/innersessions.h"

#include "agentlib/masterconnection.h"
#include "agentlib/netsnmp.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <utility>

#include <net-snmp/library/snmpCallbackDomain.h>
#include <sys/ioctl.h>
#include <unistd.h>

// The library's two sessions; none of its installed headers has them.
extern "C" {
extern netsnmp_session *callback_master_sess; // takes the requests
extern netsnmp_session *agentx_callback_sess; // takes the answers
}

namespace {
constexpr int roundsAtOnce = 16; // before other work gets a turn

struct End {
    netsnmp_transport *transport = nullptr; // null while the library uses the pipe
    netsnmp_transport library = {};         // with the library's functions
    int bell = -1;                          // writes to the pipe
    int waiting = 0;                        // messages
    int rung = 0;                           // bytes in the pipe
};
End ends[2];
End &requests = ends[0]; // its session takes them
End &answers = ends[1];
// The library need not find out by itself that messages wait. No handler may wait for an answer of the master then.
bool serving = false;

End &endOf(const netsnmp_transport *transport)
{
    return transport == requests.transport ? requests : answers;
}

/// Writes or reads bytes until the pipe holds as many as `wanted`.
void ring(End &end, int wanted)
{
    char byte = 0;
    while (end.rung < wanted && write(end.bell, &byte, 1) == 1)
        ++end.rung;
    while (end.rung > wanted && read(end.transport->sock, &byte, 1) == 1)
        --end.rung;
}

/// While it is not served, the library finds the pipe readable as long as messages wait.
void ring(End &end)
{
    ring(end, end.waiting > 0 && !serving ? 1 : 0);
}

int takeMessage(netsnmp_transport *transport, void *buffer, int, void **opaque, int *opaqueLength)
{
    End &end = endOf(transport);
    if (end.waiting == 0) { // not the end of the stream
        transport->flags |= NETSNMP_TRANSPORT_FLAG_EMPTY_PKT;
        return 0;
    }
    --end.waiting;
    ring(end);
    if (&end == &requests) { // the library stores there who gets the answer
        *opaque = std::calloc(1, sizeof(int));
        *opaqueLength = sizeof(int);
    }
    *static_cast<char *>(buffer) = 0;
    return 1;
}

int passMessage(netsnmp_transport *transport, const void *message, int size, void **opaque, int *opaqueLength)
{
    const End &end = endOf(transport);
    const int result = end.library.f_send(transport, message, size, opaque, opaqueLength);
    End &other = &end == &requests ? answers : requests;
    if (result == 0) {
        ++other.waiting;
        ring(other);
    }
    return result;
}

/// For the library's log and access check, which looks at this word. The library's own text takes much longer.
char *sessionName(netsnmp_transport *, const void *, int)
{
    return strdup("callback");
}

/// The library writes a byte there with each message, and ignores that it cannot.
int &libraryBell(const End &end)
{
    return static_cast<netsnmp_callback_info *>(end.transport->data)->pipefds[1];
}

void bypass(End &end, netsnmp_transport *transport)
{
    end = {.transport = transport, .library = *transport};
    end.bell = std::exchange(libraryBell(end), -1);
    ioctl(transport->sock, FIONREAD, &end.rung);
    end.waiting = end.rung;
    transport->f_recv = takeMessage;
    transport->f_send = passMessage;
    transport->f_fmtaddr = sessionName;
    ring(end);
}

void restore(End &end)
{
    if (end.transport == nullptr)
        return;
    ring(end, end.waiting);
    libraryBell(end) = end.bell;
    end.transport->f_recv = end.library.f_recv;
    end.transport->f_send = end.library.f_send;
    end.transport->f_fmtaddr = end.library.f_fmtaddr;
    end = {};
}

/// Lets the library read this descriptor.
void readFrom(int descriptor)
{
    static netsnmp_large_fd_set set = [] {
        netsnmp_large_fd_set empty;
        netsnmp_large_fd_set_init(&empty, FD_SETSIZE);
        return empty;
    }();
    NETSNMP_LARGE_FD_ZERO(&set);
    NETSNMP_LARGE_FD_SET(descriptor, &set);
    snmp_read2(&set);
}

bool isInner(int descriptor)
{
    return std::ranges::any_of(
        ends, [descriptor](const End &end) { return end.transport != nullptr && end.transport->sock == descriptor; });
}
} // namespace

void bypassPipes()
{
    restorePipes();
    netsnmp_transport *const agent = transportOf(callback_master_sess);
    netsnmp_transport *const asker = transportOf(agentx_callback_sess);
    if (agent == nullptr || asker == nullptr)
        return;
    bypass(requests, agent);
    bypass(answers, asker);
}

void restorePipes()
{
    for (End &end : ends)
        restore(end);
}

bool hasInnerMessages()
{
    return std::ranges::any_of(ends, [](const End &end) { return end.waiting > 0; });
}

void serveTaken()
{
    serving = true;
    for (int round = 0; round < roundsAtOnce && hasInnerMessages(); ++round) {
        for (const End &end : ends) { // a request may end the session
            if (end.waiting > 0)
                readFrom(end.transport->sock);
        }
    }
    serving = false;
    for (End &end : ends)
        ring(end);
}

bool serveReadable(int descriptor)
{
    if (!neverWaits(descriptor) && !isInner(descriptor))
        return false;
    serving = true;
    readFrom(descriptor);
    serveTaken();
    return true;
}
