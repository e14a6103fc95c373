// E.3.5: power sources.
#include "agent/modules.h"

#include <cstdio>

namespace {
// clang-format off
constexpr Line sources[] = { // the description is the source's key in the data service
    {1, "ac_power", 0},
    {2, "dc_power", 1},
};
constexpr RowSet rowSets[] = {
    {bothPowerModels,   sources},
    {acPowerOnlyModels, std::span(sources).first(1)},
    {dcPowerOnlyModels, std::span(sources).last(1)},
};
constexpr Column columns[] = {
    {ASN_INTEGER,   cell<&TableRow::index>},
    {ASN_INTEGER,   cell<&TableRow::index>}, // the kind of source: 1 AC, 2 DC, the same as the row number
    {ASN_OCTET_STR, cell<&TableRow::description>},
    {ASN_INTEGER,   cell<&PowerRow::liveStatus>},
    {ASN_INTEGER,   cell<&PowerRow::monitored>},
};
// clang-format on

Rows<PowerRow, rowSets, powerSources> rows({.liveStatus = 1, .monitored = 1});

// clang-format off
void initialize_table_powerTable() { initializeTable(powerTable); }
Index *powerTable_get_first_data_point(void **l, void **d, Index *i, Iterator *) { return firstRow(powerTable, l, d, i); }
Index *powerTable_get_next_data_point(void **l, void **d, Index *i, Iterator *) { return nextRow(powerTable, l, d, i); }
int powerTable_handler(Handler *, Registration *, Info *i, Request *r) { return serveTable(powerTable, i, r); }
void refillPowerTableEntries() { refillTable(powerTable); }
int powerTable_load(Cache *, void *) { return loadTable(powerTable); }
void powerTable_free(Cache *, void *) { freeTable(powerTable); }
void powerTable_createEntry() { std::puts("powerTable_createEntry()"); }
void powerTable_removeEntry() { std::puts("powerTable_removeEntry()"); }
// clang-format on
} // namespace

constexpr TableModule powerTable = {
    .name = "powerTable",
    .object = enterpriseOid(3, 5, 1),
    .columns = columns,
    .rowSets = rowSets,
    .rows = &rows,
    .record = recordSource<&KvAgent::talPowerTableData, &PowerRecord::rows>("talPowerTableData"),
    .refill = refillPowerTableEntries,
    .hooks = {powerTable_handler, powerTable_get_first_data_point, powerTable_get_next_data_point, powerTable_load,
              powerTable_free, powerTable_createEntry, powerTable_removeEntry},
};

void init_powerTable()
{
    initialize_table_powerTable();
}
