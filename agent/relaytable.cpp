// E.3.12: relays.
#include "agent/modules.h"
#include "agent/tablecore.h"

#include <cstdio>

namespace {
// clang-format off
constexpr Line oneRelay[] = {
    { 1, "Internal Relay 1",   0},
};
constexpr Line fourRelays[] = {
    { 1, "Internal Relay 1",   0},
    { 2, "Internal Relay 2",   1},
    { 3, "Extension Relay 1",  2},
    { 4, "Extension Relay 2",  3},
};
constexpr Line expanderLines[] = { // on stations with expanders, after the model's own
    { 5, "External Relay 1",   4},
    { 6, "External Relay 2",   5},
    { 7, "External Relay 3",   6},
    { 8, "External Relay 4",   7},
    { 9, "External Relay 5",   8},
    {10, "External Relay 6",   9},
    {11, "External Relay 7",  10},
    {12, "External Relay 8",  11},
};
constexpr RowSet rowSets[] = {
    {{6211, 6891}, oneRelay},
    {{6214, 6259}, fourRelays},
};
// clang-format on
static_assert(goodLines(rowSets, relayRows) && goodLines(expanderLines, relayRows));

struct RelayTableRow : TableRow {
    std::uint32_t relayStatus = 1;
    std::uint32_t idleMode = 1;
    std::uint32_t delay = 0;
};

// clang-format off
constexpr Column columns[] = { // column n is columns[n - 1]
    {ASN_INTEGER,   cell<&RelayTableRow::index>},
    {ASN_OCTET_STR, cell<&RelayTableRow::description>},
    {ASN_INTEGER,   cell<&RelayTableRow::relayStatus>},
    {ASN_INTEGER,   cell<&RelayTableRow::idleMode>},
    {ASN_INTEGER,   cell<&RelayTableRow::delay>},
};
// clang-format on

constexpr auto tableOid = enterpriseOid(3, 12, 1);

Rows<RelayTableRow, relayRows> rows;
} // namespace

void init_relayTable()
{
    initialize_table_relayTable();
}

void initialize_table_relayTable()
{
    std::puts("relayTable: initialize_table_relayTable()");
    registerTable("relayTable", tableOid, std::size(columns),
                  {relayTable_handler, relayTable_get_first_data_point, relayTable_get_next_data_point, relayTable_load,
                   relayTable_free});
    if (const RowSet *rowSet = rowSetOf(rowSets)) {
        rows.use(rowSet->lines);
        if (hasExpanders(kvAgent->modelText))
            rows.use(expanderLines);
    }
}

netsnmp_variable_list *relayTable_get_first_data_point(void **loopContext, void **dataContext,
                                                       netsnmp_variable_list *index, netsnmp_iterator_info *info)
{
    rows.rewind(loopContext);
    return relayTable_get_next_data_point(loopContext, dataContext, index, info);
}

netsnmp_variable_list *relayTable_get_next_data_point(void **loopContext, void **dataContext,
                                                      netsnmp_variable_list *index, netsnmp_iterator_info *)
{
    std::puts("relayTable_get_next_data_point()");
    return RowChain::next(loopContext, dataContext, index);
}

int relayTable_handler(netsnmp_mib_handler *, netsnmp_handler_registration *, netsnmp_agent_request_info *reqinfo,
                       netsnmp_request_info *requests)
{
    return serveTable("relayTable", columns, reqinfo, requests);
}

int relayTable_load(netsnmp_cache *, void *)
{
    std::puts("relayTable_load()");
    if (!canLoad("relayTable", &KvAgent::talRelayTableData, "talRelayTableData"))
        return -1;
    if (rowSetOf(rowSets) == nullptr)
        return -1; // on models without relays the load fails, although there is a record: intended
    refillRelayTableEntries();
    return 0;
}

void relayTable_free(netsnmp_cache *, void *)
{
    std::puts("relayTable_free()");
}

void refillRelayTableEntries()
{
    std::puts("copyTalRelayTableData()\nrefillRelayTableEntries()");
    rows.refill(talRecord(&KvAgent::talRelayTableData), [](RelayTableRow &row, const RelayRecord &record) {
        const RelayRow &source = record.rows[row.source];
        row.relayStatus = source.status;
        row.idleMode = source.idleMode;
        row.delay = source.delay;
    });
}

void relayTable_createEntry()
{
    std::puts("relayTable_createEntry()");
}

void relayTable_removeEntry()
{
    std::puts("relayTable_removeEntry()");
}
