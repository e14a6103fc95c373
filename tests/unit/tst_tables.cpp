// Every table on every model: rows, columns, types, values, and the numbers of rows.
#include "support/agentbench.h"
#include "support/testprogram.h"

#include "device/boundedtext.h"
#include "device/tablerecords.h"

#include <QtTest>

namespace {
const char *const compact = "Orvane Brisel Compact - IP-QRM-B";
const char *const extended = "Orvane Brisel Extended - IP-QRM-B";
const char *const ordinary = "Orvane Brisel Extended";

struct Expected {
    int index;
    const char *text;
    int source;
};
using ExpectedRows = QVector<Expected>;

// clang-format off
const ExpectedRows noRows;

const ExpectedRows voltages6410 = {
    {1, "Internal voltage 1.2V", 1},   {2, "Internal voltage 1.8V", 2},   {3, "Internal voltage 3.3V", 3},
    {4, "Internal voltage 5.0V", 4},   {5, "Internal voltage 12.7V", 5},  {6, "Internal voltage 15.0V", 6},
    {7, "Internal voltage 24.0V", 7},  {8, "Front Board 24.0V", 8},       {9, "Internal voltage 32.0V", 10},
    {10, "Internal AC Power 24.0V", 12}, {11, "Internal DC Power 24.0V", 14}};
const ExpectedRows voltages6420 = {
    {1, "Network Switch 1.8V", 0},     {2, "Internal voltage 1.8V", 2},   {3, "Internal voltage 3.3V", 3},
    {4, "Internal voltage 5.0V", 4},   {5, "Internal voltage 12.7V", 5},  {6, "Internal voltage 15.0V", 6},
    {7, "Internal voltage 24.0V", 7},  {8, "Front Board 24.0V", 8},       {9, "Internal voltage 50.0V", 9},
    {10, "Internal AC Power 50.0V", 11}, {11, "Internal DC Power 50.0V", 13}, {12, "Amplifier Supply 15.0V", 15},
    {13, "Phantom Microphone 12.0V", 16}};
const ExpectedRows voltages6720 = {
    {1, "Network Switch 1.8V", 0},     {3, "Internal voltage 3.3V", 3},   {4, "Internal voltage 5.0V", 4},
    {5, "Internal voltage 12.7V", 5},  {7, "Internal voltage 24.0V", 7},  {9, "Internal voltage 50.0V", 9},
    {12, "Amplifier Supply 15.0V", 15}, {14, "Low Noise 12.7V", 17}};
const ExpectedRows voltages6425 = {
    {1, "Network Switch 1.8V", 0},     {2, "Internal voltage 1.8V", 2},   {3, "Internal voltage 3.3V", 3},
    {4, "Internal voltage 5.0V", 4},   {6, "Internal voltage 15.0V", 6},  {15, "Internal voltage 24.0V", 18},
    {16, "Internal voltage -24.0V", 19}};

const ExpectedRows temps6410 = {{1, "Main Board 1", 3}, {2, "Main Board 2", 4}, {3, "AC Power", 5}, {4, "DC Power", 6}};
const ExpectedRows temps6420 = {{1, "Channel 1", 0}, {2, "Channel 2", 1}, {3, "Main Board", 2}, {4, "AC Power", 5}, {5, "DC Power", 6}};
const ExpectedRows temps6425 = {{1, "Channel 1", 0}, {2, "Channel 2", 1}, {3, "Main Board", 2}, {5, "DC Power", 6}};
const ExpectedRows temps6720 = {{1, "Channel 1", 0}, {3, "Main Board", 2}};
const ExpectedRows temps6764 = {{1, "Channel 1", 0}, {3, "Main Board", 2}, {4, "AC Power", 5}};

const ExpectedRows leftFan = {{1, "Left Fan", 0}};
const ExpectedRows bothFans = {{1, "Left Fan", 0}, {2, "Right Fan", 1}};

const ExpectedRows acPower = {{1, "ac_power", 0}};
const ExpectedRows dcPower = {{2, "dc_power", 1}};
const ExpectedRows bothPowers = {{1, "ac_power", 0}, {2, "dc_power", 1}};

const ExpectedRows lineInputs = {{1, "Line In 1", 0}, {2, "Line In 2", 1}};
const ExpectedRows microphones = {{3, "Microphone Extern", 0}, {4, "Microphone Intern", 1}};

const ExpectedRows twoChannels = {{1, "Channel 1", 0}, {2, "Channel 2", 1}};
const ExpectedRows brisel = {{1, "Brisel output", 0}};

const ExpectedRows ports = {{1, "Eth 1", 0}, {2, "Eth 2", 1}};

const ExpectedRows inputs6 = {
    {1, "Control Input 1", 0}, {2, "Control Input 2", 1}, {3, "Control Input 3", 2},
    {4, "Control Input 4", 3}, {5, "Control Input 5", 4}, {6, "Control Input 6", 5}};
const ExpectedRows inputs14 = inputs6 + ExpectedRows{
    {7, "External Control Input 1", 6}, {8, "External Control Input 2", 7}, {9, "External Control Input 3", 8},
    {10, "External Control Input 4", 9}, {11, "External Control Input 5", 10}, {12, "External Control Input 6", 11},
    {13, "External Control Input 7", 12}, {14, "External Control Input 8", 13}};

const ExpectedRows relay1 = {{1, "Internal Relay 1", 0}};
const ExpectedRows relays4 = {
    {1, "Internal Relay 1", 0}, {2, "Internal Relay 2", 1}, {3, "Extension Relay 1", 2}, {4, "Extension Relay 2", 3}};
const ExpectedRows externalRelays = {
    {5, "External Relay 1", 4}, {6, "External Relay 2", 5}, {7, "External Relay 3", 6}, {8, "External Relay 4", 7},
    {9, "External Relay 5", 8}, {10, "External Relay 6", 9}, {11, "External Relay 7", 10}, {12, "External Relay 8", 11}};

struct Device {
    uint model;
    const char *text;
    ExpectedRows temps, fans, voltages, powers, lineIns, channels;
    int ampType; // of an agent that was started with amplifier type 9
    bool lets;
    ExpectedRows inputs, ports, relays;
};
const Device devices[] = {
    {6211, ordinary, noRows, noRows, noRows, noRows, noRows, brisel, 2, false, inputs6, noRows, relay1},
    {6211, compact, noRows, noRows, noRows, noRows, noRows, brisel, 2, false, inputs14, noRows, relay1 + externalRelays},
    {6211, extended, noRows, noRows, noRows, noRows, noRows, brisel, 2, false, inputs14, noRows, relay1 + externalRelays},
    {6214, ordinary, noRows, noRows, noRows, noRows, microphones, brisel, 2, false, inputs6, ports, relays4},
    {6214, compact, noRows, noRows, noRows, noRows, microphones, brisel, 2, false, inputs14, ports, relays4 + externalRelays},
    {6214, extended, noRows, noRows, noRows, noRows, microphones, brisel, 2, false, inputs14, ports, relays4 + externalRelays},
    {6259, ordinary, noRows, noRows, noRows, noRows, microphones, brisel, 2, false, inputs6, ports, relays4},
    {6259, compact, noRows, noRows, noRows, noRows, microphones, brisel, 2, false, inputs14, ports, relays4 + externalRelays},
    {6259, extended, noRows, noRows, noRows, noRows, microphones, brisel, 2, false, inputs14, ports, relays4 + externalRelays},
    {6410, ordinary, temps6410, leftFan, voltages6410, bothPowers, lineInputs, noRows, 1, false, inputs6, ports, noRows},
    {6410, compact, temps6410, leftFan, voltages6410, bothPowers, lineInputs, noRows, 1, false, inputs14, ports, noRows},
    {6420, ordinary, temps6420, bothFans, voltages6420, bothPowers, lineInputs, twoChannels, 9, true, inputs6, ports, noRows},
    {6425, ordinary, temps6425, noRows, voltages6425, dcPower, lineInputs, twoChannels, 9, false, inputs6, ports, noRows},
    {6601, ordinary, noRows, noRows, noRows, noRows, microphones, brisel, 2, false, inputs6, ports, noRows},
    {6602, ordinary, noRows, noRows, noRows, noRows, microphones, brisel, 2, false, inputs6, ports, noRows},
    {6720, ordinary, temps6720, leftFan, voltages6720, acPower, noRows, twoChannels, 9, true, inputs6, ports, noRows},
    {6764, ordinary, temps6764, bothFans, voltages6720, acPower, noRows, twoChannels, 9, true, inputs6, ports, noRows},
    {6891, ordinary, noRows, noRows, noRows, noRows, noRows, brisel, 2, false, inputs6, noRows, relay1},
    {6891, compact, noRows, noRows, noRows, noRows, noRows, brisel, 2, false, inputs14, noRows, relay1 + externalRelays},
    {6891, extended, noRows, noRows, noRows, noRows, noRows, brisel, 2, false, inputs14, noRows, relay1 + externalRelays},
    {6913, ordinary, noRows, noRows, noRows, noRows, noRows, noRows, 1, false, inputs6, ports, noRows},
    {6914, ordinary, noRows, noRows, noRows, noRows, noRows, noRows, 1, false, inputs6, ports, noRows},
};
// clang-format on

QString integer(qint64 value)
{
    return QStringLiteral("INTEGER %1").arg(value);
}

QString gauge(qint64 value)
{
    return QStringLiteral("Gauge32 %1").arg(value);
}

QString text(const QString &value)
{
    return QLatin1String("STRING ") + value;
}

QString text(const char *value)
{
    return text(QString::fromLatin1(value));
}

/// A table as a walk returns it: column by column, and in each the rows.
QStringList table(const QString &object, const ExpectedRows &rows,
                  const std::function<QStringList(const Expected &)> &cells)
{
    QStringList lines;
    const int columns = rows.isEmpty() ? 0 : cells(rows.first()).size();
    for (int column = 1; column <= columns; ++column) {
        for (const Expected &row : rows)
            lines.append(
                QStringLiteral("%1.1.%2.%3 %4").arg(object).arg(column).arg(row.index).arg(cells(row)[column - 1]));
    }
    return lines;
}

QString scalar(const char *object, const QString &value)
{
    return QStringLiteral("%1.0 %2").arg(QLatin1String(object), value);
}

QStringList expectedWalk(const Device &device)
{
    const bool channelData = device.ampType == 9; // the single-output models have none and keep 1 and 1
    QStringList walk;
    walk << scalar("3.1.1", text("pkg")) << scalar("3.1.2", text("type")) << scalar("3.1.3", integer(device.model))
         << scalar("3.1.4", text("amp")) << scalar("3.1.5", text("krn")) << scalar("3.1.6", text("dt"))
         << scalar("3.1.7", integer(2));
    walk << scalar("3.2.1", integer(device.temps.size()))
         << table(QStringLiteral("3.2.2"), device.temps, [](const Expected &row) {
                return QStringList{
                    integer(row.index),          text(QLatin1String("Temperature Sensor: ") + QLatin1String(row.text)),
                    text("Current Temperature"), gauge(2000 + row.source),
                    text("Peak Temperature"),    gauge(2100 + row.source),
                    text("Average Temperature"), gauge(2200 + row.source)};
            });
    walk << scalar("3.3.1", integer(device.fans.size()))
         << table(QStringLiteral("3.3.2"), device.fans, [](const Expected &row) {
                return QStringList{integer(row.index), text(row.text), gauge(3000 + row.source)};
            });
    walk << scalar("3.4.1", integer(device.voltages.size()))
         << table(QStringLiteral("3.4.2"), device.voltages, [](const Expected &row) {
                return QStringList{integer(row.index), text(row.text), gauge(1000 + row.source)};
            });
    walk << table(QStringLiteral("3.5.1"), device.powers, [](const Expected &row) {
        return QStringList{integer(row.index), integer(row.source + 1), text(row.text), integer(800 + row.source),
                           integer(900 + row.source)};
    });
    walk << table(QStringLiteral("3.6.1"), device.lineIns, [](const Expected &row) {
        return QStringList{integer(row.index), integer(400 + row.source), integer(500 + row.source), text(row.text),
                           integer(600 + row.source)};
    });
    walk << scalar("3.7.1", integer(device.channels.size())) << scalar("3.7.2", integer(device.ampType))
         << table(QStringLiteral("3.7.3"), device.channels, [channelData](const Expected &row) {
                return QStringList{integer(row.index), text(row.text), integer(channelData ? 40 + row.source : 1),
                                   integer(channelData ? 50 + row.source : 1)};
            });
    for (int channel = 0; channel < 2; ++channel) {
        const QString arc = QStringLiteral("3.8.%1").arg(channel + 1);
        ExpectedRows lets;
        for (int let = 0; device.lets && let < 10; ++let)
            lets.append({let + 1, "", let});
        walk << QStringLiteral("%1.1.0 %2").arg(arc, integer(lets.size()))
             << table(arc + QLatin1String(".2"), lets, [channel](const Expected &row) {
                    return QStringList{integer(row.index),
                                       text(QStringLiteral("LET %1 Channel %2").arg(row.index).arg(channel + 1)),
                                       integer(100 * channel + row.source),
                                       text(QStringLiteral("sw %1.%2").arg(channel).arg(row.source)),
                                       text(QStringLiteral("hw %1.%2").arg(channel).arg(row.source)),
                                       gauge(7000 + 100 * channel + row.source)};
                });
    }
    walk << scalar("3.9.1", integer(device.inputs.size()))
         << table(QStringLiteral("3.9.2"), device.inputs, [](const Expected &row) {
                return QStringList{integer(row.index), text(row.text), integer(200 + row.source),
                                   integer(300 + row.source)};
            });
    ExpectedRows outputs;
    const char *const outputTexts[] = {"Control Output 1", "Control Output 2", "Control Output 3",
                                       "Control Output 4", "Control Output 5", "Control Output 6"};
    for (int output = 0; output < 6; ++output)
        outputs.append({output + 1, outputTexts[output], output});
    walk << scalar("3.10.1", integer(6)) << table(QStringLiteral("3.10.2"), outputs, [](const Expected &row) {
        return QStringList{integer(row.index), text(row.text), integer(100 + row.source)};
    });
    walk << table(QStringLiteral("3.11.1"), device.ports, [](const Expected &row) {
        return QStringList{integer(row.index), text(row.text), integer(700 + row.source)};
    });
    walk << table(QStringLiteral("3.12.1"), device.relays, [](const Expected &row) {
        return QStringList{integer(row.index), text(row.text), integer(20 + row.source), integer(60 + row.source),
                           integer(5000 + row.source)};
    });
    return walk;
}

template <std::size_t size>
void fill(char (&field)[size], std::uint32_t &length, const char *value)
{
    length = copyBounded(field, value);
}

InfoData tellingInfo(uint model)
{
    InfoData info = {};
    fill(info.packageVersion.text, info.packageVersion.length, "pkg");
    fill(info.modelType.text, info.modelType.length, "type");
    info.modelNumber = {static_cast<std::int32_t>(model), 4};
    fill(info.amplifierType.text, info.amplifierType.length, "amp");
    fill(info.kernelVersion.text, info.kernelVersion.length, "krn");
    fill(info.deviceTreeVersion.text, info.deviceTreeVersion.length, "dt");
    return info;
}

/// What a started agent of the device answers, in a process of its own.
QStringList answersOf(const Device &device, const std::function<QStringList()> &questions)
{
    return printedInOwnProcess([&] {
        static TableRecords records = tellingRecords();
        static InfoData info = tellingInfo(device.model);
        QStringList answers;
        {
            StandardOutput progress; // not looked at here
            kaAgentStart(device.model, 9, device.text);
            handOver(records);
            kvAgent->infoData = &info;
            initInfoScalars();
            answers = questions();
        }
        for (const QString &answer : qAsConst(answers))
            std::puts(qPrintable(answer));
    });
}
} // namespace

