// Relays, GPIO types, control inputs and outputs, monitored power sources.
#include "support/talbench.h"
#include "support/testprogram.h"

#include "device/models.h"

#include <QSignalSpy>
#include <QVector>

#include <limits>

namespace {

using Numbers = QVector<uint>;
using Rows = QVector<int>;

constexpr uint huge = std::numeric_limits<uint>::max();
constexpr uint sentinel = 77; // no text has this code

QString delayPath(const char *key)
{
    return QStringLiteral("/state/config/gpos/gpo[kid='%1']/delay").arg(qs(key));
}

QString idleModePath(const char *key)
{
    return QStringLiteral("/state/config/gpos/gpo[kid='%1']/idle_mode").arg(qs(key));
}

QString gpioTypePath(uint number)
{
    return QStringLiteral("/state/config/gpios/gpio[kid='gpio%1']/gpio_type").arg(number);
}

QString inputMonitoredPath(uint number)
{
    return QStringLiteral("/state/config/gpis/gpi[kid='gpi%1']/monitored").arg(number);
}

QString powerMonitoredPath(const char *key)
{
    return QStringLiteral("/state/config/power_sources/power_source[kid='%1']/monitored").arg(qs(key));
}

void delay(TalBench &bench, const char *key, const char *text, const char *op = "replace")
{
    bench.leaf("kvsnmp_relay_delay", op, delayPath(key), qs(text));
}

void idleMode(TalBench &bench, const char *key, const char *text, const char *op = "replace")
{
    bench.leaf("kvsnmp_relay_idle_mode", op, idleModePath(key), qs(text));
}

void gpioType(TalBench &bench, uint number, const char *text, const char *op = "replace")
{
    bench.leaf("kvsnmp_gpio_type", op, gpioTypePath(number), qs(text));
}

void inputMonitored(TalBench &bench, uint number, const char *text, const char *op = "replace")
{
    bench.leaf("kvsnmp_control_input_monitored", op, inputMonitoredPath(number), qs(text));
}

void powerMonitored(TalBench &bench, const char *key, const char *text, const char *op = "replace")
{
    bench.leaf("kvsnmp_power_monitoring", op, powerMonitoredPath(key), qs(text));
}

Numbers delays(TalBench &bench)
{
    Numbers all;
    for (const RelayRow &row : bench.records().relay.rows)
        all << row.delay;
    return all;
}

Numbers idleModes(TalBench &bench)
{
    Numbers all;
    for (const RelayRow &row : bench.records().relay.rows)
        all << row.idleMode;
    return all;
}

Numbers relayStatuses(TalBench &bench)
{
    Numbers all;
    for (const RelayRow &row : bench.records().relay.rows)
        all << row.status;
    return all;
}

Numbers outputStatuses(TalBench &bench)
{
    const auto &status = bench.records().controlOutput.status;
    return Numbers(std::begin(status), std::end(status));
}

Numbers inputStatuses(TalBench &bench)
{
    Numbers all;
    for (const ControlInputRow &row : bench.records().controlInput.rows)
        all << row.status;
    return all;
}

Numbers inputMonitoring(TalBench &bench)
{
    Numbers all;
    for (const ControlInputRow &row : bench.records().controlInput.rows)
        all << row.monitored;
    return all;
}

Numbers powerMonitoring(TalBench &bench)
{
    const auto &rows = bench.records().power.rows;
    return {rows[0].monitored, rows[1].monitored};
}

/// `count` times `value`, but `other` at `place` when there is such a place.
Numbers allBut(int count, uint value, uint place, uint other)
{
    Numbers all(count, value);
    if (place < static_cast<uint>(count))
        all[static_cast<int>(place)] = other;
    return all;
}

/// The emissions as "gpioId:gpioType", in order.
QStringList emissions(const QSignalSpy &spy)
{
    QStringList all;
    for (const QList<QVariant> &arguments : spy)
        all << QStringLiteral("%1:%2").arg(arguments[0].toUInt()).arg(arguments[1].toUInt());
    return all;
}

const QStringList expanderInputs = qs("6:1 7:1 8:1 9:1 10:1 11:1 12:1 13:1").split(QLatin1Char(' '));

} // namespace

