// Behaviour that all tables share and no table of a device shows, on a small table of the test.
#include "support/agentbench.h"
#include "support/testprogram.h"

#include "agent/tablecore.h"

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

constexpr RowText<8> fixedText = rowText<8>("fixed");

constexpr Column columns[] = {
    {ASN_INTEGER, cell<&TableRow::index>},
    {ASN_OCTET_STR, cell<&TableRow::description>},
    {ASN_GAUGE, numberCell},
    {ASN_OCTET_STR, constantCell<fixedText>},
};

Rows<std::uint32_t, rowSets, 3> benchRows(7);

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

std::uint32_t &firstValue()
{
    return static_cast<ValueRow<std::uint32_t> *>(benchRows.first())->values;
}

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
    Q_DISABLE_COPY(Request)

    void follow(Request &previous) { previous.m_request.next = &m_request; }
    int serve(int mode = MODE_GET)
    {
        netsnmp_agent_request_info info = {};
        info.mode = mode;
        return serveTable(bench, &info, &m_request);
    }
    QByteArray answer() const { return typeAndValue(m_variable).toLatin1(); } ///< "type 5" before there is one

private:
    netsnmp_table_request_info m_info = {};
    netsnmp_variable_list m_variable = {};
    netsnmp_request_info m_request = {};
};
} // namespace

class TestTableCore : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { benchRows.use(goodSet); }
    void cleanup() { kvAgent = nullptr; }

    void withoutAnAgentThereIsNoRowSet() { QVERIFY(rowSetOf(rowSets) == nullptr); }

    void rowsInUseAreMarked()
    {
        QCOMPARE(benchRows.count(), 3U);
        for (const TableRow *row = benchRows.first(); row != nullptr; row = row->next)
            QCOMPARE(row->status, 1U);
    }

    void refillWithoutARecordChangesNothing()
    {
        copyRecord(bench); // no agent
        KvAgent agent = {};
        kvAgent = &agent;
        copyRecord(bench);
        QCOMPARE(firstValue(), 7U);
    }

    void aRequestIsAnsweredByTypeAndPlace()
    {
        TableRow *const row = benchRows.first();
        firstValue() = 4000000000U; // a Gauge32 has no sign
        const struct {
            TableRow *row;
            unsigned int column;
            QByteArray answer;
        } cases[] = {
            {row, 1, "INTEGER 1"},        {row, 2, "STRING one"},         {row, 3, "Gauge32 4000000000"},
            {row, 4, "STRING fixed"},     {nullptr, 1, "noSuchInstance"}, {nullptr, 4, "noSuchInstance"},
            {row, 0, "noSuchObject"},     {row, 5, "noSuchObject"},       {row, 4000000000U, "noSuchObject"},
            {nullptr, 5, "noSuchObject"},
        };
        for (const auto &each : cases) {
            Request request(each.row, each.column);
            QCOMPARE(request.serve(), int{SNMP_ERR_NOERROR});
            QCOMPARE(request.answer(), each.answer);
        }
    }

    void anEmptyTextIsNotPadded()
    {
        Rows<std::uint32_t, rowSets, 3> rows(0);
        rows.use(namelessSet);
        Request request(rows.first(), 2);
        QCOMPARE(request.serve(), int{SNMP_ERR_NOERROR});
        QCOMPARE(request.answer(), QByteArray("STRING "));
    }

    void otherModesTouchNothing()
    {
        for (const int mode :
             {int{MODE_GETNEXT}, int{MODE_GETBULK}, int{MODE_SET_RESERVE1}, int{MODE_SET_ACTION}, 12345}) {
            Request request(benchRows.first(), 1);
            Request bad(nullptr, 9, false);
            bad.follow(request);
            QCOMPARE(request.serve(mode), 0);
            QCOMPARE(request.answer(), QByteArray("type 5"));
            QCOMPARE(bad.answer(), QByteArray("type 5"));
        }
    }

    void missingTableInformationEndsThePdu()
    {
        Request before(benchRows.first(), 1);
        Request bad(benchRows.first(), 1, false);
        Request behind(benchRows.first(), 1);
        bad.follow(before);
        behind.follow(bad);
        int result = 0;
        QCOMPARE(printed([&] { result = before.serve(); }),
                 lines({"benchTable_handler() ERROR extracting table_info. table_info was NULL "}));
        QCOMPARE(result, 3);
        QCOMPARE(before.answer(), QByteArray("INTEGER 1"));
        QCOMPARE(bad.answer(), QByteArray("noSuchObject"));
        QCOMPARE(behind.answer(), QByteArray("type 5"));
    }
};

const TestEntry entry("tst_tablecore", runTest<TestTableCore>);
#include "tst_tablecore.moc"
