// Notifications: texts found by XPath, dispatch to each parser, decimal texts. To measure one notification, two
// alternate, because the tree of the last one is cached.
#include "tal/keystep.h"
#include "tal/talhandler.h"

#include <xrcommon/TalInterface.h>

#include <benchmark/benchmark.h>

#include <array>

namespace {

constexpr const char *description = "Orvane Brisel Extended";

QString qs(const char *text)
{
    return QString::fromUtf8(text);
}

/// All voltages of model 6420, as sent by the data service for a new list.
QString voltageSet(const char *value)
{
    QString xml = QStringLiteral("<power_lines>");
    for (const char *key : {"1v8SW", "50v0", "50v0AC", "50v0DC", "15v0CDA", "12v0PM", "1v8", "3v3", "5v0", "12v7",
                            "15v0", "24v0", "24v0FB"})
        xml += QStringLiteral("<power_line><kid>%1</kid><voltage>%2</voltage></power_line>").arg(qs(key), qs(value));
    return xml + QStringLiteral("</power_lines>");
}

const QString voltageLeaf = QStringLiteral("/state/power_lines/power_line[kid='3v3']/voltage");

void xpathOfOneKey(benchmark::State &state, const QString &rPath, const std::array<QString, 2> &data)
{
    QString text;
    std::size_t turn = 0;
    for ([[maybe_unused]] auto _ : state) {
        if (!TalInterface::xpathGetTextNode(text, voltageLeaf, {}, rPath, data[turn ^= 1]))
            state.SkipWithError("not found");
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK_CAPTURE(xpathOfOneKey, leaf, voltageLeaf, {qs("<voltage>3.3</voltage>"), qs("<voltage>3.4</voltage>")})
    ->Name("xpathGetTextNode/one key of a leaf, tree built");
BENCHMARK_CAPTURE(xpathOfOneKey, set, qs("/state/power_lines"), {voltageSet("3.3"), voltageSet("3.4")})
    ->Name("xpathGetTextNode/one key of 13 voltages, tree built");

void xpathOfKeptTree(benchmark::State &state)
{
    const QString path = QStringLiteral("/state/power_lines");
    const QString data = voltageSet("3.3");
    QString text;
    for ([[maybe_unused]] auto _ : state)
        benchmark::DoNotOptimize(TalInterface::xpathGetTextNode(text, voltageLeaf, {}, path, data));
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(xpathOfKeptTree)->Name("xpathGetTextNode/one key of 13 voltages, tree kept");

/// One notification with two alternating contents.
struct Example {
    const char *name;
    uint model;
    const char *reference;
    const char *rPath;
    QString data[2];
};

void dispatch(benchmark::State &state, const Example &example)
{
    TalHandler handler(nullptr, example.model, description);
    const QString reference = qs(example.reference);
    const QString operation = QStringLiteral("replace");
    const QString rPath = qs(example.rPath);
    std::size_t turn = 0;
    for ([[maybe_unused]] auto _ : state)
        handler.talHandlerNotifySlot(reference, operation, rPath, rPath, example.data[turn ^= 1]);
    state.SetItemsProcessed(state.iterations());
}

QString messageXml(const char *text)
{
    return QStringLiteral("<sys_message><reporter>controller</reporter><rep_ref>7</rep_ref><timestamp>1700000000"
                          "</timestamp><level>err</level><text>%1</text><msgdata><line_fault><kid>ch1</kid>"
                          "</line_fault></msgdata></sys_message>")
        .arg(qs(text));
}

QString leafXml(const char *name, const char *text)
{
    return QStringLiteral("<%1>%2</%1>").arg(qs(name), qs(text));
}

void registerDispatch()
{
    // clang-format off
    static const Example examples[] = {
        {"all 13 voltages",         6420, "kvsnmp_voltage", "/state/power_lines", {voltageSet("3.3"), voltageSet("3.4")}},
        {"voltage",                 6420, "kvsnmp_voltage", "/state/power_lines/power_line[kid='3v3']/voltage", {leafXml("voltage", "3.3"), leafXml("voltage", "3.4")}},
        {"temperature",             6420, "kvsnmp_temp", "/state/temp_sensors/temp_sensor[kid='amp_ac_power']/temp_current", {leafXml("temp_current", "41.5"), leafXml("temp_current", "41.6")}},
        {"fan",                     6420, "kvsnmp_fan", "/state/fans/fan[kid='amp_power']/speed_sensor_rpm", {leafXml("speed_sensor_rpm", "1200"), leafXml("speed_sensor_rpm", "1210")}},
        {"class-D status",          6420, "kvsnmp_class_d_status", "/state/class_d_amp_status/status", {leafXml("status", "ok"), leafXml("status", "fail")}},
        {"amplifier enabled",       6420, "kvsnmp_amp_enable", "/state/config/lines/line[kid='ch1']/enable", {leafXml("enable", "true"), leafXml("enable", "false")}},
        {"line state",              6420, "kvsnmp_line_channel_state", "/state/lines/line[kid='ch1']/characteristics/line_state", {leafXml("line_state", "ok"), leafXml("line_state", "open")}},
        {"LET enabled",             6420, "kvsnmp_let_enable", "/state/config/lines/line[kid='ch2']/lets/let[kid='9']/enabled", {leafXml("enabled", "true"), leafXml("enabled", "false")}},
        {"LET description",         6420, "kvsnmp_let_description", "/state/config/lines/line[kid='ch2']/lets/let[kid='9']/let_description", {leafXml("let_description", "foyer"), leafXml("let_description", "hall")}},
        {"LET hardware version",    6420, "kvsnmp_let_hw_version", "/state/lines/line[kid='ch2']/lets/let[kid='9']/hw_version", {leafXml("hw_version", "1"), leafXml("hw_version", "2")}},
        {"LET software version",    6420, "kvsnmp_let_sw_version", "/state/lines/line[kid='ch2']/lets/let[kid='9']/sw_version", {leafXml("sw_version", "1"), leafXml("sw_version", "2")}},
        {"LET voltage",             6420, "kvsnmp_let_voltage", "/state/lines/line[kid='ch2']/lets/let[kid='9']/let_vcc", {leafXml("let_vcc", "5.1"), leafXml("let_vcc", "5.2")}},
        {"line input monitored",    6420, "kvsnmp_lineIn_monitoring", "/state/config/lines/line[kid='ln1']/pilot_tone_sensing_enable", {leafXml("pilot_tone_sensing_enable", "true"), leafXml("pilot_tone_sensing_enable", "false")}},
        {"pilot tone",              6420, "kvsnmp_lineIn_status", "/state/lines/line[kid='ln1']/pilot_tone_state", {leafXml("pilot_tone_state", "ok"), leafXml("pilot_tone_state", "failed")}},
        {"microphone",              6214, "kvsnmp_lineIn_status", "/state/lines/mic_status_extern", {leafXml("mic_status_extern", "connected"), leafXml("mic_status_extern", "shorted")}},
        {"Ethernet port",           6420, "kvsnmp_eth_monitoring", "/state/config/os_ip/eth_switch/port[port_id='Eth1']/monitored", {leafXml("monitored", "true"), leafXml("monitored", "false")}},
        {"power source live",       6420, "kvsnmp_power_status", "/state/power_sources/power_source[kid='ac_power']/live", {leafXml("live", "true"), leafXml("live", "false")}},
        {"power source monitored",  6420, "kvsnmp_power_monitoring", "/state/config/power_sources/power_source[kid='ac_power']/monitored", {leafXml("monitored", "true"), leafXml("monitored", "false")}},
        {"control input monitored", 6420, "kvsnmp_control_input_monitored", "/state/config/gpis/gpi[kid='gpi1']/monitored", {leafXml("monitored", "true"), leafXml("monitored", "false")}},
        {"relay delay",             6214, "kvsnmp_relay_delay", "/state/config/gpos/gpo[kid='relay1']/delay", {leafXml("delay", "500"), leafXml("delay", "600")}},
        {"relay idle mode",         6214, "kvsnmp_relay_idle_mode", "/state/config/gpos/gpo[kid='relay1']/idle_mode", {leafXml("idle_mode", "normal_open"), leafXml("idle_mode", "normal_closed")}},
        {"GPIO type",               6214, "kvsnmp_gpio_type", "/state/config/gpios/gpio[kid='gpio3']/gpio_type", {leafXml("gpio_type", "gpi"), leafXml("gpio_type", "gpo")}},
        {"system message",          6420, "kvsnmp_sys_messages", "/state/sys_messages/sys_message[reporter='controller'][rep_ref='7']", {messageXml("one"), messageXml("two")}},
        {"names",                   6420, "mib2_settings", "/state/config/snmp_settings/mib_2_settings/sys_name", {leafXml("sys_name", "hall"), leafXml("sys_name", "foyer")}},
        {"access",                  6420, "access_control", "/state/config/snmp_settings/access_control/snmp_port", {leafXml("snmp_port", "161"), leafXml("snmp_port", "1161")}},
        {"enabled traps",           6420, "trap_settings", "/state/config/snmp_settings/trap_settings/traps/trap[name='LET Fault']/enabled", {leafXml("enabled", "true"), leafXml("enabled", "false")}},
        {"versions",                6420, "version_control", "/state/config/snmp_settings/version_control/version_1", {leafXml("version_1", "true"), leafXml("version_1", "false")}},
        {"custom file",             6420, "custom_config", "/state/config/snmp_settings/custom_config", {leafXml("custom_config", "true"), leafXml("custom_config", "false")}},
    };
    // clang-format on
    for (const Example &example : examples)
        benchmark::RegisterBenchmark((std::string("notification/") + example.name).c_str(),
                                     [&example](benchmark::State &state) { dispatch(state, example); });
}
const bool registered = (registerDispatch(), true);

void decimalText(benchmark::State &state)
{
    const QString text = QStringLiteral("12.345");
    for ([[maybe_unused]] auto _ : state)
        benchmark::DoNotOptimize(scaledInteger(text, 1000));
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(decimalText)->Name("decimal text to a scaled integer");

} // namespace