class TestConfiguration : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void gpoUpdateTexts_data();
    void gpoUpdateTexts();
    void gpoUpdateIds_data();
    void gpoUpdateIds();
    void gpiUpdateTexts_data();
    void gpiUpdateTexts();
    void gpiUpdateIds_data();
    void gpiUpdateIds();
    void setControlOutputStatus_data();
    void setControlOutputStatus();
    void setControlInputStatus_data();
    void setControlInputStatus();
    void setRelayStatus_data();
    void setRelayStatus();

    void relayKeyFeedsRows_data();
    void relayKeyFeedsRows();
    void relayForeignKeyIsIgnored_data();
    void relayForeignKeyIsIgnored();
    void relaysAreIgnoredOnOtherModels_data();
    void relaysAreIgnoredOnOtherModels();
    void externalRelay1FeedsTwoRowsOnStations_data();
    void externalRelay1FeedsTwoRowsOnStations();
    void relayKeysAreWalkedInOrder();
    void relayDelayTexts_data();
    void relayDelayTexts();
    void relayIdleModeTexts_data();
    void relayIdleModeTexts();
    void relayIdleModeOtherTextTakesThePreviousValueOfAnyRelay();
    void relayIdleModeOtherTextFirstOfAllTakesZero();
    void relayIdleModeOtherTextOfTwoRowsTakesThePreviousValueTwice();
    void relayUnexpectedOperation();

    void gpioTypeTexts_data();
    void gpioTypeTexts();
    void gpio7To14AreAlwaysInputs_data();
    void gpio7To14AreAlwaysInputs();
    void gpioTypesAreWalkedInOrder();
    void gpioTypeResetsInputAndOutputRows_data();
    void gpioTypeResetsInputAndOutputRows();
    void gpioTypeUnexpectedOperation_data();
    void gpioTypeUnexpectedOperation();
    void gpioNumbersOutside1To14AreIgnored();

    void inputMonitoredKeys_data();
    void inputMonitoredKeys();
    void inputMonitoredTexts_data();
    void inputMonitoredTexts();
    void inputMonitoredUnexpectedOperation();

    void powerMonitoredTexts_data();
    void powerMonitoredTexts();
    void powerMonitoredOtherTextTakesThePreviousValueOfEitherSource();
    void powerMonitoredOtherTextFirstOfAllTakesZero();
    void powerMonitoredIsIgnoredOnOtherModels_data();
    void powerMonitoredIsIgnoredOnOtherModels();
    void powerMonitoredUnexpectedOperation();
};

void TestConfiguration::gpoUpdateTexts_data()
{
    QTest::addColumn<QString>("state");
    QTest::addColumn<uint>("code");
    QTest::newRow("ok_cleared") << qs("ok_cleared") << 2U;
    QTest::newRow("ok_set") << qs("ok_set") << 3U;
    QTest::newRow("fail_cleared") << qs("fail_cleared") << 4U;
    QTest::newRow("fail_set") << qs("fail_set") << 5U;
    QTest::newRow("unknown text") << qs("ok_open") << 1U;
    QTest::newRow("other case") << qs("OK_SET") << 1U;
    QTest::newRow("empty") << QString() << 1U;
}

void TestConfiguration::gpoUpdateTexts()
{
    QFETCH(QString, state);
    QFETCH(uint, code);

    TalBench bench(6420);
    bench.records().controlOutput.status[2] = sentinel;
    bench.handler.slotGpoUpdate(2, state, qs("anything"));
    QCOMPARE(outputStatuses(bench), allBut(6, 1, 2, code));
    QCOMPARE(bench.log.lines(), QStringList());
}

void TestConfiguration::gpoUpdateIds_data()
{
    QTest::addColumn<uint>("id");
    for (const uint id : {0U, 1U, 2U, 3U, 4U, 5U, 6U, 7U, 13U, 14U, huge})
        QTest::addRow("%u%s", id, id > 5 ? " is ignored" : "") << id;
}

void TestConfiguration::gpoUpdateIds()
{
    QFETCH(uint, id);

    TalBench bench(6420);
    bench.handler.slotGpoUpdate(id, qs("ok_set"), qs("ok_cleared"));
    QCOMPARE(outputStatuses(bench), allBut(6, 1, id, 3));
    QCOMPARE(inputStatuses(bench), Numbers(14, 1));
    QCOMPARE(bench.log.lines(), QStringList());
}

void TestConfiguration::gpiUpdateTexts_data()
{
    QTest::addColumn<QString>("state");
    QTest::addColumn<uint>("code");
    QTest::newRow("ok_open") << qs("ok_open") << 2U;
    QTest::newRow("ok_closed") << qs("ok_closed") << 3U;
    QTest::newRow("fail_shorted") << qs("fail_shorted") << 4U;
    QTest::newRow("fail_unconnected") << qs("fail_unconnected") << 5U;
    QTest::newRow("unknown text") << qs("ok_set") << 1U;
    QTest::newRow("other case") << qs("Ok_open") << 1U;
    QTest::newRow("empty") << QString() << 1U;
}

void TestConfiguration::gpiUpdateTexts()
{
    QFETCH(QString, state);
    QFETCH(uint, code);

    TalBench bench(6420);
    bench.records().controlInput.rows[9].status = sentinel;
    bench.handler.slotGpiUpdate(9, state);
    QCOMPARE(inputStatuses(bench), allBut(14, 1, 9, code));
    QCOMPARE(inputMonitoring(bench), Numbers(14, 1));
    QCOMPARE(bench.log.lines(), QStringList());
}

