// Sequences of notifications and calls, step by step: effects of several of them, containers with more than one value,
// derived statuses, directions of the GPIO lines.
#include "support/catalogue.h"
#include "support/recordfields.h"
#include "support/talbench.h"
#include "support/testprogram.h"

#include <memory>

namespace {
/// A line "MODEL: NAME" begins a script. A step is "EVENT -> EFFECTS", or "EVENT & EVENT -> EFFECTS of each". Events:
/// "PARSER OP KEY TEXT" changes a leaf, TEXT up to the end; "xml REFERENCE OP PATH DATA" is any notification; "monitor
/// CHANNEL STATUS" and "presence CHANNEL LET STATUS" are calls of the amplifier monitor; "set FIELD VALUE" is the test
/// itself. Effects: the changed fields, sorted, "gpioN:TYPE" for each signal.
const char scripts[] = R"(
6420: several voltages in one notification, the unknown one left out
    xml kvsnmp_voltage replace /state/power_lines <power_lines><power_line><kid>24v0FB</kid><voltage>24.1</voltage></power_line><power_line><kid>other</kid><voltage>9</voltage></power_line><power_line><kid>1v8SW</kid><voltage>1.79</voltage></power_line></power_lines> -> voltage.0=1790 voltage.8=24100
6720: a whole sensor list
    xml kvsnmp_temp create /state/temp_sensors <temp_sensors><temp_sensor><kid>main_board</kid><temp_current>31.0</temp_current><temp_peak>40.1</temp_peak><temp_average>30.9</temp_average></temp_sensor><temp_sensor><kid>class_d</kid><temp_current>50</temp_current></temp_sensor></temp_sensors> -> temp.0.current=500 temp.2.average=309 temp.2.current=310 temp.2.peak=401
6764: a whole sensor, one field of it, and its end
    xml kvsnmp_temp replace /state/temp_sensors/temp_sensor[kid='dcdc_conv'] <temp_sensor><kid>dcdc_conv</kid><temp_current>1.0</temp_current><temp_peak>2.0</temp_peak><temp_average>3.0</temp_average></temp_sensor> -> temp.5.average=30 temp.5.current=10 temp.5.peak=20
    temp_peak replace dcdc_conv 9.5 -> temp.5.peak=95
    xml kvsnmp_temp delete /state/temp_sensors/temp_sensor[kid='dcdc_conv']/temp_average -> temp.5.average=0
    xml kvsnmp_temp delete /state/temp_sensors/temp_sensor[kid='dcdc_conv'] <temp_sensor><kid>dcdc_conv</kid><temp_current>1.0</temp_current><temp_peak>2.0</temp_peak></temp_sensor> -> temp.5.current=0 temp.5.peak=0
6420: a deleted container clears what its data holds
    fan replace amp_power 1450 -> fan.0=1450
    fan replace amp_class_d 1600 -> fan.1=1600
    xml kvsnmp_fan delete /state/fans ->
    xml kvsnmp_fan delete /state/fans <fans><fan><kid>amp_class_d</kid><speed_sensor_rpm>1600</speed_sensor_rpm></fan></fans> -> fan.1=0
6410: both power sources, AC first whatever their order
    xml kvsnmp_power_status replace /state/power_sources <power_sources><power_source><kid>dc_power</kid><live>other</live></power_source><power_source><kid>ac_power</kid><live>true</live></power_source></power_sources> -> power.0.liveStatus=3 power.1.liveStatus=3
6425: a line state copies the last pilot tone of either input
    pilot_tone replace ln2 failed -> lineIn.1.lineInStatus=3
    pilot_tone replace ln1 ok -> lineIn.0.lineInStatus=2
    line_state replace ch2 line_fault -> ampChannel.1.lineState=15 lineIn.1.lineInStatus=2
    pilot_tone replace ln2 failed -> lineIn.1.lineInStatus=3
    line_state replace ch1 ok -> ampChannel.0.lineState=2 lineIn.0.lineInStatus=3
    line_state replace ch1 word -> ampChannel.0.lineState=1
    pilot_tone replace ln1 ok -> lineIn.0.lineInStatus=2
    line_state patch ch2 open ->
    line_state delete ch2 open -> lineIn.1.lineInStatus=2
    xml kvsnmp_line_channel_state delete /state/lines/line[kid='ch1']/characteristics/line_state ->
    pilot_tone delete ln1 ok -> lineIn.0.lineInStatus=1
    xml kvsnmp_line_channel_state delete /state/lines/line[kid='ch2']/characteristics/line_state -> lineIn.1.lineInStatus=1
6720: line states of both channels at once
    xml kvsnmp_line_channel_state replace /state/lines <lines><line><kid>ch2</kid><characteristics><line_state>ok</line_state></characteristics></line><line><kid>ch1</kid><characteristics><line_state>open</line_state></characteristics></line></lines> -> ampChannel.0.lineState=4 ampChannel.1.lineState=2
    set lineIn.0.lineInStatus 9 -> lineIn.0.lineInStatus=9
    line_state create ch1 open -> lineIn.0.lineInStatus=0
6420: other words of the class-D status
    class_d create _ ok ->
    class_d replace _ OK -> ampChannel.0.status=4 ampChannel.1.status=4
    class_d replace _ ok -> ampChannel.0.status=1 ampChannel.1.status=1
    class_d replace _  -> ampChannel.0.status=4 ampChannel.1.status=4
    class_d replace _ ok -> ampChannel.0.status=1 ampChannel.1.status=1
    class_d replace _ ok  -> ampChannel.0.status=4 ampChannel.1.status=4
6720: the class-D status derives both channels in every case
    class_d create _ ok ->
    amp_enable replace ch1 true -> ampChannel.0.ampEnable=2
    amp_enable replace ch2 false -> ampChannel.1.ampEnable=1 ampChannel.1.status=2
    monitor 0 2 -> ampChannel.0.ampMonitorStatus=2 ampChannel.0.status=3
    set ampChannel.0.status 77 -> ampChannel.0.status=77
    set ampChannel.1.status 77 -> ampChannel.1.status=77
    class_d delete _ fault -> ampChannel.0.status=3 ampChannel.1.status=2
    set ampChannel.0.status 77 -> ampChannel.0.status=77
    class_d patch _ fault -> ampChannel.0.status=3
    set ampChannel.1.status 77 -> ampChannel.1.status=77
    xml kvsnmp_class_d_status replace /state/class_d_amp_status <class_d_amp_status/> -> ampChannel.1.status=2
    set ampChannel.1.status 77 -> ampChannel.1.status=77
    xml kvsnmp_class_d_status replace /state/class_d_amp_status <class_d_amp_status><status>fault -> ampChannel.1.status=2
6420: the amplifier monitor's channels and statuses
    monitor 0 0 & monitor 0 3 & monitor 1 4294967295 & monitor 2 1 & monitor 4294967295 1 ->
    monitor 1 2 -> ampChannel.1.ampMonitorStatus=2
    monitor 1 1 -> ampChannel.1.ampMonitorStatus=1
    set ampChannel.1.status 77 -> ampChannel.1.status=77
    monitor 0 3 & monitor 1 0 ->
6214: GPIO types, and 7 to 14 that are always inputs
    gpio_type create 1 gpi -> gpio0:1 +inputs
    gpio_type replace 1 gpo -> gpio0:2 +inputs
    gpio_type replace 2 none -> gpio1:3 +inputs
    gpio_type create 6 GPO -> gpio5:3 +inputs
    gpio_type replace 6 gpi -> gpio5:1 +inputs
    gpio_type delete 3 gpo -> gpio2:3 +inputs
    gpio_type create 3  -> gpio2:3 +inputs
    gpio_type replace 9 gpo & gpio_type create 14 gpo & gpio_type delete 9 gpo & gpio_type replace 0 gpo -> +inputs
    gpio_type replace 15 gpo -> +inputs
    gpio_type patch 1 gpi & gpio_type patch 7 gpi ->
    xml kvsnmp_gpio_type replace /state/config/gpios <gpios/> -> +inputs
    xml kvsnmp_gpio_type create /state/config/gpios <no_xml -> +inputs
6420: GPIO types are walked in order, on every model
    xml kvsnmp_gpio_type create /state/config/gpios <gpios><gpio><kid>gpio10</kid><gpio_type>gpo</gpio_type></gpio><gpio><kid>gpio6</kid><gpio_type>gpo</gpio_type></gpio><gpio><kid>gpio1</kid><gpio_type>gpi</gpio_type></gpio></gpios> -> gpio0:1 gpio5:2 +inputs
6720: a LET's status follows its enable, its presence and, at its next change, its channel
    class_d create _ ok ->
    amp_enable replace ch1 true -> ampChannel.0.ampEnable=2
    monitor 0 2 -> ampChannel.0.ampMonitorStatus=2 ampChannel.0.status=3
    let_enable replace ch1/4 true -> let.0.3.changed.status=1 let.0.3.letEnabled=1 let.0.3.letStatus=3
    presence 0 4 1 -> let.0.3.letPresence=1 let.0.3.letStatus=4
    set let.0.3.changed.status 0 -> let.0.3.changed.status=0
    amp_enable replace ch1 false -> ampChannel.0.ampEnable=1 ampChannel.0.status=2
    monitor 0 1 -> ampChannel.0.ampMonitorStatus=1
    presence 0 4 2 -> let.0.3.changed.status=1 let.0.3.letPresence=2 let.0.3.letStatus=1
    presence 1 4 1 -> let.1.3.changed.status=1 let.1.3.letPresence=1 let.1.3.letStatus=1
    let_enable replace ch2/10 false -> let.1.9.changed.status=1 let.1.9.letEnabled=2 let.1.9.letStatus=1
6420: presence outside its ranges
    presence 2 1 1 & presence 4294967295 1 1 & presence 0 0 1 & presence 1 11 1 & presence 0 4294967295 1 ->
    presence 0 1 0 & presence 1 10 3 & presence 0 1 4294967295 ->
    presence 0 1 2 -> let.0.0.changed.status=1 let.0.0.letPresence=2 let.0.0.letStatus=1
    presence 1 10 1 -> let.1.9.changed.status=1 let.1.9.letPresence=1 let.1.9.letStatus=1
6420: a LET text may get shorter and empty, and stays when it is deleted
    let_description create ch1/5 a longer text -> let.0.4.changed.description=1 let.0.4.description='a longer text'
    let_description replace ch1/5 short -> let.0.4.description='short'
    set let.0.4.changed.description 0 -> let.0.4.changed.description=0
    let_description delete ch1/5 short ->
    xml kvsnmp_let_description delete /state/config/lines/line[kid='ch1']/lets/let[kid='5']/let_description ->
    let_description replace ch1/5  -> let.0.4.changed.description=1 let.0.4.description=''
    let_sw_version create ch2/1 1.0 -> let.1.0.changed.softwareVersion=1 let.1.0.softwareVersion='1.0'
    let_sw_version delete ch2/1 1.0 ->
    let_sw_version replace ch2/1  -> let.1.0.softwareVersion=''
    let_hw_version create ch2/1 B -> let.1.0.changed.hardwareVersion=1 let.1.0.hardwareVersion='B'
    let_hw_version delete ch2/1 B ->
    let_hw_version replace ch2/1  -> let.1.0.hardwareVersion=''
)";

