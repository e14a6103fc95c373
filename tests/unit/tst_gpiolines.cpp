// The GPIO lines of each model, the step table, and what a value of a line stands for.
#include "support/testprogram.h"

#include "gpio/gpiolines.h"

namespace {
constexpr uint models[] = {6211, 6214, 6259, 6891};
constexpr uint nothing = 0; // no status at all

QByteArray linesOf(char kind, std::span<const LineSet> sets, uint model, bool expanders)
{
    QByteArray found;
    for (const LineSet &set : sets)
        for (std::size_t i = 0; i < set.lines.size() && deviceHas(set, model, expanders); ++i)
            found += kind + QByteArray::number(static_cast<uint>(set.firstId + i)) + ':' +
                     QByteArray::number(set.lines[i]) +
                     (set.expander == Expander::At0x21   ? "@21 "
                      : set.expander == Expander::At0x22 ? "@22 "
                                                         : " ");
    return found;
}
} // namespace

class TestGpioLines : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void linesOfAModel()
    {
        const QByteArray onExpander21 =
            "r4:176@21 r5:177@21 r6:178@21 r7:179@21 r8:180@21 r9:181@21 r10:182@21 r11:183@21 ";
        const QByteArray onExpander22 =
            "g6:192@22 g7:193@22 g8:194@22 g9:195@22 g10:196@22 g11:197@22 g12:198@22 g13:199@22 ";
        for (const uint model : models) {
            const QByteArray gpios = model == 6891 ? "g0:504 g1:505 g2:506 g3:507 g4:508 g5:509 " // shifted by 336
                                                   : "g0:168 g1:169 g2:170 g3:171 g4:172 g5:173 ";
            const QByteArray relays = model == 6891   ? "r0:510 "
                                      : model == 6211 ? "r0:174 "
                                                      : "r0:175 r1:174 r2:84 r3:85 ";
            QCOMPARE(linesOf('g', gpioLines, model, false), gpios);
            QCOMPARE(linesOf('r', relayLines, model, false), relays);
            QCOMPARE(linesOf('g', gpioLines, model, true), gpios + onExpander22);
            QCOMPARE(linesOf('r', relayLines, model, true), onExpander21 + relays);
        }
        QCOMPARE(linesOf('g', gpioLines, 6410, true) + linesOf('r', relayLines, 6410, true), QByteArray());
    }

    void statusesByTypeAndValue()
    {
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
};

const TestEntry entry("tst_gpiolines", runTest<TestGpioLines>);
#include "tst_gpiolines.moc"
