// The line end transponders (LETs): enable, presence and the status derived from them, texts, voltage.
#include "support/talbench.h"
#include "support/testprogram.h"

#include <QVector>

#include <limits>

namespace {

using Numbers = QVector<uint>;

constexpr uint huge = std::numeric_limits<uint>::max();
constexpr uint sentinel = 77; // no text has this code

QString enablePath(uint channel)
{
    return QStringLiteral("/state/config/lines/line[kid='ch%1']/enable").arg(channel + 1);
}

QString letConfigPath(uint channel, uint let, const char *leaf)
{
    return QStringLiteral("/state/config/lines/line[kid='ch%1']/lets/let[kid='%2']/%3")
        .arg(channel + 1)
        .arg(let)
        .arg(qs(leaf));
}

QString letStatePath(uint channel, uint let, const char *leaf)
{
    return QStringLiteral("/state/lines/line[kid='ch%1']/lets/let[kid='%2']/%3")
        .arg(channel + 1)
        .arg(let)
        .arg(qs(leaf));
}

void ampEnable(TalBench &bench, uint channel, const char *text, const char *op = "replace")
{
    bench.leaf("kvsnmp_amp_enable", op, enablePath(channel), qs(text));
}

void letEnable(TalBench &bench, uint channel, uint let, const char *text, const char *op = "replace")
{
    bench.leaf("kvsnmp_let_enable", op, letConfigPath(channel, let, "enabled"), qs(text));
}

void letVoltage(TalBench &bench, uint channel, uint let, const char *text, const char *op = "replace")
{
    bench.leaf("kvsnmp_let_voltage", op, letStatePath(channel, let, "let_vcc"), qs(text));
}

/// The three texts of a LET: reference, path and where they are stored.
struct LetText {
    const char *ref;
    QString (*path)(uint, uint, const char *);
    const char *leaf;
    int capacity; ///< characters that fit
    const char *(*stored)(const LetEntry &);
    std::uint8_t LetChanges::*flag;
};

// clang-format off
const LetText letTexts[] = {
    {"kvsnmp_let_description", letConfigPath, "let_description", 127,
     [](const LetEntry &let) -> const char * { return let.description; },     &LetChanges::description},
    {"kvsnmp_let_sw_version",  letStatePath,  "sw_version",       19,
     [](const LetEntry &let) -> const char * { return let.softwareVersion; }, &LetChanges::softwareVersion},
    {"kvsnmp_let_hw_version",  letStatePath,  "hw_version",       19,
     [](const LetEntry &let) -> const char * { return let.hardwareVersion; }, &LetChanges::hardwareVersion},
};
// clang-format on

void letText(TalBench &bench, const LetText &which, uint channel, uint let, const QString &text,
             const char *op = "replace")
{
    bench.leaf(which.ref, op, which.path(channel, let, which.leaf), text);
}

LetEntry &entry(TalBench &bench, uint channel, uint let)
{
    return bench.records().let.lets[channel][let - 1];
}

/// Everything in an entry that one notification may change, as one text for comparison.
QString content(const LetEntry &let)
{
    return QStringLiteral("%1 %2 %3 '%4' '%5' '%6' %7 flags %8%9%10%11%12")
        .arg(let.letStatus)
        .arg(let.letPresence)
        .arg(let.letEnabled)
        .arg(QString::fromLatin1(let.description), QString::fromLatin1(let.softwareVersion),
             QString::fromLatin1(let.hardwareVersion))
        .arg(let.letVoltage)
        .arg(let.changed.status)
        .arg(let.changed.description)
        .arg(let.changed.softwareVersion)
        .arg(let.changed.hardwareVersion)
        .arg(let.changed.voltage);
}

const QString untouched = QStringLiteral("0 0 0 '' '' '' 0 flags 00000");

/// Names of the entries that are not as they were at construction, e.g. "0/4".
QStringList touchedLets(TalBench &bench)
{
    QStringList touched;
    for (uint channel = 0; channel < 2; ++channel)
        for (uint let = 1; let <= 10; ++let)
            if (content(entry(bench, channel, let)) != untouched)
                touched << QStringLiteral("%1/%2").arg(channel).arg(let);
    return touched;
}

Numbers channelStatuses(TalBench &bench)
{
    const auto &rows = bench.records().ampChannel.rows;
    return {rows[0].status, rows[1].status};
}

} // namespace

