// E.3.6: line inputs and microphones.
#include "agent/modules.h"

#include <cstdio>

namespace {
// clang-format off
constexpr Line lineInputs[] = {
    {1, "Line In 1",         0},
    {2, "Line In 2",         1},
};
constexpr Line microphones[] = { // other indexes, the same record rows
    {3, "Microphone Extern", 0},
    {4, "Microphone Intern", 1},
};
constexpr RowSet rowSets[] = {
    {pilotToneModels,  lineInputs},
    {microphoneModels, microphones},
};
constexpr Column columns[] = {
    {ASN_INTEGER,   cell<&TableRow::index>},
    {ASN_INTEGER,   cell<&LineInRow::lineInStatus>},
    {ASN_INTEGER,   cell<&LineInRow::micStatus>},
    {ASN_OCTET_STR, cell<&TableRow::description>},
    {ASN_INTEGER,   cell<&LineInRow::lineInMonitoring>},
};
// clang-format on

Rows<LineInRow, rowSets, lineInRows> rows({.lineInStatus = 0, .micStatus = 0, .lineInMonitoring = 1});

// clang-format off
void initialize_table_lineInTable() { initializeTable(lineInTable); }
Index *lineInTable_get_first_data_point(void **l, void **d, Index *i, Iterator *) { return firstRow(lineInTable, l, d, i); }
Index *lineInTable_get_next_data_point(void **l, void **d, Index *i, Iterator *) { return nextRow(lineInTable, l, d, i); }
int lineInTable_handler(Handler *, Registration *, Info *i, Request *r) { return serveTable(lineInTable, i, r); }
void refillLineInTableEntries() { refillTable(lineInTable); }
int lineInTable_load(Cache *, void *) { return loadTable(lineInTable); }
void lineInTable_free(Cache *, void *) { freeTable(lineInTable); }
void lineInTable_createEntry() { std::puts("lineInTable_createEntry()"); }
void lineInTable_removeEntry() { std::puts("lineInTable_removeEntry()"); }
// clang-format on
} // namespace

constexpr TableModule lineInTable = {
    .name = "lineInTable",
    .object = enterpriseOid(3, 6, 1),
    .columns = columns,
    .rowSets = rowSets,
    .rows = &rows,
    .record = recordSource<&KvAgent::talLineInTableData, &LineInRecord::rows>("talLineInTableData"),
    .refill = refillLineInTableEntries,
    .hooks = {lineInTable_handler, lineInTable_get_first_data_point, lineInTable_get_next_data_point, lineInTable_load,
              lineInTable_free, lineInTable_createEntry, lineInTable_removeEntry},
};

void init_lineInTable()
{
    initialize_table_lineInTable();
}
