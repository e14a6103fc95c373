// The text of snmpd.conf from the settings.
#include "snmpdconf/snmpdconftext.h"

#include <benchmark/benchmark.h>

namespace {

void snmpdConfTextOfAllSettings(benchmark::State &state)
{
    SnmpdConfSettings settings;
    settings.access = {QStringLiteral("public"), QStringLiteral("Read"), QStringLiteral("192.0.2.0/24"),
                       QStringLiteral("2001:db8::/32"), QStringLiteral("161")};
    settings.mib2 = {QStringLiteral("hall-4"), QStringLiteral("Concourse, level 2"),
                     QStringLiteral("duty engineer, phone 1234")};
    settings.trap = {QStringLiteral("192.0.2.10"), QStringLiteral("192.0.2.11")};
    settings.version = {true, true, false};
    for ([[maybe_unused]] auto _ : state)
        benchmark::DoNotOptimize(snmpdConfText(settings));
}
BENCHMARK(snmpdConfTextOfAllSettings)->Name("snmpd.conf text/all settings");

} // namespace