class TestLets : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void trueMeansOppositeCodesForAmpAndLet();
    void letEnableTexts_data();
    void letEnableTexts();
    void letEnableOfEachLet_data();
    void letEnableOfEachLet();
    void letEnableUnexpectedOperation();
    void letStatus_data();
    void letStatus();
    void letStatusOfAnUnknownChannelStatusSetsTheFlagAllTheSame();
    void letStatusWithoutPresence();
    void letStatusFollowsEnableAndPresence();
    void channelStatusAloneDoesNotDeriveLetsAgain();
    void letPresenceSlot_data();
    void letPresenceSlot();
    void letPresenceSlotOutOfRangeIsIgnored_data();
    void letPresenceSlotOutOfRangeIsIgnored();
    void letsOutsideTheTableAreNeverAddressed_data();
    void letsOutsideTheTableAreNeverAddressed();
    void kidsAreComparedAsNumbers_data();
    void kidsAreComparedAsNumbers();
    void letTextOfEachLet_data();
    void letTextOfEachLet();
    void letTextIsBounded_data();
    void letTextIsBounded();
    void letTextIsLatin1();
    void letTextMayBeEmptyOrShorter();
    void letTextDeleteLeavesTextAndFlag_data();
    void letTextDeleteLeavesTextAndFlag();
    void letTextUnexpectedOperation();
    void letVoltageOfEachLet_data();
    void letVoltageOfEachLet();
    void letVoltageTexts_data();
    void letVoltageTexts();
    void letVoltageUnexpectedOperation();
    void letsAreWalkedInOrder();
};

void TestLets::trueMeansOppositeCodesForAmpAndLet()
{
    TalBench bench(6420);
    ampEnable(bench, 0, "true");
    letEnable(bench, 0, 1, "true");
    QCOMPARE(bench.records().ampChannel.rows[0].ampEnable, 2U);
    QCOMPARE(entry(bench, 0, 1).letEnabled, 1U);
    ampEnable(bench, 0, "false");
    letEnable(bench, 0, 1, "false");
    QCOMPARE(bench.records().ampChannel.rows[0].ampEnable, 1U);
    QCOMPARE(entry(bench, 0, 1).letEnabled, 2U);
}

void TestLets::letEnableTexts_data()
{
    QTest::addColumn<QByteArray>("op");
    QTest::addColumn<QByteArray>("text");
    QTest::addColumn<uint>("code"); // 77: as it was, and the LET's status not derived again
    const auto row = [](const char *name, const char *op, const char *text, uint code) {
        QTest::newRow(name) << QByteArray(op) << QByteArray(text) << code;
    };
    row("create true", "create", "true", 1);
    row("create false", "create", "false", 2);
    row("replace true", "replace", "true", 1);
    row("replace false", "replace", "false", 2);
    row("other text is not handled", "replace", "yes", sentinel);
    row("other case is not handled", "create", "FALSE", sentinel);
    row("empty is not handled", "replace", "", sentinel);
    row("delete is not handled", "delete", "true", sentinel);
}

void TestLets::letEnableTexts()
{
    QFETCH(QByteArray, op);
    QFETCH(QByteArray, text);
    QFETCH(uint, code);

    TalBench bench(6764);
    bench.records().ampChannel.rows[1].status = 3;
    LetEntry &let = entry(bench, 1, 7);
    let.letEnabled = sentinel;
    let.letStatus = sentinel;
    letEnable(bench, 1, 7, text, op);

    const bool handled = code != sentinel;
    QCOMPARE(let.letEnabled, code);
    QCOMPARE(let.letStatus, !handled ? sentinel : code == 1 ? 3U : 2U);
    QCOMPARE(let.changed.status, std::uint8_t(handled ? 1 : 0));
    QCOMPARE(touchedLets(bench), QStringList{qs("1/7")});
    QCOMPARE(bench.log.lines(), QStringList());
}

void TestLets::letEnableOfEachLet_data()
{
    QTest::addColumn<uint>("channel");
    QTest::addColumn<uint>("let");
    for (uint channel = 0; channel < 2; ++channel)
        for (uint let = 1; let <= 10; ++let)
            QTest::addRow("channel %u LET %u", channel, let) << channel << let;
}

