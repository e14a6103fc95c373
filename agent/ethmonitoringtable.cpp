// E.3.11: monitoring of the Ethernet ports.
#include "agent/modules.h"
#include "agent/tablecore.h"

#include <cstdio>

namespace {
// clang-format off
constexpr Line ports[] = {
    {1, "Eth 1", 0},
    {2, "Eth 2", 1},
};
constexpr RowSet rowSets[] = {
    {ethMonitoringModels, ports},
};
// clang-format on
static_assert(goodLines(rowSets, ethPorts));

struct EthMonitoringTableRow : TableRow {
    std::uint32_t monitored = 1;
};

// clang-format off
constexpr Column columns[] = { // column n is columns[n - 1]
    {ASN_INTEGER,   cell<&EthMonitoringTableRow::index>},
    {ASN_OCTET_STR, cell<&EthMonitoringTableRow::description>},
    {ASN_INTEGER,   cell<&EthMonitoringTableRow::monitored>},
};
// clang-format on

constexpr auto tableOid = enterpriseOid(3, 11, 1);

Rows<EthMonitoringTableRow, highestIndex(rowSets)> rows;
} // namespace

void init_ethMonitoringTable()
{
    initialize_table_ethMonitoringTable();
}

void initialize_table_ethMonitoringTable()
{
    std::puts("ethMonitoringTable: initialize_table_ethMonitoringTable()");
    registerTable("ethMonitoringTable", tableOid, std::size(columns),
                  {ethMonitoringTable_handler, ethMonitoringTable_get_first_data_point,
                   ethMonitoringTable_get_next_data_point, ethMonitoringTable_load, ethMonitoringTable_free});
    if (const RowSet *rowSet = rowSetOf(rowSets))
        rows.use(rowSet->lines);
}

netsnmp_variable_list *ethMonitoringTable_get_first_data_point(void **loopContext, void **dataContext,
                                                               netsnmp_variable_list *index,
                                                               netsnmp_iterator_info *info)
{
    rows.rewind(loopContext);
    return ethMonitoringTable_get_next_data_point(loopContext, dataContext, index, info);
}

netsnmp_variable_list *ethMonitoringTable_get_next_data_point(void **loopContext, void **dataContext,
                                                              netsnmp_variable_list *index, netsnmp_iterator_info *)
{
    std::puts("ethMonitoringTable_get_next_data_point()");
    return RowChain::next(loopContext, dataContext, index);
}

int ethMonitoringTable_handler(netsnmp_mib_handler *, netsnmp_handler_registration *,
                               netsnmp_agent_request_info *reqinfo, netsnmp_request_info *requests)
{
    return serveTable("ethMonitoringTable", columns, reqinfo, requests);
}

int ethMonitoringTable_load(netsnmp_cache *, void *)
{
    std::puts("ethMonitoringTable_load()");
    if (!canLoad("ethMonitoringTable", &KvAgent::talEthMonitoringTableData, "talEthMonitoringTableData"))
        return -1;
    if (rowSetOf(rowSets) != nullptr) // a model without a row set has nothing to copy, and prints nothing
        refillEthMonitoringTableEntries();
    return 0;
}

void ethMonitoringTable_free(netsnmp_cache *, void *)
{
    std::puts("ethMonitoringTable_free()");
}

void refillEthMonitoringTableEntries()
{
    std::puts("copyTalEthMonitoringTableData()\nrefillEthMonitoringTableEntries()");
    rows.refill(talRecord(&KvAgent::talEthMonitoringTableData),
                [](EthMonitoringTableRow &row, const EthMonitoringRecord &record) {
                    row.monitored = record.monitored[row.source];
                });
}

void ethMonitoringTable_createEntry()
{
    std::puts("ethMonitoringTable_createEntry()");
}

void ethMonitoringTable_removeEntry()
{
    std::puts("ethMonitoringTable_removeEntry()");
}
