// Loudspeaker lines, their LETs, line inputs and microphones, Ethernet ports.
#include "device/boundedtext.h"
#include "tal/keystep.h"
#include "tal/talhandler.h"

#include <QByteArray>
#include <QDebug>

namespace {

// clang-format off
constexpr TextCode lineStates[] = {
    {"unknown",                        1},
    {"ok",                             2},
    {"shorted",                        3},
    {"open",                           4},
    {"loadchange",                     5},
    {"ground_fault",                   6},
    {"refreshing",                     7},
    {"shutdown",                       8},
    {"voltage_low",                    9},
    {"indecisive",                    10},
    {"interrupted",                   11},
    {"failed_timeout",                12},
    {"failed_receive_monitor_values", 13},
    {"suspend_monitoring",            14},
    {"line_fault",                    15},
};
constexpr TextCode ampEnabled[] = {{"true", 2}, {"false", 1}};
constexpr TextCode letEnabled[] = {{"true", 1}, {"false", 2}}; // the opposite of ampEnabled: intended
constexpr TextCode pilotTone[]  = {{"ok", 2}, {"failed", 3}};
constexpr TextCode micStatus[]  = {{"connected", 5}, {"disconnected", 6}, {"shorted", 7}};
constexpr TextCode monitored[]  = {{"true", 3}, {"false", 2}};

constexpr std::string_view letKeys[letsPerChannel]  = {"1", "2", "3", "4", "5", "6", "7", "8", "9", "10"};

constexpr KeyRow lineRows[]          = {{"ch1", 0}, {"ch2", 1}}; // a channel's index is its row
constexpr KeyRow lineInputRows[]     = {{"ln1", 0}, {"ln2", 1}};
constexpr KeyRow micMonitoringRows[] = {{"mic", 0}, {"ln_in", 1}};
constexpr KeyRow micStatusRows[]     = {{"mic_status_extern", 0}, {"mic_status_intern", 1}};
constexpr KeyRow ethPortRows[]       = {{"Eth1", 0}, {"Eth2", 1}};

constexpr KeySet lineKeys[]          = {{twoChannelModels, lineRows}};
constexpr KeySet pilotToneKeys[]     = {{pilotToneModels, lineInputRows}};
constexpr KeySet micMonitoringKeys[] = {{microphoneModels, micMonitoringRows}};
constexpr KeySet micStatusKeys[]     = {{microphoneModels, micStatusRows}};
constexpr KeySet ethPortKeys[]       = {{ethMonitoringModels, ethPortRows}};

// name, key label of the complaint, path, codes, "delete", other text; for keepScratch see there: intended
constexpr KeyRule lineStateRule{{"getLineChannelState", kid, "/state/lines/line[kid='%1']/characteristics/line_state"},
                                {lineStates, leaveRow, store(1)}};
constexpr KeyRule ampEnableRule{{"getAmpEnable", kid, "/state/config/lines/line[kid='%1']/enable"},
                                {ampEnabled, notHandled, notHandled}};
constexpr KeyRule letEnableRule{{"getLetEnable", kid, "/state/config/lines/line[kid='%1']/lets/let[kid=%2]/enabled"},
                                {letEnabled, notHandled, notHandled}};
constexpr TextRule letDescriptionRule{{"getLetDescription", kid, "/state/config/lines/line[kid='%1']/lets/let[kid=%2]/let_description"}};
constexpr TextRule letHwVersionRule{{"getLetHWVersion", kid, "/state/lines/line[kid='%1']/lets/let[kid=%2]/hw_version"}};
constexpr TextRule letSwVersionRule{{"getLetSWVersion", kid, "/state/lines/line[kid='%1']/lets/let[kid=%2]/sw_version"}};
constexpr KeyRule letVoltageRule{{"getLetVoltage", kid, "/state/lines/line[kid='%1']/lets/let[kid=%2]/let_vcc"},
                                 {{}, store(0), scaled(1000)}};
constexpr KeyRule toneMonitoringRule{{"getLineInMonitoring", kid, "/state/config/lines/line[kid='%1']/pilot_tone_sensing_enable"},
                                     {monitored, store(2), keepScratch}};
constexpr KeyRule micMonitoringRule{{"getLineInMonitoring", kid, "/state/config/lines/line[kid='%1']/mic_monitor_enable"},
                                    {monitored, store(2), keepScratch}};
constexpr KeyRule pilotToneRule{{"getPilotToneState", kid, "/state/lines/line[kid='%1']/pilot_tone_state"},
                                {pilotTone, store(1), keepScratch}};
constexpr KeyRule micStatusRule{{"getMicStatus", kid, "/state/lines/%1"},
                                {micStatus, store(4), keepScratch}};
constexpr KeyRule ethMonitoringRule{{"getEthMonitoring", kid, "/state/config/os_ip/eth_switch/port[port_id='%1']/monitored"},
                                    {monitored, store(2), keepScratch}};
// clang-format on

static_assert(std::size(lineRows) == ampChannels && lineRows[0].row == 0 && lineRows[1].row == 1);
static_assert(rowsBelow(lineKeys, ampChannels) && rowsBelow(lineKeys, lineInRows));
static_assert(rowsBelow(pilotToneKeys, lineInRows) && rowsBelow(micStatusKeys, lineInRows));
static_assert(rowsBelow(micMonitoringKeys, lineInRows));
static_assert(rowsBelow(ethPortKeys, ethPorts));

/// Calls `visit(channel, let, keys)` for every LET; numbers count from 0.
template <typename Visit>
void forEachLet(Visit visit)
{
    for (std::size_t channel = 0; channel < ampChannels; ++channel)
        for (std::size_t let = 0; let < letsPerChannel; ++let)
            visit(channel, let, Keys{lineRows[channel].key, letKeys[let]});
}

template <std::size_t size>
void parseLetText(const Notification &n, const TextRule &rule, LetRecord &record, char (LetEntry::*buffer)[size],
                  std::uint8_t LetChanges::*changed)
{
    forEachLet([&](std::size_t channel, std::size_t let, const Keys &keys) {
        QString text;
        if (!textStep(n, rule, keys, text))
            return;
        const QByteArray latin1Text = text.toLatin1();
        LetEntry &entry = record.lets[channel][let];
        copyBounded(entry.*buffer, {latin1Text.constData(), static_cast<std::size_t>(latin1Text.size())});
        entry.changed.*changed = 1;
    });
}

/// Status of a LET: 1 unknown (its channel is not ok), 2 not enabled, 3 not reported missing, 4 missing; `current` for
/// any other channel status.
constexpr std::uint32_t letStatus(std::uint32_t ampChannelStatus, std::uint32_t enabled, std::uint32_t presence,
                                  std::uint32_t current)
{
    if (ampChannelStatus == 3) {
        if (enabled != 1)
            return 2;
        return presence == 1 ? 4 : 3;
    }
    return ampChannelStatus >= 1 && ampChannelStatus <= 6 ? 1 : current;
}

} // namespace

