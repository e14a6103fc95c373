// E.3.2: temperatures.
#include "agent/modules.h"
#include "agent/tablecore.h"

#include <cstdio>

namespace {
// clang-format off
constexpr Line lines6410[] = {
    {1, "Temperature Sensor: Main Board 1", 3},
    {2, "Temperature Sensor: Main Board 2", 4},
    {3, "Temperature Sensor: AC Power",     5},
    {4, "Temperature Sensor: DC Power",     6},
};
constexpr Line lines6420[] = {
    {1, "Temperature Sensor: Channel 1",    0},
    {2, "Temperature Sensor: Channel 2",    1},
    {3, "Temperature Sensor: Main Board",   2},
    {4, "Temperature Sensor: AC Power",     5},
    {5, "Temperature Sensor: DC Power",     6},
};
constexpr Line lines6425[] = { // gaps on purpose: one index means one sensor on every amplifier
    {1, "Temperature Sensor: Channel 1",    0},
    {2, "Temperature Sensor: Channel 2",    1},
    {3, "Temperature Sensor: Main Board",   2},
    {5, "Temperature Sensor: DC Power",     6},
};
constexpr Line lines6720[] = {
    {1, "Temperature Sensor: Channel 1",    0},
    {3, "Temperature Sensor: Main Board",   2},
};
constexpr Line lines6764[] = {
    {1, "Temperature Sensor: Channel 1",    0},
    {3, "Temperature Sensor: Main Board",   2},
    {4, "Temperature Sensor: AC Power",     5},
};
constexpr RowSet rowSets[] = {
    {{6410}, lines6410},
    {{6420}, lines6420},
    {{6425}, lines6425},
    {{6720}, lines6720},
    {{6764}, lines6764},
};
// clang-format on
static_assert(goodLines(rowSets, tempRows));

struct TempTableRow : TableRow {
    std::uint32_t current = 0;
    std::uint32_t peak = 0;
    std::uint32_t average = 0;
};

// The labels are the same three texts in every row.
constexpr RowText<32> currentLabel = rowText<32>("Current Temperature");
constexpr RowText<32> peakLabel = rowText<32>("Peak Temperature");
constexpr RowText<32> averageLabel = rowText<32>("Average Temperature");

// clang-format off
constexpr Column columns[] = { // column n is columns[n - 1]
    {ASN_INTEGER,   cell<&TempTableRow::index>},
    {ASN_OCTET_STR, cell<&TempTableRow::description>},
    {ASN_OCTET_STR, constantCell<currentLabel>},
    {ASN_GAUGE,     cell<&TempTableRow::current>},
    {ASN_OCTET_STR, constantCell<peakLabel>},
    {ASN_GAUGE,     cell<&TempTableRow::peak>},
    {ASN_OCTET_STR, constantCell<averageLabel>},
    {ASN_GAUGE,     cell<&TempTableRow::average>},
};
// clang-format on

constexpr auto countOid = enterpriseOid(3, 2, 1);
constexpr auto tableOid = enterpriseOid(3, 2, 2);

Rows<TempTableRow, highestIndex(rowSets)> rows;
} // namespace

void init_tempTable()
{
    std::puts("init_tempTable()");
    initialize_table_tempTable();
    registerScalar("tempTableCount", countOid, handle_tempTableCount);
}

void initialize_table_tempTable()
{
    std::puts("tempTable: initialize_table_tempTable()");
    registerTable("tempTable", tableOid, std::size(columns),
                  {tempTable_handler, tempTable_get_first_data_point, tempTable_get_next_data_point, tempTable_load,
                   tempTable_free});
    if (const RowSet *rowSet = rowSetOf(rowSets))
        rows.use(rowSet->lines);
}

netsnmp_variable_list *tempTable_get_first_data_point(void **loopContext, void **dataContext,
                                                      netsnmp_variable_list *index, netsnmp_iterator_info *info)
{
    rows.rewind(loopContext);
    return tempTable_get_next_data_point(loopContext, dataContext, index, info);
}

netsnmp_variable_list *tempTable_get_next_data_point(void **loopContext, void **dataContext,
                                                     netsnmp_variable_list *index, netsnmp_iterator_info *)
{
    std::puts("tempTable_get_next_data_point()");
    return RowChain::next(loopContext, dataContext, index);
}

int tempTable_handler(netsnmp_mib_handler *, netsnmp_handler_registration *, netsnmp_agent_request_info *reqinfo,
                      netsnmp_request_info *requests)
{
    return serveTable("tempTable", columns, reqinfo, requests);
}

int tempTable_load(netsnmp_cache *, void *)
{
    std::puts("tempTable_load()");
    if (!canLoad("tempTable", &KvAgent::talTempTableData, "talTempTableData"))
        return -1;
    if (rowSetOf(rowSets) != nullptr) // a model without a row set has nothing to copy, and prints nothing
        refillTempTableEntries();
    return 0;
}

void tempTable_free(netsnmp_cache *, void *)
{
    std::puts("tempTable_free()");
}

int handle_tempTableCount(netsnmp_mib_handler *, netsnmp_handler_registration *, netsnmp_agent_request_info *reqinfo,
                          netsnmp_request_info *requests)
{
    return serveInteger("handle_tempTableCount", rows.count(), reqinfo, requests);
}

void refillTempTableEntries()
{
    std::puts("copyTalTempTableData()\nrefillTempTableEntries()");
    rows.refill(talRecord(&KvAgent::talTempTableData), [](TempTableRow &row, const TempRecord &record) {
        const TempRow &source = record.rows[row.source];
        row.current = source.current;
        row.peak = source.peak;
        row.average = source.average;
    });
}

void tempTable_createEntry()
{
    std::puts("tempTable_createEntry()");
}

void tempTable_removeEntry()
{
    std::puts("tempTable_removeEntry()");
}
