// E.3.11: monitoring of the Ethernet ports.
#include "agent/modules.h"

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
constexpr Column columns[] = {
    {ASN_INTEGER,   cell<&TableRow::index>},
    {ASN_OCTET_STR, cell<&TableRow::description>},
    {ASN_INTEGER,   numberCell},
};
// clang-format on

Rows<std::uint32_t, rowSets, ethPorts> rows(1);

// clang-format off
void initialize_table_ethMonitoringTable() { initializeTable(ethMonitoringTable); }
Index *ethMonitoringTable_get_first_data_point(void **l, void **d, Index *i, Iterator *) { return firstRow(ethMonitoringTable, l, d, i); }
Index *ethMonitoringTable_get_next_data_point(void **l, void **d, Index *i, Iterator *) { return nextRow(ethMonitoringTable, l, d, i); }
int ethMonitoringTable_handler(Handler *, Registration *, Info *i, Request *r) { return serveTable(ethMonitoringTable, i, r); }
void refillEthMonitoringTableEntries() { refillTable(ethMonitoringTable); }
int ethMonitoringTable_load(Cache *, void *) { return loadTable(ethMonitoringTable); }
void ethMonitoringTable_free(Cache *, void *) { freeTable(ethMonitoringTable); }
void ethMonitoringTable_createEntry() { std::puts("ethMonitoringTable_createEntry()"); }
void ethMonitoringTable_removeEntry() { std::puts("ethMonitoringTable_removeEntry()"); }
// clang-format on
} // namespace

constexpr TableModule ethMonitoringTable = {
    .name = "ethMonitoringTable",
    .object = enterpriseOid(3, 11, 1),
    .columns = columns,
    .rowSets = rowSets,
    .rows = &rows,
    .record =
        recordSource<&KvAgent::talEthMonitoringTableData, &EthMonitoringRecord::monitored>("talEthMonitoringTableData"),
    .refill = refillEthMonitoringTableEntries,
    .hooks = {ethMonitoringTable_handler, ethMonitoringTable_get_first_data_point,
              ethMonitoringTable_get_next_data_point, ethMonitoringTable_load, ethMonitoringTable_free,
              ethMonitoringTable_createEntry, ethMonitoringTable_removeEntry},
};

void init_ethMonitoringTable()
{
    initialize_table_ethMonitoringTable();
}