class TestTables : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void everyObjectOfEveryModel_data();
    void everyObjectOfEveryModel();
    void bulkWalksAreTheSameWalk_data() { everyObjectOfEveryModel_data(); }
    void bulkWalksAreTheSameWalk();
    void rowsStartWithTheirStartingValues_data();
    void rowsStartWithTheirStartingValues();
    void nothingIsServedOnAnUnknownModel();
    void lettersOfADescriptionMatter();
};

void TestTables::everyObjectOfEveryModel_data()
{
    QTest::addColumn<int>("place");
    for (int place = 0; place < int(std::size(devices)); ++place)
        QTest::addRow("%u %s", devices[place].model, devices[place].text) << place;
}

void TestTables::everyObjectOfEveryModel()
{
    QFETCH(int, place);
    const QStringList walk = answersOf(devices[place], [] { return snmpWalk(QStringLiteral("3")); });
    const QStringList expected = expectedWalk(devices[place]);
    for (int line = 0; line < qMin(walk.size(), expected.size()); ++line)
        QCOMPARE(walk[line], expected[line]);
    QCOMPARE(walk.size(), expected.size());
}

void TestTables::bulkWalksAreTheSameWalk()
{
    QFETCH(int, place);
    const QStringList expected = expectedWalk(devices[place]);
    for (const int repetitions : {1, 10, 25, 50}) {
        const QStringList walk =
            answersOf(devices[place], [repetitions] { return snmpWalk(QStringLiteral("3"), repetitions); });
        QCOMPARE(walk, expected);
    }
}

