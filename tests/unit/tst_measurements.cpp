// Voltages, temperatures, fans, class-D status with the channel status derived from it, live power sources.
#include "support/talbench.h"
#include "support/testprogram.h"

#include "device/models.h"

#include <QMap>
#include <QVector>

namespace {

using Numbers = QVector<uint>;

struct KeySlot {
    const char *key;
    int slot;
};

using KeySlots = QVector<KeySlot>;

// clang-format off
const QMap<uint, KeySlots> voltageKeysOf{
    {6420, {{"1v8SW", 0}, {"50v0", 9}, {"50v0AC", 11}, {"50v0DC", 13}, {"15v0CDA", 15}, {"12v0PM", 16},
            {"1v8", 2}, {"3v3", 3}, {"5v0", 4}, {"12v7", 5}, {"15v0", 6}, {"24v0", 7}, {"24v0FB", 8}}},
    {6410, {{"1v2", 1}, {"32v0", 10}, {"24v0AC", 12}, {"24v0DC", 14},
            {"1v8", 2}, {"3v3", 3}, {"5v0", 4}, {"12v7", 5}, {"15v0", 6}, {"24v0", 7}, {"24v0FB", 8}}},
    {6720, {{"1v8SW", 0}, {"3v3", 3}, {"5v0", 4}, {"12v7", 5}, {"12v7_LN", 17}, {"15v_amp", 15}, {"24v0", 7},
            {"MainPower", 9}}},
    {6764, {{"1v8_sw", 0}, {"3v3", 3}, {"5v0", 4}, {"12v7", 5}, {"12v_ln", 17}, {"15v0_amp", 15}, {"24v0", 7},
            {"50v0", 9}}},
    {6425, {{"1v8", 2}, {"1v8SW", 0}, {"3v3", 3}, {"5v0", 4}, {"15v0", 6}, {"24v0Plus", 18}, {"24v0Minus", 19}}},
};
const QMap<uint, KeySlots> tempKeysOf{
    {6410, {{"cntlr_main_board_1", 3}, {"cntlr_main_board_2", 4}, {"cntlr_ac_power", 5}, {"cntlr_dc_power", 6}}},
    {6420, {{"amp_class_d_amp_1", 0}, {"amp_class_d_amp_2", 1}, {"amp_main_board", 2}, {"amp_ac_power", 5},
            {"amp_dc_power", 6}}},
    {6720, {{"class_d", 0}, {"main_board", 2}}},
    {6764, {{"class_d", 0}, {"mainboard", 2}, {"dcdc_conv", 5}}},
    {6425, {{"channel_1", 0}, {"channel_2", 1}, {"main_board", 2}, {"power", 6}}},
};
const QMap<uint, KeySlots> fanKeysOf{
    {6410, {{"cntlr_power", 0}}},
    {6420, {{"amp_power", 0}, {"amp_class_d", 1}}},
    {6720, {{"amp_class_d", 0}}},
    {6764, {{"fan2", 0}, {"fan1", 1}}},
};
// clang-format on

QString voltagePath(const char *key)
{
    return QStringLiteral("/state/power_lines/power_line[kid='%1']/voltage").arg(qs(key));
}

QString tempPath(const char *key)
{
    return QStringLiteral("/state/temp_sensors/temp_sensor[kid='%1']").arg(qs(key));
}

QString fanPath(const char *key)
{
    return QStringLiteral("/state/fans/fan[kid='%1']").arg(qs(key));
}

QString powerPath(const char *key)
{
    return QStringLiteral("/state/power_sources/power_source[kid='%1']/live").arg(qs(key));
}

const QString classDPath = QStringLiteral("/state/class_d_amp_status");

QString enablePath(uint channel)
{
    return QStringLiteral("/state/config/lines/line[kid='ch%1']/enable").arg(channel + 1);
}

Numbers voltages(TalBench &bench)
{
    const auto &values = bench.records().voltage.values;
    return Numbers(std::begin(values), std::end(values));
}

Numbers temps(TalBench &bench)
{
    Numbers all;
    for (const TempRow &row : bench.records().temp.rows)
        all << row.current << row.peak << row.average;
    return all;
}

Numbers fans(TalBench &bench)
{
    const auto &values = bench.records().fan.values;
    return Numbers(std::begin(values), std::end(values));
}

void voltage(TalBench &bench, const char *key, const char *text, const char *op = "replace")
{
    bench.leaf("kvsnmp_voltage", op, voltagePath(key), qs(text));
}

/// One sensor, whole, as a change of it below the subscribed list is told.
void sensor(TalBench &bench, const char *key, const char *current, const char *peak, const char *average,
            const char *op = "replace")
{
    const QString xml =
        QStringLiteral("<temp_sensor><kid>%1</kid><temp_current>%2</temp_current><temp_peak>%3</temp_peak>"
                       "<temp_average>%4</temp_average></temp_sensor>")
            .arg(qs(key), qs(current), qs(peak), qs(average));
    bench.notify("kvsnmp_temp", op, tempPath(key), xml, QStringLiteral("/state/temp_sensors"));
}

void fan(TalBench &bench, const char *key, const char *rpm, const char *op = "replace")
{
    const QString xml =
        QStringLiteral("<fan><kid>%1</kid><speed_sensor_rpm>%2</speed_sensor_rpm></fan>").arg(qs(key), qs(rpm));
    bench.notify("kvsnmp_fan", op, fanPath(key), xml, QStringLiteral("/state/fans"));
}

void classD(TalBench &bench, const char *status, const char *op = "replace")
{
    bench.notify("kvsnmp_class_d_status", op, classDPath,
                 QStringLiteral("<class_d_amp_status><status>%1</status></class_d_amp_status>").arg(qs(status)));
}

void ampEnable(TalBench &bench, uint channel, const char *text)
{
    bench.leaf("kvsnmp_amp_enable", "replace", enablePath(channel), qs(text));
}

void power(TalBench &bench, const char *key, const char *text, const char *op = "replace")
{
    bench.leaf("kvsnmp_power_status", op, powerPath(key), qs(text));
}

/// Rows "model key" for every key of every model.
void addKeyRows(const QMap<uint, KeySlots> &keysOf)
{
    QTest::addColumn<uint>("model");
    QTest::addColumn<QByteArray>("key");
    QTest::addColumn<int>("slot");
    for (auto model = keysOf.begin(); model != keysOf.end(); ++model)
        for (const KeySlot &keySlot : *model)
            QTest::addRow("%u %s", model.key(), keySlot.key) << model.key() << QByteArray(keySlot.key) << keySlot.slot;
}

/// Rows "model" for every model, with the keys that other models have and this one has not.
void addForeignKeyRows(const QMap<uint, KeySlots> &keysOf)
{
    QTest::addColumn<uint>("model");
    QTest::addColumn<QList<QByteArray>>("foreignKeys");
    for (const uint model : knownModels) {
        QList<QByteArray> foreign{"", "unknown_key"};
        for (const KeySlots &keys : keysOf)
            for (const KeySlot &other : keys) {
                const KeySlots own = keysOf.value(model);
                const auto same = [&other](const KeySlot &key) { return qstrcmp(key.key, other.key) == 0; };
                if (std::none_of(own.begin(), own.end(), same) && !foreign.contains(other.key))
                    foreign.append(other.key);
            }
        QTest::addRow("%u", model) << model << foreign;
    }
}

constexpr uint sentinel = 77; // a status that no derivation gives

void forgetStatuses(TalBench &bench)
{
    for (AmpChannelRow &row : bench.records().ampChannel.rows)
        row.status = sentinel;
}

Numbers statuses(TalBench &bench)
{
    const auto &rows = bench.records().ampChannel.rows;
    return {rows[0].status, rows[1].status};
}

Numbers liveStatuses(TalBench &bench)
{
    const auto &rows = bench.records().power.rows;
    return {rows[0].liveStatus, rows[1].liveStatus};
}

} // namespace

