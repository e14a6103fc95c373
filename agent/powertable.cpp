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
constexpr Column columns[] = {
    {ASN_INTEGER,   cell<&PowerTableRow::index>},
    {ASN_INTEGER,   cell<&PowerTableRow::index>}, // the kind of source: 1 AC, 2 DC, numbered as the rows are
    {ASN_OCTET_STR, cell<&PowerTableRow::description>},
    {ASN_INTEGER,   cell<&PowerTableRow::liveStatus>},
    {ASN_INTEGER,   cell<&PowerTableRow::monitored>},
};
// clang-format on

constexpr auto tableOid = enterpriseOid(3, 5, 1);

void copy(PowerTableRow &row, const PowerRecord &record)
{
    row.liveStatus = record.rows[row.source].liveStatus;
    row.monitored = record.rows[row.source].monitored;
}

Rows<PowerTableRow, highestIndex(rowSets)> rows;

constexpr TableModule table = {
    .name = "powerTable",
    .object = tableOid,
    .columns = columns,
    .rowSets = rowSets,
    .rows = &rows,
    .record = recordSource<&KvAgent::talPowerTableData, copy>("talPowerTableData"),
    .refill = refillPowerTableEntries,
    .hooks = {powerTable_handler, powerTable_get_first_data_point, powerTable_get_next_data_point, powerTable_load,
              powerTable_free},
};
} // namespace

// clang-format off
void init_powerTable() { initialize_table_powerTable(); }
void initialize_table_powerTable() { initializeTable(table); }
Index *powerTable_get_first_data_point(void **l, void **d, Index *i, Iterator *) { return firstRow(table, l, d, i); }
Index *powerTable_get_next_data_point(void **l, void **d, Index *i, Iterator *) { return nextRow(table, l, d, i); }
int powerTable_handler(Handler *, Registration *, Info *i, Request *r) { return serveTable(table, i, r); }
int powerTable_load(Cache *, void *) { return loadTable(table); }
void powerTable_free(Cache *, void *) { freeTable(table); }
void refillPowerTableEntries() { refillTable(table); }
void powerTable_createEntry() { std::puts("powerTable_createEntry()"); }
void powerTable_removeEntry() { std::puts("powerTable_removeEntry()"); }
// clang-format on
