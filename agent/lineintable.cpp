// E.3.6: line inputs and microphones.
#include "agent/modules.h"
#include "agent/tablecore.h"

#include <cstdio>

namespace {
// clang-format off
constexpr Line lineInputs[] = {
    {1, "Line In 1",         0},
    {2, "Line In 2",         1},
};
constexpr Line microphones[] = { // other indices, the same record rows
    {3, "Microphone Extern", 0},
    {4, "Microphone Intern", 1},
};
constexpr RowSet rowSets[] = {
    {pilotToneModels,  lineInputs},
    {microphoneModels, microphones},
};
// clang-format on
static_assert(goodLines(rowSets, lineInRows));

struct LineInTableRow : TableRow {
    std::uint32_t lineInStatus = 0;
    std::uint32_t micStatus = 0;
    std::uint32_t monitoring = 1;
};

// clang-format off
constexpr Column columns[] = {
    {ASN_INTEGER,   cell<&LineInTableRow::index>},
    {ASN_INTEGER,   cell<&LineInTableRow::lineInStatus>},
    {ASN_INTEGER,   cell<&LineInTableRow::micStatus>},
    {ASN_OCTET_STR, cell<&LineInTableRow::description>},
    {ASN_INTEGER,   cell<&LineInTableRow::monitoring>},
};
// clang-format on

constexpr auto tableOid = enterpriseOid(3, 6, 1);

void copy(LineInTableRow &row, const LineInRecord &record)
{
    const LineInRow &source = record.rows[row.source];
    row.lineInStatus = source.lineInStatus;
    row.micStatus = source.micStatus;
    row.monitoring = source.lineInMonitoring;
}

Rows<LineInTableRow, highestIndex(rowSets)> rows;

constexpr TableModule table = {
    .name = "lineInTable",
    .object = tableOid,
    .columns = columns,
    .rowSets = rowSets,
    .rows = &rows,
    .record = recordSource<&KvAgent::talLineInTableData, copy>("talLineInTableData"),
    .refill = refillLineInTableEntries,
    .hooks = {lineInTable_handler, lineInTable_get_first_data_point, lineInTable_get_next_data_point, lineInTable_load,
              lineInTable_free},
};
} // namespace

// clang-format off
void init_lineInTable() { initialize_table_lineInTable(); }
void initialize_table_lineInTable() { initializeTable(table); }
Index *lineInTable_get_first_data_point(void **l, void **d, Index *i, Iterator *) { return firstRow(table, l, d, i); }
Index *lineInTable_get_next_data_point(void **l, void **d, Index *i, Iterator *) { return nextRow(table, l, d, i); }
int lineInTable_handler(Handler *, Registration *, Info *i, Request *r) { return serveTable(table, i, r); }
int lineInTable_load(Cache *, void *) { return loadTable(table); }
void lineInTable_free(Cache *, void *) { freeTable(table); }
void refillLineInTableEntries() { refillTable(table); }
void lineInTable_createEntry() { std::puts("lineInTable_createEntry()"); }
void lineInTable_removeEntry() { std::puts("lineInTable_removeEntry()"); }
// clang-format on