class TestMeasurements : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void voltageKeyFeedsSlot_data() { addKeyRows(voltageKeysOf); }
    void voltageKeyFeedsSlot();
    void voltageForeignKeyIsIgnored_data() { addForeignKeyRows(voltageKeysOf); }
    void voltageForeignKeyIsIgnored();
    void voltageKeyIsCaseSensitive();
    void severalVoltagesInOneNotification();
    void voltage24v0FbOf6410();
    void negativeVoltageComesOutPositive();
    void voltageWithFourDecimalsIsZero();
    void voltageDeleteStoresZero_data();
    void voltageDeleteStoresZero();
    void voltageUnexpectedOperation_data();
    void voltageUnexpectedOperation();
    void letVoltageSharesTheScratchButNotTheSlots();

    void tempKeyFeedsRow_data() { addKeyRows(tempKeysOf); }
    void tempKeyFeedsRow();
    void tempForeignKeyIsIgnored_data() { addForeignKeyRows(tempKeysOf); }
    void tempForeignKeyIsIgnored();
    void wholeSensorListAtOnce();
    void oneFieldOfASensor();
    void tempScaleRunsOutAfterOneDecimal();
    void tempDeleteStoresZero();
    void tempUnexpectedOperation();

    void fanKeyFeedsRow_data() { addKeyRows(fanKeysOf); }
    void fanKeyFeedsRow();
    void fanForeignKeyIsIgnored_data() { addForeignKeyRows(fanKeysOf); }
    void fanForeignKeyIsIgnored();
    void bothFansAtOnceInKeyOrder_data();
    void bothFansAtOnceInKeyOrder();
    void fanOf6410IsNotLogged();
    void fanWithAFractionIsZero();
    void fanDeleteStoresZero();
    void deletedContainerClearsWhatItsDataHolds();
    void fanUnexpectedOperation();

    void channelStatus_data();
    void channelStatus();
    void channelStatusOf6425ForcesClassD_data();
    void channelStatusOf6425ForcesClassD();
    void classDTexts_data();
    void classDTexts();
    void classDDerivesBothChannelsInEveryCase_data();
    void classDDerivesBothChannelsInEveryCase();
    void classDUnexpectedOperation();
    void enabledChannelOf6425WithMonitorStatus1Shows5();
    void ampChannelStatusSlot_data();
    void ampChannelStatusSlot();

    void powerLiveTexts_data();
    void powerLiveTexts();
    void powerLiveOtherTextTakesThePreviousValueOfEitherSource();
    void powerLiveOtherTextFirstOfAllTakesZero();
    void powerLiveBothSourcesAtOnce();
    void powerLiveUnexpectedOperation();
    void powerLiveIsIgnoredOnOtherModels_data();
    void powerLiveIsIgnoredOnOtherModels();
};

