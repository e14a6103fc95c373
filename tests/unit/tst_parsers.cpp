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

struct Word {
    QString text;
    QString code;
};

/// A parser that feeds a field of the records, with its keys in order.
struct Parser : Row {
    QString name() const { return text("parser"); }
    uint model() const { return keys.last().has(6420) ? 6420 : keys.last().list("models").first().toUInt(); }
    QVector<Row> keys;
    QVector<Word> words;
};

QVector<Word> wordsOf(const Row &parser)
{
    QVector<Word> words;
    for (const QString &word : parser.list("words"))
        words << Word{word.section(QLatin1Char('='), 0, 0), word.section(QLatin1Char('='), 1)};
    return words;
}

const QVector<Parser> &parsers()
{
    static const QVector<Parser> all = [] {
        QVector<Parser> found;
        for (const Row &row : catalogue::rows("parsers")) {
            Parser parser{row, {}, wordsOf(row)};
            for (Row key : catalogue::rows("keys")) { // the three fields of a sensor share their rows
                if (parser.name().startsWith(qs("temp_")))
                    key[qs("field")] += parser.name().mid(4).replace(QLatin1Char('_'), QLatin1Char('.'));
                if (key.list("parser").contains(parser.name()))
                    parser.keys << key;
            }
            if (!parser.keys.isEmpty())
                found << parser;
        }
        return found;
    }();
    return all;
}

Word goodWord(const Parser &parser)
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
    return parser.words.last();
}

/// A client with every number at 77, and what one notification does to it.
class ParserBench : public TalBench {
public:
    explicit ParserBench(uint number, const char *description = ordinaryDescription)
        : TalBench(number, description), model(number)
    {}

    QStringList send(const Parser &parser, const QString &op, const QString &key, const QString &text)
    {
        log.takeLines();
        recordfields::fill(records(), sentinel);
        const TableRecords before = records();
        leaf(parser.latin1("reference"), op.toLatin1(), parser.pathOf(key), text);
        QStringList changes = recordfields::changes(before, records());
        std::memset(&records(), 0, sizeof(TableRecords));
        changes.sort();
        return changes;
    }

    /// The new value of the key's field, empty when it stays.
    QString stored(const Parser &parser, const QString &op, const Row &key, const QString &text)
    {
        for (const QString &change : send(parser, op, key.text("key"), text))
            if (change.startsWith(key.text("field") + QLatin1Char('=')))
                return change.section(QLatin1Char('='), 1);
        return {};
    }

    const uint model;
};

/// What storing `value` changes, with what follows from it. Every other number is 77, no pilot tone was ever read, and
/// the class-D status is unknown, but ok on model 6425.
QStringList expectedChanges(const Parser &parser, uint model, const QString &field, const QString &value)
{
    const QString name = parser.name();
    const QString row = field.section(QLatin1Char('.'), 0, -2);
    const QString member = field.section(QLatin1Char('.'), -1);
    QStringList changes{field + QLatin1Char('=') + value};
    if (name == qs("amp_enable"))
        changes << row + qs(model == 6425 && value == qs("1") ? ".status=2" : ".status=1");
    else if (name.startsWith(qs("let_")))
        changes << qs("%1.changed.%2=1")
                       .arg(row, name == qs("let_enable")    ? qs("status")
                                 : name == qs("let_voltage") ? qs("voltage")
                                                             : member);
    return changes;
}

QStringList storedLines(const Parser &parser, uint model, const QString &key, const QString &field,
                        const QString &value)
{
    const QString name = parser.name();
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

QString complaint(const Parser &parser, const QString &op, const QString &key)
{
    const QString path = parser.pathOf(key);
    QString line = qs("%1 op: %2 rPath: %3 sPath: %4").arg(parser.text("complaint"), op, path, withoutPredicates(path));
    if (!parser.text("label").isEmpty())
        line += qs(" %1 %2").arg(parser.text("label"), key);
    return line;
}

/// The value for a text that is no word; `last` is what the parser produced last. Empty: nothing is stored.
QString otherValue(const Parser &parser, const QString &last)
{
    const QString other = parser.text("other");
    if (other == qs("last"))
        return last;
    return other == qs("ignored") ? QString() : other;
}

bool isStored(const QString &value)
{
    return value != qs("ignored") && value != qs("handled");
}
} // namespace