void TestConfiguration::gpiUpdateIds_data()
{
    QTest::addColumn<uint>("id");
    for (const uint id : {0U, 5U, 6U, 12U, 13U, 14U, 15U, huge})
        QTest::addRow("%u%s", id, id > 13 ? " is ignored" : "") << id;
}

void TestConfiguration::gpiUpdateIds()
{
    QFETCH(uint, id);

    TalBench bench(6420);
    bench.handler.slotGpiUpdate(id, qs("ok_closed"));
    QCOMPARE(inputStatuses(bench), allBut(14, 1, id, 3));
    QCOMPARE(outputStatuses(bench), Numbers(6, 1));
    QCOMPARE(bench.log.lines(), QStringList());
}

void TestConfiguration::setControlOutputStatus_data()
{
    QTest::addColumn<uint>("id");
    QTest::addColumn<uint>("status");
    QTest::addColumn<bool>("stored");
    for (const uint id : {0U, 3U, 5U, 6U, huge})
        for (const uint status : {0U, 1U, 2U, 3U, 4U, huge}) {
            const bool stored = id <= 5 && status >= 1 && status <= 3;
            QTest::addRow("row %u status %u%s", id, status, stored ? "" : " is ignored") << id << status << stored;
        }
}

void TestConfiguration::setControlOutputStatus()
{
    QFETCH(uint, id);
    QFETCH(uint, status);
    QFETCH(bool, stored);

    TalBench bench(6214);
    for (std::uint32_t &row : bench.records().controlOutput.status)
        row = sentinel;
    bench.handler.slotSetControlOutputStatus(id, status);
    QCOMPARE(outputStatuses(bench), stored ? allBut(6, sentinel, id, status) : Numbers(6, sentinel));
    QCOMPARE(bench.log.lines(), QStringList());
}

void TestConfiguration::setControlInputStatus_data()
{
    QTest::addColumn<uint>("id");
    QTest::addColumn<uint>("status");
    QTest::addColumn<bool>("stored");
    for (const uint id : {0U, 6U, 13U, 14U, huge})
        for (const uint status : {0U, 1U, 2U, 3U, 4U, huge}) {
            const bool stored = id <= 13 && status >= 1 && status <= 3;
            QTest::addRow("row %u status %u%s", id, status, stored ? "" : " is ignored") << id << status << stored;
        }
}

void TestConfiguration::setControlInputStatus()
{
    QFETCH(uint, id);
    QFETCH(uint, status);
    QFETCH(bool, stored);

    TalBench bench(6214);
    for (ControlInputRow &row : bench.records().controlInput.rows)
        row.status = sentinel;
    bench.handler.slotSetControlInputStatus(id, status);
    QCOMPARE(inputStatuses(bench), stored ? allBut(14, sentinel, id, status) : Numbers(14, sentinel));
    QCOMPARE(inputMonitoring(bench), Numbers(14, 1));
    QCOMPARE(bench.log.lines(), QStringList());
}

void TestConfiguration::setRelayStatus_data()
{
    QTest::addColumn<uint>("id");
    QTest::addColumn<uint>("status");
    QTest::addColumn<bool>("stored");
    for (const uint id : {0U, 4U, 11U, 12U, huge})
        for (const uint status : {0U, 1U, 2U, 3U, 4U, 5U, huge}) {
            const bool stored = id <= 11 && status >= 1 && status <= 4;
            QTest::addRow("row %u status %u%s", id, status, stored ? "" : " is ignored") << id << status << stored;
        }
}

void TestConfiguration::setRelayStatus()
{
    QFETCH(uint, id);
    QFETCH(uint, status);
    QFETCH(bool, stored);

    TalBench bench(6214);
    for (RelayRow &row : bench.records().relay.rows)
        row = {sentinel, 11, 12};
    bench.handler.slotSetRelayStatus(id, status);
    QCOMPARE(relayStatuses(bench), stored ? allBut(12, sentinel, id, status) : Numbers(12, sentinel));
    QCOMPARE(idleModes(bench), Numbers(12, 11));
    QCOMPARE(delays(bench), Numbers(12, 12));
    QCOMPARE(bench.log.lines(), QStringList());
}