void TestMeasurements::voltageKeyFeedsSlot()
{
    QFETCH(uint, model);
    QFETCH(QByteArray, key);
    QFETCH(int, slot);

    for (const char *op : {"create", "replace"}) {
        TalBench bench(model);
        voltage(bench, key, "12.34", op);
        Numbers expected(voltageSlots, 0);
        expected[slot] = 12340;
        QCOMPARE(voltages(bench), expected);
        QCOMPARE(bench.log.lines(), QStringList());
    }
}

void TestMeasurements::voltageForeignKeyIsIgnored()
{
    QFETCH(uint, model);
    QFETCH(QList<QByteArray>, foreignKeys);

    TalBench bench(model);
    for (const QByteArray &key : foreignKeys) {
        voltage(bench, key, "12.34");
        QVERIFY2(voltages(bench) == Numbers(voltageSlots, 0), key.constData());
    }
}

void TestMeasurements::voltageKeyIsCaseSensitive()
{
    TalBench bench(6420);
    voltage(bench, "1V8SW", "1.8");
    voltage(bench, "24V0fb", "24.0");
    QCOMPARE(voltages(bench), Numbers(voltageSlots, 0));
}

void TestMeasurements::severalVoltagesInOneNotification()
{
    TalBench bench(6420);
    bench.notify("kvsnmp_voltage", "replace", QStringLiteral("/state/power_lines"),
                 QStringLiteral("<power_lines><power_line><kid>24v0FB</kid><voltage>24.1</voltage></power_line>"
                                "<power_line><kid>other</kid><voltage>9</voltage></power_line>"
                                "<power_line><kid>1v8SW</kid><voltage>1.79</voltage></power_line></power_lines>"),
                 QStringLiteral("/state/power_lines/power_line/voltage"));
    Numbers expected(voltageSlots, 0);
    expected[0] = 1790;
    expected[8] = 24100;
    QCOMPARE(voltages(bench), expected);
}

void TestMeasurements::voltage24v0FbOf6410()
{
    TalBench bench(6410);
    voltage(bench, "24v0FB", "23.9");
    QCOMPARE(bench.records().voltage.values[8], 23900U);
}

void TestMeasurements::negativeVoltageComesOutPositive()
{
    TalBench bench(6425);
    voltage(bench, "24v0Minus", "-5.0");
    QCOMPARE(bench.records().voltage.values[19], 5000U);
}

void TestMeasurements::voltageWithFourDecimalsIsZero()
{
    TalBench bench(6420);
    voltage(bench, "1v8", "1.8");
    voltage(bench, "1v8", "1.2345");
    QCOMPARE(bench.records().voltage.values[2], 0U);
}

void TestMeasurements::voltageDeleteStoresZero_data()
{
    QTest::addColumn<QString>("data");
    QTest::newRow("node as it was") << qs("<voltage>24.1</voltage>");
    QTest::newRow("empty") << QString();
}

void TestMeasurements::voltageDeleteStoresZero()
{
    QFETCH(QString, data);

    TalBench bench(6410);
    voltage(bench, "24v0", "24.1");
    voltage(bench, "5v0", "5.1");
    bench.notify("kvsnmp_voltage", "delete", voltagePath("24v0"), data);
    Numbers expected(voltageSlots, 0);
    expected[4] = 5100;
    QCOMPARE(voltages(bench), expected);
    QCOMPARE(bench.log.lines(), QStringList());
}

void TestMeasurements::voltageUnexpectedOperation_data()
{
    QTest::addColumn<QByteArray>("op");
    for (const char *op : {"patch", "Create", "REPLACE", "Delete", ""})
        QTest::addRow("'%s'", op) << QByteArray(op);
}

void TestMeasurements::voltageUnexpectedOperation()
{
    QFETCH(QByteArray, op);

    TalBench bench(6410);
    voltage(bench, "24v0", "24.1");
    voltage(bench, "24v0", "1.0", op);
    QCOMPARE(bench.records().voltage.values[7], 24100U);
    QCOMPARE(bench.log.lines(),
             QStringList{QStringLiteral("getVoltage op: %1 rPath: /state/power_lines/power_line[kid='24v0']/voltage"
                                        " sPath: /state/power_lines/power_line/voltage")
                             .arg(qs(op))});
}

