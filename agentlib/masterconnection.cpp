// How the agent library connects to the master agent, and sends to it.
#include "agentlib/masterconnection.h"

#include "agentlib/innersessions.h"
#include "agentlib/netsnmp.h"
#include "device/boundedtext.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>

#include <net-snmp/library/snmpUnixDomain.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {
constexpr char application[] = "agentx";
constexpr oid unixDomain[] = {TRANSPORT_DOMAIN_LOCAL};
constexpr oid ownDomain[] = {TRANSPORT_DOMAIN_LOCAL, 1}; // any domain unknown to the library
bool attemptAllowed = true;
bool descriptorsChanged = true; // a connection was attempted, opened or lost
std::string output;             // what the master has not taken yet
int outputSocket = -1;

int receive(netsnmp_transport *transport, void *buffer, int size, void **, int *)
{
    ssize_t received = 0;
    do
        received = recv(transport->sock, buffer, static_cast<std::size_t>(size), MSG_DONTWAIT);
    while (received < 0 && errno == EINTR);
    if (received < 0 && errno == EAGAIN) { // not the end of the stream
        transport->flags |= NETSNMP_TRANSPORT_FLAG_EMPTY_PKT;
        return 0;
    }
    return static_cast<int>(received);
}

/// Sends as much as the connection takes now. Minus 1, with errno, when it takes nothing any more.
ssize_t sendNow(int socket, const char *data, std::size_t size)
{
    ssize_t sent = 0;
    do
        sent = ::send(socket, data, size, MSG_DONTWAIT | MSG_NOSIGNAL);
    while (sent < 0 && errno == EINTR);
    return sent < 0 && errno == EAGAIN ? 0 : sent;
}

int send(netsnmp_transport *transport, const void *message, int size, void **, int *)
{
    const auto *const data = static_cast<const char *>(message);
    const auto length = static_cast<std::size_t>(size);
    const ssize_t sent = output.empty() ? sendNow(transport->sock, data, length) : 0;
    if (sent < 0)
        return -1;
    output.append(data + sent, length - static_cast<std::size_t>(sent));
    return size;
}

void neverWait(netsnmp_transport &transport)
{
    output.clear();
    outputSocket = transport.sock;
    transport.f_recv = receive;
    transport.f_send = send;
}

void discardOutput()
{
    output.clear();
    outputSocket = -1;
}

int close(netsnmp_transport *transport)
{
    discardOutput();
    const int socket = std::exchange(transport->sock, -1);
    return socket < 0 ? -1 : ::close(socket);
}

/// A connection to the library's default socket. The library's transport would wait without limit for a place in the
/// queue of a stopped master. Null on failure.
netsnmp_transport *connectToMaster(netsnmp_tdomain_spec *)
{
    if (!std::exchange(attemptAllowed, false))
        return nullptr;
    descriptorsChanged = true;
    const char *const path = netsnmp_lookup_default_target(application, "unix");
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (path == nullptr || copyBounded(address.sun_path, path) < std::strlen(path))
        return nullptr;
    auto *const transport = SNMP_MALLOC_TYPEDEF(netsnmp_transport);
    if (transport == nullptr)
        return nullptr;
    transport->domain = unixDomain;
    transport->domain_length = OID_LENGTH(unixDomain);
    transport->flags = NETSNMP_TRANSPORT_FLAG_STREAM;
    transport->msgMaxSize = SNMP_MAX_PACKET_LEN;
    transport->f_close = close;
    transport->sock = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (transport->sock < 0 ||
        connect(transport->sock, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) != 0) {
        const bool nobodyListens = errno == ENOENT || errno == ECONNREFUSED;
        close(transport);
        netsnmp_transport_free(transport);
        // As the library's default does.
        return nobodyListens ? netsnmp_tdomain_transport(netsnmp_lookup_default_target(application, "tcp"), 0, "tcp")
                             : nullptr;
    }
    neverWait(*transport);
    return transport;
}

void neverCalled(unsigned, void *) {}
} // namespace

void boundAttempts()
{
    static netsnmp_tdomain domain = {};
    domain.name = ownDomain;
    domain.name_length = OID_LENGTH(ownDomain);
    domain.prefix = static_cast<const char **>(std::calloc(2, sizeof(const char *))); // the library frees it
    domain.prefix[0] = "kvmaster";
    domain.f_create_from_tspec = connectToMaster;
    netsnmp_tdomain_register(&domain);
    netsnmp_register_default_domain(application, "kvmaster");
    attemptAllowed = true;
}

void allowAttempt()
{
    attemptAllowed = true;
}

netsnmp_transport *transportOf(netsnmp_session *session)
{
    void *const listed = snmp_sess_pointer(session);
    return listed != nullptr ? snmp_sess_transport(listed) : nullptr;
}

void masterSessionOpened(netsnmp_transport *transport)
{
    descriptorsChanged = true;
    if (transport != nullptr)
        neverWait(*transport);
    bypassPipes();
    static unsigned next = 1; // the first alarm that was not looked at
    const unsigned newest = snmp_alarm_register(1, SA_REPEAT, neverCalled, nullptr);
    for (; next <= newest; ++next) {
        const snmp_alarm *const alarm = sa_find_specific(next);
        // No other repeated alarm of the library has no argument.
        if (alarm != nullptr && (alarm->flags & SA_REPEAT) != 0 && alarm->clientarg == nullptr)
            snmp_alarm_unregister(next);
    }
}

void masterSessionLost()
{
    restorePipes();
    discardOutput();
    descriptorsChanged = true;
    attemptAllowed = false;
}

bool neverWaits(int descriptor)
{
    return descriptor >= 0 && descriptor == outputSocket;
}

std::size_t queuedOutput()
{
    return output.size();
}

bool flushOutput()
{
    if (output.empty())
        return false;
    const ssize_t sent = sendNow(outputSocket, output.data(), output.size());
    if (sent < 0)
        discardOutput(); // the library learns of the end when it reads
    else
        output.erase(0, static_cast<std::size_t>(sent));
    return sent > 0;
}

bool takeDescriptorsChanged()
{
    return std::exchange(descriptorsChanged, false);
}

void awaitedDescriptors(std::vector<int> &descriptors)
{
    descriptors.clear();
    static netsnmp_large_fd_set watched = [] {
        netsnmp_large_fd_set set;
        netsnmp_large_fd_set_init(&set, FD_SETSIZE);
        return set;
    }();
    NETSNMP_LARGE_FD_ZERO(&watched);
    int end = 0; // one more than the highest descriptor
    timeval timeout = {};
    int block = 1;
    snmp_select_info2(&end, &watched, &timeout, &block);
    for (int descriptor = 0; descriptor < end; ++descriptor) {
        if (netsnmp_large_fd_is_set(descriptor, &watched) != 0)
            descriptors.push_back(descriptor);
    }
}