void TalHandler::parseLineChannelState(const Notification &n)
{
    forEachKey(lineKeys, m_modelNumber, [&](const KeyRow &line) {
        std::uint32_t lineState = 0;
        const Step step = keyStep(n, lineStateRule, {line.key, {}}, lineState);
        if (step == Step::Handled)
            m_records.ampChannel.rows[line.row].lineState = lineState;
        // Intended: also copies the last pilot tone, of any input, to the line input of the same row.
        if (step != Step::NotHandled)
            m_records.lineIn.rows[line.row].lineInStatus = m_scratch.pilotTone;
    });
}

void TalHandler::parseAmpEnable(const Notification &n)
{
    for (std::size_t channel = 0; channel < ampChannels; ++channel) {
        AmpChannelRow &row = m_records.ampChannel.rows[channel];
        // The record's field is the scratch value: only a handled key changes it.
        if (keyStep(n, ampEnableRule, {lineRows[channel].key, {}}, row.ampEnable) == Step::Handled)
            deriveAmpChannelStatus(channel);
    }
}

void TalHandler::parseLetEnable(const Notification &n)
{
    forEachLet([&](std::size_t channel, std::size_t let, const Keys &keys) {
        // As in parseAmpEnable(), the record's field is the scratch value.
        if (keyStep(n, letEnableRule, keys, m_records.let.lets[channel][let].letEnabled) == Step::Handled)
            deriveLetStatus(channel, let);
    });
}