void TestTables::rowsStartWithTheirStartingValues_data()
{
    QTest::addColumn<uint>("model");
    QTest::addColumn<QString>("object");
    QTest::addColumn<QString>("answer");
    const auto add = [](uint model, const char *object, const char *answer) {
        QTest::addRow("%u %s", model, object) << model << QString::fromLatin1(object) << QString::fromLatin1(answer);
    };
    add(6420, "3.4.2.1.3.1", "Gauge32 0");
    add(6420, "3.2.2.1.4.1", "Gauge32 0");
    add(6420, "3.2.2.1.6.1", "Gauge32 0");
    add(6420, "3.2.2.1.8.1", "Gauge32 0");
    add(6420, "3.3.2.1.3.2", "Gauge32 0");
    add(6420, "3.7.3.1.3.2", "INTEGER 1");
    add(6420, "3.7.3.1.4.2", "INTEGER 1");
    add(6211, "3.7.3.1.3.1", "INTEGER 1");
    add(6420, "3.8.1.2.1.3.10", "INTEGER 1");
    add(6420, "3.8.1.2.1.4.10", "STRING Unknown");
    add(6420, "3.8.2.2.1.5.1", "STRING Unknown");
    add(6420, "3.8.2.2.1.6.1", "Gauge32 0");
    add(6420, "3.9.2.1.3.6", "INTEGER 1");
    add(6420, "3.9.2.1.4.6", "INTEGER 1");
    add(6420, "3.10.2.1.3.6", "INTEGER 1");
    add(6420, "3.11.1.1.3.2", "INTEGER 1");
    add(6420, "3.5.1.1.4.1", "INTEGER 1");
    add(6420, "3.5.1.1.5.2", "INTEGER 1");
    add(6410, "3.6.1.1.2.1", "INTEGER 0");
    add(6410, "3.6.1.1.3.2", "INTEGER 0");
    add(6214, "3.6.1.1.5.4", "INTEGER 1");
    add(6214, "3.12.1.1.3.4", "INTEGER 1");
    add(6214, "3.12.1.1.4.4", "INTEGER 1");
    add(6214, "3.12.1.1.5.4", "INTEGER 0");
}