void TestConfiguration::relayKeyFeedsRows_data()
{
    QTest::addColumn<uint>("model");
    QTest::addColumn<QByteArray>("description");
    QTest::addColumn<QByteArray>("key");
    QTest::addColumn<Rows>("rows");

    struct KeyRows {
        const char *key;
        Rows ordinary6211And6891;
        Rows ordinary6214And6259;
        Rows station6211And6891;
        Rows station6214And6259;
    };
    // clang-format off
    const KeyRows keys[] = {
        {"relay1",   {0}, {0}, {0},  {0}},
        {"relay2",   {},  {1}, {},   {1}},
        {"e_relay1", {},  {2}, {4},  {2, 4}},
        {"e_relay2", {},  {3}, {5},  {3, 5}},
        {"e_relay3", {},  {},  {6},  {6}},
        {"e_relay4", {},  {},  {7},  {7}},
        {"e_relay5", {},  {},  {8},  {8}},
        {"e_relay6", {},  {},  {9},  {9}},
        {"e_relay7", {},  {},  {10}, {10}},
        {"e_relay8", {},  {},  {11}, {11}},
    };
    // clang-format on
    for (const KeyRows &key : keys)
        for (const uint model : {6211U, 6214U, 6259U, 6891U}) {
            const bool four = model == 6214 || model == 6259;
            for (const char *ordinary : {ordinaryDescription, ""})
                QTest::addRow("%u '%s' %s", model, ordinary, key.key)
                    << model << QByteArray(ordinary) << QByteArray(key.key)
                    << (four ? key.ordinary6214And6259 : key.ordinary6211And6891);
            for (const char *station : {stationCompact, stationExtended})
                QTest::addRow("%u '%s' %s", model, station, key.key)
                    << model << QByteArray(station) << QByteArray(key.key)
                    << (four ? key.station6214And6259 : key.station6211And6891);
        }
}

void TestConfiguration::relayKeyFeedsRows()
{
    QFETCH(uint, model);
    QFETCH(QByteArray, description);
    QFETCH(QByteArray, key);
    QFETCH(Rows, rows);

    for (const char *op : {"create", "replace"}) {
        TalBench bench(model, description);
        Numbers expectedDelays(12, 0);
        Numbers expectedModes(12, 1);
        QStringList expectedLines;
        for (const int row : rows) {
            expectedDelays[row] = 250;
            expectedModes[row] = 3;
            expectedLines << QStringLiteral("configRelayDelayUpdate %1  delay: 250").arg(qs(key));
        }
        delay(bench, key, "250", op);
        QCOMPARE(delays(bench), expectedDelays);
        QCOMPARE(bench.log.takeLines(), expectedLines);
        idleMode(bench, key, "normal_open", op);
        QCOMPARE(idleModes(bench), expectedModes);
        QCOMPARE(bench.log.lines(), QStringList());
        QCOMPARE(delays(bench), expectedDelays);
        QCOMPARE(relayStatuses(bench), Numbers(12, 1));
    }
}

void TestConfiguration::relayForeignKeyIsIgnored_data()
{
    QTest::addColumn<QByteArray>("key");
    for (const char *key : {"relay0", "relay3", "relay4", "e_relay0", "e_relay9", "Relay1", "E_relay1", ""})
        QTest::addRow("'%s'", key) << QByteArray(key);
}

void TestConfiguration::relayForeignKeyIsIgnored()
{
    QFETCH(QByteArray, key);

    TalBench bench(6214, stationExtended);
    delay(bench, key, "250");
    idleMode(bench, key, "normal_open");
    QCOMPARE(delays(bench), Numbers(12, 0));
    QCOMPARE(idleModes(bench), Numbers(12, 1));
    QCOMPARE(bench.log.lines(), QStringList());
}

void TestConfiguration::relaysAreIgnoredOnOtherModels_data()
{
    QTest::addColumn<uint>("model");
    for (const uint model : knownModels)
        if (model != 6211 && model != 6214 && model != 6259 && model != 6891)
            QTest::addRow("%u", model) << model;
}

void TestConfiguration::relaysAreIgnoredOnOtherModels()
{
    QFETCH(uint, model);

    TalBench bench(model, stationCompact);
    for (const char *key : {"relay1", "relay2", "e_relay1"})
        for (const char *op : {"create", "patch"}) {
            delay(bench, key, "250", op);
            idleMode(bench, key, "normal_open", op);
        }
    QCOMPARE(delays(bench), Numbers(12, 0));
    QCOMPARE(idleModes(bench), Numbers(12, 0));
    QCOMPARE(bench.log.lines(), QStringList());
}

void TestConfiguration::externalRelay1FeedsTwoRowsOnStations_data()
{
    QTest::addColumn<uint>("model");
    QTest::newRow("6214") << 6214U;
    QTest::newRow("6259") << 6259U;
}

void TestConfiguration::externalRelay1FeedsTwoRowsOnStations()
{
    QFETCH(uint, model);

    TalBench bench(model, stationExtended);
    delay(bench, "e_relay1", "100");
    delay(bench, "e_relay2", "200");
    QCOMPARE(delays(bench), Numbers({0, 0, 100, 200, 100, 200, 0, 0, 0, 0, 0, 0}));
    delay(bench, "e_relay1", "", "delete");
    QCOMPARE(delays(bench), Numbers({0, 0, 0, 200, 0, 200, 0, 0, 0, 0, 0, 0}));
}

