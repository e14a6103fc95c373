// Every object of every model against the catalogue: a walk, bulk walks, starting values, registrations.
#include "support/agentbench.h"
#include "support/catalogue.h"
#include "support/recordfields.h"
#include "support/testprogram.h"

#include "agent/modules.h"
#include "device/boundedtext.h"

#include <QtTest>

using catalogue::Row;

namespace {
const char *const compact = "Orvane Brisel Compact - IP-QRM-B";
const char *const extended = "Orvane Brisel Extended - IP-QRM-B";
const char *const ordinary = "Orvane Brisel Extended";

constexpr int startedAmpType = 9; // what the agent was started with

bool isTable(const Row &object)
{
    return object.text("syntax") == QLatin1String("table");
}

QVector<Row> rowsOf(const QString &table, uint model, bool expanders)
{
    QVector<Row> own;
    const QVector<Row> all = catalogue::rows("rows", "table", table);
    for (const Row &row : all)
        if (row.has(model, expanders))
            own << row;
    return own;
}

QString ampTypeOf(uint model)
{
    const QVector<Row> rows = catalogue::rows("models", "model", QString::number(model));
    return rows.first().text("file").isEmpty() ? rows.first().text("ampType") : QString::number(startedAmpType);
}

/// A cell of a table's row; null: the record of before the first load.
QString cell(const Row &column, const Row &row, const TableRecords *records)
{
    const QString content = column.text("content");
    if (content == QLatin1String("index") || content == QLatin1String("description"))
        return row[content];
    if (content.startsWith(QLatin1Char('\'')))
        return content.mid(1, content.size() - 2);
    if (records == nullptr || row.text("source").isEmpty())
        return column.text("start");
    const QString value =
        recordfields::valueOf(*records, row.text("source") + (content.size() > 1 ? content : QString()));
    return value.startsWith(QLatin1Char('\'')) ? value.mid(1, value.size() - 2) : value;
}

/// The whole walk of a device, column by column and in each the rows.
QStringList expectedWalk(uint model, bool expanders, const TableRecords *records)
{
    QStringList walk;
    QVector<Row> rows; // of the table above
    const QVector<Row> objects = catalogue::rows("objects");
    for (int place = 0; place < objects.size(); ++place) {
        const Row &object = objects[place];
        const QString content = object.text("content");
        const QString name = QLatin1String("3.") + object.text("arc");
        const QString type = QLatin1Char(' ') + object.text("syntax") + QLatin1Char(' ');
        if (isTable(object)) {
            rows = rowsOf(object.text("object"), model, expanders);
            continue;
        }
        const bool isColumn = object.text("arc").count(QLatin1Char('.')) >= 3;
        if (isColumn) {
            for (const Row &row : qAsConst(rows))
                walk << name + QLatin1Char('.') + row.text("index") + type + cell(object, row, records);
            continue;
        }
        QString value = content;               // of an information text, the name of its field
        if (content == QLatin1String("count")) // of the next table
            value = QString::number(
                rowsOf(std::find_if(objects.begin() + place, objects.end(), isTable)->text("object"), model, expanders)
                    .size());
        else if (content == QLatin1String("ampType"))
            value = ampTypeOf(model);
        else if (content == QLatin1String("modelNumber"))
            value = QString::number(model);
        walk << name + QLatin1String(".0") + type + value;
    }
    return walk;
}

/// Each text is the name of its field.
InfoData tellingInfo(uint model)
{
    InfoData info = {};
    const auto fill = [](InfoText &field, const char *value) { field.length = copyBounded(field.text, value); };
    fill(info.packageVersion, "packageVersion");
    fill(info.modelType, "modelType");
    info.modelNumber = {static_cast<std::int32_t>(model), 4};
    fill(info.amplifierType, "amplifierType");
    fill(info.kernelVersion, "kernelVersion");
    fill(info.deviceTreeVersion, "deviceTreeVersion");
    info.disablement = {1, 4}; // never served
    return info;
}

TableRecords records = {};

/// What a started agent answers, in a process of its own.
QStringList answersOf(uint model, const char *text, const std::function<QStringList()> &questions)
{
    return printedInOwnProcess([&] {
        records = recordfields::telling();
        static InfoData info = tellingInfo(model);
        QStringList answers;
        {
            StandardOutput progress; // not looked at here
            kaAgentStart(model, startedAmpType, text);
            handOver(records);
            kvAgent->infoData = &info;
            initInfoScalars();
            answers = questions();
        }
        for (const QString &answer : qAsConst(answers))
            std::puts(qPrintable(answer));
    });
}

void compareWalks(const QStringList &walk, const QStringList &expected)
{
    for (int line = 0; line < qMin(walk.size(), expected.size()); ++line)
        QCOMPARE(walk[line], expected[line]);
    QCOMPARE(walk.size(), expected.size());
}
} // namespace

// One at a time and with GETBULK: the same walk.

class TestTables : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void everyObjectOfEveryModel_data()
    {
        QTest::addColumn<uint>("model");
        QTest::addColumn<QByteArray>("text");
        const QVector<uint> models = catalogue::models();
        for (const uint model : models)
            for (const char *text : {ordinary, compact, extended})
                QTest::addRow("%u %s", model, text) << model << QByteArray(text);
    }

    void everyObjectOfEveryModel()
    {
        QFETCH(uint, model);
        QFETCH(QByteArray, text);

        const TableRecords telling = recordfields::telling();
        const QStringList expected = expectedWalk(model, text != ordinary, &telling);
        const QVector<int> repetitions = text == extended ? QVector<int>{0} : QVector<int>{0, 1, 10, 25, 50};
        const QStringList walks = answersOf(model, text, [&repetitions] {
            QStringList all;
            for (const int each : repetitions)
                all << snmpWalk(QStringLiteral("3"), each);
            return all;
        });
        QStringList all;
        for (int walk = 0; walk < repetitions.size(); ++walk)
            all << expected;
        compareWalks(walks, all);
    }

    void rowsStartWithTheirStartingValues_data() { everyObjectOfEveryModel_data(); }
    void rowsStartWithTheirStartingValues()
    {
        QFETCH(uint, model);
        QFETCH(QByteArray, text);

        const QStringList walk = printedInOwnProcess([&] {
            QStringList answers;
            {
                StandardOutput progress;
                kaAgentStart(model, startedAmpType, text); // no record is handed over: every load fails
                answers = snmpWalk(QStringLiteral("3"));
            }
            std::puts(qPrintable(answers.join(QLatin1Char('\n'))));
        });
        compareWalks(walk.mid(7), expectedWalk(model, text != ordinary, nullptr).mid(7)); // behind the information
    }

    void nothingIsServedOnAnUnknownModel()
    {
        QCOMPARE(answersOf(6412, compact, [] { return snmpWalk(QStringLiteral("3")); }), QStringList());
    }

    void lettersOfADescriptionMatter()
    {
        for (const char *text : {"orvane Brisel Compact - IP-QRM-B", "Orvane Brisel Compact - IP-QRM-B ", "",
                                 static_cast<const char *>(nullptr)})
            QCOMPARE(answersOf(6211, text, [] { return snmpGet({QStringLiteral("3.9.1.0")}); }),
                     QStringList{QStringLiteral("3.9.1.0 INTEGER 6")});
    }
};

const TestEntry entry("tst_tables", runTest<TestTables>);
#include "tst_tables.moc"
