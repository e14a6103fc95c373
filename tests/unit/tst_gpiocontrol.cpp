// The lines of each model, the check cycle over a made-up GPIO tree, and what reaches the records.
#include "support/gpiofolder.h"
#include "support/talbench.h"
#include "support/testprogram.h"

#include "gpio/gpiocontrol.h"

#include <xrcommon/Gpio.h>

namespace {
constexpr int base21 = 400; // where the expanders' lines begin in the tree
constexpr int base22 = 300;

class GpioTree : public GpioFolder {
public:
    GpioTree()
    {
        addChip(base21, "expander-0021");
        addChip(base22, "expander-0022");
    }

    void set(int line, const QByteArray &value) { setValue(line, value + "\n"); }
    void setAll(const QByteArray &value)
    {
        for (const auto &[first, last] :
             {std::pair{84, 85}, {168, 175}, {504, 510}, {base21, base21 + 7}, {base22, base22 + 7}})
            for (int line = first; line <= last; ++line)
                addOutput(line, value + "\n");
    }
};

/// Opens a check that otherwise only the cycle calls.
class OpenGpioControl : public GpioControl {
public:
    using GpioControl::checkRelay;
    using GpioControl::GpioControl;
};

/// The control with its reports recorded: "in ID STATUS", "out ID STATUS", "relay ID STATUS".
class GpioBench {
public:
    explicit GpioBench(uint model, const char *description = ordinaryDescription)
        : tal(model, description), control(nullptr, model, description, &tal.handler)
    {
        note(&GpioControl::signalSetControlInputStatus, "in");
        note(&GpioControl::signalSetControlOutputStatus, "out");
        note(&GpioControl::signalSetRelayStatus, "relay");
        created = tal.log.takeLines();
    }

    void setAllTypes(uint type)
    {
        for (uint id = 0; id < 14; ++id)
            control.slotSetGpioType(id, type);
    }

    QStringList steps(int count)
    {
        reports.clear();
        for (int i = 0; i < count; ++i)
            control.gpioCheckTimeout();
        return reports;
    }

    TalBench tal;
    OpenGpioControl control;
    QStringList created; ///< the lines of the creation
    QStringList reports;

private:
    void note(void (GpioControl::*signal)(uint, uint), const char *kind)
    {
        QObject::connect(&control, signal, &control, [this, kind](uint id, uint status) {
            reports.append(qs("%1 %2 %3").arg(qs(kind), QString::number(id), QString::number(status)));
        });
    }
};

static_assert(gpioLines[0].firstId == 0 && gpioLines[1].firstId == 0 && gpioLines[2].firstId == 6); // not read

using Line = std::pair<int, QString>;

/// In the order in which they are read: each number in the tree, and what its report begins with.
QVector<Line> linesOf(uint model, bool expanders)
{
    QVector<Line> lines;
    const auto add = [&lines](const char *kind, int id, int first, int count = 1) {
        for (int i = 0; i < count; ++i)
            lines << Line(first + i, qs("%1 %2 ").arg(qs(kind)).arg(id + i));
    };
    add("in", 0, model == 6891 ? 504 : 168, 6);
    if (expanders)
        add("in", 6, base22, 8);
    if (model == 6214 || model == 6259) {
        add("relay", 0, 175);
        add("relay", 1, 174);
        add("relay", 2, 84, 2);
    } else {
        add("relay", 0, model == 6891 ? 510 : 174);
    }
    if (expanders)
        add("relay", 4, base21, 8);
    return lines;
}

QStringList words(const char *text)
{
    return qs(text).split(qs(", "));
}
} // namespace

