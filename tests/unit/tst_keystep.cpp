// The per-key discipline and what it is made of: decimal texts, words to codes, operations, paths with holes.
#include "support/messagelog.h"
#include "support/testprogram.h"

#include "tal/keystep.h"

#include <QVector>
#include <QtTest>

#include <algorithm>
#include <type_traits>

namespace {

using Numbers = QVector<uint>;

constexpr TextCode colours[] = {{"red", 4}, {"green", 9}};
constexpr const char *lightPath = "/lights/light[kid='%1']/colour";
constexpr std::uint32_t before = 77; // what the scratch value holds before a step

Notification light(const char *op, const char *text)
{
    const QString xml = QStringLiteral("<colour>%1</colour>").arg(QString::fromUtf8(text));
    return {QString::fromUtf8(op), QStringLiteral("/lights/light[kid='left']/colour"),
            QStringLiteral("/lights/light/colour"), xml};
}

QString complaint(const char *tail)
{
    return QStringLiteral("getColour op: patch rPath: /lights/light[kid='left']/colour sPath: /lights/light/colour") +
           QString::fromUtf8(tail);
}

} // namespace

Q_DECLARE_METATYPE(Step)
Q_DECLARE_METATYPE(OnDelete)
Q_DECLARE_METATYPE(OnOther)

// What is wrong for "delete", for another text or for the step does not compile.
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

class TestKeyStep : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void scaledIntegerReads_data();
    void scaledIntegerReads();

    void operations_data();
    void operations();
    void wordsToCodes_data();
    void wordsToCodes();
    void pathsWithHoles();

    void stepConvertsAsItsMapSays_data();
    void stepConvertsAsItsMapSays();
    void stepOfAnAbsentKeyIsNotHandled();
    void stepTakesTheFirstOfAKeyThatComesTwice();
    void stepRefusesUnexpectedOperations_data();
    void stepRefusesUnexpectedOperations();
    void textStepGivesTheTextAsItIs();

    void keysOfAModelInTheOrderOfTheTable();
    void rowsAreCheckedAgainstTheirRecord();
};

void TestKeyStep::scaledIntegerReads_data()
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
    QTest::newRow("halves of a pair") << QString(QChar(0xd835)) + QLatin1Char('3') + QChar(0xdfcf) + QChar(0xd835) << 1U
                                      << 3U;
    row("largest", "4294967295", 1, 4294967295U);
    row("32 bits wrap", "4294967296", 1, 0);
    row("32 bits wrap on scaling", "4294968", 1000, 704);
    row("more digits than fit", "100000000000000000001", 1, 1661992961U);
}

void TestKeyStep::scaledIntegerReads()
{
    QFETCH(QString, text);
    QFETCH(uint, scale);
    QFETCH(uint, number);

    QCOMPARE(scaledInteger(text, scale), number);
}

void TestKeyStep::operations_data()
{
    QTest::addColumn<QString>("op");
    QTest::addColumn<int>("operation");
    const auto row = [](const char *op, Operation operation) {
        QTest::addRow("'%s'", op) << QString::fromUtf8(op) << int(operation);
    };
    row("create", Operation::Change);
    row("replace", Operation::Change);
    row("delete", Operation::Delete);
    row("patch", Operation::Unexpected);
    row("Create", Operation::Unexpected);
    row("delete ", Operation::Unexpected);
    row("", Operation::Unexpected);
}

void TestKeyStep::operations()
{
    QFETCH(QString, op);
    QFETCH(int, operation);

    QCOMPARE(int(operationOf({op, {}, {}, {}})), operation);
}

void TestKeyStep::wordsToCodes_data()
{
    QTest::addColumn<QString>("word");
    QTest::addColumn<uint>("code");
    QTest::newRow("first") << QStringLiteral("red") << 4U;
    QTest::newRow("last") << QStringLiteral("green") << 9U;
    QTest::newRow("other") << QStringLiteral("blue") << 1U;
    QTest::newRow("other case") << QStringLiteral("Red") << 1U;
    QTest::newRow("longer") << QStringLiteral("reds") << 1U;
    QTest::newRow("shorter") << QStringLiteral("re") << 1U;
    QTest::newRow("empty") << QString() << 1U;
}

