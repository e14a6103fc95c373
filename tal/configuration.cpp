// Relays, control inputs and outputs, GPIO directions.
#include "tal/keystep.h"
#include "tal/talhandler.h"

#include <QDebug>

namespace {

// clang-format off
constexpr TextCode controlOutputStates[] = {{"ok_cleared", 2}, {"ok_set", 3}, {"fail_cleared", 4}, {"fail_set", 5}};
constexpr TextCode controlInputStates[]  = {{"ok_open", 2}, {"ok_closed", 3}, {"fail_shorted", 4}, {"fail_unconnected", 5}};
constexpr TextCode idleModes[]           = {{"normal_closed", 2}, {"normal_open", 3}};
constexpr TextCode gpioTypes[]           = {{"gpi", 1}, {"gpo", 2}};
constexpr TextCode inputMonitored[]      = {{"true", 2}};

constexpr KeyRow relay1[]        = {{"relay1", 0}};
constexpr KeyRow furtherRelays[] = {{"relay2", 1}, {"e_relay1", 2}, {"e_relay2", 3}};
constexpr KeyRow expanderRows[]  = {{"e_relay1", 4}, {"e_relay2", 5}, {"e_relay3",  6}, {"e_relay4",  7},
                                    {"e_relay5", 8}, {"e_relay6", 9}, {"e_relay7", 10}, {"e_relay8", 11}};
constexpr KeySet relayKeys[] = {
    {gpioModels,      relay1},
    {fourRelayModels, furtherRelays},
};
constexpr KeySet expanderRelayKeys[] = {{gpioModels, expanderRows}}; // after relayKeys, on stations with expanders

constexpr KeyRow sixInputs[] = {{"gpi1", 0}, {"gpi2", 1}, {"gpi3", 2}, {"gpi4", 3}, {"gpi5", 4}, {"gpi6", 5}};
constexpr KeyRow twoInputs[] = {{"gpi1", 0}, {"gpi2", 1}};
constexpr KeySet controlInputKeys[] = {
    {{6410, 6420},       sixInputs},
    {{6425, 6720, 6764}, twoInputs},
};

constexpr std::string_view gpioNumbers[] = {"1", "2", "3", "4", "5", "6", "7", "8", "9", "10", "11", "12", "13", "14"};
constexpr std::size_t firstInputOnlyGpio = 6; // by index: gpio7 and up are always inputs
constexpr std::uint32_t gpioTypeInput = 1;

// name, key label of the complaint, path, codes, "delete", other text
constexpr KeyRule relayDelayRule{{"getRelayDelay", kid, "/state/config/gpos/gpo[kid='%1']/delay"},
                                 {{}, store(0), wholeNumber}};
constexpr KeyRule relayIdleModeRule{{"getRelayIdleMode", kid, "/state/config/gpos/gpo[kid='%1']/idle_mode"},
                                    {idleModes, store(1), keepScratch}}; // intended: see keepScratch
constexpr KeyRule gpioTypeRule{{"getGpioType", "gpio:", "/state/config/gpios/gpio[kid='gpio%1']/gpio_type"},
                               {gpioTypes, store(3), store(3)}};
constexpr KeyRule inputMonitoredRule{{"getControlInputMonitored", kid, "/state/config/gpis/gpi[kid='%1']/monitored"},
                                     {inputMonitored, store(1), store(1)}};
// clang-format on

static_assert(rowsBelow(relayKeys, relayRows) && rowsBelow(expanderRelayKeys, relayRows));
static_assert(rowsBelow(controlInputKeys, controlInputRows));
static_assert(std::size(gpioNumbers) == controlInputRows);

// With expanders, "e_relay1" and "e_relay2" each feed two rows on models with four relays: intended.
template <typename Visit>
void forEachRelayKey(std::uint32_t model, const char *modelDescription, Visit visit)
{
    forEachKey(relayKeys, model, visit);
    if (hasExpanders(modelDescription))
        forEachKey(expanderRelayKeys, model, visit);
}

} // namespace

void TalHandler::parseRelayDelay(const Notification &n)
{
    forEachRelayKey(m_modelNumber, m_modelDescription, [&](const KeyRow &relay) {
        if (keyStep(n, relayDelayRule, {relay.key, {}}, m_scratch.relayDelay) != Step::Handled)
            return;
        m_records.relay.rows[relay.row].delay = m_scratch.relayDelay;
        qDebug().noquote() << "configRelayDelayUpdate" << latin1(relay.key) + QLatin1String("  delay:")
                           << m_scratch.relayDelay;
    });
}

void TalHandler::parseRelayIdleMode(const Notification &n)
{
    forEachRelayKey(m_modelNumber, m_modelDescription, [&](const KeyRow &relay) {
        if (keyStep(n, relayIdleModeRule, {relay.key, {}}, m_scratch.relayIdleMode) == Step::Handled)
            m_records.relay.rows[relay.row].idleMode = m_scratch.relayIdleMode;
    });
}

void TalHandler::parseGpioType(const Notification &n)
{
    for (std::size_t gpio = 0; gpio < std::size(gpioNumbers); ++gpio) {
        if (gpio >= firstInputOnlyGpio && operationOf(n) != Operation::Unexpected)
            m_scratch.gpioType = gpioTypeInput; // regardless of the data
        else if (keyStep(n, gpioTypeRule, {gpioNumbers[gpio], {}}, m_scratch.gpioType) != Step::Handled)
            continue;
        Q_EMIT signalSetGpioType(static_cast<uint>(gpio), m_scratch.gpioType);
        // Values from the former direction are no longer valid.
        m_records.controlInput.rows[gpio] = {1, 1};
        if (gpio < controlOutputRows)
            m_records.controlOutput.status[gpio] = 1;
    }
}

void TalHandler::parseControlInputMonitored(const Notification &n)
{
    forEachKey(controlInputKeys, m_modelNumber, [&](const KeyRow &input) {
        if (keyStep(n, inputMonitoredRule, {input.key, {}}, m_scratch.controlInputMonitored) == Step::Handled)
            m_records.controlInput.rows[input.row].monitored = m_scratch.controlInputMonitored;
    });
}

void TalHandler::slotGpoUpdate(uint id, QString state, QString systemState)
{
    Q_UNUSED(systemState)
    if (id < controlOutputRows)
        m_records.controlOutput.status[id] = codeOf(controlOutputStates, state, 1);
}

void TalHandler::slotGpiUpdate(uint id, QString state)
{
    if (id < controlInputRows)
        m_records.controlInput.rows[id].status = codeOf(controlInputStates, state, 1);
}

void TalHandler::slotSetControlInputStatus(uint id, uint status)
{
    if (id < controlInputRows && status >= 1 && status <= 3)
        m_records.controlInput.rows[id].status = status;
}

void TalHandler::slotSetControlOutputStatus(uint id, uint status)
{
    if (id < controlOutputRows && status >= 1 && status <= 3)
        m_records.controlOutput.status[id] = status;
}

void TalHandler::slotSetRelayStatus(uint relayId, uint status)
{
    if (relayId < relayRows && status >= 1 && status <= 4)
        m_records.relay.rows[relayId].status = status;
}
