// Every object of every model against the catalogue: a walk, bulk walks, starting values.
#include "support/agentbench.h"
#include "support/catalogue.h"
#include "support/recordfields.h"
#include "support/testprogram.h"

#include "agent/modules.h"

using catalogue::Row;

namespace {
constexpr int startedAmpType = 9; // what the agent was started with

struct Text {
    const char *text;
    bool expanders;
};
constexpr Text texts[] = {{"Orvane Brisel Extended", false},
                          {"Orvane Brisel Compact - IP-QRM-B", true},
                          {"Orvane Brisel Extended - IP-QRM-B", true}};

bool isTable(const Row &object)
{
    return object.text("syntax") == QLatin1String("table");
}

QVector<Row> rowsOf(const QString &table, uint model, bool expanders)
{
    QVector<Row> own;
    for (const Row &row : catalogue::rows("rows", "table", table))
        if (row.has(model, expanders))
            own << row;
    return own;
}

QString ampTypeOf(uint model)
{
    const Row row = catalogue::rows("models", "model", QString::number(model)).first();
    return row.text("file").isEmpty() ? row.text("ampType") : QString::number(startedAmpType);
}

QString withoutQuotes(const QString &text)
{
    return text.startsWith(QLatin1Char('\'')) ? text.mid(1, text.size() - 2) : text;
}

/// A cell of a table's row; without records the one before the first load.
QString cell(const Row &column, const Row &row, const TableRecords *records)
{
    const QString content = column.text("content");
    if (content == QLatin1String("index") || content == QLatin1String("description"))
        return row[content];
    if (content.startsWith(QLatin1Char('\'')))
        return withoutQuotes(content);
    if (records == nullptr || row.text("source").isEmpty())
        return column.text("start");
    const QString field = content == QLatin1String(".") ? QString() : content;
    return withoutQuotes(recordfields::valueOf(*records, row.text("source") + field));
}

QStringList expectedWalk(uint model, bool expanders, const TableRecords *records)
{
    QStringList walk;
    QVector<Row> rows; // of the table above
    const QVector<Row> objects = catalogue::rows("objects");
    for (auto object = objects.begin(); object != objects.end(); ++object) {
        const QString name = QLatin1String("3.") + object->text("arc");
        const QString type = QLatin1Char(' ') + object->text("syntax") + QLatin1Char(' ');
        if (isTable(*object)) {
            rows = rowsOf(object->text("object"), model, expanders);
        } else if (object->text("arc").count(QLatin1Char('.')) >= 3) { // a column
            for (const Row &row : qAsConst(rows))
                walk << name + QLatin1Char('.') + row.text("index") + type + cell(*object, row, records);
        } else {
            QString value = object->text("content"); // of an information text, the name of its field
            if (value == QLatin1String("count"))
                value = QString::number(
                    rowsOf(std::find_if(object, objects.end(), isTable)->text("object"), model, expanders).size());
            else if (value == QLatin1String("ampType"))
                value = ampTypeOf(model);
            else if (value == QLatin1String("modelNumber"))
                value = QString::number(model);
            walk << name + QLatin1String(".0") + type + value;
        }
    }
    return walk;
}

InfoData distinctInfo(uint model)
{
    InfoData info = {};
    fill(info.packageVersion, "packageVersion");
    fill(info.modelType, "modelType");
    info.modelNumber = {static_cast<std::int32_t>(model), 4};
    fill(info.amplifierType, "amplifierType");
    fill(info.kernelVersion, "kernelVersion");
    fill(info.deviceTreeVersion, "deviceTreeVersion");
    info.disablement = {1, 4}; // never served
    return info;
}

QStringList answersOf(uint model, const char *text, const std::function<QStringList()> &questions)
{
    return answeredInOwnProcess([&] {
        static TableRecords records;
        static InfoData info = distinctInfo(model);
        kaAgentStart(model, startedAmpType, text);
        setTalTableData(records);
        records = recordfields::distinct(); // for the loads: the setters have copied nothing of it
        kvAgent->infoData = &info;
        initInfoScalars();
        return questions();
    });
}

void compareWalks(const QStringList &walk, const QStringList &expected)
{
    for (int line = 0; line < qMin(walk.size(), expected.size()); ++line)
        QCOMPARE(walk[line], expected[line]);
    QCOMPARE(walk.size(), expected.size());
}
} // namespace

class TestTables : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void everyObjectOfEveryModel()
    {
        for (const uint model : catalogue::models())
            for (const Text &text : texts) {
                const AtRow atModel(QByteArray::number(model));
                const AtRow atText(text.text);
                everyObject(model, text);
            }
    }

    void nothingIsServedOnAnUnknownModel()
    {
        QCOMPARE(answersOf(6412, texts[1].text, [] { return snmpWalk("3"); }), QStringList());
    }

private:
    static void everyObject(uint model, const Text &device)
    {
        const auto &[text, expanders] = device;
        const TableRecords records = recordfields::distinct();
        const QStringList expected = expectedWalk(model, expanders, &records);
        QStringList all;
        const QVector<int> repetitions = &device == &texts[2] ? QVector<int>{0} : QVector<int>{0, 1, 10, 25, 50};
        for (int walk = 0; walk < repetitions.size(); ++walk)
            all << expected;
        compareWalks(answersOf(model, text,
                               [&] {
                                   QStringList walks;
                                   for (const int each : repetitions)
                                       walks << snmpWalk("3", each);
                                   return walks;
                               }),
                     all);

        // Before a record is there: every load fails. The information scalars are not looked at.
        const QStringList start = answeredInOwnProcess([model, text = text] {
            kaAgentStart(model, startedAmpType, text);
            return snmpWalk("3");
        });
        compareWalks(start.mid(7), expectedWalk(model, expanders, nullptr).mid(7));
    }
};

const TestEntry entry("tst_tables", runTest<TestTables>);
#include "tst_tables.moc"
