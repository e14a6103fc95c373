// E.3.1: what the device is. Served from a copy of the application's record that is made once.
#include "agent/enterprise.h"
#include "agent/kvagent.h"
#include "agent/modules.h"
#include "agent/scalarcore.h"

#include <algorithm>
#include <cstdio>

namespace {
struct InfoScalar {
    const char *name;
    std::array<oid, 10> object;
    Netsnmp_Node_Handler *handler;
};

// clang-format off
constexpr InfoScalar infoScalars[] = { // in the order of registration
    {"infoPackageVersion",    enterpriseOid(3, 1, 1), handle_infoPackageVersion},
    {"infoModelType",         enterpriseOid(3, 1, 2), handle_infoModelType},
    {"infoModelNumber",       enterpriseOid(3, 1, 3), handle_infoModelNumber},
    {"infoAmplifierType",     enterpriseOid(3, 1, 4), handle_infoAmplifierType},
    {"infoKernelVersion",     enterpriseOid(3, 1, 5), handle_infoKernelVersion},
    {"infoDeviceTreeVersion", enterpriseOid(3, 1, 6), handle_infoDeviceTreeVersion},
    {"infoDisablement",       enterpriseOid(3, 1, 7), handle_infoDisablement},
};
// clang-format on

constexpr std::int32_t servedDisablement = 2;

InfoData served = {};

int serveText(const char *handlerName, const InfoText &field, const netsnmp_agent_request_info *reqinfo,
              netsnmp_request_info *requests)
{
    const std::size_t length = std::min<std::size_t>(field.length, sizeof(field.text));
    return serveScalar(handlerName, ASN_OCTET_STR, {field.text, length}, reqinfo, requests);
}

int serveNumber(const char *handlerName, const InfoNumber &field, const netsnmp_agent_request_info *reqinfo,
                netsnmp_request_info *requests)
{
    return serveScalar(handlerName, ASN_INTEGER, {&field.value, sizeof(field.value)}, reqinfo, requests);
}
} // namespace

void init_infoScalars()
{
    for (const InfoScalar &scalar : infoScalars)
        registerScalar(scalar.name, scalar.object, scalar.handler);
}

int handle_infoPackageVersion(netsnmp_mib_handler *, netsnmp_handler_registration *,
                              netsnmp_agent_request_info *reqinfo, netsnmp_request_info *requests)
{
    return serveText("handle_infoPackageVersion", served.packageVersion, reqinfo, requests);
}

int handle_infoModelType(netsnmp_mib_handler *, netsnmp_handler_registration *, netsnmp_agent_request_info *reqinfo,
                         netsnmp_request_info *requests)
{
    return serveText("handle_infoModelType", served.modelType, reqinfo, requests);
}

int handle_infoModelNumber(netsnmp_mib_handler *, netsnmp_handler_registration *, netsnmp_agent_request_info *reqinfo,
                           netsnmp_request_info *requests)
{
    return serveNumber("handle_infoModelNumber", served.modelNumber, reqinfo, requests);
}

int handle_infoAmplifierType(netsnmp_mib_handler *, netsnmp_handler_registration *, netsnmp_agent_request_info *reqinfo,
                             netsnmp_request_info *requests)
{
    return serveText("handle_infoAmplifierType", served.amplifierType, reqinfo, requests);
}

int handle_infoKernelVersion(netsnmp_mib_handler *, netsnmp_handler_registration *, netsnmp_agent_request_info *reqinfo,
                             netsnmp_request_info *requests)
{
    return serveText("handle_infoKernelVersion", served.kernelVersion, reqinfo, requests);
}

int handle_infoDeviceTreeVersion(netsnmp_mib_handler *, netsnmp_handler_registration *,
                                 netsnmp_agent_request_info *reqinfo, netsnmp_request_info *requests)
{
    return serveText("handle_infoDeviceTreeVersion", served.deviceTreeVersion, reqinfo, requests);
}

int handle_infoDisablement(netsnmp_mib_handler *, netsnmp_handler_registration *, netsnmp_agent_request_info *reqinfo,
                           netsnmp_request_info *requests)
{
    return serveNumber("handle_infoDisablement", served.disablement, reqinfo, requests);
}

void copyInfoData()
{
    if (kvAgent == nullptr || kvAgent->infoData == nullptr) {
        std::puts("copyInfoData()  kvAgent->infoData == NULL, cannot continue !");
        return;
    }
    served = *kvAgent->infoData;
    served.disablement = {servedDisablement, sizeof(std::int32_t)}; // whatever the application holds: intended
}
