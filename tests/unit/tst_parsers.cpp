// Every parser of measured and configured values against the catalogue: each key on each model, each word, each
// operation; and what the other slots store.
#include "support/catalogue.h"
#include "support/recordfields.h"
#include "support/talbench.h"
#include "support/testprogram.h"

#include <cstring>
#include <limits>

using catalogue::Row;

namespace {

constexpr uint huge = std::numeric_limits<uint>::max();
constexpr uint sentinel = 77; // no text has this code

/// The keys of a parser, in order.
const QVector<Row> &keysOf(const Row &parser)
{
    static const QHash<QString, QVector<Row>> keys = [] {
        QHash<QString, QVector<Row>> all;
        for (const Row &row : catalogue::rows("keys"))
            for (const QString &name : row.list("parser")) { // the three fields of a sensor share their rows
                Row one = row;
                if (name.startsWith(qs("temp_")))
                    one[qs("field")] += name.mid(4).replace(QLatin1Char('_'), QLatin1Char('.'));
                all[name] << one;
            }
        return all;
    }();
    static const QVector<Row> none;
    const auto own = keys.find(parser.text("parser"));
    return own == keys.end() ? none : *own;
}

/// The parsers that feed a field of the records.
const QVector<Row> &fieldParsers()
{
    static const QVector<Row> parsers = [] {
        QVector<Row> all;
        for (const Row &parser : catalogue::rows("parsers"))
            if (!keysOf(parser).isEmpty())
                all << parser;
        return all;
    }();
    return parsers;
}

/// A model that has the parser's last key.
uint modelOf(const Row &parser)
{
    const QString model = keysOf(parser).last().list("models").first();
    return model == qs("all") ? 6420 : model.toUInt();
}

QString pathOf(const Row &parser, const QString &key)
{
    QString path = parser.text("path");
    return path.replace(qs("%1"), key.section(QLatin1Char(' '), 0, 0))
        .replace(qs("%2"), key.section(QLatin1Char(' '), 1));
}

struct Word {
    QString text;
    QString code;
};

QVector<Word> wordsOf(const Row &parser)
{
    QVector<Word> words;
    for (const QString &word : parser.list("words"))
        words << Word{word.section(QLatin1Char('='), 0, 0), word.section(QLatin1Char('='), 1)};
    return words;
}

/// A text that the parser takes, and what it keeps for it.
Word goodWord(const Row &parser)
{
    const QString other = parser.text("other");
    if (other == qs("x1000"))
        return {qs("12.34"), qs("12340")};
    if (other == qs("x10"))
        return {qs("41.5"), qs("415")};
    if (other == qs("x1") || other == qs("whole"))
        return {qs("1200"), qs("1200")};
    if (other == qs("text"))
        return {qs("Text 1.2"), qs("'Text 1.2'")};
    return wordsOf(parser).last();
}

/// A client with every number at 77, and what one notification does to it.
class ParserBench : public TalBench {
public:
    using TalBench::TalBench;

