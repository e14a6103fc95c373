// The GPIO lines of each model, the step table, and what a value of a line stands for.
#include "support/testprogram.h"

#include "gpio/gpiolines.h"

#include <QObject>
#include <QTest>

#include <vector>

namespace {

const char *const compact = "Orvane Brisel Compact - IP-QRM-B";
const char *const extended = "Orvane Brisel Extended - IP-QRM-B";
const char *const ordinary = "Orvane Brisel";

constexpr uint nothing = 0; // no status at all

uint orNothing(std::optional<std::uint32_t> status)
{
    return status.value_or(nothing);
}

} // namespace

class TestGpioLines : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void nextStepOfEachStep_data()
    {
        // The step table with its four kinds of device, written out.
        struct Row {
            uint step;
            uint oneRelay, fourRelays, oneRelayExpanders, fourRelaysExpanders;
        };
        // clang-format off
        const Row rows[] = {
            { 0,  1,  1,  1,  1}, { 1,  2,  2,  2,  2}, { 2,  3,  3,  3,  3}, { 3,  4,  4,  4,  4}, { 4,  5,  5,  5,  5},
            { 5, 14, 14,  6,  6},
            { 6,  7,  7,  7,  7}, { 7,  8,  8,  8,  8}, { 8,  9,  9,  9,  9}, { 9, 10, 10, 10, 10}, {10, 11, 11, 11, 11},
            {11, 12, 12, 12, 12}, {12, 13, 13, 13, 13}, {13, 14, 14, 14, 14},
            {14,  0, 15, 18, 15},
            {15, 16, 16, 16, 16}, {16, 17, 17, 17, 17},
            {17,  0,  0, 18, 18},
            {18, 19, 19, 19, 19}, {19, 20, 20, 20, 20}, {20, 21, 21, 21, 21}, {21, 22, 22, 22, 22}, {22, 23, 23, 23, 23},
            {23, 24, 24, 24, 24}, {24, 25, 25, 25, 25},
            {25,  0,  0,  0,  0},
            {26,  0,  0,  0,  0}, {27,  0,  0,  0,  0}, {4294967295U, 0, 0, 0, 0},
        };
        // clang-format on
        QTest::addColumn<uint>("model");
        QTest::addColumn<QByteArray>("description");
        QTest::addColumn<uint>("step");
        QTest::addColumn<uint>("next");
        for (const uint model : {6211U, 6214U, 6259U, 6891U}) {
            const bool four = model == 6214 || model == 6259;
            for (const char *description : {ordinary, compact, extended}) {
                const bool plain = description == ordinary;
                for (const Row &row : rows) {
                    const uint next = plain ? (four ? row.fourRelays : row.oneRelay)
                                            : (four ? row.fourRelaysExpanders : row.oneRelayExpanders);
                    QTest::addRow("%u, %s, step %u", model, description, row.step)
                        << model << QByteArray(description) << row.step << next;
                }
            }
        }
    }

    void nextStepOfEachStep()
    {
        QFETCH(uint, model);
        QFETCH(QByteArray, description);
        QFETCH(uint, step);
        QFETCH(uint, next);
        QCOMPARE(nextStep(step, model, hasExpanders(description.constData())), next);
    }

    void linesOfAModel_data()
    {
        QTest::addColumn<uint>("model");
        QTest::addColumn<bool>("expanders");
        QTest::addColumn<QByteArray>("lines"); // id:line, with @21 or @22 for a line on that expander
        const QByteArray gpios = "g0:168 g1:169 g2:170 g3:171 g4:172 g5:173";
        const QByteArray gpios6891 = "g0:504 g1:505 g2:506 g3:507 g4:508 g5:509";
        const QByteArray expander =
            " g6:192@22 g7:193@22 g8:194@22 g9:195@22 g10:196@22 g11:197@22 g12:198@22 g13:199@22"
            " r4:176@21 r5:177@21 r6:178@21 r7:179@21 r8:180@21 r9:181@21 r10:182@21 r11:183@21";
        const QByteArray four = " r0:175 r1:174 r2:84 r3:85";

        QTest::newRow("6211") << 6211U << false << gpios + " r0:174";
        QTest::newRow("6214") << 6214U << false << gpios + four;
        QTest::newRow("6259") << 6259U << false << gpios + four;
        QTest::newRow("6891: ids shifted by 336") << 6891U << false << gpios6891 + " r0:510";
        QTest::newRow("6211 with expanders") << 6211U << true << gpios + expander + " r0:174";
        QTest::newRow("6214 with expanders") << 6214U << true << gpios + expander + four;
        QTest::newRow("6259 with expanders") << 6259U << true << gpios + expander + four;
        QTest::newRow("6891 with expanders") << 6891U << true << gpios6891 + expander + " r0:510";
        QTest::newRow("6410 has none") << 6410U << true << QByteArray();
    }

    void linesOfAModel()
    {
        QFETCH(uint, model);
        QFETCH(bool, expanders);
        QFETCH(QByteArray, lines);

        QByteArrayList found;
        const auto collect = [&](char kind, std::span<const LineSet> sets) {
            for (const LineSet &set : sets) {
                if (!deviceHas(set, model, expanders))
                    continue;
                for (std::size_t i = 0; i < set.lines.size(); ++i) {
                    QByteArray line = kind + QByteArray::number(static_cast<uint>(set.firstId + i)) + ':' +
                                      QByteArray::number(set.lines[i]);
                    if (set.expander != Expander::None)
                        line += set.expander == Expander::At0x21 ? "@21" : "@22";
                    found.append(line);
                }
            }
        };
        collect('g', gpioLines);
        collect('r', relayLines);
        QCOMPARE(found.join(' '), lines);
    }

    void reportByTypeAndValue_data()
    {
        QTest::addColumn<uint>("type");
        QTest::addColumn<uint>("value");
        QTest::addColumn<uint>("input");
        QTest::addColumn<uint>("output");
        QTest::newRow("input, 0") << 1U << 0U << 2U << nothing;
        QTest::newRow("input, 1") << 1U << 1U << 3U << nothing;
        QTest::newRow("input, unreadable") << 1U << 255U << 1U << nothing;
        QTest::newRow("input, other value") << 1U << 2U << nothing << nothing;
        QTest::newRow("input, other value 254") << 1U << 254U << nothing << nothing;
        QTest::newRow("output, 0") << 2U << 0U << nothing << 2U;
        QTest::newRow("output, 1") << 2U << 1U << nothing << 3U;
        QTest::newRow("output, unreadable") << 2U << 255U << nothing << 1U;
        QTest::newRow("output, other value") << 2U << 256U << nothing << nothing;
        for (const uint value : {0U, 1U, 255U, 7U}) {
            QTest::addRow("not used reports 1 twice, value %u", value) << 3U << value << 1U << 1U;
            QTest::addRow("not configured reports nothing, value %u", value) << 0U << value << nothing << nothing;
        }
    }

    void reportByTypeAndValue()
    {
        QFETCH(uint, type);
        QFETCH(uint, value);
        const GpioReport report = reportOf(type, value);
        QTEST(orNothing(report.input), "input");
        QTEST(orNothing(report.output), "output");
    }

    void relayStatusByValue_data()
    {
        QTest::addColumn<uint>("value");
        QTest::addColumn<uint>("status");
        QTest::newRow("0") << 0U << 2U;
        QTest::newRow("1") << 1U << 3U;
        QTest::newRow("unreadable") << 255U << 1U;
        QTest::newRow("other value") << 2U << nothing;
    }

    void relayStatusByValue()
    {
        QFETCH(uint, value);
        QTEST(orNothing(statusOf(value)), "status");
    }
};

const TestEntry entry("tst_gpiolines", runTest<TestGpioLines>);

#include "tst_gpiolines.moc"
