// What the client asks the data service for: the subscriptions of each model, in order, and the version that it can
// tell.
#include "support/messagelog.h"
#include "support/talpeer.h"
#include "support/testprogram.h"

#include "device/models.h"
#include "tal/talhandler.h"

#include <xrcommon/TalInterface.h>

#include <QCoreApplication>
#include <QSignalSpy>
#include <QVector>
#include <QtTest>

#include <algorithm>
#include <optional>
#include <span>

namespace {

using Models = QVector<uint>;

struct Subscription {
    const char *request; ///< null: a further path of the request above
    const char *ref;
    const char *path;
    Models models;
};

const Models every{6211, 6214, 6259, 6410, 6420, 6425, 6601, 6602, 6720, 6764, 6891, 6913, 6914};

// clang-format off
const Subscription settingsBlock[] = {
    {nullptr, "mib2_settings",   "/state/config/snmp_settings/mib_2_settings",  every},
    {nullptr, "access_control",  "/state/config/snmp_settings/access_control",  every},
    {nullptr, "trap_settings",   "/state/config/snmp_settings/trap_settings",   every},
    {nullptr, "version_control", "/state/config/snmp_settings/version_control", every},
    {nullptr, "custom_config",   "/state/config/snmp_settings/custom_config",   every},
};

const Subscription dataBlock[] = {
    {"requestStateDataSubscribeVoltageTable", "kvsnmp_voltage", "/state/power_lines/power_line/voltage",
     {6410, 6420, 6425, 6720, 6764}},
    {"requestStateDataSubscribeTempTable", "kvsnmp_temp", "/state/temp_sensors", {6410, 6420, 6425, 6720, 6764}},
    {"requestStateDataSubscribeFanTable", "kvsnmp_fan", "/state/fans", {6410, 6420, 6720, 6764}},
    {"requestConfigDataSubscribeControlInputMonitored", "kvsnmp_control_input_monitored",
     "/state/config/gpis/gpi/monitored", {6410, 6420, 6425, 6720, 6764}},
    {"requestConfigDataSubscribeAmpEnableStatus", "kvsnmp_amp_enable", "/state/config/lines/line/enable",
     {6420, 6425, 6720, 6764}},
    {"requestStateDataSubscribeClassDStatus", "kvsnmp_class_d_status", "/state/class_d_amp_status",
     {6420, 6425, 6720, 6764}},
    {"requestConfigDataSubscribeGpioType", "kvsnmp_gpio_type", "/state/config/gpios/gpio/gpio_type",
     {6211, 6214, 6259, 6891}},
    {"requestConfigDataSubscribeLetEnable", "kvsnmp_let_enable", "/state/config/lines/line/lets/let/enabled",
     {6420, 6720, 6764}},
    {"requestConfigDataSubscribeLetDescription", "kvsnmp_let_description",
     "/state/config/lines/line/lets/let/let_description", {6420, 6720, 6764}},
    {"requestStateDataSubscribeLetHWVersion", "kvsnmp_let_hw_version", "/state/lines/line/lets/let/hw_version",
     {6420, 6720, 6764}},
    {"requestStateDataSubscribeLetSWVersion", "kvsnmp_let_sw_version", "/state/lines/line/lets/let/sw_version",
     {6420, 6720, 6764}},
    {"requestStateDataSubscribeLetVoltage", "kvsnmp_let_voltage", "/state/lines/line/lets/let/let_vcc",
     {6420, 6720, 6764}},
    {"requestConfigDataSubscribeLineInMonitoring", "kvsnmp_lineIn_monitoring",
     "/state/config/lines/line/pilot_tone_sensing_enable", {6410, 6420, 6425}},
    {nullptr, "kvsnmp_lineIn_monitoring", "/state/config/lines/line/mic_monitor_enable", {6214, 6259, 6601, 6602}},
    {"requestStateDataSubscribeLineInStatus", "kvsnmp_lineIn_status", "/state/lines/line/pilot_tone_state",
     {6410, 6420, 6425}},
    {nullptr, "kvsnmp_lineIn_status", "/state/lines/mic_status_extern", {6214, 6259, 6601, 6602}},
    {nullptr, "kvsnmp_lineIn_status", "/state/lines/mic_status_intern", {6214, 6259, 6601, 6602}},
    {"requestStateDataSubscribeLineChannelState", "kvsnmp_line_channel_state",
     "/state/lines/line/characteristics/line_state", {6420, 6425, 6720, 6764}},
    {"requestConfigDataSubscribeEthMonitoring", "kvsnmp_eth_monitoring", "/state/config/os_ip/eth_switch/port/monitored",
     {6214, 6259, 6410, 6420, 6425, 6601, 6602, 6720, 6764, 6913, 6914}},
    {"requestConfigDataSubscribePowerMonitoring", "kvsnmp_power_monitoring",
     "/state/config/power_sources/power_source/monitored", {6410, 6420, 6425, 6720, 6764}},
    {"requestStateDataSubscribePowerStatus", "kvsnmp_power_status", "/state/power_sources/power_source/live",
     {6410, 6420}},
    {"requestConfigDataSubscribeRelayDelay", "kvsnmp_relay_delay", "/state/config/gpos/gpo/delay",
     {6211, 6214, 6259, 6891}},
    {"requestConfigDataSubscribeRelayIdleMode", "kvsnmp_relay_idle_mode", "/state/config/gpos/gpo/idle_mode",
     {6211, 6214, 6259, 6891}},
    {"requestStateDataSubscribeSysMessages", "kvsnmp_sys_messages", "/state/sys_messages/sys_message", every},
};
// clang-format on

/// A subscription as it goes over the socket.
QByteArray requestOf(const Subscription &subscription)
{
    return QByteArray("<request><ref>") + subscription.ref + "</ref><subscribe><path>" + subscription.path +
           "</path><operation>change</operation><single_level>true</single_level><target>0</target></subscribe></"
           "request>";
}

QByteArrayList requestsOf(uint model, std::span<const Subscription> block)
{
    QByteArrayList requests;
    for (const Subscription &subscription : block)
        if (subscription.models.contains(model))
            requests << requestOf(subscription);
    return requests;
}

/// The debug lines of the data block: the same on every model.
QStringList requestNames()
{
    QStringList names{QStringLiteral("slotStartSubscribe")};
    for (const Subscription &subscription : dataBlock)
        if (subscription.request)
            names << QString::fromLatin1(subscription.request);
    return names;
}

const QByteArray lastWord = "<request><ref>last_word</ref></request>";

} // namespace