void TestConfiguration::relayKeysAreWalkedInOrder()
{
    TalBench bench(6259, stationCompact);
    bench.notify("kvsnmp_relay_delay", "replace", qs("/state/config/gpos"),
                 qs("<gpos><gpo><kid>e_relay3</kid><delay>5</delay></gpo><gpo><kid>e_relay1</kid><delay>4</delay></gpo>"
                    "<gpo><kid>relay2</kid><delay>3</delay></gpo><gpo><kid>relay1</kid><delay>2</delay></gpo></gpos>"),
                 qs("/state/config/gpos/gpo/delay"));
    QCOMPARE(delays(bench), Numbers({2, 3, 4, 0, 4, 0, 5, 0, 0, 0, 0, 0}));
    QCOMPARE(
        bench.log.lines(),
        QStringList({qs("configRelayDelayUpdate relay1  delay: 2"), qs("configRelayDelayUpdate relay2  delay: 3"),
                     qs("configRelayDelayUpdate e_relay1  delay: 4"), qs("configRelayDelayUpdate e_relay1  delay: 4"),
                     qs("configRelayDelayUpdate e_relay3  delay: 5")}));
}

void TestConfiguration::relayDelayTexts_data()
{
    QTest::addColumn<QByteArray>("op");
    QTest::addColumn<QByteArray>("text");
    QTest::addColumn<uint>("delay");
    const auto row = [](const char *name, const char *op, const char *text, uint delay) {
        QTest::newRow(name) << QByteArray(op) << QByteArray(text) << delay;
    };
    row("number", "replace", "250", 250);
    row("zero", "create", "0", 0);
    row("leading zeros are decimal", "replace", "010", 10);
    row("largest", "replace", "4294967295", 4294967295U);
    row("too large", "replace", "4294967296", 0);
    row("empty", "replace", "", 0);
    row("word", "replace", "soon", 0);
    row("number and unit", "replace", "250ms", 0);
    row("blanks around it", "replace", " \t250\n", 250);
    row("blank inside", "replace", "2 50", 0);
    row("plus sign", "replace", "+250", 250);
    row("blank behind the sign", "replace", "+ 250", 0);
    row("negative", "replace", "-1", 0);
    row("negative zero", "replace", "-0", 0);
    row("digits of another script", "replace", "\xd9\xa2\xd9\xa5\xd9\xa0", 0);
    row("fraction", "replace", "1.5", 0);
    row("hexadecimal", "replace", "0x10", 0);
    row("delete", "delete", "250", 0);
}

void TestConfiguration::relayDelayTexts()
{
    QFETCH(QByteArray, op);
    QFETCH(QByteArray, text);
    QFETCH(uint, delay);

    TalBench bench(6891);
    ::delay(bench, "relay1", "7");
    bench.log.takeLines();
    ::delay(bench, "relay1", text, op);
    QCOMPARE(delays(bench), allBut(12, 0, 0, delay));
    QCOMPARE(bench.log.lines(), QStringList{QStringLiteral("configRelayDelayUpdate relay1  delay: %1").arg(delay)});
}

void TestConfiguration::relayIdleModeTexts_data()
{
    QTest::addColumn<QByteArray>("op");
    QTest::addColumn<QByteArray>("text");
    QTest::addColumn<uint>("code");
    const auto row = [](const char *name, const char *op, const char *text, uint code) {
        QTest::newRow(name) << QByteArray(op) << QByteArray(text) << code;
    };
    row("create normal_closed", "create", "normal_closed", 2);
    row("create normal_open", "create", "normal_open", 3);
    row("replace normal_closed", "replace", "normal_closed", 2);
    row("replace normal_open", "replace", "normal_open", 3);
    row("delete", "delete", "normal_open", 1);
    row("delete empty", "delete", "", 1);
}

void TestConfiguration::relayIdleModeTexts()
{
    QFETCH(QByteArray, op);
    QFETCH(QByteArray, text);
    QFETCH(uint, code);

    TalBench bench(6211);
    bench.records().relay.rows[0].idleMode = sentinel;
    idleMode(bench, "relay1", text, op);
    QCOMPARE(idleModes(bench), allBut(12, 1, 0, code));
    QCOMPARE(bench.log.lines(), QStringList());
}

void TestConfiguration::relayIdleModeOtherTextTakesThePreviousValueOfAnyRelay()
{
    TalBench bench(6214);
    idleMode(bench, "relay1", "normal_open");
    idleMode(bench, "relay2", "sideways");
    QCOMPARE(idleModes(bench).mid(0, 4), Numbers({3, 3, 1, 1}));

    idleMode(bench, "e_relay1", "normal_closed");
    idleMode(bench, "relay1", "NORMAL_OPEN");
    QCOMPARE(idleModes(bench).mid(0, 4), Numbers({2, 3, 2, 1}));

    idleMode(bench, "relay2", "normal_closed", "delete");
    idleMode(bench, "e_relay2", "");
    QCOMPARE(idleModes(bench).mid(0, 4), Numbers({2, 1, 2, 1}));

    delay(bench, "relay1", "9"); // the delay has a scratch value of its own
    idleMode(bench, "relay1", "sideways");
    QCOMPARE(idleModes(bench).mid(0, 4), Numbers({1, 1, 2, 1}));
}

