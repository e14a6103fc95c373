// What the per-key discipline is made of: decimal texts, paths with holes,
// tables of keys. tst_parsers has what its rules do.
#include "support/testprogram.h"

#include "tal/keystep.h"

#include <QtTest>

#include <type_traits>

namespace {

constexpr TextCode colours[] = {{"red", 4}, {"green", 9}};
constexpr const char *lightPath = "/lights/light[kid='%1']/colour";
constexpr std::uint32_t before = 77; // what the scratch value holds before a step

} // namespace

// What is wrong for "delete", for another text or for the step does not
// compile.
static_assert(std::is_constructible_v<OnDelete, decltype(leaveRow)>);
static_assert(std::is_constructible_v<OnOther, decltype(keepScratch)>);
static_assert(!std::is_constructible_v<OnDelete, decltype(keepScratch)>);
static_assert(!std::is_constructible_v<OnDelete, decltype(wholeNumber)>);
static_assert(!std::is_constructible_v<OnDelete, decltype(scaled(10))>);
static_assert(!std::is_constructible_v<OnOther, decltype(leaveRow)>);
static_assert(std::is_invocable_v<decltype(keyStep), Notification, KeyRule, Keys, std::uint32_t &>);
static_assert(std::is_invocable_v<decltype(textStep), Notification, TextRule, Keys, QString &>);
static_assert(!std::is_invocable_v<decltype(keyStep), Notification, TextRule, Keys, std::uint32_t &>);
static_assert(!std::is_invocable_v<decltype(textStep), Notification, KeyRule, Keys, QString &>);

namespace {

constexpr KeyRow firstRows[] = {{"b", 3}, {"a", 1}};
constexpr KeyRow secondRows[] = {{"a", 5}};
constexpr KeySet keySets[] = {{{6420, 6720}, firstRows}, {{6720, 6764}, secondRows}};

} // namespace

