// Measured values: voltages, temperatures, fans, class-D amplifiers, live power sources.
#include "tal/keystep.h"
#include "tal/talhandler.h"

#include <QDebug>

namespace {

// clang-format off
constexpr KeyRow voltages6420[] = { // two keys may feed one slot: a slot means one voltage line on every model
    {"1v8SW",    0},
    {"50v0",     9},
    {"50v0AC",  11},
    {"50v0DC",  13},
    {"15v0CDA", 15},
    {"12v0PM",  16},
};
constexpr KeyRow voltages6410[] = {
    {"1v2",     1},
    {"32v0",   10},
    {"24v0AC", 12},
    {"24v0DC", 14},
};
constexpr KeyRow voltagesOfBoth[] = {
    {"1v8",    2},
    {"3v3",    3},
    {"5v0",    4},
    {"12v7",   5},
    {"15v0",   6},
    {"24v0",   7},
    {"24v0FB", 8},
};
constexpr KeyRow voltages6720[] = {
    {"1v8SW",      0},
    {"3v3",        3},
    {"5v0",        4},
    {"12v7",       5},
    {"12v7_LN",   17},
    {"15v_amp",   15},
    {"24v0",       7},
    {"MainPower",  9},
};
constexpr KeyRow voltages6764[] = {
    {"1v8_sw",    0},
    {"3v3",       3},
    {"5v0",       4},
    {"12v7",      5},
    {"12v_ln",   17},
    {"15v0_amp", 15},
    {"24v0",      7},
    {"50v0",      9},
};
constexpr KeyRow voltages6425[] = {
    {"1v8",        2},
    {"1v8SW",      0},
    {"3v3",        3},
    {"5v0",        4},
    {"15v0",       6},
    {"24v0Plus",  18},
    {"24v0Minus", 19},
};
constexpr KeySet voltageKeys[] = {
    {{6420},       voltages6420},
    {{6410},       voltages6410},
    {{6410, 6420}, voltagesOfBoth},
    {{6720},       voltages6720},
    {{6764},       voltages6764},
    {{6425},       voltages6425},
};

constexpr KeyRow temps6410[] = {
    {"cntlr_main_board_1", 3},
    {"cntlr_main_board_2", 4},
    {"cntlr_ac_power",     5},
    {"cntlr_dc_power",     6},
};
constexpr KeyRow temps6420[] = {
    {"amp_class_d_amp_1", 0},
    {"amp_class_d_amp_2", 1},
    {"amp_main_board",    2},
    {"amp_ac_power",      5},
    {"amp_dc_power",      6},
};
constexpr KeyRow temps6720[] = {
    {"class_d",    0},
    {"main_board", 2},
};
constexpr KeyRow temps6764[] = {
    {"class_d",   0},
    {"mainboard", 2},
    {"dcdc_conv", 5},
};
constexpr KeyRow temps6425[] = {
    {"channel_1",  0},
    {"channel_2",  1},
    {"main_board", 2},
    {"power",      6},
};
constexpr KeySet tempKeys[] = {
    {{6410}, temps6410},
    {{6420}, temps6420},
    {{6720}, temps6720},
    {{6764}, temps6764},
    {{6425}, temps6425},
};
struct TempField { std::string_view leaf; std::uint32_t TempRow::*value; };
constexpr TempField tempFields[] = {
    {"temp_peak",    &TempRow::peak},
    {"temp_average", &TempRow::average},
};

constexpr KeyRow fans6410[] = {{"cntlr_power", 0}};
constexpr KeyRow fans6420[] = {{"amp_power", 0}, {"amp_class_d", 1}};
constexpr KeyRow fans6720[] = {{"amp_class_d", 0}};
constexpr KeyRow fans6764[] = {{"fan2", 0}, {"fan1", 1}};
constexpr KeySet fanKeys[] = {
    {{6410}, fans6410},
    {{6420}, fans6420},
    {{6720}, fans6720},
    {{6764}, fans6764},
};

constexpr TextCode classDCodes[] = {{"ok", 2}};

// name, key label of the complaint, path, codes, "delete", other text
constexpr KeyRule voltageRule{{"getVoltage", noKey, "/state/power_lines/power_line[kid='%1']/voltage"},
                              {{}, store(0), scaled(1000)}};
constexpr KeyRule tempRule   {{"getTemp", noKey, "/state/temp_sensors/temp_sensor[kid='%1']/%2"},
                              {{}, store(0), scaled(10)}};
constexpr KeyRule fanRule    {{"getFan", noKey, "/state/fans/fan[kid='%1']/speed_sensor_rpm"},
                              {{}, store(0), scaled(1)}};
constexpr KeyRule classDRule {{"stateClassDStatusUpdate", noKey, "/state/class_d_amp_status/status"},
                              {classDCodes, leaveRow, store(1)}};
// clang-format on

static_assert(rowsBelow(voltageKeys, voltageSlots));
static_assert(rowsBelow(tempKeys, tempRows));
static_assert(rowsBelow(fanKeys, fanRows));

/// Status of an amplifier channel: 1 unknown, 2 disabled, 3 ok, 4 class-D fault, 5 monitor fault.
constexpr std::uint32_t channelStatus(std::uint32_t classDStatus, std::uint32_t ampEnable,
                                      std::uint32_t ampMonitorStatus)
{
    if (classDStatus == 1)
        return 4;
    if (classDStatus != 2)
        return 1;
    if (ampEnable == 1)
        return 2;
    if (ampEnable != 2)
        return 1;
    if (ampMonitorStatus == 2)
        return 3;
    return ampMonitorStatus == 1 ? 5 : 1;
}

} // namespace

