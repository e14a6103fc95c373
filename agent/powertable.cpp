// E.3.5: power sources.
#include "agent/modules.h"
#include "agent/tablecore.h"

#include <cstdio>

namespace {
// clang-format off
constexpr Line bothSources[] = { // the description is the source's key in the data service
    {1, "ac_power", 0},
    {2, "dc_power", 1},
};
constexpr Line acOnly[] = {
    {1, "ac_power", 0},
};
constexpr Line dcOnly[] = {
    {2, "dc_power", 1},
};
constexpr RowSet rowSets[] = {
    {{6410, 6420}, bothSources},
    {{6720, 6764}, acOnly},
    {{6425},       dcOnly},
};
// clang-format on
static_assert(goodLines(rowSets, powerSources));

struct PowerTableRow : TableRow {
    std::uint32_t liveStatus = 1;
    std::uint32_t monitored = 1;
};

// clang-format off
constexpr Column columns[] = { // column n is columns[n - 1]
    {ASN_INTEGER,   cell<&PowerTableRow::index>},
    {ASN_INTEGER,   cell<&PowerTableRow::index>}, // the kind of source: 1 AC, 2 DC, numbered as the rows are
    {ASN_OCTET_STR, cell<&PowerTableRow::description>},
    {ASN_INTEGER,   cell<&PowerTableRow::liveStatus>},
    {ASN_INTEGER,   cell<&PowerTableRow::monitored>},
};
// clang-format on

constexpr auto tableOid = enterpriseOid(3, 5, 1);

Rows<PowerTableRow, highestIndex(rowSets)> rows;
} // namespace

void init_powerTable()
{
    initialize_table_powerTable();
}

void initialize_table_powerTable()
{
    std::puts("powerTable: initialize_table_powerTable()");
    registerTable("powerTable", tableOid, std::size(columns),
                  {powerTable_handler, powerTable_get_first_data_point, powerTable_get_next_data_point, powerTable_load,
                   powerTable_free});
    if (const RowSet *rowSet = rowSetOf(rowSets))
        rows.use(rowSet->lines);
}

netsnmp_variable_list *powerTable_get_first_data_point(void **loopContext, void **dataContext,
                                                       netsnmp_variable_list *index, netsnmp_iterator_info *info)
{
    rows.rewind(loopContext);
    return powerTable_get_next_data_point(loopContext, dataContext, index, info);
}

netsnmp_variable_list *powerTable_get_next_data_point(void **loopContext, void **dataContext,
                                                      netsnmp_variable_list *index, netsnmp_iterator_info *)
{
    std::puts("powerTable_get_next_data_point()");
    return RowChain::next(loopContext, dataContext, index);
}

int powerTable_handler(netsnmp_mib_handler *, netsnmp_handler_registration *, netsnmp_agent_request_info *reqinfo,
                       netsnmp_request_info *requests)
{
    return serveTable("powerTable", columns, reqinfo, requests);
}

int powerTable_load(netsnmp_cache *, void *)
{
    std::puts("powerTable_load()");
    if (!canLoad("powerTable", &KvAgent::talPowerTableData, "talPowerTableData"))
        return -1;
    if (rowSetOf(rowSets) != nullptr) // a model without a row set has nothing to copy, and prints nothing
        refillPowerTableEntries();
    return 0;
}

void powerTable_free(netsnmp_cache *, void *)
{
    std::puts("powerTable_free()");
}

void refillPowerTableEntries()
{
    std::puts("copyTalPowerTableData()\nrefillPowerTableEntries()");
    rows.refill(talRecord(&KvAgent::talPowerTableData), [](PowerTableRow &row, const PowerRecord &record) {
        row.liveStatus = record.rows[row.source].liveStatus;
        row.monitored = record.rows[row.source].monitored;
    });
}

void powerTable_createEntry()
{
    std::puts("powerTable_createEntry()");
}

void powerTable_removeEntry()
{
    std::puts("powerTable_removeEntry()");
}
