// The check cycle over a made-up GPIO tree, and what reaches the data-service client's records.
#include "support/gpiofolder.h"
#include "support/talbench.h"
#include "support/testprogram.h"

#include "gpio/gpiocontrol.h"

#include <xrcommon/Gpio.h>

#include <QElapsedTimer>
#include <QTest>

namespace {

constexpr int base21 = 400; // where the expanders' lines begin in the tree
constexpr int base22 = 300;

/// With both expanders; lines are made by setting them.
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
                set(line, value);
    }
};

/// The two checks that only the cycle calls otherwise.
class OpenGpioControl : public GpioControl {
public:
    using GpioControl::checkRelay;
    using GpioControl::GpioControl;
};

/// The control with its reports written down: "in ID STATUS", "out ID STATUS", "relay ID STATUS".
class GpioBench {
public:
    explicit GpioBench(uint model, const char *description = ordinaryDescription)
        : tal(model, description), control(nullptr, model, description, &tal.handler)
    {
        note(&GpioControl::signalSetControlInputStatus, "in");
        note(&GpioControl::signalSetControlOutputStatus, "out");
        note(&GpioControl::signalSetRelayStatus, "relay");
        tal.log.takeLines();
    }

    QStringList step()
    {
        reports.clear();
        control.gpioCheckTimeout();
        return reports;
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
    QStringList reports;

private:
    void note(void (GpioControl::*signal)(uint, uint), const char *kind)
    {
        QObject::connect(&control, signal, &control, [this, kind](uint id, uint status) {
            reports.append(qs("%1 %2 %3").arg(qs(kind), QString::number(id), QString::number(status)));
        });
    }
};

using LineIds = QList<QPair<int, QByteArray>>; ///< a line as numbered in the tree, and the id it is reported under

QStringList words(const char *text)
{
    return qs(text).split(qs(", "));
}

} // namespace

Q_DECLARE_METATYPE(LineIds)

