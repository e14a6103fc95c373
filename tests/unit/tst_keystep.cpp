// The parts of the per-key discipline: decimal texts, paths with holes, tables of keys. tst_parsers tests its rules.
#include "support/testprogram.h"

#include "tal/keystep.h"

namespace {
constexpr TextCode colours[] = {{"red", 4}, {"green", 9}};
constexpr const char *lightPath = "/lights/light[kid='%1']/colour";

constexpr KeyRow firstRows[] = {{"b", 3}, {"a", 1}};
constexpr KeyRow secondRows[] = {{"a", 5}};
constexpr KeySet keySets[] = {{{6420, 6720}, firstRows}, {{6720, 6764}, secondRows}};
static_assert(rowsBelow(keySets, 6));
static_assert(!rowsBelow(keySets, 5));
} // namespace

class TestKeyStep : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void scaledIntegerReads()
    {
        // clang-format off
        static constexpr struct { const char *text; uint scale, number; } rows[] = {
            {"12.34", 1000, 12340}, {"3.3", 10, 33}, {"1200", 1, 1200}, {"007", 1, 7}, {"1200.", 1, 1200},
            {".5", 1000, 500}, {".", 1000, 0}, {"", 1000, 0}, {"unknown", 1000, 0},
            // three decimals use up a scale of 1000, with more of them it becomes 0; trailing zeros count
            {"1.234", 1000, 1234}, {"1.2345", 1000, 0}, {"1.2000", 1000, 0}, {"1200.5", 1, 0},
            // other characters are skipped: a second point, signs, blanks, letters, a comma, a full-width point
            {"1.2.3", 1000, 1230}, {"-5.0", 1000, 5000}, {" 1 2 . 5 ", 1000, 12500}, {"1e3", 1000, 13000},
            {"3,3", 1000, 33000}, {"1\xef\xbc\x8e" "5", 10, 150},
            // decimal digits of any script: Arabic-Indic, full-width, bold and Adlam; no letter beyond the first plane,
            // no superscript two, vulgar half or Roman five
            {"\xd9\xa1\xd9\xa2.\xd9\xa3", 1000, 12300}, {"\xef\xbc\x94\xef\xbc\x98", 10, 480},
            {"\xf0\x9d\x9f\x8f.\xf0\x9e\xa5\x92", 1000, 1200}, {"1\xf0\x9f\x94\x8a\x35", 1, 15},
            {"5\xc2\xb2", 1, 5}, {"5\xc2\xbd", 1, 5}, {"\xe2\x85\xa4", 1, 0},
            // 32 bits wrap
            {"4294967295", 1, 4294967295U}, {"4294967296", 1, 0}, {"4294968", 1000, 704},
            {"100000000000000000001", 1, 1661992961U},
        };
        // clang-format on
        for (const auto &row : rows) {
            const AtRow at(row.text);
            QCOMPARE(scaledInteger(QString::fromUtf8(row.text), row.scale), row.number);
        }
        const QString halvesOfAPair = QString(QChar(0xd835)) + QLatin1Char('3') + QChar(0xdfcf) + QChar(0xd835);
        QCOMPARE(scaledInteger(halvesOfAPair, 1), 3U);
    }

    void pathsWithHoles()
    {
        const auto filled = [](const KeyPath &path, const Keys &keys) { return path.with(keys); };
        QCOMPARE(filled("/a/b[kid='%1']/c", {"x", {}}), QStringLiteral("/a/b[kid='x']/c"));
        QCOMPARE(filled("/a[kid='ch%1']/b[kid=%2]/c", {"1", "10"}), QStringLiteral("/a[kid='ch1']/b[kid=10]/c"));
        QCOMPARE(filled("/a[kid='%1']/%2", {"%2", "leaf"}), QStringLiteral("/a[kid='%2']/leaf")); // not filled twice
    }

    void stepTakesTheFirstOfAKeyThatComesTwice()
    {
        const QString left = QStringLiteral("<light><kid>left</kid>%1</light>");
        const QString xml = left.arg(QStringLiteral("<name/>")) + // without the leaf, so it does not count
                            left.arg(QStringLiteral("<colour>red</colour>")) +
                            left.arg(QStringLiteral("<colour>green</colour>"));
        const Notification n{QStringLiteral("create"), QStringLiteral("/lights"),
                             QStringLiteral("/lights/light/colour"), QStringLiteral("<lights>%1</lights>").arg(xml)};
        std::uint32_t value = 77;
        QString text;
        QCOMPARE(int(keyStep(n, {{"getColour", kid, lightPath}, {colours, store(1), store(2)}}, {"left", {}}, value)),
                 int(Step::Handled));
        QCOMPARE(value, 4U);
        QVERIFY(textStep(n, TextRule{{"getColour", kid, lightPath}}, {"left", {}}, text));
        QCOMPARE(text, QStringLiteral("red"));
    }

    void aMeasuredValueKnowsWhatWasReported()
    {
        constexpr KeyRule rule{{"getLevel", kid, lightPath}, {{}, store(0), scaled(10)}};
        static constexpr struct {
            const char *operation, *text;
            std::uint32_t value;
            Reading reading;
        } rows[] = {
            {"create", "3.3", 33, Reading::Number},
            {"replace", " -5.0 ", 50, Reading::Number},
            {"replace", "+.5", 5, Reading::Number},
            {"replace", "7.", 70, Reading::Number},
            {"replace", "41.25", 0, Reading::None}, // the scale runs out
            {"replace", "-0.00", 0, Reading::Number},
            {"replace", "429496729.5", 4294967295, Reading::Number},
            {"replace", "429496730", 4, Reading::TooLarge},
            {"replace", "99999999999999999999.99", 0, Reading::TooLarge},
            {"replace", "unknown", 0, Reading::NoNumber},
            {"replace", "", 0, Reading::NoNumber},
            {"replace", "1.2.3", 0, Reading::NoNumber},
            {"replace", ".", 0, Reading::NoNumber},
            {"replace", "2 V", 20, Reading::NoNumber},
            {"replace", "--2", 20, Reading::NoNumber},
            {"replace", "\xd9\xa1", 10, Reading::NoNumber},
            {"replace", "1", 10, Reading::Number},
            {"patch", "2", 10, Reading::Number}, // refused
            {"delete", "1", 0, Reading::None},
        };
        Measured measured{};
        for (const auto &row : rows) {
            const AtRow at(row.text);
            const QString xml = QStringLiteral("<light><kid>left</kid><colour>%1</colour></light>");
            measureStep({QString::fromUtf8(row.operation), QStringLiteral("/lights"), QStringLiteral("/lights/light"),
                         QStringLiteral("<lights>%1</lights>").arg(xml.arg(QString::fromUtf8(row.text)))},
                        rule, {"left", {}}, measured);
            QCOMPARE(measured.value, row.value);
            QCOMPARE(int(measured.reading), int(row.reading));
        }
    }
};

const TestEntry entry("tst_keystep", runTest<TestKeyStep>);
#include "tst_keystep.moc"
