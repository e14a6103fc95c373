// E.3.10: control outputs.
#include "agent/modules.h"
#include "agent/tablecore.h"

#include <cstdio>

namespace {
// clang-format off
constexpr Line lines[] = { // on every model
    {1, "Control Output 1", 0},
    {2, "Control Output 2", 1},
    {3, "Control Output 3", 2},
    {4, "Control Output 4", 3},
    {5, "Control Output 5", 4},
    {6, "Control Output 6", 5},
};
constexpr RowSet rowSets[] = {
    {noModelTest, lines},
};
// clang-format on
static_assert(goodLines(rowSets, controlOutputRows));

struct ControlOutputTableRow : TableRow {
    std::uint32_t state = 1;
};

// clang-format off
constexpr Column columns[] = {
    {ASN_INTEGER,   cell<&ControlOutputTableRow::index>},
    {ASN_OCTET_STR, cell<&ControlOutputTableRow::description>},
    {ASN_INTEGER,   cell<&ControlOutputTableRow::state>},
};
// clang-format on

constexpr auto tableOid = enterpriseOid(3, 10, 2);
constexpr auto countOid = enterpriseOid(3, 10, 1);

void copy(ControlOutputTableRow &row, const ControlOutputRecord &record)
{
    row.state = record.status[row.source];
}

Rows<ControlOutputTableRow, highestIndex(rowSets)> rows;

constexpr TableModule table = {
    .name = "controlOutputTable",
    .object = tableOid,
    .columns = columns,
    .rowSets = rowSets,
    .rows = &rows,
    .count = {"handle_controlOutputCount", countOid, handle_controlOutputCount},
    .record = recordSource<&KvAgent::talControlOutputTableData, copy>("talControlOutputTableData"),
    .refill = refillControlOutputTableEntries,
    .hooks = {controlOutputTable_handler, controlOutputTable_get_first_data_point,
              controlOutputTable_get_next_data_point, controlOutputTable_load, controlOutputTable_free},
};
} // namespace

void init_controlOutputTable()
{
    initialize_table_controlOutputTable();
    std::puts("controlOutputCount Initializing");
    registerScalar(table.count);
}

// clang-format off
void initialize_table_controlOutputTable() { initializeTable(table); }
Index *controlOutputTable_get_first_data_point(void **l, void **d, Index *i, Iterator *) { return firstRow(table, l, d, i); }
Index *controlOutputTable_get_next_data_point(void **l, void **d, Index *i, Iterator *) { return nextRow(table, l, d, i); }
int controlOutputTable_handler(Handler *, Registration *, Info *i, Request *r) { return serveTable(table, i, r); }
int controlOutputTable_load(Cache *, void *) { return loadTable(table); }
void controlOutputTable_free(Cache *, void *) { freeTable(table); }
int handle_controlOutputCount(Handler *, Registration *, Info *i, Request *r) { return serveCount(table, i, r); }
void refillControlOutputTableEntries() { refillTable(table); }
void controlOutputTable_createEntry() { std::puts("controlOutputTable_createEntry()"); }
void controlOutputTable_removeEntry() { std::puts("controlOutputTable_removeEntry()"); }
// clang-format on
