// The class frame of the data-service client: construction, routing, the order of its signals and slots.
#include "support/talbench.h"
#include "support/testprogram.h"

#include "app/trace/trace.h"
#include "device/models.h"

#include <QMetaMethod>
#include <QSignalSpy>
#include <QVector>

#include <algorithm>
#include <functional>
#include <memory>
#include <new>

namespace {

using Numbers = QVector<uint>;

/// What a model's records hold before any data has come, as far as it depends on the model.
struct Defaults {
    uint model;
    uint eth;        ///< both ports
    Numbers acPower; ///< live status, monitored
    Numbers dcPower;
    Numbers lineIn1; ///< pilot tone, microphone, monitoring
    Numbers lineIn2;
    Numbers relay; ///< status, idle mode, delay; all twelve
};

// clang-format off
const Defaults defaultsOf[] = {
    {6211, 0, {0, 0}, {0, 0}, {0, 0, 0}, {0, 0, 0}, {1, 1, 0}},
    {6214, 1, {0, 0}, {0, 0}, {0, 4, 1}, {0, 4, 2}, {1, 1, 0}},
    {6259, 1, {0, 0}, {0, 0}, {0, 4, 1}, {0, 4, 2}, {1, 1, 0}},
    {6410, 1, {1, 1}, {1, 1}, {1, 0, 1}, {1, 0, 1}, {0, 0, 0}},
    {6420, 1, {1, 1}, {1, 1}, {1, 0, 1}, {1, 0, 1}, {0, 0, 0}},
    {6425, 1, {0, 0}, {1, 1}, {1, 0, 1}, {1, 0, 1}, {0, 0, 0}},
    {6601, 1, {0, 0}, {0, 0}, {0, 4, 1}, {0, 4, 2}, {0, 0, 0}},
    {6602, 1, {0, 0}, {0, 0}, {0, 4, 1}, {0, 4, 2}, {0, 0, 0}},
    {6720, 1, {1, 1}, {0, 0}, {0, 0, 0}, {0, 0, 0}, {0, 0, 0}},
    {6764, 1, {1, 1}, {0, 0}, {0, 0, 0}, {0, 0, 0}, {0, 0, 0}},
    {6891, 0, {0, 0}, {0, 0}, {0, 0, 0}, {0, 0, 0}, {1, 1, 0}},
    {6913, 1, {0, 0}, {0, 0}, {0, 0, 0}, {0, 0, 0}, {0, 0, 0}},
    {6914, 1, {0, 0}, {0, 0}, {0, 0, 0}, {0, 0, 0}, {0, 0, 0}},
};
// clang-format on

bool allZero(const std::uint32_t *first, std::size_t count)
{
    return std::all_of(first, first + count, [](std::uint32_t value) { return value == 0; });
}

/// As a test function would, this compares everything with what a model starts with.
void compareDefaults(const TableRecords &r, const Defaults &expected)
{
    QVERIFY(allZero(r.voltage.values, voltageSlots));
    QVERIFY(allZero(r.fan.values, fanRows));
    for (const TempRow &row : r.temp.rows)
        QCOMPARE(Numbers({row.current, row.peak, row.average}), Numbers({0, 0, 0}));
    for (const AmpChannelRow &channel : r.ampChannel.rows)
        QCOMPARE(Numbers({channel.status, channel.lineState, channel.ampEnable, channel.ampMonitorStatus}),
                 Numbers({1, 0, 0, 3}));
    for (const std::uint32_t status : r.controlOutput.status)
        QCOMPARE(status, 1U);
    for (const ControlInputRow &input : r.controlInput.rows)
        QCOMPARE(Numbers({input.status, input.monitored}), Numbers({1, 1}));
    for (const auto &channel : r.let.lets)
        for (const LetEntry &let : channel) {
            QCOMPARE(Numbers({let.letStatus, let.letPresence, let.letEnabled, let.letVoltage}), Numbers({0, 0, 0, 0}));
            QCOMPARE(let.description[0], '\0');
            QCOMPARE(let.softwareVersion[0], '\0');
            QCOMPARE(let.hardwareVersion[0], '\0');
            const LetChanges &changed = let.changed;
            QCOMPARE(Numbers({changed.status, changed.description, changed.softwareVersion, changed.hardwareVersion,
                              changed.voltage}),
                     Numbers({0, 0, 0, 0, 0}));
        }
    const Numbers lineIn[] = {expected.lineIn1, expected.lineIn2};
    for (std::size_t i = 0; i < lineInRows; ++i) {
        const LineInRow &row = r.lineIn.rows[i];
        QCOMPARE(Numbers({row.lineInStatus, row.micStatus, row.lineInMonitoring}), lineIn[i]);
    }
    for (const std::uint32_t monitored : r.ethMonitoring.monitored)
        QCOMPARE(monitored, expected.eth);
    const Numbers power[] = {expected.acPower, expected.dcPower};
    for (std::size_t i = 0; i < powerSources; ++i)
        QCOMPARE(Numbers({r.power.rows[i].liveStatus, r.power.rows[i].monitored}), power[i]);
    for (const RelayRow &relay : r.relay.rows)
        QCOMPARE(Numbers({relay.status, relay.idleMode, relay.delay}), expected.relay);
}

/// Every number and text in the records, to see whether anything changed.
QByteArray snapshot(const TableRecords &records)
{
    return QByteArray(reinterpret_cast<const char *>(&records), static_cast<int>(sizeof records));
}

/// A notification under one reference, and what its parser makes of it.
struct Route {
    const char *ref;
    uint model;
    const char *rPath;
    const char *data;
    std::function<bool(TableRecords &)> arrived; ///< null: `signalName` is emitted
    const char *signalName;
};

// clang-format off
const QVector<Route> routes{
    {"mib2_settings", 6211, "/state/config/snmp_settings/mib_2_settings", "<mib_2_settings/>", nullptr,
     SIGNAL(signalSnmpdConfMib2Settings(SnmpMib2Settings))},
    {"access_control", 6211, "/state/config/snmp_settings/access_control", "<access_control/>", nullptr,
     SIGNAL(signalSnmpdConfAccessSettings(SnmpAccessSettings))},
    {"trap_settings", 6211, "/state/config/snmp_settings/trap_settings", "<trap_settings/>", nullptr,
     SIGNAL(signalSnmpdConfTrapSettings(SnmpTrapSettings))},
    {"version_control", 6211, "/state/config/snmp_settings/version_control", "<version_control/>", nullptr,
     SIGNAL(signalSnmpdConfVersionSettings(SnmpVersionSettings))},
    {"custom_config", 6211, "/state/config/snmp_settings/custom_config", "<custom_config>true</custom_config>", nullptr,
     SIGNAL(signalSnmpdConfUseCustomConfFile(bool))},
    {"kvsnmp_amp_enable", 6211, "/state/config/lines/line[kid='ch2']/enable", "<enable>true</enable>",
     [](TableRecords &r) { return r.ampChannel.rows[1].ampEnable == 2; }, nullptr},
    {"kvsnmp_voltage", 6410, "/state/power_lines/power_line[kid='1v2']/voltage", "<voltage>1.2</voltage>",
     [](TableRecords &r) { return r.voltage.values[1] == 1200; }, nullptr},
    {"kvsnmp_temp", 6425, "/state/temp_sensors/temp_sensor[kid='power']/temp_peak", "<temp_peak>50</temp_peak>",
     [](TableRecords &r) { return r.temp.rows[6].peak == 500; }, nullptr},
    {"kvsnmp_fan", 6764, "/state/fans/fan[kid='fan1']/speed_sensor_rpm", "<speed_sensor_rpm>800</speed_sensor_rpm>",
     [](TableRecords &r) { return r.fan.values[1] == 800; }, nullptr},
    {"kvsnmp_control_input_monitored", 6720, "/state/config/gpis/gpi[kid='gpi2']/monitored", "<monitored>true</monitored>",
     [](TableRecords &r) { return r.controlInput.rows[1].monitored == 2; }, nullptr},
    {"kvsnmp_class_d_status", 6211, "/state/class_d_amp_status/status", "<status>fault</status>",
     [](TableRecords &r) { return r.ampChannel.rows[0].status == 4 && r.ampChannel.rows[1].status == 4; }, nullptr},
    {"kvsnmp_gpio_type", 6420, "/state/config/gpios/gpio[kid='gpio1']/gpio_type", "<gpio_type>gpo</gpio_type>", nullptr,
     SIGNAL(signalSetGpioType(uint, uint))},
    {"kvsnmp_let_enable", 6211, "/state/config/lines/line[kid='ch1']/lets/let[kid='1']/enabled", "<enabled>true</enabled>",
     [](TableRecords &r) { return r.let.lets[0][0].letEnabled == 1; }, nullptr},
    {"kvsnmp_let_description", 6211, "/state/config/lines/line[kid='ch1']/lets/let[kid='2']/let_description",
     "<let_description>d</let_description>", [](TableRecords &r) { return r.let.lets[0][1].description[0] == 'd'; }, nullptr},
    {"kvsnmp_let_hw_version", 6211, "/state/lines/line[kid='ch1']/lets/let[kid='3']/hw_version", "<hw_version>h</hw_version>",
     [](TableRecords &r) { return r.let.lets[0][2].hardwareVersion[0] == 'h'; }, nullptr},
    {"kvsnmp_let_sw_version", 6211, "/state/lines/line[kid='ch1']/lets/let[kid='4']/sw_version", "<sw_version>s</sw_version>",
     [](TableRecords &r) { return r.let.lets[0][3].softwareVersion[0] == 's'; }, nullptr},
    {"kvsnmp_let_voltage", 6211, "/state/lines/line[kid='ch2']/lets/let[kid='5']/let_vcc", "<let_vcc>24</let_vcc>",
     [](TableRecords &r) { return r.let.lets[1][4].letVoltage == 24000; }, nullptr},
    {"kvsnmp_lineIn_monitoring", 6214, "/state/config/lines/line[kid='mic']/mic_monitor_enable",
     "<mic_monitor_enable>true</mic_monitor_enable>", [](TableRecords &r) { return r.lineIn.rows[0].lineInMonitoring == 3; }, nullptr},
    {"kvsnmp_lineIn_status", 6214, "/state/lines/mic_status_intern", "<mic_status_intern>shorted</mic_status_intern>",
     [](TableRecords &r) { return r.lineIn.rows[1].micStatus == 7; }, nullptr},
    {"kvsnmp_line_channel_state", 6764, "/state/lines/line[kid='ch1']/characteristics/line_state", "<line_state>open</line_state>",
     [](TableRecords &r) { return r.ampChannel.rows[0].lineState == 4; }, nullptr},
    {"kvsnmp_eth_monitoring", 6913, "/state/config/os_ip/eth_switch/port[port_id='Eth2']/monitored", "<monitored>true</monitored>",
     [](TableRecords &r) { return r.ethMonitoring.monitored[1] == 3; }, nullptr},
    {"kvsnmp_power_status", 6410, "/state/power_sources/power_source[kid='dc_power']/live", "<live>true</live>",
     [](TableRecords &r) { return r.power.rows[1].liveStatus == 3; }, nullptr},
    {"kvsnmp_power_monitoring", 6410, "/state/config/power_sources/power_source[kid='ac_power']/monitored", "<monitored>true</monitored>",
     [](TableRecords &r) { return r.power.rows[0].monitored == 3; }, nullptr},
    {"kvsnmp_relay_idle_mode", 6891, "/state/config/gpos/gpo[kid='relay1']/idle_mode", "<idle_mode>normal_open</idle_mode>",
     [](TableRecords &r) { return r.relay.rows[0].idleMode == 3; }, nullptr},
    {"kvsnmp_relay_delay", 6891, "/state/config/gpos/gpo[kid='relay1']/delay", "<delay>9</delay>",
     [](TableRecords &r) { return r.relay.rows[0].delay == 9; }, nullptr},
    {"kvsnmp_sys_messages", 6211, "/state/sys_messages/sys_message[reporter='a'][rep_ref='1']", "<sys_message/>", nullptr,
     SIGNAL(signalReportFault(QString, QString, QString, QString, QString, QString, bool))},
};
// clang-format on

/// Signatures of a class's own methods of one kind, in the order of their declaration.
QStringList ownMethods(const QMetaObject &meta, QMetaMethod::MethodType type)
{
    QStringList all;
    for (int i = meta.methodOffset(); i < meta.methodCount(); ++i)
        if (meta.method(i).methodType() == type)
            all << QString::fromLatin1(meta.method(i).methodSignature());
    return all;
}

} // namespace