void TestKeyStep::wordsToCodes()
{
    QFETCH(QString, word);
    QFETCH(uint, code);

    QCOMPARE(codeOf(colours, word, 1), code);
}

void TestKeyStep::pathsWithHoles()
{
    QCOMPARE(KeyPath("/a/b").with({}), QStringLiteral("/a/b"));
    QCOMPARE(KeyPath("/a/b[kid='%1']").with({"x", {}}), QStringLiteral("/a/b[kid='x']"));
    QCOMPARE(KeyPath("/a/b[kid='%1']/c").with({"x", {}}), QStringLiteral("/a/b[kid='x']/c"));
    QCOMPARE(KeyPath("/a[kid='ch%1']/b[kid=%2]/c").with({"1", "10"}), QStringLiteral("/a[kid='ch1']/b[kid=10]/c"));
    QCOMPARE(KeyPath("/a[kid='%1']/%2").with({"x", "leaf"}), QStringLiteral("/a[kid='x']/leaf"));
    QCOMPARE(KeyPath("/a[kid='%1']/%2").with({"%2", "leaf"}), QStringLiteral("/a[kid='%2']/leaf")); // not filled twice
}

void TestKeyStep::stepConvertsAsItsMapSays_data()
{
    QTest::addColumn<OnDelete>("onDelete");
    QTest::addColumn<OnOther>("onOther");
    QTest::addColumn<QByteArray>("op");
    QTest::addColumn<QByteArray>("text");
    QTest::addColumn<Step>("step");
    QTest::addColumn<uint>("scratch");
    const auto row = [](const char *name, OnDelete onDelete, OnOther onOther, const char *op, const char *text,
                        Step step, uint scratch) {
        QTest::newRow(name) << onDelete << onOther << QByteArray(op) << QByteArray(text) << step << scratch;
    };
    row("word of the map", store(1), store(2), "create", "red", Step::Handled, 4);
    row("word of the map, replace", notHandled, notHandled, "replace", "green", Step::Handled, 9);
    row("delete stores", store(1), store(2), "delete", "red", Step::Handled, 1);
    row("delete leaves the row", leaveRow, store(2), "delete", "red", Step::RowLeft, before);
    row("delete is not handled", notHandled, store(2), "delete", "red", Step::NotHandled, before);
    row("other text stores", store(1), store(2), "replace", "blue", Step::Handled, 2);
    row("other text, handled, scratch unchanged", store(1), keepScratch, "replace", "blue", Step::Handled, before);
    row("other text is not handled", store(1), notHandled, "create", "blue", Step::NotHandled, before);
    row("scaled", store(0), scaled(1000), "create", "3.3", Step::Handled, 3300);
    row("scaled, no number", store(0), scaled(1000), "create", "none", Step::Handled, 0);
    row("whole number", store(0), wholeNumber, "replace", "250", Step::Handled, 250);
    row("whole number, no number", store(0), wholeNumber, "replace", "soon", Step::Handled, 0);
    row("whole number, fraction", store(0), wholeNumber, "replace", "1.5", Step::Handled, 0);
}

void TestKeyStep::stepConvertsAsItsMapSays()
{
    QFETCH(OnDelete, onDelete);
    QFETCH(OnOther, onOther);
    QFETCH(QByteArray, op);
    QFETCH(QByteArray, text);
    QFETCH(Step, step);
    QFETCH(uint, scratch);

    MessageLog log;
    const KeyRule rule{{"getColour", kid, lightPath}, {colours, onDelete, onOther}};
    std::uint32_t value = before;
    QCOMPARE(int(keyStep(light(op, text), rule, {"left", {}}, value)), int(step));
    QCOMPARE(value, scratch);
    QCOMPARE(log.lines(), QStringList());
}

void TestKeyStep::stepOfAnAbsentKeyIsNotHandled()
{
    MessageLog log;
    const KeyRule rule{{"getColour", kid, lightPath}, {colours, store(1), store(2)}};
    for (const char *op : {"create", "replace", "delete", "patch"}) {
        std::uint32_t value = before;
        QCOMPARE(int(keyStep(light(op, "red"), rule, {"right", {}}, value)), int(Step::NotHandled));
        QCOMPARE(value, before);
    }
    QCOMPARE(log.lines(), QStringList());
}

