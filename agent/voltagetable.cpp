// E.3.4: supply voltages.
#include "agent/modules.h"

#include <cstdio>

namespace {
// clang-format off
constexpr Line lines6410[] = {
    { 1, "Internal voltage 1.2V",      1},
    { 2, "Internal voltage 1.8V",      2},
    { 3, "Internal voltage 3.3V",      3},
    { 4, "Internal voltage 5.0V",      4},
    { 5, "Internal voltage 12.7V",     5},
    { 6, "Internal voltage 15.0V",     6},
    { 7, "Internal voltage 24.0V",     7},
    { 8, "Front Board 24.0V",          8},
    { 9, "Internal voltage 32.0V",    10},
    {10, "Internal AC Power 24.0V",   12},
    {11, "Internal DC Power 24.0V",   14},
};
constexpr Line lines6420[] = {
    { 1, "Network Switch 1.8V",        0},
    { 2, "Internal voltage 1.8V",      2},
    { 3, "Internal voltage 3.3V",      3},
    { 4, "Internal voltage 5.0V",      4},
    { 5, "Internal voltage 12.7V",     5},
    { 6, "Internal voltage 15.0V",     6},
    { 7, "Internal voltage 24.0V",     7},
    { 8, "Front Board 24.0V",          8},
    { 9, "Internal voltage 50.0V",     9},
    {10, "Internal AC Power 50.0V",   11},
    {11, "Internal DC Power 50.0V",   13},
    {12, "Amplifier Supply 15.0V",    15},
    {13, "Phantom Microphone 12.0V",  16},
};
constexpr Line lines6720[] = { // gaps are intended: one index means one voltage line on every amplifier
    { 1, "Network Switch 1.8V",        0},
    { 3, "Internal voltage 3.3V",      3},
    { 4, "Internal voltage 5.0V",      4},
    { 5, "Internal voltage 12.7V",     5},
    { 7, "Internal voltage 24.0V",     7},
    { 9, "Internal voltage 50.0V",     9},
    {12, "Amplifier Supply 15.0V",    15},
    {14, "Low Noise 12.7V",           17},
};
constexpr Line lines6425[] = {
    { 1, "Network Switch 1.8V",        0},
    { 2, "Internal voltage 1.8V",      2},
    { 3, "Internal voltage 3.3V",      3},
    { 4, "Internal voltage 5.0V",      4},
    { 6, "Internal voltage 15.0V",     6},
    {15, "Internal voltage 24.0V",    18},
    {16, "Internal voltage -24.0V",   19},
};
constexpr RowSet rowSets[] = {
    {{6410},       lines6410},
    {{6420},       lines6420, "VQ9"},
    {{6720, 6764}, lines6720, "VQ9BAC"},
    {{6425},       lines6425, "VQ9-RX"},
};
constexpr Column columns[] = {
    {ASN_INTEGER,   cell<&TableRow::index>},
    {ASN_OCTET_STR, cell<&TableRow::description>},
    {ASN_GAUGE,     cell<&Measured::value>},
};
// clang-format on

Rows<Measured, rowSets, voltageSlots> rows({});

// clang-format off
void initialize_table_voltageTable() { initializeTable(voltageTable); }
Index *voltageTable_get_first_data_point(void **l, void **d, Index *i, Iterator *) { return firstRow(voltageTable, l, d, i); }
Index *voltageTable_get_next_data_point(void **l, void **d, Index *i, Iterator *) { return nextRow(voltageTable, l, d, i); }
int voltageTable_handler(Handler *, Registration *, Info *i, Request *r) { return serveTable(voltageTable, i, r); }
void refillVoltageTableEntries() { refillTable(voltageTable); }
int voltageTable_load(Cache *, void *) { return loadTable(voltageTable); }
void voltageTable_free(Cache *, void *) { freeTable(voltageTable); }
int handle_voltageTableCount(Handler *, Registration *, Info *i, Request *r) { return serveCount(voltageTable, i, r); }
void voltageTable_createEntry() { std::puts("voltageTable_createEntry()"); }
void voltageTable_removeEntry() { std::puts("voltageTable_removeEntry()"); }
// clang-format on
} // namespace

constexpr TableModule voltageTable = {
    .name = "voltageTable",
    .object = enterpriseOid(3, 4, 2),
    .columns = columns,
    .rowSets = rowSets,
    .rows = &rows,
    .count = {"handle_voltageTableCount", enterpriseOid(3, 4, 1), handle_voltageTableCount},
    .record = recordSource<&KvAgent::talVoltageTableData, &VoltageRecord::values>("talVoltageTableData"),
    .refill = refillVoltageTableEntries,
    .hooks = {voltageTable_handler, voltageTable_get_first_data_point, voltageTable_get_next_data_point,
              voltageTable_load, voltageTable_free, voltageTable_createEntry, voltageTable_removeEntry},
};

void init_voltageTable()
{
    std::printf("init_voltageTable() %u \n", kvAgent->modelNumber);
    initialize_table_voltageTable();
    registerScalar(voltageTable.count);
}