class TestSubscriptions : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void settingsBlockOf_data() { addModels(); }
    void settingsBlockOf();
    void dataBlockOf_data() { addModels(); }
    void dataBlockOf();
    void numberOfSubscriptions_data();
    void numberOfSubscriptions();
    void unknownModelSubscribesToWhatHasNoModelTest();
    void lineInStatusOf6214();
    void dataBlockOf6410();
    void fanOf6425IsNotSubscribedTo();
    void eachInvocationSubscribesAgain();
    void requestsOfAnUnconnectedServiceAreNamedAllTheSame();
    void voltageOnItsWayFromTheSocketToTheRecord();

    void publishSoftwareVersionEditsAndAsks();
    void subscribingDoesNotPublishTheVersion();

private:
    static void addModels();
    void connectToPeer(uint model);
    /// Everything that was sent since the last call.
    QByteArrayList sent();

    std::optional<MessageLog> m_log;
    std::optional<TalPeer> m_peer;
    std::optional<TalInterface> m_interface;
    std::optional<TalHandler> m_handler;
};

void TestSubscriptions::init()
{
    qputenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/system_bus_socket");
    m_log.emplace();
    m_peer.emplace();
}

void TestSubscriptions::cleanup()
{
    m_handler.reset();
    m_interface.reset();
    m_peer.reset();
    m_log.reset();
}

