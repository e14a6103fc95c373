// Settings to the text of snmpd.conf. The input is the settings, separated by bell characters (so that a value may
// contain a line feed): access, community, nmsIp, nmsIpv6, snmpPort, sysName, sysLocation, sysContact, trapAddress,
// informAddress, versions ("1" and "2" in it).
#include "confcheck.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    std::string_view rest = viewOf(data, size);
    SnmpdConfSettings settings;
    QString *const texts[] = {
        &settings.access.access,    &settings.access.community,   &settings.access.nmsIp,     &settings.access.nmsIpv6,
        &settings.access.snmpPort,  &settings.mib2.sysName,       &settings.mib2.sysLocation, &settings.mib2.sysContact,
        &settings.trap.trapAddress, &settings.trap.informAddress,
    };
    for (QString *text : texts)
        *text = textOf(takeUpTo(rest, '\a'));
    settings.version.version1 = rest.find('1') != std::string_view::npos;
    settings.version.version2c = rest.find('2') != std::string_view::npos;

    checkConf(settings);
    for (const char *access : {"Read", "Disabled"}) { // regardless of the mutations
        settings.access.access = QLatin1String(access);
        checkConf(settings);
    }
    return 0;
}
