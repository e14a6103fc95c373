// One SNMP manager, and many of them in one loop.
#pragma once

#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <chrono>
#include <functional>
#include <list>
#include <memory>
#include <string>
#include <vector>

using Clock = std::chrono::steady_clock;
using Oid = std::vector<oid>;

/// "1.3.6.1" as numbers; throws std::invalid_argument.
Oid oidFrom(const std::string &text);

struct Request {
    int command; // SNMP_MSG_GET, SNMP_MSG_GETNEXT or SNMP_MSG_GETBULK
    Oid object;
    long repetitions = 0; // of a GETBULK
};

/// A session with a separate socket, like a separate manager.
class Manager {
public:
    /// `pdu` is the answer, or null without one within the manager's timeout.
    using Answered = std::function<void(const snmp_pdu *pdu)>;

    /// Throws std::runtime_error if the session cannot be opened.
    Manager(const std::string &address, std::chrono::microseconds timeout);
    ~Manager(); ///< does not call back for pending requests
    Manager(const Manager &) = delete;
    Manager &operator=(const Manager &) = delete;

    /// Sends without waiting; serve() or expire() calls `answered`, which may send another request.
    void ask(const Request &request, Answered answered);

    int descriptor() const;
    void serve();  ///< handles received answers
    void expire(); ///< ends requests that have waited too long

private:
    struct Pending {
        Manager *owner;
        Answered answered;
        std::list<Pending>::iterator self{};
    };

    static int onAnswer(int operation, snmp_session *, int, snmp_pdu *pdu, void *data);

    void *m_handle = nullptr;
    bool m_closing = false;
    std::list<Pending> m_pending;
};

using Managers = std::vector<std::unique_ptr<Manager>>;

/// Serves all managers until `done` or until the deadline; true: done.
bool serveManagers(const Managers &managers, Clock::time_point until, const std::function<bool()> &done);