void TestKeyStep::stepTakesTheFirstOfAKeyThatComesTwice()
{
    const QString left = QStringLiteral("<light><kid>left</kid>%1</light>");
    const QString xml = left.arg(QStringLiteral("<name/>")) + // without the leaf, so it does not count
                        left.arg(QStringLiteral("<colour>red</colour>")) +
                        left.arg(QStringLiteral("<colour>green</colour>"));
    const Notification n{QStringLiteral("create"), QStringLiteral("/lights"), QStringLiteral("/lights/light/colour"),
                         QStringLiteral("<lights>%1</lights>").arg(xml)};
    std::uint32_t value = before;
    QString text;
    QCOMPARE(int(keyStep(n, {{"getColour", kid, lightPath}, {colours, store(1), store(2)}}, {"left", {}}, value)),
             int(Step::Handled));
    QCOMPARE(value, 4U);
    QVERIFY(textStep(n, TextRule{{"getColour", kid, lightPath}}, {"left", {}}, text));
    QCOMPARE(text, QStringLiteral("red"));
}

void TestKeyStep::stepRefusesUnexpectedOperations_data()
{
    QTest::addColumn<QByteArray>("label");
    QTest::addColumn<QString>("line");
    QTest::newRow("with the key") << QByteArray(kid) << complaint(" kid: left");
    QTest::newRow("with a label of its own") << QByteArray("gpio:") << complaint(" gpio: left");
    QTest::newRow("without the key") << QByteArray(noKey) << complaint("");
}

void TestKeyStep::stepRefusesUnexpectedOperations()
{
    QFETCH(QByteArray, label);
    QFETCH(QString, line);

    MessageLog log;
    const KeyPlace place{"getColour", label.isNull() ? noKey : label.constData(), lightPath};
    const KeyRule rule{place, {colours, store(1), store(2)}};
    std::uint32_t value = before;
    QCOMPARE(int(keyStep(light("patch", "red"), rule, {"left", {}}, value)), int(Step::NotHandled));
    QCOMPARE(value, before);
    QString text;
    QVERIFY(!textStep(light("patch", "red"), TextRule{place}, {"left", {}}, text));
    QCOMPARE(log.lines(), QStringList({line, line}));
}

void TestKeyStep::textStepGivesTheTextAsItIs()
{
    const TextRule rule{{"getColour", kid, lightPath}};
    for (const char *op : {"create", "replace"})
        for (const char *sent : {"red", "", " two  words ", "Gr\xc3\xbcn"}) {
            QString text = QStringLiteral("before");
            QVERIFY(textStep(light(op, sent), rule, {"left", {}}, text));
            QCOMPARE(text, QString::fromUtf8(sent));
        }
    QString text;
    QVERIFY(!textStep(light("delete", "red"), rule, {"left", {}}, text));
    QVERIFY(!textStep(light("create", "red"), rule, {"right", {}}, text));
}

namespace {

constexpr KeyRow firstRows[] = {{"b", 3}, {"a", 1}};
constexpr KeyRow secondRows[] = {{"a", 5}};
constexpr KeySet keySets[] = {{{6420, 6720}, firstRows}, {{6720, 6764}, secondRows}};

} // namespace

void TestKeyStep::keysOfAModelInTheOrderOfTheTable()
{
    const auto keysOf = [](std::uint32_t model) {
        QString keys;
        forEachKey(keySets, model, [&keys](const KeyRow &row) { keys += latin1(row.key) + QString::number(row.row); });
        return keys;
    };
    QCOMPARE(keysOf(6420), QStringLiteral("b3a1"));
    QCOMPARE(keysOf(6720), QStringLiteral("b3a1a5"));
    QCOMPARE(keysOf(6764), QStringLiteral("a5"));
    QCOMPARE(keysOf(6211), QString());
    QCOMPARE(keysOf(1), QString());
}

void TestKeyStep::rowsAreCheckedAgainstTheirRecord()
{
    constexpr bool fits = rowsBelow(keySets, 6);
    constexpr bool doesNotFit = rowsBelow(keySets, 5);
    QVERIFY(fits);
    QVERIFY(!doesNotFit);
}

const TestEntry entry("tst_keystep", runTest<TestKeyStep>);
#include "tst_keystep.moc"