void TestLets::letEnableOfEachLet()
{
    QFETCH(uint, channel);
    QFETCH(uint, let);

    for (const uint model : {6420U, 6211U}) { // the model is not looked at
        TalBench bench(model);
        letEnable(bench, channel, let, "true", "create");
        QCOMPARE(content(entry(bench, channel, let)), qs("1 0 1 '' '' '' 0 flags 10000"));
        QCOMPARE(touchedLets(bench).size(), 1);
    }
}

void TestLets::letEnableUnexpectedOperation()
{
    TalBench bench(6420);
    letEnable(bench, 0, 10, "true", "patch");
    QCOMPARE(touchedLets(bench), QStringList());
    const QStringList lines = bench.log.lines();
    QCOMPARE(lines.size(), 1);
    QVERIFY2(lines[0].endsWith(qs(" op: patch rPath: /state/config/lines/line[kid='ch1']/lets/let[kid='10']/enabled"
                                  " sPath: /state/config/lines/line/lets/let/enabled kid: ch1 10")),
             qPrintable(lines[0]));
}

void TestLets::letStatus_data()
{
    QTest::addColumn<uint>("channelStatus");
    QTest::addColumn<uint>("enabled");
    QTest::addColumn<uint>("presence");
    QTest::addColumn<uint>("status");
    // clang-format off
    const struct { uint enabled; uint presence; uint status; } whenChannelIsOk[] = {
        {0, 1, 2}, {0, 2, 2}, {1, 1, 4}, {1, 2, 3}, {2, 1, 2}, {2, 2, 2},
    };
    // clang-format on
    for (const auto &row : whenChannelIsOk)
        QTest::addRow("channel 3, enabled %u, presence %u", row.enabled, row.presence)
            << 3U << row.enabled << row.presence << row.status;
    for (const uint channelStatus : {1U, 2U, 4U, 5U, 6U})
        for (const uint enabled : {0U, 1U, 2U})
            for (const uint presence : {1U, 2U})
                QTest::addRow("channel %u, enabled %u, presence %u", channelStatus, enabled, presence)
                    << channelStatus << enabled << presence << 1U;
    for (const uint channelStatus : {0U, 7U, huge})
        QTest::addRow("channel %u leaves it", channelStatus) << channelStatus << 1U << 1U << sentinel;
}

void TestLets::letStatus()
{
    QFETCH(uint, channelStatus);
    QFETCH(uint, enabled);
    QFETCH(uint, presence);
    QFETCH(uint, status);

    for (const uint channel : {0U, 1U}) {
        TalBench bench(6420);
        for (AmpChannelRow &row : bench.records().ampChannel.rows)
            row.status = 2;
        bench.records().ampChannel.rows[channel].status = channelStatus;
        LetEntry &let = entry(bench, channel, 4);
        let.letStatus = sentinel;
        let.letEnabled = enabled;
        bench.handler.slotLetPrecenseUpdate(channel, 4, presence);
        QCOMPARE(let.letStatus, status);
        QCOMPARE(let.letPresence, presence);
        QCOMPARE(let.changed.status, std::uint8_t{1}); // even where the status stays

        if (enabled == 0)
            continue;
        let.letStatus = sentinel;
        let.letEnabled = 0;
        let.changed.status = 0;
        letEnable(bench, channel, 4, enabled == 1 ? "true" : "false");
        QCOMPARE(let.letStatus, status);
        QCOMPARE(let.changed.status, std::uint8_t{1});
    }
}

void TestLets::letStatusOfAnUnknownChannelStatusSetsTheFlagAllTheSame()
{
    TalBench bench(6420);
    bench.records().ampChannel.rows[1].status = 0;
    bench.handler.slotLetPrecenseUpdate(1, 8, 2);
    QCOMPARE(content(entry(bench, 1, 8)), qs("0 2 0 '' '' '' 0 flags 10000"));
}

void TestLets::letStatusWithoutPresence()
{
    TalBench bench(6420);
    bench.records().ampChannel.rows[0].status = 3;
    letEnable(bench, 0, 2, "true");
    QCOMPARE(entry(bench, 0, 2).letStatus, 3U);
    letEnable(bench, 0, 3, "false");
    QCOMPARE(entry(bench, 0, 3).letStatus, 2U);
}

