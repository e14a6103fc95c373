// The code common to all scalars.
#include "agent/scalarcore.h"

#include <string_view>

void registerScalar(const Scalar &scalar)
{
    constexpr std::string_view prefix = "handle_";
    netsnmp_register_scalar(netsnmp_create_handler_registration(scalar.handlerName + prefix.size(), scalar.handler,
                                                                scalar.object.arcs, scalar.object.length,
                                                                HANDLER_CAN_RONLY));
}

int serveScalar(const char *handlerName, u_char type, Cell value, const netsnmp_agent_request_info *info,
                netsnmp_request_info *requests)
{
    if (info->mode != MODE_GET) {
        snmp_log(LOG_ERR, "unknown mode (%d) in %s\n", info->mode, handlerName);
        return SNMP_ERR_GENERR;
    }
    snmp_set_var_typed_value(requests->requestvb, type, value.data, value.length);
    return SNMP_ERR_NOERROR;
}

int serveInteger(const char *handlerName, std::uint32_t value, const netsnmp_agent_request_info *info,
                 netsnmp_request_info *requests)
{
    return serveScalar(handlerName, ASN_INTEGER, {&value, sizeof(value)}, info, requests);
}