class TestParsers : public QObject {
    Q_OBJECT

private Q_SLOTS:
    /// Also the keys that only other models have, and keys of no model.
    void everyKeyOfEveryModel()
    {
        for (const uint model : catalogue::models() + QVector<uint>{6412})
            for (const char *description : {ordinaryDescription, "", stationCompact, stationExtended}) {
                const AtRow atModel(QByteArray::number(model));
                const AtRow atDescription(description);
                everyKey(model, description);
            }
    }

    /// On the first and the last key of a model that has them: each word, and texts that are none.
    void everyWord()
    {
        for (const Parser &parser : parsers()) {
            const QVector<Word> &words = parser.words;
            if (words.isEmpty())
                continue; // numbers() and the LET texts
            QVector<Row> keys;
            for (const Row &key : parser.keys)
                if (key.has(parser.model(), true))
                    keys << key;
            QStringList others{qs("some other text"), QString(), qs("77")};
            for (const Word &word : {words.first(), words.last()})
                others << word.text.toUpper() << word.text + QLatin1Char(' ') << QLatin1Char(' ') + word.text;
            const QString gone = parser.text("delete");
            for (const QString &op : {qs("create"), qs("replace")})
                for (const QString &other : qAsConst(others))
                    for (const bool first : {true, false}) {
                        const Row &key = first ? keys.first() : keys.last();
                        const Row &otherKey = first ? keys.last() : keys.first();
                        ParserBench bench(parser.model(), stationCompact);
                        QCOMPARE(bench.stored(parser, op, key, other), otherValue(parser, qs("0"))); // before any word
                        for (const Word &word : words) {
                            QCOMPARE(bench.stored(parser, op, key, word.text), word.code);
                            QCOMPARE(bench.stored(parser, op, otherKey, other), otherValue(parser, word.code));
                        }
                        for (const QString &text : {words.last().text, QString()})
                            QCOMPARE(bench.stored(parser, qs("delete"), key, text), isStored(gone) ? gone : QString());
                        QCOMPARE(bench.stored(parser, op, otherKey, other),
                                 otherValue(parser, isStored(gone) ? gone : words.last().code));
                    }
        }
    }

    /// tst_keystep tests the scaled ones.
    void wholeNumbers()
    {
        static constexpr struct {
            const char *texts;
            uint value;
        } rows[] = {
            {"48| \t48\n|+48|048", 48},
            {"4294967295", 4294967295},
            {"|4294967296|23.9|0x10|48ms|4 8|-48|+ 48|\xd9\xa4\xd9\xa8|soon", 0},
        };
        int asked = 0;
        for (const Parser &parser : parsers())
            for (const auto &[texts, value] : rows)
                for (const QString &text : qs(texts).split(QLatin1Char('|'))) {
                    if (parser.text("other") != qs("whole"))
                        continue;
                    const AtRow at(text.toUtf8());
                    ParserBench bench(parser.model(), stationCompact);
                    QCOMPARE(bench.stored(parser, qs("replace"), parser.keys.last(), text), QString::number(value));
                    ++asked;
                }
        QVERIFY(asked > 0);
    }