void TestLets::letStatusFollowsEnableAndPresence()
{
    TalBench bench(6720);
    bench.leaf("kvsnmp_class_d_status", "create", qs("/state/class_d_amp_status/status"), qs("ok"));
    ampEnable(bench, 0, "true");
    bench.handler.slotAmpChannelStatusUpdate(0, 2);
    QCOMPARE(channelStatuses(bench), Numbers({3, 1}));

    letEnable(bench, 0, 4, "true");
    bench.handler.slotLetPrecenseUpdate(0, 4, 1);
    QCOMPARE(entry(bench, 0, 4).letStatus, 4U);
    bench.handler.slotLetPrecenseUpdate(0, 4, 2);
    QCOMPARE(entry(bench, 0, 4).letStatus, 3U);
    letEnable(bench, 0, 4, "false");
    QCOMPARE(entry(bench, 0, 4).letStatus, 2U);
}

void TestLets::channelStatusAloneDoesNotDeriveLetsAgain()
{
    TalBench bench(6425);
    ampEnable(bench, 0, "true");
    bench.handler.slotAmpChannelStatusUpdate(0, 2);
    letEnable(bench, 0, 1, "true");
    QCOMPARE(entry(bench, 0, 1).letStatus, 3U);
    entry(bench, 0, 1).changed.status = 0;

    ampEnable(bench, 0, "false");
    bench.handler.slotAmpChannelStatusUpdate(0, 1);
    QCOMPARE(channelStatuses(bench), Numbers({2, 1}));
    QCOMPARE(entry(bench, 0, 1).letStatus, 3U);
    QCOMPARE(entry(bench, 0, 1).changed.status, std::uint8_t{0});

    bench.handler.slotLetPrecenseUpdate(0, 1, 1);
    QCOMPARE(entry(bench, 0, 1).letStatus, 1U);
}

void TestLets::letPresenceSlot_data()
{
    QTest::addColumn<uint>("channel");
    QTest::addColumn<uint>("let");
    QTest::addColumn<uint>("presence");
    for (uint channel = 0; channel < 2; ++channel)
        for (uint let = 1; let <= 10; ++let)
            for (const uint presence : {1U, 2U})
                QTest::addRow("channel %u LET %u presence %u", channel, let, presence) << channel << let << presence;
}

void TestLets::letPresenceSlot()
{
    QFETCH(uint, channel);
    QFETCH(uint, let);
    QFETCH(uint, presence);

    TalBench bench(6214); // the model is not looked at
    bench.handler.slotLetPrecenseUpdate(channel, let, presence);
    QCOMPARE(content(entry(bench, channel, let)), QStringLiteral("1 %1 0 '' '' '' 0 flags 10000").arg(presence));
    QCOMPARE(touchedLets(bench).size(), 1);
    QCOMPARE(bench.log.lines(), QStringList());
}

void TestLets::letPresenceSlotOutOfRangeIsIgnored_data()
{
    QTest::addColumn<uint>("channel");
    QTest::addColumn<uint>("let");
    QTest::addColumn<uint>("presence");
    QTest::newRow("channel 2") << 2U << 1U << 1U;
    QTest::newRow("huge channel") << huge << 1U << 1U;
    QTest::newRow("LET 0") << 0U << 0U << 1U;
    QTest::newRow("LET 11") << 1U << 11U << 1U;
    QTest::newRow("huge LET") << 0U << huge << 1U;
    QTest::newRow("presence 0") << 0U << 1U << 0U;
    QTest::newRow("presence 3") << 1U << 10U << 3U;
    QTest::newRow("huge presence") << 0U << 1U << huge;
}

void TestLets::letPresenceSlotOutOfRangeIsIgnored()
{
    QFETCH(uint, channel);
    QFETCH(uint, let);
    QFETCH(uint, presence);

    TalBench bench(6420);
    bench.handler.slotLetPrecenseUpdate(channel, let, presence);
    QCOMPARE(touchedLets(bench), QStringList());
    QCOMPARE(bench.log.lines(), QStringList());
}