void TestSubscriptions::addModels()
{
    QTest::addColumn<uint>("model");
    for (const uint model : every)
        QTest::addRow("%u", model) << model;
}

void TestSubscriptions::connectToPeer(uint model)
{
    m_interface.emplace(nullptr);
    QSignalSpy connected(&*m_interface, SIGNAL(talLocalUnixSocketConnectedSignal()));
    QTRY_COMPARE(connected.size(), 1);
    m_handler.emplace(nullptr, model, "Orvane Brisel Extended - IP-QRM-B");
    m_log->takeLines();
}

QByteArrayList TestSubscriptions::sent()
{
    TalInterface::requestData(QString::fromLatin1(lastWord), TALTARGET_DEFAULT);
    QByteArrayList all;
    [&] { QTRY_COMPARE(m_peer->messages().value(m_peer->messages().size() - 1), lastWord); }();
    all = m_peer->takeMessages();
    all.removeLast();
    return all;
}

void TestSubscriptions::settingsBlockOf()
{
    QFETCH(uint, model);

    connectToPeer(model);
    m_handler->slotTalReady();
    QCOMPARE(sent(), requestsOf(model, settingsBlock));
    QCOMPARE(m_log->lines(), QStringList());
}

void TestSubscriptions::dataBlockOf()
{
    QFETCH(uint, model);

    connectToPeer(model);
    m_handler->slotStartSubscribe();
    QCOMPARE(m_log->lines(), requestNames());
    QCOMPARE(sent(), requestsOf(model, dataBlock));
}

void TestSubscriptions::numberOfSubscriptions_data()
{
    QTest::addColumn<uint>("model");
    QTest::addColumn<int>("count"); // of the data block; counted by hand
    const QVector<QPair<uint, int>> counts{{6211, 4},  {6214, 8}, {6259, 8}, {6410, 10}, {6420, 18},
                                           {6425, 11}, {6601, 5}, {6602, 5}, {6720, 15}, {6764, 15},
                                           {6891, 4},  {6913, 2}, {6914, 2}};
    for (const auto &[model, count] : counts)
        QTest::addRow("%u", model) << model << count;
}

void TestSubscriptions::numberOfSubscriptions()
{
    QFETCH(uint, model);
    QFETCH(int, count);

    connectToPeer(model);
    m_handler->slotStartSubscribe();
    QCOMPARE(sent().size(), count);
}

void TestSubscriptions::unknownModelSubscribesToWhatHasNoModelTest()
{
    for (const uint model : {0U, 9999U}) {
        connectToPeer(model);
        m_handler->slotTalReady();
        m_handler->slotStartSubscribe();
        QCOMPARE(sent(), requestsOf(every.first(), settingsBlock) << requestOf(*std::rbegin(dataBlock)));
        m_handler.reset();
        m_interface.reset();
    }
}

void TestSubscriptions::lineInStatusOf6214()
{
    connectToPeer(6214);
    m_handler->slotStartSubscribe();
    QByteArrayList paths;
    for (const QByteArray &request : sent())
        if (request.contains("<ref>kvsnmp_lineIn_status</ref>"))
            paths << request.mid(request.indexOf("<path>") + 6, 30);
    QCOMPARE(paths, QByteArrayList({"/state/lines/mic_status_extern", "/state/lines/mic_status_intern"}));
}

void TestSubscriptions::dataBlockOf6410()
{
    connectToPeer(6410);
    m_handler->slotStartSubscribe();
    const QByteArray all = sent().join();
    for (const char *ref : {"kvsnmp_fan", "kvsnmp_power_status", "kvsnmp_voltage"})
        QVERIFY2(all.contains(QByteArray("<ref>") + ref + "</ref>"), ref);
    for (const char *ref : {"kvsnmp_amp_enable", "kvsnmp_class_d_status", "kvsnmp_let_", "kvsnmp_line_channel_state"})
        QVERIFY2(!all.contains(ref), ref);
}