void TestTables::rowsStartWithTheirStartingValues()
{
    QFETCH(uint, model);
    QFETCH(QString, object);
    QFETCH(QString, answer);
    const QStringList lines = printedInOwnProcess([&] {
        kaAgentStart(model, 1, ordinary); // no record is handed over: every load fails, the rows answer as they are
        std::puts(qPrintable(snmpGet({object}).join(QLatin1Char('|'))));
    });
    QCOMPARE(lines.last(), object + QLatin1Char(' ') + answer);
}

void TestTables::nothingIsServedOnAnUnknownModel()
{
    Device unknown = devices[9];
    unknown.model = 6412;
    QCOMPARE(answersOf(unknown, [] { return snmpWalk(QStringLiteral("3")); }), QStringList());
}

void TestTables::lettersOfADescriptionMatter()
{
    Device device = devices[0];
    device.text = "orvane Brisel Compact - IP-QRM-B";
    QCOMPARE(answersOf(device, [] { return snmpGet({QStringLiteral("3.9.1.0")}); }),
             QStringList{QStringLiteral("3.9.1.0 INTEGER 6")});
    device.text = "Orvane Brisel Compact - IP-QRM-B ";
    QCOMPARE(answersOf(device, [] { return snmpGet({QStringLiteral("3.9.1.0")}); }),
             QStringList{QStringLiteral("3.9.1.0 INTEGER 6")});
    device.text = nullptr;
    QCOMPARE(answersOf(device, [] { return snmpGet({QStringLiteral("3.9.1.0")}); }),
             QStringList{QStringLiteral("3.9.1.0 INTEGER 6")});
}

const TestEntry entry("tst_tables", runTest<TestTables>);
#include "tst_tables.moc"
