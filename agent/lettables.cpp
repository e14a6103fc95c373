// E.3.8: line end transponders (LETs), one table per channel, both served by one handler.
#include "agent/modules.h"
#include "agent/tablecore.h"

#include <cstdio>
#include <cstring>

namespace {
// clang-format off
constexpr Line lines1[] = {
    { 1, "LET 1 Channel 1",  0}, { 2, "LET 2 Channel 1",  1}, { 3, "LET 3 Channel 1",  2}, { 4, "LET 4 Channel 1",  3},
    { 5, "LET 5 Channel 1",  4}, { 6, "LET 6 Channel 1",  5}, { 7, "LET 7 Channel 1",  6}, { 8, "LET 8 Channel 1",  7},
    { 9, "LET 9 Channel 1",  8}, {10, "LET 10 Channel 1", 9},
};
constexpr Line lines2[] = {
    { 1, "LET 1 Channel 2",  0}, { 2, "LET 2 Channel 2",  1}, { 3, "LET 3 Channel 2",  2}, { 4, "LET 4 Channel 2",  3},
    { 5, "LET 5 Channel 2",  4}, { 6, "LET 6 Channel 2",  5}, { 7, "LET 7 Channel 2",  6}, { 8, "LET 8 Channel 2",  7},
    { 9, "LET 9 Channel 2",  8}, {10, "LET 10 Channel 2", 9},
};
constexpr RowSet rowSets1[] = {{letModels, lines1}};
constexpr RowSet rowSets2[] = {{letModels, lines2}};
// clang-format on
static_assert(goodLines(rowSets1, letsPerChannel) && goodLines(rowSets2, letsPerChannel));

struct LetTableRow : TableRow {
    std::uint32_t letStatus = 1;
    RowText<sizeof(LetEntry::softwareVersion)> softwareVersion = rowText<sizeof(LetEntry::softwareVersion)>("Unknown");
    RowText<sizeof(LetEntry::hardwareVersion)> hardwareVersion = rowText<sizeof(LetEntry::hardwareVersion)>("Unknown");
    std::uint32_t voltage = 0;
};

// clang-format off
constexpr Column columns[] = {
    {ASN_INTEGER,   cell<&LetTableRow::index>},
    {ASN_OCTET_STR, cell<&LetTableRow::description>}, // fixed: the data service's own description is not served
    {ASN_INTEGER,   cell<&LetTableRow::letStatus>},
    {ASN_OCTET_STR, cell<&LetTableRow::softwareVersion>},
    {ASN_OCTET_STR, cell<&LetTableRow::hardwareVersion>},
    {ASN_GAUGE,     cell<&LetTableRow::voltage>},
};
// clang-format on

constexpr auto count1Oid = enterpriseOid(3, 8, 1, 1);
constexpr auto table1Oid = enterpriseOid(3, 8, 1, 2);
constexpr auto count2Oid = enterpriseOid(3, 8, 2, 1);
constexpr auto table2Oid = enterpriseOid(3, 8, 2, 2);

template <std::size_t size>
std::string_view textOf(const char (&buffer)[size])
{
    return {buffer, strnlen(buffer, size)};
}

/// Takes what was stored since the last copy. A version that has never arrived leaves "Unknown" in place.
template <std::size_t channel>
void copy(LetTableRow &row, LetRecord &record)
{
    LetEntry &let = record.lets[channel][row.source];
    if (let.changed.status != 0)
        row.letStatus = let.letStatus;
    if (let.changed.softwareVersion != 0)
        setText(row.softwareVersion, textOf(let.softwareVersion));
    if (let.changed.hardwareVersion != 0)
        setText(row.hardwareVersion, textOf(let.hardwareVersion));
    if (let.changed.voltage != 0)
        row.voltage = let.letVoltage;
    let.changed = {};
}

Rows<LetTableRow, letsPerChannel> rows1;
Rows<LetTableRow, letsPerChannel> rows2;

constexpr TableModule tables[ampChannels] = {
    {
        .name = "letChannel1Table",
        .object = table1Oid,
        .columns = columns,
        .rowSets = rowSets1,
        .rows = &rows1,
        .count = {"handle_letChannel1Count", count1Oid, handle_letChannel1Count},
        .record = recordSource<&KvAgent::talLetChannelTableData, copy<0>>("talLetChannelTableData"),
        .refill = [] { refillLetChannelTableEntries(1); },
        .hooks = {letChannelTable_handler, letChannel1Table_get_first_data_point, letChannel1Table_get_next_data_point,
                  letChannel1Table_load, letChannelTable_free},
    },
    {
        .name = "letChannel2Table",
        .object = table2Oid,
        .columns = columns,
        .rowSets = rowSets2,
        .rows = &rows2,
        .count = {"handle_letChannel2Count", count2Oid, handle_letChannel2Count},
        .record = recordSource<&KvAgent::talLetChannelTableData, copy<1>>("talLetChannelTableData"),
        .refill = [] { refillLetChannelTableEntries(2); },
        .hooks = {letChannelTable_handler, letChannel2Table_get_first_data_point, letChannel2Table_get_next_data_point,
                  letChannel2Table_load, letChannelTable_free},
    },
};
} // namespace

void init_letChannelTables()
{
    initialize_table_letChannel1Table();
    initialize_table_letChannel2Table();
    for (const TableModule &table : tables)
        registerScalar(table.count);
}

// clang-format off
void initialize_table_letChannel1Table() { initializeTable(tables[0]); }
void initialize_table_letChannel2Table() { initializeTable(tables[1]); }
Index *letChannel1Table_get_first_data_point(void **l, void **d, Index *i, Iterator *) { return firstRow(tables[0], l, d, i); }
Index *letChannel1Table_get_next_data_point(void **l, void **d, Index *i, Iterator *) { return nextRow(tables[0], l, d, i); }
Index *letChannel2Table_get_first_data_point(void **l, void **d, Index *i, Iterator *) { return firstRow(tables[1], l, d, i); }
Index *letChannel2Table_get_next_data_point(void **l, void **d, Index *i, Iterator *) { return nextRow(tables[1], l, d, i); }
int letChannelTable_handler(Handler *, Registration *, Info *i, Request *r)
{
    if (i != nullptr)
        std::printf("letChannelTable_handler()   Processing request (%d)\n", i->mode);
    return serveTable("letChannelTable", columns, i, r);
}
int letChannel1Table_load(Cache *, void *) { return loadTable(tables[0]); }
int letChannel2Table_load(Cache *, void *) { return loadTable(tables[1]); }
void letChannelTable_free(Cache *, void *) { std::puts("letChannelTable_free()"); }
int handle_letChannel1Count(Handler *, Registration *, Info *i, Request *r) { return serveCount(tables[0], i, r); }
int handle_letChannel2Count(Handler *, Registration *, Info *i, Request *r)
{
    return serveInteger(tables[0].count.handlerName, rows2.count(), i, r); // logs the first channel's name: intended
}
void refillLetChannelTableEntries(std::uint32_t letChannel)
{
    std::printf("copyTalLetChannelTableData() for letChannel: %u\n", letChannel);
    copyRecord(tables[letChannel - 1]);
}
void letChannelTable_createEntry() { std::puts("letChannelTable_createEntry()"); }
void letChannelTable_removeEntry() { std::puts("letChannelTable_removeEntry()"); }
// clang-format on
