// E.3.3: fans.
#include "agent/modules.h"
#include "agent/tablecore.h"

#include <cstdio>

namespace {
// clang-format off
constexpr Line twoFans[] = {
    {1, "Left Fan",  0},
    {2, "Right Fan", 1},
};
constexpr Line oneFan[] = {
    {1, "Left Fan",  0},
};
constexpr RowSet rowSets[] = {
    {{6420, 6764}, twoFans},
    {{6410, 6720}, oneFan},
};
// clang-format on
static_assert(goodLines(rowSets, fanRows));

struct FanTableRow : TableRow {
    std::uint32_t rpm = 0;
};

// clang-format off
constexpr Column columns[] = { // column n is columns[n - 1]
    {ASN_INTEGER,   cell<&FanTableRow::index>},
    {ASN_OCTET_STR, cell<&FanTableRow::description>},
    {ASN_GAUGE,     cell<&FanTableRow::rpm>},
};
// clang-format on

constexpr auto countOid = enterpriseOid(3, 3, 1);
constexpr auto tableOid = enterpriseOid(3, 3, 2);

Rows<FanTableRow, highestIndex(rowSets)> rows;
} // namespace

void init_fanTable()
{
    std::puts("init_fanTable()");
    initialize_table_fanTable();
    registerScalar("fanTableCount", countOid, handle_fanTableCount);
}

void initialize_table_fanTable()
{
    std::puts("fanTable: initialize_table_fanTable()");
    registerTable(
        "fanTable", tableOid, std::size(columns),
        {fanTable_handler, fanTable_get_first_data_point, fanTable_get_next_data_point, fanTable_load, fanTable_free});
    if (const RowSet *rowSet = rowSetOf(rowSets))
        rows.use(rowSet->lines);
}

netsnmp_variable_list *fanTable_get_first_data_point(void **loopContext, void **dataContext,
                                                     netsnmp_variable_list *index, netsnmp_iterator_info *info)
{
    rows.rewind(loopContext);
    return fanTable_get_next_data_point(loopContext, dataContext, index, info);
}

netsnmp_variable_list *fanTable_get_next_data_point(void **loopContext, void **dataContext,
                                                    netsnmp_variable_list *index, netsnmp_iterator_info *)
{
    std::puts("fanTable_get_next_data_point()");
    return RowChain::next(loopContext, dataContext, index);
}

int fanTable_handler(netsnmp_mib_handler *, netsnmp_handler_registration *, netsnmp_agent_request_info *reqinfo,
                     netsnmp_request_info *requests)
{
    return serveTable("fanTable", columns, reqinfo, requests);
}

int fanTable_load(netsnmp_cache *, void *)
{
    std::puts("fanTable_load()");
    if (!canLoad("fanTable", &KvAgent::talFanTableData, "talFanTableData"))
        return -1;
    if (rowSetOf(rowSets) != nullptr) // a model without a row set has nothing to copy, and prints nothing
        refillFanTableEntries();
    return 0;
}

void fanTable_free(netsnmp_cache *, void *)
{
    std::puts("fanTable_free()");
}

int handle_fanTableCount(netsnmp_mib_handler *, netsnmp_handler_registration *, netsnmp_agent_request_info *reqinfo,
                         netsnmp_request_info *requests)
{
    return serveInteger("handle_fanTableCount", rows.count(), reqinfo, requests);
}

void refillFanTableEntries()
{
    std::puts("copyTalFanTableData()\nrefillFanTableEntries()");
    rows.refill(talRecord(&KvAgent::talFanTableData),
                [](FanTableRow &row, const FanRecord &record) { row.rpm = record.values[row.source]; });
}

void fanTable_createEntry()
{
    std::puts("fanTable_createEntry()");
}

void fanTable_removeEntry()
{
    std::puts("fanTable_removeEntry()");
}