class TestTalHandler : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { registerSnmpSettingsTypes(); }
    void recordsAtConstruction_data();
    void recordsAtConstruction();
    void recordsAreClearedWhateverTheMemoryHeld_data();
    void recordsAreClearedWhateverTheMemoryHeld();
    void descriptionMayBeMissing_data();
    void descriptionMayBeMissing();
    void constructionWithoutABusSaysNothing();
    void constructionIsTracedWhereTracingIsOn();
    void ownsTheMonitorLink();

    void everyReferenceReachesItsParser_data();
    void everyReferenceReachesItsParser();
    void referencesAreComparedExactly_data();
    void referencesAreComparedExactly();
    void voltageOf6211IsRoutedButHasNoKeys();

    void signalsInOrder();
    void slotsInOrder();
};

void TestTalHandler::recordsAtConstruction_data()
{
    QTest::addColumn<int>("row");
    for (int row = 0; row < int(std::size(defaultsOf)); ++row)
        QTest::addRow("%u", defaultsOf[row].model) << row;
    QCOMPARE(std::size(defaultsOf), std::size(knownModels));
}

void TestTalHandler::recordsAtConstruction()
{
    QFETCH(int, row);

    TalBench bench(defaultsOf[row].model);
    compareDefaults(bench.records(), defaultsOf[row]);
}

