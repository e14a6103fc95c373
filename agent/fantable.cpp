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
constexpr Column columns[] = {
    {ASN_INTEGER,   cell<&FanTableRow::index>},
    {ASN_OCTET_STR, cell<&FanTableRow::description>},
    {ASN_GAUGE,     cell<&FanTableRow::rpm>},
};
// clang-format on

constexpr auto tableOid = enterpriseOid(3, 3, 2);
constexpr auto countOid = enterpriseOid(3, 3, 1);

void copy(FanTableRow &row, const FanRecord &record)
{
    row.rpm = record.values[row.source];
}

Rows<FanTableRow, highestIndex(rowSets)> rows;

constexpr TableModule table = {
    .name = "fanTable",
    .object = tableOid,
    .columns = columns,
    .rowSets = rowSets,
    .rows = &rows,
    .count = {"handle_fanTableCount", countOid, handle_fanTableCount},
    .record = recordSource<&KvAgent::talFanTableData, copy>("talFanTableData"),
    .refill = refillFanTableEntries,
    .hooks = {fanTable_handler, fanTable_get_first_data_point, fanTable_get_next_data_point, fanTable_load,
              fanTable_free},
};
} // namespace

void init_fanTable()
{
    std::puts("init_fanTable()");
    initialize_table_fanTable();
    registerScalar(table.count);
}

// clang-format off
void initialize_table_fanTable() { initializeTable(table); }
Index *fanTable_get_first_data_point(void **l, void **d, Index *i, Iterator *) { return firstRow(table, l, d, i); }
Index *fanTable_get_next_data_point(void **l, void **d, Index *i, Iterator *) { return nextRow(table, l, d, i); }
int fanTable_handler(Handler *, Registration *, Info *i, Request *r) { return serveTable(table, i, r); }
int fanTable_load(Cache *, void *) { return loadTable(table); }
void fanTable_free(Cache *, void *) { freeTable(table); }
int handle_fanTableCount(Handler *, Registration *, Info *i, Request *r) { return serveCount(table, i, r); }
void refillFanTableEntries() { refillTable(table); }
void fanTable_createEntry() { std::puts("fanTable_createEntry()"); }
void fanTable_removeEntry() { std::puts("fanTable_removeEntry()"); }
// clang-format on
