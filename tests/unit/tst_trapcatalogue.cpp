// The twenty traps, line by line: number, arc, name and message identifiers.
#include "support/testprogram.h"

#include "device/trapcatalogue.h"

#include <QSet>
#include <QStringList>
#include <QtTest>

class TestTrapCatalogue : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void hasTwentyTraps();
    void trapIs_data();
    void trapIs();
    void arcsAreOneToTwentyEachOnce();
    void thirtyEightIdentifiersEachOfOneTrap();
};

namespace {

QString text(std::string_view view)
{
    return QString::fromLatin1(view.data(), static_cast<int>(view.size()));
}

QStringList identifiers(const Trap &trap)
{
    QStringList list;
    for (const std::string_view id : trap.msgIds)
        list.append(text(id));
    return list;
}

} // namespace

void TestTrapCatalogue::hasTwentyTraps()
{
    QCOMPARE(std::size(trapCatalogue), std::size_t{20});
}

void TestTrapCatalogue::trapIs_data()
{
    QTest::addColumn<uint>("number");
    QTest::addColumn<uint>("arc");
    QTest::addColumn<QString>("name");
    QTest::addColumn<QString>("messages");

    const auto row = [](uint number, uint arc, const char *name, const char *messages) {
        QTest::newRow(name) << number << arc << QString::fromLatin1(name) << QString::fromLatin1(messages);
    };
    row(1, 1, "Cooling Fan Fault", "fan_not_running fan_speed_slow fan_speed_high");
    row(2, 2, "Missing Amplifier Module", "amplifier_module_missing");
    row(3, 3, "PSU Voltage Fault",
        "voltage_limit_high_alert voltage_limit_low_alert voltage_limit_high_warning voltage_limit_low_warning");
    row(4, 4, "Selected Line Voltage Fault", "line_voltage_fault");
    row(5, 5, "LET Fault", "let_fail");
    row(6, 6, "Amplifier Shutdown", "audio_channel_failed");
    row(7, 9, "Amplifier Disabled", "audio_channel_disabled");
    row(8, 7, "Speaker Line Monitoring Fault", "line_uncalibrated slm_com_fail incorrect_slm_version line_fault");
    row(9, 8, "Fuse Broken", "fuse_broken");
    row(10, 11, "RCO Fault", "control_output_active_fail control_output_not_active_fail");
    row(11, 12, "RCI Fault", "control_input_shorted control_input_disconnected");
    row(12, 13, "DC Power Fault", "dc_power_disconnected dc_power_not_monitored");
    row(13, 14, "AC Power Fault", "ac_power_disconnected ac_power_not_monitored");
    row(14, 15, "ETH Port Disconnected", "switch_port_1_down switch_port_2_down switch_port_down");
    row(15, 16, "Microphone Error", "station_mic_status phantom_mic_fail");
    row(16, 17, "Missing EMBDR Module", "expansion_module_missing");
    row(17, 18, "Software Fault", "software_reboot");
    row(18, 19, "Overtemperature", "temp_fan_max_on temp_graceful_degradation_on temp_alarm_high_on temp_warn_on");
    row(19, 20, "Custom Fault", "custom_msg");
    row(20, 10, "Line In Fault", "line_in_disconnected");
}

void TestTrapCatalogue::trapIs()
{
    QFETCH(uint, number);
    QFETCH(uint, arc);
    QFETCH(QString, name);
    QFETCH(QString, messages);

    const Trap &trap = trapCatalogue[number - 1];
    QCOMPARE(trap.number, number);
    QCOMPARE(trap.arc, arc);
    QCOMPARE(text(trap.name), name);
    QCOMPARE(identifiers(trap).join(QLatin1Char(' ')), messages);
}

void TestTrapCatalogue::arcsAreOneToTwentyEachOnce()
{
    QSet<uint> arcs;
    for (const Trap &trap : trapCatalogue)
        arcs.insert(trap.arc);
    for (uint arc = 1; arc <= 20; ++arc)
        QVERIFY2(arcs.contains(arc), QByteArray::number(arc).constData());
    QCOMPARE(arcs.size(), 20);
}

void TestTrapCatalogue::thirtyEightIdentifiersEachOfOneTrap()
{
    QStringList all;
    for (const Trap &trap : trapCatalogue)
        all += identifiers(trap);
    QCOMPARE(all.size(), 38);
    QCOMPARE(all.removeDuplicates(), 0);
}

const TestEntry entry("tst_trapcatalogue", runTest<TestTrapCatalogue>);
#include "tst_trapcatalogue.moc"
