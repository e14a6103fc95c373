// E.3.2: temperatures.
#include "agent/modules.h"

#include <cstdio>

namespace {
// The labels are the same three texts in every row.
constexpr RowText<32> currentLabel = rowText<32>("Current Temperature");
constexpr RowText<32> peakLabel = rowText<32>("Peak Temperature");
constexpr RowText<32> averageLabel = rowText<32>("Average Temperature");

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
constexpr Line lines6425[] = { // gaps are intended: one index means one sensor on every amplifier
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
constexpr Column columns[] = {
    {ASN_INTEGER,   cell<&TableRow::index>},
    {ASN_OCTET_STR, cell<&TableRow::description>},
    {ASN_OCTET_STR, constantCell<currentLabel>},
    {ASN_GAUGE,     cell<&TempRow::current>},
    {ASN_OCTET_STR, constantCell<peakLabel>},
    {ASN_GAUGE,     cell<&TempRow::peak>},
    {ASN_OCTET_STR, constantCell<averageLabel>},
    {ASN_GAUGE,     cell<&TempRow::average>},
};
// clang-format on

Rows<TempRow, rowSets, tempRows> rows({});

// clang-format off
void initialize_table_tempTable() { initializeTable(tempTable); }
Index *tempTable_get_first_data_point(void **l, void **d, Index *i, Iterator *) { return firstRow(tempTable, l, d, i); }
Index *tempTable_get_next_data_point(void **l, void **d, Index *i, Iterator *) { return nextRow(tempTable, l, d, i); }
int tempTable_handler(Handler *, Registration *, Info *i, Request *r) { return serveTable(tempTable, i, r); }
void refillTempTableEntries() { refillTable(tempTable); }
int tempTable_load(Cache *, void *) { return loadTable(tempTable); }
void tempTable_free(Cache *, void *) { freeTable(tempTable); }
int handle_tempTableCount(Handler *, Registration *, Info *i, Request *r) { return serveCount(tempTable, i, r); }
void tempTable_createEntry() { std::puts("tempTable_createEntry()"); }
void tempTable_removeEntry() { std::puts("tempTable_removeEntry()"); }
// clang-format on
} // namespace

constexpr TableModule tempTable = {
    .name = "tempTable",
    .object = enterpriseOid(3, 2, 2),
    .columns = columns,
    .rowSets = rowSets,
    .rows = &rows,
    .count = {"handle_tempTableCount", enterpriseOid(3, 2, 1), handle_tempTableCount},
    .record = recordSource<&KvAgent::talTempTableData, &TempRecord::rows>("talTempTableData"),
    .refill = refillTempTableEntries,
    .hooks = {tempTable_handler, tempTable_get_first_data_point, tempTable_get_next_data_point, tempTable_load,
              tempTable_free, tempTable_createEntry, tempTable_removeEntry},
};

void init_tempTable()
{
    std::puts("init_tempTable()");
    initialize_table_tempTable();
    registerScalar(tempTable.count);
}