    void lastValueIsOfThisParserOnly()
    {
        int asked = 0;
        for (const Parser &parser : parsers())
            for (const uint model : catalogue::models()) {
                const Row own = parser.keys.first();
                if (parser.text("other") != qs("last") || !own.has(model))
                    continue;
                ParserBench bench(model);
                for (const Parser &other : parsers())
                    for (const Row &key : other.keys)
                        if (other.name() != parser.name() && key.has(model, false)) {
                            bench.send(other, qs("replace"), key.text("key"), goodWord(other).text);
                            ++asked; // with a value that could have been kept instead
                            break;
                        }
                QCOMPARE(bench.send(parser, qs("replace"), own.text("key"), qs("no word")),
                         QStringList{own.text("field") + qs("=0")});
            }
        QVERIFY(asked > 0);
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

    void slotsStoreWhatIsInTheirRange()
    {
        const struct {
            const char *field;
            uint rows;
            QVector<Word> values; // with an empty code when the slot ignores it
            void (*call)(TalHandler &handler, uint id, const QString &value);
        } rows[] = {
            {"controlOutput.%1", 6, statuses(3),
             [](auto &handler, uint id, auto &status) { handler.slotSetControlOutputStatus(id, status.toUInt()); }},
            {"controlInput.%1.status", 14, statuses(3),
             [](auto &handler, uint id, auto &status) { handler.slotSetControlInputStatus(id, status.toUInt()); }},
            {"relay.%1.status", 12, statuses(4),
             [](auto &handler, uint id, auto &status) { handler.slotSetRelayStatus(id, status.toUInt()); }},
            {"controlOutput.%1", 6, states("output_state"), // does not look at the system state
             [](auto &handler, uint id, auto &state) { handler.slotGpoUpdate(id, state, qs("ok_cleared")); }},
            {"controlInput.%1.status", 14, states("input_state"),
             [](auto &handler, uint id, auto &state) { handler.slotGpiUpdate(id, state); }},
        };
        for (const auto &row : rows)
            for (const uint model : {6214U, 6913U})
                for (const uint id : {0U, 2U, 3U, 5U, 6U, 7U, 11U, 12U, 13U, 14U, 15U, huge})
                    for (const Word &value : row.values) {
                        TalBench bench(model);
                        recordfields::fill(bench.records(), sentinel);
                        const TableRecords before = bench.records();
                        row.call(bench.handler, id, value.text);
                        const bool stored = id < row.rows && !value.code.isEmpty();
                        QCOMPARE(recordfields::changes(before, bench.records()) + bench.log.lines(),
                                 stored ? QStringList{qs(row.field).arg(id) + qs("=") + value.code} : QStringList());
                    }
    }

private:
    static void everyKey(uint model, const QByteArray &description)
    {
        ParserBench bench(model, description);
        for (const Parser &parser : parsers()) {
            const QString name = parser.name();
            const bool ofLets = name.startsWith(qs("let_"));
            if (description != ordinaryDescription && !name.startsWith(qs("relay_")))
                continue; // the others do not look at the description
            if (ofLets && model != 6420 && model != 6211)
                continue; // nor do these at the model, and there are many
            QStringList keys =
                qs(ofLets ? "ch0 1,ch3 1,ch1 0,ch2 11,ch1 4294967297,ch1 " : ",unknown_key,ch0,ch3,gpi0,gpi7,e_relay9")
                    .split(QLatin1Char(','));
            for (const Row &key : parser.keys)
                keys << key.text("key") << key.text("key").toUpper();
            keys.removeDuplicates();
            for (const QString &key : qAsConst(keys)) {
                QStringList fields;
                for (const Row &fed : parser.keys)
                    if (fed.text("key") == key && fed.has(model, description.contains("IP-QRM")))
                        fields << fed.text("field");
                everyOperation(bench, parser, key, fields);
            }
        }
    }

    static void everyOperation(ParserBench &bench, const Parser &parser, const QString &key, const QStringList &fields)
    {
        const Word word = goodWord(parser);
        for (const QString &op : qs("create,replace,delete,patch,Create,REPLACE,delete ,").split(QLatin1Char(','))) {
            const QString value = op == qs("delete") ? parser.text("delete") : word.code;
            QStringList changes;
            QStringList lines;
            for (const QString &field : fields) {
                if (!qs("create replace delete").split(QLatin1Char(' ')).contains(op)) {
                    lines << complaint(parser, op, key);
                    continue;
                }
                if (isStored(value)) {
                    changes << expectedChanges(parser, bench.model, field, value);
                    lines << storedLines(parser, bench.model, key, field, value);
                }
                if (parser.name() == qs("line_state")) // the pilot tone beside it, none so far
                    changes << qs("lineIn.%1.lineInStatus=0").arg(field.section(QLatin1Char('.'), 1, 1));
            }
            changes.sort();
            const QStringList got = bench.send(parser, op, key, word.text);
            QVERIFY2(got == changes,
                     qPrintable(op + QLatin1Char(' ') + parser.pathOf(key) + qs(": ") + got.join(QLatin1Char(' '))));
            QCOMPARE(bench.log.lines(), lines);
        }
    }

    static QVector<Word> statuses(uint highest)
    {
        QVector<Word> values;
        for (const uint status : {0U, 1U, 2U, 3U, 4U, 5U, huge})
            values << Word{QString::number(status),
                           status >= 1 && status <= highest ? QString::number(status) : QString()};
        return values;
    }

    static QVector<Word> states(const char *parser)
    {
        QVector<Word> values = wordsOf(catalogue::rows("parsers", "parser", qs(parser)).first());
        for (const char *other : {"", "OK_SET", "Ok_open", "ok_set ", "unknown"})
            values << Word{qs(other), qs("1")};
        return values;
    }
};

const TestEntry entry("tst_parsers", runTest<TestParsers>);
#include "tst_parsers.moc"
