// The request gate: a filter for the agent library's table helpers.
#include "agentlib/requestgate.h"

#include <utility>

namespace {
/// Not by the mode: the library starts a search that includes its start with a pass in mode GET.
bool isSearch(const netsnmp_agent_request_info &info)
{
    return info.asp->pdu->command != SNMP_MSG_GET;
}

constexpr int millisecondsPerSecond = 1000;

/// False in the last second, so that an expiry during a request is the library's own.
bool staysFresh(const netsnmp_cache &cache)
{
    return cache.valid != 0 && cache.timestampM != nullptr &&
           netsnmp_ready_monotonic(cache.timestampM, (cache.timeout - 1) * millisecondsPerSecond) == 0;
}

int handOn(netsnmp_mib_handler *gate, netsnmp_handler_registration *registration, netsnmp_agent_request_info *info,
           netsnmp_request_info *requests)
{
    if (auto *cache = static_cast<netsnmp_cache *>(gate->myvoid))
        cache->enabled = staysFresh(*cache) ? 0 : 1;
    if (!isSearch(*info))
        return netsnmp_call_next_handler(gate, registration, info, requests);
    int status = SNMP_ERR_NOERROR;
    for (netsnmp_request_info *request = requests; request != nullptr && status == SNMP_ERR_NOERROR;
         request = request->next) {
        netsnmp_request_info *const others = std::exchange(request->next, nullptr);
        status = netsnmp_call_next_handler(gate, registration, info, request);
        request->next = others;
    }
    return status;
}
} // namespace

netsnmp_mib_handler *makeRequestGate(netsnmp_cache *cache)
{
    netsnmp_mib_handler *gate = netsnmp_create_handler("request_gate", handOn);
    if (gate != nullptr)
        gate->myvoid = cache;
    return gate;
}