class TestKeyStep : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void scaledIntegerReads_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<uint>("scale");
        QTest::addColumn<uint>("number");
        const auto row = [](const char *name, const char *text, uint scale, uint number) {
            QTest::newRow(name) << QString::fromUtf8(text) << scale << number;
        };
        row("two decimals of a volt", "12.34", 1000, 12340);
        row("whole volts", "48", 1000, 48000);
        row("three decimals use up the scale", "1.234", 1000, 1234);
        row("four decimals run out of scale", "1.2345", 1000, 0);
        row("trailing zeros count as decimals", "1.2000", 1000, 0);
        row("five decimals", "0.12345", 1000, 0);
        row("one decimal of a degree", "3.3", 10, 33);
        row("two decimals of a degree run out of scale", "41.25", 10, 0);
        row("revolutions", "1200", 1, 1200);
        row("revolutions with a fraction", "1200.5", 1, 0);
        row("revolutions with a point only", "1200.", 1, 1200);
        row("empty", "", 1000, 0);
        row("zero", "0", 1000, 0);
        row("point alone", ".", 1000, 0);
        row("point first", ".5", 1000, 500);
        row("point last", "5.", 1000, 5000);
        row("second point has no effect of its own", "1.2.3", 1000, 1230);
        row("minus is ignored", "-5.0", 1000, 5000);
        row("plus is ignored", "+5.0", 1000, 5000);
        row("blanks are skipped", " 1 2 . 5 ", 1000, 12500);
        row("letters are skipped", "3V3", 10, 330);
        row("unit behind", "24.1V", 1000, 24100);
        row("exponent letter is skipped", "1e3", 1000, 13000);
        row("comma is no point", "3,3", 1000, 33000);
        row("no digits", "unknown", 1000, 0);
        row("leading zeros", "007", 1, 7);
        row("Arabic-Indic digits", "\xd9\xa1\xd9\xa2.\xd9\xa3", 1000, 12300);
        row("full-width digits", "\xef\xbc\x94\xef\xbc\x98", 10, 480);
        row("digits beyond the first plane", "\xf0\x9d\x9f\x8f.\xf0\x9e\xa5\x92", 1000, 1200); // bold 1, Adlam 2
        row("letter beyond the first plane", "1\xf0\x9f\x94\x8a\x35", 1, 15);
        row("superscript two is no decimal digit", "5\xc2\xb2", 1, 5);
        row("vulgar half is no decimal digit", "5\xc2\xbd", 1, 5);
        row("Roman numeral is no decimal digit", "\xe2\x85\xa4", 1, 0);
        row("full-width point is no point",
            "1\xef\xbc\x8e"
            "5",
            10, 150);
        QTest::newRow("halves of a pair")
            << QString(QChar(0xd835)) + QLatin1Char('3') + QChar(0xdfcf) + QChar(0xd835) << 1U << 3U;
        row("largest", "4294967295", 1, 4294967295U);
        row("32 bits wrap", "4294967296", 1, 0);
        row("32 bits wrap on scaling", "4294968", 1000, 704);
        row("more digits than fit", "100000000000000000001", 1, 1661992961U);
    }

    void scaledIntegerReads()
    {
        QFETCH(QString, text);
        QFETCH(uint, scale);
        QFETCH(uint, number);

        QCOMPARE(scaledInteger(text, scale), number);
    }

    void pathsWithHoles()
    {
        QCOMPARE(KeyPath("/a/b").with({}), QStringLiteral("/a/b"));
        QCOMPARE(KeyPath("/a/b[kid='%1']").with({"x", {}}), QStringLiteral("/a/b[kid='x']"));
        QCOMPARE(KeyPath("/a/b[kid='%1']/c").with({"x", {}}), QStringLiteral("/a/b[kid='x']/c"));
        QCOMPARE(KeyPath("/a[kid='ch%1']/b[kid=%2]/c").with({"1", "10"}), QStringLiteral("/a[kid='ch1']/b[kid=10]/c"));
        QCOMPARE(KeyPath("/a[kid='%1']/%2").with({"x", "leaf"}), QStringLiteral("/a[kid='x']/leaf"));
        QCOMPARE(KeyPath("/a[kid='%1']/%2").with({"%2", "leaf"}),
                 QStringLiteral("/a[kid='%2']/leaf")); // not filled twice
    }

    void stepTakesTheFirstOfAKeyThatComesTwice()
    {
        const QString left = QStringLiteral("<light><kid>left</kid>%1</light>");
        const QString xml = left.arg(QStringLiteral("<name/>")) + // without the leaf, so it does not count
                            left.arg(QStringLiteral("<colour>red</colour>")) +
                            left.arg(QStringLiteral("<colour>green</colour>"));
        const Notification n{QStringLiteral("create"), QStringLiteral("/lights"),
                             QStringLiteral("/lights/light/colour"), QStringLiteral("<lights>%1</lights>").arg(xml)};
        std::uint32_t value = before;
        QString text;
        QCOMPARE(int(keyStep(n, {{"getColour", kid, lightPath}, {colours, store(1), store(2)}}, {"left", {}}, value)),
                 int(Step::Handled));
        QCOMPARE(value, 4U);
        QVERIFY(textStep(n, TextRule{{"getColour", kid, lightPath}}, {"left", {}}, text));
        QCOMPARE(text, QStringLiteral("red"));
    }

    void keysOfAModelInTheOrderOfTheTable()
    {
        const auto keysOf = [](std::uint32_t model) {
            QString keys;
            forEachKey(keySets, model,
                       [&keys](const KeyRow &row) { keys += latin1(row.key) + QString::number(row.row); });
            return keys;
        };
        QCOMPARE(keysOf(6420), QStringLiteral("b3a1"));
        QCOMPARE(keysOf(6720), QStringLiteral("b3a1a5"));
        QCOMPARE(keysOf(6764), QStringLiteral("a5"));
        QCOMPARE(keysOf(6211), QString());
        QCOMPARE(keysOf(1), QString());
    }

    void rowsAreCheckedAgainstTheirRecord()
    {
        constexpr bool fits = rowsBelow(keySets, 6);
        constexpr bool doesNotFit = rowsBelow(keySets, 5);
        QVERIFY(fits);
        QVERIFY(!doesNotFit);
    }
};

const TestEntry entry("tst_keystep", runTest<TestKeyStep>);
#include "tst_keystep.moc"