void TestTalHandler::recordsAreClearedWhateverTheMemoryHeld_data()
{
    recordsAtConstruction_data();
}

void TestTalHandler::recordsAreClearedWhateverTheMemoryHeld()
{
    QFETCH(int, row);

    const std::unique_ptr<unsigned char[]> memory(new unsigned char[sizeof(TalHandler)]);
    std::fill(memory.get(), memory.get() + sizeof(TalHandler), static_cast<unsigned char>(0xa5));
    auto *handler = new (memory.get()) TalHandler(nullptr, defaultsOf[row].model, "");
    compareDefaults(handler->tableRecords(), defaultsOf[row]);
    handler->~TalHandler();
}

void TestTalHandler::descriptionMayBeMissing_data()
{
    QTest::addColumn<QByteArray>("description");
    QTest::newRow("null") << QByteArray();
    QTest::newRow("empty") << QByteArray("");
}

void TestTalHandler::descriptionMayBeMissing()
{
    QFETCH(QByteArray, description);

    TalBench bench(6214, description.isNull() ? nullptr : description.constData());
    bench.leaf("kvsnmp_relay_delay", "replace", qs("/state/config/gpos/gpo[kid='e_relay1']/delay"), qs("9"));
    QCOMPARE(bench.records().relay.rows[2].delay, 9U);
    QCOMPARE(bench.records().relay.rows[4].delay, 0U);
}

