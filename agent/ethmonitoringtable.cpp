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
constexpr Column columns[] = {
    {ASN_INTEGER,   cell<&EthMonitoringTableRow::index>},
    {ASN_OCTET_STR, cell<&EthMonitoringTableRow::description>},
    {ASN_INTEGER,   cell<&EthMonitoringTableRow::monitored>},
};
// clang-format on

constexpr auto tableOid = enterpriseOid(3, 11, 1);

void copy(EthMonitoringTableRow &row, const EthMonitoringRecord &record)
{
    row.monitored = record.monitored[row.source];
}

Rows<EthMonitoringTableRow, highestIndex(rowSets)> rows;

constexpr TableModule table = {
    .name = "ethMonitoringTable",
    .object = tableOid,
    .columns = columns,
    .rowSets = rowSets,
    .rows = &rows,
    .record = recordSource<&KvAgent::talEthMonitoringTableData, copy>("talEthMonitoringTableData"),
    .refill = refillEthMonitoringTableEntries,
    .hooks = {ethMonitoringTable_handler, ethMonitoringTable_get_first_data_point,
              ethMonitoringTable_get_next_data_point, ethMonitoringTable_load, ethMonitoringTable_free},
};
} // namespace

// clang-format off
void init_ethMonitoringTable() { initialize_table_ethMonitoringTable(); }
void initialize_table_ethMonitoringTable() { initializeTable(table); }
Index *ethMonitoringTable_get_first_data_point(void **l, void **d, Index *i, Iterator *) { return firstRow(table, l, d, i); }
Index *ethMonitoringTable_get_next_data_point(void **l, void **d, Index *i, Iterator *) { return nextRow(table, l, d, i); }
int ethMonitoringTable_handler(Handler *, Registration *, Info *i, Request *r) { return serveTable(table, i, r); }
int ethMonitoringTable_load(Cache *, void *) { return loadTable(table); }
void ethMonitoringTable_free(Cache *, void *) { freeTable(table); }
void refillEthMonitoringTableEntries() { refillTable(table); }
void ethMonitoringTable_createEntry() { std::puts("ethMonitoringTable_createEntry()"); }
void ethMonitoringTable_removeEntry() { std::puts("ethMonitoringTable_removeEntry()"); }
// clang-format on