class TestGpioControl : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init() { tree.reset(new GpioTree); }
    void cleanup() { tree.reset(); }

    void logsItsCreationAndConnection()
    {
        const MessageLog log;
        TalHandler tal(nullptr, 6211, ordinaryDescription);
        const auto known = log.lines().size();
        const GpioControl control(nullptr, 6211, ordinaryDescription, &tal);
        QCOMPARE(log.lines().mid(known), QStringList{qs("GpioControl Creating Object")});
        QElapsedTimer timer;
        timer.start();
        QTRY_COMPARE(log.lines().size(), known + 2);
        QCOMPARE(log.lines().last(), qs("GpiControl connecting tal slots"));
        QVERIFY(timer.elapsed() >= 20); // after a while, not at once
    }

    void cycle_data()
    {
        QTest::addColumn<uint>("model");
        QTest::addColumn<QByteArray>("description");
        QTest::addColumn<int>("checks");
        QTest::addColumn<QStringList>("reports");

        const QStringList gpios = words("in 0 2, in 1 2, in 2 2, in 3 2, in 4 2, in 5 2");
        const QStringList expanderGpios = words("in 6 2, in 7 2, in 8 2, in 9 2, in 10 2, in 11 2, in 12 2, in 13 2");
        const QStringList oneRelay = words("relay 0 2");
        const QStringList fourRelays = words("relay 0 2, relay 1 2, relay 2 2, relay 3 2");
        const QStringList expanderRelays =
            words("relay 4 2, relay 5 2, relay 6 2, relay 7 2, relay 8 2, relay 9 2, relay 10 2, relay 11 2");
        for (const uint model : {6211U, 6214U, 6259U, 6891U}) {
            const bool four = model == 6214 || model == 6259;
            const QStringList relays = four ? fourRelays : oneRelay;
            QTest::addRow("%u ordinary", model)
                << model << QByteArray(ordinaryDescription) << (four ? 10 : 7) << gpios + relays;
            for (const char *station : {stationCompact, stationExtended})
                QTest::addRow("%u %s", model, station) << model << QByteArray(station) << (four ? 26 : 23)
                                                       << gpios + expanderGpios + relays + expanderRelays;
        }
    }

    void cycle()
    {
        QFETCH(uint, model);
        QFETCH(QByteArray, description);
        QFETCH(int, checks);
        QFETCH(QStringList, reports);
        tree->setAll("0");
        GpioBench bench(model, description.constData());
        for (uint id = 0; id < 14; ++id)
            bench.control.slotSetGpioType(id, 1);

        QStringList whole;
        for (int check = 0; check < checks; ++check) {
            const QStringList step = bench.step();
            QCOMPARE(step.size(), 1); // exactly one check in each step
            whole += step;
        }
        QCOMPARE(whole, reports);
        QCOMPARE(bench.steps(2 * checks), reports + reports); // and again from the first
    }

    void eachIdReadsItsOwnLine_data()
    {
        QTest::addColumn<uint>("model");
        QTest::addColumn<QByteArray>("description");
        QTest::addColumn<LineIds>("lines");
        const LineIds gpios = {{168, "in 0"}, {169, "in 1"}, {170, "in 2"},
                               {171, "in 3"}, {172, "in 4"}, {173, "in 5"}};
        const LineIds gpios6891 = {{504, "in 0"}, {505, "in 1"}, {506, "in 2"},
                                   {507, "in 3"}, {508, "in 4"}, {509, "in 5"}};
        const LineIds fourRelays = {{175, "relay 0"}, {174, "relay 1"}, {84, "relay 2"}, {85, "relay 3"}};
        LineIds expanders;
        for (int i = 0; i < 8; ++i) {
            expanders.append({base22 + i, "in " + QByteArray::number(6 + i)});
            expanders.append({base21 + i, "relay " + QByteArray::number(4 + i)});
        }
        QTest::newRow("6211") << 6211U << QByteArray(ordinaryDescription) << gpios + LineIds{{174, "relay 0"}};
        QTest::newRow("6214") << 6214U << QByteArray(ordinaryDescription) << gpios + fourRelays;
        QTest::newRow("6259") << 6259U << QByteArray(ordinaryDescription) << gpios + fourRelays;
        QTest::newRow("6891") << 6891U << QByteArray(ordinaryDescription) << gpios6891 + LineIds{{510, "relay 0"}};
        QTest::newRow("6214 compact") << 6214U << QByteArray(stationCompact) << gpios + fourRelays + expanders;
        QTest::newRow("6891 extended") << 6891U << QByteArray(stationExtended)
                                       << gpios6891 + LineIds{{510, "relay 0"}} + expanders;
    }

    void eachIdReadsItsOwnLine()
    {
        QFETCH(uint, model);
        QFETCH(QByteArray, description);
        QFETCH(LineIds, lines);
        tree->setAll("0");
        GpioBench bench(model, description.constData());
        for (uint id = 0; id < 14; ++id)
            bench.control.slotSetGpioType(id, 1);
        for (const auto &[line, id] : lines) {
            tree->set(line, "1"); // the only one
            const QStringList ones = bench.steps(static_cast<int>(lines.size())).filter(QRegularExpression(qs(" 3$")));
            QCOMPARE(ones, QStringList{qs(id.constData()) + qs(" 3")});
            tree->set(line, "0");
        }
    }

    void statusByTypeAndValue_data()
    {
        QTest::addColumn<uint>("type");
        QTest::addColumn<QByteArray>("value");
        QTest::addColumn<QStringList>("reports");
        const QStringList none;
        QTest::newRow("not configured, 0") << 0U << QByteArray("0") << none;
        QTest::newRow("not configured, 1") << 0U << QByteArray("1") << none;
        QTest::newRow("not configured, unreadable") << 0U << QByteArray("x") << none;
        QTest::newRow("input, 0") << 1U << QByteArray("0") << words("in 0 2");
        QTest::newRow("input, 1") << 1U << QByteArray("1") << words("in 0 3");
        QTest::newRow("input, unreadable") << 1U << QByteArray("x") << words("in 0 1");
        QTest::newRow("output, 0") << 2U << QByteArray("0") << words("out 0 2");
        QTest::newRow("output, 1") << 2U << QByteArray("1") << words("out 0 3");
        QTest::newRow("output, unreadable") << 2U << QByteArray("x") << words("out 0 1");
        QTest::newRow("not used reports unknown on both, 0") << 3U << QByteArray("0") << words("in 0 1, out 0 1");
        QTest::newRow("not used reports unknown on both, 1") << 3U << QByteArray("1") << words("in 0 1, out 0 1");
        QTest::newRow("not used reports unknown on both, unreadable")
            << 3U << QByteArray("x") << words("in 0 1, out 0 1");
    }

    void statusByTypeAndValue()
    {
        QFETCH(uint, type);
        QFETCH(QByteArray, value);
        tree->set(168, value);
        GpioBench bench(6211);
        if (type != 0)
            bench.control.slotSetGpioType(0, type);
        QTEST(bench.step(), "reports");
    }

    void relayStatusByValue_data()
    {
        QTest::addColumn<QByteArray>("value");
        QTest::addColumn<QString>("report");
        QTest::newRow("0") << QByteArray("0") << qs("relay 0 2");
        QTest::newRow("1") << QByteArray("1") << qs("relay 0 3");
        QTest::newRow("unreadable") << QByteArray("") << qs("relay 0 1");
    }

    void relayStatusByValue()
    {
        QFETCH(QByteArray, value);
        QFETCH(QString, report);
        tree->set(174, value);
        GpioBench bench(6211);
        QCOMPARE(bench.steps(7), QStringList{report}); // without any type: relays have none
    }

    void nothingIsReportedForALineWithoutAType()
    {
        tree->setAll("1");
        GpioBench bench(6214);
        QCOMPARE(bench.steps(6), QStringList());
        QCOMPARE(bench.steps(4), words("relay 0 3, relay 1 3, relay 2 3, relay 3 3"));
    }

    void nothingIsReadBeforeTheStart()
    {
        // A read of a line that is not there asks for its export, so an untouched export file means that none was read.
        GpioBench bench(6211);
        QTest::qWait(1300);
        QCOMPARE(tree->text(qs("export")), QByteArray());
        QCOMPARE(bench.reports, QStringList());

        bench.control.slotGpioVerifyStart();
        QTRY_COMPARE(tree->text(qs("export")), QByteArray("168"));
    }

    void oneLineIsReadEachSecond()
    {
        tree->setAll("0");
        GpioBench bench(6211);
        for (uint id = 0; id < 6; ++id)
            bench.control.slotSetGpioType(id, 1);
        QElapsedTimer timer;
        timer.start();
        bench.control.slotGpioVerifyStart();
        QTRY_COMPARE_WITH_TIMEOUT(bench.reports, words("in 0 2"), 3000);
        QVERIFY(timer.elapsed() >= 940); // the coarse timer's 5 %
        QTRY_COMPARE_WITH_TIMEOUT(bench.reports, words("in 0 2, in 1 2"), 3000);
        QVERIFY(timer.elapsed() >= 1880);
    }

    void invalidIdsAndTypesAreIgnored_data()
    {
        QTest::addColumn<QByteArray>("description");
        QTest::addColumn<uint>("id");
        QTest::addColumn<uint>("type");
        QTest::addColumn<QString>("line"); // empty: accepted
        const auto row = [](const char *name, const char *description, uint id, uint type, const QString &line) {
            QTest::newRow(name) << QByteArray(description) << id << type << line;
        };
        row("id 14", stationCompact, 14, 1, qs("slotSetGpioType Invalid gpioId: 14"));
        row("id 14, ordinary", ordinaryDescription, 14, 1, qs("slotSetGpioType Invalid gpioId: 14"));
        row("largest id", stationCompact, 4294967295U, 1, qs("slotSetGpioType Invalid gpioId: 4294967295"));
        row("id before type", stationCompact, 14, 4, qs("slotSetGpioType Invalid gpioId: 14"));
        row("id 13 with expanders", stationCompact, 13, 1, {});
        row("id 6 with expanders", stationExtended, 6, 1, {});
        row("id 6 without expanders", ordinaryDescription, 6, 1, qs("slotSetGpioType Invalid gpioId: 6"));
        row("id 13 without expanders", ordinaryDescription, 13, 1, qs("slotSetGpioType Invalid gpioId: 13"));
        row("id 5", ordinaryDescription, 5, 3, {});
        row("type 4", ordinaryDescription, 0, 4, qs("slotSetGpioType Invalid gpioType: 4"));
        row("type 0", ordinaryDescription, 0, 0, qs("slotSetGpioType Invalid gpioType: 0"));
    }

    void invalidIdsAndTypesAreIgnored()
    {
        QFETCH(QByteArray, description);
        QFETCH(uint, id);
        QFETCH(uint, type);
        QFETCH(QString, line);
        tree->setAll("0");
        GpioBench bench(6211, description.constData());
        bench.control.slotSetGpioType(0, 1);
        bench.control.slotSetGpioType(id, type);
        QCOMPARE(bench.tal.log.lines(), line.isEmpty() ? QStringList() : QStringList{line});
        QCOMPARE(bench.step(), words("in 0 2")); // what was set before stays
    }

    void invalidRelayIdIsLogged()
    {
        GpioBench bench(6211);
        bench.control.checkRelay(12);
        QCOMPARE(bench.tal.log.lines(), QStringList{qs("Invalid relayId: ")});
        QCOMPARE(bench.reports, QStringList());
    }

    void stationRelaysThatAreNotThereReportNothing()
    {
        tree->setAll("1");
        GpioBench bench(6211);
        for (uint id = 1; id < 12; ++id)
            bench.control.checkRelay(id);
        QCOMPARE(bench.reports, QStringList());
        QCOMPARE(bench.tal.log.lines(), QStringList());
        bench.control.checkRelay(0);
        QCOMPARE(bench.reports, words("relay 0 3"));
    }

    void reportsReachTheDataServiceClientAndTypesComeBack()
    {
        tree->setAll("1");
        GpioBench bench(6214);
        Q_EMIT bench.tal.handler.signalSetGpioType(0, 1);
        QCOMPARE(bench.step(), QStringList()); // not connected before its time

        QTRY_COMPARE(bench.tal.log.lines(), QStringList{qs("GpiControl connecting tal slots")});
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

    void lineThatGoesAndComesBackIsReportedAsUnknownMeanwhile()
    {
        tree->setAll("1");
        GpioBench bench(6211);
        bench.control.slotSetGpioType(0, 1);
        QCOMPARE(bench.step(), words("in 0 3"));
        bench.steps(6);
        tree->remove(qs("gpio168"));
        QCOMPARE(bench.step(), words("in 0 1"));
        bench.steps(6);
        tree->set(168, "1");
        QCOMPARE(bench.step(), words("in 0 3"));
    }

    void readingNeverTouchesDirectionOrEdge()
    {
        const int lines[] = {168, 173, 84, 85, 174, 175, base21, base21 + 7, base22, base22 + 7};
        tree->setAll("1");
        for (const int line : lines)
            tree->addOutput(line, "1\n");
        GpioBench bench(6259, stationExtended);
        bench.steps(52);
        for (const int line : lines) {
            QCOMPARE(tree->text(qs("gpio%1/direction").arg(line)), QByteArray("out\n"));
            QCOMPARE(tree->text(qs("gpio%1/edge").arg(line)), QByteArray("none\n"));
            QCOMPARE(tree->text(qs("gpio%1/value").arg(line)), QByteArray("1\n"));
        }
        QCOMPARE(tree->text(qs("export")), QByteArray());
    }

private:
    QScopedPointer<GpioTree> tree;
};

const TestEntry entry("tst_gpiocontrol", runTest<TestGpioControl>);

#include "tst_gpiocontrol.moc"