void TestLets::letsOutsideTheTableAreNeverAddressed_data()
{
    QTest::addColumn<uint>("channel");
    QTest::addColumn<uint>("let");
    QTest::newRow("LET 0") << 0U << 0U;
    QTest::newRow("LET 11") << 1U << 11U;
    QTest::newRow("huge LET") << 1U << huge;
    QTest::newRow("third channel") << 2U << 1U;
}

void TestLets::letsOutsideTheTableAreNeverAddressed()
{
    QFETCH(uint, channel);
    QFETCH(uint, let);

    TalBench bench(6420);
    for (const char *op : {"create", "delete"}) {
        letEnable(bench, channel, let, "true", op);
        letVoltage(bench, channel, let, "24.0", op);
        for (const LetText &which : letTexts)
            letText(bench, which, channel, let, qs("text"), op);
    }
    QCOMPARE(touchedLets(bench), QStringList());
    QCOMPARE(bench.log.lines(), QStringList());
}

void TestLets::kidsAreComparedAsNumbers_data()
{
    QTest::addColumn<QString>("kid");
    QTest::addColumn<bool>("isLet3");
    for (const char *kid : {"3", "03", "003", "3.0", "3.", " 3 ", "\n3\n"})
        QTest::addRow("'%s'", kid) << qs(kid) << true;
    for (const char *kid : {"", "3.5", "+3", "-3", "3e0", "0x3", "3x", "3 3", "three", "\xd9\xa3"})
        QTest::addRow("'%s'", kid) << qs(kid) << false;
}

void TestLets::kidsAreComparedAsNumbers()
{
    QFETCH(QString, kid);
    QFETCH(bool, isLet3);

    TalBench bench(6420);
    const QString lets = qs("<lets><let><kid>%1</kid><enabled>true</enabled><let_description>d</let_description>"
                            "<hw_version>h</hw_version><sw_version>s</sw_version><let_vcc>24</let_vcc></let></lets>")
                             .arg(kid);
    for (const char *ref : {"kvsnmp_let_enable", "kvsnmp_let_description"})
        bench.notify(ref, "create", qs("/state/config/lines/line[kid='ch1']/lets"), lets);
    for (const char *ref : {"kvsnmp_let_hw_version", "kvsnmp_let_sw_version", "kvsnmp_let_voltage"})
        bench.notify(ref, "create", qs("/state/lines/line[kid='ch1']/lets"), lets);
    QCOMPARE(content(entry(bench, 0, 3)), isLet3 ? qs("1 0 1 'd' 's' 'h' 24000 flags 11111") : untouched);
    QCOMPARE(touchedLets(bench).size(), isLet3 ? 1 : 0);
}

void TestLets::letTextOfEachLet_data()
{
    QTest::addColumn<int>("which");
    QTest::addColumn<uint>("channel");
    QTest::addColumn<uint>("let");
    for (int which = 0; which < 3; ++which)
        for (uint channel = 0; channel < 2; ++channel)
            for (uint let = 1; let <= 10; ++let)
                QTest::addRow("%s channel %u LET %u", letTexts[which].leaf, channel, let) << which << channel << let;
}

void TestLets::letTextOfEachLet()
{
    QFETCH(int, which);
    QFETCH(uint, channel);
    QFETCH(uint, let);

    const QString expected[] = {qs("0 0 0 'Text 1.2' '' '' 0 flags 01000"), qs("0 0 0 '' 'Text 1.2' '' 0 flags 00100"),
                                qs("0 0 0 '' '' 'Text 1.2' 0 flags 00010")};
    for (const uint model : {6420U, 6913U}) // the model is not looked at
        for (const char *op : {"create", "replace"}) {
            TalBench bench(model);
            letText(bench, letTexts[which], channel, let, qs("Text 1.2"), op);
            QCOMPARE(content(entry(bench, channel, let)), expected[which]);
            QCOMPARE(touchedLets(bench).size(), 1);
            QCOMPARE(bench.log.lines(), QStringList());
        }
}

void TestLets::letTextIsBounded_data()
{
    QTest::addColumn<int>("which");
    QTest::addColumn<int>("length");
    for (int which = 0; which < 3; ++which)
        for (const int over : {-1, 0, 1, 2, 1000, 100000})
            QTest::addRow("%s %+d", letTexts[which].leaf, over) << which << letTexts[which].capacity + over;
}

