// E.3.2: temperatures.
#include "agent/modules.h"
#include "agent/tablecore.h"

#include <cstdio>

namespace {
// clang-format off
constexpr Line lines6410[] = {
    {1, "Temperature Sensor: Main Board 1", 3},
    {2, "Temperature Sensor: Main Board 2", 4},
    {3, "Temperature Sensor: AC Power",     5},
    {4, "Temperature Sensor: DC Power",     6},
};
constexpr Line lines6420[] = {
    {1, "Temperature Sensor: Channel 1",    0},
    {2, "Temperature Sensor: Channel 2",    1},
    {3, "Temperature Sensor: Main Board",   2},
    {4, "Temperature Sensor: AC Power",     5},
    {5, "Temperature Sensor: DC Power",     6},
};
constexpr Line lines6425[] = { // gaps on purpose: one index means one sensor on every amplifier
    {1, "Temperature Sensor: Channel 1",    0},
    {2, "Temperature Sensor: Channel 2",    1},
    {3, "Temperature Sensor: Main Board",   2},
    {5, "Temperature Sensor: DC Power",     6},
};
constexpr Line lines6720[] = {
    {1, "Temperature Sensor: Channel 1",    0},
    {3, "Temperature Sensor: Main Board",   2},
};
constexpr Line lines6764[] = {
    {1, "Temperature Sensor: Channel 1",    0},
    {3, "Temperature Sensor: Main Board",   2},
    {4, "Temperature Sensor: AC Power",     5},
};
constexpr RowSet rowSets[] = {
    {{6410}, lines6410},
    {{6420}, lines6420},
    {{6425}, lines6425},
    {{6720}, lines6720},
    {{6764}, lines6764},
};
// clang-format on
static_assert(goodLines(rowSets, tempRows));

struct TempTableRow : TableRow {
    std::uint32_t current = 0;
    std::uint32_t peak = 0;
    std::uint32_t average = 0;
};

// The labels are the same three texts in every row.
constexpr RowText<32> currentLabel = rowText<32>("Current Temperature");
constexpr RowText<32> peakLabel = rowText<32>("Peak Temperature");
constexpr RowText<32> averageLabel = rowText<32>("Average Temperature");

// clang-format off
constexpr Column columns[] = {
    {ASN_INTEGER,   cell<&TempTableRow::index>},
    {ASN_OCTET_STR, cell<&TempTableRow::description>},
    {ASN_OCTET_STR, constantCell<currentLabel>},
    {ASN_GAUGE,     cell<&TempTableRow::current>},
    {ASN_OCTET_STR, constantCell<peakLabel>},
    {ASN_GAUGE,     cell<&TempTableRow::peak>},
    {ASN_OCTET_STR, constantCell<averageLabel>},
    {ASN_GAUGE,     cell<&TempTableRow::average>},
};
// clang-format on

constexpr auto tableOid = enterpriseOid(3, 2, 2);
constexpr auto countOid = enterpriseOid(3, 2, 1);

void copy(TempTableRow &row, const TempRecord &record)
{
    const TempRow &source = record.rows[row.source];
    row.current = source.current;
    row.peak = source.peak;
    row.average = source.average;
}

Rows<TempTableRow, highestIndex(rowSets)> rows;

constexpr TableModule table = {
    .name = "tempTable",
    .object = tableOid,
    .columns = columns,
    .rowSets = rowSets,
    .rows = &rows,
    .count = {"handle_tempTableCount", countOid, handle_tempTableCount},
    .record = recordSource<&KvAgent::talTempTableData, copy>("talTempTableData"),
    .refill = refillTempTableEntries,
    .hooks = {tempTable_handler, tempTable_get_first_data_point, tempTable_get_next_data_point, tempTable_load,
              tempTable_free},
};
} // namespace

void init_tempTable()
{
    std::puts("init_tempTable()");
    initialize_table_tempTable();
    registerScalar(table.count);
}

// clang-format off
void initialize_table_tempTable() { initializeTable(table); }
Index *tempTable_get_first_data_point(void **l, void **d, Index *i, Iterator *) { return firstRow(table, l, d, i); }
Index *tempTable_get_next_data_point(void **l, void **d, Index *i, Iterator *) { return nextRow(table, l, d, i); }
int tempTable_handler(Handler *, Registration *, Info *i, Request *r) { return serveTable(table, i, r); }
int tempTable_load(Cache *, void *) { return loadTable(table); }
void tempTable_free(Cache *, void *) { freeTable(table); }
int handle_tempTableCount(Handler *, Registration *, Info *i, Request *r) { return serveCount(table, i, r); }
void refillTempTableEntries() { refillTable(table); }
void tempTable_createEntry() { std::puts("tempTable_createEntry()"); }
void tempTable_removeEntry() { std::puts("tempTable_removeEntry()"); }
// clang-format on