void TestTalHandler::constructionWithoutABusSaysNothing()
{
    for (const uint model : knownModels) {
        TalBench bench(model);
        QCOMPARE(bench.log.lines(), QStringList());
    }
}

void TestTalHandler::constructionIsTracedWhereTracingIsOn()
{
    Trace trace(nullptr);
    QSignalSpy traced(&trace, SIGNAL(LogMessage(QString)));
    TalBench bench(6420);
    QCOMPARE(traced.size(), 1);
    const QString line = traced[0][0].toString();
    QCOMPARE(line.count(qs("TalHandler")), 2); // class and function
    QVERIFY2(line.contains(qs("Creating Object")), qPrintable(line));
}

void TestTalHandler::ownsTheMonitorLink()
{
    QObject parent;
    MessageLog log;
    auto handler = std::make_unique<TalHandler>(&parent, 6420, ordinaryDescription);
    QCOMPARE(handler->parent(), &parent);
    QStringList gone;
    connect(handler.get(), &QObject::destroyed, [&gone] { gone.append(qs("TalHandler")); });
    for (const QObject *child : handler->children())
        if (child->inherits("DbusInterface"))
            connect(child, &QObject::destroyed, [&gone] { gone.append(qs("DbusInterface")); });
    handler.reset();
    QCOMPARE(gone, QStringList({qs("TalHandler"), qs("DbusInterface")})); // its own part first, then its children
    QCOMPARE(log.lines(), QStringList());
}

void TestTalHandler::everyReferenceReachesItsParser_data()
{
    QTest::addColumn<int>("row");
    for (int row = 0; row < routes.size(); ++row)
        QTest::newRow(routes[row].ref) << row;
    QCOMPARE(routes.size(), 26);
}

