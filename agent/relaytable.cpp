// E.3.12: relays.
#include "agent/modules.h"

#include <cstdio>

namespace {
// clang-format off
constexpr Line internalRelays[] = {
    { 1, "Internal Relay 1",   0},
    { 2, "Internal Relay 2",   1},
    { 3, "Extension Relay 1",  2},
    { 4, "Extension Relay 2",  3},
};
constexpr Line expanderLines[] = { // on stations with expanders, after the model's rows
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
    {{6211, 6891},    std::span(internalRelays).first(1), nullptr, expanderLines},
    {fourRelayModels, internalRelays,                     nullptr, expanderLines},
};
constexpr Column columns[] = {
    {ASN_INTEGER,   cell<&TableRow::index>},
    {ASN_OCTET_STR, cell<&TableRow::description>},
    {ASN_INTEGER,   cell<&RelayRow::status>},
    {ASN_INTEGER,   cell<&RelayRow::idleMode>},
    {ASN_INTEGER,   cell<&RelayRow::delay>},
};
// clang-format on

Rows<RelayRow, rowSets, relayRows> rows({.status = 1, .idleMode = 1, .delay = 0});

// clang-format off
void initialize_table_relayTable() { initializeTable(relayTable); }
Index *relayTable_get_first_data_point(void **l, void **d, Index *i, Iterator *) { return firstRow(relayTable, l, d, i); }
Index *relayTable_get_next_data_point(void **l, void **d, Index *i, Iterator *) { return nextRow(relayTable, l, d, i); }
int relayTable_handler(Handler *, Registration *, Info *i, Request *r) { return serveTable(relayTable, i, r); }
void refillRelayTableEntries() { refillTable(relayTable); }
int relayTable_load(Cache *, void *)
{
    const int result = loadTable(relayTable);
    return rowSetOf(rowSets) != nullptr ? result : -1; // on models without relays a load always fails: intended
}
void relayTable_free(Cache *, void *) { freeTable(relayTable); }
void relayTable_createEntry() { std::puts("relayTable_createEntry()"); }
void relayTable_removeEntry() { std::puts("relayTable_removeEntry()"); }
// clang-format on
} // namespace

constexpr TableModule relayTable = {
    .name = "relayTable",
    .object = enterpriseOid(3, 12, 1),
    .columns = columns,
    .rowSets = rowSets,
    .rows = &rows,
    .record = recordSource<&KvAgent::talRelayTableData, &RelayRecord::rows>("talRelayTableData"),
    .refill = refillRelayTableEntries,
    .hooks = {relayTable_handler, relayTable_get_first_data_point, relayTable_get_next_data_point, relayTable_load,
              relayTable_free, relayTable_createEntry, relayTable_removeEntry},
};

void init_relayTable()
{
    initialize_table_relayTable();
}