void TestLets::letTextIsBounded()
{
    QFETCH(int, which);
    QFETCH(int, length);

    const LetText &text = letTexts[which];
    QString sent;
    for (int i = 0; i < length; ++i)
        sent += QChar::fromLatin1(static_cast<char>('a' + i % 26));

    TalBench bench(6420);
    LetEntry &let = entry(bench, 0, 10);
    letText(bench, text, 0, 10, sent);
    QCOMPARE(QString::fromLatin1(text.stored(let)), sent.left(text.capacity));
    QCOMPARE(let.changed.*text.flag, std::uint8_t{1});
    // Neither what follows the buffer in the entry nor the next entry is written.
    QCOMPARE(let.letVoltage, 0U);
    QCOMPARE(int(let.changed.description) + let.changed.softwareVersion + let.changed.hardwareVersion, 1);
    QCOMPARE(touchedLets(bench), QStringList{qs("0/10")});
    for (const LetText &other : letTexts)
        if (other.leaf != text.leaf)
            QCOMPARE(QByteArray(other.stored(let)), QByteArray());
}

void TestLets::letTextIsLatin1()
{
    TalBench bench(6420);
    letText(bench, letTexts[0], 0, 1,
            QString::fromUtf8("Gr\xc3\xbc\xc3\x9f"
                              "e & <Saal>"));
    QCOMPARE(QByteArray(entry(bench, 0, 1).description), QByteArray("Gr\xfc\xdf"
                                                                    "e & <Saal>"));
    QString beyond(100, QChar(0x00e9)); // two bytes each in UTF-8, one in Latin-1: all of them fit
    letText(bench, letTexts[0], 0, 2, beyond);
    QCOMPARE(QByteArray(entry(bench, 0, 2).description), QByteArray(100, '\xe9'));
    letText(bench, letTexts[0], 0, 3, QString::fromUtf8("5 \xe2\x82\xac \xf0\x9f\x94\x8a")); // outside Latin-1
    QCOMPARE(QByteArray(entry(bench, 0, 3).description), QByteArray("5 ? ??"));
}

void TestLets::letTextMayBeEmptyOrShorter()
{
    for (const LetText &text : letTexts) {
        TalBench bench(6420);
        LetEntry &let = entry(bench, 1, 3);
        letText(bench, text, 1, 3, qs("a longer text"));
        letText(bench, text, 1, 3, qs("short"));
        QCOMPARE(QByteArray(text.stored(let)), QByteArray("short"));
        let.changed.*text.flag = 0;
        letText(bench, text, 1, 3, QString());
        QCOMPARE(QByteArray(text.stored(let)), QByteArray());
        QCOMPARE(let.changed.*text.flag, std::uint8_t{1});
    }
}

void TestLets::letTextDeleteLeavesTextAndFlag_data()
{
    QTest::addColumn<int>("which");
    QTest::addColumn<int>("flag");
    for (int which = 0; which < 3; ++which)
        for (const int flag : {0, 1})
            QTest::addRow("%s, flag %d", letTexts[which].leaf, flag) << which << flag;
}

void TestLets::letTextDeleteLeavesTextAndFlag()
{
    QFETCH(int, which);
    QFETCH(int, flag);

    const LetText &text = letTexts[which];
    TalBench bench(6420);
    LetEntry &let = entry(bench, 0, 5);
    letText(bench, text, 0, 5, qs("kept"));
    let.changed.*text.flag = static_cast<std::uint8_t>(flag);
    letText(bench, text, 0, 5, qs("kept"), "delete");
    bench.notify(text.ref, "delete", text.path(0, 5, text.leaf), QString());
    QCOMPARE(QByteArray(text.stored(let)), QByteArray("kept"));
    QCOMPARE(int(let.changed.*text.flag), flag);
}

void TestLets::letTextUnexpectedOperation()
{
    for (const LetText &text : letTexts) {
        TalBench bench(6420);
        letText(bench, text, 0, 5, qs("text"), "patch");
        QCOMPARE(touchedLets(bench), QStringList());
        const QStringList lines = bench.log.lines();
        QCOMPARE(lines.size(), 1);
        const QString path = text.path(0, 5, text.leaf);
        QVERIFY2(lines[0].endsWith(
                     QStringLiteral(" op: patch rPath: %1 sPath: %2 kid: ch1 5").arg(path, withoutPredicates(path))),
                 qPrintable(lines[0]));
    }
}