void TestMeasurements::letVoltageSharesTheScratchButNotTheSlots()
{
    TalBench bench(6420);
    voltage(bench, "24v0", "24.1");
    bench.leaf("kvsnmp_let_voltage", "replace", qs("/state/lines/line[kid='ch1']/lets/let[kid='1']/let_vcc"),
               qs("9.9"));
    bench.leaf("kvsnmp_voltage", "replace", voltagePath("unknown_key"), qs("7"));
    Numbers expected(voltageSlots, 0);
    expected[7] = 24100;
    QCOMPARE(voltages(bench), expected);
    QCOMPARE(bench.records().let.lets[0][0].letVoltage, 9900U);
}

void TestMeasurements::tempKeyFeedsRow()
{
    QFETCH(uint, model);
    QFETCH(QByteArray, key);
    QFETCH(int, slot);

    for (const char *op : {"create", "replace"}) {
        TalBench bench(model);
        sensor(bench, key, "41.5", "63.0", "38", op);
        Numbers expected(21, 0);
        expected[3 * slot] = 415;
        expected[3 * slot + 1] = 630;
        expected[3 * slot + 2] = 380;
        QCOMPARE(temps(bench), expected);
        QCOMPARE(bench.log.lines(), QStringList());
    }
}

void TestMeasurements::tempForeignKeyIsIgnored()
{
    QFETCH(uint, model);
    QFETCH(QList<QByteArray>, foreignKeys);

    TalBench bench(model);
    for (const QByteArray &key : foreignKeys) {
        sensor(bench, key, "41.5", "63.0", "38");
        QVERIFY2(temps(bench) == Numbers(21, 0), key.constData());
    }
}

void TestMeasurements::wholeSensorListAtOnce()
{
    TalBench bench(6720);
    bench.notify("kvsnmp_temp", "create", qs("/state/temp_sensors"),
                 qs("<temp_sensors>"
                    "<temp_sensor><kid>main_board</kid><temp_current>31.0</temp_current><temp_peak>40.1</temp_peak>"
                    "<temp_average>30.9</temp_average></temp_sensor>"
                    "<temp_sensor><kid>class_d</kid><temp_current>50</temp_current></temp_sensor>"
                    "</temp_sensors>"));
    Numbers expected(21, 0);
    expected[0] = 500;
    expected[6] = 310;
    expected[7] = 401;
    expected[8] = 309;
    QCOMPARE(temps(bench), expected);
}

void TestMeasurements::oneFieldOfASensor()
{
    TalBench bench(6764);
    sensor(bench, "dcdc_conv", "1.0", "2.0", "3.0");
    bench.notify("kvsnmp_temp", "replace", tempPath("dcdc_conv") + qs("/temp_peak"), qs("<temp_peak>9.5</temp_peak>"),
                 qs("/state/temp_sensors"));
    const TempRow &row = bench.records().temp.rows[5];
    QCOMPARE(row.current, 10U);
    QCOMPARE(row.peak, 95U);
    QCOMPARE(row.average, 30U);
}

void TestMeasurements::tempScaleRunsOutAfterOneDecimal()
{
    TalBench bench(6425);
    sensor(bench, "power", "3.3", "41.25", "40.0");
    const TempRow &row = bench.records().temp.rows[6];
    QCOMPARE(row.current, 33U);
    QCOMPARE(row.peak, 0U);
    QCOMPARE(row.average, 400U);
}

void TestMeasurements::tempDeleteStoresZero()
{
    TalBench bench(6420);
    sensor(bench, "amp_main_board", "41.5", "63.0", "38");
    bench.notify("kvsnmp_temp", "delete", tempPath("amp_main_board") + qs("/temp_average"), QString(),
                 qs("/state/temp_sensors"));
    const TempRow &row = bench.records().temp.rows[2];
    QCOMPARE(row.average, 0U);
    QCOMPARE(row.current, 415U);

    sensor(bench, "amp_main_board", "41.5", "63.0", "38", "delete");
    QCOMPARE(temps(bench), Numbers(21, 0));
    QCOMPARE(bench.log.lines(), QStringList());
}

void TestMeasurements::tempUnexpectedOperation()
{
    TalBench bench(6764);
    sensor(bench, "mainboard", "41.5", "63.0", "38", "patch");
    const QString line =
        qs("getTemp op: patch rPath: /state/temp_sensors/temp_sensor[kid='mainboard'] sPath: /state/temp_sensors");
    QCOMPARE(bench.log.lines(), QStringList({line, line, line})); // one for each of the three fields
    QCOMPARE(temps(bench), Numbers(21, 0));
}

