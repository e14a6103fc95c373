// The two sessions through which the agent library passes messages to itself, as bypassPipes() finds them.
#pragma once

#include "agentlib/innersessions.h"
#include "agentlib/netsnmp.h"

#include <net-snmp/library/snmpCallbackDomain.h>

#include <vector>

extern "C" {
extern netsnmp_session *callback_master_sess;
extern netsnmp_session *agentx_callback_sess;
}

class InnerSessions {
public:
    InnerSessions()
    {
        s_taken.clear();
        callback_master_sess = netsnmp_callback_open(0, take, nullptr, nullptr);
        agentx_callback_sess = nullptr;
        replace();
    }
    ~InnerSessions()
    {
        restorePipes();
        snmp_close(agentx_callback_sess);
        snmp_close(callback_master_sess);
    }
    InnerSessions(const InnerSessions &) = delete;
    InnerSessions &operator=(const InnerSessions &) = delete;

    /// As the library does when it loses the master.
    static void replace()
    {
        restorePipes();
        if (agentx_callback_sess != nullptr)
            snmp_close(agentx_callback_sess);
        agentx_callback_sess = netsnmp_callback_open(callback_master_sess->local_port, take, nullptr, nullptr);
        bypassPipes();
    }

    /// Like a request of the master.
    static void pass(long number)
    {
        netsnmp_pdu *const pdu = snmp_pdu_create(SNMP_MSG_GET);
        pdu->version = 0xC1; // AgentX
        pdu->transid = number;
        snmp_send(agentx_callback_sess, pdu);
    }

    static constexpr long lastRequest = 1000; ///< the connection to the master ends in it

    /// The numbers of the requests and of their answers, in the order in which the library got them.
    static const std::vector<long> &taken() { return s_taken; }

private:
    static int take(int, netsnmp_session *session, int, netsnmp_pdu *pdu, void *)
    {
        s_taken.push_back(pdu->transid);
        if (session != callback_master_sess)
            return 1;
        if (pdu->transid == lastRequest)
            restorePipes();
        netsnmp_pdu *const answer = snmp_clone_pdu(pdu);
        answer->command = SNMP_MSG_RESPONSE;
        answer->transid = -pdu->transid;
        snmp_send(session, answer);
        return 1;
    }

    inline static std::vector<long> s_taken;
};
