// The subscriptions to the data service, and the parsers of its answers.
#include "tal/keystep.h"
#include "tal/talhandler.h"

#include <xrcommon/TalInterface.h>

#include <QDebug>

#include <algorithm>

namespace {

struct Subscription {
    const char *request; ///< its debug line; null: a further path of the request above, or a request without a line
    std::string_view reference;
    std::string_view path;
    ModelSet models; ///< noModelTest: every number, even an unknown one
};

// clang-format off
constexpr Subscription settingsSubscriptions[] = {
    {nullptr, "mib2_settings",   "/state/config/snmp_settings/mib_2_settings",  noModelTest},
    {nullptr, "access_control",  "/state/config/snmp_settings/access_control",  noModelTest},
    {nullptr, "trap_settings",   "/state/config/snmp_settings/trap_settings",   noModelTest},
    {nullptr, "version_control", "/state/config/snmp_settings/version_control", noModelTest},
    {nullptr, "custom_config",   "/state/config/snmp_settings/custom_config",   noModelTest},
};

constexpr Subscription dataSubscriptions[] = {
    {"requestStateDataSubscribeVoltageTable",           "kvsnmp_voltage",                 "/state/power_lines/power_line/voltage",                amplifierModels},
    {"requestStateDataSubscribeTempTable",              "kvsnmp_temp",                    "/state/temp_sensors",                                  amplifierModels},
    {"requestStateDataSubscribeFanTable",               "kvsnmp_fan",                     "/state/fans",                                          {6410, 6420, 6720, 6764}},
    {"requestConfigDataSubscribeControlInputMonitored", "kvsnmp_control_input_monitored", "/state/config/gpis/gpi/monitored",                     amplifierModels},
    {"requestConfigDataSubscribeAmpEnableStatus",       "kvsnmp_amp_enable",              "/state/config/lines/line/enable",                      twoChannelModels},
    {"requestStateDataSubscribeClassDStatus",           "kvsnmp_class_d_status",          "/state/class_d_amp_status",                            twoChannelModels},
    {"requestConfigDataSubscribeGpioType",              "kvsnmp_gpio_type",               "/state/config/gpios/gpio/gpio_type",                   gpioModels},
    {"requestConfigDataSubscribeLetEnable",             "kvsnmp_let_enable",              "/state/config/lines/line/lets/let/enabled",            letModels},
    {"requestConfigDataSubscribeLetDescription",        "kvsnmp_let_description",         "/state/config/lines/line/lets/let/let_description",    letModels},
    {"requestStateDataSubscribeLetHWVersion",           "kvsnmp_let_hw_version",          "/state/lines/line/lets/let/hw_version",                letModels},
    {"requestStateDataSubscribeLetSWVersion",           "kvsnmp_let_sw_version",          "/state/lines/line/lets/let/sw_version",                letModels},
    {"requestStateDataSubscribeLetVoltage",             "kvsnmp_let_voltage",             "/state/lines/line/lets/let/let_vcc",                   letModels},
    {"requestConfigDataSubscribeLineInMonitoring",      "kvsnmp_lineIn_monitoring",       "/state/config/lines/line/pilot_tone_sensing_enable",   pilotToneModels},
    {nullptr,                                           "kvsnmp_lineIn_monitoring",       "/state/config/lines/line/mic_monitor_enable",          microphoneModels},
    {"requestStateDataSubscribeLineInStatus",           "kvsnmp_lineIn_status",           "/state/lines/line/pilot_tone_state",                   pilotToneModels},
    {nullptr,                                           "kvsnmp_lineIn_status",           "/state/lines/mic_status_extern",                       microphoneModels},
    {nullptr,                                           "kvsnmp_lineIn_status",           "/state/lines/mic_status_intern",                       microphoneModels},
    {"requestStateDataSubscribeLineChannelState",       "kvsnmp_line_channel_state",      "/state/lines/line/characteristics/line_state",         twoChannelModels},
    {"requestConfigDataSubscribeEthMonitoring",         "kvsnmp_eth_monitoring",          "/state/config/os_ip/eth_switch/port/monitored",        ethMonitoringModels},
    {"requestConfigDataSubscribePowerMonitoring",       "kvsnmp_power_monitoring",        "/state/config/power_sources/power_source/monitored",   amplifierModels},
    {"requestStateDataSubscribePowerStatus",            "kvsnmp_power_status",            "/state/power_sources/power_source/live",               bothPowerModels},
    {"requestConfigDataSubscribeRelayDelay",            "kvsnmp_relay_delay",             "/state/config/gpos/gpo/delay",                         gpioModels},
    {"requestConfigDataSubscribeRelayIdleMode",         "kvsnmp_relay_idle_mode",         "/state/config/gpos/gpo/idle_mode",                     gpioModels},
    {"requestStateDataSubscribeSysMessages",            "kvsnmp_sys_messages",            "/state/sys_messages/sys_message",                      noModelTest},
};
// clang-format on

void subscribe(std::span<const Subscription> subscriptions, uint model)
{
    for (const Subscription &subscription : subscriptions) {
        if (subscription.request != nullptr)
            qDebug().noquote() << subscription.request;
        if (subscription.models.contains(model))
            TalInterface::requestDataSubscribeSingleLevel(latin1(subscription.reference), latin1(subscription.path),
                                                          QStringLiteral("change"), QStringLiteral("true"),
                                                          TALTARGET_DEFAULT);
    }
}

} // namespace