void TestMeasurements::fanKeyFeedsRow()
{
    QFETCH(uint, model);
    QFETCH(QByteArray, key);
    QFETCH(int, slot);

    for (const char *op : {"create", "replace"}) {
        TalBench bench(model);
        fan(bench, key, "1200", op);
        Numbers expected(2, 0);
        expected[slot] = 1200;
        QCOMPARE(fans(bench), expected);
        const QString line = slot == 0 ? qs("stateSnmpAgentFanTableUpdate fanLeft: 1200")
                                       : qs("stateSnmpAgentFanTableUpdate fanRight: 1200");
        QCOMPARE(bench.log.lines(), model == 6410 ? QStringList() : QStringList{line});
    }
}

void TestMeasurements::fanForeignKeyIsIgnored()
{
    QFETCH(uint, model);
    QFETCH(QList<QByteArray>, foreignKeys);

    TalBench bench(model);
    for (const QByteArray &key : foreignKeys) {
        fan(bench, key, "1200");
        QVERIFY2(fans(bench) == Numbers(2, 0), key.constData());
    }
    QCOMPARE(bench.log.lines(), QStringList());
}

void TestMeasurements::bothFansAtOnceInKeyOrder_data()
{
    QTest::addColumn<uint>("model");
    QTest::addColumn<QString>("data");
    QTest::newRow("6420") << 6420U
                          << qs("<fans><fan><kid>amp_class_d</kid><speed_sensor_rpm>1300</speed_sensor_rpm></fan>"
                                "<fan><kid>amp_power</kid><speed_sensor_rpm>900</speed_sensor_rpm></fan></fans>");
    QTest::newRow("6764") << 6764U
                          << qs("<fans><fan><kid>fan1</kid><speed_sensor_rpm>1300</speed_sensor_rpm></fan>"
                                "<fan><kid>fan2</kid><speed_sensor_rpm>900</speed_sensor_rpm></fan></fans>");
}

void TestMeasurements::bothFansAtOnceInKeyOrder()
{
    QFETCH(uint, model);
    QFETCH(QString, data);

    TalBench bench(model);
    bench.notify("kvsnmp_fan", "create", qs("/state/fans"), data);
    QCOMPARE(fans(bench), Numbers({900, 1300}));
    QCOMPARE(bench.log.lines(), QStringList({qs("stateSnmpAgentFanTableUpdate fanLeft: 900"),
                                             qs("stateSnmpAgentFanTableUpdate fanRight: 1300")}));
}

void TestMeasurements::fanOf6410IsNotLogged()
{
    TalBench bench(6410);
    fan(bench, "cntlr_power", "1200");
    fan(bench, "cntlr_power", "1200", "delete");
    QCOMPARE(bench.log.lines(), QStringList());
}

void TestMeasurements::fanWithAFractionIsZero()
{
    TalBench bench(6720);
    fan(bench, "amp_class_d", "1200");
    fan(bench, "amp_class_d", "1200.5");
    QCOMPARE(fans(bench), Numbers({0, 0}));
}

void TestMeasurements::deletedContainerClearsWhatItsDataHolds()
{
    TalBench bench(6420);
    fan(bench, "amp_power", "1450");
    fan(bench, "amp_class_d", "1600");
    bench.notify("kvsnmp_fan", "delete", qs("/state/fans"), QString());
    QCOMPARE(bench.records().fan.values[0], 1450U);
    QCOMPARE(bench.records().fan.values[1], 1600U);
    bench.notify("kvsnmp_fan", "delete", qs("/state/fans"),
                 qs("<fans><fan><kid>amp_class_d</kid><speed_sensor_rpm>1600</speed_sensor_rpm></fan></fans>"));
    QCOMPARE(bench.records().fan.values[0], 1450U);
    QCOMPARE(bench.records().fan.values[1], 0U);
}

void TestMeasurements::fanDeleteStoresZero()
{
    TalBench bench(6420);
    fan(bench, "amp_power", "1200");
    fan(bench, "amp_class_d", "1300");
    bench.log.takeLines();
    bench.notify("kvsnmp_fan", "delete", fanPath("amp_class_d") + qs("/speed_sensor_rpm"), QString(),
                 qs("/state/fans"));
    QCOMPARE(fans(bench), Numbers({1200, 0}));
    QCOMPARE(bench.log.lines(), QStringList{qs("stateSnmpAgentFanTableUpdate fanRight: 0")});
}

void TestMeasurements::fanUnexpectedOperation()
{
    TalBench bench(6764);
    fan(bench, "fan1", "1200", "move");
    QCOMPARE(fans(bench), Numbers({0, 0}));
    QCOMPARE(bench.log.lines(),
             QStringList{qs("getFan op: move rPath: /state/fans/fan[kid='fan1'] sPath: /state/fans")});
}

