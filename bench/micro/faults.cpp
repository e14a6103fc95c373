// The fault list: the cost of one message beside 1, 100 and 10,000 others, and the rate at which waiting faults are
// sent. The trap sender accepts or refuses at once.
#include "agent/kvagent.h"
#include "agent/trapgate.h"
#include "device/trapcatalogue.h"
#include "faults/faulthandler.h"

#include <benchmark/benchmark.h>

#include <memory>

namespace {

int takeTrap(std::uint32_t, const char *, std::int32_t, const char *)
{
    return 0;
}

int refuseTrap(std::uint32_t, const char *, std::int32_t, const char *)
{
    return -1;
}

TrapGate gate;

void setSender(SendTrap sender)
{
    static KvAgent agent{};
    agent.sendTrap = sender;
    kvAgent = &agent;
    if (sender == refuseTrap)
        gate.closeSession();
    else
        gate.openSession(-1);
}

QMap<QString, bool> allTraps()
{
    QMap<QString, bool> enabled;
    for (const Trap &trap : trapCatalogue)
        enabled.insert(QString::fromLatin1(trap.name.data(), static_cast<int>(trap.name.size())), true);
    return enabled;
}

void report(FaultHandler &faults, int number, bool active)
{
    faults.onReportFault(QStringLiteral("controller"), QString::number(number), QStringLiteral("line_fault"),
                         QStringLiteral("Line 1: ground fault"), QStringLiteral("1700000000"), QStringLiteral("err"),
                         active);
}

/// A list of `count` faults; they wait while the sender refuses.
std::unique_ptr<FaultHandler> listOf(benchmark::IterationCount count)
{
    auto faults = std::make_unique<FaultHandler>(nullptr, gate);
    QMap<QString, bool> enabled = allTraps();
    faults->onUpdateEnabledSnmpTraps(enabled);
    for (int number = 0; number < count; ++number)
        report(*faults, number, true);
    return faults;
}

void beginAndEnd(benchmark::State &state, SendTrap sender)
{
    setSender(sender);
    const auto faults = listOf(state.range(0));
    for ([[maybe_unused]] auto _ : state) {
        report(*faults, -1, true);
        report(*faults, -1, false);
    }
}
BENCHMARK_CAPTURE(beginAndEnd, sent, takeTrap)
    ->Name("one fault begins and ends/others sent")
    ->Arg(1)
    ->Arg(100)
    ->Arg(10000);
BENCHMARK_CAPTURE(beginAndEnd, waiting, refuseTrap)
    ->Name("one fault begins and ends/others waiting")
    ->Arg(1)
    ->Arg(100)
    ->Arg(10000);

void waitingFaultsGoOut(benchmark::State &state)
{
    for ([[maybe_unused]] auto _ : state) {
        state.PauseTiming();
        setSender(refuseTrap);
        auto faults = listOf(state.range(0));
        setSender(takeTrap);
        state.ResumeTiming();
        faults->reportTraps();
        state.PauseTiming();
        faults.reset();
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(waitingFaultsGoOut)->Name("waiting faults go out")->Arg(1)->Arg(100)->Arg(10000);

} // namespace