void TestConfiguration::relayIdleModeOtherTextFirstOfAllTakesZero()
{
    TalBench bench(6891);
    idleMode(bench, "relay1", "sideways");
    QCOMPARE(idleModes(bench), allBut(12, 1, 0, 0));
}

void TestConfiguration::relayIdleModeOtherTextOfTwoRowsTakesThePreviousValueTwice()
{
    TalBench bench(6214, stationCompact);
    idleMode(bench, "e_relay8", "normal_open");
    idleMode(bench, "e_relay1", "sideways");
    QCOMPARE(idleModes(bench), Numbers({1, 1, 3, 1, 3, 1, 1, 1, 1, 1, 1, 3}));
}

void TestConfiguration::relayUnexpectedOperation()
{
    TalBench bench(6214);
    delay(bench, "relay2", "250", "patch");
    idleMode(bench, "e_relay2", "normal_open", "");
    QCOMPARE(delays(bench), Numbers(12, 0));
    QCOMPARE(idleModes(bench), Numbers(12, 1));
    QCOMPARE(bench.log.lines(),
             QStringList({qs("getRelayDelay op: patch rPath: /state/config/gpos/gpo[kid='relay2']/delay"
                             " sPath: /state/config/gpos/gpo/delay kid: relay2"),
                          qs("getRelayIdleMode op:  rPath: /state/config/gpos/gpo[kid='e_relay2']/idle_mode"
                             " sPath: /state/config/gpos/gpo/idle_mode kid: e_relay2")}));
}

void TestConfiguration::gpioTypeTexts_data()
{
    QTest::addColumn<QByteArray>("op");
    QTest::addColumn<QByteArray>("text");
    QTest::addColumn<uint>("type");
    const auto row = [](const char *name, const char *op, const char *text, uint type) {
        QTest::newRow(name) << QByteArray(op) << QByteArray(text) << type;
    };
    row("create gpi", "create", "gpi", 1);
    row("create gpo", "create", "gpo", 2);
    row("replace gpi", "replace", "gpi", 1);
    row("replace gpo", "replace", "gpo", 2);
    row("other text", "replace", "none", 3);
    row("other case", "create", "GPO", 3);
    row("empty", "replace", "", 3);
    row("delete", "delete", "gpo", 3);
}

void TestConfiguration::gpioTypeTexts()
{
    QFETCH(QByteArray, op);
    QFETCH(QByteArray, text);
    QFETCH(uint, type);

    for (uint number = 1; number <= 6; ++number) {
        TalBench bench(6214);
        QSignalSpy spy(&bench.handler, SIGNAL(signalSetGpioType(uint, uint)));
        gpioType(bench, number, text, op);
        QCOMPARE(emissions(spy), QStringList{QStringLiteral("%1:%2").arg(number - 1).arg(type)} + expanderInputs);
        QCOMPARE(bench.log.lines(), QStringList());
    }
}

void TestConfiguration::gpio7To14AreAlwaysInputs_data()
{
    QTest::addColumn<QByteArray>("op");
    for (const char *op : {"create", "replace", "delete"})
        QTest::newRow(op) << QByteArray(op);
}

void TestConfiguration::gpio7To14AreAlwaysInputs()
{
    QFETCH(QByteArray, op);

    TalBench bench(6211);
    QSignalSpy spy(&bench.handler, SIGNAL(signalSetGpioType(uint, uint)));
    gpioType(bench, 9, "gpo", op);
    QCOMPARE(emissions(spy), expanderInputs);

    spy.clear(); // their data is not even looked at
    bench.notify("kvsnmp_gpio_type", op, qs("/state/config/gpios"), qs("<gpios/>"));
    QCOMPARE(emissions(spy), expanderInputs);
    spy.clear();
    bench.notify("kvsnmp_gpio_type", op, QString(), qs("<no xml"), qs("/state/config/gpios/gpio/gpio_type"));
    QCOMPARE(emissions(spy), expanderInputs);
}

void TestConfiguration::gpioTypesAreWalkedInOrder()
{
    TalBench bench(6420); // the model is not looked at
    QSignalSpy spy(&bench.handler, SIGNAL(signalSetGpioType(uint, uint)));
    bench.notify("kvsnmp_gpio_type", "create", qs("/state/config/gpios"),
                 qs("<gpios><gpio><kid>gpio10</kid><gpio_type>gpo</gpio_type></gpio>"
                    "<gpio><kid>gpio6</kid><gpio_type>gpo</gpio_type></gpio>"
                    "<gpio><kid>gpio1</kid><gpio_type>gpi</gpio_type></gpio></gpios>"),
                 qs("/state/config/gpios/gpio/gpio_type"));
    QCOMPARE(emissions(spy), qs("0:1 5:2").split(QLatin1Char(' ')) + expanderInputs);
}