void TalHandler::parseLetDescription(const Notification &n)
{
    parseLetText(n, letDescriptionRule, m_records.let, &LetEntry::description, &LetChanges::description);
}

void TalHandler::parseLetHwVersion(const Notification &n)
{
    parseLetText(n, letHwVersionRule, m_records.let, &LetEntry::hardwareVersion, &LetChanges::hardwareVersion);
}

void TalHandler::parseLetSwVersion(const Notification &n)
{
    parseLetText(n, letSwVersionRule, m_records.let, &LetEntry::softwareVersion, &LetChanges::softwareVersion);
}

void TalHandler::parseLetVoltage(const Notification &n)
{
    forEachLet([&](std::size_t channel, std::size_t let, const Keys &keys) {
        if (keyStep(n, letVoltageRule, keys, m_scratch.voltage) != Step::Handled)
            return;
        LetEntry &entry = m_records.let.lets[channel][let];
        entry.letVoltage = m_scratch.voltage;
        entry.changed.voltage = 1;
        qDebug().noquote() << "stateLetVoltageUpdate"
                           << "Channel:" << channel + 1 << "LET:" << let + 1 << "Voltage:" << entry.letVoltage;
    });
}

void TalHandler::parseLineInMonitoring(const Notification &n)
{
    const auto storeMonitoring = [&](const KeyRule &rule, const KeyRow &input) {
        if (keyStep(n, rule, {input.key, {}}, m_scratch.lineInMonitoring) == Step::Handled)
            m_records.lineIn.rows[input.row].lineInMonitoring = m_scratch.lineInMonitoring;
    };
    forEachKey(pilotToneKeys, m_modelNumber, [&](const KeyRow &input) { storeMonitoring(toneMonitoringRule, input); });
    forEachKey(micMonitoringKeys, m_modelNumber, [&](const KeyRow &mic) { storeMonitoring(micMonitoringRule, mic); });
}

void TalHandler::parseLineInStatus(const Notification &n)
{
    forEachKey(pilotToneKeys, m_modelNumber, [&](const KeyRow &input) {
        if (keyStep(n, pilotToneRule, {input.key, {}}, m_scratch.pilotTone) == Step::Handled)
            m_records.lineIn.rows[input.row].lineInStatus = m_scratch.pilotTone;
    });
    forEachKey(micStatusKeys, m_modelNumber, [&](const KeyRow &mic) {
        if (keyStep(n, micStatusRule, {mic.key, {}}, m_scratch.micStatus) == Step::Handled)
            m_records.lineIn.rows[mic.row].micStatus = m_scratch.micStatus;
    });
}

void TalHandler::parseEthMonitoring(const Notification &n)
{
    forEachKey(ethPortKeys, m_modelNumber, [&](const KeyRow &port) {
        if (keyStep(n, ethMonitoringRule, {port.key, {}}, m_scratch.ethMonitoring) == Step::Handled)
            m_records.ethMonitoring.monitored[port.row] = m_scratch.ethMonitoring;
    });
}

void TalHandler::slotLetPrecenseUpdate(uint channel, uint let, uint presence)
{
    if (channel >= ampChannels || let < 1 || let > letsPerChannel || presence < 1 || presence > 2)
        return;
    m_records.let.lets[channel][let - 1].letPresence = presence;
    deriveLetStatus(channel, let - 1);
}

void TalHandler::deriveLetStatus(std::size_t channel, std::size_t let)
{
    LetEntry &entry = m_records.let.lets[channel][let];
    entry.letStatus =
        letStatus(m_records.ampChannel.rows[channel].status, entry.letEnabled, entry.letPresence, entry.letStatus);
    entry.changed.status = 1;
}
