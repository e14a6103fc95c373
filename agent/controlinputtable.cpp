// E.3.9: control inputs.
#include "agent/modules.h"
#include "agent/tablecore.h"

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
// clang-format on
static_assert(goodLines(rowSets, controlInputRows));

struct ControlInputTableRow : TableRow {
    std::uint32_t state = 1;
    std::uint32_t monitored = 1;
};

// clang-format off
constexpr Column columns[] = {
    {ASN_INTEGER,   cell<&ControlInputTableRow::index>},
    {ASN_OCTET_STR, cell<&ControlInputTableRow::description>},
    {ASN_INTEGER,   cell<&ControlInputTableRow::state>},
    {ASN_INTEGER,   cell<&ControlInputTableRow::monitored>},
};
// clang-format on

constexpr auto tableOid = enterpriseOid(3, 9, 2);
constexpr auto countOid = enterpriseOid(3, 9, 1);

void copy(ControlInputTableRow &row, const ControlInputRecord &record)
{
    row.state = record.rows[row.source].status;
    row.monitored = record.rows[row.source].monitored;
}

Rows<ControlInputTableRow, highestIndex(rowSets)> rows;

constexpr TableModule table = {
    .name = "controlInputTable",
    .object = tableOid,
    .columns = columns,
    .rowSets = rowSets,
    .rows = &rows,
    .count = {"handle_controlInputCount", countOid, handle_controlInputCount},
    .record = recordSource<&KvAgent::talControlInputTableData, copy>("talControlInputTableData"),
    .refill = refillControlInputTableEntries,
    .hooks = {controlInputTable_handler, controlInputTable_get_first_data_point, controlInputTable_get_next_data_point,
              controlInputTable_load, controlInputTable_free},
};
} // namespace

void init_controlInputTable()
{
    initialize_table_controlInputTable();
    std::puts("controlInputCount Initializing");
    registerScalar(table.count);
}

// clang-format off
void initialize_table_controlInputTable() { initializeTable(table); }
Index *controlInputTable_get_first_data_point(void **l, void **d, Index *i, Iterator *) { return firstRow(table, l, d, i); }
Index *controlInputTable_get_next_data_point(void **l, void **d, Index *i, Iterator *) { return nextRow(table, l, d, i); }
int controlInputTable_handler(Handler *, Registration *, Info *i, Request *r) { return serveTable(table, i, r); }
int controlInputTable_load(Cache *, void *) { return loadTable(table); }
void controlInputTable_free(Cache *, void *) { freeTable(table); }
int handle_controlInputCount(Handler *, Registration *, Info *i, Request *r) { return serveCount(table, i, r); }
void refillControlInputTableEntries() { refillTable(table); }
void controlInputTable_createEntry() { std::puts("controlInputTable_createEntry()"); }
void controlInputTable_removeEntry() { std::puts("controlInputTable_removeEntry()"); }
// clang-format on
