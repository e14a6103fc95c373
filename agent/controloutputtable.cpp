// E.3.10: control outputs.
#include "agent/modules.h"

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
constexpr Column columns[] = {
    {ASN_INTEGER,   cell<&TableRow::index>},
    {ASN_OCTET_STR, cell<&TableRow::description>},
    {ASN_INTEGER,   numberCell},
};
// clang-format on

Rows<std::uint32_t, rowSets, controlOutputRows> rows(1);

// clang-format off
void initialize_table_controlOutputTable() { initializeTable(controlOutputTable); }
Index *controlOutputTable_get_first_data_point(void **l, void **d, Index *i, Iterator *) { return firstRow(controlOutputTable, l, d, i); }
Index *controlOutputTable_get_next_data_point(void **l, void **d, Index *i, Iterator *) { return nextRow(controlOutputTable, l, d, i); }
int controlOutputTable_handler(Handler *, Registration *, Info *i, Request *r) { return serveTable(controlOutputTable, i, r); }
void refillControlOutputTableEntries() { refillTable(controlOutputTable); }
int controlOutputTable_load(Cache *, void *) { return loadTable(controlOutputTable); }
void controlOutputTable_free(Cache *, void *) { freeTable(controlOutputTable); }
int handle_controlOutputCount(Handler *, Registration *, Info *i, Request *r) { return serveCount(controlOutputTable, i, r); }
void controlOutputTable_createEntry() { std::puts("controlOutputTable_createEntry()"); }
void controlOutputTable_removeEntry() { std::puts("controlOutputTable_removeEntry()"); }
// clang-format on
} // namespace

constexpr TableModule controlOutputTable = {
    .name = "controlOutputTable",
    .object = enterpriseOid(3, 10, 2),
    .columns = columns,
    .rowSets = rowSets,
    .rows = &rows,
    .count = {"handle_controlOutputCount", enterpriseOid(3, 10, 1), handle_controlOutputCount},
    .record =
        recordSource<&KvAgent::talControlOutputTableData, &ControlOutputRecord::status>("talControlOutputTableData"),
    .refill = refillControlOutputTableEntries,
    .hooks = {controlOutputTable_handler, controlOutputTable_get_first_data_point,
              controlOutputTable_get_next_data_point, controlOutputTable_load, controlOutputTable_free,
              controlOutputTable_createEntry, controlOutputTable_removeEntry},
};

void init_controlOutputTable()
{
    initialize_table_controlOutputTable();
    std::puts("controlOutputCount Initializing");
    registerScalar(controlOutputTable.count);
}
