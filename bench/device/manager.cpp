// One SNMP manager, and many of them in one loop.
#include "manager.h"

#include <poll.h>
#include <sys/select.h>

#include <algorithm>
#include <sstream>
#include <stdexcept>

namespace {

constexpr std::chrono::milliseconds expireInterval{50};

bool isAnswer(int operation, const snmp_pdu *pdu)
{
    return operation == NETSNMP_CALLBACK_OP_RECEIVED_MESSAGE && pdu->command == SNMP_MSG_RESPONSE;
}

} // namespace

Oid oidFrom(const std::string &text)
{
    Oid numbers;
    std::istringstream stream(text.starts_with('.') ? text.substr(1) : text);
    for (std::string part; std::getline(stream, part, '.');)
        numbers.push_back(std::stoul(part));
    if (numbers.size() < 2)
        throw std::invalid_argument("not an OID: " + text);
    return numbers;
}

Manager::Manager(const std::string &address, std::chrono::microseconds timeout)
{
    std::string peer = address;
    std::string community = "public";
    snmp_session session;
    snmp_sess_init(&session);
    session.version = SNMP_VERSION_2c;
    session.peername = peer.data();
    session.community = reinterpret_cast<u_char *>(community.data());
    session.community_len = community.size();
    session.timeout = timeout.count();
    session.retries = 0; // a retry would hide a lost answer
    m_handle = snmp_sess_open(&session);
    if (!m_handle)
        throw std::runtime_error("no session to " + address);
    if (descriptor() >= FD_SETSIZE)
        throw std::runtime_error("too many managers");
}

Manager::~Manager()
{
    m_closing = true; // the library calls back for pending requests
    snmp_sess_close(m_handle);
}

void Manager::ask(const Request &request, Answered answered)
{
    snmp_pdu *pdu = snmp_pdu_create(request.command);
    if (request.command == SNMP_MSG_GETBULK) {
        pdu->non_repeaters = 0;
        pdu->max_repetitions = request.repetitions;
    }
    snmp_add_null_var(pdu, request.object.data(), request.object.size());
    Pending &pending = m_pending.emplace_back(Pending{this, std::move(answered)});
    pending.self = std::prev(m_pending.end());
    if (!snmp_sess_async_send(m_handle, pdu, &Manager::onAnswer, &pending)) {
        snmp_free_pdu(pdu);
        m_pending.pop_back();
        throw std::runtime_error("a request cannot be sent");
    }
}

int Manager::onAnswer(int operation, snmp_session *, int, snmp_pdu *pdu, void *data)
{
    if (operation == NETSNMP_CALLBACK_OP_CONNECT || operation == NETSNMP_CALLBACK_OP_DISCONNECT)
        return 1;
    auto *pending = static_cast<Pending *>(data);
    if (pending->owner->m_closing)
        return 1;
    const Answered answered = std::move(pending->answered); // it may send another request
    pending->owner->m_pending.erase(pending->self);
    answered(isAnswer(operation, pdu) ? pdu : nullptr);
    return 1;
}

int Manager::descriptor() const
{
    return snmp_sess_transport(m_handle)->sock;
}

void Manager::serve()
{
    fd_set readable;
    FD_ZERO(&readable);
    FD_SET(descriptor(), &readable);
    snmp_sess_read(m_handle, &readable);
}

void Manager::expire()
{
    snmp_sess_timeout(m_handle);
}

bool serveManagers(const Managers &managers, Clock::time_point until, const std::function<bool()> &done)
{
    std::vector<pollfd> descriptors;
    for (const auto &manager : managers)
        descriptors.push_back({manager->descriptor(), POLLIN, 0});
    Clock::time_point nextExpiry = Clock::now() + expireInterval;
    while (!done()) {
        const Clock::time_point now = Clock::now();
        if (now >= until)
            return false;
        if (now >= nextExpiry) {
            std::ranges::for_each(managers, [](const auto &manager) { manager->expire(); });
            nextExpiry = now + expireInterval;
        }
        const auto wait = std::chrono::ceil<std::chrono::milliseconds>(std::min(until, nextExpiry) - now);
        if (poll(descriptors.data(), descriptors.size(), static_cast<int>(wait.count())) <= 0)
            continue;
        for (std::size_t i = 0; i < descriptors.size(); i++) {
            if (descriptors[i].revents)
                managers[i]->serve();
        }
    }
    return true;
}