void TestTalHandler::everyReferenceReachesItsParser()
{
    QFETCH(int, row);
    const Route &route = routes[row];

    TalBench bench(route.model);
    std::unique_ptr<QSignalSpy> spy;
    if (route.signalName)
        spy = std::make_unique<QSignalSpy>(&bench.handler, route.signalName);
    const auto arrived = [&] { return spy ? !spy->isEmpty() : route.arrived(bench.records()); };

    QVERIFY(!arrived());
    bench.notify(route.ref, "replace", qs(route.rPath), qs(route.data));
    QVERIFY(arrived());
}

void TestTalHandler::referencesAreComparedExactly_data()
{
    everyReferenceReachesItsParser_data();
}

void TestTalHandler::referencesAreComparedExactly()
{
    QFETCH(int, row);
    const Route &route = routes[row];

    TalBench bench(route.model);
    std::unique_ptr<QSignalSpy> spy;
    if (route.signalName)
        spy = std::make_unique<QSignalSpy>(&bench.handler, route.signalName);
    const QByteArray before = snapshot(bench.records());

    const QByteArray ref(route.ref);
    QByteArray firstUpper = ref;
    firstUpper[0] = 'K';
    for (const QByteArray &other :
         {ref.toUpper(), firstUpper, ref + ' ', ' ' + ref, ref.chopped(1), ref + "s", QByteArray()})
        for (const char *op : {"create", "replace", "delete", "patch"})
            bench.notify(other, op, qs(route.rPath), qs(route.data));

    QVERIFY(snapshot(bench.records()) == before);
    QVERIFY(!spy || spy->isEmpty());
    QCOMPARE(bench.log.lines(), QStringList());
}

void TestTalHandler::voltageOf6211IsRoutedButHasNoKeys()
{
    // Routing does not look at the model, subscribing does: a parser without a model test of its own works anywhere.
    TalBench bench(6211);
    const QByteArray before = snapshot(bench.records());
    for (const char *op : {"create", "delete", "patch"})
        bench.leaf("kvsnmp_voltage", op, qs("/state/power_lines/power_line[kid='24v0']/voltage"), qs("24.0"));
    QVERIFY(snapshot(bench.records()) == before);
    QCOMPARE(bench.log.lines(), QStringList());

    bench.leaf("kvsnmp_let_voltage", "create", qs("/state/lines/line[kid='ch1']/lets/let[kid='1']/let_vcc"),
               qs("24.0"));
    QCOMPARE(bench.records().let.lets[0][0].letVoltage, 24000U);
}

void TestTalHandler::signalsInOrder()
{
    QCOMPARE(ownMethods(TalHandler::staticMetaObject, QMetaMethod::Signal),
             QStringList({qs("signalSnmpdConfMib2Settings(SnmpMib2Settings)"),
                          qs("signalSnmpdConfAccessSettings(SnmpAccessSettings)"),
                          qs("signalSnmpdConfTrapSettings(SnmpTrapSettings)"),
                          qs("signalSnmpdConfVersionSettings(SnmpVersionSettings)"),
                          qs("signalSnmpdConfUseCustomConfFile(bool)"), qs("signalSetGpioType(uint,uint)"),
                          qs("signalReportFault(QString,QString,QString,QString,QString,QString,bool)"),
                          qs("signalUpdateEnabledSnmpTraps(QMap<QString,bool>&)")}));
}

void TestTalHandler::slotsInOrder()
{
    QCOMPARE(ownMethods(TalHandler::staticMetaObject, QMetaMethod::Slot),
             QStringList({qs("slotTalReady()"), qs("talHandlerNotifySlot(QString,QString,QString,QString,QString)"),
                          qs("slotStartSubscribe()"), qs("slotGpoUpdate(uint,QString,QString)"),
                          qs("slotGpiUpdate(uint,QString)"), qs("slotAmpChannelStatusUpdate(uint,uint)"),
                          qs("slotSetControlInputStatus(uint,uint)"), qs("slotSetControlOutputStatus(uint,uint)"),
                          qs("slotLetPrecenseUpdate(uint,uint,uint)"), qs("slotSetRelayStatus(uint,uint)")}));
}

const TestEntry entry("tst_talhandler", runTest<TestTalHandler>);
#include "tst_talhandler.moc"
