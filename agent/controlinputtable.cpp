// E.3.9: control inputs.
#include "agent/modules.h"

#include <cstdio>

namespace {
// clang-format off
constexpr Line ownLines[] = { // on every model
    { 1, "Control Input 1",  0},
    { 2, "Control Input 2",  1},
    { 3, "Control Input 3",  2},
    { 4, "Control Input 4",  3},
    { 5, "Control Input 5",  4},
    { 6, "Control Input 6",  5},
};
constexpr Line expanderLines[] = { // on stations with expanders
    { 7, "External Control Input 1",  6},
    { 8, "External Control Input 2",  7},
    { 9, "External Control Input 3",  8},
    {10, "External Control Input 4",  9},
    {11, "External Control Input 5", 10},
    {12, "External Control Input 6", 11},
    {13, "External Control Input 7", 12},
    {14, "External Control Input 8", 13},
};
constexpr RowSet rowSets[] = {
    {noModelTest, ownLines, nullptr, expanderLines},
};
constexpr Column columns[] = {
    {ASN_INTEGER,   cell<&TableRow::index>},
    {ASN_OCTET_STR, cell<&TableRow::description>},
    {ASN_INTEGER,   cell<&ControlInputRow::status>},
    {ASN_INTEGER,   cell<&ControlInputRow::monitored>},
};
// clang-format on

Rows<ControlInputRow, rowSets, controlInputRows> rows({.status = 1, .monitored = 1});

// clang-format off
void initialize_table_controlInputTable() { initializeTable(controlInputTable); }
Index *controlInputTable_get_first_data_point(void **l, void **d, Index *i, Iterator *) { return firstRow(controlInputTable, l, d, i); }
Index *controlInputTable_get_next_data_point(void **l, void **d, Index *i, Iterator *) { return nextRow(controlInputTable, l, d, i); }
int controlInputTable_handler(Handler *, Registration *, Info *i, Request *r) { return serveTable(controlInputTable, i, r); }
void refillControlInputTableEntries() { refillTable(controlInputTable); }
int controlInputTable_load(Cache *, void *) { return loadTable(controlInputTable); }
void controlInputTable_free(Cache *, void *) { freeTable(controlInputTable); }
int handle_controlInputCount(Handler *, Registration *, Info *i, Request *r) { return serveCount(controlInputTable, i, r); }
void controlInputTable_createEntry() { std::puts("controlInputTable_createEntry()"); }
void controlInputTable_removeEntry() { std::puts("controlInputTable_removeEntry()"); }
// clang-format on
} // namespace

constexpr TableModule controlInputTable = {
    .name = "controlInputTable",
    .object = enterpriseOid(3, 9, 2),
    .columns = columns,
    .rowSets = rowSets,
    .rows = &rows,
    .count = {"handle_controlInputCount", enterpriseOid(3, 9, 1), handle_controlInputCount},
    .record = recordSource<&KvAgent::talControlInputTableData, &ControlInputRecord::rows>("talControlInputTableData"),
    .refill = refillControlInputTableEntries,
    .hooks = {controlInputTable_handler, controlInputTable_get_first_data_point, controlInputTable_get_next_data_point,
              controlInputTable_load, controlInputTable_free, controlInputTable_createEntry,
              controlInputTable_removeEntry},
};

void init_controlInputTable()
{
    initialize_table_controlInputTable();
    std::puts("controlInputCount Initializing");
    registerScalar(controlInputTable.count);
}