// Every state of the class-D amplifier, the channel's enable and its monitor; "" is not reported yet.
void TestMeasurements::channelStatus_data()
{
    QTest::addColumn<QByteArray>("classDText");
    QTest::addColumn<QByteArray>("enableText");
    QTest::addColumn<uint>("monitorStatus");
    QTest::addColumn<uint>("status");

    struct Case {
        const char *classDText;
        const char *enableText;
        uint monitorStatus;
        uint status;
    };
    // clang-format off
    const Case cases[] = {
        {"",      "",      3, 1}, {"",      "",      1, 1}, {"",      "",      2, 1},
        {"",      "false", 3, 1}, {"",      "false", 1, 1}, {"",      "false", 2, 1},
        {"",      "true",  3, 1}, {"",      "true",  1, 1}, {"",      "true",  2, 1},
        {"fault", "",      3, 4}, {"fault", "",      1, 4}, {"fault", "",      2, 4},
        {"fault", "false", 3, 4}, {"fault", "false", 1, 4}, {"fault", "false", 2, 4},
        {"fault", "true",  3, 4}, {"fault", "true",  1, 4}, {"fault", "true",  2, 4},
        {"ok",    "",      3, 1}, {"ok",    "",      1, 1}, {"ok",    "",      2, 1},
        {"ok",    "false", 3, 2}, {"ok",    "false", 1, 2}, {"ok",    "false", 2, 2},
        {"ok",    "true",  3, 1}, {"ok",    "true",  1, 5}, {"ok",    "true",  2, 3},
    };
    // clang-format on
    for (const Case &c : cases)
        QTest::addRow("class-D '%s', enable '%s', monitor %u", c.classDText, c.enableText, c.monitorStatus)
            << QByteArray(c.classDText) << QByteArray(c.enableText) << c.monitorStatus << c.status;
}

void TestMeasurements::channelStatus()
{
    QFETCH(QByteArray, classDText);
    QFETCH(QByteArray, enableText);
    QFETCH(uint, monitorStatus);
    QFETCH(uint, status);

    for (const uint model : {6420U, 6720U, 6764U})
        for (const uint channel : {0U, 1U}) {
            const uint other = 1 - channel;

            TalBench lastIsClassD(model);
            if (!enableText.isEmpty())
                ampEnable(lastIsClassD, channel, enableText);
            if (monitorStatus != 3)
                lastIsClassD.handler.slotAmpChannelStatusUpdate(channel, monitorStatus);
            if (!classDText.isEmpty())
                classD(lastIsClassD, classDText);
            QCOMPARE(lastIsClassD.records().ampChannel.rows[channel].status, status);
            QCOMPARE(lastIsClassD.records().ampChannel.rows[other].status, classDText == "fault" ? 4U : 1U);

            TalBench lastIsEnable(model);
            if (!classDText.isEmpty())
                classD(lastIsEnable, classDText);
            if (monitorStatus != 3)
                lastIsEnable.handler.slotAmpChannelStatusUpdate(channel, monitorStatus);
            if (!enableText.isEmpty())
                ampEnable(lastIsEnable, channel, enableText);
            QCOMPARE(lastIsEnable.records().ampChannel.rows[channel].status, status);

            TalBench lastIsMonitor(model);
            if (!classDText.isEmpty())
                classD(lastIsMonitor, classDText);
            if (!enableText.isEmpty())
                ampEnable(lastIsMonitor, channel, enableText);
            if (monitorStatus != 3)
                lastIsMonitor.handler.slotAmpChannelStatusUpdate(channel, monitorStatus);
            QCOMPARE(lastIsMonitor.records().ampChannel.rows[channel].status, status);
            QCOMPARE(lastIsMonitor.records().ampChannel.rows[channel].ampMonitorStatus, monitorStatus);
            QCOMPARE(lastIsMonitor.records().ampChannel.rows[other].ampMonitorStatus, 3U);
        }
}

void TestMeasurements::channelStatusOf6425ForcesClassD_data()
{
    QTest::addColumn<QByteArray>("classDText");
    QTest::addColumn<QByteArray>("enableText");
    QTest::addColumn<uint>("monitorStatus");
    QTest::addColumn<uint>("status");

    struct Case {
        const char *enableText;
        uint monitorStatus;
        uint status;
    };
    // clang-format off
    const Case cases[] = {
        {"",      3, 1}, {"",      1, 1}, {"",      2, 1},
        {"false", 3, 2}, {"false", 1, 2}, {"false", 2, 2},
        {"true",  3, 1}, {"true",  1, 5}, {"true",  2, 3},
    };
    // clang-format on
    for (const char *classDText : {"", "fault", "ok"})
        for (const Case &c : cases)
            QTest::addRow("class-D '%s', enable '%s', monitor %u", classDText, c.enableText, c.monitorStatus)
                << QByteArray(classDText) << QByteArray(c.enableText) << c.monitorStatus << c.status;
}

void TestMeasurements::channelStatusOf6425ForcesClassD()
{
    QFETCH(QByteArray, classDText);
    QFETCH(QByteArray, enableText);
    QFETCH(uint, monitorStatus);
    QFETCH(uint, status);

    for (const uint channel : {0U, 1U}) {
        TalBench bench(6425);
        if (!enableText.isEmpty())
            ampEnable(bench, channel, enableText);
        if (monitorStatus != 3)
            bench.handler.slotAmpChannelStatusUpdate(channel, monitorStatus);
        if (!classDText.isEmpty())
            classD(bench, classDText);
        QCOMPARE(bench.records().ampChannel.rows[channel].status, status);
        QCOMPARE(bench.records().ampChannel.rows[1 - channel].status, 1U);
    }
}