    /// The changed fields, sorted.
    QStringList send(const Row &parser, const QString &op, const QString &key, const QString &text)
    {
        log.takeLines();
        recordfields::fill(records(), sentinel);
        const TableRecords before = records();
        leaf(parser.latin1("reference"), op.toLatin1(), pathOf(parser, key), text);
        QStringList changes = recordfields::changes(before, records());
        std::memset(&records(), 0, sizeof(TableRecords));
        changes.sort();
        return changes;
    }
};

/// What storing `value` changes, with what follows from it. Every other number is 77, no pilot tone was ever read, and
/// the class-D status is unknown, but ok on model 6425.
QStringList expectedChanges(const Row &parser, uint model, const QString &field, const QString &value)
{
    const QString name = parser.text("parser");
    const QString row = field.section(QLatin1Char('.'), 0, -2);
    QStringList changes{field + QLatin1Char('=') + value};
    if (name == qs("amp_enable"))
        changes << row + qs(model == 6425 && value == qs("1") ? ".status=2" : ".status=1");
    else if (name == qs("let_enable"))
        changes << row + qs(".changed.status=1");
    else if (name == qs("let_voltage"))
        changes << row + qs(".changed.voltage=1");
    else if (name.startsWith(qs("let_")))
        changes << row + qs(".changed.") + field.section(QLatin1Char('.'), -1) + qs("=1");
    return changes;
}

/// The debug lines of a stored value.
QStringList storedLines(const Row &parser, uint model, const QString &key, const QString &field, const QString &value)
{
    const QString name = parser.text("parser");
    if (name == qs("fan") && model != 6410)
        return {qs("stateSnmpAgentFanTableUpdate %1 %2")
                    .arg(field == qs("fan.0") ? qs("fanLeft:") : qs("fanRight:"), value)};
    if (name == qs("relay_delay"))
        return {qs("configRelayDelayUpdate %1  delay: %2").arg(key, value)};
    if (name == qs("let_voltage"))
        return {qs("stateLetVoltageUpdate Channel: %1 LET: %2 Voltage: %3")
                    .arg(key.mid(2, 1), key.section(QLatin1Char(' '), 1), value)};
    return {};
}

/// The debug line about an operation that is not known.
QString complaint(const Row &parser, const QString &op, const QString &key)
{
    const QString path = pathOf(parser, key);
    QString line = qs("%1 op: %2 rPath: %3 sPath: %4").arg(parser.text("complaint"), op, path, withoutPredicates(path));
    if (!parser.text("label").isEmpty())
        line += qs(" %1 %2").arg(parser.text("label"), key);
    return line;
}

/// The value for a text that is no word; `last` is what the parser produced last. Empty: nothing is stored.
QString otherValue(const Row &parser, const QString &last)
{
    const QString other = parser.text("other");
    if (other == qs("last"))
        return last;
    return other == qs("ignored") ? QString() : other;
}

} // namespace

Q_DECLARE_METATYPE(Row)

/// A slot with a number and a status, and one with a number and a word.
using Slot = void (*)(TalHandler &, uint, uint);
using WordSlot = void (*)(TalHandler &, uint, const QString &);
Q_DECLARE_METATYPE(Slot)
Q_DECLARE_METATYPE(WordSlot)

// Also the keys that only other models have, and keys of no model.
// On the first and the last key of a model that has them: each word, and texts that are none.
// A call outside the ranges is ignored.