struct TalHandler::Tables {
    struct Route {
        std::string_view reference;
        void (TalHandler::*parse)(const Notification &n);
    };

    // clang-format off
    static constexpr Route routes[] = {
        {"mib2_settings",                  &TalHandler::parseMib2Settings},
        {"access_control",                 &TalHandler::parseAccessSettings},
        {"trap_settings",                  &TalHandler::parseTrapSettings},
        {"version_control",                &TalHandler::parseVersionSettings},
        {"custom_config",                  &TalHandler::parseCustomConfig},
        {"kvsnmp_amp_enable",              &TalHandler::parseAmpEnable},
        {"kvsnmp_voltage",                 &TalHandler::parseVoltage},
        {"kvsnmp_temp",                    &TalHandler::parseTemp},
        {"kvsnmp_fan",                     &TalHandler::parseFan},
        {"kvsnmp_control_input_monitored", &TalHandler::parseControlInputMonitored},
        {"kvsnmp_class_d_status",          &TalHandler::parseClassDStatus},
        {"kvsnmp_gpio_type",               &TalHandler::parseGpioType},
        {"kvsnmp_let_enable",              &TalHandler::parseLetEnable},
        {"kvsnmp_let_description",         &TalHandler::parseLetDescription},
        {"kvsnmp_let_hw_version",          &TalHandler::parseLetHwVersion},
        {"kvsnmp_let_sw_version",          &TalHandler::parseLetSwVersion},
        {"kvsnmp_let_voltage",             &TalHandler::parseLetVoltage},
        {"kvsnmp_lineIn_monitoring",       &TalHandler::parseLineInMonitoring},
        {"kvsnmp_lineIn_status",           &TalHandler::parseLineInStatus},
        {"kvsnmp_line_channel_state",      &TalHandler::parseLineChannelState},
        {"kvsnmp_eth_monitoring",          &TalHandler::parseEthMonitoring},
        {"kvsnmp_power_status",            &TalHandler::parsePowerLive},
        {"kvsnmp_power_monitoring",        &TalHandler::parsePowerMonitored},
        {"kvsnmp_relay_idle_mode",         &TalHandler::parseRelayIdleMode},
        {"kvsnmp_relay_delay",             &TalHandler::parseRelayDelay},
        {"kvsnmp_sys_messages",            &TalHandler::parseSysMessages},
    };
    // clang-format on

    static constexpr bool isRouted(const Subscription &subscription)
    {
        return std::any_of(std::begin(routes), std::end(routes),
                           [&](const Route &route) { return route.reference == subscription.reference; });
    }
};

QStringList TalHandler::settingsGroups()
{
    QStringList groups;
    for (const Subscription &subscription : settingsSubscriptions)
        groups.append(latin1(subscription.reference));
    return groups;
}

void TalHandler::slotTalReady()
{
    subscribe(settingsSubscriptions, m_modelNumber);
}

void TalHandler::slotStartSubscribe()
{
    qDebug().noquote() << "slotStartSubscribe";
    subscribe(dataSubscriptions, m_modelNumber);
}

void TalHandler::talHandlerNotifySlot(const QString refStr, const QString op, const QString rPath, const QString sPath,
                                      const QString data)
{
    static_assert(std::all_of(std::begin(settingsSubscriptions), std::end(settingsSubscriptions), Tables::isRouted));
    static_assert(std::all_of(std::begin(dataSubscriptions), std::end(dataSubscriptions), Tables::isRouted));

    for (const Tables::Route &route : Tables::routes) {
        if (refStr == latin1(route.reference)) {
            (this->*route.parse)({op, rPath, sPath, data});
            return;
        }
    }
}
