// E.3.3: fans.
#include "agent/modules.h"

#include <cstdio>

namespace {
// clang-format off
constexpr Line fans[] = {
    {1, "Left Fan",  0},
    {2, "Right Fan", 1},
};
constexpr RowSet rowSets[] = {
    {{6420, 6764}, fans},
    {{6410, 6720}, std::span(fans).first(1)},
};
constexpr Column columns[] = {
    {ASN_INTEGER,   cell<&TableRow::index>},
    {ASN_OCTET_STR, cell<&TableRow::description>},
    {ASN_GAUGE,     cell<&Measured::value>},
};
// clang-format on

Rows<Measured, rowSets, fanRows> rows({});

// clang-format off
void initialize_table_fanTable() { initializeTable(fanTable); }
Index *fanTable_get_first_data_point(void **l, void **d, Index *i, Iterator *) { return firstRow(fanTable, l, d, i); }
Index *fanTable_get_next_data_point(void **l, void **d, Index *i, Iterator *) { return nextRow(fanTable, l, d, i); }
int fanTable_handler(Handler *, Registration *, Info *i, Request *r) { return serveTable(fanTable, i, r); }
void refillFanTableEntries() { refillTable(fanTable); }
int fanTable_load(Cache *, void *) { return loadTable(fanTable); }
void fanTable_free(Cache *, void *) { freeTable(fanTable); }
int handle_fanTableCount(Handler *, Registration *, Info *i, Request *r) { return serveCount(fanTable, i, r); }
void fanTable_createEntry() { std::puts("fanTable_createEntry()"); }
void fanTable_removeEntry() { std::puts("fanTable_removeEntry()"); }
// clang-format on
} // namespace

constexpr TableModule fanTable = {
    .name = "fanTable",
    .object = enterpriseOid(3, 3, 2),
    .columns = columns,
    .rowSets = rowSets,
    .rows = &rows,
    .count = {"handle_fanTableCount", enterpriseOid(3, 3, 1), handle_fanTableCount},
    .record = recordSource<&KvAgent::talFanTableData, &FanRecord::values>("talFanTableData"),
    .refill = refillFanTableEntries,
    .hooks = {fanTable_handler, fanTable_get_first_data_point, fanTable_get_next_data_point, fanTable_load,
              fanTable_free, fanTable_createEntry, fanTable_removeEntry},
};

void init_fanTable()
{
    std::puts("init_fanTable()");
    initialize_table_fanTable();
    registerScalar(fanTable.count);
}