const QStringList expanderInputs =
    qs("gpio6:1 gpio7:1 gpio8:1 gpio9:1 gpio10:1 gpio11:1 gpio12:1 gpio13:1").split(QLatin1Char(' '));

class ScriptBench : public TalBench {
public:
    explicit ScriptBench(uint model) : TalBench(model, stationCompact)
    {
        QObject::connect(&handler, &TalHandler::signalSetGpioType, &handler,
                         [this](uint gpio, uint type) { m_effects << qs("gpio%1:%2").arg(gpio).arg(type); });
    }

    QStringList run(const QString &event)
    {
        m_effects.clear();
        const TableRecords before = records();
        call(event);
        QStringList changed = recordfields::changes(before, records());
        changed.sort();
        return m_effects + changed;
    }

private:
    void call(const QString &event)
    {
        const QStringList words = event.split(QLatin1Char(' '));
        const auto rest = [&](int from) { return event.section(QLatin1Char(' '), from); };
        if (words[0] == qs("monitor"))
            handler.slotAmpChannelStatusUpdate(words[1].toUInt(), words[2].toUInt());
        else if (words[0] == qs("presence"))
            handler.slotLetPrecenseUpdate(words[1].toUInt(), words[2].toUInt(), words[3].toUInt());
        else if (words[0] == qs("set"))
            recordfields::set(records(), words[1], words[2]);
        else if (words[0] == qs("xml"))
            notify(words[1].toLatin1(), words[2].toLatin1(), words[3], rest(4));
        else {
            const catalogue::Row parser = catalogue::rows("parsers", "parser", words[0]).first();
            const QString path = parser.pathOf(QString(words[2]).replace(QLatin1Char('/'), QLatin1Char(' ')));
            leaf(parser.latin1("reference"), words[1].toLatin1(), path, rest(3));
        }
    }