void TestSubscriptions::fanOf6425IsNotSubscribedTo()
{
    connectToPeer(6425);
    m_handler->slotStartSubscribe();
    const QByteArray all = sent().join();
    QVERIFY(!all.contains("kvsnmp_fan"));
    QVERIFY(all.contains("<ref>kvsnmp_voltage</ref>"));
    QVERIFY(all.contains("<ref>kvsnmp_temp</ref>"));
}

void TestSubscriptions::eachInvocationSubscribesAgain()
{
    connectToPeer(6420);
    m_handler->slotTalReady();
    m_handler->slotStartSubscribe();
    m_handler->slotStartSubscribe();
    m_handler->slotTalReady();
    const QByteArrayList settings = requestsOf(6420, settingsBlock);
    const QByteArrayList data = requestsOf(6420, dataBlock);
    QCOMPARE(sent(), settings + data + data + settings);
    QCOMPARE(m_log->lines(), requestNames() + requestNames());
}

void TestSubscriptions::requestsOfAnUnconnectedServiceAreNamedAllTheSame()
{
    m_handler.emplace(nullptr, 6420, ""); // no TalInterface: the library drops each request with a line of its own
    m_handler->slotTalReady();
    m_handler->slotStartSubscribe();
    QStringList lines = m_log->takeLines();
    lines.erase(std::remove_if(lines.begin(), lines.end(),
                               [](const QString &line) { return line.contains(QLatin1String(" dropped: ")); }),
                lines.end());
    QCOMPARE(lines, requestNames());
    QCOMPARE(m_peer->messages(), QByteArrayList());
}

void TestSubscriptions::voltageOnItsWayFromTheSocketToTheRecord()
{
    connectToPeer(6420);
    QObject::connect(
        &*m_interface,
        SIGNAL(talNotifySignal(const QString, const QString, const QString, const QString, const QString)), &*m_handler,
        SLOT(talHandlerNotifySlot(const QString, const QString, const QString, const QString, const QString)));
    const auto &millivolts = m_handler->tableRecords().voltage.values;
    m_peer->sendNotify(QStringLiteral("kvsnmp_voltage"), QStringLiteral("create"),
                       QStringLiteral("/state/power_lines/power_line[kid='24v0FB']/voltage"),
                       QStringLiteral("/state/power_lines/power_line/voltage"),
                       QStringLiteral("<voltage>23.9</voltage>"));
    QTRY_COMPARE(millivolts[8], 23900U);
    m_peer->sendNotify(QStringLiteral("kvsnmp_voltage"), QStringLiteral("delete"),
                       QStringLiteral("/state/power_lines/power_line[kid='24v0FB']/voltage"),
                       QStringLiteral("/state/power_lines/power_line/voltage"), QString());
    QTRY_COMPARE(millivolts[8], 0U);
    QCOMPARE(m_log->lines(), QStringList());
}

void TestSubscriptions::publishSoftwareVersionEditsAndAsks()
{
    QCoreApplication::setApplicationName(QStringLiteral("some-name"));
    QCoreApplication::setApplicationVersion(QStringLiteral("4.5.6"));
    connectToPeer(6913);
    m_handler->publishSoftwareVersion();
    QCOMPARE(sent(),
             QByteArrayList({"<request><ref>KvSnmpSWVersion</ref><edit><path>/state/version</path>"
                             "<operation>patch</operation><data><version><software><kid>some-name</kid>"
                             "<version>4.5.6</version></software></version></data></edit></request>",
                             "<request><ref>debug_info-kvsnmp</ref><rpc><session_info><debug_info>kvsnmp</debug_info>"
                             "</session_info></rpc></request>"}));
}

void TestSubscriptions::subscribingDoesNotPublishTheVersion()
{
    connectToPeer(6914);
    m_handler->slotTalReady();
    m_handler->slotStartSubscribe();
    for (const QByteArray &request : sent())
        QVERIFY2(request.contains("<subscribe>"), request.constData());
}

const TestEntry entry("tst_subscriptions", runTest<TestSubscriptions>);
#include "tst_subscriptions.moc"