void TestMeasurements::classDTexts_data()
{
    QTest::addColumn<QByteArray>("text");
    QTest::addColumn<uint>("status"); // of an enabled channel with monitor status 2
    QTest::newRow("ok") << QByteArray("ok") << 3U;
    QTest::newRow("fault") << QByteArray("fault") << 4U;
    QTest::newRow("empty") << QByteArray("") << 4U;
    QTest::newRow("other case") << QByteArray("OK") << 4U;
    QTest::newRow("blank behind") << QByteArray("ok ") << 4U;
}

void TestMeasurements::classDTexts()
{
    QFETCH(QByteArray, text);
    QFETCH(uint, status);

    for (const char *op : {"create", "replace"}) {
        TalBench bench(6420);
        for (const uint channel : {0U, 1U}) {
            ampEnable(bench, channel, "true");
            bench.handler.slotAmpChannelStatusUpdate(channel, 2);
        }
        classD(bench, text, op);
        QCOMPARE(statuses(bench), Numbers({status, status}));
        QCOMPARE(bench.log.lines(), QStringList());
    }
}

void TestMeasurements::classDDerivesBothChannelsInEveryCase_data()
{
    QTest::addColumn<QByteArray>("op");
    QTest::addColumn<QString>("data");
    QTest::newRow("delete changes nothing") << QByteArray("delete")
                                            << qs("<class_d_amp_status><status>fault</status>"
                                                  "</class_d_amp_status>");
    QTest::newRow("unexpected operation changes nothing")
        << QByteArray("patch") << qs("<class_d_amp_status><status>fault</status></class_d_amp_status>");
    QTest::newRow("status not there") << QByteArray("replace") << qs("<class_d_amp_status/>");
    QTest::newRow("status not there, delete") << QByteArray("delete") << qs("<class_d_amp_status/>");
    QTest::newRow("malformed") << QByteArray("replace") << qs("<class_d_amp_status><status>fault");
}

void TestMeasurements::classDDerivesBothChannelsInEveryCase()
{
    QFETCH(QByteArray, op);
    QFETCH(QString, data);

    TalBench bench(6720);
    classD(bench, "ok");
    for (const uint channel : {0U, 1U}) {
        ampEnable(bench, channel, channel == 0 ? "true" : "false");
        bench.handler.slotAmpChannelStatusUpdate(channel, 2);
    }
    forgetStatuses(bench);
    bench.notify("kvsnmp_class_d_status", op, classDPath, data);
    QCOMPARE(statuses(bench), Numbers({3, 2}));
}

void TestMeasurements::classDUnexpectedOperation()
{
    TalBench bench(6420);
    classD(bench, "ok", "patch");
    QCOMPARE(bench.log.lines(), QStringList{qs("stateClassDStatusUpdate op: patch rPath: /state/class_d_amp_status"
                                               " sPath: /state/class_d_amp_status")});
}

void TestMeasurements::enabledChannelOf6425WithMonitorStatus1Shows5()
{
    TalBench bench(6425);
    ampEnable(bench, 1, "true");
    bench.handler.slotAmpChannelStatusUpdate(1, 1);
    QCOMPARE(statuses(bench), Numbers({1, 5}));
}

void TestMeasurements::ampChannelStatusSlot_data()
{
    QTest::addColumn<uint>("channel");
    QTest::addColumn<uint>("status");
    QTest::addColumn<Numbers>("monitors");
    QTest::addColumn<Numbers>("derived"); // enabled channels, class-D ok; 77: not derived again

    QTest::newRow("channel 0 status 1") << 0U << 1U << Numbers{1, 3} << Numbers{5, 77};
    QTest::newRow("channel 0 status 2") << 0U << 2U << Numbers{2, 3} << Numbers{3, 77};
    QTest::newRow("channel 1 status 1") << 1U << 1U << Numbers{3, 1} << Numbers{77, 5};
    QTest::newRow("channel 1 status 2") << 1U << 2U << Numbers{3, 2} << Numbers{77, 3};
    QTest::newRow("status 0 is ignored") << 0U << 0U << Numbers{3, 3} << Numbers{77, 77};
    QTest::newRow("status 3 is ignored") << 1U << 3U << Numbers{3, 3} << Numbers{77, 77};
    QTest::newRow("huge status is ignored") << 1U << 4294967295U << Numbers{3, 3} << Numbers{77, 77};
    QTest::newRow("channel 2 is ignored") << 2U << 1U << Numbers{3, 3} << Numbers{77, 77};
    QTest::newRow("huge channel is ignored") << 4294967295U << 2U << Numbers{3, 3} << Numbers{77, 77};
}

