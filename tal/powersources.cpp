// Power sources: live or not, monitored or not.
#include "tal/keystep.h"
#include "tal/talhandler.h"

namespace {

// clang-format off
constexpr KeyRow sources[] = {{"ac_power", 0}, {"dc_power", 1}};
constexpr KeySet powerKeys[] = {{bothPowerModels, sources}}; // fewer models than subscribe to the monitoring: intended

constexpr TextCode codes[] = {{"true", 3}, {"false", 2}}; // of both values

// name, key label of the complaint, path, codes, "delete", other text; for keepScratch see there: intended
constexpr KeyRule liveRule{{"getPowerStatus", kid, "/state/power_sources/power_source[kid='%1']/live"},
                           {codes, store(1), keepScratch}};
constexpr KeyRule monitoredRule{{"getPowerMonitoring", kid, "/state/config/power_sources/power_source[kid='%1']/monitored"},
                                {codes, store(1), keepScratch}};
// clang-format on

static_assert(rowsBelow(powerKeys, powerSources));

} // namespace

void TalHandler::parsePowerLive(const Notification &n)
{
    forEachKey(powerKeys, m_modelNumber, [&](const KeyRow &source) {
        if (keyStep(n, liveRule, {source.key, {}}, m_scratch.powerLive) == Step::Handled)
            m_records.power.rows[source.row].liveStatus = m_scratch.powerLive;
    });
}

void TalHandler::parsePowerMonitored(const Notification &n)
{
    forEachKey(powerKeys, m_modelNumber, [&](const KeyRow &source) {
        if (keyStep(n, monitoredRule, {source.key, {}}, m_scratch.powerMonitored) == Step::Handled)
            m_records.power.rows[source.row].monitored = m_scratch.powerMonitored;
    });
}