class TestGpioControl : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init() { tree.reset(new GpioTree); }
    void cleanup() { tree.reset(); }

    void eachStepReportsTheNextLine()
    {
        for (const uint model : {6211U, 6214U, 6259U, 6891U})
            for (const char *description : {ordinaryDescription, stationCompact, stationExtended}) {
                const AtRow at(description);
                tree->setAll("0");
                GpioBench bench(model, description);
                bench.setAllTypes(1);
                const QVector<Line> lines = linesOf(model, description != ordinaryDescription);
                for (const Line &line : lines)
                    QCOMPARE(bench.steps(1), QStringList{line.second + qs("2")});
                for (const Line &line : lines) {
                    tree->set(line.first, "1"); // the only one
                    QCOMPARE(bench.steps(lines.size()).filter(QRegularExpression(qs(" 3$"))),
                             QStringList{line.second + qs("3")});
                    tree->set(line.first, "0");
                    QCOMPARE(tree->text(qs("gpio%1/direction").arg(line.first)), QByteArray("out\n")); // as it was
                    QCOMPARE(tree->text(qs("gpio%1/edge").arg(line.first)), QByteArray("none\n"));
                }
                QCOMPARE(tree->text(qs("export")), QByteArray());
            }
    }

    void typesDecideOnTheReport()
    {
        tree->setAll("1");
        GpioBench bench(6214);
        QCOMPARE(bench.steps(10), words("relay 0 3, relay 1 3, relay 2 3, relay 3 3")); // a line without a type: none
        bench.control.slotSetGpioType(0, 1);
        bench.control.slotSetGpioType(1, 2);
        bench.control.slotSetGpioType(2, 3); // not used
        QCOMPARE(bench.steps(6), words("in 0 3, out 1 3, in 2 1, out 2 1"));
    }

    void oneLineIsReadEachSecondFromTheStartOn()
    {
        tree->setAll("0");
        GpioBench bench(6211);
        bench.setAllTypes(1);
        QTest::qWait(1300);
        QCOMPARE(bench.reports, QStringList());
        QElapsedTimer timer;
        timer.start();
        bench.control.slotGpioVerifyStart();
        QTRY_COMPARE_WITH_TIMEOUT(bench.reports, words("in 0 2"), 3000);
        QVERIFY(timer.elapsed() >= 940); // the coarse timer's 5 %
        QTRY_COMPARE_WITH_TIMEOUT(bench.reports, words("in 0 2, in 1 2"), 3000);
        QVERIFY(timer.elapsed() >= 1880);
    }

    void invalidIdsAndTypesAreIgnored()
    {
        tree->setAll("0");
        const auto set = [](const char *description, uint id, uint type) {
            GpioBench bench(6211, description);
            bench.control.slotSetGpioType(0, 1);
            bench.control.slotSetGpioType(id, type);
            const QString line = bench.tal.log.lines().join(QLatin1Char('|'));
            return bench.steps(1) == words("in 0 2") ? line : qs("what was set before does not stay");
        };
        const QString invalidId = qs("slotSetGpioType Invalid gpioId: %1");
        for (const uint id : {14U, 4294967295U})
            for (const uint type : {1U, 4U}) // the id is looked at before the type
                for (const char *description : {ordinaryDescription, stationCompact})
                    QCOMPARE(set(description, id, type), invalidId.arg(id));
        for (const uint id : {6U, 13U}) {
            QCOMPARE(set(ordinaryDescription, id, 1), invalidId.arg(id));
            QCOMPARE(set(stationCompact, id, 1), QString());
            QCOMPARE(set(stationExtended, id, 1), QString());
        }
        QCOMPARE(set(ordinaryDescription, 5, 3), QString());
        for (const uint type : {0U, 4U})
            QCOMPARE(set(ordinaryDescription, 0, type), qs("slotSetGpioType Invalid gpioType: %1").arg(type));
    }

    void relaysThatAreNotThereReportNothing()
    {
        tree->setAll("1");
        GpioBench bench(6211);
        for (uint id = 0; id < 12; ++id)
            bench.control.checkRelay(id);
        QCOMPARE(bench.reports, words("relay 0 3"));
        QCOMPARE(bench.tal.log.lines(), QStringList());
        bench.control.checkRelay(12);
        QCOMPARE(bench.tal.log.lines(), QStringList{qs("Invalid relayId: ")});
        QCOMPARE(bench.reports.size(), 1);
    }

    void reportsReachTheDataServiceClientAndTypesComeBack()
    {
        tree->setAll("1");
        QElapsedTimer timer;
        timer.start();
        GpioBench bench(6214);
        QCOMPARE(bench.created.last(), qs("GpioControl Creating Object"));
        Q_EMIT bench.tal.handler.signalSetGpioType(0, 1);
        QCOMPARE(bench.steps(1), QStringList()); // not connected before its time

        QTRY_COMPARE(bench.tal.log.lines(), QStringList{qs("GpiControl connecting tal slots")});
        QVERIFY(timer.elapsed() >= 20);
        Q_EMIT bench.tal.handler.signalSetGpioType(1, 1);
        Q_EMIT bench.tal.handler.signalSetGpioType(2, 2);
        QCOMPARE(bench.steps(9), words("in 1 3, out 2 3, relay 0 3, relay 1 3, relay 2 3, relay 3 3"));
        const TableRecords &records = bench.tal.records();
        QCOMPARE(records.controlInput.rows[1].status, 3U);
        QCOMPARE(records.controlInput.rows[0].status, 1U);
        QCOMPARE(records.controlOutput.status[2], 3U);
        for (int relay = 0; relay < 4; ++relay)
            QCOMPARE(records.relay.rows[relay].status, 3U);
        QCOMPARE(records.relay.rows[4].status, 1U);
    }

    void statusesByTypeAndValue()
    {
        constexpr uint nothing = 0; // no status at all
        const std::pair<uint, uint> statuses[] = {{0, 2},       {1, 3},         {255, 1},
                                                  {2, nothing}, {254, nothing}, {256, nothing}};
        for (const auto &[value, status] : statuses) {
            QCOMPARE(statusOf(value).value_or(nothing), status);
            const std::pair<uint, uint> expected[] = {// by type, of an input and of an output
                                                      {nothing, nothing},
                                                      {status, nothing},
                                                      {nothing, status},
                                                      {1, 1},
                                                      {nothing, nothing}};
            for (uint type = 0; type < std::size(expected); ++type) {
                const GpioReport report = reportOf(type, value);
                QCOMPARE(report.input.value_or(nothing), expected[type].first);
                QCOMPARE(report.output.value_or(nothing), expected[type].second);
            }
        }
    }

private:
    QScopedPointer<GpioTree> tree;
};

const TestEntry entry("tst_gpiocontrol", runTest<TestGpioControl>);
#include "tst_gpiocontrol.moc"
