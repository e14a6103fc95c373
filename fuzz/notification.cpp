// Notifications through every parser, and their effects: faults, snmpd.conf. The input is one letter for the model
// (capital: a station with expanders), then notifications separated by NULs. Each is two letters, the reference and the
// operation, and after a line feed the path, the subscribed path and the data, the first two on a line each.
#include "confcheck.h"
#include "support.h"

#include "agent/kvagent.h"
#include "agent/trapgate.h"
#include "device/models.h"
#include "faults/faulthandler.h"
#include "tal/talhandler.h"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <iterator>

namespace {

constexpr const char *references[] = {
    // a, b, c, ... z
    "mib2_settings",
    "access_control",
    "trap_settings",
    "version_control",
    "custom_config",
    "kvsnmp_amp_enable",
    "kvsnmp_voltage",
    "kvsnmp_temp",
    "kvsnmp_fan",
    "kvsnmp_control_input_monitored",
    "kvsnmp_class_d_status",
    "kvsnmp_gpio_type",
    "kvsnmp_let_enable",
    "kvsnmp_let_description",
    "kvsnmp_let_hw_version",
    "kvsnmp_let_sw_version",
    "kvsnmp_let_voltage",
    "kvsnmp_lineIn_monitoring",
    "kvsnmp_lineIn_status",
    "kvsnmp_line_channel_state",
    "kvsnmp_eth_monitoring",
    "kvsnmp_power_status",
    "kvsnmp_power_monitoring",
    "kvsnmp_relay_idle_mode",
    "kvsnmp_relay_delay",
    "kvsnmp_sys_messages",
};
static_assert(std::size(references) == 26);

/// 'a' is the first of `count`; any other byte is also a valid place.
std::size_t placeOfLetter(std::uint8_t letter, std::size_t count)
{
    return (static_cast<std::size_t>(std::tolower(letter)) + 'a' * (count - 1)) % count;
}

QString operationOfLetter(std::uint8_t letter)
{
    switch (letter) {
    case 'c':
        return QStringLiteral("create");
    case 'r':
        return QStringLiteral("replace");
    case 'd':
        return QStringLiteral("delete");
    default:
        return textOf({reinterpret_cast<const char *>(&letter), 1});
    }
}

template <std::size_t size>
void checkTerminated(const char (&text)[size])
{
    require(strnlen(text, size) < size, "a text of a LET is terminated");
}

/// The valid codes of each record; the unit tests check their meaning.
void checkRecords(const TableRecords &records)
{
    for (const AmpChannelRow &row : records.ampChannel.rows)
        require(row.status >= 1 && row.status <= 5 && row.lineState <= 15 && row.ampEnable <= 2 &&
                    row.ampMonitorStatus == 3,
                "amplifier channels hold codes");
    for (const auto &channel : records.let.lets) {
        for (const LetEntry &let : channel) {
            require(let.letStatus <= 4 && let.letPresence == 0 && let.letEnabled <= 2, "LETs hold codes");
            for (const std::uint8_t flag : {let.changed.status, let.changed.description, let.changed.softwareVersion,
                                            let.changed.hardwareVersion, let.changed.voltage})
                require(flag <= 1, "a change flag is 0 or 1");
            checkTerminated(let.description);
            checkTerminated(let.softwareVersion);
            checkTerminated(let.hardwareVersion);
        }
    }
    for (const LineInRow &row : records.lineIn.rows)
        require(row.lineInStatus <= 3 && row.micStatus <= 7 && row.lineInMonitoring <= 3, "line inputs hold codes");
    for (const std::uint32_t monitored : records.ethMonitoring.monitored)
        require(monitored <= 3, "Ethernet ports hold codes");
    for (const PowerRow &row : records.power.rows)
        require(row.liveStatus <= 3 && row.monitored <= 3, "power sources hold codes");
    for (const RelayRow &row : records.relay.rows)
        require(row.status <= 4 && row.idleMode <= 3, "relays hold codes");
    for (const ControlInputRow &row : records.controlInput.rows)
        require(row.status == 1 && row.monitored >= 1 && row.monitored <= 2, "control inputs hold codes");
    for (const std::uint32_t status : records.controlOutput.status)
        require(status == 1, "control outputs hold codes");
}

int takeTrap(std::uint32_t number, const char *description, std::int32_t level, const char *time)
{
    require(number >= 1 && number <= 20, "a trap has a number");
    require(description != nullptr && time != nullptr, "a trap has its texts");
    require(level >= 1 && level <= 5, "a trap has a severity");
    return number % 2 == 0 ? 0 : -1;
}

/// The receivers of the handler's signals, connected like in the application.
class Roads {
public:
    Roads(uint model, const char *description) : handler(nullptr, model, description), m_faults(nullptr, m_gate)
    {
        m_gate.openSession(-1);
        QObject::connect(&handler, &TalHandler::signalReportFault, &m_faults, &FaultHandler::onReportFault);
        QObject::connect(&handler, &TalHandler::signalUpdateEnabledSnmpTraps, &m_faults,
                         &FaultHandler::onUpdateEnabledSnmpTraps);
        QObject::connect(&handler, &TalHandler::signalUpdateEnabledSnmpTraps, &handler,
                         [](const QMap<QString, bool> &traps) { require(traps.size() == 20, "there are 20 traps"); });
        QObject::connect(&handler, &TalHandler::signalSetGpioType, &handler, [](uint id, uint type) {
            require(id < controlInputRows && type >= 1 && type <= 3, "a GPIO line and its type exist");
        });
        QObject::connect(&handler, &TalHandler::signalSnmpdConfAccessSettings, &handler,
                         [this](const SnmpAccessSettings &access) { write(m_settings.access, access); });
        QObject::connect(&handler, &TalHandler::signalSnmpdConfMib2Settings, &handler,
                         [this](const SnmpMib2Settings &mib2) { write(m_settings.mib2, mib2); });
        QObject::connect(&handler, &TalHandler::signalSnmpdConfTrapSettings, &handler,
                         [this](const SnmpTrapSettings &trap) { write(m_settings.trap, trap); });
        QObject::connect(&handler, &TalHandler::signalSnmpdConfVersionSettings, &handler,
                         [this](const SnmpVersionSettings &version) { write(m_settings.version, version); });
    }

