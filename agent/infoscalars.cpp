// E.3.1: the device information. Served from a single copy of the application's record.
#include "agent/modules.h"

#include <algorithm>
#include <cstdio>

namespace {
constexpr std::int32_t servedDisablement = 2;

InfoData served = {};

int serve(const char *handlerName, const InfoText &field, const Info *info, Request *requests)
{
    const std::size_t length = std::min<std::size_t>(field.length, sizeof(field.text));
    return serveScalar(handlerName, ASN_OCTET_STR, {field.text, length}, info, requests);
}

int serve(const char *handlerName, const InfoNumber &field, const Info *info, Request *requests)
{
    return serveScalar(handlerName, ASN_INTEGER, {&field.value, sizeof(field.value)}, info, requests);
}

// clang-format off
constexpr Scalar infoScalars[] = { // in the order of registration
    {"handle_infoPackageVersion",    enterpriseOid(3, 1, 1), handle_infoPackageVersion},
    {"handle_infoModelType",         enterpriseOid(3, 1, 2), handle_infoModelType},
    {"handle_infoModelNumber",       enterpriseOid(3, 1, 3), handle_infoModelNumber},
    {"handle_infoAmplifierType",     enterpriseOid(3, 1, 4), handle_infoAmplifierType},
    {"handle_infoKernelVersion",     enterpriseOid(3, 1, 5), handle_infoKernelVersion},
    {"handle_infoDeviceTreeVersion", enterpriseOid(3, 1, 6), handle_infoDeviceTreeVersion},
    {"handle_infoDisablement",       enterpriseOid(3, 1, 7), handle_infoDisablement},
};
} // namespace

int handle_infoPackageVersion(Handler *, Registration *, Info *i, Request *r)    { return serve(__func__, served.packageVersion,    i, r); }
int handle_infoModelType(Handler *, Registration *, Info *i, Request *r)         { return serve(__func__, served.modelType,         i, r); }
int handle_infoModelNumber(Handler *, Registration *, Info *i, Request *r)       { return serve(__func__, served.modelNumber,       i, r); }
int handle_infoAmplifierType(Handler *, Registration *, Info *i, Request *r)     { return serve(__func__, served.amplifierType,     i, r); }
int handle_infoKernelVersion(Handler *, Registration *, Info *i, Request *r)     { return serve(__func__, served.kernelVersion,     i, r); }
int handle_infoDeviceTreeVersion(Handler *, Registration *, Info *i, Request *r) { return serve(__func__, served.deviceTreeVersion, i, r); }
int handle_infoDisablement(Handler *, Registration *, Info *i, Request *r)       { return serve(__func__, served.disablement,       i, r); }
// clang-format on

void init_infoScalars()
{
    for (const Scalar &scalar : infoScalars)
        registerScalar(scalar);
}

void copyInfoData()
{
    if (kvAgent == nullptr || kvAgent->infoData == nullptr) {
        std::puts("copyInfoData()  kvAgent->infoData == NULL, cannot continue !");
        return;
    }
    served = *kvAgent->infoData;
    served.disablement = {servedDisablement, sizeof(std::int32_t)}; // intended: ignores the application's value
}