class TestParsers : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void everyKeyOfEveryModel_data()
    {
        QTest::addColumn<uint>("model");
        QTest::addColumn<QByteArray>("description");
        for (const uint model : catalogue::models() + QVector<uint>{6412})
            for (const char *description : {ordinaryDescription, "", stationCompact, stationExtended})
                QTest::addRow("%u '%s'", model, description) << model << QByteArray(description);
    }

    void everyKeyOfEveryModel()
    {
        QFETCH(uint, model);
        QFETCH(QByteArray, description);

        const bool expanders = description == stationCompact || description == stationExtended;
        ParserBench bench(model, description);
        for (const Row &parser : fieldParsers()) {
            const QString name = parser.text("parser");
            const bool ofLets = name.startsWith(qs("let_"));
            if (description != ordinaryDescription && !name.startsWith(qs("relay_")))
                continue; // the others do not look at the description
            if (ofLets && model != 6420 && model != 6211)
                continue; // nor do these at the model, and there are many
            QStringList keys{QString(),  qs("unknown_key"), qs("ch0"),     qs("ch3"),
                             qs("gpi0"), qs("gpi7"),        qs("e_relay9")};
            if (ofLets)
                keys = qs("ch0 1,ch3 1,ch1 0,ch2 11,ch1 4294967297,ch1 ").split(QLatin1Char(','));
            for (const Row &key : keysOf(parser))
                keys << key.text("key") << key.text("key").toUpper();
            keys.removeDuplicates();
            const Word word = goodWord(parser);
            for (const QString &key : qAsConst(keys)) {
                QStringList fields;
                for (const Row &fed : keysOf(parser))
                    if (fed.text("key") == key && fed.has(model, expanders))
                        fields << fed.text("field");
                for (const QString &op : {qs("create"), qs("replace"), qs("delete"), qs("patch")}) {
                    const QString value = op == qs("delete") ? parser.text("delete") : word.code;
                    const bool stores = value != qs("ignored") && value != qs("handled") && op != qs("patch");
                    QStringList changes;
                    QStringList lines;
                    for (const QString &field : qAsConst(fields)) {
                        if (stores) {
                            changes << expectedChanges(parser, model, field, value);
                            lines << storedLines(parser, model, key, field, value);
                        }
                        if (op == qs("patch"))
                            lines << complaint(parser, op, key);
                        else if (name == qs("line_state")) // the pilot tone beside it, none so far
                            changes << qs("lineIn.%1.lineInStatus=0").arg(field.section(QLatin1Char('.'), 1, 1));
                    }
                    changes.sort();
                    const QStringList got = bench.send(parser, op, key, word.text);
                    QVERIFY2(got == changes, qPrintable(op + QLatin1Char(' ') + pathOf(parser, key) + qs(": ") +
                                                        got.join(QLatin1Char(' '))));
                    QCOMPARE(bench.log.lines(), lines);
                }
            }
        }
    }

    void everyWord_data() { addParsers(); }
    void everyWord()
    {
        QFETCH(Row, parser);

        const QVector<Word> words = wordsOf(parser);
        if (words.isEmpty())
            return; // numbers() and the LET texts
        const uint model = modelOf(parser);
        QVector<Row> keys;
        for (const Row &key : keysOf(parser))
            if (key.has(model, true))
                keys << key;
        const auto stored = [&](ParserBench &bench, const QString &op, const Row &key, const QString &text) {
            for (const QString &change : bench.send(parser, op, key.text("key"), text))
                if (change.startsWith(key.text("field") + QLatin1Char('=')))
                    return change.section(QLatin1Char('='), 1);
            return QString();
        };
        QStringList others{qs("some other text"), QString(), qs("77")};
        for (const Word &word : {words.first(), words.last()})
            others << word.text.toUpper() << word.text + QLatin1Char(' ') << QLatin1Char(' ') + word.text;

        for (const Row *key : {&keys.first(), &keys.last()}) {
            const Row &otherKey = key == &keys.first() ? keys.last() : keys.first();
            for (const QString &op : {qs("create"), qs("replace")})
                for (const QString &other : qAsConst(others)) {
                    ParserBench bench(model, stationCompact);
                    QCOMPARE(stored(bench, op, *key, other), otherValue(parser, qs("0"))); // before any word
                    for (const Word &word : words) {
                        QCOMPARE(stored(bench, op, *key, word.text), word.code);
                        QCOMPARE(stored(bench, op, otherKey, other), otherValue(parser, word.code));
                    }
                    const QString gone = parser.text("delete");
                    const bool stores = gone != qs("ignored") && gone != qs("handled");
                    QCOMPARE(stored(bench, qs("delete"), *key, words.last().text), stores ? gone : QString());
                    QCOMPARE(stored(bench, qs("delete"), *key, QString()), stores ? gone : QString());
                    QCOMPARE(stored(bench, op, otherKey, other), otherValue(parser, stores ? gone : words.last().code));
                }
        }
    }

    void numbers_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<QStringList>("values"); // with scale 1000, 10 and 1, and as a whole number
        // clang-format off
        const struct { const char *name; const char *text; const char *values; } rows[] = {
            {"one decimal",                 "23.9",       "23900 239 0 0"},
            {"no decimal",                  "48",         "48000 480 48 48"},
            {"a sign is skipped",           "-5.0",       "5000 50 0 0"},
            {"the scale runs out",          "41.25",      "41250 0 0 0"},
            {"four decimals",               "1.2345",     "0 0 0 0"},
            {"no digits",                   "soon",       "0 0 0 0"},
            {"empty",                       "",           "0 0 0 0"},
            {"zero",                        "0",          "0 0 0 0"},
            {"leading zeros are decimal",   "010",        "10000 100 10 10"},
            {"largest",                     "4294967295", "4294966296 4294967286 4294967295 4294967295"},
            {"too large",                   "4294967296", "0 0 0 0"},
            {"number and unit",             "250ms",      "250000 2500 250 0"},
            {"blanks around it",            " \t250\n",   "250000 2500 250 250"},
            {"blank inside",                "2 50",       "250000 2500 250 0"},
            {"plus sign",                   "+250",       "250000 2500 250 250"},
            {"minus sign",                  "-250",       "250000 2500 250 0"},
            {"blank behind the sign",       "+ 250",      "250000 2500 250 0"},
            {"fraction of two digits",      "1.50",       "1500 0 0 0"},
            {"digits of another script",    "\xd9\xa2\xd9\xa5\xd9\xa0", "250000 2500 250 0"},
            {"hexadecimal",                 "0x10",       "10000 100 10 0"},
        };
        // clang-format on
        for (const auto &row : rows)
            QTest::newRow(row.name) << qs(row.text) << qs(row.values).split(QLatin1Char(' '));
    }

    void numbers()
    {
        QFETCH(QString, text);
        QFETCH(QStringList, values);

        const QStringList kinds{qs("x1000"), qs("x10"), qs("x1"), qs("whole")};
        for (const Row &parser : fieldParsers()) {
            const int kind = kinds.indexOf(parser.text("other"));
            if (kind < 0)
                continue;
            const Row key = keysOf(parser).last();
            ParserBench bench(modelOf(parser), stationCompact);
            const QStringList changes = bench.send(parser, qs("replace"), key.text("key"), text);
            QVERIFY2(changes.contains(key.text("field") + QLatin1Char('=') + values[kind]),
                     qPrintable(parser.text("parser") + qs(": ") + changes.join(QLatin1Char(' '))));
        }
    }

    void lastValueIsOfThisParserOnly_data() { addParsers("last"); }
    void lastValueIsOfThisParserOnly()
    {
        QFETCH(Row, parser);

        for (const uint model : catalogue::models()) {
            ParserBench bench(model);
            const QVector<Row> own = keysOf(parser);
            if (!own.first().has(model))
                continue;
            for (const Row &other : fieldParsers())
                for (const Row &key : keysOf(other))
                    if (other.text("parser") != parser.text("parser") && key.has(model, false)) {
                        bench.send(other, qs("replace"), key.text("key"), goodWord(other).text);
                        break;
                    }
            const QStringList changes = bench.send(parser, qs("replace"), own.first().text("key"), qs("no word"));
            QCOMPARE(changes, QStringList{own.first().text("field") + qs("=0")});
        }
    }

    void unexpectedOperations_data()
    {
        QTest::addColumn<QString>("op");
        for (const char *op : {"patch", "Create", "REPLACE", "Delete", "delete ", "move", ""})
            QTest::addRow("'%s'", op) << qs(op);
    }

    void unexpectedOperations()
    {
        QFETCH(QString, op);

        for (const Row &parser : fieldParsers()) {
            const Row key = keysOf(parser).last();
            ParserBench bench(modelOf(parser), stationCompact);
            QCOMPARE(bench.send(parser, op, key.text("key"), goodWord(parser).text), QStringList());
            QCOMPARE(bench.log.lines(), QStringList{complaint(parser, op, key.text("key"))});
        }
    }

    void startingValues()
    {
        for (const uint model : catalogue::models() + QVector<uint>{6412}) {
            QStringList expected;
            for (const Row &row : catalogue::rows("startvalues"))
                if (row.has(model))
                    expected << row.text("field") + QLatin1Char('=') + row.text("value");
            expected.sort();
            TalBench bench(model);
            QStringList starting = recordfields::changes(TableRecords{}, bench.records());
            starting.sort();
            QCOMPARE(starting, expected);
        }
    }

    void slotRanges_data()
    {
        QTest::addColumn<QString>("field");
        QTest::addColumn<uint>("rows");
        QTest::addColumn<uint>("highest"); // status; the lowest is 1
        QTest::addColumn<Slot>("call");
        const auto row = [](const char *name, const char *field, uint rows, uint highest, Slot call) {
            QTest::newRow(name) << qs(field) << rows << highest << call;
        };
        row("output", "controlOutput.%1", 6, 3,
            [](TalHandler &h, uint id, uint status) { h.slotSetControlOutputStatus(id, status); });
        row("input", "controlInput.%1.status", 14, 3,
            [](TalHandler &h, uint id, uint status) { h.slotSetControlInputStatus(id, status); });
        row("relay", "relay.%1.status", 12, 4,
            [](TalHandler &h, uint id, uint status) { h.slotSetRelayStatus(id, status); });
    }

    void slotRanges()
    {
        QFETCH(QString, field);
        QFETCH(uint, rows);
        QFETCH(uint, highest);
        QFETCH(Slot, call);

        for (const uint model : {6214U, 6913U})
            for (const uint id : {0U, 3U, 5U, 6U, 11U, 12U, 13U, 14U, huge})
                for (const uint status : {0U, 1U, 2U, 3U, 4U, 5U, huge}) {
                    TalBench bench(model);
                    recordfields::fill(bench.records(), sentinel);
                    const TableRecords before = bench.records();
                    call(bench.handler, id, status);
                    const bool stored = id < rows && status >= 1 && status <= highest;
                    QCOMPARE(recordfields::changes(before, bench.records()),
                             stored ? QStringList{qs("%1=%2").arg(field.arg(id)).arg(status)} : QStringList());
                    QCOMPARE(bench.log.lines(), QStringList());
                }
    }

    void slotWords_data()
    {
        QTest::addColumn<QString>("parser");
        QTest::addColumn<QString>("field");
        QTest::addColumn<uint>("rows");
        QTest::addColumn<WordSlot>("call");
        QTest::newRow("output") << qs("output_state") << qs("controlOutput.%1") << 6U
                                << WordSlot([](TalHandler &h, uint id, const QString &state) {
                                       h.slotGpoUpdate(id, state,
                                                       qs("ok_cleared")); // the system state is not looked at
                                   });
        QTest::newRow("input") << qs("input_state") << qs("controlInput.%1.status") << 14U
                               << WordSlot(
                                      [](TalHandler &h, uint id, const QString &state) { h.slotGpiUpdate(id, state); });
    }

    void slotWords()
    {
        QFETCH(QString, parser);
        QFETCH(QString, field);
        QFETCH(uint, rows);
        QFETCH(WordSlot, call);

        QVector<Word> words = wordsOf(catalogue::rows("parsers", "parser", parser).first());
        for (const char *other : {"", "OK_SET", "Ok_open", "ok_set ", "unknown"})
            words << Word{qs(other), qs("1")};
        for (const uint id : {0U, 2U, 5U, 6U, 7U, 12U, 13U, 14U, 15U, huge})
            for (const Word &word : qAsConst(words)) {
                TalBench bench(6420);
                recordfields::fill(bench.records(), sentinel);
                const TableRecords before = bench.records();
                call(bench.handler, id, word.text);
                QCOMPARE(recordfields::changes(before, bench.records()),
                         id < rows ? QStringList{field.arg(id) + QLatin1Char('=') + word.code} : QStringList());
                QCOMPARE(bench.log.lines(), QStringList());
            }
    }

private:
    static void addParsers(const char *other = nullptr)
    {
        QTest::addColumn<Row>("parser");
        for (const Row &parser : fieldParsers())
            if (other == nullptr || parser.text("other") == qs(other))
                QTest::newRow(parser.latin1("parser")) << parser;
    }
};

const TestEntry entry("tst_parsers", runTest<TestParsers>);
#include "tst_parsers.moc"