void TestLets::letVoltageOfEachLet_data()
{
    letEnableOfEachLet_data();
}

void TestLets::letVoltageOfEachLet()
{
    QFETCH(uint, channel);
    QFETCH(uint, let);

    for (const uint model : {6720U, 6602U}) // the model is not looked at
        for (const char *op : {"create", "replace"}) {
            TalBench bench(model);
            letVoltage(bench, channel, let, "24.13", op);
            QCOMPARE(content(entry(bench, channel, let)), qs("0 0 0 '' '' '' 24130 flags 00001"));
            QCOMPARE(touchedLets(bench).size(), 1);
            QCOMPARE(bench.log.lines(),
                     QStringList{QStringLiteral("stateLetVoltageUpdate Channel: %1 LET: %2 Voltage: 24130")
                                     .arg(channel + 1)
                                     .arg(let)});
        }
}

void TestLets::letVoltageTexts_data()
{
    QTest::addColumn<QByteArray>("op");
    QTest::addColumn<QByteArray>("text");
    QTest::addColumn<uint>("millivolts");
    const auto row = [](const char *name, const char *op, const char *text, uint millivolts) {
        QTest::newRow(name) << QByteArray(op) << QByteArray(text) << millivolts;
    };
    row("create", "create", "23.9", 23900);
    row("replace", "replace", "48", 48000);
    row("negative comes out positive", "replace", "-1.5", 1500);
    row("scale runs out", "replace", "1.2345", 0);
    row("no digits", "replace", "unknown", 0);
    row("empty", "replace", "", 0);
    row("delete", "delete", "23.9", 0);
}

void TestLets::letVoltageTexts()
{
    QFETCH(QByteArray, op);
    QFETCH(QByteArray, text);
    QFETCH(uint, millivolts);

    TalBench bench(6764);
    LetEntry &let = entry(bench, 1, 9);
    let.letVoltage = 7;
    letVoltage(bench, 1, 9, text, op);
    QCOMPARE(let.letVoltage, millivolts);
    QCOMPARE(let.changed.voltage, std::uint8_t{1});
    QCOMPARE(bench.log.lines(),
             QStringList{QStringLiteral("stateLetVoltageUpdate Channel: 2 LET: 9 Voltage: %1").arg(millivolts)});
}

void TestLets::letVoltageUnexpectedOperation()
{
    TalBench bench(6420);
    letVoltage(bench, 1, 9, "24.0", "patch");
    QCOMPARE(touchedLets(bench), QStringList());
    const QStringList lines = bench.log.lines();
    QCOMPARE(lines.size(), 1);
    QVERIFY2(lines[0].endsWith(qs(" op: patch rPath: /state/lines/line[kid='ch2']/lets/let[kid='9']/let_vcc"
                                  " sPath: /state/lines/line/lets/let/let_vcc kid: ch2 9")),
             qPrintable(lines[0]));
}

void TestLets::letsAreWalkedInOrder()
{
    TalBench bench(6420);
    const QString lines =
        qs("<lines><line><kid>ch2</kid><lets><let><kid>1</kid><let_vcc>4</let_vcc></let></lets></line>"
           "<line><kid>ch1</kid><lets><let><kid>10</kid><let_vcc>3</let_vcc></let>"
           "<let><kid>2</kid><let_vcc>2</let_vcc></let></lets></line></lines>");
    bench.notify("kvsnmp_let_voltage", "replace", qs("/state/lines"), lines, qs("/state/lines/line/lets/let/let_vcc"));
    QCOMPARE(bench.log.lines(), QStringList({qs("stateLetVoltageUpdate Channel: 1 LET: 2 Voltage: 2000"),
                                             qs("stateLetVoltageUpdate Channel: 1 LET: 10 Voltage: 3000"),
                                             qs("stateLetVoltageUpdate Channel: 2 LET: 1 Voltage: 4000")}));
}

const TestEntry entry("tst_lets", runTest<TestLets>);
#include "tst_lets.moc"
