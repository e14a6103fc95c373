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
    {{6211, 6891}, oneRelay,   nullptr, expanderLines},
    {{6214, 6259}, fourRelays, nullptr, expanderLines},
};
// clang-format on
static_assert(goodLines(rowSets, relayRows));

struct RelayTableRow : TableRow {
    std::uint32_t relayStatus = 1;
    std::uint32_t idleMode = 1;
    std::uint32_t delay = 0;
};

// clang-format off
constexpr Column columns[] = {
    {ASN_INTEGER,   cell<&RelayTableRow::index>},
    {ASN_OCTET_STR, cell<&RelayTableRow::description>},
    {ASN_INTEGER,   cell<&RelayTableRow::relayStatus>},
    {ASN_INTEGER,   cell<&RelayTableRow::idleMode>},
    {ASN_INTEGER,   cell<&RelayTableRow::delay>},
};
// clang-format on

constexpr auto tableOid = enterpriseOid(3, 12, 1);

void copy(RelayTableRow &row, const RelayRecord &record)
{
    const RelayRow &source = record.rows[row.source];
    row.relayStatus = source.status;
    row.idleMode = source.idleMode;
    row.delay = source.delay;
}

Rows<RelayTableRow, highestIndex(rowSets)> rows;

constexpr TableModule table = {
    .name = "relayTable",
    .object = tableOid,
    .columns = columns,
    .rowSets = rowSets,
    .rows = &rows,
    .record = recordSource<&KvAgent::talRelayTableData, copy>("talRelayTableData"),
    .refill = refillRelayTableEntries,
    .hooks = {relayTable_handler, relayTable_get_first_data_point, relayTable_get_next_data_point, relayTable_load,
              relayTable_free},
};
} // namespace

// clang-format off
void init_relayTable() { initialize_table_relayTable(); }
void initialize_table_relayTable() { initializeTable(table); }
Index *relayTable_get_first_data_point(void **l, void **d, Index *i, Iterator *) { return firstRow(table, l, d, i); }
Index *relayTable_get_next_data_point(void **l, void **d, Index *i, Iterator *) { return nextRow(table, l, d, i); }
int relayTable_handler(Handler *, Registration *, Info *i, Request *r) { return serveTable(table, i, r); }
int relayTable_load(Cache *, void *)
{
    if (!beginLoad(table))
        return -1;
    if (rowSetOf(rowSets) == nullptr)
        return -1; // on models without relays the load fails, although there is a record: intended
    refillRelayTableEntries();
    return 0;
}
void relayTable_free(Cache *, void *) { freeTable(table); }
void refillRelayTableEntries() { refillTable(table); }
void relayTable_createEntry() { std::puts("relayTable_createEntry()"); }
void relayTable_removeEntry() { std::puts("relayTable_removeEntry()"); }
// clang-format on