void TestConfiguration::gpioTypeResetsInputAndOutputRows_data()
{
    QTest::addColumn<uint>("number");
    for (uint number = 1; number <= 6; ++number)
        QTest::addRow("gpio%u", number) << number;
}

void TestConfiguration::gpioTypeResetsInputAndOutputRows()
{
    QFETCH(uint, number);

    for (const char *op : {"create", "replace", "delete"}) {
        TalBench bench(6214);
        for (ControlInputRow &row : bench.records().controlInput.rows)
            row = {sentinel, sentinel};
        for (std::uint32_t &row : bench.records().controlOutput.status)
            row = sentinel;
        Numbers atTheSignal; // its receiver may set a status, which the reset then takes back
        QObject::connect(&bench.handler, &TalHandler::signalSetGpioType, &bench.handler, [&](uint gpio) {
            const ControlInputRow &input = bench.records().controlInput.rows[gpio];
            atTheSignal << input.status << input.monitored;
            if (gpio < controlOutputRows)
                atTheSignal << bench.records().controlOutput.status[gpio];
        });
        gpioType(bench, number, "gpo", op);
        QCOMPARE(atTheSignal, Numbers(3 + 8 * 2, sentinel));

        Numbers inputs(14, 1); // 7 to 14 are handled with every such notification
        for (uint row = 0; row < 6; ++row)
            inputs[static_cast<int>(row)] = row == number - 1 ? 1 : sentinel;
        QCOMPARE(inputStatuses(bench), inputs);
        QCOMPARE(inputMonitoring(bench), inputs);
        QCOMPARE(outputStatuses(bench), allBut(6, sentinel, number - 1, 1));
    }
}

void TestConfiguration::gpioTypeUnexpectedOperation_data()
{
    QTest::addColumn<uint>("number");
    for (const uint number : {1U, 6U, 7U, 14U})
        QTest::addRow("gpio%u", number) << number;
}

void TestConfiguration::gpioTypeUnexpectedOperation()
{
    QFETCH(uint, number);

    TalBench bench(6214);
    for (std::uint32_t &row : bench.records().controlOutput.status)
        row = sentinel;
    QSignalSpy spy(&bench.handler, SIGNAL(signalSetGpioType(uint, uint)));
    gpioType(bench, number, "gpi", "patch");
    QCOMPARE(emissions(spy), QStringList());
    QCOMPARE(outputStatuses(bench), Numbers(6, sentinel));
    QCOMPARE(bench.log.lines(),
             QStringList{QStringLiteral("getGpioType op: patch rPath: /state/config/gpios/gpio[kid='gpio%1']/gpio_type"
                                        " sPath: /state/config/gpios/gpio/gpio_type gpio: %1")
                             .arg(number)});
}

void TestConfiguration::gpioNumbersOutside1To14AreIgnored()
{
    TalBench bench(6214);
    QSignalSpy spy(&bench.handler, SIGNAL(signalSetGpioType(uint, uint)));
    for (const uint number : {0U, 15U, 100U}) {
        spy.clear();
        gpioType(bench, number, "gpo");
        QCOMPARE(emissions(spy), expanderInputs);
    }
}

void TestConfiguration::inputMonitoredKeys_data()
{
    QTest::addColumn<uint>("model");
    QTest::addColumn<uint>("keys");
    for (const uint model : knownModels)
        QTest::addRow("%u", model) << model
                                   << (model == 6410 || model == 6420                    ? 6U
                                       : model == 6425 || model == 6720 || model == 6764 ? 2U
                                                                                         : 0U);
}

void TestConfiguration::inputMonitoredKeys()
{
    QFETCH(uint, model);
    QFETCH(uint, keys);

    for (uint number = 0; number <= 15; ++number) {
        TalBench bench(model);
        inputMonitored(bench, number, "true");
        const bool stored = number >= 1 && number <= keys;
        QCOMPARE(inputMonitoring(bench), stored ? allBut(14, 1, number - 1, 2) : Numbers(14, 1));
        QCOMPARE(inputStatuses(bench), Numbers(14, 1));
        QCOMPARE(bench.log.lines(), QStringList());
    }
}

void TestConfiguration::inputMonitoredTexts_data()
{
    QTest::addColumn<QByteArray>("op");
    QTest::addColumn<QByteArray>("text");
    QTest::addColumn<uint>("code");
    const auto row = [](const char *name, const char *op, const char *text, uint code) {
        QTest::newRow(name) << QByteArray(op) << QByteArray(text) << code;
    };
    row("create true", "create", "true", 2);
    row("create false", "create", "false", 1);
    row("replace true", "replace", "true", 2);
    row("replace false", "replace", "false", 1);
    row("other text", "replace", "yes", 1);
    row("other case", "replace", "True", 1);
    row("empty", "replace", "", 1);
    row("delete", "delete", "true", 1);
}