    TalHandler handler;

private:
    template <typename Group>
    void write(Group &mine, const Group &received)
    {
        mine = received;
        checkConf(m_settings);
    }

    TrapGate m_gate;
    FaultHandler m_faults;
    SnmpdConfSettings m_settings;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    static KvAgent agent{};
    if (kvAgent == nullptr) {
        quieten();
        agent.sendTrap = takeTrap;
        kvAgent = &agent;
    }
    if (size < 4)
        return 0;
    const char *const description =
        std::isupper(data[0]) != 0 ? "Orvane Brisel Compact - IP-QRM-B" : "Orvane Brisel Extended";
    Roads roads(knownModels[placeOfLetter(data[0], std::size(knownModels))], description);

    std::string_view rest = viewOf(data + 1, size - 1);
    while (!rest.empty()) {
        std::string_view notification = takeUpTo(rest, '\0');
        const std::string_view letters = takeUpTo(notification, '\n');
        if (letters.size() < 2)
            continue;
        const auto reference = static_cast<std::uint8_t>(letters[0]);
        const QString rPath = textOf(takeUpTo(notification, '\n'));
        const QString sPath = textOf(takeUpTo(notification, '\n'));
        roads.handler.talHandlerNotifySlot(QLatin1String(references[placeOfLetter(reference, std::size(references))]),
                                           operationOfLetter(static_cast<std::uint8_t>(letters[1])), rPath, sPath,
                                           textOf(notification));
        checkRecords(roads.handler.tableRecords());
    }
    return 0;
}