void TalHandler::parseVoltage(const Notification &n)
{
    forEachKey(voltageKeys, m_modelNumber, [&](const KeyRow &slot) {
        measureStep(n, voltageRule, {slot.key, {}}, m_records.voltage.values[slot.row]);
    });
}

void TalHandler::parseTemp(const Notification &n)
{
    forEachKey(tempKeys, m_modelNumber, [&](const KeyRow &sensor) {
        TempRow &row = m_records.temp.rows[sensor.row];
        measureStep(n, tempRule, {sensor.key, "temp_current"}, row.current);
        for (const TempField &field : tempFields)
            keyStep(n, tempRule, {sensor.key, field.leaf}, row.*field.value);
    });
}

void TalHandler::parseFan(const Notification &n)
{
    forEachKey(fanKeys, m_modelNumber, [&](const KeyRow &fan) {
        Measured &speed = m_records.fan.values[fan.row];
        if (measureStep(n, fanRule, {fan.key, {}}, speed) == Step::Handled && m_modelNumber != 6410)
            qDebug().noquote() << "stateSnmpAgentFanTableUpdate" << (fan.row == 0 ? "fanLeft:" : "fanRight:")
                               << speed.value;
    });
}

void TalHandler::parseClassDStatus(const Notification &n)
{
    keyStep(n, classDRule, {}, m_classDStatus); // the member is the scratch value: only a handled key changes it
    for (std::size_t channel = 0; channel < ampChannels; ++channel)
        deriveAmpChannelStatus(channel);
}

void TalHandler::slotAmpChannelStatusUpdate(uint channel, uint status)
{
    if (channel >= ampChannels || status < 1 || status > 2)
        return;
    m_records.ampChannel.rows[channel].ampMonitorStatus = status;
    deriveAmpChannelStatus(channel);
}

void TalHandler::deriveAmpChannelStatus(std::size_t channel)
{
    if (m_modelNumber == 6425) // has no class-D status
        m_classDStatus = 2;
    AmpChannelRow &row = m_records.ampChannel.rows[channel];
    row.status = channelStatus(m_classDStatus, row.ampEnable, row.ampMonitorStatus);
}