void TestConfiguration::inputMonitoredTexts()
{
    QFETCH(QByteArray, op);
    QFETCH(QByteArray, text);
    QFETCH(uint, code);

    TalBench bench(6425);
    inputMonitored(bench, 1, "true"); // what another key left behind does not matter
    bench.records().controlInput.rows[1].monitored = sentinel;
    inputMonitored(bench, 2, text, op);
    QCOMPARE(bench.records().controlInput.rows[1].monitored, code);
    QCOMPARE(bench.records().controlInput.rows[0].monitored, 2U);
}

void TestConfiguration::inputMonitoredUnexpectedOperation()
{
    TalBench bench(6410);
    inputMonitored(bench, 6, "true", "patch");
    QCOMPARE(inputMonitoring(bench), Numbers(14, 1));
    QCOMPARE(bench.log.lines(),
             QStringList{qs("getControlInputMonitored op: patch rPath: /state/config/gpis/gpi[kid='gpi6']/monitored"
                            " sPath: /state/config/gpis/gpi/monitored kid: gpi6")});
}

void TestConfiguration::powerMonitoredTexts_data()
{
    QTest::addColumn<QByteArray>("op");
    QTest::addColumn<QByteArray>("text");
    QTest::addColumn<uint>("code");
    const auto row = [](const char *name, const char *op, const char *text, uint code) {
        QTest::newRow(name) << QByteArray(op) << QByteArray(text) << code;
    };
    row("create true", "create", "true", 3);
    row("create false", "create", "false", 2);
    row("replace true", "replace", "true", 3);
    row("replace false", "replace", "false", 2);
    row("delete true", "delete", "true", 1);
    row("delete empty", "delete", "", 1);
}

void TestConfiguration::powerMonitoredTexts()
{
    QFETCH(QByteArray, op);
    QFETCH(QByteArray, text);
    QFETCH(uint, code);

    for (const uint model : {6410U, 6420U})
        for (const char *key : {"ac_power", "dc_power"}) {
            TalBench bench(model);
            const uint row = qstrcmp(key, "dc_power") == 0 ? 1 : 0;
            bench.records().power.rows[row].monitored = sentinel;
            powerMonitored(bench, key, text, op);
            QCOMPARE(powerMonitoring(bench), allBut(2, 1, row, code));
            QCOMPARE(bench.records().power.rows[row].liveStatus, 1U);
            QCOMPARE(bench.log.lines(), QStringList());
        }
}

void TestConfiguration::powerMonitoredOtherTextTakesThePreviousValueOfEitherSource()
{
    TalBench bench(6410);
    powerMonitored(bench, "dc_power", "true");
    powerMonitored(bench, "ac_power", "perhaps");
    QCOMPARE(powerMonitoring(bench), Numbers({3, 3}));

    powerMonitored(bench, "ac_power", "false");
    bench.leaf("kvsnmp_power_status", "replace", qs("/state/power_sources/power_source[kid='ac_power']/live"),
               qs("true")); // the live status has a scratch value of its own
    powerMonitored(bench, "dc_power", "");
    QCOMPARE(powerMonitoring(bench), Numbers({2, 2}));
}

void TestConfiguration::powerMonitoredOtherTextFirstOfAllTakesZero()
{
    TalBench bench(6420);
    powerMonitored(bench, "dc_power", "perhaps");
    QCOMPARE(powerMonitoring(bench), Numbers({1, 0}));
}

void TestConfiguration::powerMonitoredIsIgnoredOnOtherModels_data()
{
    QTest::addColumn<uint>("model");
    for (const uint model : knownModels) // 6425, 6720 and 6764 too, although they subscribe
        if (model != 6410 && model != 6420)
            QTest::addRow("%u", model) << model;
}

void TestConfiguration::powerMonitoredIsIgnoredOnOtherModels()
{
    QFETCH(uint, model);

    TalBench bench(model);
    const Numbers before = powerMonitoring(bench);
    for (const char *key : {"ac_power", "dc_power"})
        for (const char *op : {"create", "replace", "delete", "patch"})
            powerMonitored(bench, key, "true", op);
    QCOMPARE(powerMonitoring(bench), before);
    QCOMPARE(bench.log.lines(), QStringList());
}

void TestConfiguration::powerMonitoredUnexpectedOperation()
{
    TalBench bench(6420);
    powerMonitored(bench, "ac_power", "true", "patch");
    QCOMPARE(powerMonitoring(bench), Numbers({1, 1}));
    QCOMPARE(bench.log.lines(),
             QStringList{qs("getPowerMonitoring op: patch"
                            " rPath: /state/config/power_sources/power_source[kid='ac_power']/monitored"
                            " sPath: /state/config/power_sources/power_source/monitored kid: ac_power")});
}

const TestEntry entry("tst_configuration", runTest<TestConfiguration>);
#include "tst_configuration.moc"
