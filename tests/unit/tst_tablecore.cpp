// What every table does alike and no table of a device shows, on a small table of its own.
#include "support/agentbench.h"
#include "support/testprogram.h"

#include "agent/tablecore.h"

#include <QtTest>

namespace {
constexpr Line goodSet[] = {{1, "one", 2}, {3, "three", 0}, {4, "four", 1}};
constexpr Line fallingSet[] = {{2, "two", 0}, {1, "one", 1}};
constexpr Line doubledSet[] = {{1, "one", 0}, {1, "again", 1}};
constexpr Line zeroSet[] = {{0, "none", 0}};
constexpr Line namelessSet[] = {{1, "", 0}};
constexpr RowSet rowSets[] = {{{6420, 6720}, goodSet, "LABEL"}, {{6410}, namelessSet}};
constexpr RowSet badSets[] = {{{6420, 6720}, goodSet}, {{6410}, zeroSet}};

static_assert(goodLines(goodSet, 3));
static_assert(!goodLines(goodSet, 2), "a source outside the record");
static_assert(!goodLines(fallingSet, 3));
static_assert(!goodLines(doubledSet, 3));
static_assert(!goodLines(zeroSet, 3), "indices count from 1");
static_assert(goodLines(rowSets, 3));
static_assert(!goodLines(badSets, 3), "one bad set is enough");
static_assert(highestIndex(rowSets) == 4);

using BenchRow = ValueRow<std::uint32_t>;

constexpr RowText<8> fixedText = rowText<8>("fixed");

constexpr Column columns[] = {
    {ASN_INTEGER, cell<&TableRow::index>},
    {ASN_OCTET_STR, cell<&TableRow::description>},
    {ASN_GAUGE, numberCell},
    {ASN_OCTET_STR, constantCell<fixedText>},
};

class BenchRows : public Rows<std::uint32_t, rowSets, 3> {
public:
    constexpr BenchRows() : Rows(7) {}
    BenchRow *first() const { return static_cast<BenchRow *>(RowChain::first()); }
};

BenchRows benchRows;

constexpr TableModule bench = {
    .name = "benchTable",
    .object = {},
    .columns = columns,
    .rowSets = rowSets,
    .rows = &benchRows,
    .record =
        recordSource<&KvAgent::talControlOutputTableData, &ControlOutputRecord::status>("talControlOutputTableData"),
    .refill = nullptr,
    .hooks = {}};

/// A request as the library hands it to a table's handler.
class Request {
public:
    Request(TableRow *row, unsigned int column, bool withTableInfo = true)
    {
        m_info.colnum = column;
        m_request.requestvb = &m_variable;
        m_variable.type = ASN_NULL;
        if (withTableInfo)
            netsnmp_request_add_list_data(&m_request, netsnmp_create_data_list(TABLE_HANDLER_NAME, &m_info, nullptr));
        if (row != nullptr)
            netsnmp_request_add_list_data(&m_request, netsnmp_create_data_list(TABLE_ITERATOR_NAME, row, nullptr));
    }
    ~Request()
    {
        netsnmp_free_request_data_sets(&m_request);
        snmp_set_var_value(&m_variable, nullptr, 0);
    }
    Request(const Request &) = delete;
    Request &operator=(const Request &) = delete;

    void follow(Request &previous) { previous.m_request.next = &m_request; }
    netsnmp_request_info *raw() { return &m_request; }
    u_char type() const { return m_variable.type; }
    long number() const { return *m_variable.val.integer; }
    QByteArray text() const
    {
        return {reinterpret_cast<const char *>(m_variable.val.string), static_cast<int>(m_variable.val_len)};
    }

private:
    netsnmp_table_request_info m_info = {};
    netsnmp_variable_list m_variable = {};
    netsnmp_request_info m_request = {};
};

int serve(Request &request, int mode = MODE_GET)
{
    netsnmp_agent_request_info info = {};
    info.mode = mode;
    return serveTable("benchTable", columns, &info, request.raw());
}
} // namespace