    QStringList m_effects;
};
} // namespace

class TestNotifications : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void steps()
    {
        QString script;
        std::unique_ptr<ScriptBench> bench;
        for (const QString &line : qs(scripts).split(QLatin1Char('\n'), Qt::SkipEmptyParts)) {
            const int arrow = line.indexOf(qs(" ->"));
            if (arrow < 0) {
                script = line;
                bench.reset(); // before the next one: their logs are nested
                bench = std::make_unique<ScriptBench>(line.section(QLatin1Char(':'), 0, 0).toUInt());
                continue;
            }
            QString expected = line.mid(arrow + 3).trimmed();
            expected.replace(qs("+inputs"), expanderInputs.join(QLatin1Char(' ')));
            for (const QString &event : line.mid(4, arrow - 4).split(qs(" & "))) {
                const QString effects = bench->run(event).join(QLatin1Char(' '));
                QVERIFY2(effects == expected, qPrintable(script + qs(", ") + event + qs(" -> ") + effects));
            }
        }
    }

    /// Every state of the class-D amplifier, the channel's enable and its monitor, whichever is reported last.
    void channelStatus()
    {
        const QStringList classD{QString(), qs("class_d replace _ fault"), qs("class_d replace _ ok")};
        const QStringList enable{QString(), qs("amp_enable replace ch%1 false"), qs("amp_enable replace ch%1 true")};
        const QStringList monitor{QString(), qs("monitor %1 1"), qs("monitor %1 2")};
        const char *const statuses[3][3] = {{"111", "111", "111"}, {"444", "444", "444"}, {"111", "222", "153"}};
        for (const uint model : {6420U, 6425U, 6720U, 6764U})
            for (int i = 0; i < 3 * 3 * 3 * 3 * 2; ++i) {
                const int d = i % 3, e = i / 3 % 3, m = i / 9 % 3, last = i / 27 % 3, channel = i / 81;
                const QString events[] = {classD[d], QString(enable[e]).replace(qs("%1"), QString::number(channel + 1)),
                                          QString(monitor[m]).replace(qs("%1"), QString::number(channel))};
                ScriptBench bench(model);
                for (int event = 1; event <= 3; ++event)
                    if (!events[(last + event) % 3].isEmpty())
                        bench.run(events[(last + event) % 3]);
                const auto &rows = bench.records().ampChannel.rows;
                const int knownD = model == 6425 ? 2 : d; // it has no class-D status: always ok
                QCOMPARE(rows[channel].status, uint(statuses[knownD][e][m] - '0'));
                QCOMPARE(rows[1 - channel].status, knownD == 1 ? 4U : 1U);
            }
    }

    /// Every channel status with every enable and presence; the flag is set even if the status stays.
    void letStatus()
    {
        for (const uint channelStatus : {0U, 1U, 2U, 3U, 4U, 5U, 6U, 7U, 4294967295U})
            for (const uint enabled : {0U, 1U, 2U})
                for (const uint presence : {0U, 1U, 2U})
                    for (const uint channel : {0U, 1U}) {
                        ScriptBench bench(6420);
                        for (AmpChannelRow &row : bench.records().ampChannel.rows)
                            row.status = 2;
                        bench.records().ampChannel.rows[channel].status = channelStatus;
                        LetEntry &let = bench.records().let.lets[channel][3];
                        const uint status = channelStatus == 0 || channelStatus > 6 ? 77U // the one before
                                            : channelStatus != 3                    ? 1U
                                            : enabled != 1                          ? 2U
                                            : presence == 1                         ? 4U
                                                                                    : 3U;
                        const auto check = [&](std::uint32_t LetEntry::*other, uint value, const QString &event) {
                            let = {};
                            let.letStatus = 77;
                            let.*other = value;
                            bench.run(event);
                            QCOMPARE(let.letStatus, status);
                            QCOMPARE(let.changed.status, std::uint8_t{1});
                        };
                        const char *enable =
                            enabled == 1 ? "let_enable replace ch%1/4 true" : "let_enable replace ch%1/4 false";
                        if (enabled != 0)
                            check(&LetEntry::letPresence, presence, qs(enable).arg(channel + 1));
                        if (presence != 0)
                            check(&LetEntry::letEnabled, enabled, qs("presence %1 4 %2").arg(channel).arg(presence));
                    }
    }

    void debugLinesInOrder()
    {
        // clang-format off
        static constexpr struct { const char *name; uint model; const char *event, *lines; } rows[] = {
            {"fans of 6764", 6764, "xml kvsnmp_fan create /state/fans <fans><fan><kid>fan1</kid>"
             "<speed_sensor_rpm>1300</speed_sensor_rpm></fan><fan><kid>fan2</kid>"
             "<speed_sensor_rpm>900</speed_sensor_rpm></fan></fans>",
             "stateSnmpAgentFanTableUpdate fanLeft: 900\nstateSnmpAgentFanTableUpdate fanRight: 1300"},
            {"relays", 6259, "xml kvsnmp_relay_delay replace /state/config/gpos <gpos>"
             "<gpo><kid>e_relay3</kid><delay>5</delay></gpo><gpo><kid>e_relay1</kid><delay>4</delay></gpo>"
             "<gpo><kid>relay2</kid><delay>3</delay></gpo><gpo><kid>relay1</kid><delay>2</delay></gpo></gpos>",
             "configRelayDelayUpdate relay1  delay: 2\nconfigRelayDelayUpdate relay2  delay: 3\n"
             "configRelayDelayUpdate e_relay1  delay: 4\nconfigRelayDelayUpdate e_relay1  delay: 4\n"
             "configRelayDelayUpdate e_relay3  delay: 5"},
            {"class-D", 6420, "class_d patch _ ok", "stateClassDStatusUpdate op: patch "
             "rPath: /state/class_d_amp_status/status sPath: /state/class_d_amp_status/status"},
            {"GPIO 14", 6214, "gpio_type patch 14 gpi", "getGpioType op: patch rPath: /state/config/gpios/gpio[kid='gpio14']"
             "/gpio_type sPath: /state/config/gpios/gpio/gpio_type gpio: 14"},
        };
        // clang-format on
        for (const auto &row : rows) {
            const AtRow at(row.name);
            ScriptBench bench(row.model);
            bench.run(qs(row.event));
            QCOMPARE(bench.log.lines().join(QLatin1Char('\n')), qs(row.lines));
        }
        ScriptBench sensor(6764); // one line for each field
        sensor.run(qs("xml kvsnmp_temp patch /state/temp_sensors/temp_sensor[kid='mainboard'] "
                      "<temp_sensor><kid>mainboard</kid><temp_current>1</temp_current><temp_peak>2</temp_peak>"
                      "<temp_average>3</temp_average></temp_sensor>"));
        const QString line = qs("getTemp op: patch rPath: /state/temp_sensors/temp_sensor[kid='mainboard']"
                                " sPath: /state/temp_sensors/temp_sensor");
        QCOMPARE(sensor.log.lines(), QStringList({line, line, line}));
    }

    /// The receiver of the signal may set a status, which the reset then overwrites.
    void gpioTypeResetsItsRowsAfterTheSignal()
    {
        for (int number = 1; number <= 6; ++number)
            for (const char *op : {"create", "replace", "delete"}) {
                ScriptBench bench(6214);
                recordfields::fill(bench.records(), 77);
                QStringList expected;
                QObject::connect(&bench.handler, &TalHandler::signalSetGpioType, &bench.handler, [&](uint gpio) {
                    QCOMPARE(bench.records().controlInput.rows[gpio].status, 77U);
                    QCOMPARE(bench.records().controlInput.rows[gpio].monitored, 77U);
                    expected << qs("controlInput.%1.status=1").arg(gpio) << qs("controlInput.%1.monitored=1").arg(gpio);
                    if (gpio >= 6)
                        return;
                    QCOMPARE(bench.records().controlOutput.status[gpio], 77U);
                    expected << qs("controlOutput.%1=1").arg(gpio);
                });
                const QStringList effects = bench.run(qs("gpio_type %1 %2 gpo").arg(qs(op)).arg(number));
                QCOMPARE(expected.size(), 3 + 8 * 2);
                expected.sort();
                QCOMPARE(effects.mid(9), expected);
            }
    }

    void kidsAreComparedAsNumbers()
    {
        const QStringList same{qs("3"), qs("03"), qs("003"), qs("3.0"), qs("3."), qs(" 3 "), qs("\n3\n")};
        for (const QString &kid : same + qs("|3.5|+3|-3|3e0|0x3|3x|3 3|three|\xd9\xa3").split(QLatin1Char('|'))) {
            const AtRow at(kid.toUtf8());
            ScriptBench bench(6420);
            const QString lets =
                qs("<lets><let><kid>%1</kid><enabled>true</enabled><let_description>d</let_description>"
                   "<hw_version>h</hw_version><sw_version>s</sw_version><let_vcc>24</let_vcc></let></lets>")
                    .arg(kid);
            QStringList changed;
            for (const char *event : {"enable create /state/config", "description create /state/config",
                                      "hw_version create /state", "sw_version create /state", "voltage create /state"})
                changed += bench.run(qs("xml kvsnmp_let_%1/lines/line[kid='ch1']/lets %2").arg(qs(event), lets));
            const char *all = "let.0.2.changed.status=1 let.0.2.letEnabled=1 let.0.2.letStatus=1 "
                              "let.0.2.changed.description=1 let.0.2.description='d' "
                              "let.0.2.changed.hardwareVersion=1 let.0.2.hardwareVersion='h' "
                              "let.0.2.changed.softwareVersion=1 let.0.2.softwareVersion='s' "
                              "let.0.2.changed.voltage=1 let.0.2.letVoltage=24000";
            QCOMPARE(changed.join(QLatin1Char(' ')), qs(same.contains(kid) ? all : ""));
        }
    }

    /// Neither the field behind the buffer nor the next entry is written.
    void letTextsAreBoundedLatin1()
    {
        static constexpr struct {
            const char *parser, *field;
            int capacity;
        } rows[] = {{"let_description", "description", 127},
                    {"let_sw_version", "softwareVersion", 19},
                    {"let_hw_version", "hardwareVersion", 19}};
        for (const auto &row : rows)
            for (const int over : {-1, 0, 1, 2, 1000, 100000}) {
                QString text;
                for (int i = 0; i < row.capacity + over; ++i)
                    text += QChar::fromLatin1(static_cast<char>('a' + i % 26));
                ScriptBench bench(6420);
                QCOMPARE(bench.run(qs("%1 create ch1/10 %2").arg(qs(row.parser), text)),
                         QStringList({qs("let.0.9.changed.%1=1").arg(qs(row.field)),
                                      qs("let.0.9.%1='%2'").arg(qs(row.field), text.left(row.capacity))}));
            }

        ScriptBench bench(6420);
        const auto stored = [&](const char *text) {
            bench.run(qs("let_description create ch1/1 ") + qs(text));
            return QByteArray(bench.records().let.lets[0][0].description);
        };
        QCOMPARE(stored("Gr\xc3\xbc\xc3\x9f & <Saal>"), QByteArray("Gr\xfc\xdf & <Saal>"));
        QCOMPARE(stored(QByteArray("\xc3\xa9").repeated(100)), QByteArray(100, '\xe9')); // one byte each
        QCOMPARE(stored("5 \xe2\x82\xac \xf0\x9f\x94\x8a"), QByteArray("5 ? ??"));       // outside Latin-1
    }
};

const TestEntry entry("tst_notifications", runTest<TestNotifications>);
#include "tst_notifications.moc"