void TestMeasurements::ampChannelStatusSlot()
{
    QFETCH(uint, channel);
    QFETCH(uint, status);
    QFETCH(Numbers, monitors);
    QFETCH(Numbers, derived);

    TalBench bench(6420);
    classD(bench, "ok");
    ampEnable(bench, 0, "true");
    ampEnable(bench, 1, "true");
    forgetStatuses(bench);
    bench.handler.slotAmpChannelStatusUpdate(channel, status);

    const auto &rows = bench.records().ampChannel.rows;
    QCOMPARE(Numbers({rows[0].ampMonitorStatus, rows[1].ampMonitorStatus}), monitors);
    QCOMPARE(statuses(bench), derived);
    QCOMPARE(bench.log.lines(), QStringList());
}

void TestMeasurements::powerLiveTexts_data()
{
    QTest::addColumn<QByteArray>("op");
    QTest::addColumn<QByteArray>("text");
    QTest::addColumn<uint>("status");

    QTest::newRow("create true") << QByteArray("create") << QByteArray("true") << 3U;
    QTest::newRow("create false") << QByteArray("create") << QByteArray("false") << 2U;
    QTest::newRow("replace true") << QByteArray("replace") << QByteArray("true") << 3U;
    QTest::newRow("replace false") << QByteArray("replace") << QByteArray("false") << 2U;
    QTest::newRow("delete true") << QByteArray("delete") << QByteArray("true") << 1U;
    QTest::newRow("delete false") << QByteArray("delete") << QByteArray("false") << 1U;
}

void TestMeasurements::powerLiveTexts()
{
    QFETCH(QByteArray, op);
    QFETCH(QByteArray, text);
    QFETCH(uint, status);

    for (const uint model : {6410U, 6420U}) {
        TalBench ac(model);
        ac.records().power.rows[0].liveStatus = sentinel;
        power(ac, "ac_power", text, op);
        QCOMPARE(liveStatuses(ac), Numbers({status, 1}));
        QCOMPARE(ac.log.lines(), QStringList());

        TalBench dc(model);
        dc.records().power.rows[1].liveStatus = sentinel;
        power(dc, "dc_power", text, op);
        QCOMPARE(liveStatuses(dc), Numbers({1, status}));
        QCOMPARE(dc.records().power.rows[1].monitored, 1U);
    }
}

void TestMeasurements::powerLiveOtherTextTakesThePreviousValueOfEitherSource()
{
    TalBench bench(6420);
    power(bench, "ac_power", "true");
    power(bench, "dc_power", "perhaps");
    QCOMPARE(liveStatuses(bench), Numbers({3, 3}));

    power(bench, "dc_power", "false");
    power(bench, "ac_power", "TRUE");
    QCOMPARE(liveStatuses(bench), Numbers({2, 2}));

    power(bench, "dc_power", "false", "delete"); // a delete is a parsed value too
    power(bench, "ac_power", "");
    QCOMPARE(liveStatuses(bench), Numbers({1, 1}));
}

void TestMeasurements::powerLiveOtherTextFirstOfAllTakesZero()
{
    TalBench bench(6410);
    power(bench, "ac_power", "perhaps");
    QCOMPARE(liveStatuses(bench), Numbers({0, 1}));
}

void TestMeasurements::powerLiveBothSourcesAtOnce()
{
    TalBench bench(6410);
    bench.notify("kvsnmp_power_status", "replace", qs("/state/power_sources"),
                 qs("<power_sources><power_source><kid>dc_power</kid><live>other</live></power_source>"
                    "<power_source><kid>ac_power</kid><live>true</live></power_source></power_sources>"),
                 qs("/state/power_sources/power_source/live"));
    QCOMPARE(liveStatuses(bench), Numbers({3, 3})); // "ac_power" first, whatever the order in the notification
}

void TestMeasurements::powerLiveUnexpectedOperation()
{
    TalBench bench(6410);
    power(bench, "dc_power", "true", "patch");
    QCOMPARE(liveStatuses(bench), Numbers({1, 1}));
    QCOMPARE(bench.log.lines(),
             QStringList{qs("getPowerStatus op: patch rPath: /state/power_sources/power_source[kid='dc_power']/live"
                            " sPath: /state/power_sources/power_source/live kid: dc_power")});
}

void TestMeasurements::powerLiveIsIgnoredOnOtherModels_data()
{
    QTest::addColumn<uint>("model");
    for (const uint model : knownModels)
        if (model != 6410 && model != 6420)
            QTest::addRow("%u", model) << model;
}

void TestMeasurements::powerLiveIsIgnoredOnOtherModels()
{
    QFETCH(uint, model);

    TalBench bench(model);
    const Numbers before = liveStatuses(bench);
    power(bench, "ac_power", "true");
    power(bench, "dc_power", "true");
    power(bench, "dc_power", "true", "patch");
    QCOMPARE(liveStatuses(bench), before);
    QCOMPARE(bench.log.lines(), QStringList());
}

const TestEntry entry("tst_measurements", runTest<TestMeasurements>);
#include "tst_measurements.moc"