class TestTableCore : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { benchRows.use(goodSet); }
    void rowSetsGoByModel()
    {
        QVERIFY(rowSetOf(rowSets) == nullptr); // no agent, no model
        KvAgent agent = {};
        kvAgent = &agent;
        for (const auto &[model, rowSet] :
             {std::pair{6720U, &rowSets[0]}, {6410U, &rowSets[1]}, {6425U, nullptr}, {1U, nullptr}}) {
            agent.modelNumber = model;
            QCOMPARE(rowSetOf(rowSets), rowSet);
        }
        kvAgent = nullptr;
    }

    void rowsAreChainedInOrder()
    {
        QCOMPARE(benchRows.count(), 3U);
        QList<uint> indices;
        QList<std::size_t> sources;
        for (const TableRow *row = benchRows.first(); row != nullptr; row = row->next) {
            indices.append(row->index);
            sources.append(row->source);
            QCOMPARE(row->status, 1U);
        }
        QCOMPARE(indices, (QList<uint>{1, 3, 4}));
        QCOMPARE(sources, (QList<std::size_t>{2, 0, 1}));
    }

    void refillWithoutARecordChangesNothing()
    {
        const std::uint32_t before = benchRows.first()->values;
        copyRecord(bench); // no agent
        KvAgent agent = {};
        kvAgent = &agent;
        copyRecord(bench);
        kvAgent = nullptr;
        QCOMPARE(benchRows.first()->values, before);
    }

    void cellsHaveTheirTypes()
    {
        benchRows.first()->values = 4000000000U; // a Gauge32 has no sign
        Request index(benchRows.first(), 1);
        Request description(benchRows.first(), 2);
        Request number(benchRows.first(), 3);
        Request fixed(benchRows.first(), 4);
        description.follow(index);
        number.follow(description);
        fixed.follow(number);
        QCOMPARE(serve(index), int{SNMP_ERR_NOERROR});
        QCOMPARE(index.type(), u_char{ASN_INTEGER});
        QCOMPARE(index.number(), 1L);
        QCOMPARE(description.type(), u_char{ASN_OCTET_STR});
        QCOMPARE(description.text(), QByteArray("one"));
        QCOMPARE(number.type(), u_char{ASN_GAUGE});
        QCOMPARE(static_cast<std::uint32_t>(number.number()), 4000000000U);
        QCOMPARE(fixed.type(), u_char{ASN_OCTET_STR});
        QCOMPARE(fixed.text(), QByteArray("fixed"));
    }

    void textsAreNeverPadded()
    {
        BenchRows rows;
        rows.use(namelessSet);
        Request request(rows.first(), 2);
        QCOMPARE(serve(request), int{SNMP_ERR_NOERROR});
        QCOMPARE(request.type(), u_char{ASN_OCTET_STR});
        QCOMPARE(request.text(), QByteArray(""));
    }

    void textsAreCutToTheirField()
    {
        RowText<8> field = {};
        setText(field, "0123456789");
        QCOMPARE(field.length, 7U);
        QCOMPARE(QByteArray(field.text), QByteArray("0123456"));
    }

    void aMissingRowIsNoSuchInstance()
    {
        for (const unsigned int column : {1U, 4U}) {
            Request request(nullptr, column);
            QCOMPARE(serve(request), int{SNMP_ERR_NOERROR});
            QCOMPARE(request.type(), u_char{SNMP_NOSUCHINSTANCE});
        }
    }

    void aColumnOutsideIsNoSuchObject()
    {
        for (const unsigned int column : {0U, 5U, 4000000000U}) {
            Request request(benchRows.first(), column);
            QCOMPARE(serve(request), int{SNMP_ERR_NOERROR});
            QCOMPARE(request.type(), u_char{SNMP_NOSUCHOBJECT});
        }
    }

    void otherModesTouchNothing_data()
    {
        QTest::addColumn<int>("mode");
        QTest::newRow("GETNEXT") << int{MODE_GETNEXT};
        QTest::newRow("GETBULK") << int{MODE_GETBULK};
        QTest::newRow("SET, first step") << int{MODE_SET_RESERVE1};
        QTest::newRow("SET, action") << int{MODE_SET_ACTION};
        QTest::newRow("none at all") << 12345;
    }

    void otherModesTouchNothing()
    {
        QFETCH(int, mode);
        Request request(benchRows.first(), 1);
        Request bad(nullptr, 9, false);
        bad.follow(request);
        QCOMPARE(serve(request, mode), 0);
        QCOMPARE(request.type(), u_char{ASN_NULL});
        QCOMPARE(bad.type(), u_char{ASN_NULL});
    }

    void missingTableInformationEndsThePdu()
    {
        Request before(benchRows.first(), 1);
        Request bad(benchRows.first(), 1, false);
        Request behind(benchRows.first(), 1);
        bad.follow(before);
        behind.follow(bad);
        int result = 0;
        const QStringList lines = printed([&] { result = serve(before); });
        QCOMPARE(result, 3);
        QCOMPARE(lines,
                 QStringList{QStringLiteral("benchTable_handler() ERROR extracting table_info. table_info was NULL ")});
        QCOMPARE(before.type(), u_char{ASN_INTEGER});
        QCOMPARE(bad.type(), u_char{SNMP_NOSUCHOBJECT});
        QCOMPARE(behind.type(), u_char{ASN_NULL});
    }
};

const TestEntry entry("tst_tablecore", runTest<TestTableCore>);
#include "tst_tablecore.moc"
